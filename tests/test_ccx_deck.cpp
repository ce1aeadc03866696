// ccx2krx's deck reader: the model part of a deck and its refusals.
#include <gtest/gtest.h>

#include "ccx2krx.h"

namespace {

const char *kTwoHexahedra =
    "*HEADING\n"
    "  Two bricks  \n"
    "*NODE, NSET=ALL\n"
    "1,0,0,0\n2,1,0,0\n3,1,1,0\n4,0,1,0\n5,0,0,1\n6,1,0,1\n7,1,1,1\n8,0,1,1\n"
    "9,2,0,0\n10,2,1,0\n11,2,0,1\n12,2,1,1\n"
    "99,5,5,5\n"
    "** a comment between blocks\n"
    "*ELEMENT, TYPE=C3D8, ELSET=E\n"
    "1,1,2,3,4,5,6,7,8\n2,2,9,10,3,6,11,12,7\n"
    "*MATERIAL,NAME=S\n*DENSITY\n7.85e-9\n*SOLID SECTION,ELSET=E,MATERIAL=S\n";

TEST(CcxDeck, ReadsTheModelPartAndStopsAtTheFirstStep) {
  std::string text = std::string(kTwoHexahedra) + "*STEP\n*STATIC\n*NODE\n100,9,9,9\n*END STEP\n";
  ccx::Deck deck;
  ASSERT_TRUE(ccx::parse_deck(text, ".", deck));
  EXPECT_TRUE(deck.has_steps);
  EXPECT_TRUE(deck.has_density);
  EXPECT_EQ(deck.heading, "Two bricks");
  EXPECT_EQ(deck.text.find("*STEP"), std::string::npos);
  // Node 99 belongs to no element, node 100 to the step: neither is kept.
  EXPECT_EQ(deck.node_ids, (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  ASSERT_EQ(deck.elements.size(), 2u);
  EXPECT_EQ(deck.elements[1].nodes, (std::vector<int>{2, 9, 10, 3, 6, 11, 12, 7}));
  EXPECT_EQ(deck.xyz[3 * 8], 2.0);
}

TEST(CcxDeck, RefusesDecksItCannotExport) {
  const std::string base = kTwoHexahedra;
  const std::string plane =
      "*NODE\n1,0,0,0\n2,1,0,0\n3,1,1,0\n4,0,1,0\n"
      "*ELEMENT,TYPE=CPS4,ELSET=E\n1,1,2,3,4\n*DENSITY\n1.0\n";
  const std::string no_density = base.substr(0, base.find("*DENSITY"));
  const std::string no_element = "*NODE\n1,0,0,0\n*DENSITY\n1.0\n";
  const std::string unknown_node = base + "*ELEMENT,TYPE=C3D4\n3,1,2,3,50\n";
  const std::string missing_include = "*INCLUDE,INPUT=nowhere.inp\n" + base;
  for (const std::string *text :
       {&plane, &no_density, &no_element, &unknown_node, &missing_include}) {
    ccx::Deck deck;
    EXPECT_FALSE(ccx::parse_deck(*text, ".", deck)) << *text;
  }
}

}  // namespace
