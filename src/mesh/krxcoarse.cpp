// Mesh coarsening: the argument string, the working tables, the nodes that must stay, the pass
// over all nodes in increasing position, and the rebuild of the face list.
#include "mesh/krxcoarse.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/krxmsg.h"
#include "mesh/krxcoarse_work.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxcoarse";
constexpr int kProgressSteps = 100;

struct CoarsenSettings {
  double resolution = 0.02;  // fraction of the model size
  double angle = 10.0;       // degrees
  long colinear = 0;
  std::vector<int32_t> preserve_ids;
  bool preserve_str = false;
};

// Each number is followed by one separating character, which is skipped unless the string ends
// there. A number that cannot be read gives 0 and skips nothing.
const char *read_real(const char *at, double &value) {
  char *end = nullptr;
  value = std::strtod(at, &end);
  if (end == at) {
    value = 0.0;
    return at;
  }
  return *end ? end + 1 : end;
}

const char *read_integer(const char *at, long &value) {
  char *end = nullptr;
  value = std::strtol(at, &end, 10);
  if (end == at) {
    value = 0;
    return at;
  }
  return *end ? end + 1 : end;
}

CoarsenSettings parse_arguments(const char *text) {
  CoarsenSettings settings;
  const char *at = text ? text : "";
  double resolution = 0.0, angle = 0.0;
  at = read_real(at, resolution);
  at = read_real(at, angle);
  at = read_integer(at, settings.colinear);
  if (resolution > 0.0 && resolution <= 0.5) {
    settings.resolution = resolution;
  } else {
    warning(
        "Coarsening resolution outside the 0-50 percent range not supported.  You selected "
        "%lf\n",
        resolution * 100.0);
  }
  if (angle > 0.0 && angle <= 45.0) {
    settings.angle = angle;
  } else {
    warning("Face angles outside the 0-45 degree range not supported.  You selected %lf\n", angle);
  }
  // The id list ends at the first 0, which is also what a word gives; the keyword may follow.
  for (;;) {
    long id = 0;
    const char *next = read_integer(at, id);
    if (id == 0) break;
    settings.preserve_ids.push_back(int32_t(id));
    at = next;
  }
  settings.preserve_str = std::strstr(at, "preserve_str") != nullptr;
  return settings;
}

bool build_face_table(Coarsening &c, const KRXDATA &model) {
  const std::vector<int32_t> &list = model.faces;
  if (model.face_count <= 0 || list.empty()) return false;
  c.faces.resize(size_t(model.face_count));
  size_t at = 0;
  for (WorkFace &face : c.faces) {
    if (at >= list.size()) return false;
    int32_t count = list[at];
    if (count < 0 || size_t(count) > list.size() - at - 1) return false;
    face.vertices.assign(list.begin() + long(at) + 1, list.begin() + long(at) + 1 + count);
    at += size_t(count) + 1;
  }
  return true;
}

bool build_node_table(Coarsening &c, const KRXDATA &model) {
  if (model.nodes.empty()) return false;
  c.nodes.resize(model.nodes.size());
  std::array<double, 3> low{model.nodes[0].x, model.nodes[0].y, model.nodes[0].z}, high = low;
  for (size_t n = 0; n < model.nodes.size(); ++n) {
    const NodeRecord &record = model.nodes[n];
    WorkNode &node = c.nodes[n];
    node.x = record.x;
    node.y = record.y;
    node.z = record.z;
    std::array<double, 3> p{record.x, record.y, record.z};
    for (int a = 0; a < 3; ++a) {
      low[a] = std::min(low[a], p[a]);
      high[a] = std::max(high[a], p[a]);
    }
  }
  double dx = high[0] - low[0], dy = high[1] - low[1], dz = high[2] - low[2];
  c.model_size = std::sqrt(dx * dx + dy * dy + dz * dz);
  return true;
}

