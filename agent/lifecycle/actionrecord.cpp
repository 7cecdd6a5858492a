#include "agent/lifecycle/actionrecord.h"

#include "agent/base/atomicfile.h"

#include <unistd.h>

bool ActionRecord::load(ActionState& state, std::string& error) const {
  error.clear();
  state = memory_;
  if (dir_.empty()) return true;
  std::string text, file = path();
  if (!AtomicFile::read(file, ActionState::kMaxRecordBytes, text, error)) {
    if (!error.empty()) return false;
    file = dir_ + "/pending";
    if (!AtomicFile::read(file, ActionState::kMaxRecordBytes, text, error)) {
      state = ActionState();
      return error.empty();
    }
  }
  std::string const problem = ActionState::parse(text, state);
  if (!problem.empty()) error = file + ": " + problem;
  return problem.empty();
}

bool ActionRecord::save(ActionState const& state, std::string& error) {
  if (dir_.empty()) {
    memory_ = state;
    return true;
  }
  if (!AtomicFile::write(path(), state.format(), error)) return false;
  // The older record, read at the start, now stands in the new one.
  std::string const older = dir_ + "/pending";
  std::string ignored;
  if (access(older.c_str(), F_OK) == 0) AtomicFile::remove(older, ignored);
  return true;
}
