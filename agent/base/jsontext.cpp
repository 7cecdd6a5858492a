#include "agent/base/jsontext.h"

#include <memory>

std::string JsonText::member(cJSON const* object, char const* key) {
  cJSON const* item = cJSON_GetObjectItemCaseSensitive(object, key);
  return cJSON_IsString(item) ? item->valuestring : std::string();
}

std::string JsonText::quoted(std::string const& text) {
  Document const string(cJSON_CreateString(text.c_str()), cJSON_Delete);
  std::unique_ptr<char, void (*)(void*)> const printed(cJSON_PrintUnformatted(string.get()),
                                                       cJSON_free);
  return printed ? printed.get() : "\"\"";
}
