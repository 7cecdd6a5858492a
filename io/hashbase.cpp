#include "io/hashbase.h"

std::string hashbase::toHex(unsigned char const* bytes, unsigned int length) {
  static char const digits[] = "0123456789abcdef";
  std::string text(2 * static_cast<std::size_t>(length), '0');
  for (unsigned int i = 0; i < length; ++i) {
    text[2 * i] = digits[bytes[i] >> 4];
    text[2 * i + 1] = digits[bytes[i] & 0x0f];
  }
  return text;
}
