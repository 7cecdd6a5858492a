#include "digest/digest.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace tamrel {

namespace {

EVP_MD const* algorithm(Digest::Kind kind) {
  switch (kind) {
    case Digest::Kind::kSha1:
      return EVP_sha1();
    case Digest::Kind::kMd5:
      return EVP_md5();
    case Digest::Kind::kSha256:
      break;
  }
  return EVP_sha256();
}

}  // namespace

Digest::Digest(Kind kind) : context_(EVP_MD_CTX_new()) {
  ok_ = context_ && EVP_DigestInit_ex(context_.get(), algorithm(kind), nullptr) == 1;
}

void Digest::update(void const* data, std::size_t size) {
  if (ok_ && size > 0) ok_ = EVP_DigestUpdate(context_.get(), data, size) == 1;
}

std::string Digest::hex() {
  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!ok_ || EVP_DigestFinal_ex(context_.get(), value, &length) != 1) return std::string();
  ok_ = false;  // finished: a second call gives ""
  return hexOf(value, length);
}

std::string Digest::of(Kind kind, void const* data, std::size_t size) {
  Digest digest(kind);
  digest.update(data, size);
  return digest.hex();
}

std::string hexOf(void const* bytes, std::size_t size) {
  static char const digits[] = "0123456789abcdef";
  auto const* in = static_cast<unsigned char const*>(bytes);
  std::string text(size * 2, '0');
  for (std::size_t i = 0; i < size; ++i) {
    text[2 * i] = digits[in[i] >> 4];
    text[2 * i + 1] = digits[in[i] & 15];
  }
  return text;
}

bool digestFile(std::string const& path, std::initializer_list<Digest*> digests,
                std::atomic<bool> const* stop) {
  struct Descriptor {
    int fd;
    ~Descriptor() {
      if (fd >= 0) close(fd);
    }
  } const file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) return false;
  std::vector<unsigned char> block(1 << 16);
  for (;;) {
    if (stop != nullptr && stop->load()) return false;
    ssize_t const got = read(file.fd, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    for (Digest* digest : digests) digest->update(block.data(), static_cast<std::size_t>(got));
  }
}

}  // namespace tamrel
