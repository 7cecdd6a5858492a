#ifndef TAMREL_AGENT_COMMANDS_STREAMINSTALLER_H_
#define TAMREL_AGENT_COMMANDS_STREAMINSTALLER_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/commands/command.h"
#include "agent/commands/runningcommand.h"
#include "agent/server/agenttransport.h"
#include "agent/transfer/pipesink.h"
#include "plugin/libtamrelcore.h"

// Installs a chunk's one artifact without storing it (install-mode stream
// and url):
//  - stream: the install command gets the artifact's name as $1 and its
//    bytes on standard input as they arrive through the agent's transport.
//    Every byte is hashed on the way and the last bytes are held back until
//    every listed digest matches (PipeSink); a connection cut is resumed by
//    a range request into the same pipe; a mismatch, a server that ignores
//    the range, or a stop ends the command's process group.
//  - url: the command gets the artifact's name as $1 and fetches it itself:
//    the URL, and the credentials the agent would send to that host, are in
//    a file only the agent's user can read (never on a command line), named
//    by TAMREL_CREDENTIALS_FILE and removed after the run. The agent checks
//    none of the bytes.
// Both put the artifact's name, size and digests in the command's
// environment beside what the caller gives, and run it under install-timeout-s. The command starts
// in one place, start(), whose holder keeps the install lock until no process of the command's
// group is left and writes how it ended (InstallOutcome). A stream's input ends for the command
// only once the whole verified artifact was handed over: an agent that dies before takes the
// command with it.
class StreamInstaller {
 public:
  using chunk_t = hawkbit_query_t::deployment_t::chunk_t;
  using artifact_t = chunk_t::artifact_t;
  enum class Result { kFailed, kDone, kReboot };

  StreamInstaller(AgentTransport& transport, AgentConfig const& config,
                  std::atomic<bool> const& stop);

  // Installs `chunk` (exactly one artifact) by `how`, the command told
  // `environment` besides the artifact's own variables, adding
  // what happened to chunk.details: done on exit 0, reboot on
  // reboot-exit-code, only when the stream came whole and verified (url
  // mode: when the command ran). `sha256` is the digest the deployment
  // lists ("" when none); `keepFd` (the install lock) is kept until no
  // process of the command's group is left (-1: none); the command's outcome
  // goes to `outcomePath` tagged `outcomeTag` ("": nowhere).
  Result install(chunk_t& chunk, std::string const& sha256, AgentConfig::Install const& how,
                 std::vector<std::string> const& environment, int keepFd = -1,
                 std::string const& outcomePath = "", std::string const& outcomeTag = "");

  // The credentials file's content for `url` (curl's config format: curl -K
  // reads it): the URL, the authorization header for the server and trusted
  // hosts, the client certificate and key for them, the CA when configured.
  std::string credentials(std::string const& url) const;
  // Removes the credentials files a run that was killed left in
  // download-dir; call it only while no install runs.
  void removeStaleCredentials() const;

 private:
  struct Outcome {
    // stream: every byte came, matched and was released; url: the command ran
    bool delivered = false;
    CommandResult command;
  };
  // What the command is handed besides its input.
  struct Hold {
    std::string const& command;
    int lockFd;
    std::string const& outcomePath;
    std::string const& outcomeTag;
  };
  Outcome run(chunk_t& chunk, std::string const& sha256, std::string const& mode,
              std::vector<std::string> environment, Hold const& hold);
  Outcome stream(artifact_t const& artifact, std::string const& url,
                 std::vector<PipeSink::Expected> const& digests,
                 std::vector<std::string> const& environment, Hold const& hold,
                 std::vector<std::string>& details);
  Outcome handOver(std::string const& link, std::vector<std::string> environment,
                   std::string const& name, Hold const& hold, std::vector<std::string>& details);
  // Starts the install command: the one place it is started.
  std::unique_ptr<RunningCommand> start(std::string const& argument,
                                        std::vector<std::string> const& environment, int stdinFd,
                                        int heldInput, Hold const& hold) const;

  AgentTransport& transport_;
  AgentConfig const& config_;
  std::atomic<bool> const& stop_;
};

#endif  // TAMREL_AGENT_COMMANDS_STREAMINSTALLER_H_
