#ifndef TAMREL_DDI_ARTIFACT_VERIFICATION_H_
#define TAMREL_DDI_ARTIFACT_VERIFICATION_H_

#include <cstdint>
#include <string>

#include "ddi/hawkbit_query.h"
#include "properties/simple_signal.h"

// Reads a stored artifact back and checks its length, then its SHA-1 (or,
// without one, its MD5) against the listed digest, emitting `bytes` per block
// and `progress` (filename, percent) on every rise of a whole percent. Takes
// no lock; cancel_verify_artifact() stops it within one block.
bool verify_artifact(hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact,
                     simple_signal::signal<std::string, unsigned int> const& progress,
                     simple_signal::signal<unsigned int> const& bytes);

// Stops every verification running in the process (any thread, lock-free). A
// request made before a verification has checked the length is forgotten.
void cancel_verify_artifact();

// Whole percent of `total` in `size` in single precision (size not 0), held
// to the unsigned range.
unsigned int verify_percent(std::uint64_t total, std::uint64_t size);

#endif  // TAMREL_DDI_ARTIFACT_VERIFICATION_H_
