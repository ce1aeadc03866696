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
// What rank 0 gets back besides the vectors: M's diagonal and direction sums for the lumped
// masses, and the generalized mass and stiffness of the exported vectors (the static shapes, then
// the modes; vectors x vectors, row-major).
struct ParallelSums {
  MassSums mass;
  int vectors = 0;
  std::vector<double> generalized_mass;
  std::vector<double> generalized_stiffness;
};
bool solve_parallel(const ParallelJob &job, EigenFile &eig, ParallelSums &sums);
// Rank 0 at the end of its run: sends home the ranks still waiting for a job (the run ended
// before the solve), then ends PETSc and MPI.
void finish_parallel();

// ---- a rank's rows ----------------------------------------------------------------------------

// Rows first .. first + count - 1 of the problem (the matrices without the held rows, numbered
// in order): the upper triangle of K and M in compressed rows with the problem's column numbers;
// the entries between each free row i and held row h, as (local row, index into held, K_ih,
// M_ih); and, in the block that starts at row 0, K and M among the held rows (held x held, both
// triangles). Every entry of the files is one block's, so no rank parses or keeps the others'.
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
  std::vector<double> coupling_stiffness;
  std::vector<double> coupling_mass;
  std::vector<double> held_stiffness;
  std::vector<double> held_mass;
  std::vector<double> mass_diagonal;  // M's diagonal of the block's rows, which outlives the rows
  // The sum of M's entries between rows of one translation direction, over this block's entries:
  // the parts of u_d' M u_d for a unit translation u_d.
  double mass_sums[3] = {0.0, 0.0, 0.0};
  int64_t parsed = 0;   // values parsed of both files
  int64_t entries = 0;  // entries listed in both files
};
// The files' rows: n of them, held lists the held rows in the order of the static shapes, and
// direction gives each row's translation direction (0..2; -1 for a rotation or a row of no
// node), for mass_sums; it may be left empty.
struct RowLayout {
  int n = 0;
  std::vector<int> held;
  std::vector<signed char> direction;
};
// The first row of each of ranks blocks (and rows at the end) such that each holds about the
// same number of entries: the upper triangle gives a low row more entries than a high one. An
// even split of the rows when the .mas cannot be read (its reading proper says why).
std::vector<int> split_rows(const std::string &mas, const RowLayout &layout, int ranks);
// Reads the block from the .mas and .sti files. Every entry of both files is checked as the
// single-machine reader checks it; a failure is reported once.
bool read_row_block(const std::string &mas, const std::string &sti, const RowLayout &layout,
                    int first, int count, RowBlock &block);

}  // namespace ccx

#endif
