// ccx2krx's own solver on small matrices with known answers: chains of unit masses and unit
// springs, whose eigenvalues are 4 sin^2(k pi / 2(n + 1)) held at both ends and 4 sin^2(k pi / 2n)
// free (k from 0), and whose static shapes are linear.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

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
    EXPECT_TRUE(ccx::check_missed_modes(c.m, ccx::factor_ordering(*s.factor), s.modes, seconds));
  }
}

// Four free chains have four rigid-body modes: one mode asked still gets its check past them.
TEST(OwnSolver, FewerModesWantedThanRigidBodyModes) {
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

TEST(OwnSolver, MissedModeCheckCatchesAModeLeftOut) {
  ccx::Matrices m = chain(40, true);
  Solved s;
  ASSERT_TRUE(solve(m, -0.01, 8, {}, s));
  std::vector<int64_t> ordering = ccx::factor_ordering(*s.factor);
  for (size_t left_out : {size_t{3}, size_t{0}}) {
    testing::internal::CaptureStderr();
    double seconds = 0.0;
    EXPECT_FALSE(ccx::check_missed_modes(m, ordering, leave_out(s.modes, left_out), seconds));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("it missed a mode"), std::string::npos);
  }
  // A run that misses a mode is done again with more modes; a mode missed twice fails.
  struct Case {
    const char *name;
    int missing_runs;
    bool ok;
    const char *message;
  } cases[] = {
      {"found the second time", 1, true, "computing again with 4 more modes"},
      {"missed twice", 2, false, "it missed a mode"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<int> asked;
    auto lanczos = [&](int more, ccx::Modes &modes) {
      asked.push_back(more);
      modes = static_cast<int>(asked.size()) <= c.missing_runs ? leave_out(s.modes, 3) : s.modes;
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

// One element of each type, its natural coordinates stretched and sheared into place, under a
// displacement whose strain its recovery must give at every node: a constant strain for all,
// a strain linear in x (u = x^2 along x) for the types whose points determine a linear field.
TEST(StressRecovery, GivesTheStrainsOfFieldsTheElementHolds) {
  const double hex[20][3] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1}, {-1, -1, 1},
                             {1, -1, 1},   {1, 1, 1},   {-1, 1, 1}, {0, -1, -1}, {1, 0, -1},
                             {0, 1, -1},   {-1, 0, -1}, {0, -1, 1}, {1, 0, 1},   {0, 1, 1},
                             {-1, 0, 1},   {-1, -1, 0}, {1, -1, 0}, {1, 1, 0},   {-1, 1, 0}};
  const double tet[10][3] = {{0, 0, 0},   {1, 0, 0},  {0, 1, 0},  {0, 0, 1},   {.5, 0, 0},
                             {.5, .5, 0}, {0, .5, 0}, {0, 0, .5}, {.5, 0, .5}, {0, .5, .5}};
  const double wedge[15][3] = {{0, 0, -1},  {1, 0, -1},  {0, 1, -1},   {0, 0, 1},   {1, 0, 1},
                               {0, 1, 1},   {.5, 0, -1}, {.5, .5, -1}, {0, .5, -1}, {.5, 0, 1},
                               {.5, .5, 1}, {0, .5, 1},  {0, 0, 0},    {1, 0, 0},   {0, 1, 0}};
  struct Case {
    const char *type;
    int shape, rule, nodes;
    const double (*at)[3];
    bool linear_strain;
  } cases[] = {
      {"C3D4", 0, 0, 4, tet, false},   {"C3D10", 0, 0, 10, tet, true},
      {"C3D6", 1, 0, 6, wedge, false}, {"C3D15", 1, 0, 15, wedge, true},
      {"C3D8", 2, 0, 8, hex, false},   {"C3D8R", 2, 1, 8, hex, false},
      {"C3D20", 2, 0, 20, hex, true},  {"C3D20R", 2, 1, 20, hex, true},
  };
  const double young = 210000.0, poisson = 0.3;
  const double lambda = young * poisson / ((1 + poisson) * (1 - 2 * poisson));
  const double mu = young / (2 * (1 + poisson));
  for (const Case &c : cases) {
    SCOPED_TRACE(c.type);
    ccx::Deck deck;
    deck.materials = {{"STEEL", young, poisson, true}};
    deck.solid_sections = {{"SOLID", "STEEL"}};
    deck.element_sets = {{"SOLID", {7}}};
    ccx::Element e;
    e.id = 7;
    e.shape = c.shape;
    e.rule = c.rule;
    for (int n = 0; n < c.nodes; ++n) {
      const double *p = c.at[n];
      deck.node_ids.push_back(n + 1);
      double xyz[3] = {3 * p[0] + 0.5 * p[1] + 1, 2 * p[1] + 0.3 * p[2], 4 * p[2] + 0.2 * p[0]};
      deck.xyz.insert(deck.xyz.end(), xyz, xyz + 3);
      e.nodes.push_back(n + 1);
    }
    deck.elements.push_back(e);
    ccx::StressModel model;
    ASSERT_TRUE(ccx::prepare_stresses(deck, model, true));
    for (bool linear : {false, true}) {
      if (linear && !c.linear_strain) continue;
      std::vector<double> by_node(6 * c.nodes, 0.0), stresses;
      for (int n = 0; n < c.nodes; ++n) {
        const double *x = &deck.xyz[3 * n];
        double *u = &by_node[6 * n];
        if (linear) {
          u[0] = x[0] * x[0];
        } else {  // strains xx 1e-3, yy -2e-4, zz 5e-4, shear xy 4e-4, yz 2e-4, zx -6e-4
          u[0] = 1e-3 * x[0] + 4e-4 * x[1] - 6e-4 * x[2];
          u[1] = -2e-4 * x[1] + 2e-4 * x[2];
          u[2] = 5e-4 * x[2];
        }
      }
      // Three threads, each summing its share of the elements (the last one gets the element).
      setenv("OMP_NUM_THREADS", "3", 1);
      ccx::recover_stresses(model, deck, by_node, stresses);
      unsetenv("OMP_NUM_THREADS");
      for (int n = 0; n < c.nodes; ++n) {
        const double x = deck.xyz[3 * n];
        double e[6] = {1e-3, -2e-4, 5e-4, 4e-4, 2e-4, -6e-4};  // shear as engineering strain
        if (linear) {
          for (double &v : e) v = 0.0;
          e[0] = 2 * x;
        }
        double trace = e[0] + e[1] + e[2];
        double expected[6] = {lambda * trace + 2 * mu * e[0],
                              lambda * trace + 2 * mu * e[1],
                              lambda * trace + 2 * mu * e[2],
                              mu * e[3],
                              mu * e[4],
                              mu * e[5]};
        for (int k = 0; k < 6; ++k)
          EXPECT_NEAR(stresses[6 * n + k], expected[k], 1e-9 * young * (1 + std::fabs(x)))
              << (linear ? "linear" : "constant") << " strain, node " << n + 1 << " component "
              << k;
      }
    }
  }
}
