#ifndef TAMREL_TESTS_SUPPORT_SETTINGS_H_
#define TAMREL_TESTS_SUPPORT_SETTINGS_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "properties/lookup.h"

namespace tamrel::testing {

using setting_t = std::pair<char const*, std::shared_ptr<value_container>>;

inline std::shared_ptr<value_container> text(std::string const& value) {
  return std::make_shared<value_container>(value);
}

// A "-file" setting as a host stores it: the file's path and its contents.
inline std::shared_ptr<value_container> fileText(std::string const& contents) {
  return std::make_shared<value_container>(link_t{"/etc/tamrel/setting", contents});
}

// A property table holding exactly `entries`, in this order.
inline std::shared_ptr<lookup> settings(std::vector<setting_t> const& entries) {
  auto table = std::make_shared<lookup>();
  for (auto const& entry : entries) table->entries.emplace_back(entry.first, entry.second);
  return table;
}

// The settings of a device talking to `address` as tenant "DEFAULT",
// controller "dev01", token "s3cret" (what DdiServer expects by default).
inline std::shared_ptr<lookup> serverSettings(std::string const& address) {
  return settings({{"address", text(address)},
                   {"tenant-id", text("DEFAULT")},
                   {"controller-id", text("dev01")},
                   {"token", text("s3cret")}});
}

}  // namespace tamrel::testing

#endif  // TAMREL_TESTS_SUPPORT_SETTINGS_H_
