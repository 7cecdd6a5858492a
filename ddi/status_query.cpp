// Polling: the controller base resource and the resources it links to.
#include <curl/curl.h>

#include "io/logline.h"
#include "io/memoryio.h"
#include "io/nullhash.h"
#include "plugin/libtamrelcore.h"
#include "transport/curlmanager.h"

namespace {

std::shared_ptr<curlbuffer> jsonBuffer() {
  return std::make_shared<curlbuffer>(std::make_unique<memoryio>(), std::make_unique<nullhash>());
}

}  // namespace

std::string libtamrelcore::buildQueryUrl() const {
  std::shared_ptr<lookup> const table = properties.lock();
  if (!table) {
    logLine("[E] libtamrelcore -> No server config found\n");
    return std::string();
  }
  char const* const missing = "[E] libtamrelcore -> No %s or %s specified\n";
  std::string address, tenant, controller;
  if (!settingPair(*table, "address", missing, address) || address.empty()) return std::string();
  if (!settingPair(*table, "tenant-id", missing, tenant) || tenant.empty()) return std::string();
  if (!settingPair(*table, "controller-id", missing, controller) || controller.empty()) {
    return std::string();
  }
  return address + "/" + tenant + "/controller/v1/" + controller;
}

hawkbit_query_t libtamrelcore::queryOnlineStatus() {
  hawkbit_query_t result;
  logLine("[I] libtamrelcore -> Querying server status\n");
  std::string const url = buildQueryUrl();
  if (url.empty()) return result;
  logLine("[I] libtamrelcore -> Querying %s\n", url.c_str());

  std::string body;
  {
    std::shared_ptr<curlbuffer> const buffer = jsonBuffer();
    transport->download(url, buffer);
    if (buffer->result != 0) {
      logLine("[E] libtamrelcore -> Failed: %s\n",
              curl_easy_strerror(static_cast<CURLcode>(buffer->result)));
      return result;
    }
    body = buffer->sink->data();
  }
  if (body.empty()) {
    logLine("[E] libtamrelcore -> Query response is empty. Unauthorized?\n");
    return result;
  }

  result = parseStatusResponse(body);
  if (!is_valid(result.config) && result.config_data.url.empty() &&
      result.cancel_action.url.empty() && result.deployment.url.empty()) {
    logLine("[E] libtamrelcore -> Failed to parse response!\n");
    return result;
  }

  if (!result.deployment.url.empty()) {
    std::shared_ptr<curlbuffer> const buffer = jsonBuffer();
    transport->download(result.deployment.url, buffer);
    logLine("[I] libtamrelcore -> Detected update - fetching update data\n");
    if (buffer->result == 0) {
      std::string const text = buffer->sink->data();
      if (!text.empty()) {
        parseDeploymentBase(text, result.deployment);
        result.deployment.json = text;
      }
    }
  }

  if (!result.cancel_action.url.empty()) {
    std::shared_ptr<curlbuffer> const buffer = jsonBuffer();
    transport->download(result.cancel_action.url, buffer);
    if (buffer->result == 0) {
      std::string const text = buffer->sink->data();
      if (!text.empty()) parseCancelAction(text, result.cancel_action);
    }
  }

  if (!result.config_data.url.empty()) links["configData"] = result.config_data.url;
  logLine("[I] libtamrelcore -> Server querying done\n");
  return result;
}
