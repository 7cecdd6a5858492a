// The control socket's requests: each parsed into what goes to the update
// loop, and every malformed line refused with a reason.
#include "agent/control/controlprotocol.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Verb = ControlProtocol::Verb;
using Kind = ControlRequest::Kind;

TEST(ControlProtocol, EveryRequestAndEveryRefusal) {
  struct Case {
    std::string line;
    Verb verb;
    char const* error;  // a part of it, for kInvalid
    Kind kind;
    char const* action;
    bool confirm;
    char const* reason;
    char const* permit;
    std::int64_t interval;
  };
  Case const cases[] = {
      {R"({"request":"status"})", Verb::kStatus, "", Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"watch","extra":1})", Verb::kWatch, "", Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"poll"})", Verb::kChange, "", Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"hold"})", Verb::kChange, "", Kind::kHold, "", false, "", "", 0},
      {R"({"request":"release","interval":60})", Verb::kChange, "", Kind::kRelease, "", false, "",
       "", 60},
      {R"({"request":"consent","action":"7","answer":"confirm"})", Verb::kChange, "",
       Kind::kConsent, "7", true, "", "", 0},
      {R"({"request":"consent","action":"7","answer":"deny","reason":"busy \"now\""})",
       Verb::kChange, "", Kind::kConsent, "7", false, "busy \"now\"", "", 0},
      {R"({"request":"permit","action":"8","what":"install"})", Verb::kChange, "", Kind::kPermit,
       "8", false, "", "install", 0},
      // Refused, the connection kept.
      {"not json", Verb::kInvalid, "not a JSON object", Kind::kPoll, "", false, "", "", 0},
      {R"(["status"])", Verb::kInvalid, "not a JSON object", Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"status")", Verb::kInvalid, "not a JSON object", Kind::kPoll, "", false, "",
       "", 0},
      {R"({"verb":"status"})", Verb::kInvalid, "missing \"request\"", Kind::kPoll, "", false, "",
       "", 0},
      {R"({"request":7})", Verb::kInvalid, "missing \"request\"", Kind::kPoll, "", false, "", "",
       0},
      {R"({"request":"reboot"})", Verb::kInvalid, "unknown request \"reboot\"", Kind::kPoll, "",
       false, "", "", 0},
      {R"({"request":"consent","answer":"confirm"})", Verb::kInvalid, "missing \"action\"",
       Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"consent","action":"7"})", Verb::kInvalid, "missing \"answer\"", Kind::kPoll,
       "", false, "", "", 0},
      {R"({"request":"consent","action":"7","answer":"maybe"})", Verb::kInvalid,
       "must be one of confirm|deny", Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"consent","action":"7","answer":"deny","reason":3})", Verb::kInvalid,
       "\"reason\" must be a string", Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"permit","action":"8"})", Verb::kInvalid, "missing \"what\"", Kind::kPoll, "",
       false, "", "", 0},
      {R"({"request":"permit","action":"8","what":"reboot"})", Verb::kInvalid,
       "must be one of download|install", Kind::kPoll, "", false, "", "", 0},
      {R"({"request":"release","interval":0})", Verb::kInvalid, "\"interval\" must be", Kind::kPoll,
       "", false, "", "", 0},
      {R"({"request":"hold","interval":1.5})", Verb::kInvalid, "\"interval\" must be", Kind::kPoll,
       "", false, "", "", 0},
      {R"({"request":"poll","interval":"60"})", Verb::kInvalid, "\"interval\" must be", Kind::kPoll,
       "", false, "", "", 0},
      {R"({"request":"status","pad":")" + std::string(ControlProtocol::kMaxLine, 'x') + "\"}",
       Verb::kInvalid, "request line over 4096 bytes", Kind::kPoll, "", false, "", "", 0},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 80));
    ControlProtocol::Parsed const parsed = ControlProtocol::parse(c.line);
    EXPECT_EQ(parsed.verb, c.verb);
    if (c.verb == Verb::kInvalid) {
      EXPECT_NE(parsed.error.find(c.error), std::string::npos) << parsed.error;
      continue;
    }
    EXPECT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.request.kind, c.kind);
    EXPECT_EQ(parsed.request.action, c.action);
    EXPECT_EQ(parsed.request.confirm, c.confirm);
    EXPECT_EQ(parsed.request.reason, c.reason);
    EXPECT_EQ(parsed.request.permit, c.permit);
    EXPECT_EQ(parsed.request.interval, c.interval);
  }
  EXPECT_EQ(ControlProtocol::error("a \"b\"\n"), R"({"ok":false,"error":"a \"b\"\n"})");
}

}  // namespace
