#ifndef TAMREL_TRANSPORT_CURLMANAGER_H_
#define TAMREL_TRANSPORT_CURLMANAGER_H_

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include <curl/curl.h>

#include "transport/curlbuffer.h"

// "libcurl/<version>" of the libcurl in use.
std::string userAgent();

// The library's only HTTP client. Every operation makes, configures, runs and
// frees its own easy handle; nothing survives from one request to the next.
// Transfers on one manager run one at a time (transferLock). HTTP statuses are
// never judged here: a 404 with a body is a successful transfer.
class CurlManager {
 public:
  // Runs libcurl's global initialisation (reference-counted by libcurl).
  CurlManager();
  // Runs libcurl's global clean-up.
  ~CurlManager();
  CurlManager(CurlManager const&) = delete;
  CurlManager& operator=(CurlManager const&) = delete;

  // Sets the DDI target token sent by every later request. Takes no lock:
  // call it while no transfer is starting.
  virtual void setTargetToken(std::string const& token);
  // GET `url` into buffer->sink, resuming from the sink's size when it is not
  // 0. Stores libcurl's code in buffer->result (a partial file counts as 0)
  // and the HTTP status in buffer->httpCode. True on success.
  virtual bool download(std::string const& url, std::shared_ptr<curlbuffer> buffer);
  // POST buffer->sink->data() as a JSON body. True when the exchange completed.
  virtual bool post(std::string const& url, std::shared_ptr<curlbuffer> buffer);
  // PUT the body read from buffer->sink. True when the exchange completed.
  virtual bool put(std::string const& url, std::shared_ptr<curlbuffer> buffer);
  // Aborts the running download at its next progress call. Lock-free, callable
  // from any thread; a cancel before a transfer starts is forgotten.
  virtual void cancelTransfer();

  CURL* handle = nullptr;
  std::mutex transferLock;
  std::atomic<bool> cancelled{false};
  std::string targetToken;

 private:
  bool send(std::string const& url, std::shared_ptr<curlbuffer> const& buffer, bool upload);
};

#endif  // TAMREL_TRANSPORT_CURLMANAGER_H_
