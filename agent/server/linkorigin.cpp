#include "agent/server/linkorigin.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string trim(std::string const& text) {
  std::size_t const first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::string linkOrigin(std::string const& url) {
  std::size_t const colon = url.find("://");
  if (colon == std::string::npos) return std::string();
  std::string const scheme = lower(url.substr(0, colon));
  if (scheme != "http" && scheme != "https") return std::string();
  std::size_t const start = colon + 3;
  std::string authority = url.substr(start, url.find_first_of("/?#", start) - start);
  // Credentials before '@' are not part of where the request goes.
  if (std::size_t const at = authority.rfind('@'); at != std::string::npos) {
    authority.erase(0, at + 1);
  }
  authority = lower(authority);
  std::size_t const bracket = authority.rfind(']');
  std::size_t const portColon = authority.rfind(':');
  bool const hasPort =
      portColon != std::string::npos && (bracket == std::string::npos || portColon > bracket);
  if (authority.empty() || (hasPort && portColon == 0)) return std::string();
  if (!hasPort) authority += scheme == "https" ? ":443" : ":80";
  return scheme + "://" + authority;
}

bool linkAllowed(std::string const& url, std::string const& address,
                 std::string const& trustedHosts, std::string& host) {
  std::string const origin = linkOrigin(url);
  host = origin.empty() ? url : origin.substr(origin.find("://") + 3);
  if (origin.empty()) return false;
  std::string const scheme = origin.substr(0, origin.find("://"));
  // A server reached over TLS: no credential goes over plain HTTP, not even
  // to a trusted host.
  if (scheme == "http" && linkOrigin(address).rfind("https:", 0) == 0) return false;
  if (origin == linkOrigin(address)) return true;
  // An entry without a port stands for the default port of the link's scheme.
  std::istringstream list(trustedHosts);
  for (std::string entry; std::getline(list, entry, ',');) {
    entry = trim(entry);
    if (!entry.empty() && linkOrigin(scheme + "://" + entry) == origin) return true;
  }
  return false;
}

std::string shownLink(std::string const& url) {
  std::string shown = url.substr(0, url.find('#'));
  std::size_t const query = shown.find('?');
  if (query != std::string::npos) shown.replace(query, std::string::npos, "?\u2026");
  // A password before '@' is no more for the log than a signature.
  std::size_t const colon = shown.find("://");
  std::size_t const start = colon == std::string::npos ? 0 : colon + 3;
  std::size_t const at = shown.find('@', start);
  if (at != std::string::npos && at < shown.find_first_of("/?", start)) {
    shown.replace(start, at - start, "\u2026");
  }
  return shown;
}
