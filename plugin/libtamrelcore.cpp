#include "plugin/libtamrelcore.h"

#include "ddi/artifact_download.h"
#include "ddi/artifact_verification.h"
#include "ddi/controller_url.h"
#include "ddi/document_parsers.h"
#include "ddi/feedback_messages.h"
#include "ddi/status_query.h"
#include "io/logline.h"
#include "transport/curlmanager.h"

namespace {

// The transport a client makes for itself. Final, so it can be deleted
// through its own type although CurlManager's destructor is not virtual.
class OwnedTransport final : public CurlManager {};

void releaseOwned(CurlManager* transport) { delete static_cast<OwnedTransport*>(transport); }

}  // namespace

libtamrelcore::libtamrelcore(CurlManager* given)
    : transport(given), ownedTransport_(nullptr, releaseOwned) {
  if (transport == nullptr) {
    ownedTransport_.reset(new OwnedTransport());
    transport = ownedTransport_.get();
  }
}

libtamrelcore::~libtamrelcore() = default;

bool libtamrelcore::connectProperties(std::shared_ptr<lookup> const& table) {
  if (!table) return false;
  properties = table;
  lookup& settings = *table;
  std::shared_ptr<value_container> const token = settings["token"];
  std::shared_ptr<value_container> const tokenFile = settings["token-file"];
  settings["download-retries"];
  settings["download-timeout-s"];
  if (!tokenFile->valid() && !token->valid()) {
    logLine("[E] libtamrelcore -> No token was found in the configuration\n");
    return false;
  }
  if (tokenFile->valid() && tokenFile->is_link()) {
    transport->setTargetToken(tokenFile->link().text);
  } else if (token->valid() && token->is_string()) {
    transport->setTargetToken(token->string());
  }
  return true;
}

void libtamrelcore::cancelTransfer() { transport->cancelTransfer(); }

hawkbit_query_t libtamrelcore::queryOnlineStatus() {
  return query_online_status(*transport, properties, links,
                             [this](std::string const& json, hawkbit_query_t::deployment_t& d) {
                               return parseDeploymentBase(json, d);
                             });
}

download_errors_t libtamrelcore::downloadArtifact(
    std::string const& label, hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact) {
  download_signals const signals{downloadStarted, downloadFinished, downloadProgress,
                                 downloadBytes};
  return download_artifact(*transport, downloadLock, signals, label, artifact);
}

bool libtamrelcore::sendUpdateFeedback(hawkbit_query_t::deployment_t const& deployment) {
  return send_update_feedback(*transport, properties, deployment);
}

bool libtamrelcore::sendConfigData(std::vector<tamrel::value_pair_t> const& attributes) {
  return send_config_data(*transport, links, attributes);
}

bool libtamrelcore::sendCancelActionFeedback(std::string const& url, std::string const& actionId,
                                             std::string const& execution,
                                             std::string const& finished,
                                             std::string const& details) {
  return send_cancel_action_feedback(*transport, url, actionId, execution, finished, details);
}

bool libtamrelcore::verifyArtifact(
    hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact) const {
  return verify_artifact(artifact, verifyProgress, verifyBytes);
}

void libtamrelcore::cancelVerifyArtifact() const { cancel_verify_artifact(); }

std::string libtamrelcore::uuid() const { return "f5f95dd"; }

bool libtamrelcore::parseDeploymentBase(std::string const& json,
                                        hawkbit_query_t::deployment_t& deployment) const {
  return parse_deployment_base(json, deployment);
}

std::string libtamrelcore::buildQueryUrl() const { return build_query_url(properties); }

hawkbit_query_t libtamrelcore::parseStatusResponse(std::string const& json) const {
  return parse_status_response(json);
}

hawkbit_query_t libtamrelcore::parseLinks(cJSON const* first) const { return parse_links(first); }

hawkbit_query_t::config_t libtamrelcore::parseConfig(cJSON const* first) const {
  return parse_config(first);
}

bool libtamrelcore::parseCancelAction(std::string const& json,
                                      hawkbit_query_t::cancel_action_t& cancelAction) const {
  return parse_cancel_action(json, cancelAction);
}

std::vector<hawkbit_query_t::deployment_t::chunk_t> libtamrelcore::parseDeployment(
    cJSON const* first) const {
  return parse_deployment(first);
}

std::vector<hawkbit_query_t::deployment_t::chunk_t::artifact_t> libtamrelcore::parseArtifacts(
    cJSON const* node) const {
  return parse_artifacts(node);
}

std::vector<hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t> libtamrelcore::parseMetadata(
    cJSON const* node) const {
  return parse_metadata(node);
}

extern "C" {

void* create_object() { return new libtamrelcore(nullptr); }

void destroy_object(void* object) { delete static_cast<libtamrelcore*>(object); }
}
