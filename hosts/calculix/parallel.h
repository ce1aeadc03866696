// ccx2krx's own solver past one machine: the rows of K and M spread over the MPI ranks, each rank
// reading only its own rows of CalculiX's matrix files; MUMPS factors, SLEPc iterates, and the
// modes and static shapes come to rank 0, which exports them as the single-machine path does.
// Built when PETSc, SLEPc and MPI are found; without them only the refusal is.
#ifndef CCX2KRX_PARALLEL_H
#define CCX2KRX_PARALLEL_H

#include <string>
#include <vector>

#include "ccx2krx.h"

namespace ccx {

// ---- the run ----------------------------------------------------------------------------------

// False when this ccx2krx was built without MPI; --solver mpi is then refused.
bool parallel_built();
// Starts MPI and PETSc for a --solver mpi run; rank is this process's place in it.
bool start_parallel(int &argc, char **&argv, int &rank);
// A rank other than 0: waits for rank 0's job, takes part in its solve and returns the exit status
// (1 when rank 0 stopped before the solve or the solve failed; rank 0 says why).
int follow_parallel();
// Rank 0: what solve_own does, with the matrices read by rows on every rank.
struct ParallelJob {
  const Deck *deck = nullptr;
  const DofMap *map = nullptr;
  std::string mas, sti;  // CalculiX's matrix files, in the working directory all ranks share
  int modes = 0;
  std::string vectors_path;
  std::string statics_path;
  bool timing = false;
};
bool solve_parallel(const ParallelJob &job, EigenFile &eig);
// Rank 0 at the end of its run: sends home the ranks still waiting for a job (the run ended
// before the solve), then ends PETSc and MPI.
void finish_parallel();

// ---- a rank's rows ----------------------------------------------------------------------------

// Rows first .. first + count - 1 of the problem (the matrices without the held rows, numbered
// in order): the upper triangle of K and M in compressed rows with the problem's column numbers,
// and the coupling -K_ih of each free row i to held row h, as (local row, index into held,
// value) entries.
struct RowBlock {
  int rows = 0;  // of the problem
  int first = 0;
  int count = 0;
  std::vector<int> start;  // count + 1
  std::vector<int> column;
  std::vector<double> stiffness;
  std::vector<double> mass;
  std::vector<int> coupling_row;
  std::vector<int> coupling_held;
  std::vector<double> coupling;
};
// Reads the block from the .mas and .sti files of n rows; held lists the held rows in any order.
// Every entry of both files is checked as the single-machine reader checks it; a failure is
// reported once.
bool read_row_block(const std::string &mas, const std::string &sti, int n,
                    const std::vector<int> &held, int first, int count, RowBlock &block);

}  // namespace ccx

#endif
