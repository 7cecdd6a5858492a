#include "transport/curlmanager.h"

#include <cstdio>

#include "io/logline.h"
#include "transport/curlholder.h"

namespace {

// Every DDI request is HTTP or HTTPS, redirects included: a link from the
// server must not make libcurl read a local file or speak another protocol
// to another host. Set last, right before the transfer runs.
void allowOnlyHttp(CURL* handle) {
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
}

}  // namespace

std::string userAgent() {
  char text[1024];
  std::snprintf(text, sizeof text, "libcurl/%s", curl_version_info(CURLVERSION_NOW)->version);
  return text;
}

CurlManager::CurlManager() { curl_global_init(CURL_GLOBAL_ALL); }

CurlManager::~CurlManager() { curl_global_cleanup(); }

void CurlManager::setTargetToken(std::string const& token) { targetToken = token; }

void CurlManager::cancelTransfer() { cancelled.store(true); }

bool CurlManager::download(std::string const& url, std::shared_ptr<curlbuffer> buffer) {
  std::lock_guard<std::mutex> guard(transferLock);
  cancelled.store(false);

  curlholder curl;
  curl.addHeader("Content-Type: application/json");
  curl.addHeader("Accept: application/json");
  curl.addHeader("charsets: utf-8");
  curl.addHeader(("Authorization: TargetToken " + targetToken).c_str());
  handle = curl.easy();
  std::string const agent = userAgent();

  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, curl.headers());
  curl_easy_setopt(handle, CURLOPT_USERAGENT, agent.c_str());
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, buffer.get());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, curl_buffer_writer);
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, curl_progress_func);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);

  unsigned int const resumeFrom = buffer->sink ? buffer->sink->size() : 0;
  if (resumeFrom != 0) {
    logLine("[I] libtamrelcore -> Resuming file from %llu bytes\n",
            static_cast<unsigned long long>(resumeFrom));
    curl_easy_setopt(handle, CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(resumeFrom));
  }
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 1L);
  curl_easy_setopt(handle, CURLOPT_VERBOSE, 0L);
  allowOnlyHttp(handle);

  CURLcode code = curl_easy_perform(handle);
  buffer->result = code;
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  buffer->httpCode = status;

  curl.release();
  handle = nullptr;

  if (code == CURLE_PARTIAL_FILE) {
    // A body cut short by the server is accepted; an artifact's digest decides.
    buffer->result = 0;
    code = CURLE_OK;
  }
  if (code != CURLE_OK) {
    logLine("[E] libtamrelcore -> Download failed: %s\n", curl_easy_strerror(code));
    return false;
  }
  return true;
}

bool CurlManager::post(std::string const& url, std::shared_ptr<curlbuffer> buffer) {
  return send(url, buffer, false);
}

bool CurlManager::put(std::string const& url, std::shared_ptr<curlbuffer> buffer) {
  return send(url, buffer, true);
}

// POST and PUT differ only in how the body is handed to libcurl.
bool CurlManager::send(std::string const& url, std::shared_ptr<curlbuffer> const& buffer,
                       bool upload) {
  std::lock_guard<std::mutex> guard(transferLock);
  cancelled.store(false);

  curlholder curl;
  handle = curl.easy();
  curl.addHeader("Accept: application/json");
  curl.addHeader("Content-Type: application/json;charset=UTF-8");
  curl.addHeader(("Authorization: TargetToken " + targetToken).c_str());
  std::string const agent = userAgent();

  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, curl.headers());
  curl_easy_setopt(handle, CURLOPT_USERAGENT, agent.c_str());
  curl_easy_setopt(handle, upload ? CURLOPT_UPLOAD : CURLOPT_POST, 1L);

  // Lives until the transfer is over: libcurl does not copy POSTFIELDS.
  std::string const body = buffer->sink ? buffer->sink->data() : std::string();
  if (upload) {
    curl_easy_setopt(handle, CURLOPT_READDATA, buffer.get());
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, curl_buffer_reader);
    curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.size()));
  } else {
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  }
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  if (!upload) curl_easy_setopt(handle, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));

  char errors[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errors);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 1L);
  curl_easy_setopt(handle, CURLOPT_VERBOSE, 0L);
  allowOnlyHttp(handle);

  CURLcode const code = curl_easy_perform(handle);
  curl.release();
  handle = nullptr;

  if (code != CURLE_OK) {
    logLine(upload ? "[E] libtamrelcore -> Unable to PUT data: %s (%s)\n"
                   : "[E] libtamrelcore -> Unable to POST data: %s (%s)\n",
            curl_easy_strerror(code), errors);
    return false;
  }
  return true;
}
