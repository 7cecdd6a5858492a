#include "agent/base/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

std::atomic<Log::Level> threshold{Log::Level::kInfo};
thread_local int writing = 0;

// Marks what this thread writes next with `level` for the Console.
class Writing {
 public:
  explicit Writing(Log::Level level) { writing = static_cast<int>(level); }
  ~Writing() { writing = 0; }
  Writing(Writing const&) = delete;
  Writing& operator=(Writing const&) = delete;
};

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
  Writing const mark(level);
  std::fwrite(line.data(), 1, line.size(), stdout);
}

}  // namespace

void Log::setLevel(Level level) { threshold = level; }
Log::Level Log::level() { return threshold; }
bool Log::enabled(Level level) {
  return static_cast<int>(level) <= static_cast<int>(threshold.load());
}

bool Log::parseLevel(std::string const& word, Level& level) {
  static struct {
    char const* word;
    Level level;
  } const words[] = {{"error", Level::kError},
                     {"warning", Level::kWarning},
                     {"info", Level::kInfo},
                     {"debug", Level::kDebug}};
  for (auto const& entry : words) {
    if (word == entry.word) {
      level = entry.level;
      return true;
    }
  }
  return false;
}

Log::Level Log::libraryLevel(std::string const& line) {
  // Every poll says these; at info they would bury what happens.
  static char const* const chatter[] = {"Querying ", "Server querying done"};
  if (line.size() < 4 || line[0] != '[' || line[2] != ']' || line[3] != ' ') {
    return Level::kWarning;
  }
  std::size_t const arrow = line.find("-> ");
  if (line[1] == 'I' && arrow != std::string::npos) {
    for (char const* words : chatter) {
      if (line.compare(arrow + 3, std::strlen(words), words) == 0) return Level::kDebug;
    }
  }
  switch (line[1]) {
    case 'E':
      return Level::kError;
    case 'I':
      return Level::kInfo;
    case 'D':
      return Level::kDebug;
    default:
      return Level::kWarning;
  }
}

void Log::library(Level level, std::string const& line) {
  if (!enabled(level)) return;
  Writing const mark(level);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

int Log::levelOfThisWrite() { return writing; }

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
