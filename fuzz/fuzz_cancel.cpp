// The cancelAction document.
#include <cstddef>
#include <cstdint>
#include <string>

#include "plugin/libtamrelcore.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static libtamrelcore client(nullptr);
  std::string const text(reinterpret_cast<char const*>(data), size);
  hawkbit_query_t::cancel_action_t cancel;
  client.parseCancelAction(text, cancel);
  (void)is_valid(cancel);
  return 0;
}
