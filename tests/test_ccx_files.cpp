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

// Four integers, the eigenvalues, both matrices (diagonal and off-diagonal entries, extra more in
// the stiffness), then the eigenvectors: built here byte by byte.
void write_eig(const std::string &path, int rows, int off_diagonal, int modes, bool cut,
               int extra = 0) {
  std::ofstream out(path, std::ios::binary);
  int32_t head[4] = {0, 1, 0, modes};
  out.write(reinterpret_cast<const char *>(head), sizeof head);
  for (int k = 0; k < modes + 2 * (rows + off_diagonal) + extra; ++k) {
    double v = k < modes ? 100.0 * (k + 1) : -1.0;
    out.write(reinterpret_cast<const char *>(&v), sizeof v);
  }
  for (int j = 1; j <= modes; ++j)
    for (int r = 0; r < rows - (cut && j == modes ? 1 : 0); ++r) {
      double v = 10.0 * j + r;
      out.write(reinterpret_cast<const char *>(&v), sizeof v);
    }
}

// Extra stiffness entries (a model held by *BOUNDARY) move the eigenvectors back; a file cut
// short, or one of another matrix pattern, is refused.
TEST(CcxFiles, ReadsDoublePrecisionEigenvectorsByMode) {
  krxtest::TempDir dir;
  const struct {
    const char *name;
    int extra, off_diagonal;
    bool cut, ok;
  } cases[] = {{"plain", 0, 2, false, true},
               {"extra stiffness entries", 5, 2, false, true},
               {"cut short", 0, 2, true, false},
               {"another pattern", 0, 3, false, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    write_eig(dir.file("m.eig"), 3, 2, 2, c.cut, c.extra);
    ccx::EigenFile eig;
    ASSERT_EQ(ccx::open_eigen_file(dir.file("m.eig"), 3, c.off_diagonal, eig), c.ok);
    if (c.ok) {
      EXPECT_EQ(eig.eigenvalues, (std::vector<double>{100.0, 200.0}));
      std::vector<double> v;
      ASSERT_TRUE(ccx::read_eigenvector(eig, 2, v));
      EXPECT_EQ(v, (std::vector<double>{20.0, 21.0, 22.0}));
    }
    ccx::close_eigen_file(eig);
  }
}

}  // namespace
