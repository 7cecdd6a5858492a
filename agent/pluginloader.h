#ifndef TAMREL_AGENT_PLUGINLOADER_H_
#define TAMREL_AGENT_PLUGINLOADER_H_

#include <string>

class libtamrelcore;

// Loads the plug-in with dlopen and owns the one client made by its
// create_object, released with destroy_object before the library is closed.
class PluginLoader {
 public:
  // Empty `path`: next to the executable, then ../lib, then the loader path.
  explicit PluginLoader(std::string const& path);
  ~PluginLoader();
  PluginLoader(PluginLoader const&) = delete;
  PluginLoader& operator=(PluginLoader const&) = delete;

  libtamrelcore* client() const { return client_; }  // null when loading failed
  std::string const& error() const { return error_; }
  std::string const& path() const { return path_; }

 private:
  void* library_ = nullptr;
  void (*destroy_)(void*) = nullptr;
  libtamrelcore* client_ = nullptr;
  std::string error_;
  std::string path_;
};

#endif  // TAMREL_AGENT_PLUGINLOADER_H_
