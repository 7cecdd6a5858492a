#ifndef TAMREL_TRANSPORT_CURLHOLDER_H_
#define TAMREL_TRANSPORT_CURLHOLDER_H_

#include <curl/curl.h>

// Owns the libcurl resources of one transfer: the easy handle and the request
// header list, freed in that order on every way out. Neither copied nor
// moved: it lives on the stack of the transfer it serves.
class curlholder {
 public:
  curlholder() : easy_(curl_easy_init()) {}
  ~curlholder() { release(); }
  curlholder(curlholder const&) = delete;
  curlholder& operator=(curlholder const&) = delete;

  CURL* easy() const { return easy_; }
  curl_slist* headers() const { return headers_; }
  void addHeader(char const* line) {
    if (curl_slist* grown = curl_slist_append(headers_, line)) headers_ = grown;
  }
  // Frees everything now (idempotent).
  void release() {
    if (easy_ != nullptr) curl_easy_cleanup(easy_);
    if (headers_ != nullptr) curl_slist_free_all(headers_);
    easy_ = nullptr;
    headers_ = nullptr;
  }

 private:
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
};

#endif  // TAMREL_TRANSPORT_CURLHOLDER_H_
