// The eigen solution: ordering, orthonormalisation, records, loads, damping and the rewritten
// vector files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "host/krx_fortran.h"
#include "model/krxtools.h"
#include "processing/krxeigen.h"
#include "testsupport.h"

namespace {

using krx::KRXDATA;
constexpr double kTwoPi = 6.28318530718;  // the hertz of the table and the records use this value

struct EigenTest : krxtest::ModelTest {
  void SetUp() override { fresh(20, 12); }

  // Modes numbered 1..n, generalized matrices given as full n x n row-major matrices.
  void set_pencil(const std::vector<double> &k, const std::vector<double> &g, int n) {
    model->modes.clear();
    for (int j = 0; j < n; ++j) model->modes.push_back(j + 1);
    for (int r = 0; r < n; ++r)
      for (int c = 0; c < n; ++c) {
        if (k[r * n + c] != 0.0) model->stiffness.push_back({r, c, k[r * n + c]});
        if (g[r * n + c] != 0.0 || r != c) model->mass.push_back({r, c, g[r * n + c]});
      }
    model->gm_off_diagonal = 1;
  }
  void set_diagonal(const std::vector<double> &k, const std::vector<double> &g) {
    const int n = int(k.size());
    std::vector<double> kk(n * n, 0.0), gg(n * n, 0.0);
    for (int i = 0; i < n; ++i) kk[i * n + i] = k[i], gg[i * n + i] = g[i];
    set_pencil(kk, gg, n);
  }
  double t(int r, int c) const {
    int n = int(krx::current_model()->transformation_modes.size());
    return krx::current_model()->transformation[r * n + c];
  }
};

std::vector<double> dense(const std::vector<krx::MatrixEntry> &entries, int n) {
  std::vector<double> m(n * n, 0.0);
  for (const krx::MatrixEntry &e : entries) m[e.row * n + e.column] = e.value;
  return m;
}

void expect_doubles(const std::vector<double> &actual, const std::vector<double> &expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) EXPECT_DOUBLE_EQ(actual[i], expected[i]) << i;
}

std::string fmt(const char *format, int k, double a, double b = 0.0) {
  char buffer[256];
  std::snprintf(buffer, sizeof buffer, format, k, a, b);
  return buffer;
}

// The lines of the eigenvalue table: after its rule, before the Gram-Schmidt note.
std::vector<std::string> table_lines(const krxtest::RecordingHost &host) {
  std::vector<std::string> notes = host.texts(0);
  auto first = std::find(notes.begin(), notes.end(), "  ===============================================");
  if (first == notes.end()) return {};
  auto last = std::find_if(first, notes.end(), [](const std::string &s) { return s.starts_with("\n  Appling"); });
  return std::vector<std::string>(first + 1, last);
}

// A = random invertible; G = A^T A, K = A^T diag(lambda) A: the modes are the columns of A^-1.
void known_modes(int n, const std::vector<double> &lambda, std::vector<double> &k,
                 std::vector<double> &g, unsigned seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> a(n * n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a[i * n + j] = u(rng) + (i == j ? 3.0 : 0.0);
  k.assign(n * n, 0.0);
  g.assign(n * n, 0.0);
  for (int r = 0; r < n; ++r)
    for (int c = 0; c < n; ++c)
      for (int i = 0; i < n; ++i) {
        g[r * n + c] += a[i * n + r] * a[i * n + c];
        k[r * n + c] += a[i * n + r] * lambda[i] * a[i * n + c];
      }
}

std::vector<double> shape(int mode, int node) {
  std::vector<double> v(6);
  for (int c = 0; c < 6; ++c) v[c] = std::sin(1.0 + mode * 0.7 + node * 1.3 + c * 0.37) * (c + 1);
  return v;
}

}  // namespace

