#ifndef TAMREL_AGENT_COMMANDS_CHUNKINSTALLER_H_
#define TAMREL_AGENT_COMMANDS_CHUNKINSTALLER_H_

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/base/deploymentplan.h"
#include "agent/commands/installlock.h"
#include "agent/commands/streaminstaller.h"

// Runs the install command of one chunk in the chunk's install mode: file
// mode with its stored files as $1, $2, ...; stream and url through
// StreamInstaller. The command is told the chunk (ChunkEnvironment) and,
// in file mode, each artifact's name, size and digests; it keeps the
// install lock (taken by the caller) until no process of its group is
// left, and the lock is released once it ended.
class ChunkInstaller {
 public:
  using deployment_t = hawkbit_query_t::deployment_t;
  enum class Result { kDone, kReboot, kFailed, kStopped };

  ChunkInstaller(AgentConfig const& config, StreamInstaller& streamer, InstallLock& lock,
                 std::atomic<bool> const& stop)
      : config_(config), streamer_(streamer), lock_(lock), stop_(stop) {}

  // Installs chunk `index` of `deployment` by `how`; `files`: its stored
  // files (file mode). The chunk's details get what happened; `why` is
  // "exit 4" and the like for a failed command. The outcome goes to
  // `outcomePath` tagged `outcomeTag`.
  Result install(deployment_t& deployment, std::size_t index, DeploymentPlan const& plan,
                 AgentConfig::Install const& how, std::vector<std::string> const& files,
                 std::string const& outcomePath, std::string const& outcomeTag, std::string& why);

 private:
  AgentConfig const& config_;
  StreamInstaller& streamer_;
  InstallLock& lock_;
  std::atomic<bool> const& stop_;
};

#endif  // TAMREL_AGENT_COMMANDS_CHUNKINSTALLER_H_
