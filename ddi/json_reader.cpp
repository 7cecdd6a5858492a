#include "ddi/json_reader.h"

#include "io/logline.h"

cjson_tree parseDocument(std::string const& text, parse_echo echo) {
  if (text.empty()) {
    logLine("[E] libtamrelcore -> Unable to parse empty JSON string\n");
    return cjson_tree();
  }
  char const* end = nullptr;
  cjson_tree tree(cJSON_ParseWithOpts(text.c_str(), &end, 1));
  if (tree) return tree;
  if (end == nullptr) {
    logLine("[E] libtamrelcore -> Unable to parse JSON\n");
  } else {
    logLine("[E] libtamrelcore -> Unable to parse JSON: %s\n",
            echo == parse_echo::whole_text ? text.c_str() : end);
  }
  return cjson_tree();
}
