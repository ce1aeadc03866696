// The block catalogue: the table of blocks with their size rules, and one codec per layout. Each
// layout is written once, as a template over the direction, so the writer and the reader cannot
// disagree about the order of fields.
#include "format/krxformat.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace krx {
namespace {

using Wide = __int128;

int64_t clamp(Wide bytes) {
  if (bytes < 0 || bytes > Wide(std::numeric_limits<int64_t>::max())) return -1;
  return int64_t(bytes);
}

bool negative(const BlockCounts &c) { return c.n[0] < 0 || c.n[1] < 0 || c.n[2] < 0; }

// ---- size rules, one per layout ----
int64_t size_version(const BlockCounts &, int, int, int) { return 4; }
int64_t size_header(const BlockCounts &, int C, int, int) { return 544 * C; }
int64_t size_content(const BlockCounts &, int C, int, int) { return kFlagCount * C; }
int64_t size_per_node(const BlockCounts &c, int, int R, int) {  // blocks 4 and 9
  if (negative(c)) return -1;
  return clamp(8 + Wide(c.n[0]) * (4 + Wide(c.n[1]) * R));
}
int64_t size_topology(const BlockCounts &c, int, int, int) {
  if (negative(c)) return -1;
  return clamp(8 + 12 * Wide(c.n[1]) + 4 * Wide(c.n[2]));
}
int64_t size_global(const BlockCounts &, int, int R, int) { return 13 * R; }
int64_t size_eigen(const BlockCounts &c, int, int R, int) {
  if (negative(c)) return -1;
  return clamp(4 + Wide(c.n[0]) * (4 + 5 * R));
}
int64_t size_modes(const BlockCounts &c, int, int R, int generation) {  // blocks 8, 18, 29
  if (negative(c)) return -1;
  Wide number = generation == 10 ? 0 : 4;
  return clamp(8 + 4 * Wide(c.n[1]) + Wide(c.n[0]) * (number + 6 * Wide(c.n[1]) * R));
}
int64_t size_inertia(const BlockCounts &c, int C, int R, int) {
  if (negative(c)) return -1;
  return clamp(4 + Wide(c.n[0]) * (4 + 2 * C + R));
}
int64_t size_units(const BlockCounts &, int C, int, int) { return 64 * C; }
int64_t size_matrix(const BlockCounts &c, int, int R, int) {  // blocks 12, 13, 15
  if (negative(c)) return -1;
  return clamp(8 + Wide(c.n[0]) * (12 + R));
}
int64_t size_faces(const BlockCounts &c, int, int, int) { return c.n[0] < 16 ? -1 : c.n[0]; }
int64_t size_transformation(const BlockCounts &c, int, int R, int) {
  if (negative(c)) return -1;
  return clamp(4 + Wide(c.n[0]) * (4 + Wide(c.n[0]) * R));
}
int64_t size_interface(const BlockCounts &c, int, int, int) {
  if (negative(c)) return -1;
  return clamp(4 * (Wide(c.n[0]) + 1));
}
int64_t size_invar1(const BlockCounts &, int, int R, int) { return R; }
int64_t size_invar2(const BlockCounts &, int, int R, int) { return 3 * R; }
int64_t size_invar7(const BlockCounts &, int, int R, int) { return 9 * R; }
int64_t size_invar_m(const BlockCounts &c, int, int R, int, int per_mode, bool square) {
  if (negative(c)) return -1;
  Wide m = c.n[0];
  return clamp(4 + per_mode * m * (square ? m : 1) * R);
}
int64_t size_invar34(const BlockCounts &c, int C, int R, int g) { return size_invar_m(c, C, R, g, 3, false); }
int64_t size_invar5(const BlockCounts &c, int C, int R, int g) { return size_invar_m(c, C, R, g, 3, true); }
int64_t size_invar8(const BlockCounts &c, int C, int R, int g) { return size_invar_m(c, C, R, g, 9, false); }
int64_t size_invar9(const BlockCounts &c, int C, int R, int g) { return size_invar_m(c, C, R, g, 9, true); }
int64_t size_preload(const BlockCounts &c, int, int R, int) {
  if (negative(c)) return -1;
  return clamp(8 + Wide(c.n[0]) * R);
}
int64_t size_loads(const BlockCounts &c, int C, int R, int) {
  if (negative(c)) return -1;
  return clamp(8 + Wide(c.n[1]) * (4 + 256 * C + Wide(c.n[0]) * R));
}
int64_t size_statistics(const BlockCounts &c, int, int R, int) {
  if (negative(c)) return -1;
  return clamp(4 + 13 * Wide(c.n[0]) * (4 + R));
}
int64_t size_pre(const BlockCounts &c, int, int R, int) {
  if (negative(c)) return -1;
  return clamp(4 + 6 * Wide(c.n[0]) * R);
}

const BlockInfo kBlocks[kBlockCount] = {
    {1, "version_code", -1, 0, size_version, nullptr},
    {2, "header", -1, 0, size_header, nullptr},
    {3, "content_summary", -1, 0, size_content, nullptr},
    {4, "nodal_coords", kFlagNodalCoords, 2, size_per_node, "Problem in nodal coords block"},
    {5, "element_topology", kFlagElementTopology, 2, size_topology,
     "Problem in old style element topology block"},
    {6, "global_body_props", kFlagGlobalBodyProps, 0, size_global, nullptr},
    {7, "eigenvalues", kFlagEigenvalues, 1, size_eigen, "Problem in eigenvalues block"},
    {8, "mode_shapes", kFlagModeShapes, 2, size_modes, "Problem in mode shapes block"},
    {9, "nodal_masses", kFlagNodalMasses, 2, size_per_node, "Problem in nodal mass block"},
    {10, "nodal_inertias", kFlagNodalInertias, 1, size_inertia, "Problem in nodal inertia block"},
    {11, "units", kFlagUnits, 0, size_units, nullptr},
    {12, "generalized_stiff", kFlagGeneralizedStiffness, 2, size_matrix,
     "Problem in generalized stiffness block"},
    {13, "generalized_mass", kFlagGeneralizedMass, 2, size_matrix,
     "Problem in generalized mass block"},
    {14, "element_faces", kFlagElementFaces, 1, size_faces, "Problem in element face block"},
    {15, "generalized_damping", kFlagGeneralizedDamping, 2, size_matrix,
     "Problem in generalized damping block"},
    {16, "mode_shape_transformation", kFlagModeTransformation, 1, size_transformation,
     "Problem in mode shape transformation block"},
    {17, "interface_nodes", kFlagInterfaceNodes, 1, size_interface,
     "Problem in interface node block"},
    {18, "modal_stress", kFlagModalStress, 2, size_modes, nullptr},
    {19, "invariant 1", kFlagInvariant1, 0, size_invar1, nullptr},
    {20, "invariant 2", kFlagInvariant1 + 1, 0, size_invar2, nullptr},
    {21, "invariant 3", kFlagInvariant1 + 2, 1, size_invar34, nullptr},
    {22, "invariant 4", kFlagInvariant1 + 3, 1, size_invar34, nullptr},
    {23, "invariant 5", kFlagInvariant1 + 4, 1, size_invar5, nullptr},
    {24, "invariant 7", kFlagInvariant7, 0, size_invar7, nullptr},
    {25, "invariant 8", kFlagInvariant8, 1, size_invar8, nullptr},
    {26, "invariant 9", kFlagInvariant9, 1, size_invar9, nullptr},
    {27, "preload", kFlagPreload, 1, size_preload, nullptr},
    {28, "modal_loads", kFlagModalLoads, 2, size_loads, nullptr},
    {29, "modal_strain", kFlagModalStrain, 2, size_modes, nullptr},
    {30, "modal_statistics", kFlagModalStatistics, 1, size_statistics, nullptr},
    {31, "pre_stress", kFlagPreStress, 1, size_pre, nullptr},
    {32, "pre_strain", kFlagPreStrain, 1, size_pre, nullptr},
};

// The two directions of one layout. The writer's side never changes the block it is given.
template <bool Write>
struct Coder {
  BlockIo &b;
  int ints(int32_t *p, std::size_t n) { return Write ? put_ints(b.io, p, n) : get_ints(b.io, p, n); }
  int reals(double *p, std::size_t n) {
    return Write ? put_reals(b.io, b.scratch, p, n) : get_reals(b.io, b.scratch, p, n);
  }
  int chars(char *p, std::size_t n) { return Write ? put_chars(b.io, p, n) : get_chars(b.io, p, n); }
  // True when bytes more can still follow in the file (always when writing).
  bool room(Wide bytes) {
    if (Write || b.limit < 0) return bytes >= 0;
    int64_t at = tell_stream(b.io);
    return at >= 0 && bytes >= 0 && bytes <= Wide(b.limit - at);
  }
  // A count of records that may take no bytes at all (modes over zero nodes in generation 10):
  // every valid file spends at least a byte per mode elsewhere, so none exceeds the file's size.
  bool bounded(int32_t n) const { return n >= 0 && (Write || b.limit < 0 || n <= b.limit); }
  // A count in front of items of item_bytes each: checked against the rest of the file.
  int count(int32_t &c, Wide item_bytes) {
    if (!ints(&c, 1)) return 0;
    return c >= 0 && room(Wide(c) * item_bytes);
  }
  template <typename V>
  int fit(V &v, std::size_t n) {
    if (Write) return v.size() >= n;
    try {
      v.resize(n);
    } catch (const std::bad_alloc &) {
      b.out_of_memory = true;
      return 0;
    }
    return 1;
  }
  int C() const { return char_width(b.io); }
  int R() const { return real_width(b.io); }
};

template <typename T>
T &writable(const T &v) { return const_cast<T &>(v); }

template <bool W>
int code_header(Coder<W> &c, HeaderBlock &h) {
  return c.chars(h.title.data(), 128) && c.chars(h.date.data(), 32) &&
         c.chars(h.input_name.data(), 128) && c.chars(h.input_type.data(), 16) &&
         c.chars(h.comments[0].data(), 80) && c.chars(h.comments[1].data(), 80) &&
         c.chars(h.comments[2].data(), 80);
}

// Blocks 4 and 9: int N; int D; N records of an id and D reals. A coordinate block always
// keeps three reals a node whatever D says. Without check_records a failed id or value does not
// stop the loop nor fail the block.
template <bool W>
int code_per_node(Coder<W> &c, int32_t &dims, std::vector<int32_t> &ids,
                  std::vector<double> &values, int fixed_dims, bool check_records = true) {
  int32_t n = int32_t(ids.size());
  if (!c.ints(&n, 1) || n < 0 || !c.ints(&dims, 1)) return 0;
  int32_t per = fixed_dims ? fixed_dims : dims;
  if (per < 0 || !c.room(Wide(n) * (4 + Wide(per) * c.R()))) return 0;
  if (!c.fit(ids, n) || !c.fit(values, std::size_t(n) * per)) return 0;
  for (int32_t i = 0; i < n; ++i) {
    if (!c.ints(&ids[i], 1) && check_records) return 0;
    if (!c.reals(values.data() + std::size_t(i) * per, per) && check_records) return 0;  // per may be 0
  }
  return 1;
}

template <bool W>
int code_topology(Coder<W> &c, ElementTopologyBlock &t) {
  int32_t g = int32_t(t.groups.size());
  if (!c.ints(&t.face_count, 1) || !c.count(g, 12) || !c.fit(t.groups, g)) return 0;
  Wide words = 0;
  for (auto &group : t.groups) {
    if (!c.ints(group.data(), 3)) return 0;
    if (group[1] < 0 || group[2] < 0) return 0;
    words += Wide(group[1]) * (Wide(group[2]) + 2);
  }
  if (!c.room(4 * words) || !c.fit(t.words, std::size_t(words))) return 0;
  return c.ints(t.words.data(), std::size_t(words));
}

template <bool W>
int code_eigen(Coder<W> &c, std::vector<EigenRecord> &records) {
  int32_t m = int32_t(records.size());
  if (!c.count(m, 4 + 5 * c.R()) || !c.fit(records, m)) return 0;
  for (auto &r : records) {
    double values[5] = {r.eigenvalue, r.hertz, r.radians, r.generalized_mass,
                        r.generalized_stiffness};
    if (!c.ints(&r.number, 1) || !c.reals(values, 5)) return 0;
    if (!W) {
      r.eigenvalue = values[0];
      r.hertz = values[1];
      r.radians = values[2];
      r.generalized_mass = values[3];
      r.generalized_stiffness = values[4];
    }
  }
  return 1;
}

template <bool W>
int code_mode_head(Coder<W> &c, ModeBlockHead &h) {
  int32_t n = int32_t(h.ids.size());
  if (!c.ints(&h.modes, 1) || !c.bounded(h.modes) || !c.count(n, 4)) return 0;
  Wide record = (c.b.generation == 10 ? 0 : 4) + 6 * Wide(n) * c.R();
  if (!c.room(Wide(n) * 4 + Wide(h.modes) * record) || !c.fit(h.ids, n)) return 0;
  return c.ints(h.ids.data(), n);
}

template <bool W>
int code_inertia(Coder<W> &c, std::vector<InertiaEntry> &entries) {
  int32_t k = int32_t(entries.size());
  if (!c.count(k, 4 + 2 * c.C() + c.R()) || !c.fit(entries, k)) return 0;
  for (auto &e : entries)
    if (!c.ints(&e.id, 1) || !c.chars(&e.row, 1) || !c.chars(&e.column, 1) ||
        !c.reals(&e.value, 1))
      return 0;
  return 1;
}

template <bool W>
int code_units(Coder<W> &c, std::array<std::array<char, 16>, 4> &units) {
  for (auto &u : units)
    if (!c.chars(u.data(), 16)) return 0;
  return 1;
}

template <bool W>
int code_matrix(Coder<W> &c, MatrixBlock &m) {
  int32_t k = int32_t(m.entries.size());
  if (!c.ints(&k, 1) || k < 0 || !c.ints(&m.order, 1)) return 0;
  if (!c.room(Wide(k) * (12 + c.R())) || !c.fit(m.entries, k)) return 0;
  for (auto &e : m.entries)
    if (!c.ints(&e.row, 1) || !c.ints(&e.column, 1) || !c.reals(&e.value, 1) ||
        !c.ints(&e.one, 1))
      return 0;
  return 1;
}

// Block 14 states its own size S = 4 W + 16 in front.
template <bool W>
int code_faces(Coder<W> &c, ElementFacesBlock &f) {
  int32_t w = int32_t(f.words.size());
  int32_t size = int32_t(4 * Wide(w) + 16);
  int32_t zero = 0;
  if (!c.ints(&size, 1) || !c.ints(&zero, 1) || !c.ints(&f.face_count, 1) || !c.count(w, 4))
    return 0;
  if (size != int32_t(4 * Wide(w) + 16) || !c.fit(f.words, w)) return 0;
  return c.ints(f.words.data(), w);
}

template <bool W>
int code_transformation(Coder<W> &c, TransformationBlock &t) {
  int32_t m = int32_t(t.modes.size());
  if (!c.count(m, 4) || !c.room(Wide(m) * (4 + Wide(m) * c.R()))) return 0;
  std::size_t cells = std::size_t(m) * std::size_t(m);
  if (!c.fit(t.modes, m) || !c.fit(t.matrix, cells)) return 0;
  return c.ints(t.modes.data(), m) && c.reals(t.matrix.data(), cells);
}

template <bool W>
int code_interface(Coder<W> &c, std::vector<int32_t> &ids) {
  int32_t k = int32_t(ids.size());
  if (!c.count(k, 4) || !c.fit(ids, k)) return 0;
  return c.ints(ids.data(), k);
}

bool invariant_has_count(int number) { return number == 21 || number == 22 || number == 23 || number == 25 || number == 26; }

template <bool W>
int code_invariant(Coder<W> &c, int number, int32_t model_modes, InvariantBlock &v) {
  int32_t m = model_modes;
  if (invariant_has_count(number)) {
    if (!c.ints(&v.modes, 1)) return 0;
    // A reader goes on with the model's own mode count whatever the block says.
    if (W) m = v.modes;
  }
  int64_t n = invariant_value_count(number, m);
  if (n < 0 || !c.room(Wide(n) * c.R()) || !c.fit(v.values, std::size_t(n))) return 0;
  return c.reals(v.values.data(), std::size_t(n));
}

template <bool W>
int code_preload(Coder<W> &c, PreloadBlock &p) {
  int32_t m = int32_t(p.values.size());
  if (!c.ints(&m, 1) || m < 0 || !c.ints(&p.extra, 1)) return 0;
  if (!c.room(Wide(m) * c.R()) || !c.fit(p.values, m)) return 0;
  return c.reals(p.values.data(), m);
}

template <bool W>
int code_loads(Coder<W> &c, ModalLoadsBlock &l) {
  int32_t cases = int32_t(l.cases.size());
  if (!c.ints(&l.modes, 1) || l.modes < 0 || !c.bounded(l.modes)) return 0;
  if (!c.count(cases, 4 + 256 * c.C() + Wide(l.modes) * c.R()) || !c.fit(l.cases, cases)) return 0;
  for (auto &r : l.cases) {
    if (!c.chars(r.name.data(), 256) || !c.ints(&r.projected, 1)) return 0;
    if (!c.fit(r.values, l.modes) || !c.reals(r.values.data(), l.modes)) return 0;
  }
  return 1;
}

template <bool W>
int code_statistics(Coder<W> &c, std::vector<ModalStatistics> &records) {
  int32_t m = int32_t(records.size());
  if (!c.count(m, 13 * (4 + c.R())) || !c.fit(records, m)) return 0;
  for (auto &r : records)
    if (!c.ints(r.ints.data(), 13) || !c.reals(r.reals.data(), 13)) return 0;
  return 1;
}

template <bool W>
int code_pre(Coder<W> &c, std::vector<double> &values) {
  int32_t n = int32_t(values.size() / 6);
  if (!c.count(n, 6 * c.R()) || !c.fit(values, std::size_t(n) * 6)) return 0;
  return c.reals(values.data(), std::size_t(n) * 6);
}

}  // namespace

