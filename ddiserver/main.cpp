// tamrel-ddi-server: the in-process DDI test server as a program, answering
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
#include <vector>

#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "ddiserver/hawkbittarget.h"
#include "digest/digest.h"

namespace {

namespace ddiserver = tamrel::ddiserver;

char const kUsage[] =
    "usage: tamrel-ddi-server [--help] [--port N] [--token T] [--artifacts DIR] [--sleep "
    "HH:MM:SS]\n"
    "                         [--chunk NAME] [--name-as FILE=NAME] [--action ID]\n"
    "                         [--ask-config-data]   (ask for attributes at every poll)\n"
    "                         [--confirm-required]  (the action waits for the device's\n"
    "                                               confirmation)\n"
    "  cancel requests:\n"
    "    --cancel ID           offer a cancel request ID for the action from the start\n"
    "    --cancel-after-polls N  offer one (with the action's id) after N polls\n"
    "  the deployment:\n"
    "    --handling D:U[:W]    download and update handling (skip, attempt, forced) and\n"
    "                          maintenance window (available, unavailable)\n"
    "    --window-opens-at N   the window is \"available\" from the Nth deployment request on\n"
    "    --download-only       update \"skip\", no window: the device closes with \"downloaded\"\n"
    "    --tls-links           offer only \"download\" links, as a server set up for TLS only\n"
    "    --both-links          offer \"download\" and \"download-http\" (its URL ends in ?http)\n"
    "    --upper-digests       digests in upper-case hex\n"
    "    --wrong-sha256 FILE   list a wrong SHA-256 digest for FILE\n"
    "    --empty-artifact      an artifact element without members first in the list\n"
    "  faults for testing a host:\n"
    "    --corrupt FILE        serve FILE with its middle byte flipped (digest mismatch)\n"
    "    --drop-after BYTES[:FILE]   close the first GET answer of FILE (of each artifact\n"
    "                          without FILE) after BYTES bytes\n"
    "    --fail-first STATUS[:FILE]  answer that first GET with STATUS and an error page\n"
    "    --ignore-range        answer range requests with the whole file\n"
    "    --https               serve over TLS with a certificate for 127.0.0.1 and\n"
    "                          localhost signed by a throwaway CA\n"
    "    --ca-out FILE         write that CA's certificate (PEM) to FILE\n"
    "    --tls-cert FILE --tls-key FILE   serve over TLS with this certificate\n"
    "    --slow MS             send artifacts in 64 KiB pieces, MS apart\n"
    "    --fault WHERE=WHAT    WHERE: poll, deployment (its deploymentBase), confirmation\n"
    "                          (its confirmationBase), config (the configData PUT),\n"
    "                          feedback (of the deployment) or artifact; WHAT:\n"
    "                          stall (no answer), trickle (1 byte per 100 ms), overlong\n"
    "                          (the body and 1 MiB more) or endless (the body, then\n"
    "                          bytes without end), both without Content-Length,\n"
    "                          or an HTTP status with an error document; or (14 MiB\n"
    "                          answered in full) flood (log lines, not JSON), deep\n"
    "                          (arrays nested 7 Mi deep), many (100 000 artifacts)\n";

struct Settings {
  int port = 0;
  std::string token, artifactDir, sleep = "00:00:10", chunk = "firmware", corrupt, action = "1",
                                  cancel;
  std::string download = "forced", update = "forced", window, wrongSha256;
  int windowOpensAt = 0, cancelAfterPolls = 0;
  bool tlsLinks = false, bothLinks = false, upperDigests = false, emptyArtifact = false,
       askConfigData = false;
  std::map<std::string, std::string> names;  // file -> name offered to the device
  ddiserver::Fault always, once;             // faults on every / the first GET of an artifact
  std::string onceFile;                      // the artifact `once` is for; "" for each
  bool https = false;
  std::string caOut, tlsCert, tlsKey;
  ddiserver::Fault poll, deployment, config, feedback;  // --fault poll=, deployment=, ...
  ddiserver::Fault confirmation;                        // --fault confirmation=
  bool confirmRequired = false;
};

// Hostile documents of 14 MiB, just under the agent's default bound of
// 16 MiB: log lines that are not JSON, arrays nested 7 Mi deep, or a
// deployment of 100 000 artifacts. Empty when `what` is none of these.
std::string hostileDocument(std::string const& what) {
  std::string text;
  if (what == "flood") {
    std::string const line =
        "2026-01-01T00:00:00Z [I] libtamrelcore -> Download finished (rootfs.img)\n\x1b[2K";
    while (text.size() + line.size() <= 14u << 20) text += line;
  } else if (what == "deep") {
    text = std::string(7u << 20, '[') + std::string(7u << 20, ']');
  } else if (what == "many") {
    text = R"({"id":"1","deployment":{"download":"forced","update":"forced","chunks":[)"
           R"({"part":"os","version":"1","name":"many","artifacts":[)";
    for (int i = 0; i < 100000; ++i) {
      char artifact[160];
      std::snprintf(artifact, sizeof artifact,
                    R"(%s{"filename":"a%05d","size":1,"hashes":{"sha1":"%040d"},)"
                    R"("_links":{"download-http":{"href":"http://h/a%05d"}}})",
                    i == 0 ? "" : ",", i, i, i);
      text += artifact;
    }
    text += "]}]}}";
  }
  return text;
}

// --fault WHERE=WHAT into the settings; false when not understood.
bool parseFault(std::string const& value, Settings& settings) {
  std::size_t const equals = value.find('=');
  if (equals == std::string::npos) return false;
  std::string const where = value.substr(0, equals), what = value.substr(equals + 1);
  ddiserver::Fault fault;
  if (what == "stall") {
    fault.answerDelayMs = 3600 * 1000;
  } else if (what == "trickle") {
    fault.chunkBytes = 1;
    fault.delayMs = 100;
  } else if (what == "overlong" || what == "endless") {
    fault.trailingBytes = what == "endless" ? -1 : 1 << 20;
  } else if (!what.empty() && what.find_first_not_of("0123456789") == std::string::npos) {
    fault.status = std::stoi(what);
  } else if (std::string body = hostileDocument(what); !body.empty()) {
    fault.body = std::make_shared<std::string const>(std::move(body));
  } else {
    return false;
  }
  if (where == "poll") {
    settings.poll = fault;
  } else if (where == "deployment") {
    settings.deployment = fault;
  } else if (where == "config") {
    settings.config = fault;
  } else if (where == "feedback") {
    settings.feedback = fault;
  } else if (where == "confirmation") {
    settings.confirmation = fault;
  } else if (where == "artifact") {
    settings.always = fault;
  } else {
    return false;
  }
  return true;
}

bool parse(int argc, char** argv, Settings& settings) {
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    bool* const flag = arg == "--https"              ? &settings.https
                       : arg == "--tls-links"        ? &settings.tlsLinks
                       : arg == "--both-links"       ? &settings.bothLinks
                       : arg == "--upper-digests"    ? &settings.upperDigests
                       : arg == "--empty-artifact"   ? &settings.emptyArtifact
                       : arg == "--ask-config-data"  ? &settings.askConfigData
                       : arg == "--confirm-required" ? &settings.confirmRequired
                                                     : nullptr;
    if (flag != nullptr) {
      *flag = true;
      continue;
    }
    if (arg == "--ignore-range") {
      settings.always.ignoreRange = true;
      continue;
    }
    if (arg == "--download-only") {
      settings.update = "skip";
      continue;
    }
    if (i + 1 >= argc) return false;
    std::string const value = argv[++i];
    try {
      if (arg == "--port") {
        settings.port = std::stoi(value);
      } else if (arg == "--token") {
        settings.token = value;
      } else if (arg == "--artifacts") {
        settings.artifactDir = value;
      } else if (arg == "--sleep") {
        settings.sleep = value;
      } else if (arg == "--ca-out") {
        settings.caOut = value;
      } else if (arg == "--tls-cert") {
        settings.tlsCert = value;
      } else if (arg == "--tls-key") {
        settings.tlsKey = value;
      } else if (arg == "--chunk") {
        settings.chunk = value;
      } else if (arg == "--action") {
        settings.action = value;
      } else if (arg == "--cancel") {
        settings.cancel = value;
      } else if (arg == "--name-as" && value.find('=') != std::string::npos) {
        settings.names[value.substr(0, value.find('='))] = value.substr(value.find('=') + 1);
      } else if (arg == "--handling") {
        std::size_t const colon = value.find(':');
        if (colon == std::string::npos) return false;
        settings.download = value.substr(0, colon);
        settings.update = value.substr(colon + 1);
        std::size_t const second = settings.update.find(':');
        if (second != std::string::npos) {
          settings.window = settings.update.substr(second + 1);
          settings.update.resize(second);
        }
      } else if (arg == "--window-opens-at") {
        settings.windowOpensAt = std::stoi(value);
      } else if (arg == "--wrong-sha256") {
        settings.wrongSha256 = value;
      } else if (arg == "--corrupt") {
        settings.corrupt = value;
      } else if (arg == "--drop-after" || arg == "--fail-first") {
        std::size_t const colon = value.find(':');
        std::string const number = value.substr(0, colon);
        if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos)
          return false;
        if (arg == "--drop-after") {
          settings.once.dropAfterBytes = std::stoll(number);
        } else {
          settings.once.status = std::stoi(number);
        }
        if (colon != std::string::npos) settings.onceFile = value.substr(colon + 1);
      } else if (arg == "--cancel-after-polls") {
        settings.cancelAfterPolls = std::stoi(value);
      } else if (arg == "--fault") {
        if (!parseFault(value, settings)) return false;
      } else if (arg == "--slow") {
        settings.always.chunkBytes = 65536;
        settings.always.delayMs = std::stoi(value);
      } else {
        return false;
      }
    } catch (std::exception const&) {
      return false;
    }
  }
  if (settings.tlsCert.empty() != settings.tlsKey.empty()) return false;
  if (!settings.tlsCert.empty()) settings.https = true;
  return !(!settings.caOut.empty() && (!settings.https || !settings.tlsCert.empty()));
}

bool isFault(ddiserver::Fault const& fault) {
  return fault.status != 0 || fault.dropAfterBytes >= 0 || fault.ignoreRange ||
         fault.chunkBytes > 0 || fault.answerDelayMs > 0 || fault.trailingBytes != 0 ||
         fault.body != nullptr;
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
  Settings settings;
  if (argc == 2 && std::string(argv[1]) == "--help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (!parse(argc, argv, settings)) {
    std::fputs(kUsage, stderr);
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
    std::string const urlPath = "/artifacts/" + file;
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
