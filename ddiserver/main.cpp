// tamrel-ddi-server: the DDI server as a program, answering
// like a current hawkBit server, for testing any hawkBit client without a
// hawkBit installation. Every file of --artifacts becomes an artifact of one
// deployment, served from the file (sparse files of any size work); every
// request and its body is printed, and what the server makes of the
// feedback ("action 1 closed: success").
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "ddiserver/hawkbittarget.h"
#include "ddiserver/serveroptions.h"
#include "digest/digest.h"

namespace {

namespace ddiserver = tamrel::ddiserver;

// A file name as one segment of a URL path: everything but the unreserved
// characters percent-encoded.
std::string percentEncoded(std::string const& name) {
  std::string out;
  for (unsigned char c : name) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      out += escaped;
    }
  }
  return out;
}

// SHA-1, MD5 and SHA-256 of a file, each on a thread of its own (the file
// is read three times, from the page cache after the first): a large
// artifact is ready in the time of the slowest digest on a multi-core host.
bool digests(std::string const& path, std::map<std::string, std::string>& hashes) {
  using tamrel::Digest;
  std::pair<char const*, Digest::Kind> const kinds[] = {{"sha1", Digest::Kind::kSha1},
                                                        {"md5", Digest::Kind::kMd5},
                                                        {"sha256", Digest::Kind::kSha256}};
  std::vector<std::future<std::string>> results;
  for (auto const& kind : kinds) {
    results.push_back(std::async(std::launch::async, [&path, &kind] {
      Digest digest(kind.second);
      return tamrel::digestFile(path, {&digest}) ? digest.hex() : std::string();
    }));
  }
  bool ok = true;
  for (std::size_t i = 0; i < results.size(); ++i) {
    hashes[kinds[i].first] = results[i].get();
    ok = ok && !hashes[kinds[i].first].empty();
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  ddiserver::ServerOptions settings;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--help") {
      std::fputs(ddiserver::ServerOptions::help().c_str(), stdout);
      return 0;
    }
  }
  if (!settings.parse(argc, argv)) {
    std::fprintf(stderr, "tamrel-ddi-server: %s (--help lists the options)\n",
                 settings.error().c_str());
    return 2;
  }
  for (std::string const* file : {&settings.clientCa, &settings.tlsCert, &settings.tlsKey}) {
    if (!file->empty() && access(file->c_str(), R_OK) != 0) {
      std::fprintf(stderr, "tamrel-ddi-server: cannot read %s\n", file->c_str());
      return 2;
    }
  }
  if (!settings.clientCertOut.empty() && access(settings.clientCertOut.c_str(), W_OK) != 0) {
    std::fprintf(stderr, "tamrel-ddi-server: cannot write to %s\n", settings.clientCertOut.c_str());
    return 2;
  }
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  // Every digest is computed before the port is bound: a client that finds
  // the server always finds the deployment.
  struct File {
    std::string name, path;
    ddiserver::ArtifactDocument artifact;
  };
  std::vector<File> files;
  if (!settings.artifactDir.empty()) {
    DIR* dir = opendir(settings.artifactDir.c_str());
    if (dir == nullptr) {
      std::fprintf(stderr, "tamrel-ddi-server: cannot read %s\n", settings.artifactDir.c_str());
      return 2;
    }
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir)) names.push_back(entry->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (std::string const& file : names) {
      std::string const path = settings.artifactDir + "/" + file;
      struct stat info {};
      if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
      ddiserver::ArtifactDocument artifact;
      artifact.filename = settings.names.count(file) ? settings.names[file] : file;
      artifact.size = static_cast<std::uint64_t>(info.st_size);
      if (!digests(path, artifact.hashes)) {
        std::fprintf(stderr, "tamrel-ddi-server: cannot read %s\n", path.c_str());
        return 2;
      }
      if (file == settings.wrongSha256) artifact.hashes["sha256"] = std::string(64, '0');
      if (settings.upperDigests) {
        for (auto& entry : artifact.hashes) {
          for (char& c : entry.second) c = static_cast<char>(std::toupper(c));
        }
      }
      files.push_back({file, path, artifact});
    }
  }

  // Every request is printed as it arrives, with what the target makes of
  // it right after; one lock keeps their lines together.
  std::mutex output;
  // Declared before the server, so that it outlives the server's threads.
  std::unique_ptr<ddiserver::HawkbitTarget> target;
  ddiserver::DdiServer::Options options;
  options.port = settings.port;
  options.https = settings.https;
  options.certFile = settings.tlsCert;
  options.keyFile = settings.tlsKey;
  options.clientCaFile = settings.clientCa;
  options.clientCertOut = settings.clientCertOut;
  // Connections wait in the backlog until everything is set up.
  options.deferStart = true;
  options.onRequest = [&](ddiserver::RecordedRequest const& request) {
    std::lock_guard<std::mutex> guard(output);
    std::string const range = request.header("Range");
    std::printf("%s %s%s%s%s\n", request.method.c_str(), request.path.c_str(),
                request.query.empty() ? "" : "?", request.query.c_str(),
                range.empty() ? "" : ("  [Range: " + range + "]").c_str());
    if (!request.body.empty()) std::printf("    %s\n", request.body.c_str());
    std::fflush(stdout);
  };
  std::unique_ptr<ddiserver::DdiServer> made;
  try {
    made = std::make_unique<ddiserver::DdiServer>(options);
  } catch (std::system_error const& error) {
    // A port given with --port that another program holds: a usage error.
    std::fprintf(stderr, "tamrel-ddi-server: %s\n", error.what());
    return error.code() == std::errc::address_in_use ? 2 : 1;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "tamrel-ddi-server: %s\n", error.what());
    return 1;
  }
  ddiserver::DdiServer& server = *made;
  if (!settings.caOut.empty()) {
    std::ifstream in(server.caFile(), std::ios::binary);
    std::ofstream out(settings.caOut, std::ios::binary);
    if (!(out << in.rdbuf()) || !out.flush()) {
      std::fprintf(stderr, "tamrel-ddi-server: cannot write %s\n", settings.caOut.c_str());
      return 2;
    }
  }
  if (!settings.token.empty()) server.setRequireToken(settings.token);
  if (!settings.gatewayToken.empty()) server.setGatewayToken(settings.gatewayToken);
  std::string const base = server.baseUrl();

  ddiserver::HawkbitTarget::Options targetOptions;
  targetOptions.baseUrl = base;
  targetOptions.controllerPath = server.controllerPath();
  targetOptions.sleep = settings.sleep;
  targetOptions.askConfigData = settings.askConfigData;
  targetOptions.cancelAfterPolls = settings.cancelAfterPolls;
  targetOptions.windowOpensAt = settings.windowOpensAt;
  targetOptions.confirmRequired = settings.confirmRequired;
  targetOptions.onEvent = [&](std::string const& line) {
    std::lock_guard<std::mutex> guard(output);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  };
  target = std::make_unique<ddiserver::HawkbitTarget>(targetOptions);
  server.setHandler(
      [&target](ddiserver::RecordedRequest const& request, ddiserver::DdiServer::Answer& answer) {
        return target->answer(request, answer);
      });

  ddiserver::DeploymentDocument deployment;
  deployment.id = settings.action;
  deployment.download = settings.download;
  deployment.update = settings.update;
  deployment.maintenanceWindow = settings.window;
  deployment.chunks.push_back({"os", "1.0", settings.chunk, {}, settings.emptyArtifact});
  for (File const& each : files) {
    std::string const& file = each.name;
    std::string const& path = each.path;
    ddiserver::ArtifactDocument artifact = each.artifact;
    std::string const urlPath = "/artifacts/" + percentEncoded(file);
    std::string url;
    if (file == settings.corrupt && artifact.size > 0) {
      std::ifstream in(path, std::ios::binary);
      std::string content((std::istreambuf_iterator<char>(in)), {});
      // In the middle: a container's header stays readable, only the digests fail.
      content[content.size() / 2] = static_cast<char>(~content[content.size() / 2]);
      url = server.addArtifact(urlPath, content);
    } else {
      url = server.addFileArtifact(urlPath, path);
    }
    // The first GET meets the one-shot fault on top of the lasting one.
    if (isFault(settings.once) && (settings.onceFile.empty() || settings.onceFile == file)) {
      ddiserver::Fault first = settings.always;
      first.times = 1;
      first.dropAfterBytes = settings.once.dropAfterBytes;
      if (settings.once.status != 0) first.status = settings.once.status;
      server.setFault(urlPath, first);
      if (isFault(settings.always)) server.addFault(urlPath, settings.always);
    } else if (isFault(settings.always)) {
      server.setFault(urlPath, settings.always);
    }
    // hawkBit's download headers, and its MD5SUM file: "<md5>  <name>".
    server.setArtifactHeaders(urlPath,
                              {{"ETag", "\"" + artifact.hashes["sha1"] + "\""},
                               {"Content-Disposition", "attachment;filename=" + artifact.filename},
                               {"X-Content-Type-Options", "nosniff"}});
    server.serve(urlPath + ".MD5SUM", artifact.hashes["md5"] + "  " + artifact.filename, 200,
                 "application/octet-stream");
    bool const tls = settings.tlsLinks || settings.bothLinks;
    artifact.links[tls ? "download" : "download-http"] = url;
    artifact.links[tls ? "md5sum" : "md5sum-http"] = url + ".MD5SUM";
    if (settings.bothLinks) artifact.links["download-http"] = url + "?http";
    deployment.chunks.front().artifacts.push_back(artifact);
  }
  if (settings.chunkPerFile) {
    auto const artifacts = deployment.chunks.front().artifacts;
    deployment.chunks.clear();
    for (auto const& artifact : artifacts)
      deployment.chunks.push_back({"os", "1.0", artifact.filename, {artifact}, false});
  }
  if (!deployment.chunks.front().artifacts.empty()) {
    target->assign(deployment);
    if (!settings.cancel.empty()) target->requestCancel(settings.cancel);
  }
  if (isFault(settings.poll)) server.setFault(server.controllerPath(), settings.poll);
  if (isFault(settings.deployment)) {
    server.setFault(server.controllerPath() + "/deploymentBase/" + settings.action,
                    settings.deployment);
  }
  if (isFault(settings.confirmation)) {
    server.setFault(server.controllerPath() + "/confirmationBase/" + settings.action,
                    settings.confirmation);
  }
  if (isFault(settings.config)) {
    server.setFault(server.controllerPath() + "/configData", settings.config);
  }
  if (isFault(settings.feedback)) {
    server.setFault(server.controllerPath() + "/deploymentBase/" + settings.action + "/feedback",
                    settings.feedback);
  }
  {
    // The server's lock is taken before this one on its threads, never after.
    std::string const controller = server.controllerPath();
    std::lock_guard<std::mutex> guard(output);
    std::printf("DDI server on %s%s (tenant DEFAULT, controller dev01)\n", base.c_str(),
                controller.c_str());
    std::fflush(stdout);
  }
  server.start();
  int number = 0;
  sigwait(&stop, &number);
  return 0;
}
