// The mode-shape sums of the inertia invariants in one pass over panels of nodes. A panel holds
// the translations of every retained mode for its nodes, read with one positioned read per mode;
// the pass then adds, block by block, the nine mass-weighted products of two vectors of three
// components. Invariants 3, 4 and 8 come from the products with the positions, 5 and 9 from the
// products of two modes:
//   H_ab(j) = sum m x_a phi_jb,  S_b(j) = sum m phi_jb,  G_ab(j, k) = sum m phi_ja phi_kb.
#include "processing/krxinvar_sums.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>

#include "base/krxmsg.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxinvar";
// Nodes of one block: the translations of every mode for a block stay in the second-level cache
// while the pairs of modes go past.
constexpr int32_t kBlockNodes = 256;
// Translations of one panel, all modes: the panel is read with one positioned read per mode.
constexpr std::size_t kPanelBytes = std::size_t(2) << 20;
// Per mode: H (9), S (3) and the rotational part of invariant 4 (3).
constexpr std::size_t kModalSums = 15;

using v4d = double __attribute__((vector_size(32)));

// out[3a + b] += sum_i a_a[i] b_b[i] over n nodes (a multiple of 4), the three rows of a and of b
// kBlockNodes apart. The nine sums of four lanes stay in registers while the nodes stream past;
// the vector width is chosen when the library is loaded.
__attribute__((target_clones("avx2", "default"))) void add_products(const double *a,
                                                                     const double *b, int32_t n,
                                                                     double out[9]) {
  v4d s0 = {}, s1 = {}, s2 = {}, s3 = {}, s4 = {}, s5 = {}, s6 = {}, s7 = {}, s8 = {};
  for (int32_t i = 0; i < n; i += 4) {
    v4d a0, a1, a2, b0, b1, b2;
    std::memcpy(&a0, a + i, sizeof a0);
    std::memcpy(&a1, a + kBlockNodes + i, sizeof a1);
    std::memcpy(&a2, a + 2 * kBlockNodes + i, sizeof a2);
    std::memcpy(&b0, b + i, sizeof b0);
    std::memcpy(&b1, b + kBlockNodes + i, sizeof b1);
    std::memcpy(&b2, b + 2 * kBlockNodes + i, sizeof b2);
    s0 += a0 * b0;
    s1 += a0 * b1;
    s2 += a0 * b2;
    s3 += a1 * b0;
    s4 += a1 * b1;
    s5 += a1 * b2;
    s6 += a2 * b0;
    s7 += a2 * b1;
    s8 += a2 * b2;
  }
  const v4d sums[9] = {s0, s1, s2, s3, s4, s5, s6, s7, s8};
  for (int e = 0; e < 9; ++e) out[e] += (sums[e][0] + sums[e][1]) + (sums[e][2] + sums[e][3]);
}

int32_t round_up4(int32_t n) { return (n + 3) / 4 * 4; }

struct Pass {
  KRXDATA *model = nullptr;
  ModeSumTargets targets;
  int32_t M = 0, N = 0;
  int32_t panel_nodes = 0;  // a multiple of kBlockNodes
  bool modal = false;       // invariant 3, 4 or 8
  bool pairs = false;       // invariant 5 or 9
  std::vector<char> present;     // per mode: it has a shape that reads
  std::vector<double> raw;       // one mode's slice of the panel, six values per node
  // Per block of the panel: for every mode, then the positions, three rows of kBlockNodes.
  // Massless nodes and the padding after the last node hold zeros.
  std::vector<double> tiles;
  std::vector<double> mass;      // per node of the panel, zero-padded
  std::vector<double> weighted;  // three rows of one block: mass times the row side
  std::vector<int32_t> inertial;  // panel offsets of the nodes with an inertia
  std::vector<double> modal_sums;  // kModalSums per mode
  std::vector<double> pair_sums;   // nine per pair k >= j, row by row
};

// Pairs k >= j row by row: row j starts after the M + (M - 1) + ... + (M - j + 1) pairs before it.
std::size_t pair_index(int32_t M, int32_t j, int32_t k) {
  return std::size_t(j) * std::size_t(2 * M - j + 1) / 2 + std::size_t(k - j);
}

double *tile(Pass &p, int32_t block, int32_t row_mode) {
  return p.tiles.data() + (std::size_t(block) * std::size_t(p.M + 1) + std::size_t(row_mode)) *
                              3 * kBlockNodes;
}

int32_t panel_nodes_for(int32_t N, int32_t M) {
  std::size_t per_node = std::size_t(M + 1) * 3 * sizeof(double);
  std::size_t blocks = std::max<std::size_t>(1, kPanelBytes / per_node / kBlockNodes);
  std::size_t needed = (std::size_t(N) + kBlockNodes - 1) / kBlockNodes;
  return int32_t(std::min(blocks, std::max<std::size_t>(needed, 1)) * kBlockNodes);
}