// With six or fewer modes every small eigenvalue is rigid, a negative mid-range one too; equal
// eigenvalues keep their reversed order; a mode without mass is infinite and not retained.
TEST_F(EigenTest, SmallEigenvaluesAreRigidEqualOnesStayReversedAndAMasslessModeIsDropped) {
  set_diagonal({0.8, 3.0, 7.0, -0.5, 3.0}, {1.0, 1.0, 0.0, 1.0, 1.0});
  model->load_cases.push_back({"lc", 0, {1.0, 2.0, 3.0, 4.0, 5.0}});
  krxtest::RecordingHost host;
  ASSERT_EQ(krx::solve_and_orthonormalise(model), 1);
  EXPECT_TRUE(host.has(2, "Mode 3 is not physically meaningful\nIt contains an infinite eigenvalue.  Ignoring this mode.\n"));
  EXPECT_EQ(table_lines(host), (std::vector<std::string>{
                                   fmt(" %3d : %20.14e  Sqrt undefined.     (probable rigid body mode)", 1, -0.5),
                                   fmt(" %3d : %20.14e  %20.14e (probable rigid body mode)", 2, 0.8, std::sqrt(0.8) / kTwoPi),
                                   fmt(" %3d : %20.14e  %20.14e", 3, 3.0, std::sqrt(3.0) / kTwoPi),
                                   fmt(" %3d : %20.14e  %20.14e", 4, 3.0, std::sqrt(3.0) / kTwoPi),
                                   "   5 : Infinity.  Possible mass singularity.  Ignored."}));
  ASSERT_TRUE(model->retained_modes == 4 && model->eigen.size() == 4u);
  EXPECT_TRUE(model->eigen[0].eigenvalue == -0.5 && model->eigen[3].eigenvalue == 3.0);
  // Reversed: host modes 4, 3, 2, 1, 0; sorted stably: 3, 0, then the equal 4 and 1, the infinite 2 last.
  const int host_mode[5] = {3, 0, 4, 1, 2};
  for (int j = 0; j < 5; ++j) EXPECT_EQ(std::fabs(t(host_mode[j], j)), 1.0) << j;
  // Loads follow the vectors: new[j] = sum_r old[r] T[r][j].
  for (int j = 0; j < 4; ++j) EXPECT_EQ(std::fabs(model->load_cases[0].values[j]), host_mode[j] + 1.0) << j;
}

TEST_F(EigenTest, NotUnitMassOnlyScalesColumnsDampingAndLoads) {
  model->modes = {1, 2, 3};
  model->mass = {{0, 0, 4.0}, {1, 1, 9.0}, {2, 2, 1.0}};
  model->stiffness = {{0, 0, 8.0}, {1, 1, 36.0}, {2, 2, 5.0}};
  model->damping = {{0, 1, 12.0}, {1, 1, 18.0}, {0, 1, 6.0}};  // the last (0, 1) wins
  model->gm_not_unit = 1;
  model->load_cases.push_back({"lc", 0, {2.0, 3.0, 4.0}});
  model->preload = {4.0, 9.0, 1.0};
  krxtest::RecordingHost host;
  ASSERT_EQ(krx::solve_and_orthonormalise(model), 1);
  EXPECT_TRUE(host.texts(0).empty());
  expect_doubles(model->transformation, {0.5, 0, 0, 0, 1.0 / 3.0, 0, 0, 0, 1});
  ASSERT_EQ(model->eigen.size(), 3u);
  EXPECT_TRUE(model->eigen[0].generalized_mass == 1.0 && model->eigen[0].generalized_stiffness == 2.0);
  EXPECT_EQ(model->eigen[1].eigenvalue, 4.0);
  // Damping becomes T^T C T: each entry over the two normalisation factors.
  expect_doubles(dense(model->damping, 3), {0, 6.0 / (2.0 * 3.0), 0, 0, 18.0 / 9.0, 0, 0, 0, 0});
  expect_doubles(model->load_cases[0].values, {1, 1, 4});
  expect_doubles(model->preload, {2, 3, 1});
}

