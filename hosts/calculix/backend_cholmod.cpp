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

// Rows with one pattern (a node's directions) are one vertex of the graph that METIS orders: a
// graph with a ninth of the edges gives the same nested dissection at a fraction of the cost.
// Rows are grouped by a hash of their pattern, itself included; a group that a collision made
// wrongly would still give a valid ordering, only a worse one. group gets each row's group.
SuiteSparse_long group_rows(const Matrices &m, std::vector<SuiteSparse_long> &group) {
  size_t n = static_cast<size_t>(m.n);
  auto mix = [](uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
  };
  std::vector<uint64_t> hash(n, 0);
  for (int col = 0; col < m.n; ++col)
    for (int64_t k = m.start[col]; k < m.start[col + 1]; ++k) {
      auto r = static_cast<size_t>(m.row[k]), c = static_cast<size_t>(col);
      hash[r] += mix(c);
      if (r != c) hash[c] += mix(r);
    }
  std::vector<std::pair<uint64_t, SuiteSparse_long>> sorted(n);
  for (size_t r = 0; r < n; ++r) sorted[r] = {hash[r], static_cast<SuiteSparse_long>(r)};
  std::vector<uint64_t>().swap(hash);
  std::sort(sorted.begin(), sorted.end());
  group.assign(n, 0);
  SuiteSparse_long groups = 0;
  for (size_t k = 0; k < n; ++k) {
    if (k > 0 && sorted[k].first != sorted[k - 1].first) ++groups;
    group[static_cast<size_t>(sorted[k].second)] = groups;
  }
  return n > 0 ? groups + 1 : 0;
}

// The graph of the groups as CHOLMOD's upper-triangular pattern: one entry per pair of groups
// that share an entry of K or M.
cholmod_sparse *group_graph(const Matrices &m, const std::vector<SuiteSparse_long> &group,
                            SuiteSparse_long groups, cholmod_common &c) {
  auto size = static_cast<size_t>(groups);
  auto pair_at = [&](int64_t k, int col, SuiteSparse_long &low, SuiteSparse_long &high) {
    SuiteSparse_long a = group[static_cast<size_t>(m.row[k])];
    SuiteSparse_long b = group[static_cast<size_t>(col)];
    low = std::min(a, b);
    high = std::max(a, b);
    return a != b;
  };
  std::vector<int64_t> first(size + 1, 0);
  SuiteSparse_long low = 0, high = 0;
  for (int col = 0; col < m.n; ++col)
    for (int64_t k = m.start[col]; k < m.start[col + 1]; ++k)
      if (pair_at(k, col, low, high)) ++first[static_cast<size_t>(high) + 1];
  for (size_t g = 0; g < size; ++g) first[g + 1] += first[g];
  std::vector<int> below(static_cast<size_t>(first[size]));
  std::vector<int64_t> next(first.begin(), first.end() - 1);
  for (int col = 0; col < m.n; ++col)
    for (int64_t k = m.start[col]; k < m.start[col + 1]; ++k)
      if (pair_at(k, col, low, high))
        below[static_cast<size_t>(next[static_cast<size_t>(high)]++)] = static_cast<int>(low);
  // Each group's neighbours sorted and made unique, at the front of its span.
  size_t entries = 0;
  for (size_t g = 0; g < size; ++g) {
    auto begin = below.begin() + first[g], end = below.begin() + first[g + 1];
    std::sort(begin, end);
    next[g] = std::unique(begin, end) - below.begin();
    entries += static_cast<size_t>(next[g] - first[g]);
  }
  cholmod_sparse *a = cholmod_l_allocate_sparse(size, size, entries, 1, 1, 1, CHOLMOD_PATTERN, &c);
  if (!a) return nullptr;
  auto *p = static_cast<SuiteSparse_long *>(a->p);
  auto *i = static_cast<SuiteSparse_long *>(a->i);
  size_t at = 0;
  for (size_t g = 0; g < size; ++g) {
    p[g] = static_cast<SuiteSparse_long>(at);
    for (int64_t k = first[g]; k < next[g]; ++k) i[at++] = below[static_cast<size_t>(k)];
  }
  p[size] = static_cast<SuiteSparse_long>(at);
  return a;
}

