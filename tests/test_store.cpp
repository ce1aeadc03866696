// The temporary vector store: layout, capacity, pre-stress, stores between reads, unit scaling
// and files of a model read from a file.
#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "host/krx_fortran.h"
#include "host/krxset.h"
#include "model/krxtools.h"
#include "testsupport.h"

using krxtest::RecordingHost;

namespace {

struct VectorStore : krxtest::ModelTest {
  void SetUp() override { krxtest::unset_store_names(); }
  void TearDown() override { krxtest::unset_store_names(), ModelTest::TearDown(); }
  krx::KRXDATA *make(int nodes, int modes) { return krxtest::create_model(nodes, modes), model = krx::current_model(); }
};

std::vector<char> flushed_bytes(krx::KRXDATA *model, int kind) {
  EXPECT_EQ(krx::flush_vector_store(model, kind), 1);
  return krxtest::file_bytes(model->store[kind].io.path);
}

template <typename T>
T value_at(const std::vector<char> &bytes, size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}
double double_at(const std::vector<char> &bytes, size_t offset) { return value_at<double>(bytes, offset); }

// A distinct value for every (mode, node, component).
void vector_for(int mode, int node, double out[6]) {
  for (int j = 0; j < 6; ++j) out[j] = mode * 1000.0 + node + j * 0.125;
}

TEST_F(VectorStore, LaysOutEveryRecordAtTheFirstValueAndScalesOnLoadInBothPrecisions) {
  RecordingHost host;
  for (int precision : {1, 0}) {
    krx::KRXDATA *model = make(100, 10);
    model->own.precision = precision;
    double v[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(krx::store_node_vector(model, 3, 42, krx::kModeShapes, v), 1);
    auto bytes = flushed_bytes(model, krx::kModeShapes);
    ASSERT_EQ(bytes.size(), 48000u);
    // Single precision: six floats in the first 24 bytes of the node's 48; the rest stays zero.
    for (int j = 0; j < 6; ++j)
      EXPECT_EQ(precision ? double_at(bytes, j * 8) : value_at<float>(bytes, j * 4), v[j]);
    EXPECT_EQ(std::count(bytes.begin() + (precision ? 48 : 24), bytes.end(), 0), 48000 - (precision ? 48 : 24));

    // Translations and stresses are scaled on load, strains never.
    for (int kind : {krx::kModalStress, krx::kModalStrain}) ASSERT_EQ(krx::store_node_vector(model, 3, 42, kind, v), 1);
    model->length_ratio = 2.0;
    model->force_ratio = 8.0;
    for (int kind : {krx::kModeShapes, krx::kModalStress, krx::kModalStrain}) ASSERT_EQ(krx::load_mode_record(model, 3, kind), 1);
    EXPECT_EQ(model->store[krx::kModeShapes].record, (std::vector<double>{2, 4, 6, 4, 5, 6}));
    EXPECT_EQ(model->store[krx::kModalStress].record, (std::vector<double>{2, 4, 6, 8, 10, 12}));
    EXPECT_EQ(model->store[krx::kModalStrain].record, (std::vector<double>{1, 2, 3, 4, 5, 6}));
    krxtest::terminate_model();
  }
}

TEST_F(VectorStore, PlacesRecordsByFirstMentionAndNodesBySlotUpToTheCapacity) {
  RecordingHost host;
  krx::KRXDATA *model = make(4, 3);
  double a[6], b[6], c[6];
  vector_for(7, 1, a);
  vector_for(2, 2, b);
  vector_for(2, 3, c);
  ASSERT_EQ(krx::store_node_vector(model, 7, 501, krx::kModeShapes, a), 1);
  ASSERT_EQ(krx::store_node_vector(model, 2, 502, krx::kModeShapes, b), 1);
  ASSERT_EQ(krx::store_node_value(model, 2, 501, krx::kModeShapes, 4, 9.5), 1);
  auto bytes = flushed_bytes(model, krx::kModeShapes);
  ASSERT_EQ(bytes.size(), 3u * 4 * 48);
  EXPECT_EQ(double_at(bytes, 0), a[0]);             // mode 7 is record 0, node 501 slot 0
  EXPECT_EQ(double_at(bytes, 192 + 48 + 40), b[5]);  // mode 2 is record 1, node 502 slot 1
  EXPECT_EQ(double_at(bytes, 192 + 32), 9.5);        // dof 4 of node 501 in mode 2
  EXPECT_EQ(double_at(bytes, 192 + 24), 0.0);

  // Stresses take slots in the order nodes first get a stress, not the node table's order.
  ASSERT_EQ(krx::store_node_vector(model, 7, 502, krx::kModalStress, c), 1);
  ASSERT_EQ(krx::store_node_vector(model, 7, 9, krx::kModalStress, a), 1);
  EXPECT_EQ((std::vector<int32_t>{krx::kind_slot(model, krx::kModalStress, 502), krx::kind_slot(model, krx::kModalStress, 9),
                                  krx::kind_slot(model, krx::kModalStress, 501), krx::kind_slot(model, krx::kModeShapes, 9)}),
            (std::vector<int32_t>{0, 1, -1, 2}));
  EXPECT_EQ(krx::kind_node_count(model, krx::kModalStress), 2);
  EXPECT_EQ(double_at(flushed_bytes(model, krx::kModalStress), 48), a[0]);
  EXPECT_TRUE(model->flags[krx::kFlagModalStress] == 1 && model->flags[krx::kFlagModalStrain] == 0);

  // A mode beyond the capacity is refused for every kind and writes nothing.
  ASSERT_EQ(krx::store_node_vector(model, 5, 501, krx::kModeShapes, a), 1);
  auto before = flushed_bytes(model, krx::kModeShapes);
  EXPECT_EQ(krx::store_node_vector(model, 11, 501, krx::kModeShapes, a), 0);
  EXPECT_EQ(krx::store_node_vector(model, 11, 501, krx::kModalStrain, a), 0);
  EXPECT_EQ(host.texts(3), std::vector<std::string>(2, "Insufficient room for mode 11 in temporary mode "
                                                       "shape file.  \nSpecify larger number of modes in KRX_Create.\n"));
  EXPECT_EQ(flushed_bytes(model, krx::kModeShapes), before);
  EXPECT_EQ(krx::kind_node_count(model, krx::kModalStrain), 0);
  // A store into the record just read shows at the next read.
  ASSERT_EQ(krx::load_mode_record(model, 7, krx::kModeShapes), 1);
  ASSERT_EQ(krx::store_node_value(model, 7, 501, krx::kModeShapes, 5, -6.0), 1);
  ASSERT_EQ(krx::load_mode_record(model, 7, krx::kModeShapes), 1);
  EXPECT_EQ(model->store[krx::kModeShapes].record[5], -6.0);
}

TEST_F(VectorStore, ModeZeroStressAndStrainArePreValuesSharingTheKindsNodeList) {
  RecordingHost host;
  krx::KRXDATA *model = make(10, 2);
  double pre[6] = {1, 2, 3, 4, 5, 6}, s[6] = {9, 9, 9, 9, 9, 9}, out[3];
  ASSERT_EQ(krx::store_node_vector(model, 0, 77, krx::kModalStress, pre), 1);
  EXPECT_EQ(model->store[krx::kModalStress].io.file, nullptr);
  EXPECT_TRUE(model->flags[krx::kFlagPreStress] == 1 && model->flags[krx::kFlagModalStress] == 0);
  EXPECT_EQ(model->pre_stress, std::vector<double>(pre, pre + 6));
  EXPECT_TRUE(host.texts(0).empty());
  // A stress mode for a second node extends the same list; mode 0 then reads zeros for it.
  ASSERT_EQ(krx::store_node_vector(model, 1, 78, krx::kModalStress, s), 1);
  ASSERT_EQ(krx::store_node_value(model, 0, 77, krx::kModalStress, 2, -3.0), 1);
  ASSERT_EQ(krx::load_mode_record(model, 0, krx::kModalStress), 1);
  EXPECT_EQ(model->store[krx::kModalStress].record, (std::vector<double>{1, 2, -3, 4, 5, 6, 0, 0, 0, 0, 0, 0}));
  ASSERT_EQ(krx::node_values(model, 1, krx::kModalStress, 78, 1, out), 1);
  EXPECT_EQ(out[0], 9.0);
  // No pre-strain yet: mode 0 of strains has nothing to load.
  EXPECT_EQ(krx::load_mode_record(model, 0, krx::kModalStrain), 0);
  ASSERT_EQ(krx::set_pre_values(model, 5, krx::kModalStrain, pre), 1);
  EXPECT_TRUE(model->flags[krx::kFlagPreStrain] == 1 && model->store[krx::kModalStrain].io.file == nullptr);
}

// A file as the reader leaves it: values in the file's own encoding, N x 6 reals per mode.
void write_big_endian(const std::string &path, const std::vector<double> &values, bool single) {
  std::ofstream out(path, std::ios::binary);
  out.write("HEAD", 4);
  for (double value : values) {
    uint64_t bits = single ? __builtin_bswap32(std::bit_cast<uint32_t>(float(value))) : __builtin_bswap64(std::bit_cast<uint64_t>(value));
    out.write(reinterpret_cast<const char *>(&bits), single ? 4 : 8);  // the low bytes come first
  }
}

TEST_F(VectorStore, LoadsRecordsOfAModelReadFromAnXdrFile) {
  krxtest::TempDir dir;
  for (bool single : {false, true}) {
    RecordingHost host;
    krx::KRXDATA *model = make(0, 0);
    for (int id : {10, 20}) krx::add_node(model, id);
    model->modes = {4, 9};
    std::vector<double> values;
    for (int i = 0; i < 24; ++i) values.push_back(i * 0.5);
    std::string path = dir.file("big_endian.krx");
    write_big_endian(path, values, single);
    ASSERT_NE(model->own.file = std::fopen(path.c_str(), "rb"), nullptr);
    const int width = single ? 4 : 8;
    krx::VectorSlot &slot = model->store[krx::kModeShapes];
    slot.io.file = model->own.file;
    slot.io.xdr_in_use = 1;
    slot.io.precision = single ? 0 : 1;
    slot.slot_bytes = 6 * width;
    slot.record_start = {4, 4 + 12 * width};
    ASSERT_EQ(krx::load_mode_record(model, 9, krx::kModeShapes), 1);
    EXPECT_EQ(slot.record, std::vector<double>(values.begin() + 12, values.end()));

    // A range of nodes: unit-scaled translations, or the values as they stand in the file.
    double node[6];
    model->length_ratio = 2.0;
    ASSERT_EQ(krx::read_mode_nodes(model, krx::kModeShapes, 1, 1, 1, node), 1);
    EXPECT_EQ(std::vector<double>(node, node + 6), (std::vector<double>{18, 19, 20, 10.5, 11, 11.5}));
    ASSERT_EQ(krx::read_stored_nodes(model, krx::kModeShapes, 1, 1, 1, node), 1);
    EXPECT_EQ(std::vector<double>(node, node + 6), std::vector<double>(values.begin() + 18, values.end()));
    model->length_ratio = 1.0;
    EXPECT_FALSE(krx::read_mode_nodes(model, krx::kModeShapes, 1, 1, 2, node) || krx::read_mode_nodes(model, krx::kModeShapes, 2, 0, 1, node));
    EXPECT_TRUE(host.messages.empty());

    // A record cut short by the end of the file is reported, and the load still succeeds.
    slot.record_start[0] = 4 + 20 * width;
    ASSERT_EQ(krx::load_mode_record(model, 4, krx::kModeShapes), 1);
    EXPECT_EQ(host.texts(3), std::vector<std::string>{"Problem reading mode shape 4"});
    EXPECT_EQ(slot.held_mode, 0);
    std::vector<double> two(12);
    EXPECT_EQ(krx::read_stored_nodes(model, krx::kModeShapes, 0, 0, 2, two.data()), 0);
    EXPECT_EQ(host.messages.size(), 1u);  // the rewrites say what they were doing themselves
    EXPECT_EQ(krx::read_mode_nodes(model, krx::kModeShapes, 0, 0, 2, two.data()), 0);
    EXPECT_EQ(host.texts(3), std::vector<std::string>(2, "Problem reading mode shape 4"));
    krxtest::terminate_model();
    EXPECT_TRUE(std::filesystem::exists(path));  // the model's own file is not a temporary
  }
}

}  // namespace
