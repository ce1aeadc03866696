// An example host: builds a free-free spring-mass chain whose eigenvalues are known in closed
// form, hands it to krxlib through the exported KRX_ entries only, and writes it to the path given
// on the command line. Prints the closed-form table to compare with the library's own.
#include <cstdio>
#include <string>

#include "chain_model.h"

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: example_host <output.krx>\n");
    return 2;
  }
  int status = chain::build_and_write(argv[1]);
  std::printf("\nClosed-form eigenvalues of the chain (compare with the table above):\n");
  for (int j = 0; j < chain::kModes; ++j) {
    std::printf(" %3d : %20.14e  %20.14e%s\n", j + 1, chain::eigenvalue(j), chain::hertz(j),
                j < 6 ? " (rigid body mode)" : "");
  }
  std::printf("\n%s %s\n", status ? "Failed to write" : "Wrote", argv[1]);
  return status ? 1 : 0;
}
