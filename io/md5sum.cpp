#include "io/md5sum.h"

#include <cstring>

md5sum::md5sum() : md5sum(std::string()) {}

md5sum::md5sum(std::string const& expectedText) : expected(expectedText) {
  std::memset(digest, 0, sizeof digest);
  std::memset(&context, 0, sizeof context);
  MD5_Init(&context);
}

void md5sum::write(char const* data, unsigned int length) { MD5_Update(&context, data, length); }

std::string md5sum::hash() {
  if (!finished_.empty()) return finished_;
  if (MD5_Final(digest, &context) != 1) return std::string();
  finished_ = toHex(digest, MD5_DIGEST_LENGTH);
  return finished_;
}

bool md5sum::matches() { return hash() == expected; }
