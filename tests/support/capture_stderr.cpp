#include "tests/support/capture_stderr.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace tamrel::testing {

CaptureStderr::CaptureStderr() {
  std::fflush(stderr);
  char name[] = "/tmp/tamrel-stderr-XXXXXX";
  file_ = mkstemp(name);
  if (file_ < 0) return;
  unlink(name);
  saved_ = dup(2);
  dup2(file_, 2);
}

CaptureStderr::~CaptureStderr() {
  std::fflush(stderr);
  if (saved_ >= 0) {
    dup2(saved_, 2);
    close(saved_);
  }
  if (file_ >= 0) close(file_);
}

std::string CaptureStderr::text() const {
  std::fflush(stderr);
  std::string all;
  if (file_ < 0) return all;
  char block[4096];
  off_t offset = 0;
  for (;;) {
    ssize_t const got = pread(file_, block, sizeof block, offset);
    if (got <= 0) break;
    all.append(block, static_cast<std::size_t>(got));
    offset += got;
  }
  return all;
}

}  // namespace tamrel::testing
