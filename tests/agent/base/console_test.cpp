// What the console makes of a write to standard error or output: one line
// whatever the text holds, control characters and invalid UTF-8 escaped, cut
// at 1 KiB. The stream is pointed at a file for the test.
#include "agent/base/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>

#include "tests/support/temp_dir.h"

namespace {

// The text the console writes for `written` on standard error or output,
// time stamps removed.
std::string shown(std::string const& written, int fd) {
  tamrel::testing::TempDir dir;
  std::string const path = dir.path() + "/stream";
  std::fflush(nullptr);
  int const saved = dup(fd);
  int const file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(file, fd);
  close(file);
  {
    Console console;
    std::fwrite(written.data(), 1, written.size(), fd == STDERR_FILENO ? stderr : stdout);
  }
  dup2(saved, fd);
  close(saved);
  return std::regex_replace(tamrel::testing::readFile(path), std::regex("(^|\n)[0-9-]+T[0-9:]+Z "),
                            "$1");
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

}  // namespace
