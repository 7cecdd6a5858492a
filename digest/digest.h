#ifndef TAMREL_DIGEST_DIGEST_H_
#define TAMREL_DIGEST_DIGEST_H_

#include <openssl/evp.h>

#include <atomic>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>

namespace tamrel {

// One digest (OpenSSL EVP) fed in pieces and finished as lower-case hex:
// the SHA-256 check of the agent and the digests the DDI server lists.
class Digest {
 public:
  enum class Kind { kSha1, kMd5, kSha256 };

  explicit Digest(Kind kind);
  Digest(Digest&&) = default;
  Digest& operator=(Digest&&) = default;

  void update(void const* data, std::size_t size);
  // Finishes the digest; "" when OpenSSL failed at any step.
  std::string hex();

  // The digest of `size` bytes at `data`.
  static std::string of(Kind kind, void const* data, std::size_t size);

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD_CTX, Free> context_;
  bool ok_ = false;
};

// Lower-case hex of `size` bytes.
std::string hexOf(void const* bytes, std::size_t size);

// Feeds every digest with the whole file at `path`, read in blocks of 64 KiB
// (constant memory whatever the file's size). False when the file cannot be
// read, or `stop` was set while reading.
bool digestFile(std::string const& path, std::initializer_list<Digest*> digests,
                std::atomic<bool> const* stop = nullptr);

}  // namespace tamrel

#endif  // TAMREL_DIGEST_DIGEST_H_
