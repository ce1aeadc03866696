// Fuzz target: the writer's option text, parsed and its messages reported.
#include <string>

#include "format/krxoptions.h"
#include "fuzzsupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  krxfuzz::silence_host();
  std::string text(reinterpret_cast<const char *>(data), size);
  krx::WriteOptions options = krx::parse_write_options(text.c_str());
  krx::report_write_options(options);
  return 0;
}
