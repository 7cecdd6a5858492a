#include "agent/lifecycle/installedbase.h"

#include "agent/base/jsontext.h"
#include "agent/base/log.h"
#include "agent/lifecycle/consentflow.h"
#include "io/memoryio.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <memory>

InstalledBase::InstalledBase(AgentTransport& transport, ServerRequest const& server,
                             DocumentReader const& reader)
    : transport_(transport), server_(server), reader_(reader) {}

void InstalledBase::show(std::string const& base) {
  std::string const link = ConsentFlow::link(base, "installedBase");
  if (link.empty() || link == shown_) return;
  std::string said;
  std::string const problem = reader_.read(link, [&](std::string const& body) {
    JsonText::Document const root(cJSON_Parse(body.c_str()), cJSON_Delete);
    cJSON const* deployment = cJSON_GetObjectItemCaseSensitive(root.get(), "deployment");
    cJSON const* chunks = cJSON_GetObjectItemCaseSensitive(deployment, "chunks");
    if (!cJSON_IsArray(chunks)) return std::string("the document could not be read");
    said = "action " + JsonText::member(root.get(), "id") + ":";
    JsonText::Document const json(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(json.get(), "action", JsonText::member(root.get(), "id").c_str());
    cJSON* const list = cJSON_AddArrayToObject(json.get(), "chunks");
    cJSON const* chunk = nullptr;
    cJSON_ArrayForEach(chunk, chunks) {
      said += (said.back() == ':' ? " " : ", ") + JsonText::member(chunk, "name") + " " +
              JsonText::member(chunk, "version");
      cJSON* const item = cJSON_CreateObject();
      cJSON_AddItemToArray(list, item);
      cJSON_AddStringToObject(item, "name", JsonText::member(chunk, "name").c_str());
      cJSON_AddStringToObject(item, "version", JsonText::member(chunk, "version").c_str());
    }
    std::unique_ptr<char, void (*)(void*)> const printed(cJSON_PrintUnformatted(json.get()),
                                                         cJSON_free);
    json_ = printed ? printed.get() : "";
    return std::string();
  });
  shown_ = link;
  if (problem.empty()) {
    Log::info("installed, as the server sees it: %s", DocumentReader::oneLine(said).c_str());
  } else {
    Log::warning("installed base: %s", problem.c_str());
  }
}

std::string InstalledBase::report(std::string const& baseUrl, std::string const& name,
                                  std::string const& version) const {
  JsonText::Document const request(cJSON_CreateObject(), cJSON_Delete);
  cJSON_AddStringToObject(request.get(), "name", name.c_str());
  cJSON_AddStringToObject(request.get(), "version", version.c_str());
  std::unique_ptr<char, void (*)(void*)> const body(cJSON_PrintUnformatted(request.get()),
                                                    cJSON_free);
  if (!body) return "not sent: out of memory";
  ServerRequest::Result const result = server_.submit([&] {
    auto buffer = std::make_shared<curlbuffer>(std::make_unique<memoryio>(body.get()));
    return transport_.put(baseUrl + "/installedBase", buffer);
  });
  if (result.gone) {
    // 404 here is the server not knowing that distribution set.
    return "refused by the server (HTTP " + std::to_string(transport_.lastAnswer().status) +
           "): it serves no distribution set " + name + " " + version;
  }
  return result.failure;
}
