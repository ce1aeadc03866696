// ccx2krx's own solver: CalculiX assembles, these stages solve. The back-end (a sparse factor of
// K - sigma M and its solves, the lowest modes by shift-invert iteration on it, the count of
// eigenvalues below a shift) stands behind the first group of declarations and lives in the
// backend_*.cpp files (CHOLMOD, Spectra, MUMPS on one machine); the stages after it (the checks
// of the modes, the component modes, the rigid ties, the stresses, the own path that ties them
// to the file) use nothing else of it, so another back-end can take its place.
#ifndef CCX2KRX_SOLVER_H
#define CCX2KRX_SOLVER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ccx2krx.h"

namespace ccx {

// ---- the back-end -----------------------------------------------------------------------------

struct Factor;  // K - sigma M factored, defined by the back-end
struct FactorFree {
  void operator()(Factor *f) const;
};
using FactorHandle = std::unique_ptr<Factor, FactorFree>;

// Factors K - sigma M (m.stiffness, m.mass), which must be positive definite: sigma below the
// lowest eigenvalue. A failure says at which row the matrix stopped being positive definite.
// `made`, when given, runs once the factor holds its own copy of K - sigma M and before the
// numerical factorisation; m's values are not read after it (the caller may set them aside).
bool factor_shifted(const Matrices &m, double sigma, FactorHandle &f,
                    const std::function<bool()> &made = {});
// x = (K - sigma M)^-1 b for `columns` vectors of m.n values each, one after the other, in place.
bool solve_shifted(Factor &f, double *x, int columns);
// The fill-reducing ordering of a factor, for another factor of the same pattern.
std::vector<int64_t> factor_ordering(const Factor &f);
// The number of eigenvalues of K phi = lambda M phi below shift (Sylvester's inertia of an LDL'
// factor of K - shift M), with the ordering of an earlier factor of the same pattern. meanwhile,
// when given, runs in this process while the factor is made (its failure fails the count).
bool count_eigenvalues_below(const Matrices &m, double shift, const std::vector<int64_t> &ordering,
                             int64_t &count, const std::function<bool()> &meanwhile = {});
// What the factor cost: entries of L, seconds of ordering and of numerical factorisation.
struct FactorStats {
  double entries = 0.0;
  double analyse_seconds = 0.0;
  double factor_seconds = 0.0;
};
FactorStats factor_stats(const Factor &f);

// The lowest modes of K phi = lambda M phi by shift-invert Lanczos on f (K - sigma M factored):
// values ascending, vectors one after the other (m.n values each), M-orthonormal. kExtraModes
// more are computed than wanted for the missed-mode check and kept at the end. The combinations of
// `motions` (count vectors of m.n values) that K leaves without strain are modes of eigenvalue
// zero to rounding: they are taken as they are and Lanczos runs on the rest, since a single-vector
// Lanczos resolves a sixfold eigenvalue at zero only by the rounding that separates its members.
constexpr int kExtraModes = 3;
struct Modes {
  int wanted = 0;
  std::vector<double> values;
  std::vector<double> vectors;
  int rigid = 0;  // the modes taken from the motions
  int solves = 0;
};
// `more` modes beyond those are computed, with a wider subspace and another start vector, when a
// first run missed some. Of K, the iteration uses only motions' K motions (motion_stiffness):
// given as k_motions, m's stiffness values are not read.
bool lowest_modes(const Matrices &m, Factor &f, double sigma, int wanted,
                  const std::vector<double> &motions, Modes &modes, int more = 0,
                  const std::vector<double> *k_motions = nullptr);
// motions' K motions, count x count by columns (count = motions.size() / m.n).
std::vector<double> motion_stiffness(const Matrices &m, const std::vector<double> &motions);

// ---- the stages -------------------------------------------------------------------------------

// The six rigid-body motions of the rows (translations along x, y, z, rotations about them):
// a translation row of a node at x moves by a + theta x x, a rotation row by theta. 6 * n values.
void rigid_motions(const Deck &deck, const DofMap &map, std::vector<double> &motions);

// The rows `keep` (increasing) of both matrices, the others and their entries dropped.
void restrict_rows(const Matrices &m, const std::vector<int> &keep, Matrices &sub);

// A shift below every eigenvalue for the factor: a free body's rigid-body eigenvalues are zero to
// rounding, so sigma is a small negative fraction of the median ratio of K's to M's diagonal.
double lower_shift(const Matrices &m);

// Fails a mode whose residual |K phi - lambda M phi| / (|K phi| + |lambda| |M phi|) is above
// tolerance (for a rigid-body mode, the lowest elastic eigenvalue stands for lambda below), and
// any mode whose M-norm is not 1.
bool check_residuals(const Matrices &m, const Modes &modes, double tolerance);
// Fails when K - shift M, for a shift between the last wanted eigenvalue and the next one
// computed, has more eigenvalues below it than the modes list: Lanczos missed one.
bool check_missed_modes(const Matrices &m, const std::vector<int64_t> &ordering, const Modes &modes,
                        double &seconds);
// The same check with any back-end's count of the eigenvalues below a shift.
using EigenvalueCounter = std::function<bool(double shift, int64_t &count)>;
bool check_mode_count(const Modes &modes, const EigenvalueCounter &count_below, double &seconds);
// The modes by solve(more, modes) (lowest_modes' `more`), then the count: where the model has
// more eigenvalues below the count's shift than the modes found, a note says so and solve runs
// once more with that many more modes; a mode still missed fails the run.
using ModeSolver = std::function<bool(int more, Modes &modes)>;
bool solve_and_count(const ModeSolver &solve, const EigenvalueCounter &count_below, Modes &modes,
                     double &seconds);

// Gives the nodes tied to interface points the lumped masses of the untied model (scaled as the
// others), taken from their reference node's, when CalculiX's mass diagonal is the density times
// unit_diagonal (mass_diagonal of stress_recovery.cpp) at every node with rows; else leaves them.
// mass_diagonal holds M's diagonal, one value per row of the files.
void share_tied_masses(const Deck &deck, const DofMap &map,
                       const std::vector<double> &mass_diagonal,
                       const std::vector<double> &unit_diagonal, std::vector<double> &nodal);

// Static shapes of the held rows: for each held row h, the vector with 1 at h, 0 at the other
// held rows and -K_ii^-1 K_ih at the free rows i, f being K_ii factored (sigma = 0). shapes gets
// m.n values per held row.
bool constraint_modes(const Matrices &m, const std::vector<int> &held, Factor &f,
                      std::vector<double> &shapes);

// CalculiX ties shell and beam nodes to an interface point by their translations alone: fails a
// point whose set lies on one line, which leaves a rotation of the point without a row.
bool check_interface_rotations(const Deck &deck, const DofMap &map);
// The static shapes of the interface rows from the matrices (K_ii factored here), written to path
// one after the other as the own path writes them: CalculiX's path takes them from there where
// its .dat cannot give the rows (shells and beams).
bool write_static_shapes(const Deck &deck, const DofMap &map, const Matrices &m,
                         const std::string &path);

// The rows of the interface points in the order of the static shapes: per point the reference
// node's three translations, then the rotation node's three rotations.
bool interface_rows(const Deck &deck, const DofMap &map, std::vector<int> &held);

// The own path of a run: the lowest `modes` modes of the matrices (with interfaces: the static
// shapes of the interface rows to statics_path, then the modes with them held), checked, their
// vectors written to vectors_path and opened in eig as the export reads CalculiX's.
struct OwnJob {
  const Deck *deck = nullptr;
  const DofMap *map = nullptr;
  Matrices *matrices = nullptr;  // K's values wait in scratch_dir while the factor is in use
  int modes = 0;
  std::string vectors_path;
  std::string statics_path;
  std::string scratch_dir;
  bool timing = false;
  // Out: the generalized mass and stiffness of the static shapes and the modes, shapes x shapes
  // (formed while the missed-mode count runs).
  std::vector<double> generalized_mass, generalized_stiffness;
};
bool solve_own(OwnJob &job, EigenFile &eig);

// Nodal stresses recovered from displacements as CalculiX recovers them, for isotropic linear
// elastic materials given to the elements by the solid sections: prepare once (the elements, their
// materials, integration rules and extrapolations), then recover mode by mode. stresses gets six
// values per entry of deck.node_ids in CalculiX's order xx yy zz xy yz zx; nodes of no element
// get zeros.
struct StressKind;
struct StressModel {
  std::vector<double> lame;       // per material, Lame's constants lambda and mu
  std::vector<int> material;      // per element, into lame (two values each)
  std::vector<int> kind;          // per element, into kinds
  std::vector<int64_t> first;     // per element, its first entry of nodes
  std::vector<int> nodes;         // node indices into deck.node_ids
  std::vector<std::shared_ptr<StressKind>> kinds;
  std::vector<int> kind_rule;
  std::vector<int> sharing;  // per node, the elements that share it
};
bool prepare_stresses(const Deck &deck, StressModel &model, bool with_materials);
// Each node's diagonal entry of the consistent mass matrix at unit density (one direction),
// integrated at the elements' points of the stress recovery.
void mass_diagonal(const StressModel &model, const Deck &deck, std::vector<double> &diagonal);
void recover_stresses(const StressModel &model, const Deck &deck,
                      const std::vector<double> &by_node, std::vector<double> &stresses);

}  // namespace ccx

#endif
