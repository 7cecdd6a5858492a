#include "demo/demohawkbit.h"

#include "digest/digest.h"

namespace ddiserver = tamrel::ddiserver;

DemoHawkbit::DemoHawkbit(bool confirmRequired) : target(options(server, confirmRequired)) {
  server.setRequireToken("demo-token");
  server.setHandler(
      [this](ddiserver::RecordedRequest const& request, ddiserver::DdiServer::Answer& answer) {
        return target.answer(request, answer);
      });
}

ddiserver::HawkbitTarget::Options DemoHawkbit::options(ddiserver::DdiServer const& server,
                                                       bool confirmRequired) {
  ddiserver::HawkbitTarget::Options options;
  options.baseUrl = server.baseUrl();
  options.controllerPath = server.controllerPath();
  options.sleep = "00:00:30";
  options.confirmRequired = confirmRequired;
  return options;
}

ddiserver::ArtifactDocument DemoHawkbit::artifactOf(ddiserver::DdiServer& server,
                                                    std::string const& name,
                                                    std::string const& content, bool sha1) {
  using tamrel::Digest;
  ddiserver::ArtifactDocument artifact;
  artifact.filename = name;
  artifact.size = content.size();
  artifact.hashes["md5"] = Digest::of(Digest::Kind::kMd5, content.data(), content.size());
  if (sha1)
    artifact.hashes["sha1"] = Digest::of(Digest::Kind::kSha1, content.data(), content.size());
  artifact.links["download-http"] = server.addArtifact("/artifacts/" + name, content);
  return artifact;
}

bool DemoHawkbit::closedWithSuccess(ddiserver::DdiServer const& server, std::string const& where,
                                    int* feedbacks) {
  bool closed = false;
  for (auto const& request : server.requests("POST")) {
    if (request.path.find("/feedback") == std::string::npos) continue;
    if (feedbacks != nullptr) ++*feedbacks;
    if (request.path.find(where) == std::string::npos) continue;
    auto const sent = ddiserver::readFeedback(request.body);
    closed = sent.execution == "closed" && sent.finished == "success";
  }
  return closed;
}

AgentConfig DemoHawkbit::config(std::string const& base, std::string const& dir) {
  AgentConfig config;
  config.demo = true;
  config.downloadDir = dir;
  config.stateDir = dir;
  auto& table = *config.properties;
  *table["address"] = base;
  *table["tenant-id"] = "DEFAULT";
  *table["controller-id"] = "dev01";
  *table["token"] = "demo-token";
  return config;
}
