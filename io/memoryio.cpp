#include "io/memoryio.h"

#include <cstring>

unsigned int memoryio::write(char const* data, unsigned int length) {
  storage.append(data, length);
  if (hasher) hasher->write(data, length);
  return length;
}

std::shared_ptr<char> memoryio::read(unsigned int& length) {
  std::size_t const remaining = storage.size() - cursor;
  if (length > remaining) length = static_cast<unsigned int>(remaining);
  std::shared_ptr<char> piece(new char[length], std::default_delete<char[]>());
  if (length > 0) std::memcpy(piece.get(), storage.data() + cursor, length);
  cursor += length;
  return piece;
}

void memoryio::reset() {
  storage.clear();
  cursor = 0;
}
