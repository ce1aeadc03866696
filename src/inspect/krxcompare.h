// The comparison of two KRX files read into models: block by block, one verdict line per check
// ("->Fail", "->Warning", "->Note", "  Pass") on standard output, numeric checks judged against a
// tolerance, mode shapes compared by eigenspace so that sign changes and rotated bases pass.
#pragma once

#include <cstdint>

#include "model/krxdata.h"

namespace krx {

// The tolerance the command-line tool uses when none is given.
constexpr double kDefaultCompareTolerance = 1e-5;

// Modes of close eigenvalues are compared as one eigenspace, at most this many together: a longer
// run is cut, with a note, so that the comparison's work and memory stay linear in the modes.
constexpr int kMaxEigenspaceGroup = 32;

// Compares new_model against base (the base must hold every node of the new file). Verbosity -1
// prints nothing, 0 failures, 1 also warnings, notes and the summary, 2 also passes and the trace.
// Returns the sum of the check results: 0 when every check passed, negative otherwise. Both models
// are converted to kg, m, s, N. A missing node, a missing mandatory block or a base with fewer
// nodes ends the process with status -1.
int compare_files(KRXDATA *base, KRXDATA *new_model, int32_t verbosity, double tolerance);

// Off, a run that would end the process returns -1 from compare_files instead, so that a caller
// that must keep going (a fuzzer) can run those paths. On by default.
void set_compare_ends_process(bool ends);

}  // namespace krx
