// The poll answer, as the server (or anyone in between) may send it.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "ddi/document_parsers.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  try {
    hawkbit_query_t const result = parse_status_response(text);
    (void)is_valid(result);
  } catch (std::invalid_argument const&) {
    // A polling interval piece without digits: the documented conversion error.
  } catch (std::out_of_range const&) {
    // A polling interval piece beyond int: the documented conversion error.
  }
  return 0;
}
