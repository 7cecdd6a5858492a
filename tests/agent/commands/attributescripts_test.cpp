// The scripts of attributes-dir: what each printed, left out whole when it
// failed, hung, printed too much or a bad line (with a warning naming it);
// skipped when it is no executable of the agent's own; name order, a later
// name replacing an earlier one, the fixed attributes first and never
// replaced; a script's failure warned of once while it lasts.
#include "agent/commands/attributescripts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "agent/base/log.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::TempDir;
using tamrel::testing::writeFile;
// "name=value name=value ..."
std::string text(std::vector<tamrel::value_pair_t> const& attributes) {
  std::string result;
  for (auto const& pair : attributes) result += pair.key + "=" + pair.value + " ";
  return result;
}

struct Script {
  std::string name, body;
  mode_t mode = 0700;
};

void writeScript(std::string const& dir, Script const& script) {
  std::string const path = dir + "/" + script.name;
  writeFile(path, "#!/bin/sh\n" + script.body + "\n");
  chmod(path.c_str(), script.mode);
}

TEST(AttributeScripts, WhatEachScriptPrintedOrWhyItWasLeftOut) {
  std::string const good = "echo good=1";
  struct Case {
    std::vector<Script> scripts;
    char const* expected;  // after "fixed=f "
    char const* log;       // in a warning; "" none
  } const cases[] = {
      {{{"a", "echo os=Debian; echo; printf 'v=1 2'"}}, "os=Debian v=1 2 ", ""},
      {{{"a", "echo x=1; echo broken >&2; exit 4"}, {"b", good}},
       "good=1 ",
       "/a: exit 4: broken; its attributes left out"},
      {{{"a", "echo x=1; exec sleep 60"}, {"b", good}},
       "good=1 ",
       "/a: killed by signal 15, past its deadline"},
      {{{"a", "echo x=1; echo nothing"}, {"b", good}}, "good=1 ", "/a:2: no '='"},
      {{{"a", "echo =1"}}, "", "/a:1: no name before '='"},
      {{{"a", "printf 'x=%0129d\\n' 0"}}, "", "/a:1: name or value over 128"},
      {{{"a", "printf 'x=a\\tb\\n'"}}, "", "/a:1: control characters"},
      {{{"a", "printf 'x=\\377\\n'"}}, "", "/a:1: control characters or invalid UTF-8"},
      {{{"a", "yes x=1 | head -c 70000"}, {"b", good}}, "good=1 ", "/a: more than 65536 bytes"},
      {{{"a", "echo x=1", 0600}, {"b", good}}, "good=1 ", ""},  // not executable: skipped
      {{{"a", "echo x=1", 0702}}, "", "/a skipped: writable by group or others, or owned by uid"},
      // Name order: the later one wins, the fixed one always.
      {{{"20-b", "echo k=2; echo fixed=b"}, {"10-a", "echo k=1; echo only=a"}}, "k=2 only=a ", ""},
  };
  // Problems are warnings: nothing below shows.
  Log::Level const level = Log::level();
  Log::setLevel(Log::Level::kWarning);
  for (Case const& c : cases) {
    TempDir dir;
    for (Script const& script : c.scripts) writeScript(dir.path(), script);
    AttributeScripts scripts({dir.path(), 1000, {{"fixed", "f"}}}, nullptr);
    testing::internal::CaptureStdout();
    auto const start = std::chrono::steady_clock::now();
    std::string const got = text(scripts.gather());
    auto const took = std::chrono::steady_clock::now() - start;
    std::string const log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(got, std::string("fixed=f ") + c.expected) << c.log;
    if (*c.log != '\0')
      EXPECT_NE(log.find(c.log), std::string::npos) << log;
    else
      EXPECT_EQ(log, "") << got;
    EXPECT_LT(took, std::chrono::seconds(3));
  }
  Log::setLevel(level);
}

TEST(AttributeScripts, AFailingScriptChangesNothingAndIsWarnedOfOnce) {
  TempDir dir;
  writeScript(dir.path(), {"a", "echo v=1"});
  AttributeScripts scripts({dir.path(), 5000, {}}, nullptr);
  scripts.gather();
  scripts.accepted();
  writeScript(dir.path(), {"a", "exit 1"});
  Log::Level const level = Log::level();
  Log::setLevel(Log::Level::kWarning);
  std::string logs[2];
  for (std::string& log : logs) {
    testing::internal::CaptureStdout();
    scripts.gather();
    log = testing::internal::GetCapturedStdout();
  }
  Log::setLevel(level);
  EXPECT_FALSE(scripts.changed());  // the server keeps what it had
  EXPECT_NE(logs[0], "");
  EXPECT_EQ(logs[1], "");
}

}  // namespace
