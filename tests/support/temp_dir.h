#ifndef TAMREL_TESTS_SUPPORT_TEMP_DIR_H_
#define TAMREL_TESTS_SUPPORT_TEMP_DIR_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace tamrel::testing {

// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/tamrel-test-XXXXXX";
    if (mkdtemp(name) != nullptr) path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  // Empty when the directory could not be made.
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// The whole file, "" when it cannot be read.
inline std::string readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeFile(std::string const& path, std::string const& data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

}  // namespace tamrel::testing

#endif  // TAMREL_TESTS_SUPPORT_TEMP_DIR_H_