bool allocate(Pass &p) {
  const std::size_t P = std::size_t(p.panel_nodes), M = std::size_t(p.M);
  try {
    p.present.assign(M, 0);
    p.raw.resize(P * 6);
    p.tiles.assign(P * (M + 1) * 3, 0.0);
    p.mass.assign(P, 0.0);
    p.weighted.assign(3 * kBlockNodes, 0.0);
    p.inertial.reserve(P);
    if (p.modal) p.modal_sums.assign(M * kModalSums, 0.0);
    if (p.pairs) p.pair_sums.assign(M * (M + 1) / 2 * 9, 0.0);
    return true;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return false;
  }
}

// Masses, positions and the list of nodes with an inertia for nodes [first, first + count).
void load_panel_nodes(Pass &p, int32_t first, int32_t count) {
  p.inertial.clear();
  for (int32_t i = 0; i < p.panel_nodes; ++i) {
    const bool real = i < count;
    const NodeRecord *node = real ? &p.model->nodes[std::size_t(first + i)] : nullptr;
    p.mass[std::size_t(i)] = real ? node->mass : 0.0;
    if (real && node->inertia) p.inertial.push_back(i);
    if (!p.modal) continue;
    double *rows = tile(p, i / kBlockNodes, p.M) + i % kBlockNodes;
    rows[0] = real ? node->x : 0.0;
    rows[kBlockNodes] = real ? node->y : 0.0;
    rows[2 * kBlockNodes] = real ? node->z : 0.0;
  }
}

// Mode j's slice of the panel into its tile rows; the rotational part of invariant 4 is summed
// here, for every node with an inertia whatever its mass.
void load_panel_mode(Pass &p, int32_t j, int32_t first, int32_t count) {
  const int32_t index = retained_mode_index(p.model, j);
  if (!read_mode_nodes(p.model, kModeShapes, index, first, count, p.raw.data())) {
    p.present[std::size_t(j)] = 0;  // a failed read has said so; the mode counts as zero
    return;
  }
  for (int32_t i = 0; i < p.panel_nodes; ++i) {
    double *rows = tile(p, i / kBlockNodes, j) + i % kBlockNodes;
    const bool counts = i < count && p.mass[std::size_t(i)] != 0.0;
    const double *phi = p.raw.data() + 6 * std::size_t(i);
    for (int a = 0; a < 3; ++a) rows[a * kBlockNodes] = counts ? phi[a] : 0.0;
  }
  if (!p.modal) return;
  double *rot = p.modal_sums.data() + std::size_t(j) * kModalSums + 12;
  for (int32_t i : p.inertial) {
    const std::array<double, 6> &c = *p.model->nodes[std::size_t(first + i)].inertia;
    const double J[9] = {c[0], c[3], c[4], c[3], c[1], c[5], c[4], c[5], c[2]};
    const double *psi = p.raw.data() + 6 * std::size_t(i) + 3;
    for (int r = 0; r < 3; ++r)
      rot[r] += J[3 * r] * psi[0] + J[3 * r + 1] * psi[1] + J[3 * r + 2] * psi[2];
  }
}

// weighted = mass times the three rows of source over one block.
void weigh(Pass &p, int32_t block, const double *source, int32_t n) {
  const double *m = p.mass.data() + std::size_t(block) * kBlockNodes;
  for (int a = 0; a < 3; ++a)
    for (int32_t i = 0; i < n; ++i)
      p.weighted[std::size_t(a) * kBlockNodes + std::size_t(i)] = m[i] * source[a * kBlockNodes + i];
}

void sum_block(Pass &p, int32_t block, int32_t n) {
  if (p.modal) {
    weigh(p, block, tile(p, block, p.M), n);
    for (int32_t j = 0; j < p.M; ++j)
      if (p.present[std::size_t(j)])
        add_products(p.weighted.data(), tile(p, block, j), n,
                     p.modal_sums.data() + std::size_t(j) * kModalSums);
    // Rows (m, 0, 0): the first three products are sum m phi_b.
    std::copy_n(p.mass.data() + std::size_t(block) * kBlockNodes, n, p.weighted.data());
    std::fill_n(p.weighted.data() + kBlockNodes, 2 * kBlockNodes, 0.0);
    for (int32_t j = 0; j < p.M; ++j) {
      if (!p.present[std::size_t(j)]) continue;
      double s[9] = {};
      add_products(p.weighted.data(), tile(p, block, j), n, s);
      double *S = p.modal_sums.data() + std::size_t(j) * kModalSums + 9;
      for (int b = 0; b < 3; ++b) S[b] += s[b];
    }
  }
  if (!p.pairs) return;
  for (int32_t j = 0; j < p.M; ++j) {
    if (!p.present[std::size_t(j)]) continue;
    weigh(p, block, tile(p, block, j), n);
    for (int32_t k = j; k < p.M; ++k)
      if (p.present[std::size_t(k)])
        add_products(p.weighted.data(), tile(p, block, k), n,
                     p.pair_sums.data() + pair_index(p.M, j, k) * 9);
  }
}

