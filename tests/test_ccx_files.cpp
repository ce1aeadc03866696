// ccx2krx's readers of CalculiX's files, fed hand-written snippets, and the lumped masses of a
// small matrix worked out by hand.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "ccx2krx.h"
#include "testsupport.h"

namespace {

// A file holding text, rewound for reading; closed by the caller.
std::FILE *snippet(const std::string &text) {
  std::FILE *f = std::tmpfile();
  std::fputs(text.c_str(), f);
  std::rewind(f);
  return f;
}

// Node 10 has x and y, node 20 has x only (its y held); node 30 is no solid element's.
const char *kDof = "10.1\n10.2\n20.1\n30.1\n";

// The upper triangle, column by column: x-x block [[4, 1], [1, 2]] on rows 0 and 2, y of node 10
// on row 1 with 3, a coupling of 0.5 between rows 1 and 3.
const char *kMass = "1 1  4.0\n2 2 3.0\n1 3 1.0\n3 3 2.0\n2 4 0.5\n4 4 1.0\n";

bool read_pair(const std::string &mass, const std::string &stiffness, ccx::Matrices &m) {
  m.n = 4;
  std::FILE *a = snippet(mass), *b = snippet(stiffness);
  bool ok = ccx::parse_matrix(a, "m", false, m, m.mass) &&
            ccx::parse_matrix(b, "k", true, m, m.stiffness);
  std::fclose(a);
  std::fclose(b);
  return ok;
}

TEST(CcxFiles, RefusesMatricesThatDoNotFitTheirPattern) {
  ccx::Matrices m;
  EXPECT_FALSE(read_pair(kMass, "1 1 4\n2 2 3\n1 3 1\n3 3 2\n", m)) << "one entry short";
  EXPECT_FALSE(read_pair(kMass, "1 1 4\n2 2 3\n2 3 1\n3 3 2\n2 4 .5\n4 4 1\n", m)) << "moved";
  EXPECT_FALSE(read_pair("3 1 1.0\n", "3 1 1.0\n", m)) << "below the diagonal";
  EXPECT_FALSE(read_pair("1 1 x\n", "1 1 x\n", m)) << "no number";
}

TEST(CcxFiles, MapsRowsToNodesAndLumpsByScaledDiagonalKeepingTheTotalMass) {
  ccx::Deck deck;
  deck.node_ids = {10, 20};
  ccx::DofMap map;
  std::FILE *f = snippet(kDof);
  ASSERT_TRUE(ccx::parse_dof_map(f, "dof", deck, map));
  std::fclose(f);
  EXPECT_EQ(map.row_node, (std::vector<int>{0, 0, 1, -1}));
  EXPECT_EQ(map.row_dir, (std::vector<int>{0, 1, 0, -1}));
  ccx::Matrices m;
  ASSERT_TRUE(read_pair(kMass, kMass, m));
  std::vector<double> nodal;
  double total = 0.0;
  ccx::MassSums sums;
  ccx::sum_masses(m, map, sums);
  ASSERT_TRUE(ccx::lump_masses(sums, map, 2, nodal, total));
  // x is the direction with most free rows: its block sums to 4 + 2 + 2 * 1.
  EXPECT_DOUBLE_EQ(total, 8.0);
  // Node 10 averages its diagonal (4 + 3) / 2, node 20 has 2: scaled by 8 / 5.5.
  EXPECT_DOUBLE_EQ(nodal[0], 3.5 * 8.0 / 5.5);
  EXPECT_DOUBLE_EQ(nodal[1], 2.0 * 8.0 / 5.5);
}

// Four integers, the eigenvalues, both matrices (diagonal and off-diagonal entries), then the
// eigenvectors, built here byte by byte: a file cut short, or one of another matrix pattern, is
// refused. (CalculiX's own files, held models with extra stiffness entries among them, are read in
// tests/calculix.)
TEST(CcxFiles, RefusesEigenFilesOfAnotherSize) {
  krxtest::TempDir dir;
  const int rows = 3, off_diagonal = 2, modes = 2;
  for (bool cut : {true, false}) {
    std::ofstream out(dir.file("m.eig"), std::ios::binary);
    int32_t head[4] = {0, 1, 0, modes};
    out.write(reinterpret_cast<const char *>(head), sizeof head);
    std::vector<double> values(modes + 2 * (rows + off_diagonal) + modes * rows - (cut ? 1 : 0));
    out.write(reinterpret_cast<const char *>(values.data()),
              static_cast<std::streamsize>(sizeof(double) * values.size()));
    out.close();
    ccx::EigenFile eig;
    EXPECT_FALSE(ccx::open_eigen_file(dir.file("m.eig"), rows, off_diagonal + (cut ? 0 : 1), eig))
        << (cut ? "cut short" : "another pattern");
    ccx::close_eigen_file(eig);
  }
}

}  // namespace
