#include "agent/pluginloader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "plugin/libtamrelcore.h"

#ifndef TAMREL_LIBDIR
#define TAMREL_LIBDIR "lib"
#endif
#ifndef TAMREL_SONAME
#define TAMREL_SONAME "libtamrelcore.so.1"
#endif

namespace {

std::string executableDir() {
  std::vector<char> buffer(4096);
  ssize_t const n = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (n <= 0) return ".";
  std::string const exe(buffer.data(), static_cast<std::size_t>(n));
  return exe.substr(0, exe.rfind('/'));
}

}  // namespace

PluginLoader::PluginLoader(std::string const& path) {
  std::vector<std::string> candidates;
  if (!path.empty()) {
    candidates.push_back(path);
  } else {
    std::string const dir = executableDir();
    // The build tree, an installed tree (bin/ next to its library
    // directory), then the loader's search path; in each, the run-time name
    // first (a device carries only that one), then the development link.
    for (std::string const& place :
         {dir + "/", dir + "/../" TAMREL_LIBDIR "/", dir + "/../lib/", std::string()}) {
      candidates.push_back(place + TAMREL_SONAME);
      candidates.push_back(place + "libtamrelcore.so");
    }
  }
  for (std::string const& candidate : candidates) {
    if (candidate.find('/') != std::string::npos && access(candidate.c_str(), R_OK) != 0) continue;
    library_ = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ != nullptr) {
      char* resolved = realpath(candidate.c_str(), nullptr);
      path_ = resolved != nullptr ? resolved : candidate;
      std::free(resolved);
      break;
    }
    error_ = dlerror();
  }
  if (library_ == nullptr) {
    if (error_.empty()) error_ = "cannot find " TAMREL_SONAME " (use --plugin PATH)";
    return;
  }
  auto create = reinterpret_cast<void* (*)()>(dlsym(library_, "create_object"));
  destroy_ = reinterpret_cast<void (*)(void*)>(dlsym(library_, "destroy_object"));
  if (create == nullptr || destroy_ == nullptr) {
    error_ = path_ + " does not export create_object and destroy_object";
    return;
  }
  client_ = static_cast<libtamrelcore*>(create());
}

PluginLoader::~PluginLoader() {
  if (client_ != nullptr) destroy_(client_);
  if (library_ != nullptr) dlclose(library_);
}
