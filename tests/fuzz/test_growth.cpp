// Growth without timing: every structure that a host fills one item at a time through the entries
// must grow geometrically. The counting allocator counts the allocations made while n items join
// a structure; a hundred times the items may cost a few more allocations, never a hundred times
// as many (a list that grows by one, or by a fixed step, shows up here as a count that scales
// with n).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "counting_new.h"
#include "host/krx_fortran.h"
#include "krx/krx.h"

namespace {

int quiet_note(const char *) { return 0; }
int quiet_error(int, const char *) { return 0; }
int quiet_inquiry(int *key) { return *key == 4 ? 1 : 0; }

// Identifiers spread out, so that no structure can lean on them being dense.
int id_of(int i) { return 7 * i + 3; }

void add_node(int i, double x) {
  int id = id_of(i), status = 0;
  double xyz[3] = {x, 0.0, 0.0};
  KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
}

// Adds item i of n through an entry and returns its status; the entries of one form share a
// function: vectors of one mode at node i, or generalized-matrix entries (appended, never merged:
// n entries of one pair make a list of n; with new modes, item i is the diagonal of mode i + 1).
using Add = int (*)(int i, int n);
template <void (*entry)(int *, int *, double *, int *), int mode>
int vector_at(int i, int) {
  int id = id_of(i), status = 0, m = mode;
  double v[6] = {1, 2, 3, 4, 5, double(i)};
  entry(&m, &id, v, &status);
  return status;
}
template <void (*entry)(int *, int *, double *, int *), bool new_modes>
int matrix_entry(int i, int) {
  int row = new_modes ? i + 1 : 1, column = row, status = 0;
  double value = 1.0;
  entry(&row, &column, &value, &status);
  return status;
}
int node(int i, int) { return add_node(i, double(i)), 0; }
int face(int i, int n) {
  int ids[4] = {id_of(i), id_of((i + 1) % n), id_of((i + 2) % n), id_of((i + 3) % n)};
  int count = 4, status = 0;
  KRX_SET_FACE(&count, ids, &status);
  return status;
}
int interface_node(int i, int) {
  int id = id_of(i), status = 0;
  KRX_SET_INTERFACE_NODE(&id, &status);
  return status;
}
int preload(int i, int) {
  int mode = i + 1, status = 0;
  double value = 0.5;
  KRX_SET_MODAL_PRELOAD(&mode, &value, &status);
  return status;
}
int load(int i, int) {
  int load_case = 1, mode = i + 1, status = 0;
  double value = 0.5;
  KRX_SET_MODAL_LOAD(&load_case, &mode, &value, &status);
  return status;
}

struct Growth {
  const char *what;
  Add add;                       // null: the write of n nodes that all sit at the origin
  bool nodes_first = false;      // the n nodes exist before counting
  bool modes_per_item = false;   // mode capacity n, else 1
};

// Allocations made while n items are added to a fresh model (or while it is written).
long allocations(const Growth &g, int n, const std::string &out) {
  int status = 0, nodes = n, modes = g.modes_per_item ? n : 1, fails = 0;
  KRX_CREATE(&nodes, &modes, &status);
  EXPECT_EQ(0, status);
  for (int i = 0; (g.nodes_first || !g.add) && i < n; ++i) add_node(i, g.add ? double(i) : 0.0);
  countingnew::counting();
  if (g.add) {
    for (int i = 0; i < n; ++i) fails += g.add(i, n) ? 1 : 0;
  } else {
    KRX_WRITE_KRX(out.c_str(), &fails, int(out.size()));
  }
  long made = countingnew::calls;
  countingnew::disarm();
  EXPECT_EQ(0, fails) << "entries failed while adding " << n << " items";
  KRX_TERMINATE(&status);
  std::remove(out.c_str());
  return made;
}

TEST(Growth, EveryStructureFilledItemByItemGrowsGeometrically) {
  krx_register_host_callbacks(quiet_note, quiet_error, quiet_inquiry);
  const std::string out = std::string(std::getenv("TMP") ? std::getenv("TMP") : "/tmp") +
                          "/growth_at_origin.krx";
  // Stress (and strain, the same way) keeps a node list of its own beside the node table; mode 0
  // carries the pre-stress. The write lists the nodes that sit at the origin.
  const Growth cases[] = {
      {"node table", node},
      {"mode shapes, nodes added", vector_at<KRX_SET_MODE_SHAPE_VEC, 1>},
      {"modal stress node list", vector_at<KRX_SET_MODAL_STRESS_VEC, 1>, true},
      {"pre-stress", vector_at<KRX_SET_MODAL_STRESS_VEC, 0>, true},
      {"write, nodes at the origin", nullptr},
      {"faces", face, true},
      {"interface nodes", interface_node, true},
      {"generalized mass entries", matrix_entry<KRX_SET_GENERALIZED_MASS, false>},
      {"mode registry", matrix_entry<KRX_SET_GENERALIZED_STIFFNESS, true>, false, true},
      {"modal preload", preload, false, true},
      {"modal loads of one case", load, false, true},
  };
  for (const Growth &g : cases) {
    SCOPED_TRACE(g.what);
    long small = allocations(g, 1000, out), large = allocations(g, 100000, out);
    std::printf("%-30s %6ld allocations for 1,000 items, %6ld for 100,000\n", g.what, small, large);
    EXPECT_LE(large, 3 * small + 8);
  }
  krx_register_host_callbacks(nullptr, nullptr, nullptr);
}

}  // namespace
