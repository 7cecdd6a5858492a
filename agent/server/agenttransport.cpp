#include "agent/server/agenttransport.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "agent/server/linkorigin.h"
#include "io/fileio.h"

namespace {

int const kMaxRedirects = 10;
// The code of a hop the agent refuses to make itself (its answer's error
// says why).
CURLcode const kRefusedHop = CURLE_UNSUPPORTED_PROTOCOL;

// The request header list of one hop, freed on every way out.
struct HeaderList {
  curl_slist* list = nullptr;
  HeaderList() = default;
  HeaderList(HeaderList const&) = delete;
  HeaderList& operator=(HeaderList const&) = delete;
  ~HeaderList() { curl_slist_free_all(list); }
  void add(std::string const& line) {
    if (curl_slist* grown = curl_slist_append(list, line.c_str())) list = grown;
  }
};

bool startsWith(std::string const& text, char const* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

}  // namespace

AgentTransport::Settings AgentTransport::settingsFor(AgentConfig const& config) {
  Settings settings;
  settings.address = config.address();
  settings.trustedHosts = config.trustedHosts;
  settings.token = !config.gatewayToken.empty() ? Token::kGateway
                   : config.targetToken         ? Token::kTarget
                                                : Token::kNone;
  settings.gatewayToken = config.gatewayToken;
  settings.downloadAuthentication = config.downloadAuthentication;
  settings.clientCert = config.clientCert;
  settings.clientKey = config.clientKey;
  settings.keyPassword = config.keyPassword;
  settings.sslEngine = config.sslEngine;
  settings.caFile = config.caFile;
  settings.caPath = config.caPath;
  settings.proxy = config.proxy;
  settings.noProxy = config.noProxy;
  settings.connectTimeoutS = std::min(30, config.pollTimeoutSeconds);
  settings.documentTimeoutS = config.pollTimeoutSeconds;
  settings.sendTimeoutS = config.feedbackTimeoutSeconds;
  // A backstop behind the agent's own rate watchdog, which decides first.
  settings.lowSpeedBytes = static_cast<long>(config.downloadMinRate);
  settings.lowSpeedS = 2L * config.timeoutSeconds;
  return settings;
}

AgentTransport::AgentTransport(Settings settings)
    : settings_(std::move(settings)), easy_(curl_easy_init()) {
  if (settings_.token == Token::kGateway) targetToken = settings_.gatewayToken;
}

AgentTransport::~AgentTransport() {
  if (easy_ != nullptr) curl_easy_cleanup(easy_);
}

void AgentTransport::setTargetToken(std::string const& token) {
  // The library hands over what its table holds; a gateway token or none
  // at all is the agent's choice.
  if (settings_.token == Token::kTarget) targetToken = token;
}

void AgentTransport::setBaseUrl(std::string const& url) {
  std::lock_guard<std::mutex> guard(answerLock_);
  baseUrl_ = url;
}

void AgentTransport::observeBase(BaseObserver observer) {
  std::lock_guard<std::mutex> guard(answerLock_);
  observer_ = std::move(observer);
}

AgentTransport::Answer AgentTransport::lastAnswer() const {
  std::lock_guard<std::mutex> guard(answerLock_);
  return last_;
}

AgentTransport::Answer AgentTransport::lastBaseAnswer() const {
  std::lock_guard<std::mutex> guard(answerLock_);
  return lastBase_;
}

bool AgentTransport::credentialsFor(std::string const& url, bool artifact) const {
  if (artifact && !settings_.downloadAuthentication) return false;
  std::string host;
  return linkAllowed(url, settings_.address, settings_.trustedHosts, host);
}

bool AgentTransport::download(std::string const& url, std::shared_ptr<curlbuffer> buffer) {
  return exchange(Method::kGet, url, buffer);
}

bool AgentTransport::stream(std::string const& url, std::shared_ptr<curlbuffer> buffer) {
  streaming_ = true;
  resuming_ = buffer->sink && buffer->sink->size() > 0;
  bool const done = exchange(Method::kGet, url, buffer);
  streaming_ = false;
  return done;
}

bool AgentTransport::post(std::string const& url, std::shared_ptr<curlbuffer> buffer) {
  return exchange(Method::kPost, url, buffer);
}

bool AgentTransport::put(std::string const& url, std::shared_ptr<curlbuffer> buffer) {
  return exchange(Method::kPut, url, buffer);
}

std::size_t AgentTransport::writeBody(char* data, std::size_t size, std::size_t count, void* self) {
  auto* const transport = static_cast<AgentTransport*>(self);
  // libcurl reads many buffers before it asks for progress again: a cancel
  // (of an answer that outgrew its memory bound, say) is honoured here too.
  if (transport->cancelled.load()) {
    transport->cutInWrite_ = true;
    return 0;
  }
  long status = 0;
  curl_easy_getinfo(transport->easy_, CURLINFO_RESPONSE_CODE, &status);
  // The body of a redirect is not the resource: it never reaches the sink.
  if (status >= 300 && status < 400) return size * count;
  if (transport->streaming_) {
    // A streamed body is passed on at once: an error page is dropped, a
    // whole body sent in answer to a range ends the transfer.
    if (status != 200 && status != 206) return size * count;
    if (transport->resuming_ && status != 206) return 0;
  }
  if (transport->current_ == nullptr) {
    std::string& reply = transport->reply_;
    reply.append(data, std::min(size * count, kMaxReply - std::min(kMaxReply, reply.size())));
    return size * count;
  }
  return curl_buffer_writer(data, static_cast<unsigned int>(size), static_cast<unsigned int>(count),
                            transport->current_);
}

std::size_t AgentTransport::readBody(char* dest, std::size_t size, std::size_t count, void* self) {
  auto* const transport = static_cast<AgentTransport*>(self);
  std::string const& body = *transport->upload_;
  std::size_t const n = std::min(size * count, body.size() - transport->uploaded_);
  std::memcpy(dest, body.data() + transport->uploaded_, n);
  transport->uploaded_ += n;
  return n;
}

std::size_t AgentTransport::readHeader(char* data, std::size_t size, std::size_t count,
                                       void* self) {
  auto* const transport = static_cast<AgentTransport*>(self);
  std::string const line(data, size * count);
  if (startsWith(line, "HTTP/")) {
    transport->retryAfter_ = -1;  // a new answer (after a redirect or a 100)
    // A server that leaves Nagle's algorithm on and writes an answer's
    // header and body apart holds the body back until this header is
    // acknowledged; on a kept connection the kernel delays that by 40 ms.
    transport->acknowledgeNow();
  } else if (line.size() > 12 && strncasecmp(line.c_str(), "retry-after:", 12) == 0) {
    std::size_t const value = line.find_first_not_of(" \t", 12);
    if (value != std::string::npos)
      transport->retryAfter_ = TransportAnswer::retryAfterSeconds(line.substr(value));
  }
  return size * count;
}

void AgentTransport::acknowledgeNow() {
  int const on = 1;
  for (curl_socket_t const socket : sockets_) {
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
  }
}

int AgentTransport::openedSocket(void* self, curl_socket_t socket, curlsocktype purpose) {
  if (purpose == CURLSOCKTYPE_IPCXN) static_cast<AgentTransport*>(self)->sockets_.push_back(socket);
  return CURL_SOCKOPT_OK;
}

int AgentTransport::closeSocket(void* self, curl_socket_t socket) {
  auto& sockets = static_cast<AgentTransport*>(self)->sockets_;
  sockets.erase(std::remove(sockets.begin(), sockets.end(), socket), sockets.end());
  return close(socket);
}

int AgentTransport::progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<AgentTransport*>(self)->cancelled.load() ? 1 : 0;
}

