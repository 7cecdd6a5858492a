// The cancelAction document.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ddi/document_parsers.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  hawkbit_query_t::cancel_action_t cancel;
  cancel.url = "http://fuzz/cancelAction/1";
  bool const found = parse_cancel_action(text, cancel);
  // Starting from an empty record, the result says whether a stop id was read.
  if (found == cancel.stop_id.empty()) std::abort();
  if (cancel.url != "http://fuzz/cancelAction/1") std::abort();
  (void)is_valid(cancel);
  return 0;
}