const BlockInfo *block_info(int number) {
  if (number < 1 || number > kBlockCount) return nullptr;
  return &kBlocks[number - 1];
}

int block_of_flag(int flag) {
  for (const BlockInfo &info : kBlocks)
    if (info.flag == flag) return info.number;
  return 0;
}

BlockIo model_block_io(KRXDATA &model) {
  return BlockIo{model.own, model.scratch, version_generation(model.version), -1, false};
}

int read_block_counts(BlockIo &b, int number, BlockCounts &counts) {
  const BlockInfo *info = block_info(number);
  if (!info) return 0;
  counts = BlockCounts{};
  int32_t lead[2] = {0, 0};
  if (info->leading > 0 && !get_ints(b.io, lead, std::size_t(info->leading))) return 0;
  counts.n[0] = lead[0];
  counts.n[1] = lead[1];
  if (number != 5) return 1;
  // The old element block is sized by its group headers: faces x (vertices + 2) words each.
  if (lead[1] < 0) return 0;
  Wide words = 0;
  for (int32_t g = 0; g < lead[1]; ++g) {
    int32_t header[3];
    if (!get_ints(b.io, header, 3) || header[1] < 0 || header[2] < 0) return 0;
    words += Wide(header[1]) * (Wide(header[2]) + 2);
    if (words > Wide(std::numeric_limits<int64_t>::max() / 8)) return 0;
  }
  counts.n[2] = int64_t(words);
  return 1;
}

