// A C++ program built against an installed krxlib through find_package(krxlib) and krx::krxlib
// only. It writes a four-node plate with two modes to the file named by its argument.
#include <array>
#include <cstdio>
#include <string>

#include <krx/krx.h>

namespace {

bool check(const char *entry, int status) {
  if (status != 0) std::fprintf(stderr, "c++ consumer: %s failed\n", entry);
  return status == 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: cxx_consumer <out.krx>\n");
    return 2;
  }
  int status = 0, nodes = 4, modes = 2;
  KRX_CREATE(&nodes, &modes, &status);
  if (!check("KRX_CREATE", status)) return 1;
  const std::string title = "C++ consumer", blank = " ";
  KRX_SET_HEADER(title.data(), blank.data(), blank.data(), blank.data(), blank.data(), blank.data(),
                 &status, int(title.size()), 1, 1, 1, 1, 1);
  bool ok = check("KRX_SET_HEADER", status);
  std::array<std::array<double, 3>, 4> corners{{{1, 1, 0}, {2, 1, 0}, {2, 2, 0}, {1, 2, 0}}};
  std::array<int, 4> ids{1, 2, 3, 4};
  for (int k = 0; k < 4; ++k) {
    double mass = 1.0;
    std::array<std::array<double, 6>, 2> shapes{{{1, 0, 0, 0, 0, 0}, {0, 1, 0, 0, 0, 0}}};
    KRX_SET_NODE_COORDINATES_VEC(&ids[k], corners[k].data(), &status);
    ok = ok && check("KRX_SET_NODE_COORDINATES_VEC", status);
    KRX_SET_NODAL_MASS(&ids[k], &mass, &status);
    ok = ok && check("KRX_SET_NODAL_MASS", status);
    for (int mode = 1; mode <= 2; ++mode) {
      KRX_SET_MODE_SHAPE_VEC(&mode, &ids[k], shapes[mode - 1].data(), &status);
      ok = ok && check("KRX_SET_MODE_SHAPE_VEC", status);
    }
  }
  for (int mode = 1; mode <= 2; ++mode) {
    double mass = 4.0, stiffness = mode == 1 ? 0.0 : 100.0;
    KRX_SET_GENERALIZED_MASS(&mode, &mode, &mass, &status);
    ok = ok && check("KRX_SET_GENERALIZED_MASS", status);
    KRX_SET_GENERALIZED_STIFFNESS(&mode, &mode, &stiffness, &status);
    ok = ok && check("KRX_SET_GENERALIZED_STIFFNESS", status);
  }
  KRX_SET_FACE(&nodes, ids.data(), &status);
  ok = ok && check("KRX_SET_FACE", status);
  const std::string path = argv[1];
  KRX_WRITE_KRX(path.data(), &status, int(path.size()));
  ok = ok && check("KRX_WRITE_KRX", status);
  KRX_TERMINATE(&status);
  ok = ok && check("KRX_TERMINATE", status);
  return ok ? 0 : 1;
}
