#include "io/logline.h"

#include <cstdarg>
#include <cstdio>
#include <string>

void logLine(char const* format, ...) {
  char small[512];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int const needed = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (needed < 0) {
    va_end(again);
    return;
  }
  if (static_cast<std::size_t>(needed) < sizeof small) {
    std::fwrite(small, 1, static_cast<std::size_t>(needed), stderr);
  } else {
    // Long lines (a whole rejected document, say) are formatted on the heap.
    std::string big(static_cast<std::size_t>(needed) + 1, '\0');
    std::vsnprintf(&big[0], big.size(), format, again);
    std::fwrite(big.data(), 1, static_cast<std::size_t>(needed), stderr);
  }
  va_end(again);
}
