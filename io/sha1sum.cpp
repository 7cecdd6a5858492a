#include "io/sha1sum.h"

#include <cstring>

#include "io/logline.h"

sha1sum::sha1sum() : sha1sum(std::string()) {}

sha1sum::sha1sum(std::string const& expectedText) : expected(expectedText) {
  std::memset(digest, 0, sizeof digest);
  std::memset(&context, 0, sizeof context);
  SHA1_Init(&context);
}

void sha1sum::write(char const* data, unsigned int length) { SHA1_Update(&context, data, length); }

std::string sha1sum::hash() {
  if (!cached.empty()) return cached;
  if (SHA1_Final(digest, &context) != 1) return std::string();
  cached = toHex(digest, SHA_DIGEST_LENGTH);
  return cached;
}

bool sha1sum::matches() {
  std::string const computed = hash();
  if (computed == expected) return true;
  logLine("[W] libtamrelcore -> Checksum does not match. Expected \"%s\" but got \"%s\"\n",
          expected.c_str(), computed.c_str());
  return false;
}
