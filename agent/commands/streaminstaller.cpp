#include "agent/commands/streaminstaller.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/base/log.h"
#include "agent/base/watchdog.h"
#include "agent/commands/chunkenvironment.h"
#include "agent/server/linkorigin.h"
#include "transport/curlbuffer.h"

namespace {

// Blocks SIGPIPE on the feeding thread while it lives, so that a reader that
// went away shows as EPIPE; one left pending is taken before unblocking.
class QuietPipe {
 public:
  QuietPipe() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set_, &old_);
  }
  ~QuietPipe() {
    timespec const now{0, 0};
    while (sigtimedwait(&set_, nullptr, &now) == SIGPIPE) {
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  QuietPipe(QuietPipe const&) = delete;
  QuietPipe& operator=(QuietPipe const&) = delete;

 private:
  sigset_t set_, old_;
};

struct Descriptor {
  int const fd;
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  Descriptor(Descriptor const&) = delete;
  Descriptor& operator=(Descriptor const&) = delete;
};

// The credentials files' names in download-dir: the prefix, then mkstemp's
// six characters.
char const kCredentialsPrefix[] = ".credentials-";
std::size_t const kCredentialsName = sizeof kCredentialsPrefix - 1 + 6;

// A file in `dir` that only the agent's user can read, removed with this.
class PrivateFile {
 public:
  PrivateFile(std::string const& dir, std::string const& content) {
    std::string name = dir + "/" + kCredentialsPrefix + "XXXXXX";
    int const fd = mkstemp(&name[0]);  // mode 0600
    if (fd < 0) return;
    bool const written = fchmod(fd, 0600) == 0 && ::write(fd, content.data(), content.size()) ==
                                                      static_cast<ssize_t>(content.size());
    if (close(fd) == 0 && written) {
      path_ = name;
    } else {
      unlink(name.c_str());
    }
  }
  ~PrivateFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  PrivateFile(PrivateFile const&) = delete;
  PrivateFile& operator=(PrivateFile const&) = delete;
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// A value in curl's config format: in double quotes, \ and " escaped.
std::string quoted(std::string const& value) {
  std::string text = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + "\"";
}

bool plainName(std::string const& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
    return false;
  for (char c : name) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
  }
  return true;
}

}  // namespace

StreamInstaller::StreamInstaller(AgentTransport& transport, AgentConfig const& config,
                                 std::atomic<bool> const& stop)
    : transport_(transport), config_(config), stop_(stop) {}

std::unique_ptr<RunningCommand> StreamInstaller::start(std::string const& argument,
                                                       std::vector<std::string> const& environment,
                                                       int stdinFd, int heldInput,
                                                       Hold const& hold) const {
  RunningCommand::Options options;
  options.command = hold.command;
  options.args = {argument};
  options.environment = environment;
  options.stdinFd = stdinFd;
  options.heldInput = heldInput;
  options.lockFd = hold.lockFd;
  options.deadlineMs = config_.installTimeoutSeconds * 1000LL;
  options.outcomePath = hold.outcomePath;
  options.outcomeTag = hold.outcomeTag;
  return std::make_unique<RunningCommand>(options);
}

std::string StreamInstaller::credentials(std::string const& url) const {
  AgentTransport::Settings const& settings = transport_.settings();
  // The link, a signed one's signature included, stays off command lines.
  std::string text = "url = " + quoted(url) + "\n";
  if (transport_.credentialsFor(url, true)) {
    if (settings.token != AgentTransport::Token::kNone && !transport_.targetToken.empty()) {
      char const* const kind =
          settings.token == AgentTransport::Token::kGateway ? "GatewayToken " : "TargetToken ";
      text += "header = " + quoted(std::string("Authorization: ") + kind + transport_.targetToken) +
              "\n";
    }
    // The client certificate goes where the token goes.
    if (!settings.clientCert.empty()) text += "cert = " + quoted(settings.clientCert) + "\n";
    if (!settings.clientKey.empty()) text += "key = " + quoted(settings.clientKey) + "\n";
  }
  // The CA that signs the server's certificate, for any host.
  if (!settings.caFile.empty()) text += "cacert = " + quoted(settings.caFile) + "\n";
  if (!settings.caPath.empty()) text += "capath = " + quoted(settings.caPath) + "\n";
  return text;
}

StreamInstaller::Result StreamInstaller::install(chunk_t& chunk, std::string const& sha256,
                                                 AgentConfig::Install const& how,
                                                 std::vector<std::string> const& environment,
                                                 int keepFd, std::string const& outcomePath,
                                                 std::string const& outcomeTag) {
  Outcome const outcome =
      run(chunk, sha256, how.mode, environment, {how.command, keepFd, outcomePath, outcomeTag});
  if (!outcome.command.started) return Result::kFailed;
  int const code = outcome.command.exitCode;
  Result const result = !outcome.delivered                                      ? Result::kFailed
                        : code == 0                                             ? Result::kDone
                        : how.rebootExitCode >= 0 && code == how.rebootExitCode ? Result::kReboot
                                                                                : Result::kFailed;
  chunk.details.push_back(std::string("install command ") +
                          (result == Result::kFailed ? "failed" : "succeeded") + " (" +
                          outcome.command.describe() +
                          (result == Result::kReboot ? ", reboot needed" : "") + ")");
  for (auto const& line : outcome.command.stderrTail) chunk.details.push_back("install: " + line);
  return result;
}

