// The host checks at start: each refusal names the key's line, and nothing
// is made on disk unless every check passes.
#include "agent/app/startupcheck.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::TempDir;

TEST(StartupCheck, RefusesBeforeMakingAnything) {
  TempDir dir;
  std::string const base = dir.path();
  std::string const foreign = base + "/foreign";
  mkdir(foreign.c_str(), 0700);
  bool const root = geteuid() == 0 && chown(foreign.c_str(), 65534, 65534) == 0;
  struct Case {
    std::string downloadDir, stateDir, installCommand, message;
    bool needsRoot;
    std::string osCommand = "";  // install-command.os
  } const cases[] = {
      // Only the last component is created: a typo grows no tree.
      {base + "/a/b", "", "true",
       "agent.conf:4: download-dir " + base + "/a/b cannot be created: " + base +
           "/a is no directory",
       false},
      // A later check fails: the directories named stay unmade.
      {base + "/new", base + "/state", "/nonexistent/x",
       "agent.conf:7: install-command: no executable program", false},
      // A module type's own command is checked as the plain one.
      {base + "/new", base + "/state", "true",
       "agent.conf:8: install-command.os: no executable program", false, "/nonexistent/y"},
      {base + "/new", foreign, "true",
       "agent.conf:5: state-dir " + foreign + " belongs to uid 65534, not to this user", true},
  };
  for (Case const& c : cases) {
    if (c.needsRoot && !root) continue;
    AgentConfig config;
    config.path = "agent.conf";
    config.lines = {
        {"download-dir", 4}, {"state-dir", 5}, {"install-command", 7}, {"install-command.os", 8}};
    if (!c.osCommand.empty()) config.partCommands["os"] = c.osCommand;
    config.downloadDir = c.downloadDir;
    config.stateDir = c.stateDir;
    config.installCommand = c.installCommand;
    std::string const problem = checkHost(config);
    EXPECT_EQ(problem.rfind(c.message, 0), 0u) << problem;
    for (char const* made : {"/a", "/new", "/state"})
      EXPECT_NE(access((base + made).c_str(), F_OK), 0);
  }
}

}  // namespace
