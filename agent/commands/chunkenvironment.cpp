#include "agent/commands/chunkenvironment.h"

#include <cctype>

#include "agent/base/atomicfile.h"
#include "agent/base/jsontext.h"

namespace {

using chunk_t = hawkbit_query_t::deployment_t::chunk_t;

cJSON* metadataArray(chunk_t const& chunk) {
  cJSON* const array = cJSON_CreateArray();
  for (auto const& entry : chunk.metadata) {
    cJSON* const item = cJSON_CreateObject();
    cJSON_AddStringToObject(item, "key", entry.key.c_str());
    cJSON_AddStringToObject(item, "value", entry.value.c_str());
    cJSON_AddItemToArray(array, item);
  }
  return array;
}

}  // namespace

ChunkEnvironment::ChunkEnvironment(std::string const& dir, deployment_t const& deployment,
                                   std::size_t chunk) {
  variables_.push_back("TAMREL_ACTION_ID=" + deployment.id);
  variables_.push_back("TAMREL_CHUNK_COUNT=" + std::to_string(deployment.chunks.size()));
  JsonText::Document document(nullptr, cJSON_Delete);
  if (chunk == kAllChunks) {
    document.reset(cJSON_CreateArray());
    for (auto const& each : deployment.chunks) {
      cJSON* const item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "part", each.part.c_str());
      cJSON_AddStringToObject(item, "name", each.name.c_str());
      cJSON_AddStringToObject(item, "version", each.version.c_str());
      cJSON_AddItemToObject(item, "metadata", metadataArray(each));
      cJSON_AddItemToArray(document.get(), item);
    }
    path_ = dir + "/.tamrel-chunks.json";
    variables_.push_back("TAMREL_CHUNKS=" + path_);
  } else if (chunk < deployment.chunks.size()) {
    chunk_t const& one = deployment.chunks[chunk];
    variables_.push_back("TAMREL_CHUNK_PART=" + one.part);
    variables_.push_back("TAMREL_CHUNK_NAME=" + one.name);
    variables_.push_back("TAMREL_CHUNK_VERSION=" + one.version);
    variables_.push_back("TAMREL_CHUNK_INDEX=" + std::to_string(chunk + 1));
    document.reset(metadataArray(one));
    path_ = dir + "/.tamrel-chunk-metadata.json";
    variables_.push_back("TAMREL_CHUNK_METADATA=" + path_);
  } else {
    error_ = "no chunk " + std::to_string(chunk + 1);
    return;
  }
  std::unique_ptr<char, void (*)(void*)> const text(cJSON_PrintUnformatted(document.get()),
                                                    cJSON_free);
  if (!text) {
    error_ = "cannot format the metadata of action " + deployment.id;
    path_.clear();
    return;
  }
  if (!AtomicFile::write(path_, std::string(text.get()) + "\n", error_)) path_.clear();
}

ChunkEnvironment::~ChunkEnvironment() {
  std::string ignored;
  if (!path_.empty()) AtomicFile::remove(path_, ignored);
}

std::vector<PipeSink::Expected> ChunkEnvironment::artifact(artifact_t const& artifact,
                                                           std::string const& sha256,
                                                           std::string const& infix,
                                                           std::vector<std::string>& variables) {
  std::string const prefix = "TAMREL_ARTIFACT" + infix + "_";
  variables.push_back(prefix + "NAME=" + artifact.filename);
  variables.push_back(prefix + "SIZE=" + std::to_string(artifact.size));
  struct Known {
    char const* name;
    char const* variable;
    tamrel::Digest::Kind kind;
  };
  static Known const known[] = {{"sha1", "SHA1", tamrel::Digest::Kind::kSha1},
                                {"md5", "MD5", tamrel::Digest::Kind::kMd5},
                                {"sha256", "SHA256", tamrel::Digest::Kind::kSha256}};
  std::vector<PipeSink::Expected> digests;
  for (Known const& digest : known) {
    auto const listed = artifact.hashes.find(digest.name);
    std::string hex = listed != artifact.hashes.end() ? listed->second : std::string();
    if (std::string(digest.name) == "sha256" && !sha256.empty()) hex = sha256;
    for (char& c : hex) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (hex.empty() || hex.find_first_not_of("0123456789abcdef") != std::string::npos) continue;
    digests.push_back({digest.kind, digest.name, hex});
    variables.push_back(prefix + digest.variable + "=" + hex);
  }
  return digests;
}