TEST_F(EigenTest, BothSwitchesClearGiveTheIdentityAndUnitRecords) {
  model->modes = {10, 20, 30};
  model->mass = {{0, 0, 1.0}, {1, 1, 1.0}};  // mode 30 has no mass
  model->stiffness = {{0, 0, 16.0}, {1, 1, 25.0}, {2, 2, 3.0}};
  model->load_cases.push_back({"lc", 0, {2.0}});  // wrong length, but nothing is transformed
  krxtest::RecordingHost host;
  ASSERT_EQ(krx::solve_and_orthonormalise(model), 1);
  EXPECT_TRUE(host.has(2, "Mode 3 is not physically meaningful.\nIt is associated with a zero generalized mass\n"));
  EXPECT_EQ(model->retained_modes, 2);
  ASSERT_EQ(model->eigen.size(), 2u);
  EXPECT_TRUE(model->eigen[1].eigenvalue == 25.0 && model->eigen[1].generalized_mass == 1.0 && model->eigen[1].radians == 5.0);
  EXPECT_EQ(model->transformation, (std::vector<double>{1, 0, 0, 1}));
  EXPECT_EQ(model->transformation_modes, (std::vector<int32_t>{10, 20}));
}

// Mode shapes and stresses are on file before the solve, which rewrites them through the
// transformation; a quiet host gets no note of the new files.
TEST_F(EigenTest, OrthonormalisesKnownModesOfANonDiagonalPencilAndRewritesTheVectorFiles) {
  const int n = 9, nodes = 7;
  const std::vector<double> lambda = {5e3, 1e-9, 2e-9, -1e-8, 7e4, 3e-9, 9.0, 4e-9, -2e-9};
  std::vector<double> k, g, sorted = lambda;
  known_modes(n, lambda, k, g, 3);
  std::sort(sorted.begin(), sorted.end());
  for (int quiet : {0, 1}) {
    SCOPED_TRACE(quiet);
    fresh(20, 12);
    krxtest::RecordingHost host(quiet);
    for (int m = 1; m <= n; ++m)
      for (int node = 0; node < nodes; ++node) {
        ASSERT_EQ(krx::store_node_vector(model, m, 100 + node, krx::kModeShapes, shape(m, node).data()), 1);
        if (node % 2 == 0) {
          ASSERT_EQ(krx::store_node_vector(model, m, 100 + node, krx::kModalStress, shape(m + 9, node).data()), 1);
        }
      }
    std::string old_path = model->store[krx::kModeShapes].io.path;
    set_pencil(k, g, n);
    host.clear();
    ASSERT_EQ(krx::solve_and_orthonormalise(model), 1);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double tg = 0, tk = 0;
        for (int r = 0; r < n; ++r)
          for (int c = 0; c < n; ++c) {
            tg += t(r, i) * g[r * n + c] * t(c, j);
            tk += t(r, i) * k[r * n + c] * t(c, j);
          }
        EXPECT_NEAR(tg, i == j ? 1.0 : 0.0, 1e-10) << i << "," << j;
        EXPECT_NEAR(tk, i == j ? sorted[i] : 0.0, 1e-10 * std::max(1.0, sorted[n - 1])) << i << j;
      }
    ASSERT_TRUE(model->eigen.size() == std::size_t(n) && model->retained_modes == n);
    for (int j = 0; j < n; ++j) {
      const krx::EigenRecord &e = model->eigen[j];
      EXPECT_TRUE(e.number == j + 1 && model->record_map[j] == j && model->record_numbers[j] == j + 1) << j;
      EXPECT_EQ(e.generalized_mass, 1.0);
      EXPECT_NEAR(e.eigenvalue, sorted[j], 1e-9 * std::max(1.0, std::fabs(sorted[j])));
      // A negative eigenvalue keeps its sign in the frequencies.
      EXPECT_DOUBLE_EQ(e.hertz, std::copysign(std::sqrt(std::fabs(e.eigenvalue)), e.eigenvalue) / kTwoPi);
    }
    std::vector<std::string> notes = host.texts(0);
    ASSERT_GE(notes.size(), 8u + n + 1);
    EXPECT_EQ(std::vector<std::string>(notes.begin(), notes.begin() + 8),
              (std::vector<std::string>{"\nSolving Generalized Eigenvalue Problem to orthogonalize mode shapes.",
                                        "  (Finding upper Hessenberg and upper triangular forms)",
                                        "  (Converting upper Hessenberg form to quasi-upper triangular)",
                                        "  (Calculating Eigenvalues)", "  (Calculating Eigenvectors)", std::string(49, ' '),
                                        "  Real Eigenvalues and Natural Frequencies [Hz] :",
                                        "  ==============================================="}));
    EXPECT_EQ(notes[8 + n], "\n  Appling Gram-Schmidt to eigenvectors \n ");  // after a line per mode
    const std::string dir = "Orthogonal mode file: " + old_path.substr(0, old_path.rfind('/') + 1);
    EXPECT_EQ(std::count_if(notes.begin(), notes.end(), [&](const std::string &s) { return s.rfind(dir, 0) == 0; }),
              quiet ? 0 : 2);
    EXPECT_NE(model->store[krx::kModeShapes].io.path, old_path);
    for (int kind : {krx::kModeShapes, krx::kModalStress}) {
      const bool shapes = kind == krx::kModeShapes;
      for (int j = 0; j < n; ++j) {
        ASSERT_EQ(krx::load_mode_record_by_index(model, j, kind), 1);
        for (int i = 0; i < (shapes ? nodes : (nodes + 1) / 2); ++i)
          for (int c = 0; c < 6; ++c) {
            double want = 0;
            for (int m = 0; m < n; ++m) want += t(m, j) * shape(shapes ? m + 1 : m + 10, shapes ? i : 2 * i)[c];
            EXPECT_NEAR(model->store[kind].record[i * 6 + c], want, 1e-12) << kind << " " << j << " " << i;
          }
      }
    }
    // A second write of the same model finds the vectors already rewritten.
    host.clear();
    ASSERT_EQ(krx::solve_and_orthonormalise(model), 1);
    for (const std::string &s : host.texts(0)) EXPECT_EQ(s.find("Orthogonal"), std::string::npos);
  }
}