void AgentTransport::configure(Method method, std::string const& url, curlbuffer& buffer,
                               bool artifact, std::string const& body, curl_slist* headers) {
  CURL* const h = easy_;
  // Options go, the connection and TLS session caches stay.
  curl_easy_reset(h);
  std::string const agent = userAgent();
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_USERAGENT, agent.c_str());
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errors_);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &AgentTransport::writeBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &AgentTransport::readHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &AgentTransport::progress);
  curl_easy_setopt(h, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_SOCKOPTFUNCTION, &AgentTransport::openedSocket);
  curl_easy_setopt(h, CURLOPT_SOCKOPTDATA, this);
  curl_easy_setopt(h, CURLOPT_CLOSESOCKETFUNCTION, &AgentTransport::closeSocket);
  curl_easy_setopt(h, CURLOPT_CLOSESOCKETDATA, this);

  // Deadlines: connecting, a floor on the rate, and a total for everything
  // but an artifact (whose rate the agent watches over its whole length).
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, settings_.connectTimeoutS);
  if (settings_.lowSpeedS > 0) {
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, std::max(1L, settings_.lowSpeedBytes));
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, settings_.lowSpeedS);
  }
  long const total = method != Method::kGet ? settings_.sendTimeoutS
                     : artifact             ? 0
                                            : settings_.documentTimeoutS;
  curl_easy_setopt(h, CURLOPT_TIMEOUT, total);

  // Full speed: a large receive buffer, and connections kept open between
  // polls, feedback and downloads.
  curl_easy_setopt(h, CURLOPT_BUFFERSIZE, settings_.receiveBufferBytes);
  curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(h, CURLOPT_TCP_KEEPIDLE, 60L);
  curl_easy_setopt(h, CURLOPT_TCP_KEEPINTVL, 30L);
  if (!settings_.reuseConnections) {
    curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  }

  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
  // An OpenSSL configuration that still allows TLS 1.0 or 1.1 does not
  // carry the credentials over them: to the server, nor to an https proxy.
  curl_easy_setopt(h, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
  curl_easy_setopt(h, CURLOPT_PROXY_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
  if (!settings_.caFile.empty() || !settings_.caPath.empty()) {
    curl_easy_setopt(h, CURLOPT_CAINFO,
                     settings_.caFile.empty() ? nullptr : settings_.caFile.c_str());
    curl_easy_setopt(h, CURLOPT_CAPATH,
                     settings_.caPath.empty() ? nullptr : settings_.caPath.c_str());
  }
  if (!settings_.proxy.empty()) curl_easy_setopt(h, CURLOPT_PROXY, settings_.proxy.c_str());
  if (!settings_.noProxy.empty()) curl_easy_setopt(h, CURLOPT_NOPROXY, settings_.noProxy.c_str());
  if (credentialsFor(url, artifact) && !settings_.clientCert.empty()) {
    if (!settings_.sslEngine.empty()) {
      curl_easy_setopt(h, CURLOPT_SSLENGINE, settings_.sslEngine.c_str());
      curl_easy_setopt(h, CURLOPT_SSLKEYTYPE, "ENG");
    }
    curl_easy_setopt(h, CURLOPT_SSLCERT, settings_.clientCert.c_str());
    if (!settings_.clientKey.empty())
      curl_easy_setopt(h, CURLOPT_SSLKEY, settings_.clientKey.c_str());
    if (!settings_.keyPassword.empty())
      curl_easy_setopt(h, CURLOPT_KEYPASSWD, settings_.keyPassword.c_str());
  }

  if (method == Method::kPost) {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  } else if (method == Method::kPut) {
    upload_ = &body;
    uploaded_ = 0;
    curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(h, CURLOPT_READFUNCTION, &AgentTransport::readBody);
    curl_easy_setopt(h, CURLOPT_READDATA, this);
    curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.size()));
  } else if (unsigned int const resumeFrom = buffer.sink ? buffer.sink->size() : 0) {
    curl_easy_setopt(h, CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(resumeFrom));
  }
}

