// The per-mode vector checks: mode shapes compared by eigenspace groups, modal stresses and
// strains through the mode coefficients that the shape check found, pre-stress and pre-strain.
// Only a few records are held at a time: memory grows with the nodes, never with nodes x modes.
#include <algorithm>
#include <cmath>
#include <vector>

#include "inspect/krxcomparerun.h"
#include "model/krxtools.h"

namespace krx {

namespace {

const char *const kKindTitles[3] = {"Shape", "Stress", "Strain"};

// The record of one mode at the new file's slots of a kind: the new record as it stands, the base
// record through the kind map. 0 when the store cannot load it (the store has said why).
int gather(const CompareRun &run, bool from_base, int32_t position, int kind,
           std::vector<double> &out) {
  KRXDATA *model = from_base ? run.base : run.fresh;
  if (!load_mode_record(model, model->eigen[position].number, kind)) return 0;
  const std::vector<double> &record = model->store[kind].record;
  const std::vector<int32_t> &map = run.kind_map[kind];
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

// Solves G a = c for the Gram matrix G (g x g) of the group's base vectors by a Cholesky
// factorisation that drops a vector whose remainder after the earlier ones is numerically zero:
// the one-after-the-other orthogonalisation of the base vectors, in matrix form.
std::vector<double> fit(const std::vector<double> &G, const std::vector<double> &c, int g) {
  std::vector<double> L(g * g, 0.0), d(g, 0.0), a(g, 0.0), y(g, 0.0);
  std::vector<char> kept(g, 0);
  for (int i = 0; i < g; ++i) {
    double s = G[i * g + i];
    for (int k = 0; k < i; ++k)
      if (kept[k]) s -= L[i * g + k] * L[i * g + k] * d[k];
    if (!(s > 1e-12 * G[i * g + i])) continue;
    kept[i] = 1;
    d[i] = s;
    for (int j = i + 1; j < g; ++j) {
      double t = G[j * g + i];
      for (int k = 0; k < i; ++k)
        if (kept[k]) t -= L[j * g + k] * L[i * g + k] * d[k];
      L[j * g + i] = t / s;
    }
  }
  for (int i = 0; i < g; ++i) {
    if (!kept[i]) continue;
    y[i] = c[i];
    for (int k = 0; k < i; ++k)
      if (kept[k]) y[i] -= L[i * g + k] * y[k];
  }
  for (int i = g - 1; i >= 0; --i) {
    if (!kept[i]) continue;
    a[i] = y[i] / d[i];
    for (int j = i + 1; j < g; ++j)
      if (kept[j]) a[i] -= L[j * g + i] * a[j];
  }
  return a;
}

// Mode k joins the group of mode k-1 when |lambda(k-1) - lambda(k)| / (|lambda(k)| +
// |lambda(7)|) is within the tolerance, with the base eigenvalues; lambda(7) is the first
// flexible one (0 with fewer than seven modes). Written as a product so that two equal
// eigenvalues of a model with only zeros still join.
void build_groups(CompareRun &run) {
  const std::vector<EigenRecord> &e = run.base->eigen;
  const double flexible = e.size() > 6 ? std::fabs(e[6].eigenvalue) : 0.0;
  run.group_first.assign(run.modes, 0);
  run.group_end.assign(run.modes, 0);
  int32_t first = 0;
  for (int32_t k = 1; k <= run.modes; ++k) {
    const bool joins = k < run.modes &&
                       std::fabs(e[k - 1].eigenvalue - e[k].eigenvalue) <=
                           run.tolerance * (std::fabs(e[k].eigenvalue) + flexible);
    if (joins) continue;
    for (int32_t j = first; j < k; ++j) {
      run.group_first[j] = first;
      run.group_end[j] = k;
    }
    first = k;
  }
}

struct Group {
  int32_t first = 0;
  int g = 0;
  std::vector<double> gram_t, gram_r, gram_f;
};

int fill_gram(const CompareRun &run, Group &group) {
  const int g = group.g;
  group.gram_t.assign(g * g, 0.0);
  group.gram_r.assign(g * g, 0.0);
  group.gram_f.assign(g * g, 0.0);
  std::vector<double> bi, bj;
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
  return 1;
}

bool all_zero_diagonal(const std::vector<double> &gram, int g) {
  for (int i = 0; i < g; ++i)
    if (gram[i * g + i] != 0.0) return false;
  return true;
}

// Length of what remains of a new half, relative to the half's own length. A new half that is
// all zero passes only when the base halves of the group are all zero too.
double remainder_ratio(double remainder_squared, double own_squared, bool base_all_zero) {
  if (own_squared == 0.0) return base_all_zero ? 0.0 : 1.0;
  return std::sqrt(std::max(remainder_squared, 0.0) / own_squared);
}

// Judges new mode k against the group; 1 when both halves pass, 0 when one fails, -2 when a
// record could not be loaded. Sets the mode's coefficients.
int judge_mode(CompareRun &run, const Group &group, int32_t k) {
  const int g = group.g;
  std::vector<double> v, b;
  if (!gather(run, false, k, kModeShapes, v)) return -2;
  std::vector<double> ct(g), cr(g), cf(g);
  for (int j = 0; j < g; ++j) {
    if (!gather(run, true, group.first + j, kModeShapes, b)) return -2;
    const Sums p = dot(b, v);
    ct[j] = p.t, cr[j] = p.r, cf[j] = p.f;
  }
  const std::vector<double> at = fit(group.gram_t, ct, g), ar = fit(group.gram_r, cr, g);
  run.coefficients[k] = fit(group.gram_f, cf, g);
  // A mode of its own eigenvalue can only have changed sign: a small change of the shape must not
  // scale what is compared through the coefficients (stresses, invariants, loads).
  if (g == 1) run.coefficients[k][0] = run.coefficients[k][0] < 0.0 ? -1.0 : 1.0;
  // The remainder is formed explicitly: subtracting squared lengths would lose half the digits.
  std::vector<double> r = v;
  for (int j = 0; j < g; ++j) {
    if (!gather(run, true, group.first + j, kModeShapes, b)) return -2;
    for (std::size_t i = 0; i < r.size(); i += 6)
      for (int d = 0; d < 6; ++d) r[i + d] -= (d < 3 ? at[j] : ar[j]) * b[i + d];
  }
  const Sums own = dot(v, v), rest = dot(r, r);
  const int32_t number = run.fresh->eigen[k].number;
  const int t = judge(run, remainder_ratio(rest.t, own.t, all_zero_diagonal(group.gram_t, g)),
                      "EigenVector translational: #%d", number);
  const int rr = judge(run, remainder_ratio(rest.r, own.r, all_zero_diagonal(group.gram_r, g)),
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
  for (int32_t first = 0; first < run.modes; first = run.group_end[first]) {
    Group group;
    group.first = first;
    group.g = run.group_end[first] - first;
    if (!fill_gram(run, group)) {
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
