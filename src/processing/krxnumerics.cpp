// LU decomposition, solution and inversion; the QZ stages live in krxqz.cpp.
#include <cmath>
#include <new>
#include <utility>
#include <vector>

#include "base/krxmsg.h"
#include "processing/krxnumerics.h"

namespace krx {
namespace {

// row_i -= m * row_k over columns from..n-1, four columns at a time.
void eliminate_row(double *row_i, const double *row_k, double m, int from, int n) {
  int j = from;
  for (; j + 3 < n; j += 4) {
    row_i[j] -= m * row_k[j];
    row_i[j + 1] -= m * row_k[j + 1];
    row_i[j + 2] -= m * row_k[j + 2];
    row_i[j + 3] -= m * row_k[j + 3];
  }
  for (; j < n; ++j) row_i[j] -= m * row_k[j];
}

}  // namespace

int lu_decompose(double **rows, int n, int32_t *perm) {
  for (int i = 0; i < n; ++i) perm[i] = i;
  for (int k = 0; k + 1 < n; ++k) {
    int pivot = k;
    double largest = std::fabs(rows[k][k]);
    for (int i = k + 1; i < n; ++i) {
      if (std::fabs(rows[i][k]) > largest) {
        largest = std::fabs(rows[i][k]);
        pivot = i;
      }
    }
    if (largest == 0.0) return 0;
    if (pivot != k) {
      // Contents move, not the row pointers: the caller's rows stay where it put them.
      for (int j = 0; j < n; ++j) std::swap(rows[k][j], rows[pivot][j]);
      std::swap(perm[k], perm[pivot]);
    }
    for (int i = k + 1; i < n; ++i) {
      rows[i][k] /= rows[k][k];
      eliminate_row(rows[i], rows[k], rows[i][k], k + 1, n);
    }
  }
  return 1;
}

int lu_solve(double *const *rows, int n, const int32_t *perm, double *rhs) {
  std::vector<double> x;
  try {
    x.resize(std::size_t(n > 0 ? n : 0));
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC("..\\krxtools");
    return 0;
  }
  for (int i = 0; i < n; ++i) x[i] = rhs[perm[i]];
  for (int i = 1; i < n; ++i) {
    double s = x[i];
    for (int j = 0; j < i; ++j) s -= rows[i][j] * x[j];
    x[i] = s;
  }
  for (int i = n - 1; i >= 0; --i) {
    if (rows[i][i] == 0.0) return 0;
    double s = x[i];
    for (int j = i + 1; j < n; ++j) s -= rows[i][j] * x[j];
    x[i] = s / rows[i][i];
  }
  for (int i = 0; i < n; ++i) rhs[i] = x[i];
  return 1;
}

int invert_matrix(double *const *rows, int n, const int32_t *perm, double *result) {
  std::vector<double> column;
  try {
    column.resize(std::size_t(n > 0 ? n : 0));
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC("..\\krxtools");
    return 0;
  }
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) column[i] = i == j ? 1.0 : 0.0;
    if (!lu_solve(rows, n, perm, column.data())) return 0;
    for (int i = 0; i < n; ++i) result[std::size_t(i) * n + j] = column[i];
  }
  return 1;
}

}  // namespace krx
