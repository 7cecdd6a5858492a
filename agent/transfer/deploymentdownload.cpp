#include "agent/transfer/deploymentdownload.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

bool makeDirectories(std::string const& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string const part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

}  // namespace

DeploymentDownload::DeploymentDownload(AgentConfig const& config, ArtifactFetcher& fetcher,
                                       std::atomic<bool> const& stop)
    : config_(config), fetcher_(fetcher), stop_(stop) {}

bool DeploymentDownload::safeName(std::string const& name) {
  return !name.empty() && name != "." && name.find('/') == std::string::npos &&
         name.find("..") == std::string::npos && name.find('\0') == std::string::npos;
}

bool DeploymentDownload::run(hawkbit_query_t::deployment_t& deployment, DeploymentPlan const& plan,
                             std::vector<std::vector<std::string>>& files) {
  bool success = true;
  for (std::size_t c = 0; c < deployment.chunks.size(); ++c) {
    auto& chunk = deployment.chunks[c];
    // A chunk streamed to its command, or fetched by it, is not stored.
    if (config_.installFor(chunk.part).mode != "file") continue;
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
    for (auto& artifact : chunk.artifacts) {
      std::string detail;
      // A link to another host is fetched too: the transport sends no
      // credentials there, and the digests decide whether the file is good.
      if (!safeName(artifact.filename)) {
        detail = "refused: unsafe artifact name \"" + artifact.filename + "\"";
        success = false;
      } else {
        artifact.destination = dir;
        artifact.subdirectory.clear();
        if (fetcher_.fetch(chunk.name, artifact, plan.sha256(chunk.name, artifact.filename),
                           detail)) {
          files[c].push_back(ArtifactFetcher::filePath(artifact));
        } else {
          success = false;
        }
      }
      chunk.details.push_back(detail);
    }
    if (stop_) break;
  }
  return success;
}

void DeploymentDownload::removeEmptyDirectories(
    hawkbit_query_t::deployment_t const& deployment) const {
  for (auto const& chunk : deployment.chunks) {
    if (safeName(chunk.name)) rmdir((config_.downloadDir + "/" + chunk.name).c_str());
  }
}
