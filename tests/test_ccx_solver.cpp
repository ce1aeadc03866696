// ccx2krx's own solver on small matrices with known answers: chains of unit masses and unit
// springs, whose eigenvalues are 4 sin^2(k pi / 2(n + 1)) held at both ends and 4 sin^2(k pi / 2n)
// free (k from 0), and whose static shapes are linear.
#include <gtest/gtest.h>

#include <algorithm>
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

TEST(OwnSolver, FindsTheLowestModesOfHeldFreeAndRepeatedChains) {
  const int n = 60;
  std::vector<double> translation(n, 1.0);
  struct Case {
    const char *name;
    ccx::Matrices m;
    double sigma;
    std::vector<double> motions;
    int rigid;
  } cases[] = {
      {"held", chain(n, true), -0.01, {}, 0},
      {"free, the translation deflated", chain(n, false), -0.01, translation, 1},
      {"held, every eigenvalue twice", chain(n, true, 2), -0.01, {}, 0},
  };
  for (Case &c : cases) {
    SCOPED_TRACE(c.name);
    Solved s;
    ASSERT_TRUE(solve(c.m, c.sigma, 10, c.motions, s));
    EXPECT_EQ(s.modes.rigid, c.rigid);
    bool held = c.motions.empty();
    int copies = c.m.n / n;
    for (int j = 0; j < 10; ++j) {
      int k = j / copies + (held ? 1 : 0);
      EXPECT_NEAR(s.modes.values[j], chain_eigenvalue(n, held, k), 1e-10) << "mode " << j + 1;
    }
    EXPECT_TRUE(ccx::check_residuals(c.m, s.modes, 1e-8));
    double seconds = 0.0;
    EXPECT_TRUE(
        ccx::check_missed_modes(c.m, ccx::factor_ordering(*s.factor), s.modes, seconds));
  }
}

TEST(OwnSolver, MissedModeCheckCatchesAModeLeftOut) {
  ccx::Matrices m = chain(40, true);
  Solved s;
  ASSERT_TRUE(solve(m, -0.01, 8, {}, s));
  // Mode 4 taken out, as a Lanczos run that never saw it would leave the list.
  for (size_t left_out : {size_t{3}, size_t{0}}) {
    ccx::Modes missing = s.modes;
    missing.values.erase(missing.values.begin() + static_cast<long>(left_out));
    missing.values.push_back(chain_eigenvalue(40, true, 12));
    testing::internal::CaptureStderr();
    double seconds = 0.0;
    EXPECT_FALSE(ccx::check_missed_modes(m, ccx::factor_ordering(*s.factor), missing, seconds));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("it missed a mode"), std::string::npos);
  }
}

TEST(OwnSolver, RefusesWhatItCannotSolve) {
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

TEST(OwnSolver, ResidualCheckFailsAPerturbedMode) {
  ccx::Matrices m = chain(30, true);
  Solved s;
  ASSERT_TRUE(solve(m, -0.01, 4, {}, s));
  s.modes.values[2] *= 1.0 + 1e-4;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(ccx::check_residuals(m, s.modes, 1e-6));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("mode 3 "), std::string::npos);
}

// Both ends of a held chain of n masses are rows of their own; the static shape of each end is
// linear from 1 at it to 0 at the other.
TEST(OwnSolver, ConstraintModesOfAChainAreLinear) {
  const int n = 12;
  ccx::Matrices m = chain(n, true);
  std::vector<int> held = {0, n - 1}, keep;
  for (int r = 1; r < n - 1; ++r) keep.push_back(r);
  ccx::Matrices interior;
  ccx::restrict_rows(m, keep, interior);
  ccx::FactorHandle f;
  ASSERT_TRUE(ccx::factor_shifted(interior, 0.0, f));
  std::vector<double> shapes;
  ASSERT_TRUE(ccx::constraint_modes(m, held, *f, shapes));
  for (int r = 0; r < n; ++r) {
    double t = static_cast<double>(r) / (n - 1);
    EXPECT_NEAR(shapes[r], 1.0 - t, 1e-12) << r;
    EXPECT_NEAR(shapes[n + r], t, 1e-12) << r;
  }
}

TEST(OwnSolver, TiedNodesFollowTheirReferenceNode) {
  ccx::Deck deck;
  deck.node_ids = {1, 2, 3};
  deck.xyz = {1, 2, 3, 2, 2, 3, 0, 0, 0};  // node 3 is the reference node at the origin
  ccx::Interface point;
  point.ref = 3;
  point.tied = {0, 1};
  deck.interfaces.push_back(point);
  std::vector<double> by_node(18, 0.0);
  double motion[6] = {0.5, -1, 2, 0.1, -0.2, 0.3};  // u, theta
  std::copy(motion, motion + 6, &by_node[12]);
  ccx::expand_rigid_ties(deck, by_node);
  // u + theta x r at r = (1, 2, 3) and (2, 2, 3)
  double expected[2][3] = {{-0.7, -1.0, 2.4}, {-0.7, -0.7, 2.6}};
  for (int node = 0; node < 2; ++node)
    for (int d = 0; d < 3; ++d) EXPECT_NEAR(by_node[6 * node + d], expected[node][d], 1e-15);
}

}  // namespace
