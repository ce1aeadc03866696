// The parallel run: rank 0 runs the tool as on one machine and sends the solve's job to the other
// ranks; all read their rows, factor and iterate together; the modes and static shapes come to
// rank 0 one vector at a time. The ranks hold their messages back: after each step they agree
// whether one failed, and rank 0 prints the first failing rank's message, once.
#include <dlfcn.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <thread>

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
  RowLayout layout;
  int modes = 0;
  bool timing = false;
  std::string mas, sti;
};

void send_string(std::string &s) {
  int length = static_cast<int>(s.size());
  MPI_Bcast(&length, 1, MPI_INT, 0, PETSC_COMM_WORLD);
  s.resize(static_cast<size_t>(length));
  MPI_Bcast(s.data(), length, MPI_CHAR, 0, PETSC_COMM_WORLD);
}

// From rank 0 to all: go is 0 when there is no job.
void share_job(int &go, SharedJob &job) {
  RowLayout &layout = job.layout;
  int head[5] = {go, layout.n, job.modes, job.timing ? 1 : 0,
                 static_cast<int>(layout.held.size())};
  MPI_Bcast(head, 5, MPI_INT, 0, PETSC_COMM_WORLD);
  go = head[0];
  if (!go) return;
  layout.n = head[1];
  job.modes = head[2];
  job.timing = head[3] != 0;
  layout.held.resize(static_cast<size_t>(head[4]));
  MPI_Bcast(layout.held.data(), head[4], MPI_INT, 0, PETSC_COMM_WORLD);
  layout.direction.resize(static_cast<size_t>(layout.n));
  MPI_Bcast(layout.direction.data(), layout.n, MPI_SIGNED_CHAR, 0, PETSC_COMM_WORLD);
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
    const RowLayout &layout = job->layout;
    if (sink.held_at.empty()) {
      sink.held_at.assign(static_cast<size_t>(layout.n), -1);
      for (size_t h = 0; h < layout.held.size(); ++h)
        sink.held_at[layout.held[h]] = static_cast<int>(h);
    }
    sink.rows.assign(static_cast<size_t>(layout.n), 0.0);
    size_t k = 0;
    for (int r = 0; r < layout.n; ++r)
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
// Their free rows stay in shapes for the generalized products.
bool static_shapes(KSP solve, const Distributed &d, const RowBlock &block, const SharedJob &job,
                   const std::string &path, std::vector<Vec> &shapes) {
  VectorSink sink;
  if (!open_sink(path, sink)) return false;
  Vec b = nullptr;
  if (MatCreateVecs(d.k, nullptr, &b) != 0) return failed("out of memory for the static shapes");
  bool ok = true;
  for (size_t h = 0; h < job.layout.held.size() && ok; ++h) {
    PetscScalar *rhs = nullptr;
    VecSet(b, 0.0);
    VecGetArray(b, &rhs);
    for (size_t k = 0; k < block.coupling_stiffness.size(); ++k)
      if (block.coupling_held[k] == static_cast<int>(h))
        rhs[block.coupling_row[k]] -= block.coupling_stiffness[k];
    VecRestoreArray(b, &rhs);
    Vec x = nullptr;
    ok = MatCreateVecs(d.k, &x, nullptr) == 0 || failed("out of memory for the static shapes");
    if (!ok) break;
    shapes.push_back(x);
    ok = (KSPSolve(solve, b, x) == 0 || failed("a static shape's solve failed")) &&
         put_vector(sink, x, &job, static_cast<int>(h));
  }
  VecDestroy(&b);
  return ok && close_sink(sink);
}

// K or M: the rank's part among the free rows, its couplings to the held rows and (on the block
// at row 0) its part among those.
struct Part {
  Mat free = nullptr;
  const std::vector<double> *coupling = nullptr;
  const std::vector<double> *held = nullptr;
};

// v_i' A v_j for i <= j of the exported vectors: x holds their free rows, and the first `statics`
// have 1 at held row i besides, so that the product is x_i' (A_ff x_j + A_fh e_j) + e_i' (A_hf x_j
// + A_hh e_j). The products the single-machine export forms from the whole matrices; out gets
// both triangles (vectors x vectors, row-major) on every rank.
bool generalized(const Part &a, const RowBlock &block, const std::vector<Vec> &x, int statics,
                 std::vector<double> &out) {
  size_t count = x.size(), held = static_cast<size_t>(statics);
  out.assign(count * count, 0.0);
  if (count == 0) return true;
  Vec y = nullptr;
  if (VecDuplicate(x[0], &y) != 0) return failed("out of memory for the generalized products");
  std::vector<PetscScalar> dots(count);
  std::vector<double> mine(held), all(held);
  bool ok = true;
  for (size_t j = 0; j < count && ok; ++j) {
    ok = MatMult(a.free, x[j], y) == 0;
    const PetscScalar *xj = nullptr;
    VecGetArrayRead(x[j], &xj);
    std::fill(mine.begin(), mine.end(), 0.0);
    for (size_t k = 0; k < a.coupling->size(); ++k)
      mine[block.coupling_held[k]] += (*a.coupling)[k] * xj[block.coupling_row[k]];
    VecRestoreArrayRead(x[j], &xj);
    if (j < held) {
      PetscScalar *yj = nullptr;
      VecGetArray(y, &yj);
      for (size_t k = 0; k < a.coupling->size(); ++k)
        if (block.coupling_held[k] == static_cast<int>(j))
          yj[block.coupling_row[k]] += (*a.coupling)[k];
      VecRestoreArray(y, &yj);
      if (!a.held->empty())
        for (size_t i = 0; i < held; ++i) mine[i] += (*a.held)[i * held + j];
    }
    MPI_Allreduce(mine.data(), all.data(), statics, MPI_DOUBLE, MPI_SUM, PETSC_COMM_WORLD);
    ok = ok && VecMDot(y, static_cast<PetscInt>(j + 1), x.data(), dots.data()) == 0;
    for (size_t i = 0; i <= j && ok; ++i) {
      double v = dots[i] + (i < held ? all[i] : 0.0);
      out[i * count + j] = v;
      out[j * count + i] = v;
    }
  }
  VecDestroy(&y);
  return ok || failed("the generalized products failed");
}

// Rank 0: M's diagonal over every row of the files (each rank's free rows gathered, the held rows
// from the block at row 0) and the direction sums of all ranks.
void gather_mass(const RowBlock &block, const RowLayout &layout, MassSums &sums) {
  const std::vector<double> &mine = block.mass_diagonal;
  int size = world_size(), rank = world_rank();
  std::vector<int> counts(static_cast<size_t>(size)), at(static_cast<size_t>(size));
  MPI_Gather(&block.count, 1, MPI_INT, counts.data(), 1, MPI_INT, 0, PETSC_COMM_WORLD);
  MPI_Gather(&block.first, 1, MPI_INT, at.data(), 1, MPI_INT, 0, PETSC_COMM_WORLD);
  std::vector<double> free_rows(rank == 0 ? static_cast<size_t>(block.rows) : 0);
  MPI_Gatherv(mine.data(), block.count, MPI_DOUBLE, free_rows.data(), counts.data(), at.data(),
              MPI_DOUBLE, 0, PETSC_COMM_WORLD);
  MPI_Reduce(block.mass_sums, sums.direction, 3, MPI_DOUBLE, MPI_SUM, 0, PETSC_COMM_WORLD);
  if (rank != 0) return;
  size_t held = layout.held.size();
  std::vector<int> held_at(static_cast<size_t>(layout.n), -1);
  for (size_t h = 0; h < held; ++h) held_at[layout.held[h]] = static_cast<int>(h);
  sums.diagonal.assign(static_cast<size_t>(layout.n), 0.0);
  size_t k = 0;
  for (size_t r = 0; r < sums.diagonal.size(); ++r)
    sums.diagonal[r] = held_at[r] < 0 ? free_rows[k++] : block.held_mass[held_at[r] * (held + 1)];
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
  long long parsed = matrix_values_parsed();
  std::vector<long long> each(static_cast<size_t>(world_size()));
  MPI_Gather(&parsed, 1, MPI_LONG_LONG, each.data(), 1, MPI_LONG_LONG, 0, PETSC_COMM_WORLD);
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
  std::string list;
  for (long long n : each) list += " " + std::to_string(n);
  std::fprintf(stderr, "ccx2krx:   matrix values parsed by each rank:%s of %lld\n", list.c_str(),
               static_cast<long long>(block.entries));
}

// Every rank: the solve, with rank 0's rigid-body motions (empty elsewhere and with held rows);
// rank 0 gets the sums.
bool solve_collective(const SharedJob &job, const std::vector<double> &motions,
                      const std::string &vectors_path, const std::string &statics_path,
                      std::vector<double> &values, ParallelSums &sums) {
  std::string message;
  capture_messages(&message);
  auto begin = std::chrono::steady_clock::now();
  Timing t;
  int rank = world_rank(), size = world_size();
  const RowLayout &layout = job.layout;
  int statics = static_cast<int>(layout.held.size());
  std::vector<int> split = split_rows(job.mas, layout, size);
  int first = split[rank], count = split[rank + 1] - split[rank];
  RowBlock block;
  Distributed d;
  ParallelModes modes;
  std::vector<Vec> z, shapes;
  if (rank == 0) show_stage("reading each rank's rows");
  bool ok = agree(read_row_block(job.mas, job.sti, layout, first, count, block), message);
  t.read = seconds_since(begin);
  ok = ok && agree(make_distributed(block, d), message);
  double sigma = 0.0;
  if (ok && statics == 0) lower_shift_parallel(block, sigma);
  // PETSc holds its own copy of the rows from here on.
  std::vector<int>().swap(block.start);
  std::vector<int>().swap(block.column);
  std::vector<double>().swap(block.stiffness);
  std::vector<double>().swap(block.mass);
  if (ok) {
    std::vector<std::vector<double>> mine;
    if (statics == 0) mine = scatter_motions(motions, layout.n, block);
    std::vector<double> rigid_values;
    ok = agree(rigid_modes(d, mine, sigma, z, rigid_values), message);
    StaticsStage solve_statics;
    if (statics > 0)
      solve_statics = [&](KSP solve) {
        return static_shapes(solve, d, block, job, statics_path, shapes);
      };
    if (rank == 0) show_stage("factor and Krylov-Schur on every rank");
    auto lanczos = std::chrono::steady_clock::now();
    ok = ok && agree(lowest_modes_parallel(d, sigma, job.modes, z, rigid_values, solve_statics,
                                           modes),
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
  if (ok) {
    std::vector<Vec> exported = shapes;
    exported.insert(exported.end(), modes.vectors.begin(), modes.vectors.begin() + job.modes);
    Part k{d.k, &block.coupling_stiffness, &block.held_stiffness};
    Part m{d.m, &block.coupling_mass, &block.held_mass};
    sums.vectors = static_cast<int>(exported.size());
    ok = agree(generalized(k, block, exported, statics, sums.generalized_stiffness) &&
                   generalized(m, block, exported, statics, sums.generalized_mass),
               message);
  }
  if (ok) gather_mass(block, layout, sums.mass);
  free_modes(modes);
  for (Vec &v : shapes) VecDestroy(&v);
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

// Ranks on one machine share its cores: unless the user set the number of threads, each rank's
// BLAS (and OpenMP, where a library uses it) gets its share, so that two ranks on two cores do not
// run four threads that wait for each other. The setters are looked up, not linked: which BLAS
// serves is the system's choice.
void share_cores() {
  MPI_Comm machine = MPI_COMM_NULL;
  int ranks_here = 1;
  if (MPI_Comm_split_type(PETSC_COMM_WORLD, MPI_COMM_TYPE_SHARED, 0, MPI_INFO_NULL, &machine) ==
      MPI_SUCCESS) {
    MPI_Comm_size(machine, &ranks_here);
    MPI_Comm_free(&machine);
  }
  if (ranks_here < 2 || std::getenv("OMP_NUM_THREADS") || std::getenv("OPENBLAS_NUM_THREADS"))
    return;
  int threads = std::max(1, static_cast<int>(std::thread::hardware_concurrency()) / ranks_here);
  using Setter = void (*)(int);
  for (const char *name : {"openblas_set_num_threads", "omp_set_num_threads"})
    if (void *set = dlsym(RTLD_DEFAULT, name)) reinterpret_cast<Setter>(set)(threads);
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
  share_cores();
  return true;
}

int follow_parallel() {
  int go = 0;
  SharedJob job;
  share_job(go, job);
  bool ok = false;
  if (go) {
    std::vector<double> values;
    ParallelSums sums;
    ok = solve_collective(job, {}, "", "", values, sums);
  }
  SlepcFinalize();
  return ok ? 0 : 1;
}

bool solve_parallel(const ParallelJob &job, EigenFile &eig, ParallelSums &sums) {
  SharedJob shared;
  RowLayout &layout = shared.layout;
  std::vector<double> motions;
  int go = interface_rows(*job.deck, *job.map, layout.held) ? 1 : 0;
  if (go && layout.held.empty()) rigid_motions(*job.deck, *job.map, motions);
  layout.n = static_cast<int>(job.map->row_node.size());
  layout.direction.resize(static_cast<size_t>(layout.n));
  for (int r = 0; r < layout.n; ++r) {
    int dir = job.map->row_dir[r];
    layout.direction[r] = static_cast<signed char>(dir >= 0 && dir < 3 ? dir : -1);
  }
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
  if (!solve_collective(shared, motions, job.vectors_path, job.statics_path, values, sums))
    return false;
  eig.name = job.vectors_path;
  eig.file = std::fopen(job.vectors_path.c_str(), "rb");
  if (!eig.file) return failed("cannot read %s back", job.vectors_path.c_str());
  eig.modes = job.modes;
  eig.rows = layout.n - static_cast<int>(layout.held.size());
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
