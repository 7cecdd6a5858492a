#ifndef TAMREL_AGENT_BASE_LOG_H_
#define TAMREL_AGENT_BASE_LOG_H_

// The agent's log: one line a call (the text without its newline), each
// with a level; lines below the level set are dropped.
class Log {
 public:
  // syslog's priorities, which journald reads.
  enum class Level { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

  static void setLevel(Level level);
  static Level level();
  static bool enabled(Level level);

  static void error(char const* format, ...) __attribute__((format(printf, 1, 2)));
  static void warning(char const* format, ...) __attribute__((format(printf, 1, 2)));
  static void info(char const* format, ...) __attribute__((format(printf, 1, 2)));
  static void debug(char const* format, ...) __attribute__((format(printf, 1, 2)));
};

#endif  // TAMREL_AGENT_BASE_LOG_H_
