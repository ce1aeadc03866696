// The QZ stages against the reference LAPACK generalized eigensolver.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numeric>
#include <random>

#include "processing/krxnumerics.h"

extern "C" void dggev_(const char *jobvl, const char *jobvr, const int *n, double *a,
                       const int *lda, double *b, const int *ldb, double *alphar, double *alphai,
                       double *beta, double *vl, const int *ldvl, double *vr, const int *ldvr,
                       double *work, const int *lwork, int *info, std::size_t, std::size_t);

namespace {

using Dense = std::vector<double>;  // column-major n x n

struct Pencil {
  int n;
  Dense a, b;
};

struct QzResult {
  explicit QzResult(int n) : ar(n), ai(n), beta(n), z(std::size_t(n) * n) {}
  Dense ar, ai, beta, z;
  int error = 0;
};

QzResult run_qz(const Pencil &p) {
  int n = p.n;
  Dense a = p.a, b = p.b;
  QzResult r(n);
  krx::qz_reduce(n, n, a.data(), b.data(), true, r.z.data());
  krx::qz_iterate(n, n, a.data(), b.data(), 0.0, true, r.z.data(), &r.error);
  krx::qz_values(n, n, a.data(), b.data(), r.ar.data(), r.ai.data(), r.beta.data(), true, r.z.data());
  krx::qz_vectors(n, n, a.data(), b.data(), r.ar.data(), r.ai.data(), r.beta.data(), r.z.data());
  return r;
}

QzResult run_lapack(const Pencil &p) {
  int n = p.n, info = 0, one = 1, lwork = 8 * n + 64;
  Dense a = p.a, b = p.b, work(lwork), vl(1);
  QzResult r(n);
  dggev_("N", "V", &n, a.data(), &n, b.data(), &n, r.ar.data(), r.ai.data(), r.beta.data(),
         vl.data(), &one, r.z.data(), &n, work.data(), &lwork, &info, 1, 1);
  r.error = info;
  return r;
}

// Gram-Schmidt of a random matrix.
Dense random_orthogonal(int n, std::mt19937_64 &rng) {
  std::normal_distribution<double> g;
  Dense q(std::size_t(n) * n);
  for (double &v : q) v = g(rng);
  for (int j = 0; j < n; ++j) {
    double *col = &q[std::size_t(j) * n];
    for (int k = 0; k < j; ++k) {
      const double d = std::inner_product(col, col + n, &q[std::size_t(k) * n], 0.0);
      for (int i = 0; i < n; ++i) col[i] -= d * q[i + k * n];
    }
    const double s = std::sqrt(std::inner_product(col, col + n, col, 0.0));
    for (int i = 0; i < n; ++i) col[i] /= s;
  }
  return q;
}

// Q diag(d) Q^T.
Dense symmetric_with(const Dense &q, const std::vector<double> &d) {
  int n = int(d.size());
  Dense m(std::size_t(n) * n, 0.0);
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i)
      for (int k = 0; k < n; ++k) m[i + j * n] += q[i + k * n] * d[k] * q[j + k * n];
  return m;
}

Pencil spd_pencil(int n, std::mt19937_64 &rng, double singular_fraction = 0.0) {
  std::uniform_real_distribution<double> u(1.0, 10.0);
  std::vector<double> dk(n), dg(n);
  for (int i = 0; i < n; ++i) dk[i] = u(rng), dg[i] = i < int(singular_fraction * n + 0.5) ? 0.0 : u(rng);
  return Pencil{n, symmetric_with(random_orthogonal(n, rng), dk), symmetric_with(random_orthogonal(n, rng), dg)};
}

// The finite eigenvalues in ascending order; a beta up to `zero` times |alpha| counts as zero.
std::vector<double> finite_sorted(const QzResult &r, double zero = 0.0) {
  std::vector<double> v;
  for (std::size_t i = 0; i < r.ar.size(); ++i)
    if (std::fabs(r.beta[i]) > zero * std::fabs(r.ar[i])) v.push_back(r.ar[i] / r.beta[i]);
  std::sort(v.begin(), v.end());
  return v;
}

// max |(beta A - alpha B) z| / (|beta| |A| + |alpha| |B|) / |z| over the real eigenvectors.
double real_residual(const Pencil &p, const QzResult &r) {
  int n = p.n;
  double anorm = 0, bnorm = 0, worst = 0;
  for (double v : p.a) anorm = std::max(anorm, std::fabs(v));
  for (double v : p.b) bnorm = std::max(bnorm, std::fabs(v));
  for (int j = 0; j < n; ++j) {
    if (r.ai[j] != 0.0) continue;
    double zmax = 0, res = 0;
    for (int i = 0; i < n; ++i) zmax = std::max(zmax, std::fabs(r.z[i + j * n]));
    for (int i = 0; i < n; ++i) {
      double s = 0;
      for (int k = 0; k < n; ++k)
        s += (r.beta[j] * p.a[i + k * n] - r.ar[j] * p.b[i + k * n]) * r.z[k + j * n];
      res = std::max(res, std::fabs(s));
    }
    double scale = (std::fabs(r.beta[j]) * anorm + std::fabs(r.ar[j]) * bnorm) * zmax * n;
    worst = std::max(worst, res / scale);
  }
  return worst;
}

}  // namespace