// A failure leaves the table missing; the caller reports the failed trim later.
void build_tables(Coarsening &c, const KRXDATA &model) {
  try {
    c.faces_built = build_face_table(c, model);
  } catch (const std::bad_alloc &) {
    c.faces_built = false;
  }
  if (!c.faces_built) {
    KRX_REPORT_ALLOC(kSource);
    c.faces.clear();
  }
  try {
    c.nodes_built = build_node_table(c, model);
  } catch (const std::bad_alloc &) {
    c.nodes_built = false;
  }
  if (!c.nodes_built) {
    KRX_REPORT_ALLOC(kSource);
    c.nodes.clear();
  }
}

// Every face is listed at each of its vertex nodes (twice where it names a node twice); a node
// that no face uses loses its entry.
void link_faces_to_nodes(Coarsening &c) {
  c.referrers.resize(c.faces.size());
  for (size_t f = 0; f < c.faces.size(); ++f) {
    std::vector<int32_t> &referrers = c.referrers[f];
    for (int32_t v : c.faces[f].vertices) {
      if (v < 0 || v >= int32_t(c.nodes.size())) continue;
      c.nodes[size_t(v)].faces.push_back(int32_t(f));
      referrers.push_back(v);
    }
    std::sort(referrers.begin(), referrers.end());
    referrers.erase(std::unique(referrers.begin(), referrers.end()), referrers.end());
  }
  for (WorkNode &node : c.nodes)
    if (node.faces.empty()) node.entry = false;
  c.seen_stamp.assign(c.nodes.size(), 0);
  c.seen_at.assign(c.nodes.size(), 0);
}

// (p2 - p1) x (p0 - p1), made unit unless it is exactly zero; only the first three vertices count.
void compute_normals(Coarsening &c) {
  int32_t node_total = int32_t(c.nodes.size());
  for (WorkFace &face : c.faces) {
    const std::vector<int32_t> &v = face.vertices;
    if (v.size() < 3) continue;
    if (std::any_of(v.begin(), v.begin() + 3, [&](int32_t n) { return n < 0 || n >= node_total; }))
      continue;
    const WorkNode &p0 = c.nodes[size_t(v[0])], &p1 = c.nodes[size_t(v[1])],
                   &p2 = c.nodes[size_t(v[2])];
    double ax = p2.x - p1.x, ay = p2.y - p1.y, az = p2.z - p1.z;
    double bx = p0.x - p1.x, by = p0.y - p1.y, bz = p0.z - p1.z;
    std::array<double, 3> n{ay * bz - az * by, az * bx - ax * bz, ax * by - ay * bx};
    double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (length != 0.0)
      for (double &value : n) value /= length;
    face.normal = n;
  }
}

// Removes the entry of a node that must stay and names it; false when there was none to remove.
bool preserve_if_entry(Coarsening &c, const KRXDATA &model, int32_t position) {
  if (!has_entry(c, position)) return false;
  c.nodes[size_t(position)].entry = false;
  note("%d ", model.nodes[size_t(position)].id);
  return true;
}

void preserve_nodes(Coarsening &c, KRXDATA *model, const CoarsenSettings &settings) {
  index_nodes(*model);  // a failed build ends the coarsening rather than losing a preserved node
  note("Preserving nodes: ");
  int preserved = 0;
  for (int32_t position : model->interface_nodes) {
    if (position < 0 || position >= int32_t(model->nodes.size())) continue;
    if (position < int32_t(c.nodes.size())) c.nodes[size_t(position)].entry = false;
    note("%d ", model->nodes[size_t(position)].id);
    ++preserved;
  }
  for (int32_t id : settings.preserve_ids) {
    int32_t position = node_position(model, id);
    if (position >= 0 && preserve_if_entry(c, *model, position)) ++preserved;
  }
  if (settings.preserve_str) {
    for (int kind : {kModalStress, kModalStrain})
      for (int32_t position : model->store[size_t(kind)].nodes)
        if (preserve_if_entry(c, *model, position)) ++preserved;
  }
  if (preserved == 0) note(" NONE");
}

// Every vertex (with an entry) of every face at the node lies within the distance limit.
bool is_small_neighbourhood(const Coarsening &c, int32_t i) {
  const WorkNode &node = c.nodes[size_t(i)];
  for (int32_t f : node.faces) {
    for (int32_t v : c.faces[size_t(f)].vertices) {
      if (!has_entry(c, v)) continue;
      const WorkNode &other = c.nodes[size_t(v)];
      double dx = other.x - node.x, dy = other.y - node.y, dz = other.z - node.z;
      if (dx * dx + dy * dy + dz * dz > c.distance_limit) return false;
    }
  }
  return true;
}

