#include "agent/server/serverrequest.h"

#include "agent/base/log.h"
#include "agent/base/watchdog.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

namespace {

// Part of the reason given for a 404/410, as gone() looks for it.
char const kGone[] = ", gone from the server";

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

ServerRequest::ServerRequest(AgentConfig const& config, AgentTransport& transport,
                             std::function<bool()> stopping)
    : config_(config), transport_(transport), stopping_(std::move(stopping)) {}

std::string ServerRequest::send(std::function<bool()> const& request) const {
  return submit(request).failure;
}

bool ServerRequest::gone(std::string const& failure) {
  return failure.find(kGone) != std::string::npos;
}

void ServerRequest::pause(long seconds) const {
  for (long tenths = seconds * 10; tenths > 0 && !stopping_(); --tenths) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

ServerRequest::Result ServerRequest::submit(std::function<bool()> const& request) const {
  int const kAttempts = 3;
  long const kLongestWaitS = 60;
  Result result;
  for (int attempt = 1;; ++attempt) {
    Watchdog::Limits limits;
    // The transport's own deadline decides; this one is its backstop.
    limits.deadlineMs = (config_.feedbackTimeoutSeconds + 2) * 1000LL;
    limits.stopGraceMs = 3000;
    Watchdog watchdog(limits, stopping_,
                      [this](Watchdog::Verdict) { transport_.cancelTransfer(); });
    std::uint64_t const before = transport_.exchanges();
    bool const done = watchdog.run(request);
    AgentTransport::Answer const answer = transport_.lastAnswer();
    bool const asked = transport_.exchanges() != before;
    if (done && asked && answer.sent()) return result;
    if (!asked) {
      result.failure = "not sent";
    } else if (stopping_()) {
      result.failure = "cancelled while stopping; the action stays open";
    } else if (answer.code == CURLE_OPERATION_TIMEDOUT ||
               watchdog.verdict() == Watchdog::Verdict::kDeadline) {
      result.failure = "no answer within " + std::to_string(config_.feedbackTimeoutSeconds) +
                       " s (feedback-timeout-s); tried again after the next poll";
    } else if (answer.code != CURLE_OK) {
      result.failure = "not sent: " + answer.problem();
    } else {
      std::string const message = errorMessage(answer.reply);
      long const status = answer.status;
      result.gone = status == 404 || status == 410;
      result.failure = "refused by the server (HTTP " + std::to_string(status) +
                       (result.gone                      ? kGone
                        : status == 401 || status == 403 ? ", credentials refused"
                                                         : "") +
                       ")" + (message.empty() ? "" : ": " + message);
    }
    bool const wait = asked && (answer.status == 409 || answer.status == 429);
    if (!wait || attempt == kAttempts || stopping_()) return result;
    long const seconds =
        answer.retryAfterS >= 0 ? std::min(answer.retryAfterS, kLongestWaitS) : 1L << attempt;
    Log::info("server: busy (HTTP %ld), asking again in %ld s", answer.status, seconds);
    pause(seconds);
    if (stopping_()) return result;
  }
}
