// Every file the writer makes is read back by the reader with the same values, in each encoding,
// precision and generation the options allow, and is exactly as long as its blocks add up to.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "format/krxformat.h"
#include "format/krxread.h"
#include "format/krxstream.h"
#include "host/krx_fortran.h"
#include "inspect/krxtoc.h"
#include "model/krxset.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"
#include "testsupport.h"

namespace {

using krx::KRXDATA;

struct OptionsGuard {
  explicit OptionsGuard(const char *text) { setenv("QOR_KRXWRITE_OPTIONS", text, 1); }
  ~OptionsGuard() { unsetenv("QOR_KRXWRITE_OPTIONS"); }
};

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
      for (int c = 0; c < 6; ++c) {
        v[c] = shape_value(m, n, c);
        s[c] = stress_value(m, n, c);
        e[c] = 1e-3 * stress_value(m, n, c);
      }
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

int write(const std::string &path) {
  int status = -1;
  KRX_WRITE_KRX(path.c_str(), &status, int(path.size()));
  return status;
}

long long file_size(const std::string &path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// The file's length against its blocks: blocks 1 to 3 and every block its own content summary
// flags, each sized by the catalogue's rule from its leading counts.
long long catalogue_length(const std::string &path, int32_t code) {
  krx::FileSlot io;
  std::vector<float> scratch;
  if (!krx::open_read_stream(io, path.c_str())) return -1;
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
  return at;
}

// The same through the reader's own block sizes, where the reader keeps every block.
void expect_size_is_sum_of_blocks(KRXDATA *read, const std::string &path) {
  EXPECT_EQ(catalogue_length(path, read->version), file_size(path));
  int generation = krx::version_generation(read->version);
  if (generation == 10 || generation == 20) return;  // their reader skips blocks 19 on
  long long sum = 0;
  for (int index = 0; index < krx::kBlockCount; ++index) {
    if (!krx::block_present(read, index)) continue;
    int64_t size = krx::block_size(read, index);
    ASSERT_GT(size, 0) << "block " << index + 1;
    sum += size;
  }
  EXPECT_EQ(sum, file_size(path));
}

std::vector<double> writer_record(KRXDATA *model, int kind, int32_t index) {
  EXPECT_EQ(krx::load_mode_record_by_index(model, index, kind), 1);
  return model->store[kind].record;
}

// The node ids a face list names, face by face.
std::vector<std::vector<int32_t>> face_ids(const KRXDATA *model) {
  std::vector<std::vector<int32_t>> faces;
  for (std::size_t i = 0; i < model->faces.size(); i += std::size_t(model->faces[i]) + 1) {
    std::vector<int32_t> ids;
    for (int32_t v = 1; v <= model->faces[i]; ++v) ids.push_back(model->nodes[model->faces[i + v]].id);
    faces.push_back(ids);
  }
  return faces;
}

struct Encoding {
  const char *options;
  int32_t version;
};

class WriteEncodings : public testing::TestWithParam<Encoding> {};

TEST_P(WriteEncodings, ReadsBackWhatWasWritten) {
  const Encoding e = GetParam();
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  OptionsGuard options(e.options);
  build_plate();
  KRXDATA *model = krx::current_model();
  std::string path = dir.file("plate.krx");
  ASSERT_EQ(write(path), 0);
  KRXDATA *read = krx::find_or_read_model(path.c_str());
  ASSERT_NE(read, nullptr);
  const int generation = e.version & 0xff;
  const bool single = krx::version_is_single(e.version);
  const double tolerance = single ? 1e-6 : 1e-13;
  auto near = [&](double a, double b) { return std::fabs(a - b) <= tolerance * std::max(1.0, std::fabs(b)); };
  EXPECT_EQ(read->version, e.version);
  EXPECT_EQ(read->char_width, krx::version_is_xdr(e.version) ? 4 : 1);
  EXPECT_EQ(read->real_width, single ? 4 : 8);
  EXPECT_STREQ(read->title.data(), "Round trip plate");
  EXPECT_STREQ(read->comments[1].data(), "second");
  expect_size_is_sum_of_blocks(read, path);

  // Nodes, masses and inertias: every node (no invariants were asked for, so no reduction).
  ASSERT_EQ(read->nodes.size(), std::size_t(kNodes));
  for (int n = 0; n < kNodes; ++n) {
    int32_t at = krx::node_position(read, node_id(n));
    ASSERT_GE(at, 0);
    const krx::NodeRecord &r = read->nodes[std::size_t(at)];
    EXPECT_TRUE(near(r.z, 0.25 * n));
    EXPECT_TRUE(near(r.mass, 1.0 + 0.1 * n));
    EXPECT_EQ(r.inertia != nullptr, n % 2 == 0);
    if (r.inertia) {
      EXPECT_TRUE(near((*r.inertia)[3], 0.001));
    }
  }
  EXPECT_FALSE(model->has_invariant1);
  EXPECT_TRUE(model->invariant3.empty());

  // Eigenvalues: the generalized masses were 2, the modes are normalised.
  ASSERT_EQ(read->eigen.size(), std::size_t(kModes));
  for (int m = 0; m < kModes; ++m) {
    EXPECT_EQ(read->eigen[m].number, m + 1);
    EXPECT_NEAR(read->eigen[m].hertz, kHertz[m], 1e-6 * kHertz[m]);
    EXPECT_EQ(read->eigen[m].generalized_mass, 1.0);
  }
  // Mode shapes, stresses and strains: as the writer's store holds them, and the shapes equal
  // the host's divided by sqrt(2).
  const bool old_generation = generation == 10 || generation == 20;
  // Their reader stops at block 18: the strain block is written but not loaded.
  for (int kind = krx::kModeShapes; kind <= (old_generation ? krx::kModalStress : krx::kModalStrain); ++kind) {
    const bool dense = kind != krx::kModeShapes && generation != 60;
    const std::vector<int32_t> &written_nodes = model->store[kind].nodes;
    std::size_t listed = kind == krx::kModeShapes || dense ? std::size_t(kNodes) : written_nodes.size();
    ASSERT_EQ(read->store[kind].nodes.size(), listed) << "kind " << kind;
    for (int32_t j = 0; j < kModes; ++j) {
      std::vector<double> file;
      ASSERT_EQ(krx::read_mode_values(read, kind, j, file), 1);
      std::vector<double> held = writer_record(model, kind, j);
      for (std::size_t s = 0; s < listed; ++s) {
        int32_t id = read->nodes[std::size_t(read->store[kind].nodes[s])].id;
        int32_t from = kind == krx::kModeShapes ? krx::node_position(model, id) : krx::kind_slot(model, kind, id);
        for (int c = 0; c < 6; ++c) {
          double expected = from < 0 ? 0.0 : held[6 * std::size_t(from) + c];
          ASSERT_TRUE(near(file[6 * s + c], expected)) << "kind " << kind << " mode " << j << " node " << id;
        }
      }
    }
  }
  std::vector<double> first;
  ASSERT_EQ(krx::read_mode_values(read, krx::kModeShapes, 2, first), 1);
  int32_t at = krx::node_position(read, node_id(5));
  EXPECT_TRUE(near(first[6 * std::size_t(at) + 1], shape_value(2, 5, 1) / std::sqrt(2.0)));

  // Pre-stress follows the stress block's node list: spread over every node in a dense file.
  if (!old_generation) {
    ASSERT_EQ(read->pre_stress.size(), 6 * read->store[krx::kModalStress].nodes.size());
    int32_t slot = krx::kind_slot(read, krx::kModalStress, node_id(3));
    EXPECT_EQ(read->pre_stress[6 * std::size_t(slot) + 2], 3.0);
  }
  // Faces, interface node, units, preload and loads.
  EXPECT_EQ(face_ids(read), face_ids(model));
  ASSERT_EQ(read->interface_nodes.size(), 1u);
  EXPECT_EQ(read->nodes[std::size_t(read->interface_nodes[0])].id, node_id(0));
  EXPECT_STREQ(read->mass_unit.data(), "KILOGRAM");
  if (generation != 10 && generation != 20) {
    ASSERT_EQ(read->preload.size(), std::size_t(kModes));
    EXPECT_TRUE(near(read->preload[1], model->preload[1]));
    ASSERT_EQ(read->load_cases.size(), 1u);
    EXPECT_EQ(read->load_cases[0].label, "gravity");
    EXPECT_TRUE(near(read->load_cases[0].values[5], model->load_cases[0].values[5]));
    // Statistics: the largest translation of each mode and its node.
    ASSERT_EQ(read->statistics.size(), std::size_t(kModes));
    std::vector<double> shape;
    ASSERT_EQ(krx::read_mode_values(read, krx::kModeShapes, 4, shape), 1);
    double largest = 0.0;
    int32_t where = 0;
    for (std::size_t s = 0; s < read->nodes.size(); ++s) {
      double t = std::sqrt(shape[6 * s] * shape[6 * s] + shape[6 * s + 1] * shape[6 * s + 1] +
                           shape[6 * s + 2] * shape[6 * s + 2]);
      if (t > largest) largest = t, where = read->nodes[s].id;
    }
    EXPECT_TRUE(near(read->statistics[4].reals[0], largest));
    EXPECT_EQ(read->statistics[4].ints[0], where);
  }
  // The whole transformation over the host's mode numbers.
  if (!read->transformation.empty()) {
    ASSERT_EQ(read->transformation_modes.size(), std::size_t(kModes));
    EXPECT_EQ(read->transformation_modes[5], 6);
    EXPECT_TRUE(near(read->transformation[7], 1.0 / std::sqrt(2.0)));
    EXPECT_EQ(read->transformation[1], 0.0);
  }
  krxtest::terminate_model();
}

INSTANTIATE_TEST_SUITE_P(
    Generations, WriteEncodings,
    testing::Values(Encoding{"", 316}, Encoding{"no_xdr", 60}, Encoding{"single", 828},
                    Encoding{"single no_xdr", 572}, Encoding{"full_str", 41},
                    Encoding{"full_str no_xdr", 40}, Encoding{"full_str single", 51},
                    Encoding{"no_xdr single full_str", 50}, Encoding{"82_comp", 20},
                    Encoding{"81_comp", 10}),
    [](const testing::TestParamInfo<Encoding> &info) { return "code" + std::to_string(info.param.version); });

// Writes the plate with options and reads it back; the writer's model stays current.
KRXDATA *write_and_read(const char *text, const std::string &path) {
  OptionsGuard options(text);
  build_plate();
  if (write(path) != 0) return nullptr;
  return krx::find_or_read_model(path.c_str());
}

TEST(WriteBand, ExportsTheModesInsideTheBandNumberedFromOne) {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("band.krx");
  KRXDATA *read = write_and_read("highpass(2.0) lowpass(15)", path);
  ASSERT_NE(read, nullptr);
  EXPECT_TRUE(host.has(0, "Exporting frequency range [2.000000e+00,1.500000e+01]\n"));
  ASSERT_EQ(read->eigen.size(), 3u);
  for (int j = 0; j < 3; ++j) {
    EXPECT_EQ(read->eigen[j].number, j + 1);
    EXPECT_NEAR(read->eigen[j].hertz, kHertz[j + 1], 1e-9);
  }
  EXPECT_EQ(read->modes, (std::vector<int32_t>{1, 2, 3}));
  // Stress and strain records carry the same numbers (the reader checks their order).
  EXPECT_EQ(read->store[krx::kModalStress].record_start.size(), 3u);
  KRXDATA *model = krx::current_model();
  std::vector<double> file, held = writer_record(model, krx::kModeShapes, 1);
  ASSERT_EQ(krx::read_mode_values(read, krx::kModeShapes, 0, file), 1);
  EXPECT_EQ(file, std::vector<double>(held.begin(), held.begin() + 6 * kNodes));
  ASSERT_EQ(read->preload.size(), 3u);
  EXPECT_DOUBLE_EQ(read->preload[0], model->preload[1]);
  // The block holds the whole transformation all the same.
  EXPECT_EQ(read->transformation_modes.size(), std::size_t(kModes));
  expect_size_is_sum_of_blocks(read, path);
  // The renumbering stays in the model: a second write finds the same numbers.
  EXPECT_EQ(model->eigen[1].number, 1);
  krxtest::terminate_model();
}

TEST(WriteInvariants, FullSetReducesTheNodesAndReadsBack) {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("full.krx");
  KRXDATA *read = write_and_read("full_invar", path);
  ASSERT_NE(read, nullptr);
  KRXDATA *model = krx::current_model();
  // The two loose nodes are gone; every face names the same nodes as before.
  EXPECT_EQ(model->nodes.size(), std::size_t(kNodes - 2));
  EXPECT_EQ(read->nodes.size(), std::size_t(kNodes - 2));
  EXPECT_EQ(krx::node_position(read, node_id(kNodes - 1)), -1);
  EXPECT_EQ(face_ids(read), face_ids(model));
  EXPECT_EQ(model->nodes[std::size_t(model->faces[1])].id, node_id(0));
  EXPECT_EQ(model->nodes[std::size_t(model->faces[3])].id, node_id(kColumns + 1));
  // Stress and strain lists lost the loose nodes too.
  EXPECT_EQ(read->store[krx::kModalStress].nodes.size(), 4u);
  EXPECT_EQ(read->store[krx::kModalStrain].nodes.size(), 3u);
  for (int block = 19; block <= 26; ++block) {
    ASSERT_TRUE(krx::block_present(read, block - 1)) << block;
    std::vector<double> file;
    ASSERT_EQ(krx::read_invariant_values(read, block, file), 1) << block;
    std::vector<double> expected;
    switch (block) {
      case 19: expected = {krx::invariant1(model)}; break;
      case 20: expected = krx::invariant2(model); break;
      case 21: expected = krx::invariant3(model); break;
      case 22: expected = krx::invariant4(model); break;
      case 23:
        for (int j = 0; j < kModes; ++j) {
          std::vector<double> v = krx::invariant5(model, j);
          expected.insert(expected.end(), v.begin(), v.end());
        }
        break;
      case 24: expected = krx::invariant7(model); break;
      case 25:
        for (int j = 0; j < kModes; ++j) {
          std::vector<double> v = krx::invariant8(model, j);
          expected.insert(expected.end(), v.begin(), v.end());
        }
        break;
      default:
        for (int j = 0; j < kModes; ++j)
          for (int k = 0; k < kModes; ++k) {
            std::vector<double> v = krx::invariant9(model, j, k);
            expected.insert(expected.end(), v.begin(), v.end());
          }
    }
    EXPECT_EQ(file, expected) << "block " << block;
  }
  // Global properties from the invariants, products of inertia with the opposite sign.
  EXPECT_DOUBLE_EQ(read->total_mass, krx::invariant1(model));
  EXPECT_DOUBLE_EQ(read->global_inertia[1], -krx::invariant7(model)[1]);
  EXPECT_DOUBLE_EQ(read->global_inertia[4], krx::invariant7(model)[4]);
  expect_size_is_sum_of_blocks(read, path);
  krxtest::terminate_model();
}

TEST(WriteInvariants, FastSetLeavesFiveAndNineOut) {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("fast.krx");
  KRXDATA *read = write_and_read("fast_invar no_xdr single", path);
  ASSERT_NE(read, nullptr);
  for (int block = 19; block <= 26; ++block)
    EXPECT_EQ(krx::block_present(read, block - 1) != 0, block != 23 && block != 26) << block;
  std::vector<double> file;
  ASSERT_EQ(krx::read_invariant_values(read, 22, file), 1);
  std::vector<double> expected = krx::invariant4(krx::current_model());
  ASSERT_EQ(file.size(), expected.size());
  for (std::size_t i = 0; i < file.size(); ++i) EXPECT_FLOAT_EQ(float(file[i]), float(expected[i]));
  expect_size_is_sum_of_blocks(read, path);
  krxtest::terminate_model();
}

TEST(WriteRigidFile, EmptyKeepsTheRigidBodyContentOnly) {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("empty.krx");
  KRXDATA *read = write_and_read("empty", path);
  ASSERT_NE(read, nullptr);
  std::vector<int> present;
  for (int index = 3; index < krx::kBlockCount; ++index)
    if (krx::block_present(read, index)) present.push_back(index + 1);
  EXPECT_EQ(present, (std::vector<int>{4, 6, 9, 10, 11, 14, 17, 19, 20, 24}));
  int computing = 0;
  for (const std::string &text : host.texts(0)) computing += text == "Computing *rigid* invariants";
  EXPECT_EQ(computing, 1);
  std::vector<double> mass;
  ASSERT_EQ(krx::read_invariant_values(read, 19, mass), 1);
  double total = 0.0;
  for (int n = 0; n < kNodes; ++n) total += 1.0 + 0.1 * n;
  EXPECT_NEAR(mass[0], total, 1e-12);
  EXPECT_NEAR(read->total_mass, total, 1e-12);
  expect_size_is_sum_of_blocks(read, path);
  krxtest::terminate_model();
}

TEST(WriteUnits, MksConvertsTheModelAndTheFile) {
  krxtest::RecordingHost host;
  krxtest::TempDir dir;
  std::string path = dir.file("mks.krx");
  OptionsGuard options("MKS");
  build_plate();
  int status = 0;
  double mass = 1000.0, length = 0.001, time = 1.0, force = 1.0;
  KRX_UNITS_SI_MULTIPLIERS(&mass, &length, &time, &force, &status);
  ASSERT_EQ(status, 0);
  ASSERT_EQ(write(path), 0);
  KRXDATA *read = krx::find_or_read_model(path.c_str());
  ASSERT_NE(read, nullptr);
  KRXDATA *model = krx::current_model();
  EXPECT_STREQ(model->length_unit.data(), "METER");
  EXPECT_STREQ(read->mass_unit.data(), "KILOGRAM");
  EXPECT_STREQ(read->length_unit.data(), "METER");
  int32_t at = krx::node_position(read, node_id(5));
  EXPECT_NEAR(read->nodes[std::size_t(at)].z, 0.25 * 5 * 0.001, 1e-15);
  EXPECT_NEAR(read->nodes[std::size_t(at)].mass, (1.0 + 0.1 * 5) * 1000.0, 1e-9);
  // Frequencies do not depend on the units.
  EXPECT_NEAR(read->eigen[2].hertz, kHertz[2], 1e-6 * kHertz[2]);
  krxtest::terminate_model();
}

}  // namespace
