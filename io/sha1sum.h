#ifndef TAMREL_IO_SHA1SUM_H_
#define TAMREL_IO_SHA1SUM_H_

#include <openssl/sha.h>

#include <string>

#include "io/hashbase.h"

// SHA-1 over everything written. The finished text is cached, so hash() and
// matches() may be called repeatedly; data written after that is ignored.
class sha1sum : public hashbase {
 public:
  sha1sum();
  explicit sha1sum(std::string const& expected);

  // Logs a warning with both digests on a mismatch.
  bool matches() override;
  void write(char const* data, unsigned int length) override;
  std::string hash() override;

 private:
  std::string expected;
  std::string cached;
  SHA_CTX context;
  unsigned char digest[SHA_DIGEST_LENGTH];
};

#endif  // TAMREL_IO_SHA1SUM_H_
