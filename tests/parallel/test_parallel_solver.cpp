// The parallel solver's stages on every rank of the run (CTest starts it under mpirun with 1 and
// 2 ranks): chains of unit masses and springs written as CalculiX's matrix files, whose
// eigenvalues are 4 sin^2(k pi / 2(n + 1)) held at both ends and 4 sin^2(k pi / 2n) free. The
// static shapes, held rows and each rank's share of the files are checked on CalculiX's models
// against the single-machine path in tests/calculix/test_parallel.py.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "backend_petsc.h"

namespace {

int rank() {
  int r = 0;
  MPI_Comm_rank(PETSC_COMM_WORLD, &r);
  return r;
}

double chain_eigenvalue(int n, bool held_ends, int k) {
  double s = std::sin(k * M_PI / (held_ends ? 2.0 * (n + 1) : 2.0 * n));
  return 4.0 * s * s;
}

// The chain's .mas and .sti (upper triangle, column by column, 1-based), written by rank 0 into
// a directory every rank sees; `copies` uncoupled chains make each eigenvalue that many-fold.
std::string write_chain(const char *name, int n, bool held_ends, int copies = 1) {
  std::string base = std::string(KRX_BINARY_DIR) + "/parallel_" + name;
  if (rank() == 0) {
    std::ofstream mas(base + ".mas"), sti(base + ".sti");
    for (int c = 0; c < n * copies; ++c) {
      int i = c % n;
      if (i > 0) {
        mas << c << " " << c + 1 << " 0\n";
        sti << c << " " << c + 1 << " -1\n";
      }
      bool end = i == 0 || i == n - 1;
      mas << c + 1 << " " << c + 1 << " 1\n";
      sti << c + 1 << " " << c + 1 << " " << (held_ends || !end ? 2 : 1) << "\n";
    }
  }
  MPI_Barrier(PETSC_COMM_WORLD);
  return base;
}

struct Problem {
  ccx::RowBlock block;
  ccx::Distributed d;
  ~Problem() { ccx::free_distributed(d); }
};

bool read(const std::string &base, int n, const std::vector<int> &held, Problem &p) {
  int rows = n - static_cast<int>(held.size()), size = 1, r = rank();
  MPI_Comm_size(PETSC_COMM_WORLD, &size);
  int count = rows / size + (r < rows % size ? 1 : 0);
  int first = r * (rows / size) + std::min(r, rows % size);
  ccx::RowLayout layout;
  layout.n = n;
  layout.held = held;
  return ccx::read_row_block(base + ".mas", base + ".sti", layout, first, count, p.block) &&
         ccx::make_distributed(p.block, p.d);
}

bool solve(Problem &p, double sigma, int wanted, const std::vector<double> &motion,
           ccx::ParallelModes &modes) {
  std::vector<Vec> z;
  std::vector<double> values;
  std::vector<std::vector<double>> mine;
  if (!motion.empty())  // this rank's rows
    mine = {std::vector<double>(motion.begin() + p.block.first,
                                motion.begin() + p.block.first + p.block.count)};
  return ccx::rigid_modes(p.d, mine, sigma, z, values) &&
         ccx::lowest_modes_parallel(p.d, sigma, wanted, z, values, nullptr, modes);
}

TEST(ParallelSolver, FindsTheLowestModesOfHeldFreeAndRepeatedChains) {
  const int n = 60;
  struct Case {
    const char *name;
    bool held;
    int copies;
    int rigid;
  } cases[] = {
      {"held", true, 1, 0},
      {"free, the translation deflated", false, 1, 1},
      {"held, every eigenvalue twice", true, 2, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    Problem p;
    ASSERT_TRUE(read(write_chain("chain", n, c.held, c.copies), n * c.copies, {}, p));
    std::vector<double> translation;
    if (!c.held) translation.assign(n, 1.0);
    ccx::ParallelModes modes;
    ASSERT_TRUE(solve(p, -0.01, 10, translation, modes));
    EXPECT_EQ(modes.modes.rigid, c.rigid);
    for (int j = 0; j < 10; ++j) {
      int k = j / c.copies + (c.held ? 1 : 0);
      EXPECT_NEAR(modes.modes.values[j], chain_eigenvalue(n, c.held, k), 1e-10) << j + 1;
    }
    EXPECT_TRUE(ccx::check_residuals_parallel(p.d, modes, 1e-8));
    double seconds = 0.0;
    EXPECT_TRUE(ccx::check_mode_count(
        modes.modes,
        [&](double shift, int64_t &count) { return ccx::count_below_parallel(p.d, shift, count); },
        seconds));
    ccx::free_modes(modes);
  }
}

TEST(ParallelSolver, MissedModeCheckCatchesAModeLeftOut) {
  Problem p;
  ASSERT_TRUE(read(write_chain("missed", 40, true), 40, {}, p));
  ccx::ParallelModes modes;
  ASSERT_TRUE(solve(p, -0.01, 8, {}, modes));
  ccx::free_modes(modes);
  // Mode 4 taken out, as an iteration that never saw it would leave the list.
  ccx::Modes missing = modes.modes;
  missing.values.erase(missing.values.begin() + 3);
  missing.values.push_back(chain_eigenvalue(40, true, 12));
  std::string message;
  ccx::capture_messages(&message);
  double seconds = 0.0;
  EXPECT_FALSE(ccx::check_mode_count(
      missing,
      [&](double shift, int64_t &count) { return ccx::count_below_parallel(p.d, shift, count); },
      seconds));
  ccx::capture_messages(nullptr);
  EXPECT_NE(message.find("it missed a mode"), std::string::npos) << message;
}

TEST(ParallelSolver, RowReaderRefusesWhatTheSingleMachineReaderRefuses) {
  struct Case {
    const char *name, *mas, *sti, *message;
  } cases[] = {
      {"below the diagonal", "1 1 1\n2 1 0\n2 2 1\n", "1 1 2\n2 2 2\n",
       "outside the upper triangle"},
      {"not a triplet", "1 1 1\n2 x 1\n", "1 1 2\n2 2 2\n", "entry 2 is not \"row column value\""},
      {"patterns differ", "1 1 1\n1 2 0\n2 2 1\n", "1 1 2\n2 2 2\n", "differs"},
      {"no such file", nullptr, "1 1 2\n2 2 2\n", "cannot open"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::string base = std::string(KRX_BINARY_DIR) + "/parallel_bad";
    if (rank() == 0) {
      std::remove((base + ".mas").c_str());
      if (c.mas) std::ofstream(base + ".mas") << c.mas;
      std::ofstream(base + ".sti") << c.sti;
    }
    MPI_Barrier(PETSC_COMM_WORLD);
    std::string message;
    ccx::capture_messages(&message);
    ccx::RowBlock block;
    // Every rank reads all rows, so that each sees the fault.
    ccx::RowLayout layout;
    layout.n = 2;
    EXPECT_FALSE(ccx::read_row_block(base + ".mas", base + ".sti", layout, 0, 2, block));
    ccx::capture_messages(nullptr);
    EXPECT_NE(message.find(c.message), std::string::npos) << message;
    MPI_Barrier(PETSC_COMM_WORLD);
  }
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  int zero = 0;
  char **none = nullptr;
  if (SlepcInitialize(&zero, &none, nullptr, nullptr) != 0) return 1;
  PetscPushErrorHandler(PetscReturnErrorHandler, nullptr);
  // Only rank 0 reports; every rank runs every test, since the stages are collective.
  if (rank() != 0) {
    auto &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
  }
  int failed = RUN_ALL_TESTS();
  int any = 0;
  MPI_Allreduce(&failed, &any, 1, MPI_INT, MPI_MAX, PETSC_COMM_WORLD);
  SlepcFinalize();
  return any;
}
