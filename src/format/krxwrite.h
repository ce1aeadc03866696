// The writer: turns a model into one Korex. write_krx runs the whole pipeline (options, model
// processing, content flags, summary, blocks 1 to 32) into a new file that replaces the output
// only when everything succeeded.
// The steps below it are shared by the pipeline's source files and by the tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// The whole write of a model to path; 1 on success, 0 on failure (the path then holds what it
// held before: the old file or nothing).
int write_krx(KRXDATA *model, const char *path);

// Node reduction: keeps only the nodes of the face node set (faces and interface nodes), rewrites
// mode shapes, modal stresses and strains into shortened mode files, renumbers faces, interface
// nodes, stress and strain node lists. 1 on success; with no face information all nodes are kept
// and 0 is returned (the message comes from the face node set).
int reduce_to_face_nodes(KRXDATA *model);
// Node reduction to an explicit sorted list of node positions.
int reduce_to_nodes(KRXDATA *model, const std::vector<int32_t> &kept);

// Total mass, centre of mass and inertia tensor from invariants 1, 2 and 7, stored as the global
// body properties with the products of inertia negated.
void global_properties_from_invariants(KRXDATA *model);

// Modal statistics slots. reals[s] is the largest magnitude of the quantity of slot s over the
// nodes of one mode, ints[s] the id of the node where it occurs (first such node):
//   0 translation |(dx, dy, dz)|, scaled by L on a unit change
//   1 small rotation |(ax, ay, az)|
//   2 von Mises stress, scaled by F/L^2 on a unit change
//   3 von Mises strain (equivalent strain with engineering shears)
// The other nine int and nine real slots are written as 0.
constexpr int kStatTranslation = 0;
constexpr int kStatRotation = 1;
constexpr int kStatStress = 2;
constexpr int kStatStrain = 3;
double von_mises_stress(const double s[6]);
double von_mises_strain(const double e[6]);
// Updates a statistics record with the six values of one node of a record of the kind.
void update_statistics(ModalStatistics &stats, int kind, int32_t node_id, const double values[6]);

}  // namespace krx
