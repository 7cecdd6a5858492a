#include "agent/commands/stderrtail.h"

#include <cstdio>

#include "agent/commands/command.h"

void StderrTail::add(char const* data, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    unsigned char const c = static_cast<unsigned char>(data[i]);
    if (c == '\n') {
      lines_.emplace_back();
      if (lines_.size() > kCommandTailLines + 1) lines_.pop_front();
      continue;
    }
    char shown[8] = {static_cast<char>(c), 0};
    if (c == '\t')
      shown[0] = ' ';
    else if (c < 0x20 || c == 0x7f)
      std::snprintf(shown, sizeof shown, "\\x%02x", c);
    std::string& line = lines_.back();
    if (line.size() < kCommandLineBytes) line += shown;
  }
}

std::vector<std::string> StderrTail::lines() const {
  auto end = lines_.end();
  if (lines_.back().empty()) --end;
  auto begin = lines_.begin();
  if (end - begin > static_cast<std::ptrdiff_t>(kCommandTailLines))
    begin = end - static_cast<std::ptrdiff_t>(kCommandTailLines);
  return std::vector<std::string>(begin, end);
}
