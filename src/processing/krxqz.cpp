// Stages 1 to 3 of the Moler-Stewart QZ algorithm (reduction, iteration, eigenvalues; stage 4,
// the eigenvectors, is in krxqz_vectors.cpp), kept step for step as published (same arguments,
// same tests, same constants) so that results match the established behaviour. Matrices are
// column-major with leading dimension nm; indices below are 1-based like the published
// algorithm, through the Matrix accessor.
#include <cfloat>
#include <cmath>
#include <cstddef>

#include "processing/krxnumerics.h"
#include "processing/krxqz_matrix.h"

namespace krx {
namespace {

// |a| with the sign of b (a zero b counts as positive).
double sign_of(double a, double b) { return b >= 0.0 ? std::fabs(a) : -std::fabs(a); }

// The reflector that maps (a1, a2) onto the first axis, in the published parametrisation:
// x + t (v1, v2) with t = x1 + u2 x2.
struct Reflector2 {
  double u2, v1, v2;
};
Reflector2 reflector2(double a1, double a2) {
  double s = std::fabs(a1) + std::fabs(a2);
  double u1 = a1 / s, u2 = a2 / s;
  double r = sign_of(std::sqrt(u1 * u1 + u2 * u2), u1);
  Reflector2 h;
  h.v1 = -(u1 + r) / r;
  h.v2 = -u2 / r;
  h.u2 = h.v2 / h.v1;
  return h;
}

struct Reflector3 {
  double u2, u3, v1, v2, v3;
};
Reflector3 reflector3(double a1, double a2, double a3) {
  double s = std::fabs(a1) + std::fabs(a2) + std::fabs(a3);
  double u1 = a1 / s, u2 = a2 / s, u3 = a3 / s;
  double r = sign_of(std::sqrt(u1 * u1 + u2 * u2 + u3 * u3), u1);
  Reflector3 h;
  h.v1 = -(u1 + r) / r;
  h.v2 = -u2 / r;
  h.v3 = -u3 / r;
  h.u2 = h.v2 / h.v1;
  h.u3 = h.v3 / h.v1;
  return h;
}

// Rows r1, r2 of m, columns j0..j1.
void apply_rows(const Matrix &m, const Reflector2 &h, int r1, int r2, int j0, int j1) {
  for (int j = j0; j <= j1; ++j) {
    double t = m(r1, j) + h.u2 * m(r2, j);
    m(r1, j) += t * h.v1;
    m(r2, j) += t * h.v2;
  }
}
void apply_rows(const Matrix &m, const Reflector3 &h, int r1, int r2, int r3, int j0, int j1) {
  for (int j = j0; j <= j1; ++j) {
    double t = m(r1, j) + h.u2 * m(r2, j) + h.u3 * m(r3, j);
    m(r1, j) += t * h.v1;
    m(r2, j) += t * h.v2;
    m(r3, j) += t * h.v3;
  }
}
// Columns c1, c2 of m, rows i0..i1.
void apply_columns(const Matrix &m, const Reflector2 &h, int c1, int c2, int i0, int i1) {
  double *x = &m(1, c1), *y = &m(1, c2);
  for (int i = i0 - 1; i < i1; ++i) {
    double t = x[i] + h.u2 * y[i];
    x[i] += t * h.v1;
    y[i] += t * h.v2;
  }
}
void apply_columns(const Matrix &m, const Reflector3 &h, int c1, int c2, int c3, int i0, int i1) {
  double *x = &m(1, c1), *y = &m(1, c2), *w = &m(1, c3);
  for (int i = i0 - 1; i < i1; ++i) {
    double t = x[i] + h.u2 * y[i] + h.u3 * w[i];
    x[i] += t * h.v1;
    y[i] += t * h.v2;
    w[i] += t * h.v3;
  }
}

// Stage 1, first half: Householder transformations from the left make B upper triangular.
void triangularise_b(int n, const Matrix &a, const Matrix &b) {
  for (int l = 1; l <= n - 1; ++l) {
    int l1 = l + 1;
    double s = 0.0;
    for (int i = l1; i <= n; ++i) s += std::fabs(b(i, l));
    if (s == 0.0) continue;
    s += std::fabs(b(l, l));
    double r = 0.0;
    for (int i = l; i <= n; ++i) {
      b(i, l) /= s;
      r += b(i, l) * b(i, l);
    }
    r = sign_of(std::sqrt(r), b(l, l));
    b(l, l) += r;
    double rho = r * b(l, l);
    for (int j = l1; j <= n; ++j) {
      double t = 0.0;
      for (int i = l; i <= n; ++i) t += b(i, l) * b(i, j);
      t = -t / rho;
      for (int i = l; i <= n; ++i) b(i, j) += t * b(i, l);
    }
    for (int j = 1; j <= n; ++j) {
      double t = 0.0;
      for (int i = l; i <= n; ++i) t += b(i, l) * a(i, j);
      t = -t / rho;
      for (int i = l; i <= n; ++i) a(i, j) += t * b(i, l);
    }
    b(l, l) = -s * r;
    for (int i = l1; i <= n; ++i) b(i, l) = 0.0;
  }
}

}  // namespace

void qz_reduce(int nm, int n, double *ap, double *bp, bool want_vectors, double *zp) {
  Matrix a{ap, nm}, b{bp, nm}, z{zp, nm};
  if (want_vectors) {
    for (int j = 1; j <= n; ++j) {
      for (int i = 1; i <= n; ++i) z(i, j) = 0.0;
      z(j, j) = 1.0;
    }
  }
  if (n <= 1) return;
  triangularise_b(n, a, b);
  if (n == 2) return;
  // A to upper Hessenberg form, keeping B triangular.
  for (int k = 1; k <= n - 2; ++k) {
    for (int l = n - 1; l >= k + 1; --l) {
      int l1 = l + 1;
      // zero a(l+1, k)
      if (std::fabs(a(l, k)) + std::fabs(a(l1, k)) == 0.0) continue;
      Reflector2 h = reflector2(a(l, k), a(l1, k));
      apply_rows(a, h, l, l1, k, n);
      a(l1, k) = 0.0;
      apply_rows(b, h, l, l1, l, n);
      // zero b(l+1, l)
      if (std::fabs(b(l1, l1)) + std::fabs(b(l1, l)) == 0.0) continue;
      h = reflector2(b(l1, l1), b(l1, l));
      apply_columns(b, h, l1, l, 1, l1);
      b(l1, l) = 0.0;
      apply_columns(a, h, l1, l, 1, n);
      if (want_vectors) apply_columns(z, h, l1, l, 1, n);
    }
  }
}

// The published control flow is a state machine of labelled jumps; it is kept as such (labels
// carry the published numbers) rather than re-derived, so that every test and branch stays as it was.
void qz_iterate(int nm, int n, double *ap, double *bp, double tolerance, bool want_vectors,
                double *zp, int *error) {
  Matrix a{ap, nm}, b{bp, nm}, z{zp, nm};
  int l = 0, l1 = 0, lm1 = 0, ld = 0, en = 0, na = 0, enm2 = 0, ish = 0, its = 0, itn = 0;
  int lor1 = 1, enorn = n;
  double a1 = 0, a2 = 0, a3 = 0, a11 = 0, a21 = 0, a12 = 0, a22 = 0, a33 = 0, a34 = 0, a43 = 0,
         a44 = 0, b11 = 0, b12 = 0, b22 = 0, b33 = 0, b34 = 0, b44 = 0, sh = 0, r = 0, s = 0,
         t = 0;
  double anorm = 0.0, bnorm = 0.0, ep = 0.0, epsa = 0.0, epsb = 0.0;

  *error = 0;
  for (int i = 1; i <= n; ++i) {
    double ani = i != 1 ? std::fabs(a(i, i - 1)) : 0.0;
    double bni = 0.0;
    for (int j = i; j <= n; ++j) {
      ani += std::fabs(a(i, j));
      bni += std::fabs(b(i, j));
    }
    if (ani > anorm) anorm = ani;
    if (bni > bnorm) bnorm = bni;
  }
  if (anorm == 0.0) anorm = 1.0;
  if (bnorm == 0.0) bnorm = 1.0;
  ep = tolerance > 0.0 ? tolerance : DBL_EPSILON;
  epsa = ep * anorm;
  epsb = ep * bnorm;

  en = n;
  itn = 30 * n;
// Begin a QZ step.
L60:
  if (en <= 2) goto L1001;
  if (!want_vectors) enorn = en;
  its = 0;
  na = en - 1;
  enm2 = na - 1;
L70:
  ish = 2;
  // Convergence or reducibility: l = en down to 1.
  for (int ll = 1; ll <= en; ++ll) {
    lm1 = en - ll;
    l = lm1 + 1;
    if (l == 1) goto L95;
    if (std::fabs(a(l, lm1)) <= epsa) goto L90;
  }
L90:
  a(l, lm1) = 0.0;
  if (l < na) goto L95;
  // A 1 x 1 or 2 x 2 block is isolated.
  en = lm1;
  goto L60;
L95:
  ld = l;
L100:
  l1 = l + 1;
  b11 = b(l, l);
  if (std::fabs(b11) > epsb) goto L120;
  // A small top of B: rotate it away and deflate.
  b(l, l) = 0.0;
  {
    Reflector2 h = reflector2(a(l, l), a(l1, l));
    apply_rows(a, h, l, l1, l, enorn);
    apply_rows(b, h, l, l1, l, enorn);
  }
  if (l != 1) a(l, lm1) = -a(l, lm1);
  lm1 = l;
  l = l1;
  goto L90;
L120:
  a11 = a(l, l) / b11;
  a21 = a(l1, l) / b11;
  if (ish == 1) goto L140;
  if (itn == 0) goto L1000;
  if (its == 10) goto L155;
  // Type of shift.
  b22 = b(l1, l1);
  if (std::fabs(b22) < epsb) b22 = epsb;
  b33 = b(na, na);
  if (std::fabs(b33) < epsb) b33 = epsb;
  b44 = b(en, en);
  if (std::fabs(b44) < epsb) b44 = epsb;
  a33 = a(na, na) / b33;
  a34 = a(na, en) / b44;
  a43 = a(en, na) / b33;
  a44 = a(en, en) / b44;
  b34 = b(na, en) / b44;
  t = 0.5 * (a43 * b34 - a33 - a44);
  r = t * t + a34 * a43 - a33 * a44;
  if (r < 0.0) goto L150;
  // Single shift.
  ish = 1;
  r = std::sqrt(r);
  sh = -t + r;
  s = -t - r;
  if (std::fabs(s - a44) < std::fabs(sh - a44)) sh = s;
  // Two consecutive small subdiagonal elements of A: l = en-2 down to ld.
  for (int ll = ld; ll <= enm2; ++ll) {
    l = enm2 + ld - ll;
    if (l == ld) goto L140;
    lm1 = l - 1;
    l1 = l + 1;
    t = a(l, l);
    if (std::fabs(b(l, l)) > epsb) t = t - sh * b(l, l);
    if (std::fabs(a(l, lm1)) <= std::fabs(t / a(l1, l)) * epsa) goto L100;
  }
L140:
  a1 = a11 - sh;
  a2 = a21;
  if (l != ld) a(l, lm1) = -a(l, lm1);
  goto L160;
L150:
  // Double shift: the zeroth column of A.
  a12 = a(l, l1) / b22;
  a22 = a(l1, l1) / b22;
  b12 = b(l, l1) / b22;
  a1 = ((a33 - a11) * (a44 - a11) - a34 * a43 + a43 * b34 * a11) / a21 + a12 - a11 * b12;
  a2 = (a22 - a11) - a21 * b12 - (a33 - a11) - (a44 - a11) + a43 * b34;
  a3 = a(l1 + 1, l1) / b22;
  goto L160;
L155:
  // The ad hoc shift after ten sweeps without deflation.
  a1 = 0.0;
  a2 = 1.0;
  a3 = 1.1605;
L160:
  its += 1;
  itn -= 1;
  if (!want_vectors) lor1 = ld;
  for (int k = l; k <= na; ++k) {
    bool notlas = k != na && ish == 2;
    int k1 = k + 1, k2 = k + 2;
    int km1 = k - 1 > l ? k - 1 : l;
    int ll = en < k1 + ish ? en : k1 + ish;
    if (!notlas) {
      // Zero a(k+1, k-1).
      if (k != l) {
        a1 = a(k, km1);
        a2 = a(k1, km1);
      }
      if (std::fabs(a1) + std::fabs(a2) == 0.0) goto L70;
      Reflector2 h = reflector2(a1, a2);
      apply_rows(a, h, k, k1, km1, enorn);
      apply_rows(b, h, k, k1, km1, enorn);
      if (k != l) a(k1, km1) = 0.0;
    } else {
      // Zero a(k+1, k-1) and a(k+2, k-1).
      if (k != l) {
        a1 = a(k, km1);
        a2 = a(k1, km1);
        a3 = a(k2, km1);
      }
      if (std::fabs(a1) + std::fabs(a2) + std::fabs(a3) == 0.0) continue;
      Reflector3 h = reflector3(a1, a2, a3);
      apply_rows(a, h, k, k1, k2, km1, enorn);
      apply_rows(b, h, k, k1, k2, km1, enorn);
      if (k != l) {
        a(k1, km1) = 0.0;
        a(k2, km1) = 0.0;
      }
      // Zero b(k+2, k+1) and b(k+2, k).
      if (std::fabs(b(k2, k2)) + std::fabs(b(k2, k1)) + std::fabs(b(k2, k)) != 0.0) {
        Reflector3 g = reflector3(b(k2, k2), b(k2, k1), b(k2, k));
        apply_columns(a, g, k2, k1, k, lor1, ll);
        apply_columns(b, g, k2, k1, k, lor1, ll);
        b(k2, k) = 0.0;
        b(k2, k1) = 0.0;
        if (want_vectors) apply_columns(z, g, k2, k1, k, 1, n);
      }
    }
    // Zero b(k+1, k).
    if (std::fabs(b(k1, k1)) + std::fabs(b(k1, k)) == 0.0) continue;
    Reflector2 g = reflector2(b(k1, k1), b(k1, k));
    apply_columns(a, g, k1, k, lor1, ll);
    apply_columns(b, g, k1, k, lor1, ll);
    b(k1, k) = 0.0;
    if (want_vectors) apply_columns(z, g, k1, k, 1, n);
  }
  goto L70;
L1000:
  // The budget of 30 n sweeps is spent.
  *error = en;
L1001:
  // The B tolerance travels to stages 3 and 4 in the unused corner of B.
  if (n > 1) b(n, 1) = epsb;
}

namespace {

// The 2 x 2 block at (na, en) with real roots: a real Z from the right and a real Q from the left
// zero both a(en, na) and b(en, na). The caller passes the pair (a1, a2) that selects Z, and
// an, bn, e of the scaled block (bn 0 when b(en, en) is negligible).
void split_real_block(int n, const Matrix &a, const Matrix &b, bool want_vectors, const Matrix &z,
                      int na, int en, double a1, double a2, double an, double bn, double e,
                      bool q_from_a) {
  Reflector2 h = reflector2(a1, a2);
  apply_columns(a, h, en, na, 1, en);
  apply_columns(b, h, en, na, 1, en);
  if (want_vectors) apply_columns(z, h, en, na, 1, n);
  if (!q_from_a) {
    if (bn == 0.0) return;
    if (an < std::fabs(e) * bn) {
      q_from_a = true;
    } else {
      a1 = b(na, na);
      a2 = b(en, na);
    }
  }
  if (q_from_a) {
    a1 = a(na, na);
    a2 = a(en, na);
  }
  if (std::fabs(a1) + std::fabs(a2) == 0.0) return;
  Reflector2 g = reflector2(a1, a2);
  apply_rows(a, g, na, en, na, n);
  apply_rows(b, g, na, en, na, n);
}

void store_real_pair(const Matrix &a, const Matrix &b, double *alfr, double *alfi, double *beta,
                     int na, int en) {
  a(en, na) = 0.0;
  b(en, na) = 0.0;
  alfr[na - 1] = a(na, na);
  alfr[en - 1] = a(en, en);
  if (b(na, na) < 0.0) alfr[na - 1] = -alfr[na - 1];
  if (b(en, en) < 0.0) alfr[en - 1] = -alfr[en - 1];
  beta[na - 1] = std::fabs(b(na, na));
  beta[en - 1] = std::fabs(b(en, en));
  alfi[en - 1] = 0.0;
  alfi[na - 1] = 0.0;
}

// Complex unit vector (c, sr + i si) orthogonal to (x1 + i x1i, x2 + i x2i), the published choice.
void complex_rotation(double x1, double x1i, double x2, double x2i, double *c, double *sr,
                      double *si) {
  *c = std::sqrt(x1 * x1 + x1i * x1i);
  if (*c == 0.0) {
    *sr = 1.0;
    *si = 0.0;
    return;
  }
  *sr = (x1 * x2 + x1i * x2i) / *c;
  *si = (x1 * x2i - x1i * x2) / *c;
  double r = std::sqrt(*c * *c + *sr * *sr + *si * *si);
  *c /= r;
  *sr /= r;
  *si /= r;
}

// Complex roots of the scaled block: the diagonal the complex Q and Z would produce, without
// applying them.
void store_complex_pair(double a11, double a12, double a21, double a22, double b11, double b12,
                        double b22, double an, double bn, double e, double c, double d,
                        double *alfr, double *alfi, double *beta, int na, int en) {
  e = e + c;
  double ei = std::sqrt(-d);
  double a11r = a11 - e * b11, a11i = ei * b11;
  double a12r = a12 - e * b12, a12i = ei * b12;
  double a22r = a22 - e * b22, a22i = ei * b22;
  double a1, a1i, a2, a2i;
  if (std::fabs(a11r) + std::fabs(a11i) + std::fabs(a12r) + std::fabs(a12i) <
      std::fabs(a21) + std::fabs(a22r) + std::fabs(a22i)) {
    a1 = a22r;
    a1i = a22i;
    a2 = -a21;
    a2i = 0.0;
  } else {
    a1 = a12r;
    a1i = a12i;
    a2 = -a11r;
    a2i = -a11i;
  }
  double cz, szr, szi;
  complex_rotation(a1, a1i, a2, a2i, &cz, &szr, &szi);
  if (an < (std::fabs(e) + ei) * bn) {
    a1 = cz * a11 + szr * a12;
    a1i = szi * a12;
    a2 = cz * a21 + szr * a22;
    a2i = szi * a22;
  } else {
    a1 = cz * b11 + szr * b12;
    a1i = szi * b12;
    a2 = szr * b22;
    a2i = szi * b22;
  }
  double cq, sqr, sqi;
  complex_rotation(a1, a1i, a2, a2i, &cq, &sqr, &sqi);
  double ssr = sqr * szr + sqi * szi;
  double ssi = sqr * szi - sqi * szr;
  for (int pass = 1; pass <= 2; ++pass) {
    double tr, ti, dr, di;
    if (pass == 1) {
      tr = cq * cz * a11 + cq * szr * a12 + sqr * cz * a21 + ssr * a22;
      ti = cq * szi * a12 - sqi * cz * a21 + ssi * a22;
      dr = cq * cz * b11 + cq * szr * b12 + ssr * b22;
      di = cq * szi * b12 + ssi * b22;
    } else {
      tr = ssr * a11 - sqr * cz * a12 - cq * szr * a21 + cq * cz * a22;
      ti = -ssi * a11 - sqi * cz * a12 + cq * szi * a21;
      dr = ssr * b11 - sqr * cz * b12 + cq * cz * b22;
      di = -ssi * b11 - sqi * cz * b12;
    }
    double t = ti * dr - tr * di;
    int j = t < 0.0 ? en : na;
    double r = std::sqrt(dr * dr + di * di);
    beta[j - 1] = bn * r;
    alfr[j - 1] = an * (tr * dr + ti * di) / r;
    alfi[j - 1] = an * t / r;
  }
}

}  // namespace

void qz_values(int nm, int n, double *ap, double *bp, double *alfr, double *alfi, double *beta,
               bool want_vectors, double *zp) {
  Matrix a{ap, nm}, b{bp, nm}, z{zp, nm};
  double epsb = b(n, 1);
  // The corner is cleared while the blocks are split: with n = 2 it lies inside the last block,
  // where the tolerance would otherwise leak into the diagonal of B and hide a zero beta.
  if (n > 1) b(n, 1) = 0.0;
  int isw = 1;
  for (int en = n; en >= 1; --en) {
    int na = en - 1;
    if (isw == 2) {
      isw = 3 - isw;
      continue;
    }
    if (en == 1 || a(en, na) == 0.0) {
      // 1 x 1 block, one real root.
      alfr[en - 1] = a(en, en);
      if (b(en, en) < 0.0) alfr[en - 1] = -alfr[en - 1];
      beta[en - 1] = std::fabs(b(en, en));
      alfi[en - 1] = 0.0;
      continue;
    }
    // 2 x 2 block.
    if (std::fabs(b(na, na)) <= epsb) {
      // Only the real Q is needed, taken from A.
      double a1 = a(na, na), a2 = a(en, na);
      if (std::fabs(a1) + std::fabs(a2) != 0.0) {
        Reflector2 g = reflector2(a1, a2);
        apply_rows(a, g, na, en, na, n);
        apply_rows(b, g, na, en, na, n);
      }
      store_real_pair(a, b, alfr, alfi, beta, na, en);
    } else if (std::fabs(b(en, en)) <= epsb) {
      split_real_block(n, a, b, want_vectors, z, na, en, a(en, en), a(en, na), 0.0, 0.0, 0.0,
                       false);
      store_real_pair(a, b, alfr, alfi, beta, na, en);
    } else {
      double an = std::fabs(a(na, na)) + std::fabs(a(na, en)) + std::fabs(a(en, na)) +
                  std::fabs(a(en, en));
      double bn = std::fabs(b(na, na)) + std::fabs(b(na, en)) + std::fabs(b(en, en));
      double a11 = a(na, na) / an, a12 = a(na, en) / an, a21 = a(en, na) / an,
             a22 = a(en, en) / an;
      double b11 = b(na, na) / bn, b12 = b(na, en) / bn, b22 = b(en, en) / bn;
      double e = a11 / b11;
      double ei = a22 / b22;
      double s = a21 / (b11 * b22);
      double t = (a22 - e * b22) / b22;
      if (std::fabs(e) > std::fabs(ei)) {
        e = ei;
        t = (a11 - e * b11) / b11;
      }
      double c = 0.5 * (t - s * b12);
      double d = c * c + s * (a12 - e * b12);
      if (d < 0.0) {
        store_complex_pair(a11, a12, a21, a22, b11, b12, b22, an, bn, e, c, d, alfr, alfi, beta,
                           na, en);
      } else {
        // Two real roots: zero both a(en, na) and b(en, na).
        e = e + (c + sign_of(std::sqrt(d), c));
        a11 -= e * b11;
        a12 -= e * b12;
        a22 -= e * b22;
        double a1 = a12, a2 = a11;
        if (std::fabs(a11) + std::fabs(a12) < std::fabs(a21) + std::fabs(a22)) {
          a1 = a22;
          a2 = a21;
        }
        split_real_block(n, a, b, want_vectors, z, na, en, a1, a2, an, bn, e, false);
        store_real_pair(a, b, alfr, alfi, beta, na, en);
      }
    }
    isw = 3 - isw;
  }
  // Stage 4 finds the tolerance where stage 2 left it.
  if (n > 1) b(n, 1) = epsb;
}

}  // namespace krx
