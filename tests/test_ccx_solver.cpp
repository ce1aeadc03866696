// ccx2krx's own solver on small matrices with known answers: chains of unit masses and unit
// springs, whose eigenvalues are 4 sin^2(k pi / 2(n + 1)) held at both ends and 4 sin^2(k pi / 2n)
// free (k from 0). Its modes of CalculiX's models are checked against CalculiX's in
// tests/calculix; here, what those models do not reach: more rigid-body modes than modes asked,
// a mode left out and found again, and the refusals.
#include <gtest/gtest.h>

#include <cmath>

#include "solver.h"

namespace {

// A chain of n masses and springs; `held_ends` ties both ends to the ground by a spring; `copies`
// uncoupled chains side by side make every eigenvalue `copies`-fold.
ccx::Matrices chain(int n, bool held_ends, int copies = 1) {
  ccx::Matrices m;
  m.n = n * copies;
  m.start.push_back(0);
  for (int c = 0; c < m.n; ++c) {
    int i = c % n;
    if (i > 0) {
      m.row.push_back(c - 1);
      m.stiffness.push_back(-1.0);
      m.mass.push_back(0.0);
    }
    bool end = i == 0 || i == n - 1;
    m.row.push_back(c);
    m.stiffness.push_back(held_ends || !end ? 2.0 : 1.0);
    m.mass.push_back(1.0);
    m.start.push_back(static_cast<int64_t>(m.row.size()));
  }
  return m;
}

double chain_eigenvalue(int n, bool held_ends, int k) {
  double s = std::sin(k * M_PI / (held_ends ? 2.0 * (n + 1) : 2.0 * n));
  return 4.0 * s * s;
}

struct Solved {
  ccx::FactorHandle factor;
  ccx::Modes modes;
};

bool solve(const ccx::Matrices &m, double sigma, int wanted, const std::vector<double> &motions,
           Solved &s) {
  return ccx::factor_shifted(m, sigma, s.factor) &&
         ccx::lowest_modes(m, *s.factor, sigma, wanted, motions, s.modes);
}

// Four free chains have four rigid-body modes: one mode asked still gets its check past them.
TEST(CcxSolver, FewerModesWantedThanRigidBodyModes) {
  const int n = 20;
  ccx::Matrices m = chain(n, false, 4);
  std::vector<double> motions(4 * 4 * n, 0.0);
  for (int c = 0; c < 4; ++c)
    for (int i = 0; i < n; ++i) motions[(c * 4 + c) * n + i] = 1.0;
  Solved s;
  ASSERT_TRUE(solve(m, -0.01, 1, motions, s));
  EXPECT_EQ(s.modes.rigid, 4);
  EXPECT_NEAR(s.modes.values[4], chain_eigenvalue(n, false, 1), 1e-10);
  double seconds = 0.0;
  EXPECT_TRUE(ccx::check_missed_modes(m, ccx::factor_ordering(*s.factor), s.modes, seconds));
}

// Mode 4 (or 1) taken out, as a Lanczos run that never saw it would leave the list.
ccx::Modes leave_out(const ccx::Modes &modes, size_t left_out) {
  ccx::Modes missing = modes;
  missing.values.erase(missing.values.begin() + static_cast<long>(left_out));
  missing.values.push_back(chain_eigenvalue(40, true, 12));
  return missing;
}

TEST(CcxSolver, MissedModeCheckCatchesAModeLeftOut) {
  ccx::Matrices m = chain(40, true);
  Solved s;
  ASSERT_TRUE(solve(m, -0.01, 8, {}, s));
  std::vector<int64_t> ordering = ccx::factor_ordering(*s.factor);
  // A run that misses a mode is done again with more modes; a mode missed twice fails.
  struct Case {
    const char *name;
    size_t left_out;
    int missing_runs;
    bool ok;
    const char *message;
  } cases[] = {
      {"mode 4 found the second time", 3, 1, true, "computing again with 4 more modes"},
      {"mode 1 missed twice", 0, 2, false, "it missed a mode"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<int> asked;
    auto lanczos = [&](int more, ccx::Modes &modes) {
      asked.push_back(more);
      modes = static_cast<int>(asked.size()) <= c.missing_runs ? leave_out(s.modes, c.left_out)
                                                              : s.modes;
      return true;
    };
    auto count = [&](double shift, int64_t &below) {
      return ccx::count_eigenvalues_below(m, shift, ordering, below);
    };
    ccx::Modes modes;
    double seconds = 0.0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(ccx::solve_and_count(lanczos, count, modes, seconds), c.ok);
    std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find(c.message), std::string::npos) << said;
    EXPECT_EQ(asked, (std::vector<int>{0, 1 + ccx::kExtraModes}));
  }
}

TEST(CcxSolver, RefusesWhatItCannotSolve) {
  ccx::Matrices m = chain(8, false);
  struct Case {
    const char *name;
    double sigma;
    int wanted;
    const char *message;
  } cases[] = {
      {"a shift above the lowest eigenvalue", 0.5, 2, "is not positive definite"},
      {"more modes than rows", -0.01, 8, "the model has 8 degrees of freedom"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    testing::internal::CaptureStderr();
    Solved s;
    EXPECT_FALSE(solve(m, c.sigma, c.wanted, {}, s));
    EXPECT_NE(testing::internal::GetCapturedStderr().find(c.message), std::string::npos);
  }
}

TEST(CcxSolver, ResidualCheckFailsAPerturbedMode) {
  ccx::Matrices m = chain(30, true);
  Solved s;
  ASSERT_TRUE(solve(m, -0.01, 4, {}, s));
  s.modes.values[2] *= 1.0 + 1e-4;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(ccx::check_residuals(m, s.modes, 1e-6));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("mode 3 "), std::string::npos);
}

}  // namespace
