// Files the writer makes are read back by the reader with the same values and are exactly as long
// as their blocks add up to: the frequency band, the invariant sets, the rigid-body file, units.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "format/krxformat.h"
#include "format/krxread.h"
#include "format/krxstream.h"
#include "format/krxtoc.h"
#include "host/krx_fortran.h"
#include "host/krxset.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"
#include "testsupport.h"

namespace {

using krx::KRXDATA;
using krxtest::face_ids;

constexpr double kPi2 = 6.28318530718;
// Six elastic modes, generalized mass 2 each: the write normalises them by sqrt(2).
constexpr int kModes = 6;
const double kHertz[kModes] = {1.0, 3.0, 7.0, 15.0, 40.0, 90.0};
constexpr int kColumns = 4, kRows = 3;  // grid nodes 0..11 on faces
constexpr int kNodes = kColumns * kRows + 2;  // two more nodes on no face

int node_id(int n) { return 100 + 7 * n; }
double shape_value(int mode, int n, int c) { return std::sin(0.3 * (mode + 1) * (n + 1) + c) + 0.1 * c; }
double stress_value(int mode, int n, int c) { return 10.0 * (mode + 1) + n + 0.5 * c; }
bool has_stress(int n) { return n % 3 == 0; }  // nodes 0, 3, 6, 9, 12
bool has_strain(int n) { return n % 4 == 1; }  // nodes 1, 5, 9, 13

// A plate of quads with two loose nodes, built through the exported entries as a host does.
void build_plate() {
  int status = 0, nodes = kNodes, modes = kModes;
  KRX_CREATE(&nodes, &modes, &status);
  ASSERT_EQ(status, 0);
  KRX_SET_HEADER("Round trip plate", "plate.dat", "SYNTH", "first", "second", "", &status, 16, 9, 5, 5, 6, 0);
  for (int n = 0; n < kNodes; ++n) {
    int id = node_id(n);
    double xyz[3] = {double(n % kColumns), double(n / kColumns), 0.25 * n}, mass = 1.0 + 0.1 * n;
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
    KRX_SET_NODAL_MASS(&id, &mass, &status);
    if (n % 2 == 0) {
      double a = 0.01 * (n + 1), b = 0.02, c = 0.03, d = 0.001, z = 0.0;
      KRX_SET_NODAL_INERTIA(&id, &a, &b, &c, &d, &z, &z, &status);
    }
    for (int m = 0; m < kModes; ++m) {
      int number = m + 1;
      double v[6], s[6], e[6];
      for (int c = 0; c < 6; ++c) v[c] = shape_value(m, n, c), s[c] = stress_value(m, n, c), e[c] = 1e-3 * s[c];
      KRX_SET_MODE_SHAPE_VEC(&number, &id, v, &status);
      if (has_stress(n)) KRX_SET_MODAL_STRESS_VEC(&number, &id, s, &status);
      if (has_strain(n)) KRX_SET_MODAL_STRAIN_VEC(&number, &id, e, &status);
    }
  }
  for (int m = 0; m < kModes; ++m) {
    int number = m + 1;
    double g = 2.0, k = g * std::pow(kPi2 * kHertz[m], 2);
    KRX_SET_GENERALIZED_MASS(&number, &number, &g, &status);
    KRX_SET_GENERALIZED_STIFFNESS(&number, &number, &k, &status);
  }
  for (int r = 0; r + 1 < kRows; ++r)
    for (int c = 0; c + 1 < kColumns; ++c) {
      int four = 4, n0 = r * kColumns + c;
      int ids[4] = {node_id(n0), node_id(n0 + 1), node_id(n0 + 1 + kColumns), node_id(n0 + kColumns)};
      KRX_SET_FACE(&four, ids, &status);
    }
  int corner = node_id(0);
  KRX_SET_INTERFACE_NODE(&corner, &status);
  KRXDATA *model = krx::current_model();
  const double pre[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(krx::set_pre_values(model, node_id(3), krx::kModalStress, pre), 1);
  for (int m = 0; m < kModes; ++m) {
    ASSERT_EQ(krx::set_modal_preload(model, m + 1, 0.5 * (m + 1)), 1);
    ASSERT_EQ(krx::set_modal_load(model, 0, m + 1, -1.0 * (m + 1)), 1);
  }
  ASSERT_EQ(krx::set_modal_load_label(model, 0, "gravity"), 1);
}

// The file is exactly as long as its blocks: blocks 1 to 3 and every block its own content
// summary flags, each sized by the catalogue's rule from its leading counts.
void expect_size_is_sum_of_blocks(const std::string &path, int32_t code) {
  krx::FileSlot io;
  std::vector<float> scratch;
  ASSERT_TRUE(krx::open_read_stream(io, path.c_str()));
  io.precision = krx::version_is_single(code) ? 0 : 1;
  if (krx::version_is_xdr(code)) krx::bind_xdr_stream(io, XDR_DECODE, "test");
  const int C = krx::char_width(io), R = krx::real_width(io), generation = code & 0xff;
  std::array<uint8_t, krx::kFlagCount> flags{};
  krx::BlockIo b{io, scratch, generation, -1, false};
  long long at = 4 + 644LL * C;
  if (!krx::seek_stream(io, 4 + 544LL * C) || !krx::read_content_block(b, flags)) at = -1;
  for (int number = 4; number <= krx::kBlockCount && at >= 0; ++number) {
    const krx::BlockInfo *info = krx::block_info(number);
    if (!flags[std::size_t(info->flag)]) continue;
    krx::BlockCounts counts;
    if (!krx::seek_stream(io, at) || !krx::read_block_counts(b, number, counts)) at = -1;
    else at += info->size(counts, C, R, generation);
  }
  krx::close_stream(io);
  EXPECT_EQ(at, (long long)std::filesystem::file_size(path));
}

std::vector<double> writer_record(KRXDATA *model, int kind, int32_t index) {
  EXPECT_EQ(krx::load_mode_record_by_index(model, index, kind), 1);
  return model->store[kind].record;
}

// Writes the plate with the option text and reads the file back; the writer's model stays current.
struct RoundTrip {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("plate.krx");
  KRXDATA *model = nullptr;
  ~RoundTrip() { krxtest::terminate_model(); }
  KRXDATA *write_and_read(const char *options, void (*before_write)() = nullptr) {
    krxtest::OptionsGuard guard(options);
    build_plate();
    if (before_write) before_write();
    model = krx::current_model();
    if (krxtest::write_krx(path) != 0) return nullptr;
    KRXDATA *read = krx::find_or_read_model(path.c_str());
    if (read) expect_size_is_sum_of_blocks(path, read->version);
    return read;
  }
};

TEST(WriteBand, ExportsTheModesInsideTheBandNumberedFromOne) {
  RoundTrip t;
  KRXDATA *read = t.write_and_read("highpass(2.0) lowpass(15)"), *model = t.model;
  ASSERT_NE(read, nullptr);
  EXPECT_TRUE(t.host.has(0, "Exporting frequency range [2.000000e+00,1.500000e+01]\n"));
  const std::vector<std::string> notes = t.host.texts(0);
  EXPECT_EQ(std::count(notes.begin(), notes.end(), "\nWriting Mode Shapes"), 1);
  ASSERT_EQ(read->eigen.size(), 3u);
  for (int j = 0; j < 3; ++j) EXPECT_NEAR(read->eigen[j].hertz, kHertz[j + 1], 1e-9);
  EXPECT_EQ(read->modes, (std::vector<int32_t>{1, 2, 3}));
  // Stress and strain records carry the same numbers (the reader checks their order).
  EXPECT_EQ(read->store[krx::kModalStress].record_start.size(), 3u);
  std::vector<double> file, held = writer_record(model, krx::kModeShapes, 1);
  ASSERT_EQ(krx::read_mode_values(read, krx::kModeShapes, 0, file), 1);
  EXPECT_EQ(file, std::vector<double>(held.begin(), held.begin() + 6 * kNodes));
  ASSERT_EQ(read->preload.size(), 3u);
  EXPECT_DOUBLE_EQ(read->preload[0], model->preload[1]);
  // The block holds the whole transformation all the same.
  EXPECT_EQ(read->transformation_modes.size(), std::size_t(kModes));
  // The renumbering stays in the model: a second write finds the same numbers.
  EXPECT_EQ(model->eigen[1].number, 1);
}

// Both sets drop the two loose nodes; the fast one leaves invariants 5 and 9 out.
TEST(WriteInvariants, FullAndFastSetsReduceTheNodesAndReadBack) {
  for (const char *options : {"full_invar", "fast_invar no_xdr single"}) {
    SCOPED_TRACE(options);
    const bool fast = options[1] == 'a';
    RoundTrip t;
    KRXDATA *read = t.write_and_read(options), *model = t.model;
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(model->nodes.size(), std::size_t(kNodes - 2));
    EXPECT_EQ(read->nodes.size(), std::size_t(kNodes - 2));
    EXPECT_EQ(krx::node_position(read, node_id(kNodes - 1)), -1);
    EXPECT_EQ(face_ids(read), face_ids(model));
    EXPECT_EQ(model->nodes[std::size_t(model->faces[3])].id, node_id(kColumns + 1));
    EXPECT_EQ(read->store[krx::kModalStress].nodes.size(), 4u);
    EXPECT_EQ(read->store[krx::kModalStrain].nodes.size(), 3u);
    for (int block = 19; block <= 26; ++block) {
      const bool left_out = fast && (block == 23 || block == 26);
      EXPECT_EQ(krx::block_present(read, block - 1) != 0, !left_out) << block;
      if (left_out) continue;
      std::vector<double> file, expected;
      ASSERT_EQ(krx::read_invariant_values(read, block, file), 1) << block;
      auto append = [&](const std::vector<double> &v) { expected.insert(expected.end(), v.begin(), v.end()); };
      for (int j = 0; j < kModes; ++j)
        for (int k = 0; k < kModes; ++k) {
          if (block == 26) append(krx::invariant9(model, j, k));
          if (k == 0 && block == 23) append(krx::invariant5(model, j));
          if (k == 0 && block == 25) append(krx::invariant8(model, j));
        }
      if (block == 19) expected = {krx::invariant1(model)};
      if (block == 20) expected = krx::invariant2(model);
      if (block == 21) expected = krx::invariant3(model);
      if (block == 22) expected = krx::invariant4(model);
      if (block == 24) expected = krx::invariant7(model);
      ASSERT_EQ(file.size(), expected.size()) << "block " << block;
      for (std::size_t i = 0; i < file.size(); ++i)
        if (fast) EXPECT_FLOAT_EQ(float(file[i]), float(expected[i])) << block;
        else EXPECT_EQ(file[i], expected[i]) << block;
    }
    // Global properties from the invariants, products of inertia with the opposite sign.
    const double global[3] = {read->total_mass, read->global_inertia[1], read->global_inertia[4]};
    const double from[3] = {krx::invariant1(model), -krx::invariant7(model)[1], krx::invariant7(model)[4]};
    for (int k = 0; k < 3; ++k)
      if (fast) EXPECT_FLOAT_EQ(float(global[k]), float(from[k])) << k;
      else EXPECT_DOUBLE_EQ(global[k], from[k]) << k;
  }
}

TEST(WriteRigidFile, EmptyKeepsTheRigidBodyContentOnly) {
  RoundTrip t;
  KRXDATA *read = t.write_and_read("empty");
  ASSERT_NE(read, nullptr);
  std::vector<int> present;
  for (int index = 3; index < krx::kBlockCount; ++index)
    if (krx::block_present(read, index)) present.push_back(index + 1);
  EXPECT_EQ(present, (std::vector<int>{4, 6, 9, 10, 11, 14, 17, 19, 20, 24}));
  std::vector<double> mass;
  ASSERT_EQ(krx::read_invariant_values(read, 19, mass), 1);
  double total = 0.0;
  for (int n = 0; n < kNodes; ++n) total += 1.0 + 0.1 * n;
  EXPECT_NEAR(mass[0], total, 1e-12);
  EXPECT_NEAR(read->total_mass, total, 1e-12);
}

TEST(WriteUnits, MksConvertsTheModelAndTheFile) {
  RoundTrip t;
  KRXDATA *read = t.write_and_read("MKS", [] {
    int status = 0;
    double mass = 1000.0, length = 0.001, time = 1.0, force = 1.0;
    KRX_UNITS_SI_MULTIPLIERS(&mass, &length, &time, &force, &status);
    ASSERT_EQ(status, 0);
  });
  ASSERT_NE(read, nullptr);
  EXPECT_STREQ(t.model->length_unit.data(), "METER");
  EXPECT_STREQ(read->length_unit.data(), "METER");
  int32_t at = krx::node_position(read, node_id(5));
  EXPECT_NEAR(read->nodes[std::size_t(at)].z, 0.25 * 5 * 0.001, 1e-15);
  EXPECT_NEAR(read->nodes[std::size_t(at)].mass, (1.0 + 0.1 * 5) * 1000.0, 1e-9);
  // Frequencies do not depend on the units.
  EXPECT_NEAR(read->eigen[2].hertz, kHertz[2], 1e-6 * kHertz[2]);
}

}  // namespace
