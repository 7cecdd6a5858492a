// tamrel-ddi-server: the in-process DDI test server as a program, for testing
// a host without a hawkBit installation. Every file of --artifacts becomes an
// artifact of one deployment; every request and its body is printed. Once
// the deployment's closing feedback arrives it is no longer offered.
#include <dirent.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <signal.h>
#include <sys/stat.h>

#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testserver/dditestserver.h"

namespace {

char const kUsage[] =
    "usage: tamrel-ddi-server [--port N] [--token T] [--artifacts DIR] [--sleep HH:MM:SS]\n"
    "                         [--chunk NAME] [--name-as FILE=NAME]\n"
    "  faults for testing a host:\n"
    "    --corrupt FILE        serve FILE with one byte flipped (digest mismatch)\n"
    "    --drop-after BYTES    close the first artifact answer after BYTES bytes\n"
    "    --fail-first STATUS   answer the first artifact request with STATUS and an error page\n"
    "    --ignore-range        answer range requests with the whole file\n"
    "    --https               serve over TLS with a self-signed certificate\n"
    "    --slow MS             send artifacts in 64 KiB pieces, MS apart\n"
    "    --fault WHERE=WHAT    WHERE: poll, config (the configData PUT), feedback (of\n"
    "                          deployment 1) or artifact; WHAT:\n"
    "                          stall (no answer), trickle (1 byte per 100 ms), overlong\n"
    "                          (the body and 1 MiB more) or endless (the body, then\n"
    "                          bytes without end), both without Content-Length,\n"
    "                          or an HTTP status with an error document\n";

std::string hex(unsigned char const* bytes, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < n; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

std::string jsonString(std::string const& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

struct Settings {
  int port = 0;
  bool https = false;
  std::string token, artifactDir, sleep = "00:00:10", chunk = "firmware", corrupt;
  std::map<std::string, std::string> names;       // file -> name offered to the device
  tamrel::testing::Fault always, first;           // faults on every / the first artifact answer
  tamrel::testing::Fault poll, config, feedback;  // --fault poll=, config=, feedback=
};

// --fault WHERE=WHAT into the settings; false when not understood.
bool parseFault(std::string const& value, Settings& settings) {
  std::size_t const equals = value.find('=');
  if (equals == std::string::npos) return false;
  std::string const where = value.substr(0, equals), what = value.substr(equals + 1);
  tamrel::testing::Fault fault;
  if (what == "stall") {
    fault.answerDelayMs = 3600 * 1000;
  } else if (what == "trickle") {
    fault.chunkBytes = 1;
    fault.delayMs = 100;
  } else if (what == "overlong" || what == "endless") {
    fault.trailingBytes = what == "endless" ? -1 : 1 << 20;
  } else if (!what.empty() && what.find_first_not_of("0123456789") == std::string::npos) {
    fault.status = std::stoi(what);
  } else {
    return false;
  }
  if (where == "poll") {
    settings.poll = fault;
  } else if (where == "config") {
    settings.config = fault;
  } else if (where == "feedback") {
    settings.feedback = fault;
  } else if (where == "artifact") {
    settings.always = settings.first = fault;
  } else {
    return false;
  }
  return true;
}

bool parse(int argc, char** argv, Settings& settings) {
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--https") {
      settings.https = true;
      continue;
    }
    if (arg == "--ignore-range") {
      settings.always.ignoreRange = settings.first.ignoreRange = true;
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
      } else if (arg == "--chunk") {
        settings.chunk = value;
      } else if (arg == "--name-as" && value.find('=') != std::string::npos) {
        settings.names[value.substr(0, value.find('='))] = value.substr(value.find('=') + 1);
      } else if (arg == "--corrupt") {
        settings.corrupt = value;
      } else if (arg == "--drop-after") {
        settings.first.dropAfterBytes = std::stoll(value);
      } else if (arg == "--fail-first") {
        settings.first.status = std::stoi(value);
      } else if (arg == "--fault") {
        if (!parseFault(value, settings)) return false;
      } else if (arg == "--slow") {
        settings.always.chunkBytes = settings.first.chunkBytes = 65536;
        settings.always.delayMs = settings.first.delayMs = std::stoi(value);
      } else {
        return false;
      }
    } catch (std::exception const&) {
      return false;
    }
  }
  return true;
}