// Symmetric definite pencils, then ones with a structurally singular mass: some modes carry no
// generalized mass at all and come out as beta = 0 while the finite ones still agree.
TEST(QzKernels, SymmetricPencilsAgreeWithTheReferenceAndASingularMassGivesZeroBeta) {
  struct Case {
    unsigned seed;
    std::vector<int> sizes;
    bool singular;
    double values, residual;
  };
  for (const Case &c : {Case{12345, {2, 3, 4, 7, 12, 30, 64, 120, 200}, false, 1e-9, 1e-14},
                        Case{99, {2, 5, 10, 40}, true, 1e-8, 1e-13}}) {
    std::mt19937_64 rng(c.seed);
    for (int n : c.sizes) {
      SCOPED_TRACE(testing::Message() << "n = " << n << (c.singular ? ", singular" : ""));
      Pencil p = spd_pencil(n, rng);
      for (int k = 0; c.singular && k < std::max(1, n / 5); ++k) {
        int idx = (k * 3) % n;
        for (int i = 0; i < n; ++i) p.b[i + idx * n] = p.b[idx + i * n] = 0.0;
      }
      QzResult q = run_qz(p), l = run_lapack(p);
      ASSERT_EQ(q.error, 0);
      ASSERT_EQ(l.error, 0);
      EXPECT_EQ(std::count(q.beta.begin(), q.beta.end(), 0.0) > 0, c.singular);
      std::vector<double> mine = finite_sorted(q), ref = finite_sorted(l, 1e-12);
      ASSERT_EQ(mine.size(), ref.size());
      for (std::size_t i = 0; i < ref.size(); ++i) EXPECT_NEAR(mine[i], ref[i], c.values * std::fabs(ref[i]));
      EXPECT_LT(real_residual(p, q), c.residual);
      for (double v : q.ai) EXPECT_EQ(v, 0.0);
      // Each vector's largest component has modulus 1.
      for (int j = 0; j < n; ++j) {
        double m = 0;
        for (int i = 0; i < n; ++i) m = std::max(m, std::fabs(q.z[i + j * n]));
        EXPECT_NEAR(m, 1.0, 1e-15);
      }
    }
  }
  // A rank-deficient mass that is not structurally so.
  std::mt19937_64 rng(99);
  for (int n : {3, 8, 25}) {
    Pencil p = spd_pencil(n, rng, 0.2);
    QzResult q = run_qz(p);
    int tiny = 0;
    for (int i = 0; i < n; ++i)
      if (std::fabs(q.beta[i]) <= 1e-12 * std::fabs(q.ar[i])) ++tiny;
    EXPECT_EQ(tiny, int(0.2 * n + 0.5)) << n;
    EXPECT_LT(real_residual(p, q), 1e-13) << n;
  }
}

TEST(QzKernels, GeneralPencilsWithComplexPairsAgreeWithTheReference) {
  std::mt19937_64 rng(2024);
  std::normal_distribution<double> g;
  for (int n : {2, 3, 6, 11, 25, 60}) {
    Pencil p{n, Dense(n * n), Dense(n * n)};
    for (double &v : p.a) v = g(rng);
    for (double &v : p.b) v = g(rng);
    QzResult q = run_qz(p), l = run_lapack(p);
    ASSERT_EQ(q.error, 0);
    using C = std::complex<double>;
    std::vector<C> mine, ref;
    for (int i = 0; i < n; ++i) {
      mine.push_back(C(q.ar[i], q.ai[i]) / q.beta[i]);
      ref.push_back(C(l.ar[i], l.ai[i]) / l.beta[i]);
    }
    // Every reference eigenvalue has a close partner.
    for (const C &r : ref) {
      double best = 1e300;
      for (const C &m : mine) best = std::min(best, std::abs(m - r));
      EXPECT_LT(best, 1e-7 * std::max(1.0, std::abs(r))) << n;
    }
    // Complex eigenvectors: (beta A - alpha B)(zr + i zi) = 0 for the pair's first member.
    for (int j = 0; j + 1 < n; ++j) {
      if (q.ai[j] == 0.0) continue;
      const C alpha(q.ar[j], q.ai[j]);
      double res = 0, scale = 0;
      for (int i = 0; i < n; ++i) {
        C s = 0;
        for (int k = 0; k < n; ++k) {
          C zk(q.z[k + j * n], q.z[k + (j + 1) * n]);
          s += (q.beta[j] * p.a[i + k * n] - alpha * p.b[i + k * n]) * zk;
          scale += (std::fabs(q.beta[j] * p.a[i + k * n]) + std::abs(alpha * p.b[i + k * n])) * std::abs(zk);
        }
        res = std::max(res, std::abs(s));
      }
      EXPECT_LT(res / scale, 1e-13) << n;
      ++j;
    }
    EXPECT_LT(real_residual(p, q), 1e-12) << n;
  }
}

