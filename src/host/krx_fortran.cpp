// The exported entries: each turns the host's by-reference arguments into plain values, applies the
// frame and forwards to one model operation.
#include "host/krx_fortran.h"

#include <algorithm>
#include <cstring>

namespace krx {

KRXDATA *&current_model() {
  static KRXDATA *model = nullptr;
  return model;
}

std::string trim_host_string(const char *text, int length, std::size_t field) {
  std::string buffer(field, '\0');
  std::size_t end = length < 0 ? 0 : std::min<std::size_t>(std::size_t(length), field - 1);
  // Never read past the host's field: nothing beyond the cut is kept anyway.
  if (text) {
    for (std::size_t i = 0; i < end && text[i] != '\0'; ++i) buffer[i] = text[i];
  }
  buffer[end] = '\0';
  while (end > 0 && buffer[end - 1] == ' ') buffer[--end] = '\0';
  buffer.resize(std::strlen(buffer.c_str()));
  return buffer;
}

}  // namespace krx

using krx::current_model;

extern "C" {

KRX_API void KRX_CREATE(int *node_capacity, int *mode_capacity, int *status) {
  try {
    if (current_model()) {
      krx::release_all_models();
      current_model() = nullptr;
    }
    current_model() = krx::create_model(uint32_t(*node_capacity), *mode_capacity);
  } catch (...) {
    current_model() = nullptr;
  }
  *status = current_model() ? 0 : 1;
}

KRX_API void KRX_TERMINATE(int *status) {
  // The current model is deliberately left as it was; the host must call KRX_CREATE next.
  krx::run_entry(status, [](krx::KRXDATA *) {
    krx::release_all_models();
    return 1;
  });
}

}  // extern "C"
