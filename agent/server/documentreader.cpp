#include "agent/server/documentreader.h"

#include "agent/base/watchdog.h"
#include "agent/server/linkorigin.h"
#include "io/memoryio.h"

#include <cstdio>
#include <memory>
#include <utility>

DocumentReader::DocumentReader(AgentConfig const& config, std::string address,
                               AgentTransport& transport, std::function<bool()> stopping)
    : config_(config),
      address_(std::move(address)),
      transport_(transport),
      stopping_(std::move(stopping)) {}

bool DocumentReader::allowed(std::string const& url, std::string& host) const {
  return linkAllowed(url, address_, config_.trustedHosts, host);
}

std::string DocumentReader::oneLine(std::string const& text) {
  std::size_t const kMax = 200;
  std::string out;
  for (std::size_t i = 0; i < text.size() && i < kMax; ++i) {
    unsigned char const c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    } else {
      out += text[i];
    }
  }
  if (text.size() > kMax) out += "...";
  return out;
}

std::string DocumentReader::read(
    std::string const& url,
    std::function<std::string(std::string const& body)> const& parse) const {
  std::string host;
  if (!allowed(url, host)) {
    return "not read, the link names another host (" + oneLine(host) + "; see trusted-hosts)";
  }
  Watchdog::Limits limits;
  // The transport's own deadline decides; this one is its backstop.
  limits.deadlineMs = (config_.pollTimeoutSeconds + 2) * 1000LL;
  limits.memoryBytes = config_.maxDocumentMib << 20;
  Watchdog watchdog(limits, stopping_, [this](Watchdog::Verdict) { transport_.cancelTransfer(); });
  std::string refused;
  AgentTransport::Answer answer;
  bool fetched = false;
  watchdog.run([&] {
    auto buffer = std::make_shared<curlbuffer>(std::make_unique<memoryio>());
    fetched = transport_.download(url, buffer);
    answer = transport_.lastAnswer();
    if (fetched && answer.status == 200) refused = parse(buffer->sink->data());
    return true;
  });
  switch (watchdog.verdict()) {
    case Watchdog::Verdict::kNone:
      break;
    case Watchdog::Verdict::kTooLarge:
      return "the answer took more than " + std::to_string(config_.maxDocumentMib) +
             " MiB (max-document-mib), cancelled";
    case Watchdog::Verdict::kStopped:
      return "cancelled, the agent stops";
    default:
      return "no complete answer within " + std::to_string(config_.pollTimeoutSeconds) +
             " s (poll-timeout-s), cancelled";
  }
  if (!fetched) return "not read: " + answer.problem();
  if (answer.status != 200) return "not read (HTTP " + std::to_string(answer.status) + ")";
  return refused;
}
