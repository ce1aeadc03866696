// The parallel run: rank 0 runs the tool as on one machine and sends the solve's job to the other
// ranks; all read their rows, factor and iterate together; the modes and static shapes come to
// rank 0 one vector at a time. The ranks hold their messages back: after each step they agree
// whether one failed, and rank 0 prints the first failing rank's message, once.
#include <sys/resource.h>

#include <chrono>

#include "backend_petsc.h"

namespace ccx {

namespace {

const double kResidualTolerance = 1e-6;

int world_rank() {
  int rank = 0;
  MPI_Comm_rank(PETSC_COMM_WORLD, &rank);
  return rank;
}

int world_size() {
  int size = 1;
  MPI_Comm_size(PETSC_COMM_WORLD, &size);
  return size;
}

bool job_sent = false;  // rank 0: the other ranks have their job (or were sent home)

// What every rank needs for the solve.
struct SharedJob {
  int n = 0;  // rows of the matrix files
  int modes = 0;
  bool timing = false;
  std::string mas, sti;
  std::vector<int> held;
};

void send_string(std::string &s) {
  int length = static_cast<int>(s.size());
  MPI_Bcast(&length, 1, MPI_INT, 0, PETSC_COMM_WORLD);
  s.resize(static_cast<size_t>(length));
  MPI_Bcast(s.data(), length, MPI_CHAR, 0, PETSC_COMM_WORLD);
}

// From rank 0 to all: go is 0 when there is no job.
void share_job(int &go, SharedJob &job) {
  int head[5] = {go, job.n, job.modes, job.timing ? 1 : 0, static_cast<int>(job.held.size())};
  MPI_Bcast(head, 5, MPI_INT, 0, PETSC_COMM_WORLD);
  go = head[0];
  if (!go) return;
  job.n = head[1];
  job.modes = head[2];
  job.timing = head[3] != 0;
  job.held.resize(static_cast<size_t>(head[4]));
  MPI_Bcast(job.held.data(), head[4], MPI_INT, 0, PETSC_COMM_WORLD);
  send_string(job.mas);
  send_string(job.sti);
}

// Collective: true when every rank's step succeeded. Otherwise rank 0 prints the message of the
// lowest failing rank, naming the rank when there are several.
bool agree(bool ok, std::string &message) {
  int rank = world_rank(), size = world_size();
  int mine = ok ? size : rank, first = size;
  MPI_Allreduce(&mine, &first, 1, MPI_INT, MPI_MIN, PETSC_COMM_WORLD);
  if (first == size) return true;
  if (first != 0) {
    if (rank == first) {
      int length = static_cast<int>(message.size());
      MPI_Send(&length, 1, MPI_INT, 0, 0, PETSC_COMM_WORLD);
      MPI_Send(message.data(), length, MPI_CHAR, 0, 1, PETSC_COMM_WORLD);
    } else if (rank == 0) {
      int length = 0;
      MPI_Recv(&length, 1, MPI_INT, first, 0, PETSC_COMM_WORLD, MPI_STATUS_IGNORE);
      message.resize(static_cast<size_t>(length));
      MPI_Recv(message.data(), length, MPI_CHAR, first, 1, PETSC_COMM_WORLD, MPI_STATUS_IGNORE);
    }
  }
  if (rank == 0) {
    if (message.empty()) message = "a rank failed without saying why";
    if (size > 1 && first != 0)
      std::fprintf(stderr, "ccx2krx: rank %d: %s\n", first, message.c_str());
    else
      std::fprintf(stderr, "ccx2krx: %s\n", message.c_str());
  }
  return false;
}

// Rank 0 writes each vector gathered from the ranks; rows of the problem, or (with held rows) the
// matrix files' rows with 1 at the held row `unit` and 0 at the others.
struct VectorSink {
  std::FILE *file = nullptr;
  std::string path;
  VecScatter scatter = nullptr;
  Vec whole = nullptr;
  std::vector<double> rows;
  std::vector<int> held_at;  // index into held of each held row, -1 for the others
  ~VectorSink() {
    if (file) std::fclose(file);
    if (scatter) VecScatterDestroy(&scatter);
    if (whole) VecDestroy(&whole);
  }
};

bool open_sink(const std::string &path, VectorSink &sink) {
  sink.path = path;
  if (world_rank() != 0) return true;
  sink.file = std::fopen(path.c_str(), "wb");
  return sink.file || failed("cannot write %s", path.c_str());
}

bool put_vector(VectorSink &sink, Vec x, const SharedJob *job, int unit) {
  if (!sink.scatter && VecScatterCreateToZero(x, &sink.scatter, &sink.whole) != 0)
    return failed("cannot gather a vector to rank 0");
  VecScatterBegin(sink.scatter, x, sink.whole, INSERT_VALUES, SCATTER_FORWARD);
  VecScatterEnd(sink.scatter, x, sink.whole, INSERT_VALUES, SCATTER_FORWARD);
  if (world_rank() != 0) return true;
  const PetscScalar *values = nullptr;
  PetscInt size = 0;
  VecGetSize(sink.whole, &size);
  VecGetArrayRead(sink.whole, &values);
  const double *out = values;
  size_t count = static_cast<size_t>(size);
  if (job) {
    // The interface rows come point by point, not in row order.
    if (sink.held_at.empty()) {
      sink.held_at.assign(static_cast<size_t>(job->n), -1);
      for (size_t h = 0; h < job->held.size(); ++h)
        sink.held_at[job->held[h]] = static_cast<int>(h);
    }
    sink.rows.assign(static_cast<size_t>(job->n), 0.0);
    size_t k = 0;
    for (int r = 0; r < job->n; ++r)
      sink.rows[r] = sink.held_at[r] < 0 ? values[k++] : sink.held_at[r] == unit ? 1.0 : 0.0;
    out = sink.rows.data();
    count = sink.rows.size();
  }
  bool ok = std::fwrite(out, sizeof(double), count, sink.file) == count;
  VecRestoreArrayRead(sink.whole, &values);
  return ok || failed("cannot write %s", sink.path.c_str());
}

bool close_sink(VectorSink &sink) {
  if (!sink.file) return true;
  bool ok = std::fclose(sink.file) == 0;
  sink.file = nullptr;
  return ok || failed("cannot write %s", sink.path.c_str());
}

// The static shape of each held row: K_ii x = -K_ih through the iteration's factor (sigma = 0).
bool static_shapes(KSP solve, const Distributed &d, const RowBlock &block, const SharedJob &job,
                   const std::string &path) {
  VectorSink sink;
  if (!open_sink(path, sink)) return false;
  Vec b = nullptr, x = nullptr;
  if (MatCreateVecs(d.k, &x, &b) != 0) return failed("out of memory for the static shapes");
  bool ok = true;
  for (size_t h = 0; h < job.held.size() && ok; ++h) {
    PetscScalar *rhs = nullptr;
    VecSet(b, 0.0);
    VecGetArray(b, &rhs);
    for (size_t k = 0; k < block.coupling.size(); ++k)
      if (block.coupling_held[k] == static_cast<int>(h))
        rhs[block.coupling_row[k]] += block.coupling[k];
    VecRestoreArray(b, &rhs);
    ok = (KSPSolve(solve, b, x) == 0 || failed("a static shape's solve failed")) &&
         put_vector(sink, x, &job, static_cast<int>(h));
  }
  VecDestroy(&b);
  VecDestroy(&x);
  return ok && close_sink(sink);
}

// Rank 0's rigid-body motions, each rank's rows of them.
std::vector<std::vector<double>> scatter_motions(const std::vector<double> &motions, int n,
                                                 const RowBlock &block) {
  int count = 0;
  if (world_rank() == 0) count = static_cast<int>(motions.size() / static_cast<size_t>(n));
  MPI_Bcast(&count, 1, MPI_INT, 0, PETSC_COMM_WORLD);
  int size = world_size();
  std::vector<int> counts(static_cast<size_t>(size)), at(static_cast<size_t>(size));
  MPI_Allgather(&block.count, 1, MPI_INT, counts.data(), 1, MPI_INT, PETSC_COMM_WORLD);
  MPI_Allgather(&block.first, 1, MPI_INT, at.data(), 1, MPI_INT, PETSC_COMM_WORLD);
  std::vector<std::vector<double>> mine(static_cast<size_t>(count));
  for (int j = 0; j < count; ++j) {
    mine[j].resize(static_cast<size_t>(block.count));
    const double *from = world_rank() == 0 ? &motions[static_cast<size_t>(j) * n] : nullptr;
    MPI_Scatterv(from, counts.data(), at.data(), MPI_DOUBLE, mine[j].data(), block.count,
                 MPI_DOUBLE, 0, PETSC_COMM_WORLD);
  }
  return mine;
}

void print_timing(const char *stage, double seconds) {
  std::fprintf(stderr, "ccx2krx:   %-28s %8.2f s\n", stage, seconds);
}

double seconds_since(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

struct Timing {
  double read = 0.0, lanczos = 0.0, check = 0.0, all = 0.0;
};

void report_timing(const SharedJob &job, const RowBlock &block, const ParallelModes &modes,
                   const Timing &t) {
  long mine = 0, largest = 0;
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  mine = usage.ru_maxrss;
  MPI_Reduce(&mine, &largest, 1, MPI_LONG, MPI_MAX, 0, PETSC_COMM_WORLD);
  if (!job.timing || world_rank() != 0) return;
  std::fprintf(stderr, "ccx2krx: parallel solver on %d ranks, %d rows, factor with %.3g entries:\n",
               world_size(), block.rows, modes.stats.entries);
  print_timing("reading the rows", t.read);
  print_timing("factor (MUMPS)", modes.stats.factor_seconds);
  char what[64];
  std::snprintf(what, sizeof what, "Krylov-Schur (%d restarts)", modes.restarts);
  print_timing(what, t.lanczos);
  print_timing("missed-mode check (LDL')", t.check);
  print_timing("solver in all", t.all);
  std::fprintf(stderr, "ccx2krx:   %-28s %8.1f MB\n", "peak memory of a rank", largest / 1024.0);
}

// Every rank: the solve, with rank 0's rigid-body motions (empty elsewhere and with held rows).
bool solve_collective(const SharedJob &job, const std::vector<double> &motions,
                      const std::string &vectors_path, const std::string &statics_path,
                      std::vector<double> &values) {
  std::string message;
  capture_messages(&message);
  auto begin = std::chrono::steady_clock::now();
  Timing t;
  int rank = world_rank(), size = world_size();
  int rows = job.n - static_cast<int>(job.held.size());
  int count = rows / size + (rank < rows % size ? 1 : 0);
  int first = rank * (rows / size) + std::min(rank, rows % size);
  RowBlock block;
  Distributed d;
  ParallelModes modes;
  std::vector<Vec> z;
  if (rank == 0) show_stage("reading each rank's rows");
  bool ok = agree(read_row_block(job.mas, job.sti, job.n, job.held, first, count, block), message);
  t.read = seconds_since(begin);
  ok = ok && agree(make_distributed(block, d), message);
  double sigma = 0.0;
  if (ok && job.held.empty()) lower_shift_parallel(block, sigma);
  if (ok) {
    std::vector<std::vector<double>> mine;
    if (job.held.empty()) mine = scatter_motions(motions, job.n, block);
    std::vector<double> rigid_values;
    ok = agree(rigid_modes(d, mine, sigma, z, rigid_values), message);
    StaticsStage statics;
    if (!job.held.empty())
      statics = [&](KSP solve) { return static_shapes(solve, d, block, job, statics_path); };
    if (rank == 0) show_stage("factor and Krylov-Schur on every rank");
    auto lanczos = std::chrono::steady_clock::now();
    ok = ok && agree(lowest_modes_parallel(d, sigma, job.modes, z, rigid_values, statics, modes),
                     message);
    t.lanczos = seconds_since(lanczos) - modes.stats.factor_seconds;
  }
  if (ok && rank == 0) show_stage("checking the modes (residuals, LDL' count)");
  ok = ok && agree(check_residuals_parallel(d, modes, kResidualTolerance), message);
  if (ok) {
    VectorSink sink;
    bool written = open_sink(vectors_path, sink);
    for (int j = 0; j < job.modes && written; ++j)
      written = put_vector(sink, modes.vectors[j], nullptr, -1);
    ok = agree(written && close_sink(sink), message);
  }
  free_modes(modes);
  for (Vec &v : z) VecDestroy(&v);
  if (ok) {
    // The check's LDL' factor is as large as the iteration's, which is gone by now.
    ok = agree(
        check_mode_count(
            modes.modes,
            [&](double shift, int64_t &below) { return count_below_parallel(d, shift, below); },
            t.check),
        message);
  }
  free_distributed(d);
  capture_messages(nullptr);
  t.all = seconds_since(begin);
  if (ok) report_timing(job, block, modes, t);
  values = modes.modes.values;
  return ok;
}

}  // namespace

bool parallel_built() { return true; }

bool start_parallel(int &argc, char **&argv, int &rank) {
  // PETSc's own options stay out: the tool's are not PETSc's.
  (void)argc;
  (void)argv;
  int zero = 0;
  char **none = nullptr;
  if (SlepcInitialize(&zero, &none, nullptr, nullptr) != 0)
    return failed("cannot start MPI and PETSc for --solver mpi");
  PetscPushErrorHandler(PetscReturnErrorHandler, nullptr);
  rank = world_rank();
  return true;
}

int follow_parallel() {
  int go = 0;
  SharedJob job;
  share_job(go, job);
  bool ok = false;
  if (go) {
    std::vector<double> values;
    ok = solve_collective(job, {}, "", "", values);
  }
  SlepcFinalize();
  return ok ? 0 : 1;
}

bool solve_parallel(const ParallelJob &job, EigenFile &eig) {
  SharedJob shared;
  std::vector<double> motions;
  int go = interface_rows(*job.deck, *job.map, shared.held) ? 1 : 0;
  if (go && shared.held.empty()) rigid_motions(*job.deck, *job.map, motions);
  shared.n = static_cast<int>(job.map->row_node.size());
  shared.modes = job.modes;
  shared.timing = job.timing;
  shared.mas = job.mas;
  shared.sti = job.sti;
  share_job(go, shared);
  job_sent = true;
  if (!go) return false;
  if (world_size() == 1)
    note("note: --solver mpi on one process; start it with mpirun -n N to use N");
  std::vector<double> values;
  if (!solve_collective(shared, motions, job.vectors_path, job.statics_path, values)) return false;
  eig.name = job.vectors_path;
  eig.file = std::fopen(job.vectors_path.c_str(), "rb");
  if (!eig.file) return failed("cannot read %s back", job.vectors_path.c_str());
  eig.modes = job.modes;
  eig.rows = shared.n - static_cast<int>(shared.held.size());
  eig.vectors_at = 0;
  eig.eigenvalues.assign(values.begin(), values.begin() + job.modes);
  return true;
}

void finish_parallel() {
  if (!job_sent) {
    int go = 0;
    SharedJob none;
    share_job(go, none);
  }
  SlepcFinalize();
}

}  // namespace ccx