bool AgentTransport::exchange(Method method, std::string const& url,
                              std::shared_ptr<curlbuffer> const& buffer) {
  std::lock_guard<std::mutex> guard(transferLock);
  cancelled.store(false);
  cutInWrite_ = false;
  // A file is an artifact; documents are read into memory.
  bool const artifact = method == Method::kGet &&
                        (streaming_ || dynamic_cast<fileio*>(buffer->sink.get()) != nullptr);
  std::string const body =
      method != Method::kGet && buffer->sink ? buffer->sink->data() : std::string();
  // A POST's or PUT's answer is kept apart; its sink holds the request.
  current_ = method == Method::kGet ? buffer.get() : nullptr;
  Answer answer;
  CURLcode code = CURLE_OK;
  std::string hop = links_.revealed(url);
  std::string const origin = linkOrigin(hop);
  long connections = 0;
  for (int hops = 0;; ++hops) {
    answer = Answer();
    answer.url = hop;
    errors_[0] = '\0';
    retryAfter_ = -1;
    reply_.clear();
    bool const credentials = credentialsFor(hop, artifact);
    std::string const scheme = linkOrigin(hop).substr(0, 5);
    if (startsWith(settings_.address, "https:") && scheme == "http:") {
      // A server reached over TLS does not send the device to plain HTTP.
      code = kRefusedHop;
      answer.error = "a plain http link while address is https, not followed";
      break;
    }
    if (method != Method::kGet && hops > 0 && linkOrigin(hop) != origin) {
      // What a device sends (its attributes, an installer's output) goes
      // to the host it was meant for only.
      code = kRefusedHop;
      answer.error = "a redirect to another host (" + shownLink(hop) + "), not followed with a " +
                     (method == Method::kPost ? "POST" : "PUT");
      break;
    }
    HeaderList headers;
    if (method == Method::kGet) {
      headers.add("Content-Type: application/json");
      headers.add("Accept: application/json");
      headers.add("charsets: utf-8");
    } else {
      headers.add("Accept: application/json");
      headers.add("Content-Type: application/json;charset=UTF-8");
    }
    if (credentials && settings_.token != Token::kNone) {
      char const* const kind =
          settings_.token == Token::kGateway ? "GatewayToken " : "TargetToken ";
      headers.add("Authorization: " + std::string(kind) + targetToken);
    }
    configure(method, hop, *buffer, artifact, body, headers.list);
    code = curl_easy_perform(easy_);
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_easy_getinfo(easy_, CURLINFO_HTTP_CONNECTCODE, &answer.proxyStatus);
    answer.retryAfterS = retryAfter_;
    long opened = 0;
    curl_easy_getinfo(easy_, CURLINFO_NUM_CONNECTS, &opened);
    connections += opened;
    if (code != CURLE_OK) answer.error = errors_;
    char* next = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_REDIRECT_URL, &next);
    if (code != CURLE_OK || answer.status < 300 || answer.status >= 400 || next == nullptr) break;
    if (hops == kMaxRedirects) {
      code = CURLE_TOO_MANY_REDIRECTS;
      answer.error = "more than 10 redirects";
      break;
    }
    // Each hop is judged on its own: credentials never follow a redirect
    // to another host.
    hop = next;
  }
  current_ = nullptr;
  upload_ = nullptr;
  if (code == CURLE_WRITE_ERROR && cutInWrite_) code = CURLE_ABORTED_BY_CALLBACK;
  // A body cut short is accepted for a download; an artifact's digest decides.
  if (method == Method::kGet && code == CURLE_PARTIAL_FILE) code = CURLE_OK;
  answer.code = code;
  answer.connections = connections;
  answer.reply = std::move(reply_);
  if (method == Method::kGet) {
    buffer->result = code;
    buffer->httpCode = answer.status;
  }
  BaseObserver observer;
  std::string observed;
  {
    std::lock_guard<std::mutex> answers(answerLock_);
    answer.serial = ++exchanges_;
    last_ = answer;
    if (method == Method::kGet && !baseUrl_.empty() && url == baseUrl_) {
      lastBase_ = answer;
      observer = observer_;
      if (observer && buffer->sink && buffer->sink->size() <= kMaxObservedBody)
        observed = buffer->sink->data();
    }
  }
  if (observer) observer(code == CURLE_OK ? answer.status : 0, observed);
  return code == CURLE_OK;
}