// ---- codec entry points ----
int write_version_block(BlockIo &b, int32_t code) { return put_int(b.io, code); }
int read_version_block(BlockIo &b, int32_t &code) { return get_int(b.io, code); }

int write_header_block(BlockIo &b, const HeaderBlock &h) {
  Coder<true> c{b};
  return code_header(c, writable(h));
}
int read_header_block(BlockIo &b, HeaderBlock &h) {
  Coder<false> c{b};
  return code_header(c, h);
}

template <std::size_t N>
void trim_field(std::array<char, N> &field) {
  field[N - 1] = '\0';
  for (std::size_t i = N; i-- > 0;) {
    if (field[i] != ' ' && field[i] != '\0') break;
    field[i] = '\0';
  }
}

void trim_header_fields(HeaderBlock &h) {
  trim_field(h.title);
  trim_field(h.date);
  trim_field(h.input_name);
  trim_field(h.input_type);
  for (auto &c : h.comments) trim_field(c);
}

int write_content_block(BlockIo &b, const std::array<uint8_t, kFlagCount> &flags) {
  return put_chars(b.io, reinterpret_cast<const char *>(flags.data()), kFlagCount);
}
int read_content_block(BlockIo &b, std::array<uint8_t, kFlagCount> &flags) {
  return get_chars(b.io, reinterpret_cast<char *>(flags.data()), kFlagCount);
}

