// tamrel-ddi-server: the in-process DDI test server as a program, for testing
// a host without a hawkBit installation. Every file of --artifacts becomes an
// artifact of one deployment; every request and its body is printed.
#include <dirent.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>

#include "testserver/dditestserver.h"

namespace {

std::string hex(unsigned char const* bytes, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < n; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

int usage() {
  std::fputs(
      "usage: tamrel-ddi-server [--port N] [--token T] [--artifacts DIR] [--sleep HH:MM:SS]\n"
      "                         [--corrupt NAME] [--drop-after BYTES]\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  int port = 0;
  long long dropAfter = -1;
  std::string token, artifactDir, sleep = "00:00:10", corrupt;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (i + 1 >= argc) return usage();
    std::string const value = argv[++i];
    if (arg == "--port")
      port = std::stoi(value);
    else if (arg == "--token")
      token = value;
    else if (arg == "--artifacts")
      artifactDir = value;
    else if (arg == "--sleep")
      sleep = value;
    else if (arg == "--corrupt")
      corrupt = value;  // serve wrong bytes for this artifact
    else if (arg == "--drop-after")
      dropAfter = std::stoll(value);  // first answer only
    else
      return usage();
  }

  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  std::mutex printLock;
  tamrel::testing::DdiTestServer::Options options;
  options.port = port;
  tamrel::testing::DdiTestServer* self = nullptr;
  options.onRequest = [&](tamrel::testing::RecordedRequest const& request) {
    std::lock_guard<std::mutex> guard(printLock);
    std::printf("%s %s%s%s\n", request.method.c_str(), request.path.c_str(),
                request.query.empty() ? "" : "?", request.query.c_str());
    if (!request.body.empty()) std::printf("    %s\n", request.body.c_str());
    std::fflush(stdout);
    // A dropped connection is injected once, so the retry can resume.
    if (dropAfter >= 0 && request.path.rfind("/artifacts/", 0) == 0 && self != nullptr) {
      dropAfter = -1;
    }
  };
  tamrel::testing::DdiTestServer server(options);
  self = &server;
  if (!token.empty()) server.setRequireToken(token);
  std::string const base = server.baseUrl();

  std::string artifacts;
  if (!artifactDir.empty()) {
    DIR* dir = opendir(artifactDir.c_str());
    if (dir == nullptr) {
      std::fprintf(stderr, "tamrel-ddi-server: cannot read %s\n", artifactDir.c_str());
      return 2;
    }
    while (dirent* entry = readdir(dir)) {
      std::string const name = entry->d_name;
      std::string const path = artifactDir + "/" + name;
      struct stat info {};
      if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
      std::ifstream in(path, std::ios::binary);
      std::string content((std::istreambuf_iterator<char>(in)), {});
      unsigned char sha[SHA_DIGEST_LENGTH], md5[MD5_DIGEST_LENGTH];
      SHA1(reinterpret_cast<unsigned char const*>(content.data()), content.size(), sha);
      MD5(reinterpret_cast<unsigned char const*>(content.data()), content.size(), md5);
      if (name == corrupt && !content.empty()) content[0] = static_cast<char>(~content[0]);
      std::string const url = server.addArtifact("/artifacts/" + name, content);
      if (dropAfter >= 0) {
        tamrel::testing::Fault drop;
        drop.dropAfterBytes = dropAfter;
        server.setFault("/artifacts/" + name, drop);
      }
      artifacts += std::string(artifacts.empty() ? "" : ",") + "{\"filename\":\"" + name +
                   "\",\"hashes\":{\"sha1\":\"" + hex(sha, sizeof sha) + "\",\"md5\":\"" +
                   hex(md5, sizeof md5) + "\"},\"size\":" + std::to_string(info.st_size) +
                   ",\"_links\":{\"download-http\":{\"href\":\"" + url + "\"}}}";
    }
    closedir(dir);
  }
  bool const deployment = !artifacts.empty();
  if (deployment) {
    server.setDeploymentBase(
        "1",
        "{\"id\":\"1\",\"deployment\":{\"download\":\"forced\",\"update\":\"forced\","
        "\"chunks\":[{\"part\":\"os\",\"version\":\"1.0\",\"name\":\"firmware\","
        "\"artifacts\":[" +
            artifacts + "]}]}}");
  }
  server.setControllerBase(tamrel::testing::controllerBaseJson(base, server.controllerPath(), sleep,
                                                               deployment ? "1" : "", "", true));
  std::printf("DDI server on %s%s (tenant DEFAULT, controller dev01)\n", base.c_str(),
              server.controllerPath().c_str());
  std::fflush(stdout);

  // After the first artifact request the drop fault is lifted.
  for (;;) {
    timespec tick{0, 100 * 1000 * 1000};
    int const number = sigtimedwait(&stop, nullptr, &tick);
    if (number == SIGINT || number == SIGTERM) break;
    if (dropAfter < 0) {
      for (auto const& request : server.requests("GET")) {
        if (request.path.rfind("/artifacts/", 0) == 0) server.clearFault(request.path);
      }
    }
  }
  return 0;
}
