// Growth without timing: every structure that a host fills one item at a time through the entries
// must grow geometrically. The counting allocator counts the allocations made while n items join
// a structure; a hundred times the items may cost a few more allocations, never a hundred times
// as many (a list that grows by one, or by a fixed step, shows up here as a count that scales
// with n).
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "counting_new.h"
#include "host/krx_fortran.h"
#include "krx/krx.h"

namespace {

int quiet_note(const char *) { return 0; }
int quiet_error(int, const char *) { return 0; }
int quiet_inquiry(int *key) { return *key == 4 ? 1 : 0; }

// Identifiers spread out, so that no structure can lean on them being dense.
int id_of(int i) { return 7 * i + 3; }

struct Growth {
  // Before counting: what the structure needs to exist (nodes for faces, say).
  std::function<void(int n)> prepare = [](int) {};
  // Adds item i (0-based) of n; false when the entry failed.
  std::function<bool(int i, int n)> add;
  bool modes_per_item = false;  // mode capacity n, else 1
};

int fails = 0;

// Allocations made while n items are added to a fresh model.
long allocations(const Growth &g, int n) {
  int status = 0, nodes = n, modes = g.modes_per_item ? n : 1;
  KRX_CREATE(&nodes, &modes, &status);
  EXPECT_EQ(0, status);
  g.prepare(n);
  fails = 0;
  countingnew::counting();
  for (int i = 0; i < n; ++i)
    if (!g.add(i, n)) ++fails;
  long made = countingnew::calls;
  countingnew::disarm();
  EXPECT_EQ(0, fails) << "entries failed while adding " << n << " items";
  KRX_TERMINATE(&status);
  return made;
}

void add_nodes(int n) {
  for (int i = 0; i < n; ++i) {
    int id = id_of(i), status = 0;
    double xyz[3] = {double(i), 0.0, 0.0};
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
  }
}

// Sets a six-value vector of one mode at node i through one of the vector entries.
bool vector_at(void (*entry)(int *, int *, double *, int *), int mode, int i) {
  int id = id_of(i), status = 0;
  double v[6] = {1, 2, 3, 4, 5, double(i)};
  entry(&mode, &id, v, &status);
  return status == 0;
}

bool matrix_entry(void (*entry)(int *, int *, double *, int *), int row, int column) {
  int status = 0;
  double value = 1.0;
  entry(&row, &column, &value, &status);
  return status == 0;
}

struct GrowthTest : ::testing::Test {
  void SetUp() override { krx_register_host_callbacks(quiet_note, quiet_error, quiet_inquiry); }
  void TearDown() override {
    countingnew::disarm();
    krx_register_host_callbacks(nullptr, nullptr, nullptr);
  }

  // Both sizes; the larger may need at most a few times the allocations of the smaller.
  void expect_geometric(const char *what, const Growth &g) {
    long small = allocations(g, 1000);
    long large = allocations(g, 100000);
    std::printf("%-34s %6ld allocations for 1,000 items, %6ld for 100,000\n", what, small, large);
    EXPECT_LE(large, 3 * small + 8) << what;
  }
};

TEST_F(GrowthTest, NodeTableAndVectorNodeLists) {
  expect_geometric("node table", {.add = [](int i, int) {
                                    int id = id_of(i), status = 0;
                                    double xyz[3] = {double(i), 0.0, 0.0};
                                    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
                                    return status == 0;
                                  }});
  expect_geometric("mode shapes, nodes added", {.add = [](int i, int) {
                                                  return vector_at(KRX_SET_MODE_SHAPE_VEC, 1, i);
                                                }});
  // Stress and strain keep a node list of their own beside the node table.
  expect_geometric("modal stress node list", {.prepare = add_nodes, .add = [](int i, int) {
                                                return vector_at(KRX_SET_MODAL_STRESS_VEC, 1, i);
                                              }});
  expect_geometric("modal strain node list", {.prepare = add_nodes, .add = [](int i, int) {
                                                return vector_at(KRX_SET_MODAL_STRAIN_VEC, 1, i);
                                              }});
  // Mode 0 carries the pre-stress: six values per node of the stress list.
  expect_geometric("pre-stress", {.prepare = add_nodes, .add = [](int i, int) {
                                    return vector_at(KRX_SET_MODAL_STRESS_VEC, 0, i);
                                  }});
  // The node hints cover hosts that go node after node; every other order uses the indexes.
  expect_geometric("modal stress, nodes backwards", {.prepare = add_nodes, .add = [](int i, int n) {
                                                       return vector_at(KRX_SET_MODAL_STRESS_VEC, 1,
                                                                        n - 1 - i);
                                                     }});
}

TEST_F(GrowthTest, FacesAndInterfaceNodes) {
  expect_geometric("faces", {.prepare = add_nodes, .add = [](int i, int n) {
                               int ids[4] = {id_of(i), id_of((i + 1) % n), id_of((i + 2) % n), id_of((i + 3) % n)};
                               int count = 4, status = 0;
                               KRX_SET_FACE(&count, ids, &status);
                               return status == 0;
                             }});
  expect_geometric("interface nodes", {.prepare = add_nodes, .add = [](int i, int) {
                                         int id = id_of(i), status = 0;
                                         KRX_SET_INTERFACE_NODE(&id, &status);
                                         return status == 0;
                                       }});
}

TEST_F(GrowthTest, ModeRegistryAndModalLists) {
  // Entries are appended, never merged: n entries of one pair make a list of n.
  expect_geometric("generalized mass entries", {.add = [](int, int) {
                                                  return matrix_entry(KRX_SET_GENERALIZED_MASS, 1, 1);
                                                }});
  expect_geometric("generalized stiffness entries", {.add = [](int, int) {
                                                       return matrix_entry(
                                                           KRX_SET_GENERALIZED_STIFFNESS, 1, 1);
                                                     }});
  expect_geometric("generalized damping entries", {.add = [](int, int) {
                                                     return matrix_entry(
                                                         KRX_SET_GENERALIZED_DAMPING, 1, 1);
                                                   }});
  expect_geometric("mode registry", {.add = [](int i, int) {
                                       return matrix_entry(KRX_SET_GENERALIZED_STIFFNESS, i + 1,
                                                           i + 1);
                                     },
                                     .modes_per_item = true});
  expect_geometric("modal preload", {.add = [](int i, int) {
                                       int mode = i + 1, status = 0;
                                       double value = 0.5;
                                       KRX_SET_MODAL_PRELOAD(&mode, &value, &status);
                                       return status == 0;
                                     },
                                     .modes_per_item = true});
  expect_geometric("modal loads of one case", {.add = [](int i, int) {
                                                 int load_case = 1, mode = i + 1, status = 0;
                                                 double value = 0.5;
                                                 KRX_SET_MODAL_LOAD(&load_case, &mode, &value,
                                                                    &status);
                                                 return status == 0;
                                               },
                                               .modes_per_item = true});
}

}  // namespace
