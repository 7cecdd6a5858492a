#ifndef TAMREL_AGENT_BASE_JSONTEXT_H_
#define TAMREL_AGENT_BASE_JSONTEXT_H_

#include <cjson/cJSON.h>

#include <memory>
#include <string>

// What the agent's own readers and writers of JSON documents share: an
// owning handle of a cJSON tree, and a member read as text.
class JsonText {
 public:
  // Frees the tree it holds (cJSON_Delete).
  using Document = std::unique_ptr<cJSON, void (*)(cJSON*)>;
  // The string member `key` of `object`; "" when absent or not a string.
  static std::string member(cJSON const* object, char const* key);
  // `text` as a JSON string, quotes and escapes included.
  static std::string quoted(std::string const& text);
};

#endif  // TAMREL_AGENT_BASE_JSONTEXT_H_
