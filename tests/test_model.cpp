// The model record: creation, the frame's current-model rule, node index and mode registry.
#include <gtest/gtest.h>

#include "host/krx_fortran.h"
#include "model/krxdata.h"
#include "testsupport.h"

using krxtest::RecordingHost;

namespace {

struct ModelTest : ::testing::Test {
  void TearDown() override { krxtest::terminate_model(); }
};

TEST_F(ModelTest, EntriesBeforeCreateReportNoModelAndFail) {
  RecordingHost host;
  krxtest::terminate_model();
  int status = -1;
  KRX_TERMINATE(&status);
  EXPECT_EQ(status, 1);
  ASSERT_EQ(host.messages.size(), 1u);
  EXPECT_EQ(host.messages[0], (krxtest::Message{3, "No KRXDATA object.  Call KRX_CREATE first"}));
}

TEST_F(ModelTest, CreateTwiceDiscardsTheFirstModel) {
  krxtest::create_model(10, 2);
  krx::KRXDATA *first = krx::current_model();
  krx::add_node(first, 5);
  krxtest::create_model(10, 2);
  EXPECT_EQ(krx::model_list().size(), 1u);
  EXPECT_EQ(krx::node_count(krx::current_model()), 0);
}

TEST_F(ModelTest, NodeIndexKeepsIdentifiersSortedAsNodesArrive) {
  krxtest::create_model(0, 0);
  krx::KRXDATA *model = krx::current_model();
  for (int id : {40, 10, 30, 20, 10000, -5}) krx::add_node(model, id);
  EXPECT_EQ(krx::node_position(model, 40), 0);
  EXPECT_EQ(krx::node_position(model, -5), 5);
  EXPECT_EQ(krx::node_position(model, 30), 2);
  EXPECT_EQ(krx::node_position(model, 31), -1);
  for (int id = 1000; id < 3500; ++id) krx::node_position_or_add(model, id);
  EXPECT_EQ(krx::node_count(model), 2506);
  EXPECT_EQ(krx::node_position(model, 2000), 6 + 1000);
  EXPECT_TRUE(std::is_sorted(model->node_index.begin(), model->node_index.end()));
}

TEST_F(ModelTest, ModeRegistryFollowsFirstMentionUpToItsCapacity) {
  RecordingHost host;
  krxtest::create_model(10, 2);
  krx::KRXDATA *model = krx::current_model();
  EXPECT_EQ(krx::register_mode(model, 7), 0);
  EXPECT_EQ(krx::register_mode(model, 2), 1);
  EXPECT_EQ(krx::register_mode(model, 7), 0);
  EXPECT_EQ(krx::register_mode(model, 3), -1);
  EXPECT_TRUE(host.has(3,
                       "Insufficient room for mode 3 in temporary mode shape file.  \n"
                       "Specify larger number of modes in KRX_Create.\n"));
}

TEST(FrameStrings, TrimmingCutsAtTheHiddenLengthAndDropsTrailingBlanks) {
  EXPECT_EQ(krx::trim_host_string("AB  ", 4, 128), "AB");
  EXPECT_EQ(krx::trim_host_string("    ", 4, 128), "");
  EXPECT_EQ(krx::trim_host_string(" A B xyz", 5, 128), " A B");
  std::string long_title(200, 'T');
  EXPECT_EQ(krx::trim_host_string(long_title.c_str(), 200, 128), std::string(127, 'T'));
  EXPECT_EQ(krx::trim_host_string("abc", -1, 16), "");
}

}  // namespace
