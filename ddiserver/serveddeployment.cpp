#include "ddiserver/serveddeployment.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <future>
#include <iterator>
#include <map>

#include "digest/digest.h"

namespace tamrel::ddiserver {
namespace {

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
  std::pair<char const*, Digest::Kind> const kinds[] = {{"sha1", Digest::Kind::kSha1},
                                                        {"md5", Digest::Kind::kMd5},
                                                        {"sha256", Digest::Kind::kSha256}};
  std::vector<std::future<std::string>> results;
  for (auto const& kind : kinds) {
    results.push_back(std::async(std::launch::async, [&path, &kind] {
      Digest digest(kind.second);
      return digestFile(path, {&digest}) ? digest.hex() : std::string();
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

bool ServedDeployment::read() {
  chunks_.clear();
  // The files of --artifacts keep their short URLs; a module's files are
  // served under its position, as file names repeat across modules.
  int position = 0;
  for (ServerOptions::Module const& module : options_.modules) {
    std::string const prefix =
        options_.artifactsShortcut
            ? "/artifacts/"
            : "/softwaremodules/" + std::to_string(++position) + "/artifacts/";
    if (!readModule(module, prefix)) return false;
  }
  return true;
}

bool ServedDeployment::readModule(ServerOptions::Module const& module,
                                  std::string const& urlPrefix) {
  DIR* dir = opendir(module.dir.c_str());
  if (dir == nullptr) {
    error_ = "cannot read " + module.dir;
    return false;
  }
  std::vector<std::string> names;
  while (dirent* entry = readdir(dir)) names.push_back(entry->d_name);
  closedir(dir);
  std::sort(names.begin(), names.end());
  Chunk chunk{&module, {}};
  for (std::string const& name : names) {
    std::string const path = module.dir + "/" + name;
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    File file{name, path, urlPrefix + percentEncoded(name), {}};
    ArtifactDocument& artifact = file.artifact;
    auto const renamed = options_.names.find(name);
    artifact.filename = renamed != options_.names.end() ? renamed->second : name;
    artifact.size = static_cast<std::uint64_t>(info.st_size);
    if (!digests(path, artifact.hashes)) {
      error_ = "cannot read " + path;
      return false;
    }
    if (name == options_.wrongSha256) artifact.hashes["sha256"] = std::string(64, '0');
    if (options_.upperDigests) {
      for (auto& entry : artifact.hashes) {
        for (char& c : entry.second) c = static_cast<char>(std::toupper(c));
      }
    }
    chunk.files.push_back(std::move(file));
  }
  chunks_.push_back(std::move(chunk));
  return true;
}

DeploymentDocument ServedDeployment::serve(DdiServer& server) const {
  DeploymentDocument deployment;
  deployment.id = options_.action;
  deployment.download = options_.download;
  deployment.update = options_.update;
  deployment.maintenanceWindow = options_.window;
  for (Chunk const& chunk : chunks_) {
    ServerOptions::Module const& module = *chunk.module;
    bool const first = deployment.chunks.empty();
    if (options_.chunkPerFile) {
      for (File const& file : chunk.files) {
        ArtifactDocument const artifact = serveFile(server, file);
        deployment.chunks.push_back({module.part, module.version, artifact.filename, {artifact}});
      }
      continue;
    }
    deployment.chunks.push_back({module.part,
                                 module.version,
                                 module.name,
                                 {},
                                 first && options_.emptyArtifact,
                                 module.metadata});
    for (File const& file : chunk.files)
      deployment.chunks.back().artifacts.push_back(serveFile(server, file));
  }
  // An --artifacts directory without files offers no action, as before it.
  if (options_.artifactsShortcut && !chunks_.empty() && chunks_.front().files.empty())
    deployment.chunks.clear();
  return deployment;
}

ArtifactDocument ServedDeployment::serveFile(DdiServer& server, File const& file) const {
  ArtifactDocument artifact = file.artifact;
  std::string const& urlPath = file.urlPath;
  std::string url;
  if (file.name == options_.corrupt && artifact.size > 0) {
    std::ifstream in(file.path, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)), {});
    // In the middle: a container's header stays readable, only the digests fail.
    content[content.size() / 2] = static_cast<char>(~content[content.size() / 2]);
    url = server.addArtifact(urlPath, content);
  } else {
    url = server.addFileArtifact(urlPath, file.path);
  }
  // The first GET meets the one-shot fault on top of the lasting one.
  if (isFault(options_.once) && (options_.onceFile.empty() || options_.onceFile == file.name)) {
    Fault first = options_.always;
    first.times = 1;
    first.dropAfterBytes = options_.once.dropAfterBytes;
    if (options_.once.status != 0) first.status = options_.once.status;
    server.setFault(urlPath, first);
    if (isFault(options_.always)) server.addFault(urlPath, options_.always);
  } else if (isFault(options_.always)) {
    server.setFault(urlPath, options_.always);
  }
  // hawkBit's download headers, and its MD5SUM file: "<md5>  <name>".
  server.setArtifactHeaders(urlPath,
                            {{"ETag", "\"" + artifact.hashes["sha1"] + "\""},
                             {"Content-Disposition", "attachment;filename=" + artifact.filename},
                             {"X-Content-Type-Options", "nosniff"}});
  server.serve(urlPath + ".MD5SUM", artifact.hashes["md5"] + "  " + artifact.filename, 200,
               "application/octet-stream");
  bool const tls = options_.tlsLinks || options_.bothLinks;
  artifact.links[tls ? "download" : "download-http"] = url;
  artifact.links[tls ? "md5sum" : "md5sum-http"] = url + ".MD5SUM";
  if (options_.bothLinks) {
    artifact.links["download-http"] = url + "?http";
    artifact.links["md5sum-http"] = url + ".MD5SUM?http";
  }
  return artifact;
}

}  // namespace tamrel::ddiserver
