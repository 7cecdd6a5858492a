#include "agent/base/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

std::atomic<Log::Level> threshold{Log::Level::kInfo};

void write(Log::Level level, char const* format, std::va_list arguments) {
  if (!Log::enabled(level)) return;
  std::va_list copy;
  va_copy(copy, arguments);
  int const length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) return;
  std::string line(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(&line[0], line.size(), format, arguments);
  line.back() = '\n';
  std::fputs(line.c_str(), stdout);
}

}  // namespace

void Log::setLevel(Level level) { threshold = level; }
Log::Level Log::level() { return threshold; }
bool Log::enabled(Level level) {
  return static_cast<int>(level) <= static_cast<int>(threshold.load());
}

#define TAMREL_LOG_AT(name, level)          \
  void Log::name(char const* format, ...) { \
    std::va_list arguments;                 \
    va_start(arguments, format);            \
    write(level, format, arguments);        \
    va_end(arguments);                      \
  }
TAMREL_LOG_AT(error, Level::kError)
TAMREL_LOG_AT(warning, Level::kWarning)
TAMREL_LOG_AT(info, Level::kInfo)
TAMREL_LOG_AT(debug, Level::kDebug)
#undef TAMREL_LOG_AT
