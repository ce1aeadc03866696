// Stage 4 of the Moler-Stewart QZ algorithm: back substitution on the quasi-triangular pencil and
// transformation by Z into the eigenvectors, kept step for step as published like stages 1 to 3
// (krxqz.cpp). Indices are 1-based through the Matrix accessor.
#include <cmath>
#include <cstddef>

#include "processing/krxnumerics.h"
#include "processing/krxqz_matrix.h"

namespace krx {
namespace {

// (tr + i ti) / (dr + i di), the published way round.
void complex_divide(double tr, double ti, double dr, double di, double *t1, double *t2) {
  if (std::fabs(di) > std::fabs(dr)) {
    double rr = dr / di;
    double d = dr * rr + di;
    *t1 = (tr * rr + ti) / d;
    *t2 = (ti * rr - tr) / d;
  } else {
    double rr = di / dr;
    double d = dr + di * rr;
    *t1 = (tr + ti * rr) / d;
    *t2 = (ti - tr * rr) / d;
  }
}

// Back substitution for the real eigenvalue en; the vector goes into column en of B.
void real_vector(const Matrix &a, const Matrix &b, int en, double alfm, double betm,
                 double epsb) {
  int na = en - 1;
  int m = en;
  b(en, en) = 1.0;
  int isw = 1;
  double zz = 0.0, s = 0.0;
  for (int i = na; i >= 1; --i) {
    double w = betm * a(i, i) - alfm * b(i, i);
    double r = 0.0;
    for (int j = m; j <= en; ++j) r += (betm * a(i, j) - alfm * b(i, j)) * b(j, en);
    if (i != 1 && isw != 2 && betm * a(i, i - 1) != 0.0) {
      // Upper row of a 2 x 2 block: solved together with the next row.
      zz = w;
      s = r;
      isw = 3 - isw;
      continue;
    }
    m = i;
    if (isw != 2) {
      double t = w == 0.0 ? epsb : w;
      b(i, en) = -r / t;
      continue;
    }
    double x = betm * a(i, i + 1) - alfm * b(i, i + 1);
    double y = betm * a(i + 1, i);
    double q = w * zz - x * y;
    double t = (x * s - zz * r) / q;
    b(i, en) = t;
    if (std::fabs(x) > std::fabs(zz)) {
      b(i + 1, en) = (-r - w * t) / x;
    } else {
      b(i + 1, en) = (-s - y * t) / zz;
    }
    isw = 3 - isw;
  }
}

// Back substitution for the complex pair (na, en); real part in column na, imaginary in en.
void complex_vector(const Matrix &a, const Matrix &b, int en, double almr, double almi,
                    double betm, double epsb) {
  int na = en - 1;
  int m = na;
  // The last component is chosen imaginary so that the eigenvector matrix is triangular.
  double y = betm * a(en, na);
  b(na, na) = -almi * b(en, en) / y;
  b(na, en) = (almr * b(en, en) - betm * a(en, en)) / y;
  b(en, na) = 0.0;
  b(en, en) = 1.0;
  int isw = 1;
  double zz = 0.0, z1 = 0.0, r = 0.0, s = 0.0;
  for (int i = na - 1; i >= 1; --i) {
    double w = betm * a(i, i) - almr * b(i, i);
    double w1 = -almi * b(i, i);
    double ra = 0.0, sa = 0.0;
    for (int j = m; j <= en; ++j) {
      double x = betm * a(i, j) - almr * b(i, j);
      double x1 = -almi * b(i, j);
      ra += x * b(j, na) - x1 * b(j, en);
      sa += x * b(j, en) + x1 * b(j, na);
    }
    if (i != 1 && isw != 2 && betm * a(i, i - 1) != 0.0) {
      zz = w;
      z1 = w1;
      r = ra;
      s = sa;
      isw = 2;
      continue;
    }
    m = i;
    double t1, t2;
    if (isw != 2) {
      // Complex 1 x 1 block.
      complex_divide(-ra, -sa, w, w1, &t1, &t2);
    } else {
      // Complex 2 x 2 block.
      double x = betm * a(i, i + 1) - almr * b(i, i + 1);
      double x1 = -almi * b(i, i + 1);
      y = betm * a(i + 1, i);
      double tr = y * ra - w * r + w1 * s;
      double ti = y * sa - w * s - w1 * r;
      double dr = w * zz - w1 * z1 - x * y;
      double di = w * z1 + w1 * zz - x1 * y;
      if (dr == 0.0 && di == 0.0) dr = epsb;
      complex_divide(tr, ti, dr, di, &t1, &t2);
      b(i + 1, na) = t1;
      b(i + 1, en) = t2;
      isw = 1;
      if (std::fabs(y) > std::fabs(w) + std::fabs(w1)) {
        t1 = (-r - zz * b(i + 1, na) + z1 * b(i + 1, en)) / y;
        t2 = (-s - zz * b(i + 1, en) - z1 * b(i + 1, na)) / y;
      } else {
        tr = -ra - x * b(i + 1, na) + x1 * b(i + 1, en);
        ti = -sa - x * b(i + 1, en) - x1 * b(i + 1, na);
        complex_divide(tr, ti, w, w1, &t1, &t2);
      }
    }
    b(i, na) = t1;
    b(i, en) = t2;
  }
}

}  // namespace

void qz_vectors(int nm, int n, double *ap, double *bp, const double *alfr, const double *alfi,
                const double *beta, double *zp) {
  Matrix a{ap, nm}, b{bp, nm}, z{zp, nm};
  double epsb = b(n, 1);
  int isw = 1;
  for (int en = n; en >= 1; --en) {
    if (isw == 2) {
      isw = 3 - isw;
      continue;
    }
    if (alfi[en - 1] != 0.0) {
      complex_vector(a, b, en, alfr[en - 2], alfi[en - 2], beta[en - 2], epsb);
      isw = 3 - isw;
    } else {
      real_vector(a, b, en, alfr[en - 1], beta[en - 1], epsb);
    }
  }
  // Back to the original coordinates: column j of Z times the triangular vectors, last column
  // first so that the product can be formed in place.
  for (int j = n; j >= 1; --j) {
    for (int i = 1; i <= n; ++i) {
      double zz = 0.0;
      for (int k = 1; k <= j; ++k) zz += z(i, k) * b(k, j);
      z(i, j) = zz;
    }
  }
  // Largest component of modulus 1.
  isw = 1;
  for (int j = 1; j <= n; ++j) {
    double d = 0.0;
    if (isw == 2) {
      for (int i = 1; i <= n; ++i) {
        double r = std::fabs(z(i, j - 1)) + std::fabs(z(i, j));
        if (r != 0.0) {
          double p = z(i, j - 1) / r, q = z(i, j) / r;
          r = r * std::sqrt(p * p + q * q);
        }
        if (r > d) d = r;
      }
      for (int i = 1; i <= n; ++i) {
        z(i, j - 1) /= d;
        z(i, j) /= d;
      }
      isw = 3 - isw;
      continue;
    }
    if (alfi[j - 1] != 0.0) {
      isw = 3 - isw;
      continue;
    }
    for (int i = 1; i <= n; ++i)
      if (std::fabs(z(i, j)) > d) d = std::fabs(z(i, j));
    for (int i = 1; i <= n; ++i) z(i, j) /= d;
  }
}

}  // namespace krx
