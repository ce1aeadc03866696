// ccx2krx's interface points on a deck written by hand: node sets, the reference and rotation
// nodes and their rigid bodies, and the displacement tables that CalculiX gives back for those
// nodes.
#include <gtest/gtest.h>

#include <fstream>

#include "ccx2krx.h"
#include "testsupport.h"

namespace {

// Two bricks side by side (x from 0 to 2); node 99 belongs to no element.
const char *kDeck =
    "*NODE\n"
    "1,0,0,0\n2,1,0,0\n3,1,1,0\n4,0,1,0\n5,0,0,1\n6,1,0,1\n7,1,1,1\n8,0,1,1\n"
    "9,2,0,0\n10,2,1,0\n11,2,0,1\n12,2,1,1\n99,5,5,5\n"
    "*ELEMENT, TYPE=C3D8, ELSET=E\n1,1,2,3,4,5,6,7,8\n2,2,9,10,3,6,11,12,7\n"
    "*NSET, NSET=Left\n1,4,\n*NSET,NSET=RIGHT,GENERATE\n9,12\n*NSET,NSET=LONE\n99\n"
    "*NSET,NSET=left\n5,8,4\n*NSET,NSET=MIDDLE\n2,3,6,7,9\n"
    "*MATERIAL,NAME=S\n*DENSITY\n7.85e-9\n*SOLID SECTION,ELSET=E,MATERIAL=S\n";

ccx::Deck parsed() {
  ccx::Deck deck;
  EXPECT_TRUE(ccx::parse_deck(kDeck, ".", deck));
  return deck;
}

TEST(CcxInterface, TiesEachSetToNodesAtItsMeanAfterTheLargestId) {
  ccx::Deck deck = parsed();
  ASSERT_TRUE(ccx::add_interfaces(deck, {"left", "Right"}));
  // Node 99 is the deck's largest id: the new nodes follow it, reference before rotation.
  ASSERT_EQ(deck.interfaces.size(), 2u);
  EXPECT_EQ(deck.interfaces[0].ref, 100);
  EXPECT_EQ(deck.interfaces[0].rot, 101);
  EXPECT_EQ(deck.solid_nodes, 12);
  EXPECT_EQ(deck.tied_nodes, 8);  // LEFT's second card adds 5 and 8, and 4 again
  EXPECT_EQ(ccx::node_index(deck, 100), 12);
  std::vector<double> centres(deck.xyz.end() - 6, deck.xyz.end());
  EXPECT_EQ(centres, (std::vector<double>{0, 0.5, 0.5, 2, 0.5, 0.5}));
  EXPECT_NE(deck.text.find("*RIGID BODY,NSET=LEFT,REF NODE=100,ROT NODE=101\n"), std::string::npos);
  EXPECT_NE(deck.text.find("*NODE\n102,2,0.5,0.5\n103,2,0.5,0.5\n"), std::string::npos);
}

TEST(CcxInterface, RefusesUnknownEmptyAndSharedSets) {
  for (auto names : std::vector<std::vector<std::string>>{
           {"NOWHERE"}, {"LONE"}, {"MIDDLE", "RIGHT"}, {"LEFT", "LEFT"}}) {
    ccx::Deck deck = parsed();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(ccx::add_interfaces(deck, names)) << names[0];
    std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("ccx2krx: --interface"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), text.size() - 1) << "one message: " << text;
  }
}

TEST(CcxInterface, ReadsDisplacementTablesOneAfterTheOther) {
  ccx::Deck deck = parsed();
  ASSERT_TRUE(ccx::add_interfaces(deck, {"LEFT"}));
  krxtest::TempDir dir;
  std::ofstream(dir.file("m.dat"))
      << "\n displacements (vx,vy,vz) for set CCX2KRXALL and time  0.1000000E+01\n\n"
         "         2  1.000000E+00 -2.500000E-01  0.000000E+00\n"
         "        99  9.000000E+00  9.000000E+00  9.000000E+00\n"
         "       100  1.000000E+00  0.000000E+00  0.000000E+00\n"
         "       101  0.000000E+00  0.000000E+00  3.000000E-01\n"
         "\n displacements (vx,vy,vz) for set CCX2KRXALL and time  0.2000000E+01\n\n"
         "        12  0.000000E+00  0.000000E+00  7.000000E-07\n\n"
         "     E I G E N V A L U E   O U T P U T\n";
  ccx::DatReader dat;
  ASSERT_TRUE(ccx::open_dat(dir.file("m.dat"), dat));
  std::vector<double> by_node;
  ASSERT_TRUE(ccx::read_dat_displacements(dat, deck, by_node));
  ASSERT_EQ(by_node.size(), 6u * 13);
  EXPECT_EQ(by_node[6 * 1 + 1], -0.25);
  EXPECT_EQ(std::vector<double>(by_node.begin() + 72, by_node.end()),
            (std::vector<double>{1, 0, 0, 0, 0, 0.3}));
  ASSERT_TRUE(ccx::read_dat_displacements(dat, deck, by_node));
  EXPECT_EQ(by_node[6 * 11 + 2], 7e-7);
  EXPECT_EQ(by_node[6 * 1 + 1], 0.0);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(ccx::read_dat_displacements(dat, deck, by_node));
  std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find("no displacement table 3"), std::string::npos) << text;
  ccx::close_dat(dat);
}

}  // namespace
