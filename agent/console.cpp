#include "agent/console.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <mutex>
#include <thread>

namespace {

std::size_t const kMaxLine = 4096;

struct Stream {
  explicit Stream(int descriptor) : fd(descriptor) {}
  int const fd;
  bool atLineStart = true;
  std::size_t lineLength = 0, cut = 0;
  // The thread whose writes go to `captured` instead, if any.
  std::thread::id captureThread;
  std::string* captured = nullptr;
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

std::string stamp() {
  std::time_t const now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ ", &utc);
  return text;
}

ssize_t writeStream(void* cookie, char const* data, std::size_t size) {
  Stream& stream = *static_cast<Stream*>(cookie);
  std::lock_guard<std::mutex> guard(lock);
  if (stream.captured != nullptr && stream.captureThread == std::this_thread::get_id()) {
    std::size_t const room = stream.limit - stream.captured->size();
    stream.captured->append(data, size < room ? size : room);
    if (!stream.pass) return static_cast<ssize_t>(size);
  }
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    char const c = data[i];
    if (c == '\n') {
      if (stream.cut > 0) text += " [" + std::to_string(stream.cut) + " bytes cut]";
      text += c;
      stream.atLineStart = true;
      stream.lineLength = stream.cut = 0;
      continue;
    }
    // The stamp goes before a line's first printable character.
    if (stream.atLineStart && static_cast<unsigned char>(c) >= 0x20) {
      text += stamp();
      stream.atLineStart = false;
      stream.lineLength = 0;
    }
    if (stream.lineLength++ < kMaxLine) {
      text += c;
    } else {
      ++stream.cut;
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

Console::Console() {
  std::fflush(stdout);
  std::fflush(stderr);
  savedOut = stdout;
  savedErr = stderr;
  // glibc's stdout and stderr are plain variables meant to be reassigned;
  // libcurl takes stdout when a handle is made, so it writes here too.
  if (ownOut == nullptr) ownOut = open(out);
  if (ownErr == nullptr) ownErr = open(err);
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
  stream.limit = limit;
  stream.pass = pass;
}

Console::Capture::~Capture() {
  std::fflush(nullptr);
  Stream& stream = streamOf(channel_);
  std::lock_guard<std::mutex> guard(lock);
  stream.captured = nullptr;
}

std::string Console::Capture::text() const {
  std::fflush(nullptr);
  std::lock_guard<std::mutex> guard(lock);
  return text_;
}
