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
  // How `text` is written: e Log::error, d Log::debug, o on standard output
  // (a command's), l on standard error (the library's), k kept back and
  // written at debug, g on standard output without a line break, then
  // Log::info("next").
  struct Case {
    L level;
    bool journal;
    char how;
    char const* text;
    char const* shown;
  } const cases[] = {
      {L::kInfo, true, 'e', "failed", "<3>failed\n"},
      {L::kDebug, true, 'd', "d", "<7>d\n"},
      {L::kInfo, true, 'o', "output\n", "<6>output\n"},
      {L::kError, false, 'o', "output\n", ""},
      {L::kInfo, true, 'l', "[E] libtamrelcore -> e\n", "<3>[E] libtamrelcore -> e\n"},
      {L::kInfo, true, 'l', "[W] libtamrelcore -> w\n", "<4>[W] libtamrelcore -> w\n"},
      {L::kWarning, false, 'l', "[I] libtamrelcore -> Download finished (a)\n", ""},
      // Every poll's own lines are chatter.
      {L::kInfo, false, 'l', "[I] libtamrelcore -> Querying server status\n", ""},
      {L::kDebug, true, 'l', "[I] libtamrelcore -> Querying h\n",
       "<7>[I] libtamrelcore -> Querying h\n"},
      {L::kInfo, true, 'l', "no tag\n", "<4>no tag\n"},
      {L::kInfo, false, 'k', "[E] libtamrelcore -> Failed to parse response!\n", ""},
      {L::kInfo, false, 'g', "no line break", "no line break\nnext\n"},
  };
  for (Case const& c : cases) {
    Log::setLevel(c.level);
    bool const err = c.how == 'l' || c.how == 'k';
    auto const write = [&c] {
      if (c.how == 'e') Log::error("%s", c.text);
      if (c.how == 'd') Log::debug("%s", c.text);
      if (c.how == 'o' || c.how == 'g') std::fputs(c.text, stdout);
      if (c.how == 'g') Log::info("next");
      if (c.how == 'l') std::fputs(c.text, stderr);
      if (c.how == 'k') Log::library(L::kDebug, c.text);
    };
    EXPECT_EQ(shown(write, err ? STDERR_FILENO : STDOUT_FILENO, c.journal), c.shown) << c.text;
  }
  Log::setLevel(L::kInfo);
}

}  // namespace
