// A C++ program built against an installed krxlib through find_package(krxlib) and krx::krxlib
// only. It writes a four-node plate to the file named by its argument.
#include <cstdio>
#include <string>

#include <krx/krx.h>

int main(int argc, char **argv) {
  if (argc != 2) return 2;
  int status = 0, failed = 0, nodes = 4, modes = 1, ids[4] = {1, 2, 3, 4};
  KRX_CREATE(&nodes, &modes, &status);
  if (status) return 1;
  const std::string title = "C++ consumer", blank = " ", path = argv[1];
  KRX_SET_HEADER(title.data(), blank.data(), blank.data(), blank.data(), blank.data(), blank.data(),
                 &status, int(title.size()), 1, 1, 1, 1, 1);
  failed |= status;
  double corners[4][3] = {{1, 1, 0}, {2, 1, 0}, {2, 2, 0}, {1, 2, 0}};
  for (int k = 0; k < 4; ++k) {
    KRX_SET_NODE_COORDINATES_VEC(&ids[k], corners[k], &status);
    failed |= status;
  }
  KRX_SET_FACE(&nodes, ids, &status);
  failed |= status;
  KRX_WRITE_KRX(path.data(), &status, int(path.size()));
  failed |= status;
  KRX_TERMINATE(&status);
  if (failed || status) std::fprintf(stderr, "c++ consumer: an entry failed\n");
  return failed || status ? 1 : 0;
}
