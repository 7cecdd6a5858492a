#include "ddi/hawkbit_query.h"

namespace {

using deployment_t = hawkbit_query_t::deployment_t;
using chunk_t = deployment_t::chunk_t;
using artifact_t = chunk_t::artifact_t;
using metadata_entry_t = chunk_t::metadata_entry_t;

// Counts the left elements that have an equal element somewhere on the right.
// Order does not matter, and one right element may match several left ones.
template <typename T>
bool sameElements(std::vector<T> const& left, std::vector<T> const& right) {
  if (left.size() != right.size()) return false;
  std::size_t found = 0;
  for (T const& l : left) {
    for (T const& r : right) {
      if (l == r) {
        ++found;
        break;
      }
    }
  }
  return found == left.size();
}

}  // namespace

bool is_valid(hawkbit_query_t::config_t const& config) { return config.sleep >= 30; }

bool is_valid(hawkbit_query_t::config_data_t const& configData) { return !configData.url.empty(); }

bool is_valid(hawkbit_query_t::cancel_action_t const& cancelAction) {
  return !cancelAction.url.empty() && !cancelAction.stop_id.empty();
}

bool is_valid(deployment_t const& deployment) {
  if (deployment.url.empty() || deployment.json.empty()) return false;
  for (chunk_t const& chunk : deployment.chunks) {
    if (!chunk.artifacts.empty()) return true;
  }
  return false;
}

bool is_valid(hawkbit_query_t const& query) {
  return is_valid(query.config) || is_valid(query.config_data) || is_valid(query.cancel_action) ||
         is_valid(query.deployment);
}

bool operator==(hawkbit_query_t::config_t const& a, hawkbit_query_t::config_t const& b) {
  return a.sleep == b.sleep;
}

bool operator!=(hawkbit_query_t::config_t const& a, hawkbit_query_t::config_t const& b) {
  return !(a == b);
}

bool operator==(metadata_entry_t const& a, metadata_entry_t const& b) {
  return a.key == b.key && a.value == b.value;
}

bool operator==(std::vector<metadata_entry_t> const& a, std::vector<metadata_entry_t> const& b) {
  return sameElements(a, b);
}

bool operator==(chunk_t const& a, chunk_t const& b) {
  return a.name == b.name && a.part == b.part &&
         a.version == b.version && operator==(a.metadata, b.metadata);
}

bool operator==(std::vector<chunk_t> const& a, std::vector<chunk_t> const& b) {
  return sameElements(a, b);
}

bool operator==(deployment_t const& a, deployment_t const& b) {
  return a.id == b.id && a.url == b.url;
}

bool operator!=(deployment_t const& a, deployment_t const& b) { return !(a == b); }

bool operator==(artifact_t const& a, artifact_t const& b) {
  return a.filename == b.filename && a.size == b.size && a.destination == b.destination &&
         a.subdirectory == b.subdirectory && a.hashes == b.hashes && a.links == b.links;
}

bool operator==(std::vector<artifact_t> const& a, std::vector<artifact_t> const& b) {
  return sameElements(a, b);
}
