// One transfer attempt into the artifact's file, resuming what an earlier
// attempt left, hashed on the way, checked at the end.
#include "ddi/artifact_download.h"

#include <curl/curl.h>

#include <climits>

#include "ddi/artifact_path.h"
#include "io/fileio.h"
#include "io/logline.h"
#include "io/md5sum.h"
#include "io/sha1sum.h"
#include "transport/curlmanager.h"

int download_percent(std::uint64_t done, std::uint64_t size) {
  if (size == 0) return 0;
  double const percent = static_cast<float>(done) / static_cast<float>(size) * 100.0;
  // Converting a value beyond int is undefined, and a server may send any
  // number of bytes.
  if (percent >= static_cast<double>(INT_MAX)) return INT_MAX;
  return static_cast<int>(percent);
}

download_errors_t download_artifact(
    CurlManager& transport, std::mutex& lock, download_signals const& signals,
    std::string const& label, hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact) {
  if (artifact.destination.empty()) {
    logLine("[E] libtamrelcore -> No destination path specified. Aborting...\n");
    return download_invalid;
  }
  auto const link = artifact.links.find("download-http");
  if (link == artifact.links.end()) {
    logLine("[E] libtamrelcore -> Unable to find: %s\n", "download-http");
    return download_invalid;
  }
  std::string const& url = link->second;
  std::string const path = get_full_artifact_file_path(artifact);
  std::lock_guard<std::mutex> guard(lock);

  auto file = std::make_unique<fileio>(path);
  fileio& sink = *file;
  auto buffer = std::make_shared<curlbuffer>(std::move(file));
  if (artifact.size <= sink.size()) {
    logLine(
        "[I] libtamrelcore -> Downloaded file is already fully downloaded. Restarting download "
        "from scratch.\n");
    sink.reset();
  }

  auto const sha1 = artifact.hashes.find("sha1");
  auto const md5 = artifact.hashes.find("md5");
  if (sha1 != artifact.hashes.end()) {
    sink.setHash(std::make_unique<sha1sum>(sha1->second));
  } else if (md5 != artifact.hashes.end()) {
    sink.setHash(std::make_unique<md5sum>(md5->second));
  } else {
    logLine("[E] libtamrelcore -> No hash found. Aborting...\n");
    return download_hash_error;
  }

  std::uint64_t done = sink.size();
  int lastPercent = 0;
  auto const reportPercent = [&] {
    int const percent = download_percent(done, artifact.size);
    if (percent != lastPercent) {
      lastPercent = percent;
      signals.progress(label, artifact.filename, percent);
    }
  };
  buffer->written.connect([&](int stored) {
    signals.bytes(stored);
    done += static_cast<std::uint64_t>(static_cast<std::int64_t>(stored));
    reportPercent();
  });

  logLine("[I] libtamrelcore -> Starting to download: %s (%s)\n", artifact.filename.c_str(),
          url.c_str());
  if (done != 0) {
    // Resuming: report what is already on disk first.
    signals.bytes(static_cast<int>(done));
    reportPercent();
  }
  signals.started(label, artifact.filename);

  transport.download(url, buffer);
  unsigned int const status = static_cast<unsigned int>(buffer->httpCode);
  download_errors_t outcome;
  if (buffer->result == 0 && !sink.flush()) {
    // The last bytes could not reach the disk: judged like a block the file
    // could not take, before any digest is trusted.
    buffer->result = CURLE_WRITE_ERROR;
  }
  if (buffer->result == 0) {
    if (!sink.hashMatches()) {
      logLine("[E] libtamrelcore -> Hash mis-match for: %s\n", artifact.filename.c_str());
      outcome = download_hash_error;
      signals.finished(label, artifact.filename, outcome, status);
    } else {
      outcome = download_ok;
      signals.finished(label, artifact.filename, outcome, status);
      logLine("[I] libtamrelcore -> Download finished (%s)\n", artifact.filename.c_str());
    }
  } else {
    logLine("[E] libtamrelcore -> Failed to download: %s ([%u] %s)\n", artifact.filename.c_str(),
            static_cast<unsigned int>(buffer->result),
            curl_easy_strerror(static_cast<CURLcode>(buffer->result)));
    outcome = buffer->result == CURLE_ABORTED_BY_CALLBACK ? download_aborted : download_failed;
    signals.finished(label, artifact.filename, outcome, status);
  }
  return outcome;
}
