#include "agent/base/console.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <thread>

#include "agent/base/log.h"

namespace {

std::size_t const kMaxLine = 1024;

struct Stream {
  explicit Stream(int descriptor) : fd(descriptor) {}
  int const fd;
  bool journal = false;  // journald reads it: a priority prefix, no time stamp
  bool atLineStart = true;
  bool dropped = false;  // the line under way is below the log level
  int level = 0;         // the line under way's
  std::size_t lineLength = 0, cut = 0;
  // The thread whose writes go to `captured` instead, if any.
  std::thread::id captureThread;
  std::string* captured = nullptr;
  std::vector<std::string>* writes = nullptr;
  std::size_t limit = 0;
  bool pass = false;
};

// One lock for both streams: a line on either one moves the live line.
std::mutex lock;
Stream out(1), err(2);
bool const isTerminal = isatty(STDOUT_FILENO) != 0;
bool installed = false;
std::string liveText;    // the live line's text
bool liveShown = false;  // it is on screen now
FILE *ownOut = nullptr, *ownErr = nullptr, *savedOut = nullptr, *savedErr = nullptr;

void writeAll(int fd, std::string const& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;  // nowhere to report a failing standard stream
    done += static_cast<std::size_t>(n);
  }
}

// The length of the printable character at `text` (ASCII or a whole, valid
// UTF-8 sequence); 0 for a control character or a byte that does not start
// one.
std::size_t utf8Length(unsigned char const* text, std::size_t available) {
  unsigned char const c = text[0];
  if (c < 0x80) return c >= 0x20 && c != 0x7f ? 1 : 0;
  std::size_t const length = c >= 0xc2 && c <= 0xdf   ? 2
                             : c >= 0xe0 && c <= 0xef ? 3
                             : c >= 0xf0 && c <= 0xf4 ? 4
                                                      : 0;
  if (length == 0 || length > available) return 0;
  // The second byte's range excludes overlong forms, surrogates and code
  // points past U+10FFFF.
  unsigned char const low = c == 0xe0 ? 0xa0 : c == 0xf0 ? 0x90 : 0x80;
  unsigned char const high = c == 0xed ? 0x9f : c == 0xf4 ? 0x8f : 0xbf;
  if (text[1] < low || text[1] > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (text[i] < 0x80 || text[i] > 0xbf) return 0;
  }
  return length;
}

// True when `fd` is the stream systemd connected to journald: it names it
// "device:inode" in JOURNAL_STREAM.
bool journalStream(int fd) {
  char const* const named = std::getenv("JOURNAL_STREAM");
  struct stat info {};
  if (named == nullptr || fstat(fd, &info) != 0) return false;
  unsigned long long device = 0, inode = 0;
  char end = 0;
  return std::sscanf(named, "%llu:%llu%c", &device, &inode, &end) == 2 &&
         device == static_cast<unsigned long long>(info.st_dev) &&
         inode == static_cast<unsigned long long>(info.st_ino);
}

// What starts a line at `level`: its syslog priority for journald, which
// stamps lines itself, else the UTC time.
std::string lineStart(Stream const& stream, int level) {
  if (stream.journal) return "<" + std::to_string(level) + ">";
  return Console::utcTime(std::time(nullptr)) + " ";
}

// What ends a line: how much was cut from it, and the line break.
std::string lineEnd(Stream const& stream) {
  if (stream.cut == 0) return "\n";
  return "\xe2\x80\xa6 (" + std::to_string(stream.cut) + " bytes more)\n";
}

