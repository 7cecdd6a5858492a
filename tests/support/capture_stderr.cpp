#include "tests/support/capture_stderr.h"

#include <unistd.h>

namespace tamrel::testing {

CaptureStderr::CaptureStderr() : file_(std::tmpfile()) {
  std::fflush(stderr);
  if (file_ == nullptr) return;
  saved_ = dup(2);
  dup2(fileno(file_), 2);
}

CaptureStderr::~CaptureStderr() {
  std::fflush(stderr);
  if (saved_ >= 0) dup2(saved_, 2), close(saved_);
  if (file_ != nullptr) std::fclose(file_);
}

std::string CaptureStderr::text() const {
  std::fflush(stderr);
  std::string all;
  char block[4096];
  ssize_t got = 0;
  for (off_t at = 0; file_ && (got = pread(fileno(file_), block, sizeof block, at)) > 0;
       at += got) {
    all.append(block, static_cast<std::size_t>(got));
  }
  return all;
}

}  // namespace tamrel::testing
