// The model record: creation, node index and mode registry, and the host strings of the frame.
#include <gtest/gtest.h>

#include "host/krx_fortran.h"
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

TEST(ModelRecord, NodeIndexKeepsIdentifiersSortedAsNodesArrive) {
  krx::KRXDATA model;
  for (int id : {40, 10, 30, 20, 10000, -5}) krx::add_node(&model, id);
  EXPECT_EQ(krx::node_position(&model, 40), 0);
  EXPECT_EQ(krx::node_position(&model, -5), 5);
  EXPECT_EQ(krx::node_position(&model, 30), 2);
  EXPECT_EQ(krx::node_position(&model, 31), -1);
  for (int id = 1000; id < 3500; ++id) krx::node_position_or_add(&model, id);
  EXPECT_EQ(krx::node_count(&model), 2506);
  EXPECT_EQ(krx::node_position(&model, 2000), 6 + 1000);
  EXPECT_TRUE(std::is_sorted(model.node_index.begin(), model.node_index.end()));
}

TEST(ModelRecord, ModeRegistryFollowsFirstMentionUpToItsCapacity) {
  krxtest::RecordingHost host;
  krxtest::create_model(10, 2);
  krx::KRXDATA *model = krx::current_model();
  EXPECT_EQ(krx::register_mode(model, 7), 0);
  EXPECT_EQ(krx::register_mode(model, 2), 1);
  EXPECT_EQ(krx::register_mode(model, 7), 0);
  EXPECT_EQ(krx::register_mode(model, 3), -1);
  EXPECT_EQ(host.texts(3), std::vector<std::string>{"Insufficient room for mode 3 in temporary mode shape file.  \n"
                                                    "Specify larger number of modes in KRX_Create.\n"});
  krxtest::terminate_model();
}

TEST(FrameStrings, TrimmingCutsAtTheHiddenLengthAndDropsTrailingBlanks) {
  EXPECT_EQ(krx::trim_host_string("    ", 4, 128), "");
  EXPECT_EQ(krx::trim_host_string(" A B xyz", 5, 128), " A B");
  EXPECT_EQ(krx::trim_host_string(std::string(200, 'T').c_str(), 200, 128), std::string(127, 'T'));
  EXPECT_EQ(krx::trim_host_string("abc", -1, 16), "");
}

}  // namespace
