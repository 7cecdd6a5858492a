#ifndef TAMREL_PROPERTIES_LOOKUP_H_
#define TAMREL_PROPERTIES_LOOKUP_H_

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "properties/value_container.h"

namespace tamrel {

// One target attribute, sent as configuration data.
struct value_pair_t {
  std::string key;
  std::string value;
};

}  // namespace tamrel

// The host's property table: named, shared values in insertion order. Asking
// for a missing name adds it as an invalid value, so after a client has run
// the table lists every setting it looked for.
//
// Not thread-safe: operator[] may add an entry.
class lookup {
 public:
  using entry_type = std::pair<std::string, std::shared_ptr<value_container>>;
  using container_type = std::vector<entry_type>;

  lookup() : fallback(std::make_shared<value_container>()) {}
  lookup(std::initializer_list<entry_type> list)
      : entries(list), fallback(std::make_shared<value_container>()) {}

  // The container stored under `name` (first match, exact bytes); a missing
  // name is appended with a new, invalid container.
  std::shared_ptr<value_container> operator[](std::string const& name) {
    for (auto const& entry : entries) {
      if (entry.first == name) return entry.second;
    }
    entries.emplace_back(name, std::make_shared<value_container>());
    for (auto const& entry : entries) {
      if (entry.first == name) return entry.second;
    }
    return fallback;
  }

  bool empty() const { return entries.empty(); }
  container_type::iterator begin() { return entries.begin(); }
  container_type::iterator end() { return entries.end(); }
  container_type::const_iterator begin() const { return entries.begin(); }
  container_type::const_iterator end() const { return entries.end(); }

  container_type entries;
  std::shared_ptr<value_container> fallback;
};

#endif  // TAMREL_PROPERTIES_LOOKUP_H_
