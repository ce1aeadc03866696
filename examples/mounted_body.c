/* A flexible body as a multibody program builds it from a KRX file, through krx_read.h alone:
 * the modal mass and stiffness, a joint that holds all six degrees of freedom of one interface
 * node, and optionally a point mass at another node. Prints the natural frequencies of the
 * mounted body.
 *
 *   mounted_body FILE.krx --fix NODE [--mass NODE VALUE] [--count K]
 *
 * The joint restricts the modal coordinates q to those that leave the node at rest: Phi q = 0,
 * with Phi the node's six rows of the mode shapes. A basis Z of that null space turns the modal
 * matrices into Z^T M Z and Z^T K Z; a point mass m at a node adds m Phi_t^T Phi_t to M (Phi_t:
 * the node's three translation rows). The eigenproblem of the mounted body is small (the mode
 * count), so plain Jacobi rotations solve it. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <krx/krx_read.h>

/* Eigenvalues (ascending, in w) and eigenvectors (columns of v) of the symmetric n x n matrix a,
 * which is destroyed: cyclic Jacobi rotations until the off-diagonal part vanishes. */
static void jacobi(int n, double *a, double *w, double *v) {
  for (int i = 0; i < n * n; ++i) v[i] = (i % (n + 1)) == 0;
  for (int sweep = 0; sweep < 100; ++sweep) {
    double off = 0.0, diag = 0.0;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        if (i == j) diag += a[i * n + j] * a[i * n + j];
        else off += a[i * n + j] * a[i * n + j];
      }
    if (off <= 1e-30 * diag) break;
    for (int p = 0; p < n; ++p)
      for (int q = p + 1; q < n; ++q) {
        double apq = a[p * n + q];
        if (apq == 0.0) continue;
        double theta = (a[q * n + q] - a[p * n + p]) / (2.0 * apq);
        double t = (theta >= 0 ? 1.0 : -1.0) / (fabs(theta) + sqrt(theta * theta + 1.0));
        double c = 1.0 / sqrt(t * t + 1.0), s = t * c;
        for (int k = 0; k < n; ++k) { /* columns p and q */
          double akp = a[k * n + p], akq = a[k * n + q];
          a[k * n + p] = c * akp - s * akq;
          a[k * n + q] = s * akp + c * akq;
        }
        for (int k = 0; k < n; ++k) { /* rows p and q */
          double apk = a[p * n + k], aqk = a[q * n + k];
          a[p * n + k] = c * apk - s * aqk;
          a[q * n + k] = s * apk + c * aqk;
        }
        for (int k = 0; k < n; ++k) {
          double vkp = v[k * n + p], vkq = v[k * n + q];
          v[k * n + p] = c * vkp - s * vkq;
          v[k * n + q] = s * vkp + c * vkq;
        }
      }
  }
  for (int i = 0; i < n; ++i) w[i] = a[i * n + i];
  for (int i = 0; i < n; ++i) /* selection sort of the pairs */
    for (int j = i + 1; j < n; ++j)
      if (w[j] < w[i]) {
        double t = w[i];
        w[i] = w[j], w[j] = t;
        for (int k = 0; k < n; ++k) t = v[k * n + i], v[k * n + i] = v[k * n + j], v[k * n + j] = t;
      }
}

/* c = a^T b c, with a of n x r and b of n x n: the projection of b on the columns of a. */
static void project(int n, int r, const double *a, const double *b, double *c) {
  double *ba = malloc(sizeof *ba * n * r);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < r; ++j) {
      double s = 0.0;
      for (int k = 0; k < n; ++k) s += b[i * n + k] * a[k * r + j];
      ba[i * r + j] = s;
    }
  for (int i = 0; i < r; ++i)
    for (int j = 0; j < r; ++j) {
      double s = 0.0;
      for (int k = 0; k < n; ++k) s += a[k * r + i] * ba[k * r + j];
      c[i * r + j] = s;
    }
  free(ba);
}

static int fail(krx_file *file, const char *what) {
  fprintf(stderr, "mounted_body: %s%s%s\n", what, file ? ": " : "",
          file ? krx_error_message(file) : "");
  krx_close(file);
  return 1;
}

/* The six components of every mode at node: rows[6 * modes], component by component. */
static int node_rows(krx_file *file, int32_t node, int modes, double *rows) {
  int64_t nodes;
  if (krx_count(file, KRX_COUNT_MODE_SHAPE_NODES, &nodes) != KRX_OK) return 0;
  int32_t *ids = malloc(sizeof *ids * (nodes + 1));
  double *values = malloc(sizeof *values * (6 * nodes + 1));
  int64_t at = -1;
  int ok = krx_read_mode_node_ids(file, KRX_MODE_SHAPE, ids) == KRX_OK;
  for (int64_t i = 0; ok && i < nodes; ++i)
    if (ids[i] == node) at = i;
  ok = ok && at >= 0;
  for (int j = 0; ok && j < modes; ++j) {
    ok = krx_read_mode(file, KRX_MODE_SHAPE, j, NULL, values) == KRX_OK;
    for (int c = 0; ok && c < 6; ++c) rows[c * modes + j] = values[6 * at + c];
  }
  free(ids);
  free(values);
  return ok;
}