StreamInstaller::Outcome StreamInstaller::run(chunk_t& chunk, std::string const& sha256,
                                              std::string const& mode,
                                              std::vector<std::string> environment,
                                              Hold const& hold) {
  std::vector<std::string>& details = chunk.details;
  if (chunk.artifacts.size() != 1) {
    details.push_back("install-mode " + mode + " takes a chunk with exactly one artifact; \"" +
                      chunk.name + "\" has " + std::to_string(chunk.artifacts.size()));
    return Outcome();
  }
  artifact_t const& artifact = chunk.artifacts.front();
  auto link = artifact.links.find("download-http");
  if (link == artifact.links.end()) link = artifact.links.find("download");
  if (!plainName(artifact.filename)) {
    details.push_back("refused: unsafe artifact name \"" + artifact.filename + "\"");
    return Outcome();
  }
  if (link == artifact.links.end() || link->second.empty()) {
    details.push_back(artifact.filename + ": the server lists no download link");
    return Outcome();
  }
  environment.push_back("TAMREL_INSTALL_MODE=" + mode);
  std::vector<PipeSink::Expected> const digests =
      ChunkEnvironment::artifact(artifact, sha256, "", environment);
  if (mode == "url") return handOver(link->second, environment, artifact.filename, hold, details);
  if (digests.empty()) {
    details.push_back(artifact.filename + ": refused, the server lists no digest");
    return Outcome();
  }
  return stream(artifact, link->second, digests, environment, hold, details);
}

void StreamInstaller::removeStaleCredentials() const {
  std::unique_ptr<DIR, int (*)(DIR*)> const dir(opendir(config_.downloadDir.c_str()), closedir);
  if (!dir) return;
  while (dirent const* entry = readdir(dir.get())) {
    std::string const name = entry->d_name;
    if (name.size() != kCredentialsName ||
        name.compare(0, sizeof kCredentialsPrefix - 1, kCredentialsPrefix) != 0) {
      continue;
    }
    std::string const path = config_.downloadDir + "/" + name;
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    if (unlink(path.c_str()) == 0) {
      Log::warning("url: removed %s, a credentials file left by a run that did not end",
                   path.c_str());
    } else {
      Log::error("url: cannot remove %s, a credentials file left by a run that did not end: %s",
                 path.c_str(), std::strerror(errno));
    }
  }
}

StreamInstaller::Outcome StreamInstaller::handOver(std::string const& link,
                                                   std::vector<std::string> environment,
                                                   std::string const& name, Hold const& hold,
                                                   std::vector<std::string>& details) {
  Outcome outcome;
  std::string const url = transport_.revealed(link);
  std::string const shown = shownLink(url);
  if (transport_.settings().address.rfind("https:", 0) == 0 && url.rfind("http:", 0) == 0) {
    details.push_back(name + ": refused, a plain http link (" + shown + ") while address is https");
    return outcome;
  }
  // Removed as this returns, whatever the command did.
  mkdir(config_.downloadDir.c_str(), 0700);
  PrivateFile const file(config_.downloadDir, credentials(url));
  if (file.path().empty()) {
    details.push_back("cannot write the credentials file in " + config_.downloadDir);
    return outcome;
  }
  environment.push_back("TAMREL_CREDENTIALS_FILE=" + file.path());
  Log::info("url: the install command fetches %s", shown.c_str());
  auto child = start(name, environment, -1, -1, hold);
  if (!child->started()) {
    details.push_back("install command could not be started");
    return outcome;
  }
  outcome.command = child->wait(&stop_);
  outcome.delivered = true;
  details.push_back(
      "install-mode url: the install command fetched the artifact itself; the agent "
      "checked none of its bytes");
  return outcome;
}

