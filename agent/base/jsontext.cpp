#include "agent/base/jsontext.h"

std::string JsonText::member(cJSON const* object, char const* key) {
  cJSON const* item = cJSON_GetObjectItemCaseSensitive(object, key);
  return cJSON_IsString(item) ? item->valuestring : std::string();
}
