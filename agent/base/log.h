#ifndef TAMREL_AGENT_BASE_LOG_H_
#define TAMREL_AGENT_BASE_LOG_H_

#include <string>

// The agent's log: one line a call (the text without its newline), each
// with a level; lines below the level set are dropped. The library's own
// lines (standard error, tagged "[E] ", "[W] ", "[I] ", "[D] ") get a level
// from their tag and are dropped the same way. How a line is shown (time
// stamp, or a syslog priority prefix for journald) is the Console's.
class Log {
 public:
  // syslog's priorities, which journald reads.
  enum class Level { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

  static void setLevel(Level level);
  static Level level();
  static bool enabled(Level level);
  // "error", "warning", "info" or "debug"; false for any other word.
  static bool parseLevel(std::string const& word, Level& level);

  static void error(char const* format, ...) __attribute__((format(printf, 1, 2)));
  static void warning(char const* format, ...) __attribute__((format(printf, 1, 2)));
  static void info(char const* format, ...) __attribute__((format(printf, 1, 2)));
  static void debug(char const* format, ...) __attribute__((format(printf, 1, 2)));

  // The level of a line of the library's log: its tag's, except for the
  // lines every poll writes (debug); a line without a tag is a warning.
  static Level libraryLevel(std::string const& line);
  // Writes a line of the library's log (a write kept back by a
  // Console::Capture) at `level`.
  static void library(Level level, std::string const& line);
  // The level of the write now being made on this thread, if Log makes it;
  // 0 otherwise.
  static int levelOfThisWrite();
};

#endif  // TAMREL_AGENT_BASE_LOG_H_
