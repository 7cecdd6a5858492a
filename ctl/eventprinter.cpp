#include "ctl/eventprinter.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <memory>

#include "agent/base/jsontext.h"

namespace {

// A member's value as shown: strings without quotes, the rest as JSON.
std::string shown(cJSON const* value) {
  if (cJSON_IsString(value)) return value->valuestring;
  std::unique_ptr<char, void (*)(void*)> printed(cJSON_PrintUnformatted(value), cJSON_free);
  return printed ? printed.get() : "";
}

}  // namespace

EventPrinter::EventPrinter(std::FILE* out, bool terminal) : out_(out), terminal_(terminal) {}

bool EventPrinter::status(std::string const& json) {
  JsonText::Document document(cJSON_Parse(json.c_str()), cJSON_Delete);
  if (!document || !cJSON_IsObject(document.get())) return false;
  cJSON const* member = nullptr;
  // The state first: it is what a reader looks for.
  if (cJSON const* state = cJSON_GetObjectItemCaseSensitive(document.get(), "state"))
    std::fprintf(out_, "%-12s %s\n", "state:", shown(state).c_str());
  cJSON_ArrayForEach(member, document.get()) {
    std::string const key = member->string;
    if (key == "state") continue;
    if (key == "waiting") {
      std::fprintf(out_, "%-12s %s for action %s\n",
                   "waiting:", JsonText::member(member, "for").c_str(),
                   JsonText::member(member, "action").c_str());
      continue;
    }
    std::fprintf(out_, "%-12s %s\n", (key + ":").c_str(), shown(member).c_str());
  }
  return true;
}

bool EventPrinter::event(std::string const& json) {
  JsonText::Document document(cJSON_Parse(json.c_str()), cJSON_Delete);
  std::string const name = document ? JsonText::member(document.get(), "event") : "";
  if (name.empty()) return false;
  cJSON const* root = document.get();
  if (name == "dropped") {
    finish();
    cJSON const* count = cJSON_GetObjectItemCaseSensitive(root, "count");
    std::fprintf(out_, "(%s events missed: tamrel-ctl read too slowly)\n", shown(count).c_str());
    std::fflush(out_);
    return true;
  }
  std::string line = JsonText::member(root, "time") + "  " + name;
  cJSON const* state = cJSON_GetObjectItemCaseSensitive(root, "state");
  if (cJSON_IsString(state)) line += "  [" + std::string(state->valuestring) + "]";
  cJSON const* member = nullptr;
  cJSON_ArrayForEach(member, root) {
    std::string const key = member->string;
    if (key == "time" || key == "event" || key == "state") continue;
    line += "  " + key + "=" + shown(member);
  }
  cJSON const* percent = cJSON_GetObjectItemCaseSensitive(root, "percent");
  if (terminal_ && cJSON_IsNumber(percent)) {
    int const done = std::clamp(static_cast<int>(percent->valuedouble), 0, 100);
    std::string const bar = std::string(static_cast<std::size_t>(done / 5), '#') +
                            std::string(static_cast<std::size_t>(20 - done / 5), ' ');
    // Redrawn in place; \033[K clears what a longer line left.
    std::fprintf(out_, "\r[%s] %3d%%  %s\033[K", bar.c_str(), done, line.c_str());
    live_ = true;
  } else {
    finish();
    std::fprintf(out_, "%s\n", line.c_str());
  }
  std::fflush(out_);
  return true;
}

void EventPrinter::finish() {
  if (!live_) return;
  std::fputc('\n', out_);
  live_ = false;
}
