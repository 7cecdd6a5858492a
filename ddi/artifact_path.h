#ifndef TAMREL_DDI_ARTIFACT_PATH_H_
#define TAMREL_DDI_ARTIFACT_PATH_H_

#include <string>

#include "ddi/hawkbit_query.h"
#include "ddi/tamrel_export.h"

// The directory of an artifact's file: `destination` without trailing slashes,
// then `subdirectory` (if any) without trailing slashes, each followed by "/".
TAMREL_EXPORT std::string get_full_artifact_path(
    hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact);
// The directory followed by `filename`, unchanged. The name is not checked for
// "/" or "..": a host must judge names taken from the server itself.
TAMREL_EXPORT std::string get_full_artifact_file_path(
    hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact);

#endif  // TAMREL_DDI_ARTIFACT_PATH_H_