int write_nodal_coords_block(BlockIo &b, const NodalCoordsBlock &block) {
  Coder<true> c{b};
  auto &w = writable(block);
  return code_per_node(c, w.dims, w.ids, w.xyz, 3);
}
int read_nodal_coords_block(BlockIo &b, NodalCoordsBlock &block) {
  Coder<false> c{b};
  return code_per_node(c, block.dims, block.ids, block.xyz, 3);
}

int write_element_topology_block(BlockIo &b, const ElementTopologyBlock &block) {
  Coder<true> c{b};
  return code_topology(c, writable(block));
}
int read_element_topology_block(BlockIo &b, ElementTopologyBlock &block) {
  Coder<false> c{b};
  return code_topology(c, block);
}

int write_global_body_block(BlockIo &b, const std::array<double, 13> &values) {
  return put_reals(b.io, b.scratch, values.data(), 13);
}
int read_global_body_block(BlockIo &b, std::array<double, 13> &values) {
  return get_reals(b.io, b.scratch, values.data(), 13);
}

int write_eigenvalues_block(BlockIo &b, const std::vector<EigenRecord> &records) {
  Coder<true> c{b};
  return code_eigen(c, writable(records));
}
int read_eigenvalues_block(BlockIo &b, std::vector<EigenRecord> &records) {
  Coder<false> c{b};
  return code_eigen(c, records);
}

