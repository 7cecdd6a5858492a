#ifndef TAMREL_AGENT_COMMANDS_CHUNKENVIRONMENT_H_
#define TAMREL_AGENT_COMMANDS_CHUNKENVIRONMENT_H_

#include <cstddef>
#include <string>
#include <vector>

#include "agent/transfer/pipesink.h"
#include "ddi/hawkbit_query.h"

// What a command is told about the action and its chunks, as environment
// ("NAME=value" entries), and the metadata the server sent, in a JSON file
// written with cJSON (never through a shell) that lives as long as this
// object. For one chunk: TAMREL_ACTION_ID, TAMREL_CHUNK_PART/NAME/VERSION,
// TAMREL_CHUNK_INDEX (1-based), TAMREL_CHUNK_COUNT, TAMREL_CHUNK_METADATA
// (an array of {"key","value"} in the server's order). For the whole action
// (consent): TAMREL_ACTION_ID, TAMREL_CHUNK_COUNT and TAMREL_CHUNKS (an
// array of {"part","name","version","metadata"}).
class ChunkEnvironment {
 public:
  using deployment_t = hawkbit_query_t::deployment_t;
  using artifact_t = deployment_t::chunk_t::artifact_t;
  static constexpr std::size_t kAllChunks = static_cast<std::size_t>(-1);

  // Writes the file into `dir`; error() says why when it cannot.
  ChunkEnvironment(std::string const& dir, deployment_t const& deployment,
                   std::size_t chunk = kAllChunks);
  ~ChunkEnvironment();
  ChunkEnvironment(ChunkEnvironment const&) = delete;
  ChunkEnvironment& operator=(ChunkEnvironment const&) = delete;

  std::vector<std::string> const& variables() const { return variables_; }
  std::string const& error() const { return error_; }

  // The digests the server lists for `artifact` (sha1, md5, sha256; lower
  // case; `sha256` when given replaces the listed one), each also added to
  // `variables` as TAMREL_ARTIFACT<infix>_SHA1 and the like, with its name
  // and size as TAMREL_ARTIFACT<infix>_NAME and _SIZE.
  static std::vector<PipeSink::Expected> artifact(artifact_t const& artifact,
                                                  std::string const& sha256,
                                                  std::string const& infix,
                                                  std::vector<std::string>& variables);

 private:
  std::vector<std::string> variables_;
  std::string path_;  // the JSON file, removed with this object
  std::string error_;
};

#endif  // TAMREL_AGENT_COMMANDS_CHUNKENVIRONMENT_H_
