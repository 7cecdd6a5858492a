// The pending-install record: what a crash at any point of a save leaves
// behind reads as the old record or the new one, never as a mix, and the
// confirm command runs once.
#include "agent/lifecycle/installstate.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::readFile;
using tamrel::testing::TempDir;
using tamrel::testing::writeFile;

InstallState::Pending record(std::string const& id, std::string const& result) {
  InstallState::Pending pending;
  pending.actionId = id;
  pending.chunks = {"rootfs", "app"};
  pending.result = result;
  pending.bootId = "b0";
  pending.announced = !result.empty();
  if (!result.empty()) pending.details = {"confirm command: exit 0", "line\nwith break"};
  return pending;
}

std::string shown(InstallState::Pending const& p) {
  std::string text = p.actionId + "|" + p.result + "|" + p.bootId + (p.announced ? "|sent" : "");
  for (auto const& c : p.chunks) text += "|c:" + c;
  for (auto const& d : p.details) text += "|d:" + d;
  return text;
}

TEST(InstallState, EveryCrashPointOfASaveLeavesOldOrNew) {
  TempDir dir;
  InstallState const state(dir.path());
  std::string error;
  InstallState::Pending const before = record("7", ""), after = record("7", "success");
  // The bytes a save of `after` writes, taken from a save elsewhere.
  TempDir other;
  ASSERT_TRUE(InstallState(other.path()).save(after, error)) << error;
  std::string const bytes = readFile(other.path() + "/pending");

  // Killed while the temporary file is written (nothing, a part, all but its
  // end), or after it was complete but before the rename: the old record
  // stands.
  for (std::size_t length : {std::size_t(0), std::size_t(1), bytes.size() / 2, bytes.size() - 4,
                             bytes.size() - 1, bytes.size()}) {
    ASSERT_TRUE(state.save(before, error)) << error;
    writeFile(dir.path() + "/pending.new", bytes.substr(0, length));
    InstallState::Pending loaded;
    ASSERT_TRUE(state.load(loaded, error)) << length << ": " << error;
    EXPECT_EQ(shown(loaded), shown(before)) << length;
  }
  // The next save goes through whatever was left, and its record is read back.
  ASSERT_TRUE(state.save(after, error)) << error;
  InstallState::Pending loaded;
  ASSERT_TRUE(state.load(loaded, error));
  EXPECT_EQ(shown(loaded),
            "7|success|b0|sent|c:rootfs|c:app|d:confirm command: exit 0|d:line with break");

  ASSERT_TRUE(state.clear(error));
  error.clear();
  EXPECT_FALSE(state.load(loaded, error));
  EXPECT_EQ(error, "");  // no record is no error
}

TEST(InstallState, ARecordOfAnyOtherShapeIsUnreadable) {
  InstallState::Pending pending;
  std::string const good = "action 7\nchunk a\nresult success\nend\n";
  ASSERT_EQ(InstallState::parse(good, pending), "");
  struct Case {
    std::string text, error;
  } const cases[] = {
      {"action 7\naction 8\nchunk a\nend\n", "\"action\" given twice"},
      {good + "action 8\n", "text after \"end\""},
      {"action 7\nchunk a\nresult maybe\nend\n", "unknown line \"result maybe\""},
      {"action 7\nend\n", "incomplete"},
      {"action 7\nchunk a\nresult success\n", "incomplete"},  // cut short
  };
  for (Case const& c : cases) EXPECT_EQ(InstallState::parse(c.text, pending), c.error) << c.text;

  TempDir dir;
  InstallState const state(dir.path());
  std::string error;
  writeFile(dir.path() + "/pending",
            "action 7\nchunk a\n" + std::string(InstallState::kMaxRecordBytes, 'x') + "\nend\n");
  EXPECT_FALSE(state.load(pending, error));
  EXPECT_NE(error.find(": too large"), std::string::npos) << error;
  // A save cuts the details to what fits.
  pending = record("7", "failure");
  pending.details.assign(1000, std::string(100, 'd'));
  ASSERT_TRUE(state.save(pending, error)) << error;
  EXPECT_TRUE(state.load(pending, error)) << error;
  // A link planted as the temporary file is replaced, its target untouched.
  writeFile(dir.path() + "/target", "keep");
  ASSERT_EQ(symlink((dir.path() + "/target").c_str(), (dir.path() + "/pending.new").c_str()), 0);
  ASSERT_TRUE(state.save(record("8", ""), error)) << error;
  EXPECT_EQ(readFile(dir.path() + "/target"), "keep");
}

TEST(InstallState, ConfirmRunsTheCommandOnce) {
  TempDir dir;
  InstallState const state(dir.path());
  std::string error;
  ASSERT_TRUE(state.save(record("9", ""), error));
  std::string const counter = dir.path() + "/runs";
  std::string const command = "echo run >> " + counter + "; echo said no >&2; exit 3";
  for (int attempt = 0; attempt < 2; ++attempt) {  // the second: after a crash before reporting
    InstallState::Pending pending;
    ASSERT_TRUE(state.load(pending, error)) << error;
    ASSERT_TRUE(state.confirm(command, pending, error)) << error;
    EXPECT_EQ(pending.result, "failure");
    EXPECT_EQ(shown(pending),
              "9|failure|b0|c:rootfs|c:app|d:confirm command: exit 3|d:confirm: said no");
  }
  EXPECT_EQ(readFile(counter), "run\n");
}

}  // namespace
