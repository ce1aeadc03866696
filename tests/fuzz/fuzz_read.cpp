// Fuzz target: read a file and list every block, as the dump tool does.
#include "fuzzsupport.h"
#include "inspect/krxlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  krxfuzz::silence_host();
  static FILE *sink = std::fopen("/dev/null", "w");
  krx::KRXDATA *model = krxfuzz::read_bytes(data, size);
  if (!model) return 0;
  krxfuzz::list_every_block(model, sink);
  krx::release_model(model);
  return 0;
}
