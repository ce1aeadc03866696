// Growth without timing: every structure that a host fills one item at a time through the entries
// must grow geometrically. The counting allocator counts the allocations made while n items join
// a structure; a hundred times the items may cost a few more allocations, never a hundred times
// as many (a list that grows by one, or by a fixed step, shows up here as a count that scales
// with n).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <functional>

#include "counting_new.h"
#include "host/krx_fortran.h"
#include "krx/krx.h"

namespace {

int quiet_note(const char *) { return 0; }
int quiet_error(int, const char *) { return 0; }
int quiet_inquiry(int *key) { return *key == 4 ? 1 : 0; }

// Identifiers spread out, so that no structure can lean on them being dense.
int id_of(int i) { return 7 * i + 3; }

// Adds item i (0-based) of n through an entry; false when the entry failed.
using Add = std::function<bool(int i, int n)>;

struct Growth {
  Add add;
  bool nodes_first = false;  // the n nodes exist before counting
  bool modes_per_item = false;  // mode capacity n, else 1
};

bool add_node(int i, int) {
  int id = id_of(i), status = 0;
  double xyz[3] = {double(i), 0.0, 0.0};
  KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
  return status == 0;
}

// Allocations made while n items are added to a fresh model.
long allocations(const Growth &g, int n) {
  int status = 0, nodes = n, modes = g.modes_per_item ? n : 1;
  KRX_CREATE(&nodes, &modes, &status);
  EXPECT_EQ(0, status);
  for (int i = 0; g.nodes_first && i < n; ++i) add_node(i, n);
  int fails = 0;
  countingnew::counting();
  for (int i = 0; i < n; ++i) fails += g.add(i, n) ? 0 : 1;
  long made = countingnew::calls;
  countingnew::disarm();
  EXPECT_EQ(0, fails) << "entries failed while adding " << n << " items";
  KRX_TERMINATE(&status);
  return made;
}

// The vector setters and the generalized-matrix setters share this form.
using Entry = void (*)(int *, int *, double *, int *);

// A vector of one mode at node i.
Add vectors(Entry entry, int mode) {
  return [=](int i, int) {
    int id = id_of(i), status = 0, m = mode;
    double v[6] = {1, 2, 3, 4, 5, double(i)};
    entry(&m, &id, v, &status);
    return status == 0;
  };
}

// Entries are appended, never merged: n entries of one pair make a list of n (the three matrices
// share one append); with new_modes, item i is the diagonal entry of mode i + 1.
Add matrix_entries(Entry entry, bool new_modes = false) {
  return [=](int i, int) {
    int row = new_modes ? i + 1 : 1, column = row, status = 0;
    double value = 1.0;
    entry(&row, &column, &value, &status);
    return status == 0;
  };
}

struct GrowthTest : ::testing::Test {
  void SetUp() override { krx_register_host_callbacks(quiet_note, quiet_error, quiet_inquiry); }
  void TearDown() override {
    countingnew::disarm();
    krx_register_host_callbacks(nullptr, nullptr, nullptr);
  }

  // Both sizes; the larger may need at most a few times the allocations of the smaller.
  void expect_geometric(const char *what, const std::function<long(int n)> &count) {
    long small = count(1000);
    long large = count(100000);
    std::printf("%-30s %6ld allocations for 1,000 items, %6ld for 100,000\n", what, small, large);
    EXPECT_LE(large, 3 * small + 8) << what;
  }
  void expect_geometric(const char *what, const Growth &g) {
    expect_geometric(what, [&](int n) { return allocations(g, n); });
  }
};

TEST_F(GrowthTest, NodeTableAndVectorNodeLists) {
  expect_geometric("node table", {add_node});
  expect_geometric("mode shapes, nodes added", {vectors(KRX_SET_MODE_SHAPE_VEC, 1)});
  // Stress (and strain, the same way) keeps a node list of its own beside the node table; mode 0
  // carries the pre-stress, six values per node of that list.
  expect_geometric("modal stress node list", {vectors(KRX_SET_MODAL_STRESS_VEC, 1), true});
  expect_geometric("pre-stress", {vectors(KRX_SET_MODAL_STRESS_VEC, 0), true});
}

// The write lists the nodes that sit at the origin: a list that grows with every such node.
TEST_F(GrowthTest, WriteOfNodesAtTheOrigin) {
  const std::string out = std::string(std::getenv("TMP") ? std::getenv("TMP") : "/tmp") +
                          "/growth_at_origin.krx";
  auto count = [&](int n) -> long {
    int status = 0, nodes = n, modes = 1;
    KRX_CREATE(&nodes, &modes, &status);
    for (int i = 0; i < n; ++i) {
      int id = id_of(i);
      double xyz[3] = {0.0, 0.0, 0.0};
      KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
    }
    countingnew::counting();
    KRX_WRITE_KRX(out.c_str(), &status, int(out.size()));
    long made = countingnew::calls;
    countingnew::disarm();
    EXPECT_EQ(0, status);
    KRX_TERMINATE(&status);
    std::remove(out.c_str());
    return made;
  };
  expect_geometric("write, nodes at the origin", count);
}

TEST_F(GrowthTest, FacesAndInterfaceNodes) {
  Add face = [](int i, int n) {
    int ids[4] = {id_of(i), id_of((i + 1) % n), id_of((i + 2) % n), id_of((i + 3) % n)};
    int count = 4, status = 0;
    KRX_SET_FACE(&count, ids, &status);
    return status == 0;
  };
  expect_geometric("faces", {face, true});
  Add mark = [](int i, int) {
    int id = id_of(i), status = 0;
    KRX_SET_INTERFACE_NODE(&id, &status);
    return status == 0;
  };
  expect_geometric("interface nodes", {mark, true});
}

TEST_F(GrowthTest, ModeRegistryAndModalLists) {
  expect_geometric("generalized mass entries", {matrix_entries(KRX_SET_GENERALIZED_MASS)});
  expect_geometric("mode registry",
                   {matrix_entries(KRX_SET_GENERALIZED_STIFFNESS, true), false, true});
  Add preload = [](int i, int) {
    int mode = i + 1, status = 0;
    double value = 0.5;
    KRX_SET_MODAL_PRELOAD(&mode, &value, &status);
    return status == 0;
  };
  expect_geometric("modal preload", {preload, false, true});
  Add load = [](int i, int) {
    int load_case = 1, mode = i + 1, status = 0;
    double value = 0.5;
    KRX_SET_MODAL_LOAD(&load_case, &mode, &value, &status);
    return status == 0;
  };
  expect_geometric("modal loads of one case", {load, false, true});
}

}  // namespace
