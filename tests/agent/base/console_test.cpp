// What the console makes of a write to standard error or output: one line
// whatever the text holds, control characters and invalid UTF-8 escaped, cut
// at 1 KiB. The stream is pointed at a file for the test.
#include "agent/base/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cstdio>
#include <functional>
#include <regex>

#include "agent/base/log.h"

#include "tests/support/temp_dir.h"

namespace {

// The text the console writes on `fd` for what `write` does, time stamps
// removed; with `journal`, the stream is the one JOURNAL_STREAM names.
std::string shown(std::function<void()> const& write, int fd, bool journal = false) {
  tamrel::testing::TempDir dir;
  std::string const path = dir.path() + "/stream";
  std::fflush(nullptr);
  int const saved = dup(fd);
  int const file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  struct stat info {};
  fstat(file, &info);
  std::string const named = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
  if (journal) setenv("JOURNAL_STREAM", named.c_str(), 1);
  dup2(file, fd);
  close(file);
  {
    Console console;
    write();
  }
  unsetenv("JOURNAL_STREAM");
  dup2(saved, fd);
  close(saved);
  return std::regex_replace(tamrel::testing::readFile(path), std::regex("(^|\n)[0-9-]+T[0-9:]+Z "),
                            "$1");
}

std::string shown(std::string const& written, int fd) {
  return shown(
      [&] {
        std::fwrite(written.data(), 1, written.size(), fd == STDERR_FILENO ? stderr : stdout);
      },
      fd);
}

TEST(Console, EachWriteIsOneSafeLine) {
  struct Case {
    std::string written, shown;
  } const cases[] = {
      {"plain\n", "plain\n"},
      {"[I] libtamrelcore -> a\n2026 [I] libtamrelcore -> forged\n",
       "[I] libtamrelcore -> a\\n2026 [I] libtamrelcore -> forged\n"},
      {"esc \x1b[2J bell \a cr \r tab \t del \x7f\n",
       "esc \\x1b[2J bell \\x07 cr \\r tab \\t del \\x7f\n"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xa6\n",
       "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xa6\n"},
      {"bad \xc3 \xff \xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80 end\n",
       "bad \\xc3 \\xff \\xc0\\xaf \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 end\n"},
      {std::string(1500, 'a') + "\n", std::string(1024, 'a') + "\xe2\x80\xa6 (476 bytes more)\n"},
      // An escape is shown whole or not at all.
      {std::string(1019, 'b') + "\x01\x02\n",
       std::string(1019, 'b') + "\\x01\xe2\x80\xa6 (1 bytes more)\n"},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(shown(c.written, STDERR_FILENO), c.shown);
    EXPECT_EQ(shown(c.written, STDOUT_FILENO), c.shown);
  }
}

// What is shown at each log level: the agent's lines and the library's
// (standard error, by their tag), with journald's priority prefix where
// JOURNAL_STREAM names the stream.
TEST(Console, LevelsAndPriorities) {
  using L = Log::Level;
  auto const library = [](char const* line) { return [line] { std::fputs(line, stderr); }; };
  struct Case {
    L level;
    bool journal;
    int fd;
    std::function<void()> write;
    std::string shown;
  } const cases[] = {
      {L::kInfo, true, STDOUT_FILENO, [] { Log::error("failed %d", 1); }, "<3>failed 1\n"},
      {L::kInfo, true, STDOUT_FILENO, [] { Log::warning("w"); }, "<4>w\n"},
      {L::kInfo, true, STDOUT_FILENO, [] { Log::info("i"); }, "<6>i\n"},
      {L::kDebug, true, STDOUT_FILENO, [] { Log::debug("d"); }, "<7>d\n"},
      {L::kInfo, true, STDOUT_FILENO, [] { std::fputs("command output\n", stdout); },
       "<6>command output\n"},
      {L::kError, false, STDOUT_FILENO, [] { std::fputs("command output\n", stdout); }, ""},
      {L::kInfo, true, STDERR_FILENO, library("[E] libtamrelcore -> e\n"),
       "<3>[E] libtamrelcore -> e\n"},
      {L::kInfo, true, STDERR_FILENO, library("[W] libtamrelcore -> w\n"),
       "<4>[W] libtamrelcore -> w\n"},
      {L::kWarning, false, STDERR_FILENO, library("[I] libtamrelcore -> Download finished (a)\n"),
       ""},
      // Every poll's own lines are chatter.
      {L::kInfo, false, STDERR_FILENO, library("[I] libtamrelcore -> Querying server status\n"),
       ""},
      {L::kDebug, true, STDERR_FILENO, library("[I] libtamrelcore -> Querying http://h/\n"),
       "<7>[I] libtamrelcore -> Querying http://h/\n"},
      {L::kInfo, true, STDERR_FILENO, library("no tag\n"), "<4>no tag\n"},
      // A command's last line without its line break is ended by the next.
      {L::kInfo, false, STDOUT_FILENO,
       [] {
         std::fputs("no line break", stdout);
         Log::info("next");
       },
       "no line break\nnext\n"},
      // A line kept back and written at the level its answer gave it.
      {L::kInfo, false, STDERR_FILENO,
       [] { Log::library(L::kDebug, "[E] libtamrelcore -> Failed to parse response!\n"); }, ""},
  };
  for (Case const& c : cases) {
    Log::setLevel(c.level);
    EXPECT_EQ(shown(c.write, c.fd, c.journal), c.shown) << c.shown;
  }
  Log::setLevel(L::kInfo);
}

}  // namespace
