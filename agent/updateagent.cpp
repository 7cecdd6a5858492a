#include "agent/updateagent.h"

#include "agent/exitcode.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <thread>

namespace {

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

char const* outcomeText(download_errors_t outcome) {
  switch (outcome) {
    case download_ok:
      return "downloaded";
    case download_aborted:
      return "aborted";
    case download_hash_error:
      return "digest mismatch";
    case download_failed:
      return "transfer failed";
    default:
      return "not downloadable";
  }
}

// Where the library stores an artifact whose subdirectory is empty (the agent
// does not link the library, so it does not call get_full_artifact_file_path).
std::string artifactPath(hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact) {
  return artifact.destination + "/" + artifact.filename;
}

std::uint64_t fileSize(std::string const& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

bool makeDirectories(std::string const& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string const part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

}  // namespace

UpdateAgent::UpdateAgent(libtamrelcore& client, AgentConfig const& config)
    : client_(client), config_(config) {
  listen(client_.downloadStarted, [this](std::string, std::string) {
    lastActivityMs_ = nowMs();
    transferring_ = true;
  });
  listen(client_.downloadBytes, [this](int n) {
    lastActivityMs_ = nowMs();
    bar_.bytes(n);
  });
  listen(client_.downloadProgress, [this](std::string, std::string, int p) { bar_.percent(p); });
  listen(client_.downloadFinished, [this](std::string, std::string, download_errors_t,
                                          unsigned int status) { lastStatus_ = status; });
}

bool UpdateAgent::safeName(std::string const& name) {
  return !name.empty() && name.find('/') == std::string::npos &&
         name.find("..") == std::string::npos && name.find('\0') == std::string::npos;
}

bool UpdateAgent::connect() { return client_.connectProperties(config_.properties); }

void UpdateAgent::stop() {
  stop_ = true;
  client_.cancelTransfer();
  client_.cancelVerifyArtifact();
  std::lock_guard<std::mutex> guard(sleepLock_);
  wake_.notify_all();
}

void UpdateAgent::sleep(std::int64_t seconds) {
  std::unique_lock<std::mutex> guard(sleepLock_);
  wake_.wait_for(guard, std::chrono::seconds(seconds), [this] { return stop_.load(); });
}

UpdateAgent::Cycle UpdateAgent::cycle() {
  Cycle result;
  hawkbit_query_t answer;
  try {
    answer = client_.queryOnlineStatus();
  } catch (std::exception const& error) {
    std::printf("poll: the server sent an unreadable polling interval (%s)\n", error.what());
    return result;
  }
  if (!answer.config_data.url.empty()) {
    std::string const failure = post([&] { return client_.sendConfigData(config_.attributes); });
    std::printf("config data: %zu attributes %s\n", config_.attributes.size(),
                failure.empty() ? "sent" : failure.c_str());
  }
  auto const& cancel = answer.cancel_action;
  if (!cancel.url.empty() && !cancel.stop_id.empty()) {
    bool const sent =
        client_.sendCancelActionFeedback(cancel.url, cancel.id, "closed", "success",
                                         "cancellation of action " + cancel.stop_id + " accepted");
    std::printf("cancel request for action %s: feedback %s\n", cancel.stop_id.c_str(),
                sent ? "sent" : "NOT sent");
  }
  if (!answer.deployment.url.empty() && !answer.deployment.chunks.empty() && !stopping()) {
    if (!deploy(answer.deployment)) result.status = kExitDeploymentFailed;
  }
  result.sleepSeconds = answer.config.sleep;
  return result;
}

std::string UpdateAgent::post(std::function<bool()> const& request) {
  return request() ? std::string() : std::string("not sent");
}

bool UpdateAgent::deploy(hawkbit_query_t::deployment_t deployment) {
  std::printf("deployment %s: %zu chunk(s)\n", deployment.id.c_str(), deployment.chunks.size());
  deployment.execution = execution_t::proceeding;
  deployment.finished = finished_t::none;
  client_.sendUpdateFeedback(deployment);

  bool success = true;
  for (auto& chunk : deployment.chunks) {
    chunk.completed = true;
    if (!safeName(chunk.name)) {
      chunk.details.push_back("refused: unsafe chunk name \"" + chunk.name + "\"");
      success = false;
      continue;
    }
    std::string const dir = config_.downloadDir + "/" + chunk.name;
    if (!makeDirectories(dir)) {
      chunk.details.push_back("cannot create " + dir);
      success = false;
      continue;
    }
    std::vector<std::string> files;
    bool chunkOk = true;
    for (auto& artifact : chunk.artifacts) {
      std::string detail;
      if (!safeName(artifact.filename)) {
        detail = "refused: unsafe artifact name \"" + artifact.filename + "\"";
        chunkOk = false;
      } else {
        artifact.destination = dir;
        artifact.subdirectory.clear();
        if (!fetch(chunk.name, artifact, detail)) {
          chunkOk = false;
        } else if (!watched(false, [&] { return client_.verifyArtifact(artifact); })) {
          detail = artifact.filename + (stopping() ? ": interrupted" : ": verification failed");
          chunkOk = false;
        } else {
          detail = artifact.filename + ": downloaded and verified";
          files.push_back(artifactPath(artifact));
        }
      }
      chunk.details.push_back(detail);
    }
    if (chunkOk && !config_.installCommand.empty() && !files.empty() && !stopping()) {
      std::string detail;
      chunkOk = install(files, detail);
      chunk.details.push_back(detail);
    }
    success = success && chunkOk;
  }
  if (stopping()) {
    // Left open: the server offers the action again and the next run
    // resumes the partial files.
    deployment.chunks.front().details.push_back(
        "interrupted on the device; the download resumes on the next start");
    client_.sendUpdateFeedback(deployment);
    std::printf("deployment %s: interrupted, left open\n", deployment.id.c_str());
    return false;
  }
  deployment.execution = execution_t::closed;
  deployment.finished = success ? finished_t::success : finished_t::failure;
  bool const sent = client_.sendUpdateFeedback(deployment);
  std::printf("deployment %s: %s, feedback %s\n", deployment.id.c_str(),
              success ? "success" : "failure", sent ? "sent" : "NOT sent");
  return success;
}

bool UpdateAgent::watched(bool transfer, std::function<bool()> const& work) {
  std::mutex lock;
  std::condition_variable wake;
  bool done = false;
  transferring_ = false;
  std::thread watchdog([&] {
    std::unique_lock<std::mutex> guard(lock);
    while (!wake.wait_for(guard, std::chrono::milliseconds(50), [&] { return done; })) {
      if (stopping()) {
        transfer ? client_.cancelTransfer() : client_.cancelVerifyArtifact();
      } else if (transfer && transferring_ && config_.timeoutSeconds > 0 &&
                 nowMs() - lastActivityMs_ > config_.timeoutSeconds * 1000LL &&
                 !stalled_.exchange(true)) {
        client_.cancelTransfer();
      }
    }
  });
  bool const result = work();
  {
    std::lock_guard<std::mutex> guard(lock);
    done = true;
  }
  wake.notify_one();
  watchdog.join();
  return result;
}

bool UpdateAgent::fetch(std::string const& label, artifact_t& artifact, std::string& detail) {
  if (!artifact.hashes.count("sha1") && !artifact.hashes.count("md5")) {
    detail = artifact.filename + ": refused, the server lists no SHA-1 or MD5 digest";
    return false;
  }
  std::string const path = artifactPath(artifact);
  int const attempts = config_.retries + 1;
  download_errors_t outcome = download_failed;
  int attempt = 0;
  while (attempt < attempts && !stopping()) {
    ++attempt;
    std::uint64_t const onDisk = fileSize(path);
    // The library resumes a shorter file and restarts a full-length one.
    bool const resuming = onDisk > 0 && onDisk < artifact.size;
    bar_.start(artifact.filename, artifact.size, resuming ? onDisk : 0);
    lastStatus_ = 0;
    stalled_ = false;
    watched(true, [&] {
      outcome = client_.downloadArtifact(label, artifact);
      return outcome == download_ok;
    });
    bar_.finish(stalled_ ? "stalled, cancelled" : outcomeText(outcome));
    if (outcome == download_ok || outcome == download_invalid) break;
    // The library appends whatever the server sends. Bytes that are not the
    // artifact's must not become the start of the next attempt: an error
    // page (any status but 200/206; 0 means no answer at all), a whole body
    // sent in answer to a range, or a complete file with the wrong digest.
    // A transfer of the artifact that was cut short or stalled is resumed.
    bool const errorPage = lastStatus_ != 0 && lastStatus_ != 200 && lastStatus_ != 206;
    bool const rangeIgnored = resuming && lastStatus_ == 200;
    bool const wrongWhole = outcome == download_hash_error && fileSize(path) >= artifact.size;
    if (errorPage || rangeIgnored || wrongWhole) std::remove(path.c_str());
  }
  std::ostringstream text;
  text << artifact.filename << ": ";
  if (outcome == download_ok) {
    text << "downloaded";
  } else if (stopping()) {
    text << "interrupted";
  } else {
    text << (stalled_ ? "stalled" : outcomeText(outcome)) << " after " << attempt
         << " attempt(s), HTTP " << lastStatus_;
  }
  detail = text.str();
  return outcome == download_ok;
}

bool UpdateAgent::install(std::vector<std::string> const& files, std::string& detail) {
  // The command is split at blanks and run without a shell; the artifact
  // paths follow as separate arguments.
  std::vector<std::string> words;
  std::istringstream split(config_.installCommand);
  for (std::string word; split >> word;) words.push_back(word);
  words.insert(words.end(), files.begin(), files.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  std::fflush(stdout);
  pid_t const child = fork();
  if (child == 0) {
    // The agent blocks its stop signals; the command gets them back.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) < 0) {
    detail = "install command could not be started";
    return false;
  }
  bool const ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  detail = "install command " + std::string(ok ? "succeeded" : "failed") + " (exit " +
           std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ")";
  return ok;
}
