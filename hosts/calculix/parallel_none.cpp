// The parallel solver's entry points in a ccx2krx built without PETSc, SLEPc or MPI: the option
// that asks for it is refused before anything runs.
#include "parallel.h"

namespace ccx {

bool parallel_built() { return false; }

bool start_parallel(int &, char **&, int &rank) {
  rank = 0;
  return failed(
      "--solver mpi: this ccx2krx was built without MPI (its build needs PETSc, SLEPc "
      "and MPI)");
}

int follow_parallel() { return 1; }

bool solve_parallel(const ParallelJob &, EigenFile &, ParallelSums &) { return false; }

void finish_parallel() {}

}  // namespace ccx
