// The two exported write entries. They treat the output path differently on purpose:
// KRX_WRITE_KRX trims it like every host string (at most 1023 characters, trailing blanks
// removed); KRX_WRITE_VELOX_KRX copies exactly the hidden length, blanks and all, without limit.
#include <cstring>
#include <memory>
#include <string>
#include <new>

#include "format/krxwrite.h"
#include "host/krx_fortran.h"
#include "processing/krxeigen.h"

extern "C" {

KRX_API void KRX_WRITE_KRX(const char *path, int *status, int path_len) {
  krx::run_entry(status, [&](krx::KRXDATA *model) {
    std::string name = krx::trim_host_string(path, path_len, 1024);
    return krx::write_krx(model, name.c_str());
  });
}

KRX_API void KRX_WRITE_VELOX_KRX(const char *path, int *normal_modes, int *additional_modes,
                                 int *status, int path_len) {
  krx::run_entry(status, [&](krx::KRXDATA *model) {
    // The result is ignored on purpose: the file is written in any case.
    krx::add_generalized_masses(model, *normal_modes, *additional_modes);
    std::unique_ptr<char[]> name;
    if (path_len >= 0) name.reset(new (std::nothrow) char[std::size_t(path_len) + 1]());
    if (!name) {
      krx::report_allocation_failure(1013, "..\\krx_fortran");
      return 0;
    }
    if (path && path_len > 0) std::memcpy(name.get(), path, std::size_t(path_len));
    return krx::write_krx(model, name.get());
  });
}

}  // extern "C"
