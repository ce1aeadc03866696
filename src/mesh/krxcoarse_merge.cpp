// Fan merging of one node (cleaning, chaining the fan into a polygon, updating the face lists of
// later nodes, pinch removal) and the removal of co-linear vertices.
#include <algorithm>
#include <cmath>

#include "mesh/krxcoarse_work.h"

namespace krx {
namespace {

// Drops faces that no longer contain node i and turns the rest so that node i leads.
void clean_fan(Coarsening &c, int32_t i) {
  std::vector<int32_t> &fan = c.nodes[size_t(i)].faces;
  auto lacks_i = [&](int32_t f) {
    const std::vector<int32_t> &v = c.faces[size_t(f)].vertices;
    return std::find(v.begin(), v.end(), i) == v.end();
  };
  fan.erase(std::remove_if(fan.begin(), fan.end(), lacks_i), fan.end());
  for (int32_t f : fan) {
    std::vector<int32_t> &v = c.faces[size_t(f)].vertices;
    std::rotate(v.begin(), std::find(v.begin(), v.end(), i), v.end());
  }
}

// Vertex j of a fan face; a reversed face reads its vertices after the first backwards.
int32_t fan_vertex(const std::vector<int32_t> &v, bool reversed, size_t j) {
  return reversed && j > 0 ? v[v.size() - j] : v[j];
}

// The first fan face not yet merged that continues the chain at `last`: by its second vertex,
// else by its last vertex (then read reversed). -1 when there is none.
int32_t next_fan_face(Coarsening &c, const std::vector<int32_t> &fan, int32_t last) {
  for (size_t t = 0; t < fan.size(); ++t) {
    const std::vector<int32_t> &v = c.faces[size_t(fan[t])].vertices;
    if (!c.merged[t] && v.size() >= 2 && v[1] == last) {
      c.reversed[t] = 0;
      return int32_t(t);
    }
  }
  for (size_t t = 0; t < fan.size(); ++t) {
    const std::vector<int32_t> &v = c.faces[size_t(fan[t])].vertices;
    if (!c.merged[t] && v.size() >= 2 && v.back() == last) {
      c.reversed[t] = 1;
      return int32_t(t);
    }
  }
  return -1;
}

// One attempt to chain the whole fan into c.polygon, beginning with fan face `start`.
bool chain_fan(Coarsening &c, const std::vector<int32_t> &fan, size_t start, bool reverse_start) {
  c.merged.assign(fan.size(), 0);
  c.reversed.assign(fan.size(), 0);
  c.polygon.clear();
  const std::vector<int32_t> &first = c.faces[size_t(fan[start])].vertices;
  for (size_t j = 1; j < first.size(); ++j)
    c.polygon.push_back(fan_vertex(first, reverse_start, j));
  c.merged[start] = 1;
  for (size_t remaining = fan.size() - 1; remaining > 0; --remaining) {
    if (c.polygon.empty()) return false;
    int32_t t = next_fan_face(c, fan, c.polygon.back());
    if (t < 0) return false;
    const std::vector<int32_t> &v = c.faces[size_t(fan[size_t(t)])].vertices;
    for (size_t j = 2; j < v.size(); ++j)
      c.polygon.push_back(fan_vertex(v, c.reversed[size_t(t)], j));
    c.merged[size_t(t)] = 1;
  }
  return true;
}

// Start faces in list order as they stand, then again with the start face reversed (position 0
// unreversed). Returns the start position that succeeded, or -1.
int32_t merge_fan(Coarsening &c, const std::vector<int32_t> &fan) {
  size_t k = fan.size();
  for (size_t attempt = 0; attempt < 2 * k; ++attempt) {
    size_t start = attempt % k;
    bool reverse = attempt >= k && start > 0;
    if (attempt == k) continue;  // position 0 unreversed again: the first attempt failed already
    if (chain_fan(c, fan, start, reverse)) return int32_t(start);
  }
  return -1;
}

// Later nodes that named a consumed fan face now name the polygon's face instead; a changed list
// is sorted and freed of repeats. Earlier nodes are never visited again and are left as they are.
void redirect_face_lists(Coarsening &c, int32_t i, const std::vector<int32_t> &fan) {
  int32_t target = fan.front();
  std::vector<int32_t> &gained = c.referrers[size_t(target)];
  for (int32_t g : fan) {
    if (g == target) continue;
    for (int32_t j : c.referrers[size_t(g)]) {
      if (j <= i || !c.nodes[size_t(j)].entry) continue;
      std::vector<int32_t> &list = c.nodes[size_t(j)].faces;
      if (std::find(list.begin(), list.end(), g) == list.end()) continue;
      bool had_target = std::find(list.begin(), list.end(), target) != list.end();
      std::replace(list.begin(), list.end(), g, target);
      std::sort(list.begin(), list.end());
      list.erase(std::unique(list.begin(), list.end()), list.end());
      if (!had_target) gained.push_back(j);
    }
    std::vector<int32_t>().swap(c.referrers[size_t(g)]);
  }
  gained.erase(std::remove_if(gained.begin(), gained.end(), [i](int32_t j) { return j <= i; }),
               gained.end());
}

// Marks the vertices from..to-1 that still have working entries.
void mark_range(Coarsening &c, const std::vector<int32_t> &poly, size_t from, size_t to) {
  for (size_t p = from; p < to; ++p)
    if (has_entry(c, poly[p])) c.invalid[p] = 1;
}

// Cuts the loops that a polygon makes where it passes one vertex twice: a short loop goes, and a
// long one that leaves only a short remainder keeps the loop and drops the remainder.
void remove_pinches(Coarsening &c, std::vector<int32_t> &poly) {
  size_t m = poly.size();
  size_t t = size_t(double(m) * 0.3);
  c.invalid.assign(m, 0);
  // same_next[p]: the next later position of the same vertex, found walking backwards with the
  // last position seen of each node (stamped per polygon, so nothing is cleared between nodes).
  c.same_next.assign(m, -1);
  c.stamp += 1;
  for (size_t p = m; p-- > 0;) {
    int32_t v = poly[p];
    if (v < 0 || v >= int32_t(c.nodes.size())) continue;
    if (c.seen_stamp[size_t(v)] == c.stamp) c.same_next[p] = c.seen_at[size_t(v)];
    c.seen_stamp[size_t(v)] = c.stamp;
    c.seen_at[size_t(v)] = int32_t(p);
  }
  for (size_t p = 0; p < m; ++p) {
    if (c.invalid[p]) continue;
    for (int32_t q = c.same_next[p]; q >= 0; q = c.same_next[size_t(q)]) {
      size_t gap = size_t(q) - p;
      if (gap >= t) {
        if (m - gap < t) {
          mark_range(c, poly, 0, p);
          mark_range(c, poly, size_t(q), m);
        }
      } else {
        mark_range(c, poly, p + 1, size_t(q));
      }
    }
  }
  size_t kept = 0;
  for (size_t p = 0; p < m; ++p)
    if (!c.invalid[p]) poly[kept++] = poly[p];
  poly.resize(kept);
  // A closing repetition of the first vertex goes even when that vertex could not be marked.
  if (poly.size() >= 2 && poly.front() == poly.back()) poly.pop_back();
}

double squared_distance(const WorkNode &a, const WorkNode &b) {
  double dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return dx * dx + dy * dy + dz * dz;
}

bool keep_vertex(const Coarsening &c, int32_t p, int32_t cur, int32_t n, double limit,
                 double cos_limit) {
  if (!has_entry(c, p) || !has_entry(c, cur) || !has_entry(c, n)) return true;
  const WorkNode &P = c.nodes[size_t(p)], &C = c.nodes[size_t(cur)], &N = c.nodes[size_t(n)];
  double back = squared_distance(P, C);
  if (back == 0.0) return false;
  double ahead = squared_distance(N, C);
  if (back > limit || ahead == 0.0 || ahead > limit) return true;
  double dot = (P.x - C.x) * (N.x - C.x) + (P.y - C.y) * (N.y - C.y) + (P.z - C.z) * (N.z - C.z);
  return std::fabs(dot / std::sqrt(back * ahead)) < cos_limit;
}

}  // namespace

void eliminate_node(Coarsening &c, int32_t i) {
  clean_fan(c, i);
  const std::vector<int32_t> fan = c.nodes[size_t(i)].faces;
  if (fan.empty()) return;
  int32_t start = merge_fan(c, fan);
  if (start < 0) return;
  std::array<double, 3> normal = c.faces[size_t(fan[size_t(start)])].normal;
  std::vector<int32_t> polygon = c.polygon;
  if (polygon.empty()) return;  // a fan of one single-vertex face chains into nothing
  if (polygon.front() != polygon.back()) {
    polygon.push_back(i);  // node i lies on an open edge of the outline and stays a vertex
  } else {
    c.nodes[size_t(i)].entry = false;
  }
  for (int32_t f : fan) std::vector<int32_t>().swap(c.faces[size_t(f)].vertices);
  WorkFace &merged = c.faces[size_t(fan.front())];
  merged.vertices = std::move(polygon);
  merged.normal = normal;
  redirect_face_lists(c, i, fan);
  remove_pinches(c, merged.vertices);
}

void remove_colinear_vertices(Coarsening &c) {
  double limit = 0.05 * c.model_size * 0.05 * c.model_size;
  double cos_limit = std::cos(0.17453292519943295);
  for (WorkFace &face : c.faces) {
    std::vector<int32_t> &v = face.vertices;
    size_t m = v.size();
    if (m < 4) continue;
    // Compacting in place: for the last vertex, v[0] already holds the first kept vertex.
    int32_t previous = v[m - 1];
    size_t kept = 0;
    for (size_t j = 0; j < m; ++j) {
      int32_t current = v[j];
      int32_t next = j + 1 < m ? v[j + 1] : v[0];
      if (!keep_vertex(c, previous, current, next, limit, cos_limit)) continue;
      v[kept++] = current;
      previous = current;
    }
    v.resize(kept);
  }
}

}  // namespace krx
