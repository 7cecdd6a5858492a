// The deployment tamrel-ddi-server offers, made from its command line: the
// regular files of each module's directory, read and digested first, then
// served with the options' faults and hawkBit's download headers.
#pragma once

#include <string>
#include <vector>

#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "ddiserver/serveroptions.h"

namespace tamrel::ddiserver {

class ServedDeployment {
 public:
  // Keeps a reference to `options`, which must outlive it.
  explicit ServedDeployment(ServerOptions const& options) : options_(options) {}

  // Lists and digests the files of every module, in name order; false with
  // the reason in error(). Large files take a while: done before the port
  // is bound, a client that finds the server always finds the deployment.
  bool read();
  std::string const& error() const { return error_; }

  // Serves every artifact on `server` and returns the deployment linking
  // them; it has no chunks when there is nothing to offer (no module, or an
  // --artifacts directory without files).
  DeploymentDocument serve(DdiServer& server) const;

 private:
  struct File {
    std::string name, path, urlPath;
    ArtifactDocument artifact;
  };
  struct Chunk {
    ServerOptions::Module const* module;
    std::vector<File> files;
  };

  bool readModule(ServerOptions::Module const& module, std::string const& urlPrefix);
  // Serves one file with its faults; returns its artifact element.
  ArtifactDocument serveFile(DdiServer& server, File const& file) const;

  ServerOptions const& options_;
  std::vector<Chunk> chunks_;
  std::string error_;
};

}  // namespace tamrel::ddiserver
