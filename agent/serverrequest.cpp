#include "agent/serverrequest.h"

#include "agent/console.h"
#include "agent/exitcode.h"
#include "agent/watchdog.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

namespace {

// The "message" (else "errorCode") of a hawkBit error document, "" when the
// text is not one. Control characters and escapes are shown as '?'.
std::string errorMessage(std::string const& body) {
  for (char const* key : {"\"message\"", "\"errorCode\""}) {
    std::size_t at = body.find(key);
    if (at == std::string::npos) continue;
    at = body.find_first_not_of(" \t\r\n", at + std::strlen(key));
    if (at == std::string::npos || body[at] != ':') continue;
    at = body.find_first_not_of(" \t\r\n", at + 1);
    if (at == std::string::npos || body[at] != '"') continue;
    std::string text;
    for (++at; at < body.size() && body[at] != '"' && text.size() < 200; ++at) {
      char const c = body[at];
      if (c == '\\') {
        ++at;
        text += at < body.size() && (body[at] == '"' || body[at] == '\\' || body[at] == '/')
                    ? body[at]
                    : '?';
      } else {
        text += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
      }
    }
    if (!text.empty()) return text;
  }
  return std::string();
}

}  // namespace

ServerRequest::ServerRequest(AgentConfig const& config, std::function<bool()> stopping)
    : config_(config), stopping_(std::move(stopping)) {}

std::string ServerRequest::send(std::function<bool()> const& request) const {
  Watchdog::Limits limits;
  limits.deadlineMs = config_.feedbackTimeoutSeconds * 1000LL;
  limits.stopGraceMs = 3000;
  int const seconds = config_.feedbackTimeoutSeconds;
  Watchdog watchdog(limits, stopping_, [seconds](Watchdog::Verdict verdict) {
    if (verdict == Watchdog::Verdict::kDeadline) {
      std::printf(
          "server: no answer to a POST/PUT within %d s (feedback-timeout-s); exiting with "
          "status %d\n",
          seconds, kExitFeedbackDeadline);
    } else {
      std::printf("stopping: the server does not answer; the action stays open\n");
    }
    std::fflush(nullptr);
    _exit(verdict == Watchdog::Verdict::kDeadline ? kExitFeedbackDeadline : kExitOk);
  });
  std::string answer;
  bool sent = false;
  {
    Console::Capture capture(Console::Channel::kOut);
    sent = watchdog.run(request);
    answer = capture.text();
  }
  if (!sent) return "not sent";
  std::string const message = errorMessage(answer);
  return message.empty() ? std::string() : "refused by the server: " + message;
}