int write_mode_block_head(BlockIo &b, const ModeBlockHead &head) {
  Coder<true> c{b};
  return code_mode_head(c, writable(head));
}
int read_mode_block_head(BlockIo &b, ModeBlockHead &head) {
  Coder<false> c{b};
  return code_mode_head(c, head);
}

int write_mode_record(BlockIo &b, int32_t number, const double *values, std::size_t nodes) {
  if (b.generation != 10 && !put_int(b.io, number)) return 0;
  return put_reals(b.io, b.scratch, values, nodes * 6);
}
int read_mode_record_number(BlockIo &b, int32_t fallback, int32_t &number) {
  number = fallback;
  return b.generation == 10 ? 1 : get_int(b.io, number);
}

int write_nodal_masses_block(BlockIo &b, const NodalMassesBlock &block) {
  Coder<true> c{b};
  auto &w = writable(block);
  // Deliberate: only the two leading ints can fail this block; each node's id and mass are
  // written unchecked and the loop goes on.
  return code_per_node(c, w.dims, w.ids, w.values, 0, false);
}
int read_nodal_masses_block(BlockIo &b, NodalMassesBlock &block) {
  Coder<false> c{b};
  return code_per_node(c, block.dims, block.ids, block.values, 0);
}

int write_nodal_inertia_block(BlockIo &b, const std::vector<InertiaEntry> &entries) {
  Coder<true> c{b};
  return code_inertia(c, writable(entries));
}
int read_nodal_inertia_block(BlockIo &b, std::vector<InertiaEntry> &entries) {
  Coder<false> c{b};
  return code_inertia(c, entries);
}

