// ccx2krx's deck reader and skin: the model part of a deck, its refusals, and the outer faces of
// small meshes built by hand.
#include <gtest/gtest.h>

#include <array>
#include <fstream>

#include "ccx2krx.h"
#include "testsupport.h"

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

double enclosed_volume(const ccx::Deck &deck, const std::vector<ccx::Face> &faces) {
  double volume = 0.0;
  for (const ccx::Face &f : faces) {
    auto at = [&](int k) {
      int i = ccx::node_index(deck, f.ids[k]);
      return std::array<double, 3>{deck.xyz[3 * i], deck.xyz[3 * i + 1], deck.xyz[3 * i + 2]};
    };
    for (int k = 1; k + 1 < f.count; ++k) {
      auto a = at(0), b = at(k), c = at(k + 1);
      volume += (a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
                 a[2] * (b[0] * c[1] - b[1] * c[0])) /
                6.0;
    }
  }
  return volume;
}

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

TEST(CcxDeck, JoinsElementRecordsSpreadOverLinesAndReadsIncludes) {
  krxtest::TempDir dir;
  std::ofstream(dir.file("nodes.inp")) << "*NODE\n";
  {
    std::ofstream nodes(dir.file("nodes.inp"), std::ios::app);
    for (int i = 1; i <= 20; ++i)
      nodes << i << "," << i % 3 << "," << i % 5 << "," << i % 7 << "\n";
  }
  std::string text =
      "*INCLUDE, INPUT=nodes.inp\n*ELEMENT,TYPE=C3D20R\n"
      "7,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,\n16,17,18,19,20\n*DENSITY\n1.0\n";
  ccx::Deck deck;
  ASSERT_TRUE(ccx::parse_deck(text, dir.path, deck));
  ASSERT_EQ(deck.elements.size(), 1u);
  EXPECT_EQ(deck.elements[0].id, 7);
  EXPECT_EQ(deck.elements[0].nodes.size(), 20u);
  EXPECT_EQ(deck.elements[0].nodes.back(), 20);
  EXPECT_EQ(deck.node_ids.size(), 20u);
  // The included lines are written into the model part itself, not the *INCLUDE.
  EXPECT_NE(deck.text.find("20,2,0,6"), std::string::npos);
  EXPECT_EQ(deck.text.find("INCLUDE"), std::string::npos);
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

// Two bricks, the second numbered the other way round, whose shared face is inside; a quadratic
// tetrahedron numbered inside out and a wedge on top of a triangle it shares with nobody: the
// outer faces, turned outward, close the volume of each.
TEST(CcxSkin, KeepsTheOuterFacesTurnedOutwardWhateverTheElementsOrientation) {
  const std::string mixed =
      "*NODE\n1,0,0,0\n2,1,0,0\n3,0,1,0\n4,0,0,1\n5,.5,0,0\n6,.5,.5,0\n7,0,.5,0\n8,0,0,.5\n"
      "9,.5,0,.5\n10,0,.5,.5\n"
      "11,5,0,0\n12,6,0,0\n13,5,1,0\n14,5,0,2\n15,6,0,2\n16,5,1,2\n"
      "*ELEMENT,TYPE=C3D10\n1,1,3,2,4,7,6,5,8,10,9\n"
      "*ELEMENT,TYPE=C3D6\n2,11,12,13,14,15,16\n*DENSITY\n1\n";
  const struct {
    std::string text;
    size_t faces;
    double volume;
  } cases[] = {{kTwoHexahedra, 10, 2.0}, {mixed, 4 + 5, 1.0 / 6.0 + 1.0}};
  for (const auto &c : cases) {
    ccx::Deck deck;
    ASSERT_TRUE(ccx::parse_deck(c.text, ".", deck));
    std::vector<ccx::Face> faces;
    ASSERT_TRUE(ccx::collect_skin(deck, faces));
    EXPECT_EQ(faces.size(), c.faces);
    EXPECT_NEAR(enclosed_volume(deck, faces), c.volume, 1e-12);
  }
}

}  // namespace
