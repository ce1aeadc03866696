#include "fuzzsupport.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>

#include "format/krxread.h"
#include "host/krx_fortran.h"
#include "host/krxset.h"
#include "inspect/krxlist.h"
#include "krx/krx.h"
#include "model/krxtools.h"

namespace krxfuzz {
namespace {

int drop_message(const char *) { return 0; }
int drop_error(int, const char *) { return 0; }
int quiet(int *) { return 1; }

}  // namespace

void silence_host() { krx_register_host_callbacks(drop_message, drop_error, quiet); }

FILE *memory_file(const uint8_t *data, std::size_t size, std::string *path) {
  int fd = memfd_create("krxfuzz", 0);
  if (fd < 0) return nullptr;
  std::size_t done = 0;
  while (done < size) {
    ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) {
      close(fd);
      return nullptr;
    }
    done += std::size_t(n);
  }
  FILE *file = fdopen(fd, "rb");
  if (!file) {
    close(fd);
    return nullptr;
  }
  std::rewind(file);
  if (path) *path = "/proc/self/fd/" + std::to_string(fd);
  return file;
}

void list_every_block(krx::KRXDATA *model, FILE *out) {
  const bool many = model->modes.size() > kLongListingModes;
  for (int block = 1; block <= 32; ++block)
    if (!(many && (block == 23 || block == 26))) krx::list_block(model, block, out);
}

krx::KRXDATA *read_bytes(const uint8_t *data, std::size_t size) {
  FILE *file = memory_file(data, size);
  if (!file) return nullptr;
  krx::KRXDATA *model = krx::create_model(0, 0);
  if (!model) {
    std::fclose(file);
    return nullptr;
  }
  int ok = krx::read_krx(model, file, "fuzz.krx");
  if (model->own.file != file) std::fclose(file);  // the model never took it
  if (ok) return model;
  krx::release_model(model);
  return nullptr;
}

namespace {

template <class T>
void put(std::vector<uint8_t> &bytes, T value) {
  const std::size_t at = bytes.size();
  bytes.resize(at + sizeof value);
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

template <class Real>
void put_eigen_records(std::vector<uint8_t> &bytes, int32_t modes, double (*eigenvalue)(int32_t)) {
  for (int32_t k = 1; k <= modes; ++k) {
    const double lambda = eigenvalue(k), omega = std::sqrt(std::fabs(lambda));
    put(bytes, k);
    for (double v : {lambda, omega / krx::kTwoPi, omega, 1.0, lambda}) put(bytes, Real(v));
  }
}

}  // namespace

std::vector<uint8_t> modes_only_file(int32_t modes, double (*eigenvalue)(int32_t), bool single) {
  std::vector<uint8_t> bytes;
  bytes.reserve(660 + std::size_t(modes) * (single ? 28 : 48));
  put(bytes, int32_t(single ? 50 : 60));
  bytes.resize(bytes.size() + 544, 0);  // header
  const std::size_t flags = bytes.size();
  bytes.resize(flags + 100, 0);
  bytes[flags] = bytes[flags + 3] = bytes[flags + 4] = 1;  // nodal coordinates, eigenvalues, mode shapes
  put(bytes, int32_t(0));  // block 4: no nodes, 3 coordinates each
  put(bytes, int32_t(3));
  put(bytes, modes);  // block 7
  if (single) put_eigen_records<float>(bytes, modes, eigenvalue);
  else put_eigen_records<double>(bytes, modes, eigenvalue);
  put(bytes, modes);  // block 8: no nodes, so each record is its mode number alone
  put(bytes, int32_t(0));
  for (int32_t k = 1; k <= modes; ++k) put(bytes, k);
  return bytes;
}

int build_session(int nodes, int modes, StatusObserver observe) {
  int status = 0, ok = 1;
  const char *entry = "KRX_SET_HEADER";
  auto check = [&]() {
    if (observe) observe(entry, status);
    ok = ok && status == 0;
  };
  auto internal = [&](const char *name, int done) {
    entry = name;
    status = done == 1 ? 0 : 1;
    check();
  };
  KRX_CREATE(&nodes, &modes, &status);
  if (observe) observe("KRX_CREATE", status);
  if (status != 0) return 0;
  KRX_SET_HEADER("Session", "session.dat", "SYNTH", "one", "two", "", &status, 7, 11, 5, 3, 3, 0);
  check();
  for (int n = 0; n < nodes; ++n) {
    int id = 10 + 3 * n;
    double xyz[3] = {double(n % 3), double(n / 3), 0.5 * n}, mass = 1.0 + 0.25 * n;
    double a = 0.1 * (n + 1), b = 0.2, c = 0.3, d = 0.01, z = 0.0;
    entry = "KRX_SET_NODE_COORDINATES_VEC", KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status), check();
    entry = "KRX_SET_NODAL_MASS", KRX_SET_NODAL_MASS(&id, &mass, &status), check();
    entry = "KRX_SET_NODAL_INERTIA", KRX_SET_NODAL_INERTIA(&id, &a, &b, &c, &d, &z, &z, &status), check();
    for (int m = 0; m < modes; ++m) {
      int number = m + 1;
      double v[6], s[6];
      for (int k = 0; k < 6; ++k) {
        v[k] = std::sin(0.7 * (m + 1) * (n + 1) + k);
        s[k] = 10.0 * (m + 1) + n + 0.5 * k;
      }
      entry = "KRX_SET_MODE_SHAPE_VEC", KRX_SET_MODE_SHAPE_VEC(&number, &id, v, &status), check();
      entry = n % 2 ? "KRX_SET_MODAL_STRAIN_VEC" : "KRX_SET_MODAL_STRESS_VEC";
      if (n % 2 == 0) KRX_SET_MODAL_STRESS_VEC(&number, &id, s, &status), check();
      if (n % 2 == 1) KRX_SET_MODAL_STRAIN_VEC(&number, &id, s, &status), check();
    }
  }
  for (int m = 0; m < modes; ++m) {
    int number = m + 1;
    double g = 1.0 + m, k = g * std::pow(6.28318530718 * (2.0 + 3.0 * m), 2);
    entry = "KRX_SET_GENERALIZED_MASS", KRX_SET_GENERALIZED_MASS(&number, &number, &g, &status), check();
    entry = "KRX_SET_GENERALIZED_STIFFNESS", KRX_SET_GENERALIZED_STIFFNESS(&number, &number, &k, &status), check();
  }
  for (int n = 0; n + 3 < nodes; n += 3) {
    int four = 4, ids[4] = {10 + 3 * n, 13 + 3 * n, 22 + 3 * n, 19 + 3 * n};
    entry = "KRX_SET_FACE", KRX_SET_FACE(&four, ids, &status), check();
  }
  int corner = 10;
  entry = "KRX_SET_INTERFACE_NODE", KRX_SET_INTERFACE_NODE(&corner, &status), check();
  krx::KRXDATA *model = krx::current_model();
  const double pre[6] = {1, 2, 3, 4, 5, 6};
  internal("set_pre_values", krx::set_pre_values(model, 10, krx::kModalStress, pre));
  for (int m = 0; m < modes; ++m) {
    internal("set_modal_preload", krx::set_modal_preload(model, m + 1, 0.5 * (m + 1)));
    internal("set_modal_load", krx::set_modal_load(model, 0, m + 1, -1.0 * (m + 1)));
  }
  internal("set_modal_load_label", krx::set_modal_load_label(model, 0, "gravity"));
  return ok;
}

}  // namespace krxfuzz
