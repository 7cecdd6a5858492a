#include "agent/base/deploymentplan.h"

#include "agent/base/jsontext.h"
#include "digest/digest.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace {

bool hasControl(std::string const& name) {
  return std::any_of(name.begin(), name.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

std::string lower(std::string value) {
  for (char& c : value) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return value;
}

bool httpUrl(std::string const& url) {
  std::string const scheme = lower(url.substr(0, url.find(':')));
  return (scheme == "http" || scheme == "https") && url.compare(scheme.size(), 3, "://") == 0 &&
         url.size() > scheme.size() + 3;
}

// Printable form of a name for a detail line: control characters as \xNN.
std::string shown(std::string const& name) {
  std::string out;
  for (char c : name) {
    unsigned char const u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) {
      out += "\\x" + tamrel::hexOf(&u, 1);
    } else {
      out += c;
    }
  }
  return "\"" + out + "\"";
}

bool handling(cJSON const* object, char const* key, DeploymentPlan::Handling& value) {
  std::string const word = JsonText::member(object, key);
  if (word == "skip") {
    value = DeploymentPlan::Handling::kSkip;
  } else if (word == "attempt") {
    value = DeploymentPlan::Handling::kAttempt;
  } else if (word == "forced" || (word.empty() && !cJSON_HasObjectItem(object, key))) {
    value = DeploymentPlan::Handling::kForced;
  } else {
    return false;
  }
  return true;
}

}  // namespace

bool DeploymentPlan::decimalId(std::string const& id) {
  return !id.empty() && id.size() <= 18 && id.find_first_not_of("0123456789") == std::string::npos;
}

std::string DeploymentPlan::sha256(std::string const& chunk, std::string const& file) const {
  for (auto const& digest : sha256_) {
    if (digest.chunk == chunk && digest.file == file) return digest.sha256;
  }
  return std::string();
}

DeploymentPlan DeploymentPlan::read(deployment_t& deployment) {
  DeploymentPlan plan;
  auto& problems = plan.problems_;
  JsonText::Document const root(cJSON_Parse(deployment.json.c_str()), cJSON_Delete);
  cJSON const* body = cJSON_GetObjectItemCaseSensitive(root.get(), "deployment");
  cJSON const* chunks = cJSON_GetObjectItemCaseSensitive(body, "chunks");
  if (!cJSON_IsObject(body) || !cJSON_IsArray(chunks)) {
    problems.push_back("the deployment document could not be read");
    return plan;
  }
  if (!handling(body, "download", plan.download_) || !handling(body, "update", plan.update_)) {
    problems.push_back("unknown download or update handling \"" +
                       JsonText::member(body, "download") + "\"/\"" +
                       JsonText::member(body, "update") + "\"");
  }
  std::string const window = JsonText::member(body, "maintenanceWindow");
  plan.hasWindow_ = cJSON_HasObjectItem(body, "maintenanceWindow");
  plan.windowAvailable_ = !plan.hasWindow_ || window == "available";
  if (plan.hasWindow_ && window != "available" && window != "unavailable") {
    problems.push_back("unknown maintenance window state \"" + window + "\"");
  }

  // cJSON ends its strings at a NUL, so a name holding "\u0000" would reach
  // the disk cut short: such a document is refused whole.
  for (std::size_t at = deployment.json.find("\\u"); at != std::string::npos;
       at = deployment.json.find("\\u", at + 2)) {
    if (deployment.json.compare(at + 2, 4, "0000") == 0) {
      problems.push_back("the document holds a NUL character (\\u0000)");
      break;
    }
  }
  int const count = cJSON_GetArraySize(chunks);
  if (static_cast<std::size_t>(count) != deployment.chunks.size()) {
    problems.push_back("the document lists " + std::to_string(count) + " chunk(s), " +
                       std::to_string(deployment.chunks.size()) + " could be read");
    return plan;
  }
  for (int c = 0; c < count; ++c) {
    cJSON const* chunkJson = cJSON_GetArrayItem(chunks, c);
    auto& chunk = deployment.chunks[static_cast<std::size_t>(c)];
    std::string const name = JsonText::member(chunkJson, "name");
    std::string const where = "chunk " + shown(name);
    if (name != chunk.name) {
      problems.push_back(where + ": not the chunk the library read (" + shown(chunk.name) + ")");
      continue;
    }
    if (hasControl(name)) problems.push_back(where + ": control character in the name");
    cJSON const* artifacts = cJSON_GetObjectItemCaseSensitive(chunkJson, "artifacts");
    int const listed = cJSON_GetArraySize(artifacts);
    if (!cJSON_IsArray(artifacts) || listed == 0) {
      problems.push_back(where + ": no artifacts");
      continue;
    }
    if (static_cast<std::size_t>(listed) != chunk.artifacts.size()) {
      problems.push_back(where + ": the document lists " + std::to_string(listed) +
                         " artifact(s), " + std::to_string(chunk.artifacts.size()) +
                         " could be read");
      continue;
    }
    for (int a = 0; a < listed; ++a) {
      cJSON const* item = cJSON_GetArrayItem(artifacts, a);
      auto& artifact = chunk.artifacts[static_cast<std::size_t>(a)];
      std::string const file = JsonText::member(item, "filename");
      std::string const at = where + ", artifact " + shown(file);
      if (file != artifact.filename) {
        problems.push_back(at + ": not the artifact the library read");
        continue;
      }
      if (hasControl(file)) problems.push_back(at + ": control character in the name");
      for (int other = 0; other < a; ++other) {
        if (chunk.artifacts[static_cast<std::size_t>(other)].filename == file) {
          problems.push_back(at + ": file name listed twice");
          break;
        }
      }
      // Sizes are 64-bit on the server; a double holds them exactly up to 2^53.
      cJSON const* size = cJSON_GetObjectItemCaseSensitive(item, "size");
      double const bytes = cJSON_IsNumber(size) ? size->valuedouble : -1;
      if (bytes < 0 || bytes > 9007199254740992.0 ||
          bytes != static_cast<double>(static_cast<std::uint64_t>(bytes))) {
        problems.push_back(at + ": no valid size");
      } else {
        artifact.size = static_cast<std::uint64_t>(bytes);
      }
      // "download" is HTTPS; "download-http" exists only where the server
      // allows plain HTTP. The library fetches "download-http", so the link
      // chosen goes there.
      cJSON const* links = cJSON_GetObjectItemCaseSensitive(item, "_links");
      std::string url =
          JsonText::member(cJSON_GetObjectItemCaseSensitive(links, "download"), "href");
      if (url.empty())
        url = JsonText::member(cJSON_GetObjectItemCaseSensitive(links, "download-http"), "href");
      artifact.links.clear();
      if (url.empty()) {
        problems.push_back(at + ": no download link");
      } else if (!httpUrl(url)) {
        problems.push_back(at + ": download link is not http or https");
      } else {
        artifact.links["download-http"] = url;
      }
      artifact.hashes.clear();
      cJSON const* hashes = cJSON_GetObjectItemCaseSensitive(item, "hashes");
      for (char const* kind : {"sha1", "md5", "sha256"}) {
        std::string const digest = lower(JsonText::member(hashes, kind));
        if (digest.empty()) continue;
        if (std::string(kind) == "sha256") {
          plan.sha256_.push_back({name, file, digest});
        } else {
          artifact.hashes[kind] = digest;
        }
      }
    }
  }
  return plan;
}