int write_units_block(BlockIo &b, const std::array<std::array<char, 16>, 4> &units) {
  Coder<true> c{b};
  return code_units(c, writable(units));
}
int read_units_block(BlockIo &b, std::array<std::array<char, 16>, 4> &units) {
  Coder<false> c{b};
  return code_units(c, units);
}

int write_matrix_block(BlockIo &b, const MatrixBlock &block) {
  Coder<true> c{b};
  return code_matrix(c, writable(block));
}
int read_matrix_block(BlockIo &b, MatrixBlock &block) {
  Coder<false> c{b};
  return code_matrix(c, block);
}

int write_element_faces_block(BlockIo &b, const ElementFacesBlock &block) {
  Coder<true> c{b};
  return code_faces(c, writable(block));
}
int read_element_faces_block(BlockIo &b, ElementFacesBlock &block) {
  Coder<false> c{b};
  return code_faces(c, block);
}

int write_transformation_block(BlockIo &b, const TransformationBlock &block) {
  Coder<true> c{b};
  return code_transformation(c, writable(block));
}
int read_transformation_block(BlockIo &b, TransformationBlock &block) {
  Coder<false> c{b};
  return code_transformation(c, block);
}

int write_interface_block(BlockIo &b, const std::vector<int32_t> &ids) {
  Coder<true> c{b};
  return code_interface(c, writable(ids));
}
int read_interface_block(BlockIo &b, std::vector<int32_t> &ids) {
  Coder<false> c{b};
  return code_interface(c, ids);
}

