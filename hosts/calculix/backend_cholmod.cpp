// The single-machine back-end's factor: CHOLMOD's supernodal LL' (METIS or AMD ordering, the BLAS
// the system provides) and its solves. The inertia, which an LL' factor cannot give, comes from
// backend_inertia.cpp.
#include <suitesparse/cholmod.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "solver.h"

namespace ccx {

struct Factor {
  cholmod_common common;
  cholmod_factor *l = nullptr;
  cholmod_dense *x = nullptr;  // solve2's workspaces, kept between solves
  cholmod_dense *y = nullptr;
  cholmod_dense *e = nullptr;
  int64_t n = 0;
  FactorStats stats;
};

namespace {

double seconds_since(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// CHOLMOD's own messages would go to standard output; its status is reported by the callers.
void start_common(cholmod_common &c) {
  cholmod_l_start(&c);
  c.print = 0;
  c.error_handler = nullptr;
}

// The pattern of K and M as CHOLMOD's upper-triangular matrix for the ordering: CalculiX lists the
// upper triangle column by column, which is CHOLMOD's compressed-column form already.
cholmod_sparse *pattern_matrix(const Matrices &m, cholmod_common &c) {
  size_t entries = m.row.size();
  cholmod_sparse *a = cholmod_l_allocate_sparse(static_cast<size_t>(m.n), static_cast<size_t>(m.n),
                                                entries, 1, 1, 1, CHOLMOD_PATTERN, &c);
  if (!a) return nullptr;
  auto *p = static_cast<SuiteSparse_long *>(a->p);
  auto *i = static_cast<SuiteSparse_long *>(a->i);
  for (int col = 0; col <= m.n; ++col) p[col] = m.start[col];
  for (size_t k = 0; k < entries; ++k) i[k] = m.row[k];
  return a;
}

// Nested dissection (METIS) orders a solid's matrix with far less fill than minimum degree;
// CHOLMOD's default would order it both ways and keep the better. Where CHOLMOD was built without
// METIS, its default serves.
cholmod_factor *analyse(cholmod_sparse *a, cholmod_common &c) {
  c.nmethods = 1;
  c.method[0].ordering = CHOLMOD_METIS;
  c.postorder = 1;
  cholmod_factor *l = cholmod_l_analyze(a, &c);
  if (l || c.status != CHOLMOD_NOT_INSTALLED) return l;
  c.nmethods = 0;
  return cholmod_l_analyze(a, &c);
}

// The lower triangle of (K - sigma M)(p, p), p being the factor's ordering: the matrix that the
// numerical factorisation takes. Made here from the matrices directly, so that no copy of
// K - sigma M in the original order sits beside it and the factor.
cholmod_sparse *permuted_lower(const Matrices &m, double sigma, const SuiteSparse_long *perm,
                               cholmod_common &c) {
  size_t n = static_cast<size_t>(m.n), entries = m.row.size();
  std::vector<SuiteSparse_long> position(n), next(n + 1, 0);
  for (size_t k = 0; k < n; ++k)
    position[static_cast<size_t>(perm[k])] = static_cast<SuiteSparse_long>(k);
  for (int col = 0; col < m.n; ++col)
    for (int64_t k = m.start[col]; k < m.start[col + 1]; ++k)
      ++next[static_cast<size_t>(std::min(position[m.row[k]], position[col])) + 1];
  for (size_t k = 0; k < n; ++k) next[k + 1] += next[k];
  cholmod_sparse *s = cholmod_l_allocate_sparse(n, n, entries, 0, 1, -1, CHOLMOD_REAL, &c);
  if (!s) return nullptr;
  auto *p = static_cast<SuiteSparse_long *>(s->p);
  auto *i = static_cast<SuiteSparse_long *>(s->i);
  auto *x = static_cast<double *>(s->x);
  std::copy(next.begin(), next.end(), p);
  for (int col = 0; col < m.n; ++col)
    for (int64_t k = m.start[col]; k < m.start[col + 1]; ++k) {
      SuiteSparse_long a = position[m.row[k]], b = position[col];
      SuiteSparse_long at = next[static_cast<size_t>(std::min(a, b))]++;
      i[at] = std::max(a, b);
      x[at] = m.stiffness[k] - sigma * m.mass[k];
    }
  return s;
}

bool out_of_memory(const cholmod_common &c) { return c.status == CHOLMOD_OUT_OF_MEMORY; }

}  // namespace

void FactorFree::operator()(Factor *f) const {
  if (!f) return;
  cholmod_l_free_factor(&f->l, &f->common);
  cholmod_l_free_dense(&f->x, &f->common);
  cholmod_l_free_dense(&f->y, &f->common);
  cholmod_l_free_dense(&f->e, &f->common);
  cholmod_l_finish(&f->common);
  delete f;
}

bool factor_shifted(const Matrices &m, double sigma, FactorHandle &f) {
  f.reset(new Factor);
  start_common(f->common);
  f->n = m.n;
  cholmod_common &c = f->common;
  c.supernodal = CHOLMOD_SUPERNODAL;
  auto begin = std::chrono::steady_clock::now();
  cholmod_sparse *a = pattern_matrix(m, c);
  if (a) f->l = analyse(a, c);
  cholmod_l_free_sparse(&a, &c);
  f->stats.analyse_seconds = seconds_since(begin);
  if (!f->l) return failed("out of memory in the ordering of %d rows", m.n);
  begin = std::chrono::steady_clock::now();
  cholmod_sparse *s = permuted_lower(m, sigma, static_cast<SuiteSparse_long *>(f->l->Perm), c);
  if (!s) return failed("out of memory for the matrix of %d rows to factor", m.n);
  double beta[2] = {0.0, 0.0};
  bool ok = cholmod_l_super_numeric(s, nullptr, beta, f->l, &c);
  cholmod_l_free_sparse(&s, &c);
  f->stats.factor_seconds = seconds_since(begin);
  if (out_of_memory(c)) return failed("out of memory in the sparse factor of %d rows", m.n);
  if (!ok || c.status == CHOLMOD_NOT_POSDEF)
    return failed(
        "K - (%g) M is not positive definite (row %lld of %d in the factor's order): the "
        "model has an eigenvalue below the shift, which a mechanism or a missing *BOUNDARY "
        "can cause",
        sigma, static_cast<long long>(f->l->minor), m.n);
  f->stats.entries = c.lnz;
  return true;
}

bool solve_shifted(Factor &f, double *x, int columns) {
  cholmod_dense b{};
  b.nrow = static_cast<size_t>(f.n);
  b.ncol = static_cast<size_t>(columns);
  b.nzmax = b.nrow * b.ncol;
  b.d = b.nrow;
  b.x = x;
  b.xtype = CHOLMOD_REAL;
  b.dtype = CHOLMOD_DOUBLE;
  if (!cholmod_l_solve2(CHOLMOD_A, f.l, &b, nullptr, &f.x, nullptr, &f.y, &f.e, &f.common))
    return failed("out of memory in a solve with the sparse factor");
  std::memcpy(x, f.x->x, sizeof(double) * b.nzmax);
  return true;
}

std::vector<int64_t> factor_ordering(const Factor &f) {
  const auto *perm = static_cast<const SuiteSparse_long *>(f.l->Perm);
  return std::vector<int64_t>(perm, perm + f.n);
}

FactorStats factor_stats(const Factor &f) { return f.stats; }

}  // namespace ccx
