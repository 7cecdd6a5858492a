#ifndef TAMREL_DDI_ARTIFACT_DOWNLOAD_H_
#define TAMREL_DDI_ARTIFACT_DOWNLOAD_H_

#include <cstdint>
#include <mutex>
#include <string>

#include "ddi/hawkbit_query.h"
#include "properties/simple_signal.h"

class CurlManager;

// The signals a download reports through, owned by the caller. Every one is
// emitted on the downloading thread; `label` is echoed as the first argument.
struct download_signals {
  simple_signal::signal<std::string, std::string> const& started;
  simple_signal::signal<std::string, std::string, download_errors_t, unsigned int> const& finished;
  simple_signal::signal<std::string, std::string, int> const& progress;
  simple_signal::signal<int> const& bytes;
};

// Downloads one artifact into its file under `lock` (held for the whole
// call), resuming a partial file, hashing on the way and checking the digest
// once the file is on disk. A file that cannot take the data is
// download_failed; a digest mismatch is download_hash_error.
download_errors_t download_artifact(
    CurlManager& transport, std::mutex& lock, download_signals const& signals,
    std::string const& label, hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact);

// Whole percent of `done` in `size` in single precision, 0 for size 0, held
// to the int range when the body runs far past `size`.
int download_percent(std::uint64_t done, std::uint64_t size);

#endif  // TAMREL_DDI_ARTIFACT_DOWNLOAD_H_
