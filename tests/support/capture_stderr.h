#ifndef TAMREL_TESTS_SUPPORT_CAPTURE_STDERR_H_
#define TAMREL_TESTS_SUPPORT_CAPTURE_STDERR_H_

#include <cstdio>
#include <string>

namespace tamrel::testing {

// Redirects file descriptor 2 into a temporary file for its lifetime, so that
// log lines can be compared byte for byte. Not reentrant.
class CaptureStderr {
 public:
  CaptureStderr();
  ~CaptureStderr();
  CaptureStderr(CaptureStderr const&) = delete;
  CaptureStderr& operator=(CaptureStderr const&) = delete;
  // Everything written to standard error so far (keeps capturing).
  std::string text() const;

 private:
  std::FILE* file_;
  int saved_ = -1;
};

}  // namespace tamrel::testing

#endif  // TAMREL_TESTS_SUPPORT_CAPTURE_STDERR_H_