int main(int argc, char **argv) {
  const char *path = NULL;
  int32_t fixed = 0, loaded = 0;
  double mass = 0.0;
  int count = 6;
  for (int i = 1; i < argc; ++i) {
    if (!strcmp(argv[i], "--fix") && i + 1 < argc) fixed = atoi(argv[++i]);
    else if (!strcmp(argv[i], "--mass") && i + 2 < argc)
      loaded = atoi(argv[++i]), mass = atof(argv[++i]);
    else if (!strcmp(argv[i], "--count") && i + 1 < argc) count = atoi(argv[++i]);
    else path = argv[i];
  }
  if (!path || !fixed) {
    fprintf(stderr, "usage: mounted_body FILE.krx --fix NODE [--mass NODE VALUE] [--count K]\n");
    return 2;
  }
  krx_file *file;
  if (krx_open(path, &file) != KRX_OK) return fail(file, "cannot read the file");
  int64_t m64;
  if (krx_count(file, KRX_COUNT_MODES, &m64) != KRX_OK || m64 < 7) {
    krx_close(file);
    return fail(NULL, "the file holds fewer than seven modes");
  }
  int n = (int)m64;

  /* Modal mass and stiffness: the generalized matrices when the file holds them, else the
   * diagonal of the eigenvalue records (modes orthogonal in both). */
  double *mm = calloc((size_t)n * n, sizeof *mm), *kk = calloc((size_t)n * n, sizeof *kk);
  if (krx_has_block(file, KRX_BLOCK_GENERALIZED_MASS)) {
    if (krx_read_generalized_matrix(file, KRX_BLOCK_GENERALIZED_MASS, mm) != KRX_OK ||
        krx_read_generalized_matrix(file, KRX_BLOCK_GENERALIZED_STIFFNESS, kk) != KRX_OK)
      return fail(file, "cannot read the generalized matrices");
  } else {
    double *records = malloc(sizeof *records * 5 * n);
    if (krx_read_eigenvalues(file, NULL, records) != KRX_OK)
      return fail(file, "cannot read the eigenvalues");
    for (int j = 0; j < n; ++j) {
      mm[j * n + j] = records[5 * j + 3];
      kk[j * n + j] = records[5 * j + 4];
    }
    free(records);
  }

  double *phi = malloc(sizeof *phi * 6 * n);
  if (!node_rows(file, fixed, n, phi)) return fail(file, "cannot read the modes at the fixed node");
  if (loaded) {
    double *at = malloc(sizeof *at * 6 * n);
    if (!node_rows(file, loaded, n, at)) return fail(file, "cannot read the modes at the mass");
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
        for (int c = 0; c < 3; ++c) mm[i * n + j] += mass * at[c * n + i] * at[c * n + j];
    free(at);
  }
  krx_close(file);

  /* The null space of phi: eigenvectors of phi^T phi whose eigenvalues vanish. */
  double *a = malloc(sizeof *a * n * n), *w = malloc(sizeof *w * n), *v = malloc(sizeof *v * n * n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double s = 0.0;
      for (int c = 0; c < 6; ++c) s += phi[c * n + i] * phi[c * n + j];
      a[i * n + j] = s;
    }
  jacobi(n, a, w, v);
  int r = 0;
  while (r < n && w[r] <= 1e-10 * w[n - 1]) ++r;
  double *z = calloc((size_t)n * r + 1, sizeof *z);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < r; ++j) z[i * r + j] = v[i * n + j];

  /* Z^T K Z x = lambda Z^T M Z x through M_r = L L^T and L^-1 K_r L^-T. */
  double *mr = malloc(sizeof *mr * r * r), *kr = malloc(sizeof *kr * r * r);
  project(n, r, z, mm, mr);
  project(n, r, z, kk, kr);
  for (int j = 0; j < r; ++j) { /* Cholesky, lower triangle in place */
    for (int k = 0; k < j; ++k) mr[j * r + j] -= mr[j * r + k] * mr[j * r + k];
    if (mr[j * r + j] <= 0.0) return fail(NULL, "the mounted body's mass matrix is singular");
    mr[j * r + j] = sqrt(mr[j * r + j]);
    for (int i = j + 1; i < r; ++i) {
      for (int k = 0; k < j; ++k) mr[i * r + j] -= mr[i * r + k] * mr[j * r + k];
      mr[i * r + j] /= mr[j * r + j];
    }
  }
  for (int c = 0; c < r; ++c) /* kr := L^-1 kr, column by column */
    for (int i = 0; i < r; ++i) {
      for (int k = 0; k < i; ++k) kr[i * r + c] -= mr[i * r + k] * kr[k * r + c];
      kr[i * r + c] /= mr[i * r + i];
    }
  for (int row = 0; row < r; ++row) /* kr := kr L^-T, row by row */
    for (int i = 0; i < r; ++i) {
      for (int k = 0; k < i; ++k) kr[row * r + i] -= mr[i * r + k] * kr[row * r + k];
      kr[row * r + i] /= mr[i * r + i];
    }
  jacobi(r, kr, w, v);

  printf("%d modal coordinates, %d left by the joint at node %d", n, r, (int)fixed);
  if (loaded) printf(", point mass %g at node %d", mass, (int)loaded);
  printf("\n mode  frequency (Hz)\n");
  for (int j = 0; j < r && j < count; ++j)
    printf("%5d  %.9g\n", j + 1, sqrt(fabs(w[j])) / 6.283185307179586);
  free(mm), free(kk), free(phi), free(a), free(w), free(v), free(z), free(mr), free(kr);
  return 0;
}
