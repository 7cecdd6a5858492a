#ifndef TAMREL_TRANSPORT_CURLBUFFER_H_
#define TAMREL_TRANSPORT_CURLBUFFER_H_

#include <cstddef>
#include <memory>

#include "io/hashbase.h"
#include "io/iobase.h"
#include "properties/simple_signal.h"

// One HTTP exchange between a caller and CurlManager: the owned body sink (or
// request source), the transfer's outcome, and a signal raised for every body
// chunk stored. Always held by std::shared_ptr for the length of one exchange.
struct curlbuffer {
  explicit curlbuffer(std::unique_ptr<iobase> body) : sink(std::move(body)) {}
  curlbuffer(std::unique_ptr<iobase> body, std::unique_ptr<hashbase> hash) : sink(std::move(body)) {
    sink->setHash(std::move(hash));
  }
  // The sink goes first (a file is closed there), then the signal.
  ~curlbuffer() { sink.reset(); }

  int result = 0;     // libcurl code of the last download (a partial file counts as 0)
  long httpCode = 0;  // HTTP status of the last download, 0 without a response
  simple_signal::signal<int> written;  // bytes the sink accepted, per chunk
  std::unique_ptr<iobase> sink;
};

class CurlManager;

// libcurl write callback: hands the chunk to the sink, emits `written` with
// what it stored and returns that count (short counts end the transfer).
std::size_t curl_buffer_writer(char* data, unsigned int size, unsigned int nmemb,
                               curlbuffer* buffer);
// libcurl read callback: supplies the next piece of the sink; 0 ends the body.
std::size_t curl_buffer_reader(void* dest, unsigned int size, unsigned int nitems, void* buffer);
// libcurl transfer-information callback: 1 (abort) once the manager's cancel
// flag is set, else 0. The byte counters are ignored.
int curl_progress_func(void* manager, long long dltotal, long long dlnow, long long ultotal,
                       long long ulnow);

#endif  // TAMREL_TRANSPORT_CURLBUFFER_H_
