// Fuzz target: read two files and compare them. The first four bytes (little-endian) give the
// length of the base file, taken modulo the bytes that follow; the new file is the rest.
#include <cstring>

#include "fuzzsupport.h"
#include "inspect/krxcompare.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  if (size < 4) return 0;
  krxfuzz::silence_host();
  krx::set_compare_ends_process(false);
  uint32_t split = 0;
  std::memcpy(&split, data, 4);
  data += 4;
  size -= 4;
  std::size_t first = size ? split % (size + 1) : 0;
  krx::KRXDATA *base = krxfuzz::read_bytes(data, first);
  krx::KRXDATA *fresh = base ? krxfuzz::read_bytes(data + first, size - first) : nullptr;
  if (base && fresh) krx::compare_files(base, fresh, -1, krx::kDefaultCompareTolerance);
  if (fresh) krx::release_model(fresh);
  if (base) krx::release_model(base);
  return 0;
}