int64_t invariant_value_count(int number, int64_t modes) {
  if (modes < 0) return -1;
  switch (number) {
    case 19: return 1;
    case 20: return 3;
    case 21:
    case 22: return 3 * modes;
    case 23: return 3 * modes * modes;
    case 24: return 9;
    case 25: return 9 * modes;
    case 26: return 9 * modes * modes;
    default: return -1;
  }
}

int write_invariant_block(BlockIo &b, int number, const InvariantBlock &block) {
  Coder<true> c{b};
  return code_invariant(c, number, block.modes, writable(block));
}
int read_invariant_block(BlockIo &b, int number, int32_t modes, InvariantBlock &block) {
  Coder<false> c{b};
  return code_invariant(c, number, modes, block);
}

int write_preload_block(BlockIo &b, const PreloadBlock &block) {
  Coder<true> c{b};
  return code_preload(c, writable(block));
}
int read_preload_block(BlockIo &b, PreloadBlock &block) {
  Coder<false> c{b};
  return code_preload(c, block);
}

int write_modal_loads_block(BlockIo &b, const ModalLoadsBlock &block) {
  Coder<true> c{b};
  return code_loads(c, writable(block));
}
int read_modal_loads_block(BlockIo &b, ModalLoadsBlock &block) {
  Coder<false> c{b};
  return code_loads(c, block);
}

