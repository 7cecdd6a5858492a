#include "ddi/controller_url.h"

#include "io/logline.h"

bool read_setting_pair(lookup& table, std::string const& name, char const* missingFormat,
                       std::string& value) {
  std::string const fileName = name + "-file";
  std::shared_ptr<value_container> const plain = table[name];
  std::shared_ptr<value_container> const file = table[fileName];
  if (!plain->valid() && !file->valid()) {
    logLine(missingFormat, name.c_str(), fileName.c_str());
    return false;
  }
  value = (file->valid() && file->is_link()) ? file->link().text : plain->string();
  return true;
}

std::string build_query_url(std::weak_ptr<lookup> const& properties) {
  std::shared_ptr<lookup> const table = properties.lock();
  if (!table) {
    logLine("[E] libtamrelcore -> No server config found\n");
    return std::string();
  }
  char const* const missing = "[E] libtamrelcore -> No %s or %s specified\n";
  std::string address, tenant, controller;
  if (!read_setting_pair(*table, "address", missing, address) || address.empty()) {
    return std::string();
  }
  if (!read_setting_pair(*table, "tenant-id", missing, tenant) || tenant.empty()) {
    return std::string();
  }
  if (!read_setting_pair(*table, "controller-id", missing, controller) || controller.empty()) {
    return std::string();
  }
  return address + "/" + tenant + "/controller/v1/" + controller;
}

std::string build_feedback_url(std::weak_ptr<lookup> const& properties,
                               std::string const& actionId) {
  std::shared_ptr<lookup> const table = properties.lock();
  if (!table) {
    logLine(
        "[E] libtamrelcore -> Unable to find configuration. Cannot proceed with update "
        "feedback\n");
    return std::string();
  }
  char const* const missing = "[E] libtamrelcore -> Cannot find %s or %s\n";
  std::string address, tenant, controller;
  if (!read_setting_pair(*table, "address", missing, address) ||
      !read_setting_pair(*table, "tenant-id", missing, tenant) ||
      !read_setting_pair(*table, "controller-id", missing, controller)) {
    return std::string();
  }
  return address + "/" + tenant + "/controller/v1/" + controller + "/deploymentBase/" + actionId +
         "/feedback";
}
