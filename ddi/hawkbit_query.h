#ifndef TAMREL_DDI_HAWKBIT_QUERY_H_
#define TAMREL_DDI_HAWKBIT_QUERY_H_

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "ddi/tamrel_export.h"

// What the host reports for a deployment ("execution" in update feedback).
enum class execution_t : std::int32_t {
  uninitialized = 0,
  closed = 1,
  proceeding = 2,
  canceled = 3,
  scheduled = 4,
  rejected = 5,
  resumed = 6,
};

// The result the host reports for a deployment ("finished" in update feedback).
enum class finished_t : std::int32_t {
  uninitialized = 0,
  none = 1,
  success = 2,
  failure = 3,
};

// Outcome of one artifact download.
enum download_errors_t : std::int32_t {
  download_ok = 0,          // file complete and its checksum matched
  download_aborted = 1,     // cancelled through cancelTransfer
  download_hash_error = 2,  // checksum mismatch, or no usable digest listed
  download_failed = 3,      // any other transfer error
  download_invalid = 4,     // no destination, or no "download-http" link
};

// Status names as sent to the server. Internal linkage on purpose: every unit
// that includes this header builds its own tables at load time.
static const std::map<std::string, execution_t> execution_names = {
    {"uninitialized", execution_t::uninitialized},
    {"closed", execution_t::closed},
    {"proceeding", execution_t::proceeding},
    {"canceled", execution_t::canceled},
    {"scheduled", execution_t::scheduled},
    {"rejected", execution_t::rejected},
    {"resumed", execution_t::resumed},
};

static const std::map<std::string, finished_t> finished_names = {
    {"uninitialized", finished_t::uninitialized},
    {"none", finished_t::none},
    {"success", finished_t::success},
    {"failure", finished_t::failure},
};

// Everything one poll of the server reported. Plain values: copies are deep.
struct hawkbit_query_t {
  struct config_data_t {
    std::string url;  // "configData" link
  };

  struct config_t {
    std::int64_t sleep = 0;  // polling interval in seconds
  };

  struct cancel_action_t {
    std::string url;      // "cancelAction" link
    std::string id;       // id of the cancel action
    std::string stop_id;  // the action to stop
  };

  struct deployment_t {
    struct chunk_t {
      struct artifact_t {
        std::string filename;
        std::uint64_t size = 0;
        std::string destination;                              // set by the host
        std::string subdirectory;                             // set by the host, optional
        std::unordered_map<std::string, std::string> hashes;  // e.g. "sha1" -> digest text
        std::unordered_map<std::string, std::string> links;   // e.g. "download-http" -> URL
      };

      struct metadata_entry_t {
        std::string key;
        std::string value;
      };

      std::string part;
      std::string version;
      std::string name;
      std::vector<std::string> details;  // set by the host, sent in update feedback
      bool completed = false;            // set by the host, counted in update feedback
      std::vector<hawkbit_query_t::deployment_t::chunk_t::artifact_t> artifacts;
      std::vector<hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t> metadata;
    };

    std::string url;   // "deploymentBase" link
    std::string id;    // action id
    std::string json;  // the deploymentBase document as received
    std::vector<hawkbit_query_t::deployment_t::chunk_t> chunks;
    execution_t execution = execution_t::uninitialized;  // set by the host
    finished_t finished = finished_t::uninitialized;     // set by the host
  };

  config_data_t config_data;
  config_t config;
  cancel_action_t cancel_action;
  deployment_t deployment;
};

// Validity: whether a record holds something to act on.
TAMREL_EXPORT bool is_valid(hawkbit_query_t const& query);
TAMREL_EXPORT bool is_valid(hawkbit_query_t::config_t const& config);
TAMREL_EXPORT bool is_valid(hawkbit_query_t::config_data_t const& configData);
TAMREL_EXPORT bool is_valid(hawkbit_query_t::cancel_action_t const& cancelAction);
TAMREL_EXPORT bool is_valid(hawkbit_query_t::deployment_t const& deployment);

// Equality. Vectors compare without regard to order: each left element must
// have an equal element somewhere on the right (sizes must match).
TAMREL_EXPORT bool operator==(hawkbit_query_t::config_t const& a,
                              hawkbit_query_t::config_t const& b);
TAMREL_EXPORT bool operator!=(hawkbit_query_t::config_t const& a,
                              hawkbit_query_t::config_t const& b);
TAMREL_EXPORT bool operator==(hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t const& a,
                              hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t const& b);
TAMREL_EXPORT bool operator==(
    std::vector<hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t> const& a,
    std::vector<hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t> const& b);
TAMREL_EXPORT bool operator==(hawkbit_query_t::deployment_t::chunk_t const& a,
                              hawkbit_query_t::deployment_t::chunk_t const& b);
TAMREL_EXPORT bool operator==(std::vector<hawkbit_query_t::deployment_t::chunk_t> const& a,
                              std::vector<hawkbit_query_t::deployment_t::chunk_t> const& b);
TAMREL_EXPORT bool operator==(hawkbit_query_t::deployment_t const& a,
                              hawkbit_query_t::deployment_t const& b);
TAMREL_EXPORT bool operator!=(hawkbit_query_t::deployment_t const& a,
                              hawkbit_query_t::deployment_t const& b);
TAMREL_EXPORT bool operator==(hawkbit_query_t::deployment_t::chunk_t::artifact_t const& a,
                              hawkbit_query_t::deployment_t::chunk_t::artifact_t const& b);
TAMREL_EXPORT bool operator==(
    std::vector<hawkbit_query_t::deployment_t::chunk_t::artifact_t> const& a,
    std::vector<hawkbit_query_t::deployment_t::chunk_t::artifact_t> const& b);

#endif  // TAMREL_DDI_HAWKBIT_QUERY_H_
