#ifndef TAMREL_AGENT_TRANSFER_DEPLOYMENTDOWNLOAD_H_
#define TAMREL_AGENT_TRANSFER_DEPLOYMENTDOWNLOAD_H_

#include <atomic>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/base/deploymentplan.h"
#include "agent/transfer/artifactfetcher.h"
#include "plugin/libtamrelcore.h"

// Fetches and verifies a deployment's artifacts into download-dir/<chunk>,
// one chunk after the other, until done or the agent stops. Names that
// cannot safely become a path component are refused.
class DeploymentDownload {
 public:
  DeploymentDownload(AgentConfig const& config, ArtifactFetcher& fetcher,
                     std::atomic<bool> const& stop);

  // Downloads every chunk's artifacts; `files` (one entry a chunk) gets each
  // chunk's paths, every chunk's details what became of its artifacts. False
  // when any artifact failed.
  bool run(hawkbit_query_t::deployment_t& deployment, DeploymentPlan const& plan,
           std::vector<std::vector<std::string>>& files);
  // Removes the chunks' directories again where they are empty.
  void removeEmptyDirectories(hawkbit_query_t::deployment_t const& deployment) const;
  // True when the name can safely become one path component.
  static bool safeName(std::string const& name);

 private:
  AgentConfig const& config_;
  ArtifactFetcher& fetcher_;
  std::atomic<bool> const& stop_;
};

#endif  // TAMREL_AGENT_TRANSFER_DEPLOYMENTDOWNLOAD_H_
