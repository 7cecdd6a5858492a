// Length first, then the digest, read back from disk in 4096-byte blocks
// with progress and a process-wide cancel.
#include "ddi/artifact_verification.h"

#include <openssl/md5.h>
#include <openssl/sha.h>

#include <climits>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "ddi/artifact_path.h"
#include "ddi/verify_abort.h"
#include "io/hashbase.h"
#include "io/logline.h"

std::atomic<bool> verifyAbort{false};

namespace {

using progress_fn = std::function<void(unsigned int, std::uint64_t)>;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, FileCloser>;

constexpr std::size_t kBlock = 4096;

// Hashes the rest of `file` in 4096-byte blocks until the end or an abort
// request; the digest of what was read so far is returned either way.
template <typename Context, int (*Init)(Context*), int (*Update)(Context*, void const*, size_t),
          int (*Final)(unsigned char*, Context*), unsigned int DigestLength>
std::string digestOfFile(std::FILE* file, progress_fn const& progress, char const* abortLine) {
  if (file == nullptr) return std::string();
  Context context;
  Init(&context);
  std::uint64_t total = 0;
  char block[kBlock];
  for (;;) {
    if (verifyAbort.load()) {
      logLine("%s", abortLine);
      break;
    }
    std::size_t const got = std::fread(block, 1, kBlock, file);
    if (got == 0) break;
    Update(&context, block, got);
    if (progress) {
      total += got;
      progress(static_cast<unsigned int>(got), total);
    }
  }
  unsigned char digest[DigestLength];
  Final(digest, &context);
  return hashbase::toHex(digest, DigestLength);
}

std::string sha1OfFile(std::FILE* file, progress_fn const& progress) {
  return digestOfFile<SHA_CTX, SHA1_Init, SHA1_Update, SHA1_Final, SHA_DIGEST_LENGTH>(
      file, progress, "[I] libtamrelcore -> SHA-1 checksum generation aborted\n");
}

std::string md5OfFile(std::FILE* file, progress_fn const& progress) {
  return digestOfFile<MD5_CTX, MD5_Init, MD5_Update, MD5_Final, MD5_DIGEST_LENGTH>(
      file, progress, "[I] libtamrelcore -> MD5 checksum generation aborted\n");
}

}  // namespace

unsigned int verify_percent(std::uint64_t total, std::uint64_t size) {
  double const percent = static_cast<float>(total) / static_cast<float>(size) * 100.0;
  // Converting a value beyond the unsigned range is undefined.
  if (percent >= static_cast<double>(UINT_MAX)) return UINT_MAX;
  return static_cast<unsigned int>(percent);
}

void cancel_verify_artifact() { verifyAbort.store(true); }

bool verify_artifact(hawkbit_query_t::deployment_t::chunk_t::artifact_t const& artifact,
                     simple_signal::signal<std::string, unsigned int> const& progress,
                     simple_signal::signal<unsigned int> const& bytes) {
  if (artifact.destination.empty()) {
    logLine("[E] libtamrelcore -> No destination path specified. Aborting...\n");
    return false;
  }
  // Declared before the file so that it outlives the stream using it.
  std::vector<char> streamBuffer;
  file_ptr file(std::fopen(get_full_artifact_file_path(artifact).c_str(), "rb"));
  if (!file) {
    logLine("[E] libtamrelcore -> Cannot open artifact for reading: \"%s\"\n",
            artifact.filename.c_str());
    return false;
  }
  // A larger stdio buffer cuts system calls; reads stay 4096 bytes each.
  streamBuffer.resize(64 * 1024);
  std::setvbuf(file.get(), streamBuffer.data(), _IOFBF, streamBuffer.size());

  fseeko(file.get(), 0, SEEK_END);
  off_t const length = ftello(file.get());
  std::rewind(file.get());
  if (length < 0 || static_cast<std::uint64_t>(length) != artifact.size) {
    logLine(
        "[E] libtamrelcore -> Downloaded artifact \"%s\" does not match expected size. Expected "
        "%llu bytes, got %llu bytes\n",
        artifact.filename.c_str(), static_cast<unsigned long long>(artifact.size),
        static_cast<unsigned long long>(length));
    return false;
  }
  verifyAbort.store(false);

  auto const sha1 = artifact.hashes.find("sha1");
  auto const md5 = artifact.hashes.find("md5");
  bool const useSha1 = sha1 != artifact.hashes.end();
  if (!useSha1 && md5 == artifact.hashes.end()) {
    logLine("[E] libtamrelcore -> No hash found. Aborting...\n");
    return false;
  }

  unsigned int lastPercent = 0;
  progress_fn const report = [&](unsigned int n, std::uint64_t total) {
    bytes(n);
    if (artifact.size == 0) return;
    unsigned int const percent = verify_percent(total, artifact.size);
    if (percent > lastPercent) {
      lastPercent = percent;
      progress(artifact.filename, percent);
    }
  };

  std::string const computed =
      useSha1 ? sha1OfFile(file.get(), report) : md5OfFile(file.get(), report);
  file.reset();
  if (computed != (useSha1 ? sha1->second : md5->second)) {
    logLine(useSha1 ? "[W] libtamrelcore -> SHA-1 does not match\n"
                    : "[W] libtamrelcore -> MD5 does not match\n");
    return false;
  }
  return true;
}
