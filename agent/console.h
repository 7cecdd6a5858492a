#ifndef TAMREL_AGENT_CONSOLE_H_
#define TAMREL_AGENT_CONSOLE_H_

#include <cstddef>
#include <string>

// The process's standard output and error as the agent writes them: every
// line starts with a UTC time stamp, a line longer than 4 KiB is cut (the
// library logs whole documents it cannot read), and one thread at a time can
// take what it writes to standard output for itself, which is how the body
// libcurl prints for a POST/PUT answer is kept out of the agent's output.
class Console {
 public:
  // Replaces stdout and stderr by unbuffered stamping streams on file
  // descriptors 1 and 2. Call once, before other threads start.
  static void install();

  enum class Channel { kOut, kErr };
  // While it lives, what the creating thread writes to the channel is kept
  // here (the first `limit` bytes), and printed as well only when `pass` is
  // set. Needs install(); one capture per channel at a time.
  class Capture {
   public:
    explicit Capture(Channel channel, bool pass = false, std::size_t limit = 65536);
    ~Capture();
    Capture(Capture const&) = delete;
    Capture& operator=(Capture const&) = delete;
    std::string text() const;

   private:
    Channel const channel_;
    std::string text_;
  };
};

#endif  // TAMREL_AGENT_CONSOLE_H_
