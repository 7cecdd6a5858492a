// The control socket's requests: each parsed into what goes to the update
// loop, and every malformed line refused with a reason.
#include "agent/control/controlprotocol.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// What a line was parsed into, in a few words.
std::string parsed(std::string const& line) {
  ControlProtocol::Parsed const p = ControlProtocol::parse(line);
  ControlRequest const& r = p.request;
  switch (p.verb) {
    case ControlProtocol::Verb::kInvalid:
      return "error: " + p.error;
    case ControlProtocol::Verb::kStatus:
      return "status";
    case ControlProtocol::Verb::kWatch:
      return "watch";
    case ControlProtocol::Verb::kChange:
      break;
  }
  std::string text = ControlProtocol::name(r.kind);
  if (!r.action.empty()) text += " " + r.action;
  if (r.kind == ControlRequest::Kind::kConsent) text += r.confirm ? " confirm" : " deny";
  if (!r.permit.empty()) text += " " + r.permit;
  if (!r.reason.empty()) text += " reason=" + r.reason;
  if (r.interval != 0) text += " interval=" + std::to_string(r.interval);
  return text;
}

TEST(ControlProtocol, EveryRequestAndEveryRefusal) {
  struct Case {
    std::string line, expected;
  };
  std::string const longLine =
      R"({"request":"status","pad":")" + std::string(ControlProtocol::kMaxLine, 'x') + "\"}";
  Case const cases[] = {
      {R"({"request":"status"})", "status"},
      {R"({"request":"watch","extra":1})", "watch"},
      {R"({"request":"poll"})", "poll"},
      {R"({"request":"hold"})", "hold"},
      {R"({"request":"release","interval":60})", "release interval=60"},
      {R"({"request":"consent","action":"7","answer":"confirm"})", "consent 7 confirm"},
      {R"({"request":"consent","action":"7","answer":"deny","reason":"busy \"now\""})",
       "consent 7 deny reason=busy \"now\""},
      {R"({"request":"permit","action":"8","what":"install"})", "permit 8 install"},
      {"not json", "error: not a JSON object"},
      {R"(["status"])", "error: not a JSON object"},
      {R"({"request":"status")", "error: not a JSON object"},
      {R"({"verb":"status"})", "error: missing \"request\""},
      {R"({"request":7})", "error: missing \"request\""},
      {R"({"request":"reboot"})", "error: unknown request \"reboot\""},
      {R"({"request":"consent","answer":"confirm"})", "error: missing \"action\" (a string)"},
      {R"({"request":"consent","action":"7"})", "error: missing \"answer\" (confirm|deny)"},
      {R"({"request":"consent","action":"7","answer":"maybe"})",
       "error: \"answer\" must be one of confirm|deny"},
      {R"({"request":"consent","action":"7","answer":"deny","reason":3})",
       "error: \"reason\" must be a string"},
      {R"({"request":"permit","action":"8"})", "error: missing \"what\" (download|install)"},
      {R"({"request":"permit","action":"8","what":"reboot"})",
       "error: \"what\" must be one of download|install"},
      {R"({"request":"release","interval":0})",
       "error: \"interval\" must be a whole number of seconds from 1 to 86400"},
      {R"({"request":"hold","interval":1.5})",
       "error: \"interval\" must be a whole number of seconds from 1 to 86400"},
      {R"({"request":"poll","interval":"60"})",
       "error: \"interval\" must be a whole number of seconds from 1 to 86400"},
      {longLine, "error: request line over 4096 bytes"},
  };
  for (Case const& c : cases) EXPECT_EQ(parsed(c.line), c.expected) << c.line.substr(0, 80);
  EXPECT_EQ(ControlProtocol::error("a \"b\"\n"), R"({"ok":false,"error":"a \"b\"\n"})");
}

}  // namespace