bool isFault(tamrel::testing::Fault const& fault) {
  return fault.status != 0 || fault.dropAfterBytes >= 0 || fault.ignoreRange ||
         fault.chunkBytes > 0 || fault.answerDelayMs > 0 || fault.trailingBytes != 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  if (!parse(argc, argv, settings)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  // The request callback runs under the server's lock, so what it observes
  // is acted on by the reactor thread below.
  std::mutex lock;
  std::condition_variable wake;
  bool artifactRequested = false, deploymentClosed = false, quit = false;
  tamrel::testing::DdiTestServer::Options options;
  options.port = settings.port;
  options.https = settings.https;
  options.onRequest = [&](tamrel::testing::RecordedRequest const& request) {
    std::lock_guard<std::mutex> guard(lock);
    std::string const range = request.header("Range");
    std::printf("%s %s%s%s%s\n", request.method.c_str(), request.path.c_str(),
                request.query.empty() ? "" : "?", request.query.c_str(),
                range.empty() ? "" : ("  [Range: " + range + "]").c_str());
    if (!request.body.empty()) std::printf("    %s\n", request.body.c_str());
    std::fflush(stdout);
    artifactRequested |= request.path.rfind("/artifacts/", 0) == 0;
    deploymentClosed |= request.path.find("/deploymentBase/1/feedback") != std::string::npos &&
                        request.body.find("\"execution\":\"closed\"") != std::string::npos;
    wake.notify_all();
  };
  tamrel::testing::DdiTestServer server(options);
  if (!settings.token.empty()) server.setRequireToken(settings.token);
  std::string const base = server.baseUrl();

  std::vector<std::string> paths;
  std::string artifacts;
  if (!settings.artifactDir.empty()) {
    DIR* dir = opendir(settings.artifactDir.c_str());
    if (dir == nullptr) {
      std::fprintf(stderr, "tamrel-ddi-server: cannot read %s\n", settings.artifactDir.c_str());
      return 2;
    }
    while (dirent* entry = readdir(dir)) {
      std::string const file = entry->d_name;
      std::string const path = settings.artifactDir + "/" + file;
      struct stat info {};
      if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
      std::ifstream in(path, std::ios::binary);
      std::string content((std::istreambuf_iterator<char>(in)), {});
      unsigned char sha[SHA_DIGEST_LENGTH], md5[MD5_DIGEST_LENGTH];
      SHA1(reinterpret_cast<unsigned char const*>(content.data()), content.size(), sha);
      MD5(reinterpret_cast<unsigned char const*>(content.data()), content.size(), md5);
      if (file == settings.corrupt && !content.empty()) content[0] = static_cast<char>(~content[0]);
      std::string const url = server.addArtifact("/artifacts/" + file, content);
      paths.push_back("/artifacts/" + file);
      if (isFault(settings.first)) server.setFault(paths.back(), settings.first);
      std::string const name = settings.names.count(file) ? settings.names[file] : file;
      artifacts += std::string(artifacts.empty() ? "" : ",") + "{\"filename\":" + jsonString(name) +
                   ",\"hashes\":{\"sha1\":\"" + hex(sha, sizeof sha) + "\",\"md5\":\"" +
                   hex(md5, sizeof md5) + "\"},\"size\":" + std::to_string(content.size()) +
                   ",\"_links\":{\"download-http\":{\"href\":\"" + url + "\"}}}";
    }
    closedir(dir);
  }
  bool const deployment = !artifacts.empty();
  if (deployment) {
    server.setDeploymentBase(
        "1",
        "{\"id\":\"1\",\"deployment\":{\"download\":\"forced\",\"update\":\"forced\","
        "\"chunks\":[{\"part\":\"os\",\"version\":\"1.0\",\"name\":" +
            jsonString(settings.chunk) + ",\"artifacts\":[" + artifacts + "]}]}}");
  }
  server.setControllerBase(tamrel::testing::controllerBaseJson(
      base, server.controllerPath(), settings.sleep, deployment ? "1" : "", "", true));
  if (isFault(settings.poll)) server.setFault(server.controllerPath(), settings.poll);
  if (isFault(settings.config)) {
    server.setFault(server.controllerPath() + "/configData", settings.config);
  }
  if (isFault(settings.feedback)) {
    server.setFault(server.controllerPath() + "/deploymentBase/1/feedback", settings.feedback);
  }
  std::printf("DDI server on %s%s (tenant DEFAULT, controller dev01)\n", base.c_str(),
              server.controllerPath().c_str());
  std::fflush(stdout);

  std::thread reactor([&] {
    std::unique_lock<std::mutex> guard(lock);
    bool firstDone = false, closedDone = false;
    for (;;) {
      wake.wait(guard, [&] {
        return quit || (artifactRequested && !firstDone) || (deploymentClosed && !closedDone);
      });
      if (quit) return;
      bool const liftFirst = artifactRequested && !firstDone;
      bool const withdraw = deploymentClosed && !closedDone;
      firstDone |= liftFirst;
      closedDone |= withdraw;
      guard.unlock();
      if (liftFirst) {
        // Lifted as soon as the first answer has taken its copy, long
        // before the device can come back.
        for (auto const& path : paths) {
          if (isFault(settings.always)) {
            server.setFault(path, settings.always);
          } else {
            server.clearFault(path);
          }
        }
      }
      if (withdraw) {
        server.setControllerBase(tamrel::testing::controllerBaseJson(
            base, server.controllerPath(), settings.sleep, "", "", false));
      }
      guard.lock();
    }
  });

  int number = 0;
  sigwait(&stop, &number);
  {
    std::lock_guard<std::mutex> guard(lock);
    quit = true;
  }
  wake.notify_all();
  reactor.join();
  return 0;
}
