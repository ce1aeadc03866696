// ccx2krx's shells and beams on hand-made inputs: the sections it refuses, the projection of
// expanded rows onto the original nodes, and the masses and inertias summed onto them.
#include <gtest/gtest.h>

#include <array>

#include "ccx2krx.h"

namespace {

using Vec = std::array<double, 3>;

// An S4 square in z = 0 (nodal thickness 2, 3 at node 3), and a B31 beam along z
// with a 4 x 2 section whose first axis is x.
const char *kDeck =
    "*NODE,NSET=NALL\n1,0,0,0\n2,1,0,0\n3,1,1,0\n4,0,1,0\n5,5,5,0\n6,5,5,10\n"
    "*NSET,NSET=THICK\n3\n"
    "*ELEMENT,TYPE=S4,ELSET=SKIN\n1,1,2,3,4\n"
    "*ELEMENT,TYPE=B31,ELSET=BAR\n2,5,6\n"
    "*ELSET,ELSET=SHELLS\nSKIN\n"
    "*MATERIAL,NAME=S\n*DENSITY\n1.0\n"
    "*SHELL SECTION,ELSET=SHELLS,MATERIAL=S,NODAL THICKNESS\n"
    "*NODAL THICKNESS\nNALL,2.0\nTHICK,3.0\n"
    "*BEAM SECTION,ELSET=BAR,MATERIAL=S,SECTION=RECT\n4.,2.\n1.,0.,0.\n";

TEST(CcxStructures, RefusesSectionsItCannotPlace) {
  const std::string deck = kDeck;
  const std::pair<std::string, std::string> cases[] = {
      {"SECTION=RECT\n4.,2.\n1.,0.,0.", "SECTION=PIPE\n4.,2.\n1.,0.,0."},
      {"SECTION=RECT\n4.,2.\n1.,0.,0.", "SECTION=RECT\n4.,2.\n0.,0.,1."},  // along the beam
      {"NALL,2.0\n", ""},                                     // nodes without thickness
  };
  for (const auto &[from, to] : cases) {
    std::string text = deck;
    text.replace(text.find(from), from.size(), to);
    ccx::Deck d;
    ccx::Expansion e;
    EXPECT_FALSE(ccx::parse_deck(text, ".", d) && ccx::build_expansion(d, e)) << to;
  }
}

// A free shell node (three expanded nodes through t = 2 along z), a beam node (corners at
// +-2 y +-1 z), a knot and a shell node tied to a solid (its own rows, then the top), all
// moving rigidly: u = c + w x r at each expanded node's offset r.
struct RigidCase {
  ccx::Expansion e;
  ccx::DofMap map;
  std::vector<double> rows;
};

const Vec kShift = {1, 2, 3}, kTurn = {0.1, -0.2, 0.3};

Vec rigid(const Vec &r) {
  return {kShift[0] + kTurn[1] * r[2] - kTurn[2] * r[1],
          kShift[1] + kTurn[2] * r[0] - kTurn[0] * r[2],
          kShift[2] + kTurn[0] * r[1] - kTurn[1] * r[0]};
}

RigidCase rigid_case() {
  RigidCase c;
  c.e.kind = {ccx::Expansion::kShell, ccx::Expansion::kBeam, ccx::Expansion::kKnot,
              ccx::Expansion::kShell};
  c.e.axes = {0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0};
  c.e.edge = {1, 1, 1, 1};
  c.e.slots.assign(12, 0);
  c.e.tied = {0, 0, 0, 1};
  auto add = [&](int node, const Vec &u) {
    for (int d = 0; d < 3; ++d) {
      c.map.row_node.push_back(node);
      c.map.row_dir.push_back(d);
      c.map.row_id.push_back(node + 1);
      c.rows.push_back(u[d]);
    }
  };
  for (double s : {-1.0, 0.0, 1.0}) add(0, rigid({0, 0, s}));
  const double s1[4] = {-1, -1, 1, 1}, s2[4] = {1, -1, -1, 1};
  for (int k = 0; k < 4; ++k) add(1, rigid({0, 2 * s1[k], s2[k]}));
  add(2, kShift);
  for (int d = 0; d < 3; ++d) {
    c.map.row_node.push_back(2);
    c.map.row_dir.push_back(3 + d);
    c.map.row_id.push_back(3);
    c.rows.push_back(kTurn[d]);
  }
  for (double s : {0.0, 0.0, 1.0}) add(3, rigid({0, 0, s}));
  ccx::Deck deck;
  deck.node_ids = {1, 2, 3, 4};
  EXPECT_TRUE(ccx::map_expanded_rows(deck, c.e, c.map));
  return c;
}

TEST(CcxStructures, ProjectsARigidMotionOntoEveryKindOfNode) {
  RigidCase c = rigid_case();
  std::vector<double> by_node;
  ccx::project_rows(c.e, c.map, c.rows.data(), by_node);
  // The drilling rotation of a shell (about z here) is not available; all else is exact.
  const double expected[4][6] = {{1, 2, 3, 0.1, -0.2, 0},
                                 {1, 2, 3, 0.1, -0.2, 0.3},
                                 {1, 2, 3, 0.1, -0.2, 0.3},
                                 {1, 2, 3, 0.1, -0.2, 0}};
  for (int i = 0; i < 4; ++i)
    for (int k = 0; k < 6; ++k) EXPECT_NEAR(by_node[6 * i + k], expected[i][k], 1e-14) << i << k;
}

// The mass matrix of rigid_case's rows: the shell node's expanded nodes 1, 4, 1 (per direction),
// the beam corners 2 each, the knot 5 with a rotation block, the tied node 6, 3, 1; and an
// incompatible-mode row with mass that is no node's.
TEST(CcxStructures, SumsMassesOntoNodesWithTheInertiaOfTheirOffsets) {
  RigidCase c = rigid_case();
  std::vector<double> diagonal;
  const double shell[3] = {1, 4, 1}, tied[3] = {6, 3, 1};
  for (double m : shell) diagonal.insert(diagonal.end(), 3, m);
  diagonal.insert(diagonal.end(), 12, 2.0);
  diagonal.insert(diagonal.end(), 3, 5.0);
  diagonal.insert(diagonal.end(), {7.0, 8.0, 9.0});
  for (double m : tied) diagonal.insert(diagonal.end(), 3, m);
  diagonal.push_back(50.0);
  c.map.row_node.push_back(-1);
  c.map.row_dir.push_back(-1);
  c.map.row_slot.push_back(0);
  ccx::Matrices m;
  m.n = static_cast<int>(diagonal.size());
  for (int k = 0; k < m.n; ++k) {
    m.start.push_back(static_cast<int64_t>(m.row.size()));
    // A product of inertia between the knot's rotations about x and y.
    if (k == 25) {
      m.row.push_back(24);
      m.mass.push_back(0.5);
    }
    m.row.push_back(k);
    m.mass.push_back(diagonal[static_cast<size_t>(k)]);
  }
  m.start.push_back(static_cast<int64_t>(m.row.size()));
  std::vector<double> nodal, inertia;
  double total = 0.0;
  ASSERT_TRUE(ccx::lump_expanded_masses(m, c.map, c.e, {}, nodal, inertia, total));
  EXPECT_DOUBLE_EQ(total, 6 + 8 + 5 + 10);
  EXPECT_EQ(nodal, (std::vector<double>{6, 8, 5, 10}));
  // Shell: 1 + 1 at +-1 along z. Beam: 2 at each corner, +-2 y +-1 z. Knot: its rotation rows'
  // block. Tied: 1 at +1 along z (the node itself and the middle at 0).
  const double expected[4][6] = {
      {2, 2, 0, 0, 0, 0}, {40, 8, 32, 0, 0, 0}, {7, 8, 9, 0.5, 0, 0}, {1, 1, 0, 0, 0, 0}};
  for (int i = 0; i < 4; ++i)
    for (int k = 0; k < 6; ++k)
      EXPECT_NEAR(inertia[6 * i + k], expected[i][k], 1e-12) << i << " " << k;
}

}  // namespace