// Masses 1, 2 and 3; node 11 has the inertia (2, 3, 4, 0.5, 0.25, 0.125). Mode 3 is appended:
// its coupling to mode 1 is 1 x 2 + (J11 + J12) + 3 x 3 = 13.5, to mode 2 J21 + J22 = 3.5.
TEST_F(EigenTest, AdditionalGeneralizedMassesCoupleTheAppendedModes) {
  krxtest::RecordingHost host;
  const std::vector<double> shapes[3][3] = {{{1, 0, 0, 0, 0, 0}, {0, 0, 0, 1, 0, 0}, {0, 1, 0, 0, 0, 0}},
                                            {{0, 1, 0, 0, 0, 0}, {0, 0, 0, 0, 1, 0}, {0, 0, 0, 0, 0, 0}},
                                            {{2, 0, 0, 0, 0, 0}, {0, 0, 0, 1, 1, 0}, {0, 3, 0, 0, 0, 0}}};
  for (int m = 1; m <= 3; ++m)
    for (int node = 0; node < 3; ++node)
      ASSERT_EQ(krx::store_node_vector(model, m, 10 + node, krx::kModeShapes, shapes[m - 1][node].data()), 1);
  for (int node = 0; node < 3; ++node) model->nodes[node].mass = 1.0 + node;
  model->nodes[1].inertia = std::make_unique<std::array<double, 6>>(std::array<double, 6>{2, 3, 4, 0.5, 0.25, 0.125});
  EXPECT_EQ(krx::add_generalized_masses(model, 1, 1), 0);
  EXPECT_EQ(host.texts(3), std::vector<std::string>{"Mode count mismatch while generating additional generalized masses."});
  ASSERT_EQ(krx::add_generalized_masses(model, 2, 1), 1);
  EXPECT_EQ(dense(model->mass, 3), (std::vector<double>{0, 0, 13.5, 0, 0, 3.5, 13.5, 3.5, 0}));
}
