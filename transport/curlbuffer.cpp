#include "transport/curlbuffer.h"

#include <cstring>

#include "io/logline.h"
#include "transport/curlmanager.h"

std::size_t curl_buffer_writer(char* data, unsigned int size, unsigned int nmemb,
                               curlbuffer* buffer) {
  if (buffer == nullptr || !buffer->sink) return 0;
  unsigned int const stored = buffer->sink->write(data, size * nmemb);
  buffer->written(static_cast<int>(stored));
  return stored;
}

std::size_t curl_buffer_reader(void* dest, unsigned int size, unsigned int nitems, void* buffer) {
  auto* record = static_cast<curlbuffer*>(buffer);
  if (record == nullptr || !record->sink) return 0;
  unsigned int length = size * nitems;
  std::shared_ptr<char> piece = record->sink->read(length);
  if (length > 0) std::memcpy(dest, piece.get(), length);
  return length;
}

int curl_progress_func(void* manager, long long, long long, long long, long long) {
  if (manager == nullptr) {
    logLine("[E] libtamrelcore -> No CurlManager instance provided\n");
    // Nobody could ever cancel this transfer; let it run to its end.
    return 0;
  }
  return static_cast<CurlManager*>(manager)->cancelled.load() ? 1 : 0;
}