StreamInstaller::Outcome StreamInstaller::stream(artifact_t const& artifact, std::string const& url,
                                                 std::vector<PipeSink::Expected> const& digests,
                                                 std::vector<std::string> const& environment,
                                                 Hold const& hold,
                                                 std::vector<std::string>& details) {
  Outcome outcome;
  std::string const& name = artifact.filename;
  if (artifact.size >= (std::uint64_t{1} << 32)) {
    // The transport resumes from a 32-bit offset.
    details.push_back(name + ": install-mode stream takes artifacts under 4 GiB");
    return outcome;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    details.push_back(name + ": cannot create a pipe for the install command");
    return outcome;
  }
  // A larger pipe lets the reader and the network overlap; the default is
  // kept when the system refuses.
  fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
  // The holder keeps a writing end too: the command sees the end of its
  // input only once the whole verified artifact went out (inputDone()).
  std::unique_ptr<RunningCommand> child = start(name, environment, fds[0], fds[1], hold);
  // The agent keeps a reading end too: it does not hold back the end of the
  // input (that takes the last writer), and shows what the command left
  // unread when it exits.
  Descriptor const unread(fcntl(fds[0], F_DUPFD_CLOEXEC, 0));
  close(fds[0]);
  if (!child->started()) {
    close(fds[1]);
    details.push_back("install command could not be started");
    return outcome;
  }
  QuietPipe const quiet;
  std::size_t const holdBack = static_cast<std::size_t>(config_.streamHoldBackKib) * 1024;
  auto sink = std::make_unique<PipeSink>(fds[1], artifact.size, digests, holdBack, [&] {
    return stop_.load() || transport_.cancelled.load() || child->exited();
  });
  PipeSink& pipe = *sink;
  auto buffer = std::make_shared<curlbuffer>(std::move(sink));
  Log::info("stream: %s (%llu bytes) to the install command, the last %zu held back", name.c_str(),
            static_cast<unsigned long long>(artifact.size), pipe.heldBack());

  int const attempts = config_.retries + 1;
  std::string why;  // why the stream ends before its end, "" when it came whole
  for (int attempt = 1; attempt <= attempts && !stop_.load(); ++attempt) {
    std::uint64_t const from = pipe.received();
    Watchdog::Limits limits;
    if (config_.timeoutSeconds > 0) {
      limits.windowMs = config_.timeoutSeconds * 1000LL;
      limits.windowBytes = std::max<long long>(1, config_.downloadMinRate * config_.timeoutSeconds);
    }
    Watchdog watchdog(
        limits, [this] { return stop_.load(); },
        [this](Watchdog::Verdict) { transport_.cancelTransfer(); });
    // Connected for this attempt only: the watchdog goes with it.
    auto count = std::make_shared<simple_signal::signal<int>::slot_type>(
        [&watchdog](int bytes) { watchdog.bytes(bytes); });
    buffer->written.connectWeak(count);
    watchdog.run([&] {
      watchdog.started();
      return transport_.stream(url, buffer);
    });
    count.reset();
    AgentTransport::Answer const answer = transport_.lastAnswer();
    if (pipe.received() == artifact.size) {
      why.clear();
      break;
    }
    if (stop_.load()) break;
    bool const readerGone = pipe.refusal() == PipeSink::Refusal::kReaderGone || child->exited();
    if (readerGone) {
      why = "the install command exited before reading the whole artifact (" +
            std::to_string(pipe.received()) + " of " + std::to_string(artifact.size) +
            " bytes fed)";
      break;
    }
    if (pipe.refusal() == PipeSink::Refusal::kOversize) {
      why = "the server sent more than the artifact's " + std::to_string(artifact.size) + " bytes";
      break;
    }
    if (from > 0 && (answer.code == CURLE_RANGE_ERROR || answer.status == 200)) {
      why = "the server ignored the range request (HTTP 200 to a resume from " +
            std::to_string(from) + " bytes); a stream cannot start over";
      break;
    }
    std::string const problem = watchdog.verdict() == Watchdog::Verdict::kTooSlow ? "stalled"
                                : answer.problem().empty() ? "connection closed"
                                                           : answer.problem();
    why = "cut short at " + std::to_string(pipe.received()) + " of " +
          std::to_string(artifact.size) + " bytes (" + problem + ") after " +
          std::to_string(attempt) + " attempt(s)";
    if (attempt < attempts) Log::warning("stream: %s: %s, resuming", name.c_str(), why.c_str());
  }

  if (stop_.load()) {
    // The command's group is stopped with the agent before its input ends:
    // one that takes the end of its input for a complete image never sees
    // the end of a truncated one.
    outcome.command = child->wait(&stop_);
    pipe.closePipe();
    details.push_back(name + ": stream interrupted at " + std::to_string(pipe.received()) + " of " +
                      std::to_string(artifact.size) + " bytes");
    return outcome;
  }
  std::string problem = why;
  if (problem.empty() && pipe.finish(problem)) {
    child->inputDone();
    outcome.command = child->wait(&stop_);
    int left = 0;
    if (unread.fd >= 0 && ioctl(unread.fd, FIONREAD, &left) == 0 && left > 0) {
      details.push_back(name + ": the install command exited before reading the whole artifact (" +
                        std::to_string(left) + " bytes left unread)");
      return outcome;
    }
    outcome.delivered = true;
    details.push_back(name + ": streamed and verified (" + std::to_string(artifact.size) +
                      " bytes)");
    return outcome;
  }
  if (child->exited()) {
    outcome.command = child->wait(nullptr);
  } else {
    // The tail never goes out: the command's group ends before its input does.
    outcome.command = child->wait(nullptr, true);
    problem += "; install command ended";
  }
  pipe.closePipe();
  details.push_back(name + ": " + problem);
  return outcome;
}
