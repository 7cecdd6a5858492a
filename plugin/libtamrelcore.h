#ifndef TAMREL_PLUGIN_LIBTAMRELCORE_H_
#define TAMREL_PLUGIN_LIBTAMRELCORE_H_

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ddi/hawkbit_query.h"
#include "ddi/tamrel_export.h"
#include "properties/lookup.h"
#include "properties/simple_signal.h"

class CurlManager;
struct cJSON;

// The DDI client a host drives. Every operation runs on the caller's thread
// and returns when its HTTP exchanges are over. Only cancelTransfer and
// cancelVerifyArtifact may be called from another thread while a download or
// a verification runs; polling and rebinding must not overlap other
// operations of the same client.
//
// The virtual operations below are the plug-in interface: their order is
// fixed, a host calls them through the table.
class libtamrelcore {
 public:
  // Uses `transport` when given (it stays the caller's); otherwise creates a
  // CurlManager of its own, released with the client.
  explicit libtamrelcore(CurlManager* transport);
  virtual ~libtamrelcore();
  libtamrelcore(libtamrelcore const&) = delete;
  libtamrelcore& operator=(libtamrelcore const&) = delete;

  // Binds the host's table (weakly) and hands the target token ("token-file"
  // link text, else "token" string) to the transport. False for a null table
  // (binding unchanged) or when neither token setting exists.
  virtual bool connectProperties(std::shared_ptr<lookup> const& table);
  // Polls the controller base resource and follows its deploymentBase and
  // cancelAction links. The deploymentBase is read through parseDeploymentBase
  // (an override is used); its text is kept in `json` afterwards. A default
  // record when nothing could be read. A malformed polling interval raises
  // std::invalid_argument/out_of_range.
  virtual hawkbit_query_t queryOnlineStatus();
  // Downloads one artifact into its file, resuming a partial one, checking
  // its digest. `label` is echoed as the first argument of every signal.
  virtual download_errors_t downloadArtifact(
      std::string const& label, hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact);
  // Aborts the transfer in progress (any thread, lock-free).
  virtual void cancelTransfer();
  // POSTs the deployment's execution, result, progress and details.
  virtual bool sendUpdateFeedback(hawkbit_query_t::deployment_t const& deployment);
  // PUTs the target's attributes to the configData link of the last poll.
  virtual bool sendConfigData(std::vector<tamrel::value_pair_t> const& attributes);
  // POSTs feedback on a cancel request to `url` + "/feedback".
  virtual bool sendCancelActionFeedback(std::string const& url, std::string const& actionId,
                                        std::string const& execution, std::string const& finished,
                                        std::string const& details);
  // Checks length and digest of a stored artifact file.
  virtual bool verifyArtifact(
      hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact) const;
  // Stops whatever verification runs in the process (any thread, lock-free).
  virtual void cancelVerifyArtifact() const;
  // The plug-in's fixed identifier.
  virtual std::string uuid() const;
  // Reads a deploymentBase document into `deployment` (filled in place).
  virtual bool parseDeploymentBase(std::string const& json,
                                   hawkbit_query_t::deployment_t& deployment) const;

  // Helpers of the operations above. They forward to the free functions of
  // ddi/ and are not exported from the plug-in: only code linked with the
  // static library (tests, tools) can call them.
  std::string buildQueryUrl() const;
  hawkbit_query_t parseStatusResponse(std::string const& json) const;
  hawkbit_query_t parseLinks(cJSON const* first) const;
  hawkbit_query_t::config_t parseConfig(cJSON const* first) const;
  bool parseCancelAction(std::string const& json,
                         hawkbit_query_t::cancel_action_t& cancelAction) const;
  std::vector<hawkbit_query_t::deployment_t::chunk_t> parseDeployment(cJSON const* first) const;
  std::vector<hawkbit_query_t::deployment_t::chunk_t::artifact_t> parseArtifacts(
      cJSON const* node) const;
  std::vector<hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t> parseMetadata(
      cJSON const* node) const;

 protected:
  std::unordered_map<std::string, std::string> links;
  std::mutex downloadLock;
  CurlManager* transport;
  std::weak_ptr<lookup> properties;

 public:
  simple_signal::signal<std::string, std::string> downloadStarted;
  simple_signal::signal<std::string, std::string, download_errors_t, unsigned int> downloadFinished;
  simple_signal::signal<std::string, std::string, int> downloadProgress;
  simple_signal::signal<int> downloadBytes;
  simple_signal::signal<std::string, unsigned int> verifyProgress;
  simple_signal::signal<unsigned int> verifyBytes;

 private:
  // A transport this client created, released with it.
  std::unique_ptr<CurlManager, void (*)(CurlManager*)> ownedTransport_;
};

extern "C" {
// Creates a client with its own transport; the result is a libtamrelcore*.
TAMREL_EXPORT void* create_object();
// Deletes a client made by create_object; null is ignored.
TAMREL_EXPORT void destroy_object(void* object);
}

#endif  // TAMREL_PLUGIN_LIBTAMRELCORE_H_
