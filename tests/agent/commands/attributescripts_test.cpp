// The scripts of attributes-dir: what each printed, left out whole when it
// failed, hung, printed too much or a bad line (with a warning naming it);
// skipped when it is no executable of the agent's own; name order, a later
// name replacing an earlier one, the fixed attributes first and never
// replaced; a value changed since the server last took the set.
#include "agent/commands/attributescripts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "agent/base/log.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::TempDir;
using tamrel::testing::writeFile;
using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs pairs(std::vector<tamrel::value_pair_t> const& attributes) {
  Pairs result;
  for (auto const& pair : attributes) result.emplace_back(pair.key, pair.value);
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
    char const* what;
    std::vector<Script> scripts;
    Pairs expected;   // after the fixed one
    char const* log;  // in a warning; "" none
  } const cases[] = {
      {"good",
       {{"a", "echo os.name=Debian; echo; printf 'os.version=12'"}},
       {{"os.name", "Debian"}, {"os.version", "12"}},
       ""},
      {"failing",
       {{"a", "echo x=1; echo broken >&2; exit 4"}, {"b", good}},
       {{"good", "1"}},
       "/a: exit 4: broken; its attributes left out"},
      {"hanging, ended at the deadline",
       {{"a", "echo x=1; exec sleep 60"}, {"b", good}},
       {{"good", "1"}},
       "/a: killed by signal 15, past its deadline"},
      {"no '='", {{"a", "echo x=1; echo nothing"}, {"b", good}}, {{"good", "1"}}, "/a:2: no '='"},
      {"no name", {{"a", "echo =1"}}, {}, "/a:1: no name before '='"},
      {"value over 128", {{"a", "printf 'x=%0129d\\n' 0"}}, {}, "/a:1: name or value over 128"},
      {"control character", {{"a", "printf 'x=a\\tb\\n'"}}, {}, "/a:1: control characters"},
      {"invalid UTF-8", {{"a", "printf 'x=\\377\\n'"}}, {}, "/a:1: control characters"},
      {"over 64 KiB",
       {{"a", "yes x=1 | head -c 70000"}, {"b", good}},
       {{"good", "1"}},
       "/a: more than 65536 bytes"},
      {"not executable: skipped", {{"a", "echo x=1", 0600}, {"b", good}}, {{"good", "1"}}, ""},
      {"writable by others: skipped", {{"a", "echo x=1", 0702}}, {}, "writable by group or others"},
      {"name order: the later one wins, the fixed one always",
       {{"20-b", "echo k=2; echo fixed=b"}, {"10-a", "echo k=1; echo only=a"}},
       {{"k", "2"}, {"only", "a"}},
       ""},
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
    Pairs const got = pairs(scripts.gather());
    auto const took = std::chrono::steady_clock::now() - start;
    std::string const log = testing::internal::GetCapturedStdout();
    Pairs expected{{"fixed", "f"}};
    expected.insert(expected.end(), c.expected.begin(), c.expected.end());
    EXPECT_EQ(got, expected) << c.what;
    if (*c.log != '\0')
      EXPECT_NE(log.find(c.log), std::string::npos) << c.what << ": " << log;
    else
      EXPECT_EQ(log, "") << c.what;
    EXPECT_LT(took, std::chrono::seconds(3)) << c.what;
  }
  Log::setLevel(level);
}

TEST(AttributeScripts, AChangedValueUntilTheServerTookIt) {
  TempDir dir;
  std::string const value = dir.path() + "/value";
  writeFile(value, "1");
  writeScript(dir.path(), {"a", "echo v=$(cat " + value + "); echo same=s"});
  AttributeScripts scripts({dir.path(), 5000, {}}, nullptr);
  scripts.gather();
  EXPECT_TRUE(scripts.changed());  // never taken
  scripts.accepted();
  scripts.gather();
  EXPECT_FALSE(scripts.changed());
  writeFile(value, "2");
  scripts.gather();
  EXPECT_TRUE(scripts.changed());
  scripts.accepted();
  // A script that fails leaves its names out: nothing the server holds
  // changed. Its warning is not repeated while it fails the same way.
  writeScript(dir.path(), {"a", "exit 1"});
  testing::internal::CaptureStdout();
  scripts.gather();
  EXPECT_NE(testing::internal::GetCapturedStdout(), "");
  EXPECT_FALSE(scripts.changed());
  Log::Level const level = Log::level();
  Log::setLevel(Log::Level::kWarning);
  testing::internal::CaptureStdout();
  scripts.gather();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  Log::setLevel(level);
}

}  // namespace
