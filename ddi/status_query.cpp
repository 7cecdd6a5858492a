#include "ddi/status_query.h"

#include <curl/curl.h>

#include "ddi/controller_url.h"
#include "ddi/document_parsers.h"
#include "io/logline.h"
#include "io/memoryio.h"
#include "io/nullhash.h"
#include "transport/curlmanager.h"

namespace {

std::shared_ptr<curlbuffer> jsonBuffer() {
  return std::make_shared<curlbuffer>(std::make_unique<memoryio>(), std::make_unique<nullhash>());
}

}  // namespace

hawkbit_query_t query_online_status(CurlManager& transport, std::weak_ptr<lookup> const& properties,
                                    std::unordered_map<std::string, std::string>& links,
                                    deployment_reader const& readDeployment) {
  hawkbit_query_t result;
  logLine("[I] libtamrelcore -> Querying server status\n");
  std::string const url = build_query_url(properties);
  if (url.empty()) return result;
  logLine("[I] libtamrelcore -> Querying %s\n", url.c_str());

  std::string body;
  {
    std::shared_ptr<curlbuffer> const buffer = jsonBuffer();
    transport.download(url, buffer);
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

  result = parse_status_response(body);
  if (!is_valid(result.config) && result.config_data.url.empty() &&
      result.cancel_action.url.empty() && result.deployment.url.empty()) {
    logLine("[E] libtamrelcore -> Failed to parse response!\n");
    return result;
  }

  if (!result.deployment.url.empty()) {
    std::shared_ptr<curlbuffer> const buffer = jsonBuffer();
    transport.download(result.deployment.url, buffer);
    logLine("[I] libtamrelcore -> Detected update - fetching update data\n");
    if (buffer->result == 0) {
      std::string const text = buffer->sink->data();
      if (!text.empty()) {
        // The reader's result is not used: what it filled in is the answer.
        readDeployment(text, result.deployment);
        result.deployment.json = text;
      }
    }
  }

  if (!result.cancel_action.url.empty()) {
    std::shared_ptr<curlbuffer> const buffer = jsonBuffer();
    transport.download(result.cancel_action.url, buffer);
    if (buffer->result == 0) {
      std::string const text = buffer->sink->data();
      if (!text.empty()) parse_cancel_action(text, result.cancel_action);
    }
  }

  if (!result.config_data.url.empty()) links["configData"] = result.config_data.url;
  logLine("[I] libtamrelcore -> Server querying done\n");
  return result;
}