ssize_t writeStream(void* cookie, char const* data, std::size_t size) {
  Stream& stream = *static_cast<Stream*>(cookie);
  std::lock_guard<std::mutex> guard(lock);
  if (stream.captured != nullptr && stream.captureThread == std::this_thread::get_id()) {
    std::size_t const room = stream.limit - stream.captured->size();
    stream.captured->append(data, size < room ? size : room);
    if (room > 0) stream.writes->emplace_back(data, size < room ? size : room);
    if (!stream.pass) return static_cast<ssize_t>(size);
  }
  // A command's last line without its line break is ended by the next
  // line of anyone else, which would otherwise be glued to it.
  for (Stream* other : {&out, &err}) {
    if (other->atLineStart || (other == &stream && Log::levelOfThisWrite() == 0)) continue;
    if (!other->dropped) writeAll(other->fd, lineEnd(*other));
    other->atLineStart = true;
    other->lineLength = other->cut = 0;
  }
  if (stream.atLineStart) {
    // The level of a line is known at its start: the Log's, the tag of a
    // line of the library's, or info for what commands print.
    int level = Log::levelOfThisWrite();
    if (level == 0) {
      level = &stream == &err ? static_cast<int>(Log::libraryLevel(std::string(data, size)))
                              : static_cast<int>(Log::Level::kInfo);
    }
    stream.dropped = !Log::enabled(static_cast<Log::Level>(level));
    stream.level = level;
  }
  if (stream.dropped) {
    if (size > 0 && data[size - 1] == '\n') stream.atLineStart = true;
    return static_cast<ssize_t>(size);
  }
  // A write is one line: a newline inside it is shown escaped, so that text
  // from the server (in the library's log or a line of the agent's) cannot
  // forge lines of its own.
  std::string text;
  auto const show = [&](char const* shown, std::size_t length, std::size_t bytes) {
    if (stream.atLineStart) {
      text += lineStart(stream, stream.level);
      stream.atLineStart = false;
      stream.lineLength = 0;
    }
    if (stream.cut == 0 && stream.lineLength + length <= kMaxLine) {
      text.append(shown, length);
      stream.lineLength += length;
    } else {
      stream.cut += bytes;
    }
  };
  auto const* bytes = reinterpret_cast<unsigned char const*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    unsigned char const c = bytes[i];
    if (c == '\n' && i + 1 == size) {
      text += lineEnd(stream);
      stream.atLineStart = true;
      stream.lineLength = stream.cut = 0;
      continue;
    }
    std::size_t const length = utf8Length(bytes + i, size - i);
    if (length > 1) {
      show(data + i, length, length);
      i += length - 1;
    } else if (length == 1) {
      show(data + i, 1, 1);
    } else {
      char escaped[8];
      int const n = c == '\n'   ? std::snprintf(escaped, sizeof escaped, "\\n")
                    : c == '\r' ? std::snprintf(escaped, sizeof escaped, "\\r")
                    : c == '\t' ? std::snprintf(escaped, sizeof escaped, "\\t")
                                : std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
      show(escaped, static_cast<std::size_t>(n), 1);
    }
  }
  if (text.empty()) return static_cast<ssize_t>(size);
  if (liveShown) {
    writeAll(STDOUT_FILENO, "\r\033[K");
    liveShown = false;
  }
  writeAll(stream.fd, text);
  if (!liveText.empty() && stream.atLineStart) {
    writeAll(STDOUT_FILENO, liveText);
    liveShown = true;
  }
  return static_cast<ssize_t>(size);
}

FILE* open(Stream& stream) {
  cookie_io_functions_t io{};
  io.write = writeStream;
  FILE* file = fopencookie(&stream, "w", io);
  if (file != nullptr) setvbuf(file, nullptr, _IONBF, 0);
  return file;
}

Stream& streamOf(Console::Channel channel) { return channel == Console::Channel::kOut ? out : err; }

}  // namespace

std::string Console::utcTime(std::time_t when) {
  std::tm utc{};
  gmtime_r(&when, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

Console::Console() {
  std::fflush(stdout);
  std::fflush(stderr);
  savedOut = stdout;
  savedErr = stderr;
  // glibc's stdout and stderr are plain variables meant to be reassigned;
  // libcurl takes stdout when a handle is made, so it writes here too.
  if (ownOut == nullptr) ownOut = open(out);
  if (ownErr == nullptr) ownErr = open(err);
  out.journal = journalStream(STDOUT_FILENO);
  err.journal = journalStream(STDERR_FILENO);
  if (ownOut != nullptr) stdout = ownOut;
  if (ownErr != nullptr) stderr = ownErr;
  std::lock_guard<std::mutex> guard(lock);
  installed = true;
}

Console::~Console() {
  live(std::string());
  std::fflush(nullptr);
  std::lock_guard<std::mutex> guard(lock);
  installed = false;
  // The own streams stay open: a handle made meanwhile may still hold one.
  stdout = savedOut;
  stderr = savedErr;
}

bool Console::printable(std::string const& text) {
  auto const* const bytes = reinterpret_cast<unsigned char const*>(text.data());
  for (std::size_t i = 0, length = 0; i < text.size(); i += length) {
    length = utf8Length(bytes + i, text.size() - i);
    if (length == 0) return false;
  }
  return true;
}

bool Console::terminal() { return isTerminal; }

void Console::live(std::string const& text) {
  std::lock_guard<std::mutex> guard(lock);
  if (!installed || !isTerminal) return;
  liveText = text;
  if (!text.empty()) {
    writeAll(STDOUT_FILENO, "\r" + text + "\033[K");
    liveShown = true;
  } else if (liveShown) {
    writeAll(STDOUT_FILENO, "\r\033[K");
    liveShown = false;
  }
}

Console::Capture::Capture(Channel channel, bool pass, std::size_t limit) : channel_(channel) {
  std::fflush(nullptr);
  Stream& stream = streamOf(channel_);
  std::lock_guard<std::mutex> guard(lock);
  stream.captureThread = std::this_thread::get_id();
  stream.captured = &text_;
  stream.writes = &writes_;
  stream.limit = limit;
  stream.pass = pass;
}

Console::Capture::~Capture() {
  std::fflush(nullptr);
  Stream& stream = streamOf(channel_);
  std::lock_guard<std::mutex> guard(lock);
  stream.captured = nullptr;
  stream.writes = nullptr;
}

std::string Console::Capture::text() const {
  std::fflush(nullptr);
  std::lock_guard<std::mutex> guard(lock);
  return text_;
}

std::vector<std::string> Console::Capture::writes() const {
  std::fflush(nullptr);
  std::lock_guard<std::mutex> guard(lock);
  return writes_;
}
