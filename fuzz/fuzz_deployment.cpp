// The deploymentBase document.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ddi/document_parsers.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  hawkbit_query_t::deployment_t deployment;
  deployment.url = "http://fuzz/deploymentBase/1";
  parse_deployment_base(text, deployment);
  // The text is kept before parsing, whatever the parser makes of it; the
  // link URL is never touched.
  if (!text.empty() && deployment.json != text) std::abort();
  if (deployment.url != "http://fuzz/deploymentBase/1") std::abort();
  (void)is_valid(deployment);
  (void)(deployment.chunks == deployment.chunks);
  return 0;
}
