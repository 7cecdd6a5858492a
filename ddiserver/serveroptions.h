// tamrel-ddi-server's command line: one table of options, each with its
// argument, its help line and a reader that checks the value whole. --help
// and docs/ddi-server.md are made from (and checked against) the table.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ddiserver/ddiserver.h"

namespace tamrel::ddiserver {

class ServerOptions {
 public:
  struct Option {
    char const* name;      // "--port"
    char const* argument;  // "N", "" for a flag
    char const* help;      // for --help and the docs
    // Takes the value (or "" for a flag); "" when taken, else why not.
    std::string (*read)(ServerOptions&, std::string const& value);
  };
  static std::vector<Option> const& options();
  static std::string help();  // the usage text of --help

  // Reads argv; false with the reason (naming the option) in error().
  bool parse(int argc, char const* const* argv);
  std::string const& error() const { return error_; }

  // A software module of the deployment: its chunk's part, name and
  // version, the directory whose regular files are its artifacts, and its
  // metadata (key, value) in the order given.
  struct Module {
    std::string part, name, version, dir;
    std::vector<std::pair<std::string, std::string>> metadata;
  };

  int port = 0;
  std::string token, gatewayToken, sleep = "00:00:10", corrupt, action = "1", cancel;
  // The chunks in order: from --module, or the one of --artifacts (part
  // "os", version 1.0, named by --chunk).
  std::vector<Module> modules;
  bool artifactsShortcut = false;  // modules holds the one of --artifacts
  std::string download = "forced", update = "forced", window, wrongSha256;
  int windowOpensAt = 0, cancelAfterPolls = 0;
  bool tlsLinks = false, bothLinks = false, upperDigests = false, emptyArtifact = false,
       askConfigData = false, confirmRequired = false, chunkPerFile = false;
  std::map<std::string, std::string> names;  // file -> name offered to the device
  Fault always, once;                        // faults on every / the first GET of an artifact
  std::string onceFile;                      // the artifact `once` is for; "" for each
  bool https = false;
  std::string caOut, tlsCert, tlsKey, clientCa, clientCertOut;
  Fault poll, deployment, confirmation, config, feedback;  // --fault poll=, deployment=, ...

 private:
  // Makes `modules` the one module of --artifacts, or checks that none of
  // its options comes with --module; false with the reason in error_.
  bool settleModules();

  std::string error_;
  std::string artifactDir_, chunk_;  // --artifacts, --chunk
};

// True when the fault changes anything.
bool isFault(Fault const& fault);

}  // namespace tamrel::ddiserver
