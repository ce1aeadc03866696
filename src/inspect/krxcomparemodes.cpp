// The per-mode vector checks: mode shapes compared by eigenspace groups, modal stresses and
// strains through the mode coefficients that the shape check found, pre-stress and pre-strain.
// Only a few records are held at a time: memory grows with the nodes, never with nodes x modes.
#include <algorithm>
#include <cmath>
#include <vector>

#include "inspect/krxcompare.h"
#include "inspect/krxcomparerun.h"
#include "model/krxtools.h"

namespace krx {

namespace {

const char *const kKindTitles[3] = {"Shape", "Stress", "Strain"};

// The record of one mode at the new file's slots of a kind: the new record as it stands, the base
// record through the kind map. 0 when the store cannot load it (the store has said why).
int gather(const CompareRun &run, bool from_base, int32_t position, int kind,
           std::vector<double> &out) {
  const std::vector<int32_t> &map = run.kind_map[kind];
  // A new file without nodes of the kind compares empty records: there is nothing to load.
  if (map.empty()) {
    out.clear();
    return 1;
  }
  KRXDATA *model = from_base ? run.base : run.fresh;
  if (!load_mode_record(model, model->eigen[position].number, kind)) return 0;
  const std::vector<double> &record = model->store[kind].record;
  out.assign(6 * map.size(), 0.0);
  for (std::size_t s = 0; s < map.size(); ++s) {
    const std::size_t from = 6 * (from_base ? (std::size_t)map[s] : s);
    if (from + 6 > record.size()) return 0;
    std::copy(record.begin() + from, record.begin() + from + 6, out.begin() + 6 * s);
  }
  return 1;
}

// Dot products over the translational half, the rotational half and the whole vector.
struct Sums {
  double t = 0.0, r = 0.0, f = 0.0;
};

Sums dot(const std::vector<double> &a, const std::vector<double> &b) {
  Sums p;
  for (std::size_t i = 0; i < a.size(); i += 6) {
    p.t += a[i] * b[i] + a[i + 1] * b[i + 1] + a[i + 2] * b[i + 2];
    p.r += a[i + 3] * b[i + 3] + a[i + 4] * b[i + 4] + a[i + 5] * b[i + 5];
  }
  p.f = p.t + p.r;
  return p;
}

// The Gram matrix G (g x g) of the group's base vectors as L D L^T, by a Cholesky factorisation
// that drops a vector whose remainder after the earlier ones is numerically zero: the
// one-after-the-other orthogonalisation of the base vectors, in matrix form. Made once per group;
// each mode of the group then only solves with it.
struct Factor {
  std::size_t g = 0;
  std::vector<double> L, d;
  std::vector<char> kept;
  bool zero_diagonal = true;  // every base vector of the group is zero
};

// Refills f in place: a factor reused from group to group allocates only for a larger group.
void factorise(const std::vector<double> &G, std::size_t g, Factor &f) {
  f.g = g;
  f.L.assign(g * g, 0.0);
  f.d.assign(g, 0.0);
  f.kept.assign(g, 0);
  f.zero_diagonal = true;
  for (std::size_t i = 0; i < g; ++i) {
    if (G[i * g + i] != 0.0) f.zero_diagonal = false;
    double s = G[i * g + i];
    for (std::size_t k = 0; k < i; ++k)
      if (f.kept[k]) s -= f.L[i * g + k] * f.L[i * g + k] * f.d[k];
    if (!(s > 1e-12 * G[i * g + i])) continue;
    f.kept[i] = 1;
    f.d[i] = s;
    for (std::size_t j = i + 1; j < g; ++j) {
      double t = G[j * g + i];
      for (std::size_t k = 0; k < i; ++k)
        if (f.kept[k]) t -= f.L[j * g + k] * f.L[i * g + k] * f.d[k];
      f.L[j * g + i] = t / s;
    }
  }
}

// Solves G a = c with the factorisation, c overwritten on the way; a dropped vector gets no share.
void solve(const Factor &f, std::vector<double> &c, std::vector<double> &a) {
  const std::size_t g = f.g;
  a.assign(g, 0.0);
  for (std::size_t i = 0; i < g; ++i) {
    if (!f.kept[i]) continue;
    for (std::size_t k = 0; k < i; ++k)
      if (f.kept[k]) c[i] -= f.L[i * g + k] * c[k];
  }
  for (std::size_t i = g; i-- > 0;) {
    if (!f.kept[i]) continue;
    a[i] = c[i] / f.d[i];
    for (std::size_t j = i + 1; j < g; ++j)
      if (f.kept[j]) a[i] -= f.L[j * g + i] * a[j];
  }
}

// Mode k joins the group of the modes before it when |lambda(first) - lambda(k)| / (|lambda(k)|
// + |lambda(7)|) is within the tolerance, with the base eigenvalues, lambda(first) being the
// group's first; lambda(7) is the first flexible one (0 with fewer than seven modes). Measuring
// from the first rather than from the neighbour keeps a long run of slowly rising eigenvalues
// from becoming one group, and the cap keeps a run of equal ones from it: the work of a group
// and its coefficients grow with its size squared. Written as a product so that two equal
// eigenvalues of a model with only zeros still join.
void build_groups(CompareRun &run) {
  const std::vector<EigenRecord> &e = run.base->eigen;
  const double flexible = e.size() > 6 ? std::fabs(e[6].eigenvalue) : 0.0;
  run.group_first.assign(run.modes, 0);
  run.group_end.assign(run.modes, 0);
  int32_t first = 0;
  for (int32_t k = 1; k <= run.modes; ++k) {
    const bool close = k < run.modes &&
                       std::fabs(e[first].eigenvalue - e[k].eigenvalue) <=
                           run.tolerance * (std::fabs(e[k].eigenvalue) + flexible);
    if (close && k - first < kMaxEigenspaceGroup) continue;
    if (close)
      say(run, kShowNote, "->Note EigenVector group from #%d cut at %d modes: #%d starts another\n",
          run.fresh->eigen[first].number, kMaxEigenspaceGroup, run.fresh->eigen[k].number);
    for (int32_t j = first; j < k; ++j) {
      run.group_first[j] = first;
      run.group_end[j] = k;
    }
    first = k;
  }
}

// One group at a time, with the scratch of its modes: one Group serves every group of a run, so
// that a mode costs no allocation beyond its coefficients.
struct Group {
  int32_t first = 0;
  int g = 0;  // at most kMaxEigenspaceGroup
  Factor t, r, f;  // of the translational halves, the rotational halves, the whole vectors
  std::vector<double> gram_t, gram_r, gram_f, ct, cr, cf, at, ar, v, b, rest;
};

int factorise_group(const CompareRun &run, Group &group) {
  const int g = group.g;
  const std::size_t entries = (std::size_t)g * g;
  group.gram_t.assign(entries, 0.0);
  group.gram_r.assign(entries, 0.0);
  group.gram_f.assign(entries, 0.0);
  std::vector<double> &bi = group.v, &bj = group.b;
  for (int i = 0; i < g; ++i) {
    if (!gather(run, true, group.first + i, kModeShapes, bi)) return 0;
    for (int j = i; j < g; ++j) {
      if (j > i && !gather(run, true, group.first + j, kModeShapes, bj)) return 0;
      const Sums p = dot(bi, j == i ? bi : bj);
      group.gram_t[i * g + j] = group.gram_t[j * g + i] = p.t;
      group.gram_r[i * g + j] = group.gram_r[j * g + i] = p.r;
      group.gram_f[i * g + j] = group.gram_f[j * g + i] = p.f;
    }
    if (group.gram_t[i * g + i] == 0.0) say(run, kShowNote, "->Note base EigenVectorTanslational=0\n");
    if (group.gram_r[i * g + i] == 0.0) say(run, kShowNote, "->Note base EigenVectorRotational=0\n");
  }
  factorise(group.gram_t, g, group.t);
  factorise(group.gram_r, g, group.r);
  factorise(group.gram_f, g, group.f);
  return 1;
}

// Length of what remains of a new half, relative to the half's own length. A new half that is
// all zero passes only when the base halves of the group are all zero too.
double remainder_ratio(double remainder_squared, double own_squared, bool base_all_zero) {
  if (own_squared == 0.0) return base_all_zero ? 0.0 : 1.0;
  return std::sqrt(std::max(remainder_squared, 0.0) / own_squared);
}

// Judges new mode k against the group; 1 when both halves pass, 0 when one fails, -2 when a
// record could not be loaded. Sets the mode's coefficients.
int judge_mode(CompareRun &run, Group &group, int32_t k) {
  const int g = group.g;
  std::vector<double> &v = group.v, &b = group.b, &r = group.rest;
  if (!gather(run, false, k, kModeShapes, v)) return -2;
  group.ct.assign(g, 0.0), group.cr.assign(g, 0.0), group.cf.assign(g, 0.0);
  for (int j = 0; j < g; ++j) {
    if (!gather(run, true, group.first + j, kModeShapes, b)) return -2;
    const Sums p = dot(b, v);
    group.ct[j] = p.t, group.cr[j] = p.r, group.cf[j] = p.f;
  }
  solve(group.t, group.ct, group.at);
  solve(group.r, group.cr, group.ar);
  std::vector<double> &coefficients = run.coefficients[k];
  solve(group.f, group.cf, coefficients);
  // A mode of its own eigenvalue can only have changed sign: a small change of the shape must not
  // scale what is compared through the coefficients (stresses, invariants, loads).
  if (g == 1) coefficients[0] = coefficients[0] < 0.0 ? -1.0 : 1.0;
  // The remainder is formed explicitly: subtracting squared lengths would lose half the digits.
  r = v;
  for (int j = 0; j < g; ++j) {
    if (!gather(run, true, group.first + j, kModeShapes, b)) return -2;
    for (std::size_t i = 0; i < r.size(); i += 6)
      for (int d = 0; d < 6; ++d) r[i + d] -= (d < 3 ? group.at[j] : group.ar[j]) * b[i + d];
  }
  const Sums own = dot(v, v), rest = dot(r, r);
  const int32_t number = run.fresh->eigen[k].number;
  const int t = judge(run, remainder_ratio(rest.t, own.t, group.t.zero_diagonal),
                      "EigenVector translational: #%d", number);
  const int rr = judge(run, remainder_ratio(rest.r, own.r, group.r.zero_diagonal),
                       "EigenVector rotational: #%d", number);
  return t == 0 && rr == 0 ? 1 : 0;
}

}  // namespace

int check_mode_shapes(CompareRun &run) {
  build_groups(run);
  run.coefficients.assign(run.modes, {});
  for (int32_t k = 0; k < run.modes; ++k) {
    run.coefficients[k].assign(run.group_end[k] - run.group_first[k], 0.0);
    run.coefficients[k][k - run.group_first[k]] = 1.0;
  }
  int failed = 0;
  Group group;
  for (int32_t first = 0; first < run.modes; first = run.group_end[first]) {
    group.first = first;
    group.g = run.group_end[first] - first;
    if (!factorise_group(run, group)) {
      for (int32_t k = first; k < first + group.g; ++k)
        judge(run, 1.0, "EigenVector translational: #%d", run.fresh->eigen[k].number);
      failed += group.g;
      continue;
    }
    for (int32_t k = first; k < first + group.g; ++k) {
      const int judged = judge_mode(run, group, k);
      // A record the store could not load (it has said why) fails the mode.
      if (judged == -2) judge(run, 1.0, "EigenVector translational: #%d", run.fresh->eigen[k].number);
      if (judged <= 0) ++failed;
    }
  }
  if (failed == 0) {
    say(run, kShowPass, "  Pass ModeShape\n");
    return 0;
  }
  say(run, kShowFail, "->Fail ModeShape, %d times\n", failed);
  return -failed;
}

namespace {

// Stress (or strain) of new mode k against the same combination of base records that makes up
// the new mode shape: the length of the difference relative to the longer of the two vectors.
double kind_mode_delta(const CompareRun &run, int kind, int32_t k, bool &loaded) {
  std::vector<double> v, expected, b;
  loaded = gather(run, false, k, kind, v);
  if (!loaded) return 1.0;
  expected.assign(v.size(), 0.0);
  const std::vector<double> &c = run.coefficients[k];
  for (int32_t j = run.group_first[k]; j < run.group_end[k]; ++j) {
    if (!(loaded = gather(run, true, j, kind, b))) return 1.0;
    if (j == k && dot(b, b).f == 0.0)
      say(run, kShowNote, "->Note: Null %s shape in base for mode: %d\n",
          kind == kModalStress ? "stress" : "strain", run.base->eigen[k].number);
    const double w = c[j - run.group_first[k]];
    for (std::size_t i = 0; i < v.size(); ++i) expected[i] += w * b[i];
  }
  const double own = dot(v, v).f, other = dot(expected, expected).f;
  for (std::size_t i = 0; i < v.size(); ++i) v[i] -= expected[i];
  const double longer = std::max(own, other);
  return longer == 0.0 ? 0.0 : std::sqrt(dot(v, v).f / longer);
}

}  // namespace

int check_kind_modes(CompareRun &run, int kind) {
  if (run.kind_map[kind].empty()) return 0;
  const char *title = kKindTitles[kind];
  const int32_t n = (int32_t)run.fresh->store[kind].nodes.size();
  const int32_t nb = (int32_t)run.base->store[kind].nodes.size();
  if (nb < n) {
    say(run, kShowFail, "->Fail NodeCount for %s modes in base: %d < new: %d \n", title, nb, n);
    say(run, kShowFail, "->Try transposing input KRXs. (Exit)\n\n");
    end_run();
  }
  if (nb != n) say(run, kShowWarning, "->Warning NodeCount for %s modes base: %d  new: %d\n", title, nb, n);
  else say(run, kShowPass, "  Pass NodeCount for %s modes: %d\n", title, n);
  int result = 0;
  for (int32_t k = 0; k < run.modes; ++k) {
    bool loaded = true;
    const double delta = kind_mode_delta(run, kind, k, loaded);
    result += judge(run, delta, "%s Mode: #%d", title, run.fresh->eigen[k].number);
  }
  return result;
}

int check_pre_values(CompareRun &run, int kind) {
  const int flag = kind == kModalStress ? kFlagPreStress : kFlagPreStrain;
  if (!both_have(run, flag) || run.kind_map[kind].empty()) return 0;
  const std::vector<double> &a = kind == kModalStress ? run.fresh->pre_stress : run.fresh->pre_strain;
  const std::vector<double> &b = kind == kModalStress ? run.base->pre_stress : run.base->pre_strain;
  // Difference: largest component difference at the mapped nodes; scale: largest base component,
  // at least 1. A node beyond what a file holds counts as zero.
  Spread spread;
  const std::vector<int32_t> &map = run.kind_map[kind];
  for (std::size_t s = 0; s < map.size(); ++s)
    for (int d = 0; d < 6; ++d) {
      const std::size_t i = 6 * s + d, j = 6 * (std::size_t)map[s] + d;
      spread.add(i < a.size() ? a[i] : 0.0, j < b.size() ? b[j] : 0.0);
    }
  return judge(run, spread.ratio(), kind == kModalStress ? "PreStress" : "PreStrain");
}

}  // namespace krx