int write_statistics_block(BlockIo &b, const std::vector<ModalStatistics> &records) {
  Coder<true> c{b};
  return code_statistics(c, writable(records));
}
int read_statistics_block(BlockIo &b, std::vector<ModalStatistics> &records) {
  Coder<false> c{b};
  return code_statistics(c, records);
}

int write_pre_block(BlockIo &b, const std::vector<double> &values) {
  if (values.size() % 6 != 0) return 0;
  Coder<true> c{b};
  return code_pre(c, writable(values));
}
int read_pre_block(BlockIo &b, std::vector<double> &values) {
  Coder<false> c{b};
  return code_pre(c, values);
}

// ---- builders ----
void make_header_block(const KRXDATA &model, HeaderBlock &h) {
  h.title = model.title;
  h.date = model.date;
  h.input_name = model.input_name;
  h.input_type = model.input_type;
  h.comments = model.comments;
  h.date.back() = '\0';
  std::size_t len = strnlen(h.date.data(), h.date.size());
  if (len > 0 && h.date[len - 1] == '\n') h.date[len - 1] = '\0';
}

int make_element_faces_block(const KRXDATA &model, ElementFacesBlock &block) {
  block.face_count = model.face_count;
  block.words = model.faces;
  const int32_t nodes = int32_t(model.nodes.size());
  for (std::size_t i = 0; i < block.words.size();) {
    int32_t n = block.words[i++];
    if (n < 0 || n > int32_t(block.words.size() - i)) return 0;
    for (int32_t v = 0; v < n; ++v, ++i)
      if (block.words[i] < 0 || block.words[i] >= nodes) return 0;
  }
  return 1;
}

int make_element_topology_block(const KRXDATA &model, ElementTopologyBlock &block) {
  block = ElementTopologyBlock{};
  block.groups.resize(12);
  for (int g = 0; g < 12; ++g) block.groups[g] = {g, 0, g + 2};
  const int32_t nodes = int32_t(model.nodes.size());
  // Faces are grouped by vertex count, 2 to 13; each keeps its order within its group.
  std::vector<std::vector<int32_t>> grouped(12);
  for (std::size_t i = 0; i < model.faces.size();) {
    int32_t n = model.faces[i++];
    if (n < 0 || n > int32_t(model.faces.size() - i)) return 0;
    if (n >= 2 && n <= 13) {
      auto &words = grouped[n - 2];
      words.push_back(0);
      words.push_back(0);
      for (int32_t v = 0; v < n; ++v) {
        int32_t at = model.faces[i + v];
        if (at < 0 || at >= nodes) return 0;
        words.push_back(model.nodes[at].id);
      }
      block.groups[n - 2][1]++;
      block.face_count++;
    }
    i += std::size_t(n);
  }
  for (auto &words : grouped) block.words.insert(block.words.end(), words.begin(), words.end());
  return 1;
}

void make_nodal_inertia_entries(const KRXDATA &model, std::vector<InertiaEntry> &entries) {
  static const char rows[6] = {4, 5, 6, 4, 4, 5};
  static const char columns[6] = {4, 5, 6, 5, 6, 6};
  entries.clear();
  for (const NodeRecord &node : model.nodes) {
    if (!node.inertia) continue;
    for (int t = 0; t < 6; ++t)
      if ((*node.inertia)[t] != 0.0)
        entries.push_back({node.id, rows[t], columns[t], (*node.inertia)[t]});
  }
}

void make_matrix_block(const std::vector<MatrixEntry> &list, int32_t order, MatrixBlock &block) {
  block.order = order;
  block.entries.clear();
  for (const MatrixEntry &e : list)
    if (e.value != 0.0) block.entries.push_back({e.row + 1, e.column + 1, e.value, 1});
}

}  // namespace krx
