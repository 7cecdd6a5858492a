#include "ddiserver/resourceanswer.h"

#include <fcntl.h>
#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "ddiserver/ddiserver.h"

namespace tamrel::ddiserver {
namespace {

enum class RangeKind { kNone, kSatisfiable, kUnsatisfiable };

// Parses a single "bytes=" range against `size`; anything else (several
// ranges, other units) is treated as no range, which a server may do.
RangeKind parseRange(std::string const& header, size_t size, size_t& first, size_t& last) {
  std::string const prefix = "bytes=";
  if (header.compare(0, prefix.size(), prefix) != 0) return RangeKind::kNone;
  std::string const ranges = header.substr(prefix.size());
  size_t const dash = ranges.find('-');
  if (dash == std::string::npos || ranges.find(',') != std::string::npos) return RangeKind::kNone;
  std::string const from = ranges.substr(0, dash);
  std::string const to = ranges.substr(dash + 1);
  auto digits = [](std::string const& s) {
    return !s.empty() && s.size() < 19 &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  if (from.empty()) {  // suffix: the last n bytes
    if (!digits(to)) return RangeKind::kNone;
    size_t const n = std::stoull(to);
    if (n == 0 || size == 0) return RangeKind::kUnsatisfiable;
    first = n >= size ? 0 : size - n;
    last = size - 1;
    return RangeKind::kSatisfiable;
  }
  if (!digits(from) || (!to.empty() && !digits(to))) return RangeKind::kNone;
  first = std::stoull(from);
  if (first >= size) return RangeKind::kUnsatisfiable;
  last = to.empty() ? size - 1 : std::min<size_t>(std::stoull(to), size - 1);
  if (last < first) return RangeKind::kNone;
  return RangeKind::kSatisfiable;
}

}  // namespace

void ResourceAnswer::answer(httplib::Request const& req, httplib::Response& res,
                            Resource const& resource, Fault const* fault) const {
  std::shared_ptr<std::string const> const data = resource.body;
  std::string const file = resource.file;
  Reader const read = [data, file](size_t offset, size_t n, std::string& out) {
    if (file.empty()) {
      out.assign(*data, offset, n);
      return true;
    }
    int const fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.resize(n);
    ssize_t const got = pread(fd, &out[0], n, static_cast<off_t>(offset));
    close(fd);
    return got == static_cast<ssize_t>(n);
  };
  if (!resource.artifact) {
    res.status = resource.status;
    sendBody(res, read, 0, resource.body->size(), resource.contentType, fault);
    return;
  }
  res.set_header("Accept-Ranges", "bytes");
  std::string const range = req.get_header_value("Range");
  size_t const size = file.empty() ? resource.body->size() : resource.fileSize;
  size_t first = 0, last = 0;
  RangeKind const kind = range.empty() || (fault && fault->ignoreRange)
                             ? RangeKind::kNone
                             : parseRange(range, size, first, last);
  if (kind == RangeKind::kUnsatisfiable) {
    res.status = 416;
    res.set_header("Content-Range", "bytes */" + std::to_string(size));
    return;
  }
  if (kind == RangeKind::kSatisfiable) {
    res.status = 206;
    res.set_header("Content-Range", "bytes " + std::to_string(first) + "-" + std::to_string(last) +
                                        "/" + std::to_string(size));
    sendBody(res, read, first, last - first + 1, resource.contentType, fault);
    return;
  }
  res.status = 200;
  sendBody(res, read, 0, size, resource.contentType, fault);
}

void ResourceAnswer::sendBody(httplib::Response& res, Reader const& read, size_t offset,
                              size_t length, std::string const& contentType,
                              Fault const* fault) const {
  if (fault && fault->trailingBytes != 0) {
    sendOverlong(res, read, offset, length, contentType, *fault);
    return;
  }
  if (length == 0) {
    res.set_content("", contentType);
    return;
  }
  size_t const limit = fault && fault->dropAfterBytes >= 0
                           ? std::min<size_t>(length, static_cast<size_t>(fault->dropAfterBytes))
                           : length;
  // Pieces of at most 1 MiB, so that large bodies are never read whole.
  size_t const piece = fault && fault->chunkBytes > 0 ? static_cast<size_t>(fault->chunkBytes)
                                                      : std::min<size_t>(length, 1 << 20);
  int const delayMs = fault ? fault->delayMs : 0;
  // Content-Length announces `length`; returning false makes httplib close
  // the connection, which cuts the body short at `limit`.
  res.set_content_provider(length, contentType,
                           [this, read, offset, limit, piece, delayMs](size_t sent, size_t left,
                                                                       httplib::DataSink& sink) {
                             if (sent >= limit) return false;
                             if (delayMs > 0) sleep(delayMs);
                             if (stopping_) return false;
                             size_t const n = std::min({left, limit - sent, piece});
                             std::string bytes;
                             return read(offset + sent, n, bytes) &&
                                    sink.write(bytes.data(), bytes.size());
                           });
}

void ResourceAnswer::sendOverlong(httplib::Response& res, Reader const& read, size_t offset,
                                  size_t length, std::string const& contentType,
                                  Fault const& fault) const {
  size_t const piece = fault.chunkBytes > 0 ? static_cast<size_t>(fault.chunkBytes) : 65536;
  long long const total =
      fault.trailingBytes < 0 ? -1 : static_cast<long long>(length) + fault.trailingBytes;
  int const delayMs = fault.delayMs;
  auto const filler = std::make_shared<std::string const>(piece, 'x');
  res.set_chunked_content_provider(contentType, [this, read, offset, length, piece, total, delayMs,
                                                 filler](size_t sent, httplib::DataSink& sink) {
    if (total >= 0 && static_cast<long long>(sent) >= total) {
      sink.done();
      return true;
    }
    if (delayMs > 0) sleep(delayMs);
    if (stopping_) return false;
    size_t n = piece;
    if (total >= 0) n = std::min<size_t>(n, static_cast<size_t>(total) - sent);
    if (sent < length) {
      std::string bytes;
      return read(offset + sent, std::min(n, length - sent), bytes) &&
             sink.write(bytes.data(), bytes.size());
    }
    return sink.write(filler->data(), n);
  });
}

void ResourceAnswer::sleep(int ms) const {
  auto const until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!stopping_ && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min(ms, 10)));
  }
}

}  // namespace tamrel::ddiserver
