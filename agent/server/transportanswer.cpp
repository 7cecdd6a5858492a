#include "agent/server/transportanswer.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <initializer_list>

namespace {

// What a failed TLS handshake (or, over TLS 1.3, the first read after it)
// came to, told from OpenSSL's words in libcurl's text.
std::string handshakeProblem(std::string const& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  auto const says = [&lower](std::initializer_list<char const*> words) {
    for (char const* word : words) {
      if (lower.find(word) != std::string::npos) return true;
    }
    return false;
  };
  if (says({"protocol version", "unsupported protocol", "wrong version number",
            "no protocols available", "version too low"})) {
    return "TLS protocol version refused (the agent speaks TLS 1.2 and later): " + text;
  }
  if (says({"alert certificate expired"})) {
    return "the server refused the client certificate, it has expired: " + text;
  }
  if (says({"certificate required", "bad certificate", "unknown ca", "certificate unknown",
            "unsupported certificate", "certificate revoked", "access denied"})) {
    return "the server refused the client certificate: " + text;
  }
  // Closed without a reason: most often a client certificate the server
  // wants and did not get.
  return "TLS handshake refused by the server: " + text;
}

}  // namespace

std::string TransportAnswer::problem() const {
  if (code == CURLE_OK) {
    if (status >= 200 && status < 300) return std::string();
    return status == 0 ? "no HTTP answer" : "HTTP " + std::to_string(status);
  }
  std::string const text = error.empty() ? curl_easy_strerror(static_cast<CURLcode>(code)) : error;
  if (proxyStatus == 407) return "proxy refused authentication (HTTP 407): " + text;
  if (proxyStatus >= 300) {
    return "the proxy refused the tunnel (HTTP " + std::to_string(proxyStatus) + "): " + text;
  }
  switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
      return "server certificate not trusted: " + text;
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
      return "client certificate or key not usable: " + text;
    case CURLE_SSL_CONNECT_ERROR:
      return handshakeProblem(text);
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      // Over TLS 1.3 a server refuses a client certificate after the
      // handshake: the request meets an alert or a closed connection.
      if (status == 0 && url.rfind("https:", 0) == 0) return handshakeProblem(text);
      return text;
    case CURLE_OPERATION_TIMEDOUT:
      return "deadline passed: " + text;
    case CURLE_ABORTED_BY_CALLBACK:
      return "cancelled";
    default:
      return text;
  }
}

long TransportAnswer::retryAfterSeconds(std::string value) {
  while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
    value.pop_back();
  if (value.empty()) return -1;
  if (value.find_first_not_of("0123456789") == std::string::npos) {
    return value.size() > 9 ? 999999999L : std::stol(value);
  }
  time_t const when = curl_getdate(value.c_str(), nullptr);
  if (when < 0) return -1;
  time_t const now = std::time(nullptr);
  return when > now ? static_cast<long>(when - now) : 0;
}
