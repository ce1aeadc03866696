// The single-machine back-end's inertia: MUMPS's multifrontal LDL' (symmetric indefinite, on one
// process) of K - shift M, whose negative pivots count the eigenvalues below the shift. CHOLMOD's
// simplicial LDL' gives the same count without BLAS, some thirty times slower on 300,000 rows.
// MUMPS runs on MPI; the count is made in a child process, a world of one of its own, so that
// the tool itself never holds MPI's state (which Open MPI keeps to the end of the process) and
// the child's memory is returned whole when it ends.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

// MPI's C interface only: the C++ bindings would need a library of their own.
#define OMPI_SKIP_MPICXX 1
#include <dmumps_c.h>
#include <mpi.h>

#include <new>

#include "solver.h"

namespace ccx {

namespace {

// What the child reports through its pipe.
struct Outcome {
  int error = 0;   // MUMPS's INFOG(1), or -1000 when MPI did not start
  int detail = 0;  // INFOG(2)
  int64_t count = 0;
};

void call_mumps(DMUMPS_STRUC_C &id, int job) {
  id.job = job;
  dmumps_c(&id);
}

Outcome factor_and_count(const Matrices &m, double shift, const std::vector<int64_t> &ordering) {
  Outcome out;
  if (MPI_Init(nullptr, nullptr) != MPI_SUCCESS) {
    out.error = -1000;
    return out;
  }
  DMUMPS_STRUC_C id{};
  id.comm_fortran = static_cast<MUMPS_INT>(MPI_Comm_c2f(MPI_COMM_WORLD));
  id.par = 1;
  id.sym = 2;  // symmetric, not necessarily positive definite
  call_mumps(id, -1);
  if (id.infog[0] < 0) {
    out.error = id.infog[0];
    return out;
  }
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
  id.icntl[12] = 1;  // the root front factored here too, so that its pivots are counted
  // Only the pivots' signs are wanted: each front's factor is dropped once it is made, so that
  // the child holds the active fronts and not the whole factor.
  id.icntl[30] = 1;
  call_mumps(id, 4);  // analysis and factorisation
  out.error = id.infog[0];
  out.detail = id.infog[1];
  out.count = id.infog[11];
  call_mumps(id, -2);
  MPI_Finalize();
  return out;
}

}  // namespace

bool count_eigenvalues_below(const Matrices &m, double shift, const std::vector<int64_t> &ordering,
                             int64_t &count, const std::function<bool()> &meanwhile) {
  int fds[2];
  if (pipe(fds) != 0) return failed("cannot make a pipe for the LDL' count");
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return failed("cannot start the LDL' count: %s", std::strerror(errno));
  }
  if (pid == 0) {
    close(fds[0]);
    Outcome out;
    try {
      out = factor_and_count(m, shift, ordering);
    } catch (const std::bad_alloc &) {
      out.error = -9;
    }
    ssize_t written = write(fds[1], &out, sizeof out);
    _exit(written == static_cast<ssize_t>(sizeof out) ? 0 : 1);
  }
  close(fds[1]);
  Outcome out;
  ssize_t got = 0;
  int status = 0;
  auto wait_for_child = [&] {
    got = read(fds[0], &out, sizeof out);
    close(fds[0]);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  };
  bool done = true;
  try {
    done = !meanwhile || meanwhile();
  } catch (...) {
    wait_for_child();
    throw;
  }
  wait_for_child();
  if (!done) return false;
  if (got != static_cast<ssize_t>(sizeof out))
    return failed("the LDL' count of %d rows ended without a result (status %d): out of memory?",
                  m.n, status);
  if (out.error == -1000) return failed("cannot start MPI for the LDL' count");
  if (out.error == -9 || out.error == -13)
    return failed("out of memory in the LDL' factor of %d rows (MUMPS error %d, %d)", m.n,
                  out.error, out.detail);
  if (out.error < 0)
    return failed("the LDL' factor of K - (%g) M failed (MUMPS error %d, %d)", shift, out.error,
                  out.detail);
  count = out.count;
  return true;
}

}  // namespace ccx
