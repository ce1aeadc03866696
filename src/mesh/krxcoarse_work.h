// Working tables of one coarsening run, shared by the driver (krxcoarse.cpp) and the fan merging
// and co-linear removal (krxcoarse_merge.cpp). Private to the mesh folder.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "model/krxdata.h"

namespace krx {

struct WorkFace {
  std::vector<int32_t> vertices;  // node positions; empty once consumed by a merge
  std::array<double, 3> normal{};
};

struct WorkNode {
  std::vector<int32_t> faces;  // positions in the working face table
  double x = 0.0, y = 0.0, z = 0.0;
  bool entry = true;  // false: preserved, used by no face, or eliminated
};

struct Coarsening {
  std::vector<WorkFace> faces;
  std::vector<WorkNode> nodes;
  bool faces_built = false;
  bool nodes_built = false;
  double model_size = 0.0;      // diagonal of the bounding box of all nodes
  double distance_limit = 0.0;  // squared
  double cos_limit = 1.0;
  // Per face, the nodes whose face lists name it: a merge rewrites exactly those lists instead
  // of scanning every node above the eliminated one.
  std::vector<std::vector<int32_t>> referrers;
  // Scratch kept between nodes.
  std::vector<int32_t> polygon;
  std::vector<char> merged, reversed, invalid;
  std::vector<int32_t> same_next;
  std::vector<int32_t> seen_stamp, seen_at;  // per node
  int32_t stamp = 0;
};

inline bool has_entry(const Coarsening &c, int32_t node) {
  return node >= 0 && node < int32_t(c.nodes.size()) && c.nodes[size_t(node)].entry;
}

// Merges node i's fan when it can; the node loses its entry when its fan closed around it.
// Throws std::bad_alloc.
void eliminate_node(Coarsening &c, int32_t i);
// Drops vertices that lie nearly on a straight line between short edges (faces of 4 or more).
void remove_colinear_vertices(Coarsening &c);

}  // namespace krx
