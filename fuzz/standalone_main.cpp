// Runs a fuzz target over files and directories without libFuzzer, so the
// seed corpus also runs in the ordinary test suite.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

int runPath(std::string const& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  if (S_ISDIR(info.st_mode)) {
    int count = 0;
    if (DIR* dir = opendir(path.c_str())) {
      while (dirent* entry = readdir(dir)) {
        std::string const name = entry->d_name;
        if (name != "." && name != "..") count += runPath(path + "/" + name);
      }
      closedir(dir);
    }
    return count;
  }
  std::ifstream in(path, std::ios::binary);
  std::string const bytes((std::istreambuf_iterator<char>(in)), {});
  LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int inputs = 0;
  for (int i = 1; i < argc; ++i) inputs += runPath(argv[i]);
  std::printf("ran %d inputs\n", inputs);
  return inputs > 0 ? 0 : 1;
}
