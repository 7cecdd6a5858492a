#include "ddiserver/serveroptions.h"

#include <sys/stat.h>

#include <cstdio>
#include <memory>

namespace tamrel::ddiserver {
namespace {

using Self = ServerOptions;

// A whole decimal number in [min, max] into `out`; false otherwise.
template <typename T>
bool number(std::string const& text, long long min, long long max, T& out) {
  if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  long long const value = std::stoll(text);
  if (value < min || value > max) return false;
  out = static_cast<T>(value);
  return true;
}

std::string notNumber(std::string const& value, long long min, long long max) {
  return "'" + value + "' is no number from " + std::to_string(min) + " to " + std::to_string(max);
}

// One line of printable text, not empty: it ends up in headers or paths.
bool printable(std::string const& text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
  }
  return true;
}

// Text for one segment of a URL path: printable, without '/', '?', '#',
// '%' or blanks. It need not be a number: a client may be tested with ids
// hawkBit would not give.
std::string segment(std::string const& value, std::string& out) {
  if (!printable(value) || value.find_first_of("/?#% ") != std::string::npos)
    return "'" + value + "' cannot be a path segment";
  out = value;
  return "";
}

std::string text(std::string const& value, std::string& out) {
  if (!printable(value)) return "needs one line of text";
  out = value;
  return "";
}

bool oneOf(std::string const& value, std::initializer_list<char const*> names) {
  for (char const* name : names) {
    if (value == name) return true;
  }
  return false;
}

// A directory that exists when the options are read.
std::string directory(std::string const& value, std::string& out) {
  struct stat info {};
  if (!printable(value) || stat(value.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    return "'" + value + "' is no directory";
  out = value;
  return "";
}

// --module PART:NAME:VERSION:DIR; DIR is the rest, ':' and all.
std::string readModule(Self& self, std::string const& value) {
  ServerOptions::Module module;
  std::string* const fields[] = {&module.part, &module.name, &module.version};
  std::size_t at = 0;
  for (std::string* field : fields) {
    std::size_t const colon = value.find(':', at);
    if (colon == std::string::npos || !printable(value.substr(at, colon - at)))
      return "'" + value + "' is not PART:NAME:VERSION:DIR";
    *field = value.substr(at, colon - at);
    at = colon + 1;
  }
  if (at == value.size()) return "'" + value + "' is not PART:NAME:VERSION:DIR";
  if (std::string problem = directory(value.substr(at), module.dir); !problem.empty())
    return problem;
  self.modules.push_back(std::move(module));
  return "";
}

// --metadata PART:KEY=VALUE, for the last --module of PART before it. The
// value is any text: it reaches the device as a JSON string.
std::string readMetadata(Self& self, std::string const& value) {
  std::size_t const colon = value.find(':');
  std::size_t const equals = value.find('=', colon == std::string::npos ? 0 : colon);
  if (colon == 0 || colon == std::string::npos || equals == std::string::npos ||
      equals == colon + 1 || !printable(value.substr(0, equals)))
    return "'" + value + "' is not PART:KEY=VALUE";
  std::string const part = value.substr(0, colon);
  for (auto module = self.modules.rbegin(); module != self.modules.rend(); ++module) {
    if (module->part == part) {
      module->metadata.emplace_back(value.substr(colon + 1, equals - colon - 1),
                                    value.substr(equals + 1));
      return "";
    }
  }
  return "'" + part + "' is the part of no --module before it";
}

std::string readHandling(Self& self, std::string const& value) {
  std::vector<std::string> parts;
  for (std::size_t at = 0; at <= value.size();) {
    std::size_t const colon = std::min(value.find(':', at), value.size());
    parts.push_back(value.substr(at, colon - at));
    at = colon + 1;
  }
  bool const ok = (parts.size() == 2 || parts.size() == 3) &&
                  oneOf(parts[0], {"skip", "attempt", "forced"}) &&
                  oneOf(parts[1], {"skip", "attempt", "forced"}) &&
                  (parts.size() == 2 || oneOf(parts[2], {"available", "unavailable"}));
  if (!ok) return "'" + value + "' is not D:U[:W] (skip, attempt, forced; available, unavailable)";
  self.download = parts[0];
  self.update = parts[1];
  self.window = parts.size() == 3 ? parts[2] : "";
  return "";
}

std::string readSleep(Self& self, std::string const& value) {
  int h = 0, m = 0, s = 0;
  bool const ok = value.size() == 8 && value[2] == ':' && value[5] == ':' &&
                  number(value.substr(0, 2), 0, 99, h) && number(value.substr(3, 2), 0, 59, m) &&
                  number(value.substr(6, 2), 0, 59, s);
  if (!ok) return "'" + value + "' is not HH:MM:SS";
  self.sleep = value;
  return "";
}

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

std::string readFault(Self& self, std::string const& value) {
  std::size_t const equals = value.find('=');
  std::string const where = value.substr(0, equals);
  std::string const what = equals == std::string::npos ? "" : value.substr(equals + 1);
  Fault* const target = where == "poll"           ? &self.poll
                        : where == "deployment"   ? &self.deployment
                        : where == "confirmation" ? &self.confirmation
                        : where == "config"       ? &self.config
                        : where == "feedback"     ? &self.feedback
                        : where == "artifact"     ? &self.always
                                                  : nullptr;
  if (target == nullptr)
    return "'" + where + "' is not poll, deployment, confirmation, config, feedback, artifact";
  Fault made;
  if (what == "stall") {
    made.answerDelayMs = 3600 * 1000;
  } else if (what == "trickle") {
    made.chunkBytes = 1;
    made.delayMs = 100;
  } else if (what == "overlong" || what == "endless") {
    made.trailingBytes = what == "endless" ? -1 : 1 << 20;
  } else if (number(what, 100, 599, made.status)) {
  } else if (std::string body = hostileDocument(what); !body.empty()) {
    made.body = std::make_shared<std::string const>(std::move(body));
  } else {
    return "'" + what + "' is no fault";
  }
  // --slow and --ignore-range stay with the artifact's fault.
  if (target == &self.always) {
    made.ignoreRange = self.always.ignoreRange;
    if (made.chunkBytes == 0) {
      made.chunkBytes = self.always.chunkBytes;
      made.delayMs = self.always.delayMs;
    }
  }
  *target = made;
  return "";
}

// --drop-after BYTES[:FILE] and --fail-first STATUS[:FILE].
std::string readOnce(Self& self, std::string const& value, bool drop) {
  std::size_t const colon = value.find(':');
  std::string const count = value.substr(0, colon);
  bool const ok = drop ? number(count, 0, 1LL << 50, self.once.dropAfterBytes)
                       : number(count, 100, 599, self.once.status);
  if (!ok) return "'" + count + "' is no " + (drop ? "byte count" : "HTTP status");
  if (colon != std::string::npos) {
    self.onceFile = value.substr(colon + 1);
    if (self.onceFile.empty()) return "names no file after ':'";
  }
  return "";
}

// The flag options take "" and cannot fail.
#define FLAG(member) \
  [](Self& self, std::string const&) { return (self.member = true, std::string()); }

}  // namespace

std::vector<ServerOptions::Option> const& ServerOptions::options() {
  static std::vector<Option> const table = {
      {"--port", "N", "listen on 127.0.0.1:N (default: a free port, printed on the first line)",
       [](Self& self, std::string const& v) {
         return number(v, 0, 65535, self.port) ? "" : notNumber(v, 0, 65535);
       }},
      {"--token", "T", "require \"Authorization: TargetToken T\" on every request",
       [](Self& self, std::string const& v) { return text(v, self.token); }},
      {"--gateway-token", "T",
       "accept \"Authorization: GatewayToken T\" (with --token: either) on every request",
       [](Self& self, std::string const& v) { return text(v, self.gatewayToken); }},
      {"--artifacts", "DIR",
       "every regular file of DIR is an artifact of the deployment's one chunk (part os)",
       [](Self& self, std::string const& v) { return directory(v, self.artifactDir_); }},
      {"--module", "PART:NAME:VERSION:DIR",
       "a chunk of the deployment (a software module of type PART), its artifacts the regular "
       "files of DIR; repeated, the chunks in that order",
       readModule},
      {"--metadata", "PART:KEY=VALUE",
       "a metadata entry of the last --module of PART before it; repeated, in that order",
       readMetadata},
      {"--https", "",
       "serve over TLS with a certificate for 127.0.0.1 and localhost signed by a throwaway CA",
       FLAG(https)},
      {"--ca-out", "FILE", "with --https: write that CA's certificate (PEM) to FILE",
       [](Self& self, std::string const& v) { return text(v, self.caOut); }},
      {"--tls-cert", "FILE", "with --tls-key: serve over TLS with this certificate (PEM)",
       [](Self& self, std::string const& v) { return text(v, self.tlsCert); }},
      {"--tls-key", "FILE", "the key of --tls-cert (PEM)",
       [](Self& self, std::string const& v) { return text(v, self.tlsKey); }},
      {"--client-ca", "FILE", "with TLS: require a client certificate signed by a CA of FILE (PEM)",
       [](Self& self, std::string const& v) { return text(v, self.clientCa); }},
      {"--client-cert-out", "DIR",
       "with --https: require client certificates of a throwaway client CA; write ca.pem "
       "(the server's CA), client.pem and client.key (a pair it accepts) to DIR",
       [](Self& self, std::string const& v) { return text(v, self.clientCertOut); }},
      {"--sleep", "HH:MM:SS", "the polling interval offered (default 00:00:10)", readSleep},
      {"--bad-sleep", "TEXT",
       "offer TEXT as the polling interval unchecked, to see how a client takes a bad one",
       [](Self& self, std::string const& v) { return text(v, self.sleep); }},
      {"--action", "ID", "the action's id (default 1)",
       [](Self& self, std::string const& v) { return segment(v, self.action); }},
      {"--chunk", "NAME", "the name of the chunk of --artifacts (default firmware), version 1.0",
       [](Self& self, std::string const& v) { return text(v, self.chunk_); }},
      {"--name-as", "FILE=NAME", "offer FILE under another name",
       [](Self& self, std::string const& v) {
         std::size_t const equals = v.find('=');
         if (equals == 0 || equals == std::string::npos || equals + 1 == v.size() || !printable(v))
           return "'" + v + "' is not FILE=NAME";
         self.names[v.substr(0, equals)] = v.substr(equals + 1);
         return std::string();
       }},
      {"--confirm-required", "",
       "the action waits for the device's confirmation (confirmationBase) unless auto-confirm "
       "is on",
       FLAG(confirmRequired)},
      {"--handling", "D:U[:W]",
       "download and update handling (skip, attempt, forced) and maintenance window "
       "(available, unavailable), e.g. forced:skip:unavailable",
       readHandling},
      {"--window-opens-at", "N",
       "the window is \"available\" (update \"forced\") from the Nth deploymentBase request on",
       [](Self& self, std::string const& v) {
         return number(v, 1, 1000000, self.windowOpensAt) ? "" : notNumber(v, 1, 1000000);
       }},
      {"--download-only", "",
       "update \"skip\" without a window: the device closes with \"downloaded\"",
       [](Self& self, std::string const&) { return (self.update = "skip", std::string()); }},
      {"--cancel", "ID", "a cancel request ID for the action, offered from the start",
       [](Self& self, std::string const& v) { return segment(v, self.cancel); }},
      {"--cancel-after-polls", "N",
       "after N polls, a cancel request for the running action (with its id)",
       [](Self& self, std::string const& v) {
         return number(v, 1, 1000000, self.cancelAfterPolls) ? "" : notNumber(v, 1, 1000000);
       }},
      {"--ask-config-data", "",
       "link configData at every poll, as when an operator keeps asking for the attributes",
       FLAG(askConfigData)},
      {"--tls-links", "", "only \"download\"/\"md5sum\" links, as a server set up for TLS only",
       FLAG(tlsLinks)},
      {"--both-links", "",
       "\"download\"/\"md5sum\" and \"download-http\"/\"md5sum-http\" (their URLs end in "
       "?http), as hawkBit's example",
       FLAG(bothLinks)},
      {"--upper-digests", "", "digests in upper-case hex", FLAG(upperDigests)},
      {"--wrong-sha256", "FILE", "list a wrong SHA-256 digest for FILE",
       [](Self& self, std::string const& v) { return text(v, self.wrongSha256); }},
      {"--empty-artifact", "", "an artifact element without members first in the list",
       FLAG(emptyArtifact)},
      {"--chunk-per-file", "",
       "each file of --artifacts a chunk of its own, named after it, in name order",
       FLAG(chunkPerFile)},
      {"--corrupt", "FILE",
       "serve FILE with its middle byte flipped (digest mismatch; a container's header stays "
       "readable)",
       [](Self& self, std::string const& v) { return text(v, self.corrupt); }},
      {"--drop-after", "BYTES[:FILE]",
       "cut the first GET answer of FILE (of each artifact without FILE) after BYTES bytes; "
       "Content-Length still announces all",
       [](Self& self, std::string const& v) { return readOnce(self, v, true); }},
      {"--fail-first", "STATUS[:FILE]", "answer that first GET with STATUS and an error document",
       [](Self& self, std::string const& v) { return readOnce(self, v, false); }},
      {"--ignore-range", "", "answer Range requests with 200 and the whole file",
       [](Self& self, std::string const&) {
         return (self.always.ignoreRange = true, std::string());
       }},
      {"--slow", "MS", "send artifacts in 64 KiB pieces, MS apart",
       [](Self& self, std::string const& v) {
         self.always.chunkBytes = 65536;
         return number(v, 1, 60000, self.always.delayMs) ? "" : notNumber(v, 1, 60000);
       }},
      {"--fault", "WHERE=WHAT",
       "WHERE: poll, deployment (its deploymentBase), confirmation (its confirmationBase "
       "document), config (the configData PUT), feedback "
       "(of the action) or artifact (every GET); WHAT: stall (no answer), trickle (1 byte per "
       "100 ms), overlong (the body and 1 MiB more), endless (the body, then bytes without end; "
       "both without Content-Length), an HTTP status with an error document, or a hostile "
       "document of 14 MiB answered in full: flood (log lines, not JSON), deep (arrays nested "
       "7 Mi deep), many (100 000 artifacts)",
       readFault},
  };
  return table;
}

#undef FLAG

std::string ServerOptions::help() {
  std::string text =
      "usage: tamrel-ddi-server [OPTION]...\n"
      "A DDI server standing in for hawkBit: serves one deployment of the modules of\n"
      "--module (or of the files of --artifacts) and prints every request and what it\n"
      "makes of it.\n"
      "  --help                  print this and exit\n";
  // Help wrapped to 80 columns beside a column of the options.
  std::size_t const column = 26, width = 80;
  for (Option const& option : options()) {
    std::string line =
        "  " + std::string(option.name) + (*option.argument ? " " : "") + option.argument;
    if (line.size() + 1 >= column) {
      text += line + "\n";
      line.clear();
    }
    line.resize(column, ' ');
    std::string const help = option.help;
    for (std::size_t at = 0; at < help.size();) {
      std::size_t end = help.find(' ', at);
      if (end == std::string::npos) end = help.size();
      std::string const word = help.substr(at, end - at);
      if (line.size() > column && line.size() + 1 + word.size() > width) {
        text += line + "\n";
        line.assign(column, ' ');
      }
      line += (line.size() > column ? " " : "") + word;
      at = end + 1;
    }
    text += line + "\n";
  }
  return text;
}

bool ServerOptions::parse(int argc, char const* const* argv) {
  auto const fail = [this](std::string message) {
    error_ = std::move(message);
    return false;
  };
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    Option const* option = nullptr;
    for (Option const& candidate : options()) {
      if (arg == candidate.name) option = &candidate;
    }
    if (option == nullptr) return fail("unknown option '" + arg + "'");
    std::string value;
    if (*option->argument != '\0') {
      if (i + 1 >= argc) return fail(arg + " needs " + option->argument);
      value = argv[++i];
    }
    std::string const problem = option->read(*this, value);
    if (!problem.empty()) return fail(arg + ": " + problem);
  }
  if (!settleModules()) return false;
  if (tlsCert.empty() != tlsKey.empty()) return fail("--tls-cert and --tls-key go together");
  if (!tlsCert.empty()) https = true;
  if (!caOut.empty() && (!https || !tlsCert.empty()))
    return fail("--ca-out needs --https (a throwaway CA), not --tls-cert");
  if (!clientCertOut.empty() && (!https || !tlsCert.empty()))
    return fail("--client-cert-out needs --https (a throwaway CA), not --tls-cert");
  if (!clientCa.empty() && !https) return fail("--client-ca needs --https or --tls-cert");
  if (!clientCa.empty() && !clientCertOut.empty())
    return fail("--client-ca and --client-cert-out exclude each other");
  return true;
}

bool ServerOptions::settleModules() {
  if (!modules.empty()) {
    if (!artifactDir_.empty()) error_ = "--artifacts and --module exclude each other";
    if (!chunk_.empty() || chunkPerFile)
      error_ = "--chunk and --chunk-per-file go with --artifacts, not --module";
    return error_.empty();
  }
  if (!artifactDir_.empty()) {
    modules.push_back({"os", chunk_.empty() ? "firmware" : chunk_, "1.0", artifactDir_, {}});
    artifactsShortcut = true;
  }
  return true;
}

bool isFault(Fault const& fault) {
  return fault.status != 0 || fault.dropAfterBytes >= 0 || fault.ignoreRange ||
         fault.chunkBytes > 0 || fault.answerDelayMs > 0 || fault.trailingBytes != 0 ||
         fault.body != nullptr;
}

}  // namespace tamrel::ddiserver
