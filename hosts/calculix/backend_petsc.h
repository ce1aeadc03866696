// The parallel back-end's stages on PETSc objects: the distributed matrices of a rank's rows, the
// shift, the rigid-body modes, the factor of K - sigma M (MUMPS) with its static shapes and the
// Krylov-Schur iteration on it (SLEPc), the residual check and the inertia count. Every stage is
// collective over PETSC_COMM_WORLD and reports a failure once through failed().
#ifndef CCX2KRX_BACKEND_PETSC_H
#define CCX2KRX_BACKEND_PETSC_H

#include <slepceps.h>

#include <functional>

#include "parallel.h"
#include "solver.h"

namespace ccx {

struct Distributed {
  Mat k = nullptr;
  Mat m = nullptr;
  int rows = 0;
};
bool make_distributed(const RowBlock &block, Distributed &d);
void free_distributed(Distributed &d);

// lower_shift over every rank's rows: the same value on each.
bool lower_shift_parallel(const RowBlock &block, double &sigma);

// The modes on the ranks: values ascending on every rank, vectors distributed, M-orthonormal.
struct ParallelModes {
  Modes modes;  // wanted, values and rigid; its vectors stay empty
  std::vector<Vec> vectors;
  int restarts = 0;
  FactorStats stats;
};
void free_modes(ParallelModes &modes);

// The combinations of the rigid-body motions (local rows, count vectors) that K leaves without
// strain: M-orthonormal, with their eigenvalues, as null_motions of the single-machine path.
bool rigid_modes(const Distributed &d, const std::vector<std::vector<double>> &motions,
                 double sigma, std::vector<Vec> &z, std::vector<double> &values);

// Factors K - sigma M and finds the lowest modes (wanted and a few more), the rigid ones z given;
// before the iteration, statics (when set) receives the factor's solve for its right-hand sides.
using StaticsStage = std::function<bool(KSP solve)>;
bool lowest_modes_parallel(const Distributed &d, double sigma, int wanted, std::vector<Vec> &z,
                           const std::vector<double> &rigid_values, const StaticsStage &statics,
                           ParallelModes &modes);
bool check_residuals_parallel(const Distributed &d, const ParallelModes &modes, double tolerance);
// The number of eigenvalues below shift: the negative pivots of MUMPS's LDL' of K - shift M.
bool count_below_parallel(const Distributed &d, double shift, int64_t &count);

}  // namespace ccx

#endif