// The rows group by group in the groups' order, each group's rows in their own order.
std::vector<SuiteSparse_long> expand_order(const std::vector<SuiteSparse_long> &group,
                                           const std::vector<SuiteSparse_long> &group_order) {
  size_t groups = group_order.size();
  std::vector<int64_t> place(groups), next(groups + 1, 0);
  for (size_t k = 0; k < groups; ++k)
    place[static_cast<size_t>(group_order[k])] = static_cast<int64_t>(k);
  for (SuiteSparse_long g : group) ++next[static_cast<size_t>(place[static_cast<size_t>(g)]) + 1];
  for (size_t k = 0; k < groups; ++k) next[k + 1] += next[k];
  std::vector<SuiteSparse_long> order(group.size());
  for (size_t r = 0; r < group.size(); ++r) {
    auto slot = static_cast<size_t>(place[static_cast<size_t>(group[r])]);
    order[static_cast<size_t>(next[slot]++)] = static_cast<SuiteSparse_long>(r);
  }
  return order;
}

// The pattern of K and M as CHOLMOD's upper-triangular matrix for the symbolic analysis:
// CalculiX lists the upper triangle column by column, which is CHOLMOD's compressed-column form.
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

// Nested dissection (METIS) of the groups' graph orders a solid's matrix with far less fill than
// minimum degree; CHOLMOD then postorders it and finds the supernodes. Where CHOLMOD was built
// without METIS, its own minimum degree serves.
cholmod_factor *analyse(const Matrices &m, cholmod_common &c) {
  std::vector<SuiteSparse_long> group, order;
  SuiteSparse_long groups = group_rows(m, group);
  if (groups > 1) {
    cholmod_sparse *graph = group_graph(m, group, groups, c);
    if (!graph) return nullptr;
    std::vector<SuiteSparse_long> group_order(static_cast<size_t>(groups));
    int ordered = cholmod_l_metis(graph, nullptr, 0, 0, group_order.data(), &c);
    cholmod_l_free_sparse(&graph, &c);
    if (ordered)
      order = expand_order(group, group_order);
    else if (c.status != CHOLMOD_NOT_INSTALLED)
      return nullptr;
  }
  std::vector<SuiteSparse_long>().swap(group);
  cholmod_sparse *a = pattern_matrix(m, c);
  if (!a) return nullptr;
  c.nmethods = 1;
  c.method[0].ordering = order.empty() ? CHOLMOD_AMD : CHOLMOD_GIVEN;
  c.postorder = 1;
  SuiteSparse_long *given = order.empty() ? nullptr : order.data();
  cholmod_factor *l = cholmod_l_analyze_p(a, given, nullptr, 0, &c);
  cholmod_l_free_sparse(&a, &c);
  return l;
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

bool factor_shifted(const Matrices &m, double sigma, FactorHandle &f,
                    const std::function<bool()> &made) {
  f.reset(new Factor);
  start_common(f->common);
  f->n = m.n;
  cholmod_common &c = f->common;
  c.supernodal = CHOLMOD_SUPERNODAL;
  auto begin = std::chrono::steady_clock::now();
  f->l = analyse(m, c);
  f->stats.analyse_seconds = seconds_since(begin);
  if (!f->l) return failed("out of memory in the ordering of %d rows", m.n);
  begin = std::chrono::steady_clock::now();
  cholmod_sparse *s = permuted_lower(m, sigma, static_cast<SuiteSparse_long *>(f->l->Perm), c);
  if (!s) return failed("out of memory for the matrix of %d rows to factor", m.n);
  if (made && !made()) {
    cholmod_l_free_sparse(&s, &c);
    return false;
  }
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
