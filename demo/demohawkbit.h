#ifndef TAMREL_DEMO_DEMOHAWKBIT_H_
#define TAMREL_DEMO_DEMOHAWKBIT_H_

#include <string>

#include "agent/base/agentconfig.h"
#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "ddiserver/hawkbittarget.h"

// The demo's server: requests answered by a hawkBit target, polled every
// 30 s, asking for the demo's token; and what each part of the demo builds
// on it.
class DemoHawkbit {
 public:
  explicit DemoHawkbit(bool confirmRequired = false);

  // `content` served at /artifacts/NAME, as the artifact element that lists
  // its MD5 (and SHA-1 unless `sha1` is false) digest.
  static tamrel::ddiserver::ArtifactDocument artifactOf(tamrel::ddiserver::DdiServer& server,
                                                        std::string const& name,
                                                        std::string const& content,
                                                        bool sha1 = true);
  // The number of feedback messages, and whether the last one to a path
  // holding `where` was closed/success.
  static bool closedWithSuccess(tamrel::ddiserver::DdiServer const& server,
                                std::string const& where, int* feedbacks = nullptr);
  // The agent's settings for the server at `base`, working in `dir`.
  static AgentConfig config(std::string const& base, std::string const& dir);

  tamrel::ddiserver::DdiServer server;
  tamrel::ddiserver::HawkbitTarget target;

 private:
  static tamrel::ddiserver::HawkbitTarget::Options options(
      tamrel::ddiserver::DdiServer const& server, bool confirmRequired);
};

#endif  // TAMREL_DEMO_DEMOHAWKBIT_H_
