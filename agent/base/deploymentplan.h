#ifndef TAMREL_AGENT_BASE_DEPLOYMENTPLAN_H_
#define TAMREL_AGENT_BASE_DEPLOYMENTPLAN_H_

#include <cstdint>
#include <string>
#include <vector>

#include "ddi/hawkbit_query.h"

// What the agent makes of a deploymentBase document. The library's record
// is read with 32-bit sizes, from "download-http" only, and stops at an
// artifact it cannot read; the plan reads the document the library kept
// (`deployment.json`) again, checks it against the record and completes the
// record: 64-bit sizes, the link to use, lower-case digests.
class DeploymentPlan {
 public:
  enum class Handling { kSkip, kAttempt, kForced };
  using deployment_t = hawkbit_query_t::deployment_t;

  // Reads `deployment.json` and fills in the record's artifacts. Whatever
  // is wrong ends up in problems(), one line each, saying which chunk or
  // artifact.
  static DeploymentPlan read(deployment_t& deployment);

  // True when the action id is a plain decimal number.
  static bool decimalId(std::string const& id);

  std::vector<std::string> const& problems() const { return problems_; }
  Handling download() const { return download_; }
  Handling update() const { return update_; }
  bool hasWindow() const { return hasWindow_; }
  bool windowAvailable() const { return windowAvailable_; }
  // A download-only action: "update": "skip" and no maintenance window.
  bool downloadOnly() const { return update_ == Handling::kSkip && !hasWindow_; }
  // Installing is allowed now.
  bool mayInstall() const { return update_ != Handling::kSkip && windowAvailable_; }
  // The SHA-256 digest the server lists for an artifact ("" when none).
  std::string sha256(std::string const& chunk, std::string const& file) const;

 private:
  struct Digest {
    std::string chunk, file, sha256;
  };
  std::vector<std::string> problems_;
  std::vector<Digest> sha256_;
  Handling download_ = Handling::kForced;
  Handling update_ = Handling::kForced;
  bool hasWindow_ = false;
  bool windowAvailable_ = true;
};

#endif  // TAMREL_AGENT_BASE_DEPLOYMENTPLAN_H_
