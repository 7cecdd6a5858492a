#include "ddi/artifact_path.h"

namespace {

std::string withoutTrailingSlashes(std::string text) {
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

}  // namespace

std::string get_full_artifact_path(
    hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact) {
  std::string path = withoutTrailingSlashes(artifact.destination) + "/";
  if (!artifact.subdirectory.empty()) {
    path += withoutTrailingSlashes(artifact.subdirectory) + "/";
  }
  return path;
}

std::string get_full_artifact_file_path(
    hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact) {
  return get_full_artifact_path(artifact) + artifact.filename;
}
