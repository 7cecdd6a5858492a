#ifndef TAMREL_IO_MD5SUM_H_
#define TAMREL_IO_MD5SUM_H_

#include <openssl/md5.h>

#include <string>

#include "io/hashbase.h"

// MD5 over everything written. A second hash() returns the first result again.
class md5sum : public hashbase {
 public:
  md5sum();
  explicit md5sum(std::string const& expected);

  bool matches() override;
  void write(char const* data, unsigned int length) override;
  std::string hash() override;

 private:
  std::string expected;
  unsigned char digest[MD5_DIGEST_LENGTH];
  MD5_CTX context;
  std::string finished_;  // the text once the digest is final
};

#endif  // TAMREL_IO_MD5SUM_H_
