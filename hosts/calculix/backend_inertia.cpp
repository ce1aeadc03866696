// The single-machine back-end's inertia: MUMPS's multifrontal LDL' (symmetric indefinite, on one
// process) of K - shift M, whose negative pivots count the eigenvalues below the shift. CHOLMOD's
// simplicial LDL' gives the same count without BLAS, some thirty times slower on 300,000 rows.
// MPI's C interface only: the C++ bindings would need a library of their own.
#define OMPI_SKIP_MPICXX 1
#include <dmumps_c.h>
#include <mpi.h>

#include <cstdlib>

#include "solver.h"

namespace ccx {

namespace {

// MUMPS runs on MPI: a process started without mpirun is a world of one.
bool start_mpi() {
  int started = 0;
  MPI_Initialized(&started);
  if (started) return true;
  if (MPI_Init(nullptr, nullptr) != MPI_SUCCESS)
    return failed("cannot start MPI for the LDL' count");
  std::atexit([] {
    int done = 0;
    MPI_Finalized(&done);
    if (!done) MPI_Finalize();
  });
  return true;
}

void call_mumps(DMUMPS_STRUC_C &id, int job) {
  id.job = job;
  dmumps_c(&id);
}

}  // namespace

// Open MPI keeps what MPI_Init allocates until the process ends, which LeakSanitizer would report
// at the end of every run that counted.
#if defined(__SANITIZE_ADDRESS__)
#define CCX2KRX_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CCX2KRX_LEAK_CHECK 1
#endif
#endif
#ifdef CCX2KRX_LEAK_CHECK
extern "C" const char *__lsan_default_suppressions() {
  return "leak:libmpi.so\nleak:libopen-pal.so\nleak:libopen-rte.so\nleak:libhwloc.so\n"
         "leak:libevent\nleak:libpmix.so\nleak:mca_\n";
}
#endif

bool count_eigenvalues_below(const Matrices &m, double shift, const std::vector<int64_t> &ordering,
                             int64_t &count) {
  if (!start_mpi()) return false;
  DMUMPS_STRUC_C id{};
  id.comm_fortran = static_cast<MUMPS_INT>(MPI_Comm_c2f(MPI_COMM_WORLD));
  id.par = 1;
  id.sym = 2;  // symmetric, not necessarily positive definite
  call_mumps(id, -1);
  if (id.infog[0] < 0) return failed("MUMPS did not start (error %d)", id.infog[0]);
  // The upper triangle as 1-based coordinates.
  size_t entries = m.row.size();
  std::vector<MUMPS_INT> rows(entries), cols(entries), order(ordering.size());
  std::vector<double> values(entries);
  for (int c = 0; c < m.n; ++c)
    for (int64_t k = m.start[c]; k < m.start[c + 1]; ++k) {
      rows[k] = m.row[k] + 1;
      cols[k] = c + 1;
      values[k] = m.stiffness[k] - shift * m.mass[k];
    }
  // PERM_IN gives each row its pivot position; the ordering lists rows by position.
  for (size_t k = 0; k < ordering.size(); ++k)
    order[static_cast<size_t>(ordering[k])] = static_cast<MUMPS_INT>(k + 1);
  id.n = m.n;
  id.nnz = static_cast<MUMPS_INT8>(entries);
  id.irn = rows.data();
  id.jcn = cols.data();
  id.a = values.data();
  id.icntl[0] = id.icntl[1] = id.icntl[2] = -1;  // no output
  id.icntl[3] = 0;
  id.icntl[6] = order.empty() ? 7 : 1;  // the given ordering, else MUMPS's choice
  id.perm_in = order.empty() ? nullptr : order.data();
  id.icntl[12] = 1;   // the root front factored here too, so that its pivots are counted
  call_mumps(id, 4);  // analysis and factorisation
  int error = id.infog[0], detail = id.infog[1];
  count = id.infog[11];
  call_mumps(id, -2);
  if (error == -9 || error == -13)
    return failed("out of memory in the LDL' factor of %d rows (MUMPS error %d, %d)", m.n, error,
                  detail);
  if (error < 0)
    return failed("the LDL' factor of K - (%g) M failed (MUMPS error %d, %d)", shift, error,
                  detail);
  return true;
}

}  // namespace ccx
