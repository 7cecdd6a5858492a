#ifndef TAMREL_AGENT_BASE_CONSOLE_H_
#define TAMREL_AGENT_BASE_CONSOLE_H_

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

// The one owner of the process's standard output and error while it lives:
// every line starts with a UTC time stamp, or, on a stream systemd connects
// to journald (JOURNAL_STREAM), with the line's syslog priority ("<3>") for
// journald to read; lines below the log level (Log) are dropped; control characters are shown
// escaped ("\n", "\x1b") and invalid UTF-8 as "\xNN"; each write (one line
// of the library's log, one printf of the agent's) stays one line; a line is cut at
// 1 KiB (the library logs whole documents it cannot read); a live line (the
// progress bar) stays below what the other threads print, and one thread at
// a time can take what it writes for itself, which is how the body libcurl
// prints for a POST/PUT answer is kept out of the agent's output.
class Console {
 public:
  // Replaces stdout and stderr by unbuffered stamping streams on file
  // descriptors 1 and 2. One per process, made before other threads start.
  Console();
  // Puts the process's own streams back.
  ~Console();
  Console(Console const&) = delete;
  Console& operator=(Console const&) = delete;

  // True when standard output is a terminal.
  static bool terminal();
  // Shows `text` as the terminal's live last line, redrawn below every line
  // printed while it stands; "" takes it away. Nothing happens when standard
  // output is not a terminal or no Console lives.
  static void live(std::string const& text);
  // True when `text` is valid UTF-8 without control characters.
  static bool printable(std::string const& text);
  // `when` as the UTC time lines are stamped with: 2026-01-02T03:04:05Z.
  static std::string utcTime(std::time_t when);

  enum class Channel { kOut, kErr };
  // While it lives, what the creating thread writes to the channel is kept
  // here (the first `limit` bytes), and printed as well only when `pass` is
  // set. Keeps nothing when no Console lives; one capture per channel at a
  // time.
  class Capture {
   public:
    explicit Capture(Channel channel, bool pass = false, std::size_t limit = 65536);
    ~Capture();
    Capture(Capture const&) = delete;
    Capture& operator=(Capture const&) = delete;
    std::string text() const;
    // The same, one element per write (a line, or part of one).
    std::vector<std::string> writes() const;

   private:
    Channel const channel_;
    std::string text_;
    std::vector<std::string> writes_;
  };
};

#endif  // TAMREL_AGENT_BASE_CONSOLE_H_
