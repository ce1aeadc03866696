// A small KRX file built through the stream layer and the block codecs, the way the writer lays
// one out, for the reader and listing tests. Values are exact in single precision.
#pragma once

#include <string>
#include <vector>

#include "format/krxformat.h"
#include "format/krxstream.h"

namespace krxtest {

struct Sample {
  int32_t version = 316;
  bool eigenvalues = true;
  std::vector<int32_t> ids{10, 20, 30};
  std::vector<int32_t> stress_ids{30, 10};
  std::vector<int32_t> mode_numbers{1, 2};
  int mass_dims = 1;
  int eigen_records = -1;  // -1: one per mode
};

// The mode-shape value of (mode r, node i, component c); stresses and strains add 100 and 200.
inline double shape_value(int r, int i, int c) { return 0.5 * (r + 1) + 0.25 * i + 0.125 * c; }

inline bool write_sample(const std::string &path, const Sample &s) {
  using namespace krx;
  FileSlot io;
  if (!open_write_stream(io, path.c_str(), version_is_xdr(s.version), "..\\test")) return false;
  io.precision = version_is_single(s.version) ? 0 : 1;
  std::vector<float> scratch(512);
  const int gen = version_generation(s.version);
  BlockIo b{io, scratch, gen};
  const int32_t M = int32_t(s.mode_numbers.size());
  const bool old = gen == 10 || gen == 20;
  std::array<uint8_t, kFlagCount> flags{};
  for (int block = 4; block <= 32; ++block) flags[block_info(block)->flag] = 1;
  flags[block_info(old ? 14 : 5)->flag] = 0;
  if (!s.eigenvalues) flags[block_info(7)->flag] = 0;
  if (old)
    for (int block = 19; block <= 32; ++block) flags[block_info(block)->flag] = 0;

  HeaderBlock h;
  std::snprintf(h.title.data(), h.title.size(), "%s", "Bracket   ");
  // A field padded with blanks to its full width.
  std::fill(h.comments[2].begin(), h.comments[2].end(), ' ');
  h.comments[2][0] = 'x';
  bool ok = write_version_block(b, s.version) && write_header_block(b, h) && write_content_block(b, flags);

  const std::size_t N = s.ids.size();
  NodalCoordsBlock coords;
  coords.ids = s.ids;
  for (std::size_t i = 0; i < N; ++i)
    for (int c = 0; c < 3; ++c) coords.xyz.push_back(double(i) + 0.5 * c);
  ok = ok && write_nodal_coords_block(b, coords);
  if (old) {
    ElementTopologyBlock t;
    for (int g = 0; g < 12; ++g) t.groups.push_back({g, g == 1 ? 1 : 0, g + 2});
    t.face_count = 1;
    t.words = {0, 0, s.ids[2], s.ids[0], s.ids[1]};
    ok = ok && write_element_topology_block(b, t);
  }
  ok = ok && write_global_body_block(b, {2.0, 0.5, 0.25, 0.125, 1, 0, 0, 0, 2, 0, 0, 0, 3});
  if (s.eigenvalues) {
    std::vector<EigenRecord> eigen;
    for (int32_t r = 0; r < (s.eigen_records < 0 ? M : s.eigen_records); ++r) eigen.push_back({s.mode_numbers[r], 4.0 * (r + 1), 0.5 * (r + 1), 3.0, 1.0, 4.0});
    ok = ok && write_eigenvalues_block(b, eigen);
  }
  auto write_modes = [&](const std::vector<int32_t> &ids, double offset) {
    bool good = write_mode_block_head(b, ModeBlockHead{M, ids});
    for (int32_t r = 0; r < M && good; ++r) {
      std::vector<double> v;
      for (std::size_t i = 0; i < ids.size(); ++i)
        for (int c = 0; c < 6; ++c) v.push_back(offset + shape_value(r, int(i), c));
      good = write_mode_record(b, s.mode_numbers[r], v.data(), ids.size());
    }
    return good;
  };
  ok = ok && write_modes(s.ids, 0.0);
  NodalMassesBlock masses;
  masses.dims = s.mass_dims;
  masses.ids = s.ids;
  for (std::size_t i = 0; i < N; ++i)
    for (int d = 0; d < s.mass_dims; ++d) masses.values.push_back(1.0 + double(i) + d);
  ok = ok && write_nodal_masses_block(b, masses);
  ok = ok && write_nodal_inertia_block(b, {{s.ids[0], 4, 4, 1.5}, {s.ids[0], 5, 4, 0.25}, {s.ids[1], 6, 6, 2.5}});
  std::array<std::array<char, 16>, 4> units{};
  const char *names[4] = {"KILOGRAM", "METER", "SECOND", "NEWTON"};
  for (int u = 0; u < 4; ++u) std::snprintf(units[u].data(), 16, "%s", names[u]);
  ok = ok && write_units_block(b, units);
  MatrixBlock k{M, {{1, 1, 4.0, 1}, {2, 2, 16.0, 1}}};
  MatrixBlock m{M, {{1, 1, 1.0, 1}, {2, 2, 1.0, 1}}};
  ok = ok && write_matrix_block(b, k) && write_matrix_block(b, m);
  // Block 14 names the same face by positions in block 4, the old element block by identifiers.
  if (!old) ok = ok && write_element_faces_block(b, ElementFacesBlock{1, {3, 2, 0, 1}});
  ok = ok && write_matrix_block(b, MatrixBlock{M, {{1, 2, 0.5, 1}}});
  TransformationBlock t;
  t.modes = s.mode_numbers;
  for (int32_t r = 0; r < M * M; ++r) t.matrix.push_back(r % (M + 1) == 0 ? 1.0 : 0.0);
  ok = ok && write_transformation_block(b, t) && write_interface_block(b, {s.ids.back()});
  ok = ok && write_modes(s.stress_ids, 100.0);
  if (!old) {
    for (int block = 19; block <= 26; ++block) {
      InvariantBlock v;
      v.modes = M;
      for (int64_t i = 0; i < invariant_value_count(block, M); ++i) v.values.push_back(block + 0.5 * double(i));
      ok = ok && write_invariant_block(b, block, v);
    }
    std::vector<double> preload(M, 0.75);
    ok = ok && write_preload_block(b, PreloadBlock{7, preload});
    ModalLoadsBlock loads;
    loads.modes = M;
    LoadCaseRecord lc;
    std::snprintf(lc.name.data(), 256, "gravity");
    lc.projected = 1;
    lc.values.assign(M, 2.5);
    loads.cases.push_back(lc);
    ok = ok && write_modal_loads_block(b, loads);
    ok = ok && write_modes(s.stress_ids, 200.0);
    std::vector<ModalStatistics> stats(M);
    for (auto &st : stats) st.ints[0] = s.ids[0], st.reals[0] = 1.5;
    ok = ok && write_statistics_block(b, stats);
    std::vector<double> pre(6 * s.stress_ids.size(), 0.5);
    ok = ok && write_pre_block(b, pre) && write_pre_block(b, pre);
  }
  return close_stream(io) && ok;
}

}  // namespace krxtest
