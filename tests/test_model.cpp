// The model record: creation, node index and mode registry, and the host strings of the frame.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "host/krx_fortran.h"
#include "model/krxtools.h"
#include "testsupport.h"

namespace {

TEST(ModelRecord, CreateTwiceDiscardsTheFirstModel) {
  krxtest::create_model(10, 2);
  krx::add_node(krx::current_model(), 5);
  krxtest::create_model(10, 2);
  EXPECT_EQ(krx::model_list().size(), 1u);
  EXPECT_EQ(krx::node_count(krx::current_model()), 0);
  krxtest::terminate_model();
}

// Identifiers in a shuffled order: positions follow first appearance, for the node table and for
// the stress node list alike, and the listing prints them sorted.
TEST(ModelRecord, ShuffledIdentifiersKeepFirstAppearanceAndListSorted) {
  krxtest::RecordingHost host;
  constexpr int kNodes = 3000;
  auto id_at = [](int i) { return 7 + 13 * ((i * 1103) % kNodes); };  // a permutation of 0..2999
  krxtest::create_model(kNodes, 2);
  krx::KRXDATA *model = krx::current_model();
  for (int i = 0; i < kNodes; ++i) ASSERT_EQ(krx::node_position_or_add(model, id_at(i)), i);
  EXPECT_EQ(krx::register_mode(model, 7), 0);
  const double values[6] = {1, 2, 3, 4, 5, 6};
  for (int i = kNodes; i-- > 0;)
    ASSERT_EQ(krx::store_node_vector(model, 4, id_at(i), krx::kModalStress, values), 1);
  for (int i = 0; i < kNodes; ++i) {
    ASSERT_EQ(krx::node_position(model, id_at(i)), i);
    ASSERT_EQ(krx::kind_slot(model, krx::kModalStress, id_at(i)), kNodes - 1 - i);
  }
  EXPECT_TRUE(krx::node_position(model, 8) == -1 && krx::kind_slot(model, krx::kModalStress, 8) == -1);
  // Modes are numbered by first mention up to the capacity.
  EXPECT_TRUE(krx::mode_index(model, 4) == 1 && krx::mode_index(model, 5) == -1 && krx::register_mode(model, 7) == 0);
  EXPECT_EQ(krx::register_mode(model, 3), -1);
  EXPECT_EQ(host.texts(3), std::vector<std::string>{"Insufficient room for mode 3 in temporary mode shape file.  \n"
                                                    "Specify larger number of modes in KRX_Create.\n"});

  std::istringstream lines(krxtest::listing(model, 9));
  std::vector<int> listed, sorted;
  for (std::string line; std::getline(lines, line);) {
    int id = 0;
    double mass = 0.0;
    if (std::sscanf(line.c_str(), "%d\t%le", &id, &mass) == 2) listed.push_back(id);
  }
  for (int i = 0; i < kNodes; ++i) sorted.push_back(7 + 13 * i);
  EXPECT_EQ(listed, sorted);
  // A negative identifier is an identifier like any other.
  EXPECT_EQ(krx::node_position_or_add(model, -5), kNodes);
  EXPECT_EQ(krx::node_position(model, -5), kNodes);
  krxtest::terminate_model();
}

TEST(FrameStrings, TrimmingCutsAtTheHiddenLengthAndDropsTrailingBlanks) {
  EXPECT_EQ(krx::trim_host_string("    ", 4, 128), "");
  EXPECT_EQ(krx::trim_host_string(" A B xyz", 5, 128), " A B");
  EXPECT_EQ(krx::trim_host_string(std::string(200, 'T').c_str(), 200, 128), std::string(127, 'T'));
  EXPECT_EQ(krx::trim_host_string("abc", -1, 16), "");
}

}  // namespace