// The first face still there is the reference; every later face still there must have at least
// three vertices and a normal within the face angle of the reference's.
bool is_flat(const Coarsening &c, int32_t i) {
  const std::vector<int32_t> &list = c.nodes[size_t(i)].faces;
  if (list.size() < 2) return false;
  size_t r = 0;
  while (r < list.size() && c.faces[size_t(list[r])].vertices.empty()) ++r;
  if (r == list.size()) return true;
  const std::array<double, 3> &reference = c.faces[size_t(list[r])].normal;
  for (size_t j = r + 1; j < list.size(); ++j) {
    const WorkFace &face = c.faces[size_t(list[j])];
    if (face.vertices.empty()) continue;
    if (face.vertices.size() < 3) return false;
    double dot = reference[0] * face.normal[0] + reference[1] * face.normal[1] +
                 reference[2] * face.normal[2];
    if (std::fabs(dot) - c.cos_limit < 0.0) return false;
  }
  return true;
}

void eliminate_nodes(Coarsening &c) {
  int32_t total = int32_t(c.nodes.size());
  bool show_progress = !host_is_quiet();
  if (show_progress) progress_start(kProgressSteps);
  int32_t stride = total / kProgressSteps;
  int ticks = 0;
  for (int32_t i = 0; i < total; ++i) {
    if (show_progress && total > kProgressSteps && i % stride == 0 && ticks < kProgressSteps) {
      progress_tick();
      ++ticks;
    }
    if (!c.nodes[size_t(i)].entry) continue;
    if (is_small_neighbourhood(c, i) && is_flat(c, i)) eliminate_node(c, i);
  }
}

// Writes the remaining faces back; faces emptied by merges (or left with a single vertex) go.
void rebuild_face_list(Coarsening &c, KRXDATA *model) {
  std::vector<int32_t> list;
  size_t words = 0;
  for (const WorkFace &face : c.faces)
    if (face.vertices.size() >= 2) words += face.vertices.size() + 1;
  list.reserve(std::max<size_t>(words, 1));
  int32_t count = 0;
  for (const WorkFace &face : c.faces) {
    if (face.vertices.size() < 2) continue;
    list.push_back(int32_t(face.vertices.size()));
    list.insert(list.end(), face.vertices.begin(), face.vertices.end());
    ++count;
  }
  int32_t old_count = model->face_count;
  model->faces = std::move(list);
  model->face_count = count;
  note("\nFace reduction from %d to %d", old_count, count);
}

void run(KRXDATA *model, const char *argument_string) {
  Coarsening c;
  build_tables(c, *model);
  CoarsenSettings settings = parse_arguments(argument_string);
  c.cos_limit = std::cos(settings.angle * 3.141592653589793 / 180.0);
  if (settings.colinear) {
    note("Coarsening to resolution %d%% with face-angle %5.2lf deg and co-linear vertex removal",
         int(settings.resolution * 100.0), settings.angle);
  } else {
    note("Coarsening to resolution %d%% with face-angle %5.2lf deg",
         int(settings.resolution * 100.0), settings.angle);
  }
  if (!c.faces_built || !c.nodes_built) {
    error("Problem encountered while trimming geometry\n");
    return;
  }
  double reach = settings.resolution * c.model_size;
  c.distance_limit = reach * reach;
  link_faces_to_nodes(c);
  compute_normals(c);
  preserve_nodes(c, model, settings);
  eliminate_nodes(c);
  if (settings.colinear) remove_colinear_vertices(c);
  rebuild_face_list(c, model);
}

}  // namespace

void coarsen(KRXDATA *model, const char *argument_string) {
  if (!model_exists(model)) return;
  try {
    run(model, argument_string);
  } catch (const std::bad_alloc &) {
    // The face list is only replaced at the very end, so the faces stay as they were.
    KRX_REPORT_ALLOC(kSource);
  }
}

}  // namespace krx
