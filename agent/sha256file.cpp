#include "agent/sha256file.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

std::string Sha256File::digest(std::string const& path, std::atomic<bool> const& stop) {
  struct Closer {
    void operator()(int* fd) const {
      if (*fd >= 0) close(*fd);
      delete fd;
    }
  };
  std::unique_ptr<int, Closer> const fd(new int(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> const context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
  if (*fd < 0 || !context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    return std::string();
  }
  std::vector<unsigned char> block(1 << 16);
  for (;;) {
    if (stop.load()) return std::string();
    ssize_t const got = read(*fd, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::string();
    if (got == 0) break;
    if (EVP_DigestUpdate(context.get(), block.data(), static_cast<std::size_t>(got)) != 1) {
      return std::string();
    }
  }
  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), value, &length) != 1) return std::string();
  static char const digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += digits[value[i] >> 4];
    hex += digits[value[i] & 15];
  }
  return hex;
}