void sum_panel(Pass &p, int32_t first, int32_t count) {
  load_panel_nodes(p, first, count);
  for (int32_t j = 0; j < p.M; ++j)
    if (p.present[std::size_t(j)]) load_panel_mode(p, j, first, count);
  for (int32_t block = 0; block * kBlockNodes < count; ++block)
    sum_block(p, block, round_up4(std::min(kBlockNodes, count - block * kBlockNodes)));
}

// Invariant 3 is S; invariant 4 is sum m (x x phi) + J psi; array j of invariant 8 is
// sum m skew(x) skew(phi), entry (r, c) = H_cr less trace(H) on the diagonal.
void finish_modal(Pass &p) {
  const std::size_t M = std::size_t(p.M);
  for (std::size_t j = 0; j < M; ++j) {
    if (!p.present[j]) continue;
    const double *H = p.modal_sums.data() + j * kModalSums, *S = H + 9, *rot = H + 12;
    const double cross[3] = {H[5] - H[7], H[6] - H[2], H[1] - H[3]};
    const double trace = H[0] + H[4] + H[8];
    for (std::size_t c = 0; c < 3; ++c) {
      if (p.targets.three) (*p.targets.three)[c * M + j] = S[c];
      if (p.targets.four) (*p.targets.four)[c * M + j] = cross[c] + rot[c];
    }
    if (!p.targets.eight) continue;
    double *T = p.targets.eight->data() + j * 9;
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c) T[3 * r + c] = H[3 * c + r] - (r == c ? trace : 0.0);
  }
}

// Invariant 5 (j, k) is sum m (phi_j x phi_k), stored antisymmetric with a zero diagonal; array
// (j, k) of invariant 9 is sum m skew(phi_j) skew(phi_k), entry (r, c) = G_cr less the trace on
// the diagonal, and array (k, j) is its transpose.
void finish_pairs(Pass &p) {
  const int32_t M = p.M;
  const std::size_t row = 3 * std::size_t(M);
  for (int32_t j = 0; j < M; ++j) {
    if (!p.present[std::size_t(j)]) continue;
    for (int32_t k = j; k < M; ++k) {
      if (!p.present[std::size_t(k)]) continue;
      const double *G = p.pair_sums.data() + pair_index(M, j, k) * 9;
      if (p.targets.five && k != j) {
        const double cross[3] = {G[5] - G[7], G[6] - G[2], G[1] - G[3]};
        std::vector<double> &five = *p.targets.five;
        for (int c = 0; c < 3; ++c) {
          five[std::size_t(j) * row + std::size_t(c) * M + k] = cross[c];
          five[std::size_t(k) * row + std::size_t(c) * M + j] = -cross[c];
        }
      }
      if (!p.targets.nine) continue;
      const double trace = G[0] + G[4] + G[8];
      double s9[9];
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) s9[3 * r + c] = G[3 * c + r] - (r == c ? trace : 0.0);
      double *jk = p.targets.nine->data() + (std::size_t(j) * M + k) * 9;
      double *kj = p.targets.nine->data() + (std::size_t(k) * M + j) * 9;
      std::memcpy(jk, s9, sizeof s9);
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) kj[3 * c + r] = s9[3 * r + c];
    }
  }
}

}  // namespace

bool sum_mode_invariants(KRXDATA *model, const ModeSumTargets &targets) {
  Pass p;
  p.model = model;
  p.targets = targets;
  p.M = std::max<int32_t>(0, model->retained_modes);
  p.N = int32_t(model->nodes.size());
  p.modal = targets.three || targets.four || targets.eight;
  p.pairs = targets.five || targets.nine;
  if (p.M == 0 || p.N == 0 || !(p.modal || p.pairs) || !model->flags[kFlagModeShapes])
    return true;
  p.panel_nodes = panel_nodes_for(p.N, p.M);
  if (!allocate(p)) return false;
  for (int32_t j = 0; j < p.M; ++j) p.present[std::size_t(j)] = retained_mode_index(model, j) >= 0;
  // A failed flush has said so; the reads show what the file holds.
  (void)flush_vector_store(model, kModeShapes);
  try {
    for (int32_t first = 0; first < p.N; first += p.panel_nodes)
      sum_panel(p, first, std::min(p.panel_nodes, p.N - first));
  } catch (const std::bad_alloc &) {  // the store's conversion buffer
    KRX_REPORT_ALLOC(kSource);
    return false;
  }
  if (p.modal) finish_modal(p);
  if (p.pairs) finish_pairs(p);
  return true;
}

}  // namespace krx
