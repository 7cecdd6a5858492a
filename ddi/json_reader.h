#ifndef TAMREL_DDI_JSON_READER_H_
#define TAMREL_DDI_JSON_READER_H_

#include <cjson/cJSON.h>

#include <string>

#include "ddi/cjson_owner.h"

// What a failed parse shows in its log line.
enum class parse_echo { whole_text, rest_of_text };

// Parses one server document: an empty text, a text that is not one complete
// JSON value, or text after the value is logged and gives an empty tree.
cjson_tree parseDocument(std::string const& text, parse_echo echo);

// A member matches a key when its name begins with the key (case-sensitive).
// Unnamed members (array elements) match nothing.
inline bool keyMatches(cJSON const* member, char const* key) {
  if (member == nullptr || member->string == nullptr) return false;
  char const* name = member->string;
  for (; *key != '\0'; ++key, ++name) {
    if (*name != *key) return false;
  }
  return true;
}

// Copies the member's text into `field` when the member is a JSON string;
// members of any other type leave the field as it was.
inline void takeString(cJSON const* member, std::string& field) {
  if (cJSON_IsString(member) && member->valuestring != nullptr) field = member->valuestring;
}

#endif  // TAMREL_DDI_JSON_READER_H_
