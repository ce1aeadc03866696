// The skin of the mesh: the element faces that belong to one element only, each given by its
// corner nodes in order around the face and turned so that its normal points out of the element.
#include <algorithm>
#include <array>

#include "ccx2krx.h"

namespace ccx {

namespace {

// Corner positions of each face, in order around it; 4th entry -1 for a triangle. Midside nodes
// are left off: the corners alone make flat polygons, and the outline they draw is the mesh's.
const int kFaces[3][6][4] = {
    // tetrahedron
    {{0, 1, 2, -1},
     {0, 1, 3, -1},
     {1, 2, 3, -1},
     {0, 2, 3, -1},
     {-1, -1, -1, -1},
     {-1, -1, -1, -1}},
    // wedge
    {{0, 1, 2, -1}, {3, 4, 5, -1}, {0, 1, 4, 3}, {1, 2, 5, 4}, {2, 0, 3, 5}, {-1, -1, -1, -1}},
    // hexahedron
    {{0, 1, 2, 3}, {4, 5, 6, 7}, {0, 1, 5, 4}, {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 0, 4, 7}},
};

int face_count(int shape) { return shape == 0 ? 4 : shape == 1 ? 5 : 6; }

int face_size(int shape, int face) { return kFaces[shape][face][3] < 0 ? 3 : 4; }

// A face found in the mesh, keyed by its sorted nodes so that the two sides of an inner face meet.
struct FaceRecord {
  std::array<int, 4> key;
  int element;
  int face;
  bool operator<(const FaceRecord &o) const { return key < o.key; }
};

std::array<double, 3> point(const Deck &deck, int id) {
  int i = node_index(deck, id);
  return {deck.xyz[3 * i], deck.xyz[3 * i + 1], deck.xyz[3 * i + 2]};
}

// Turns the face so that its normal (Newell's, which also serves a warped quadrilateral) points
// away from the centre of the element's corners.
Face oriented_face(const Deck &deck, const Element &e, int face) {
  Face f;
  f.count = face_size(e.shape, face);
  for (int k = 0; k < f.count; ++k) f.ids[k] = e.nodes[kFaces[e.shape][face][k]];
  std::array<double, 3> normal = {0, 0, 0}, centre = {0, 0, 0}, inside = {0, 0, 0};
  for (int k = 0; k < f.count; ++k) {
    std::array<double, 3> a = point(deck, f.ids[k]), b = point(deck, f.ids[(k + 1) % f.count]);
    normal[0] += (a[1] - b[1]) * (a[2] + b[2]);
    normal[1] += (a[2] - b[2]) * (a[0] + b[0]);
    normal[2] += (a[0] - b[0]) * (a[1] + b[1]);
    for (int d = 0; d < 3; ++d) centre[d] += a[d] / f.count;
  }
  int corners = corner_count(e.shape);
  for (int k = 0; k < corners; ++k) {
    std::array<double, 3> c = point(deck, e.nodes[k]);
    for (int d = 0; d < 3; ++d) inside[d] += c[d] / corners;
  }
  double dot = 0.0;
  for (int d = 0; d < 3; ++d) dot += normal[d] * (centre[d] - inside[d]);
  if (dot < 0.0) std::reverse(f.ids, f.ids + f.count);
  return f;
}

}  // namespace

bool collect_skin(const Deck &deck, std::vector<Face> &faces) {
  std::vector<FaceRecord> records;
  size_t expected = 0;
  for (const Element &e : deck.elements) expected += static_cast<size_t>(face_count(e.shape));
  records.reserve(expected);
  for (size_t i = 0; i < deck.elements.size(); ++i) {
    const Element &e = deck.elements[i];
    for (int f = 0; f < face_count(e.shape); ++f) {
      FaceRecord r{{-1, -1, -1, -1}, static_cast<int>(i), f};
      int n = face_size(e.shape, f);
      for (int k = 0; k < n; ++k) r.key[k] = e.nodes[kFaces[e.shape][f][k]];
      // Node ids are positive, so a triangle's unused slot sorts first: a triangle sorts before
      // every quadrilateral of the same smallest nodes and never meets one.
      std::sort(r.key.begin(), r.key.end());
      records.push_back(r);
    }
  }
  std::sort(records.begin(), records.end());
  faces.clear();
  for (size_t i = 0; i < records.size();) {
    size_t j = i + 1;
    while (j < records.size() && records[j].key == records[i].key) ++j;
    if (j == i + 1)
      faces.push_back(oriented_face(deck, deck.elements[records[i].element], records[i].face));
    i = j;
  }
  if (faces.empty()) return failed("the mesh has no outer face");
  return true;
}

}  // namespace ccx
