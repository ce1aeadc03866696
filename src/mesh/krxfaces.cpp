// Element faces: appending host faces, stripping interior faces, replacement from a sketch file
// and the set of nodes that faces and interface nodes use.
#include "mesh/krxfaces.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>

#include "base/krxmsg.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxfaces";
constexpr size_t kFaceGrowth = 100;
constexpr size_t kSketchGrowth = 1000;

// Grows a face list's capacity until `needed` integers fit below it: by the fixed step, or by
// half the list when that is more, since every growth copies the list and fixed steps alone
// would make a million faces cost a quadratic number of copies.
void reserve_in_steps(std::vector<int32_t> &list, size_t needed, size_t step) {
  size_t capacity = list.capacity();
  if (needed < capacity) return;
  while (needed >= capacity) capacity += std::max(step, capacity / 2);
  list.reserve(capacity);
}

// A face normalised for stripping: its rotated nodes start at `first` in the shared copy.
struct FaceKey {
  int32_t count = 0;
  size_t first = 0;
  int direction = 0;
};

// Rotates the face so that its largest node (first occurrence) leads; the orientation is kept.
FaceKey make_key(const int32_t *nodes, int32_t count, std::vector<int32_t> &copy) {
  FaceKey key;
  key.count = count;
  key.first = copy.size();
  if (count <= 0) return key;
  int32_t lead = int32_t(std::max_element(nodes, nodes + count) - nodes);
  for (int32_t j = 0; j < count; ++j) copy.push_back(nodes[(lead + j) % count]);
  if (count >= 2) key.direction = copy[key.first + 1] > copy[key.first + count - 1] ? 1 : 0;
  return key;
}

// The j-th node (1 <= j < count) after the lead, read in the key's canonical direction.
int32_t canonical_node(const FaceKey &key, const std::vector<int32_t> &copy, int32_t j) {
  return key.direction ? copy[key.first + j] : copy[key.first + key.count - j];
}

// -1, 0, 1: vertex count first, then the lead node, then the remaining nodes canonically.
int compare_keys(const FaceKey &a, const FaceKey &b, const std::vector<int32_t> &copy) {
  if (a.count != b.count) return a.count < b.count ? -1 : 1;
  if (a.count <= 0) return 0;
  int32_t lead_a = copy[a.first], lead_b = copy[b.first];
  if (lead_a != lead_b) return lead_a < lead_b ? -1 : 1;
  if (a.count < 2) return 0;
  for (int32_t j = 1; j < a.count; ++j) {
    int32_t na = canonical_node(a, copy, j), nb = canonical_node(b, copy, j);
    if (na != nb) return na < nb ? -1 : 1;
  }
  return 0;
}

void write_key(const FaceKey &key, const std::vector<int32_t> &copy, std::vector<int32_t> &out) {
  out.push_back(key.count);
  for (int32_t j = 0; j < key.count; ++j) out.push_back(copy[key.first + j]);
}

// Keys of every face; false when the list does not hold face_count well-formed faces.
bool build_keys(const KRXDATA &model, std::vector<FaceKey> &keys, std::vector<int32_t> &copy) {
  const std::vector<int32_t> &faces = model.faces;
  keys.reserve(size_t(model.face_count));
  copy.reserve(faces.size());
  size_t at = 0;
  for (int32_t f = 0; f < model.face_count; ++f) {
    if (at >= faces.size()) return false;
    int32_t count = faces[at];
    if (count < 0 || size_t(count) > faces.size() - at - 1) return false;
    keys.push_back(make_key(&faces[at + 1], count, copy));
    at += size_t(count) + 1;
  }
  return true;
}

// Walks the sorted keys: interior pairs (same surface, opposite orientation) go, a repeated face
// stays once. Returns the faces written in front of each other.
std::vector<int32_t> surviving_faces(const std::vector<FaceKey> &keys,
                                     const std::vector<int32_t> &copy, int32_t &written) {
  std::vector<int32_t> out;
  out.reserve(copy.size() + keys.size());
  written = 0;
  size_t count = keys.size();
  size_t i = 0;
  while (i + 1 < count) {
    const FaceKey &a = keys[i], &b = keys[i + 1];
    if (compare_keys(a, b, copy) != 0) {
      write_key(a, copy, out);
      ++written;
      i += 1;
    } else if (a.direction == b.direction) {
      i += 1;
    } else {
      i += 2;
    }
  }
  // The last key is judged against its predecessor whatever became of that one; with three
  // copies of one surface this can drop the last copy too. Deliberately kept as it is. A single
  // face has no predecessor and is kept.
  const FaceKey &last = keys[count - 1];
  if (count == 1 || compare_keys(last, keys[count - 2], copy) != 0 ||
      last.direction == keys[count - 2].direction) {
    write_key(last, copy, out);
    ++written;
  }
  return out;
}

// The sketch file's faces as internal positions; false (with its message) when it is unusable.
bool read_sketch_faces(KRXDATA *model, FILE *file, int32_t face_total, std::vector<int32_t> &list) {
  index_nodes(*model);  // built here, so that a lookup below fails only for an unknown id
  for (int32_t f = 1; f <= face_total; ++f) {
    int32_t count = 0;
    if (std::fscanf(file, "%d", &count) != 1 || count < 0) {
      warning("Incorrect definition of face %d.  Aborting.", f);
      return false;
    }
    // One step per face; the node reads grow the list further only as far as the file holds ids.
    if (list.size() + size_t(count) + 1 >= list.capacity())
      reserve_in_steps(list, list.capacity(), kSketchGrowth);
    list.push_back(count);
    for (int32_t j = 0; j < count; ++j) {
      int32_t id = 0;
      if (std::fscanf(file, "%d", &id) != 1) {
        warning("Incorrect definition of face %d.  Aborting.", f);
        return false;
      }
      int32_t position = node_position(model, id);
      if (position < 0) {
        warning("Incorrect definition of face %d.  No node %d. Aborting.", f, id);
        return false;
      }
      if (list.size() == list.capacity()) reserve_in_steps(list, list.size(), kSketchGrowth);
      list.push_back(position);
    }
  }
  return true;
}

struct FileCloser {
  void operator()(FILE *file) const { std::fclose(file); }
};

}  // namespace

int add_face(KRXDATA *model, int32_t count, const int32_t *node_ids) {
  if (!model_exists(model)) return 0;
  try {
    std::vector<int32_t> &faces = model->faces;
    if (faces.capacity() == 0) faces.reserve(kFaceGrowth);
    if (count < 1) return 0;
    reserve_in_steps(faces, faces.size() + size_t(count) + 1, kFaceGrowth);
    // The face is built in place at the end of the list, within the room just made, and taken
    // back when it is refused.
    const size_t start = faces.size();
    faces.push_back(0);
    for (int32_t j = 0; j < count; ++j) {
      int32_t position = node_position_or_add(model, node_ids[j]);
      if (position < 0) {
        faces.resize(start);
        return 0;
      }
      bool is_last = j == count - 1;
      if (j == 0 || (position != faces.back() && !(is_last && position == faces[start + 1])))
        faces.push_back(position);
    }
    const size_t kept = faces.size() - start - 1;
    if (kept < 2) {
      faces.resize(start);
      return 0;
    }
    faces[start] = int32_t(kept);
    model->face_count += 1;
    model->flags[kFlagElementFaces] = 1;
    return 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
}

void strip_interior_faces(KRXDATA *model) {
  if (!model_exists(model)) return;
  // An empty list is reported as a failed allocation of its keys, as it always has been.
  if (model->faces.empty()) {
    KRX_REPORT_ALLOC(kSource);
    return;
  }
  note("Stripping interior faces");
  if (model->face_count <= 0) return;
  try {
    std::vector<FaceKey> keys;
    std::vector<int32_t> copy;
    if (!build_keys(*model, keys, copy)) return;
    std::sort(keys.begin(), keys.end(),
              [&copy](const FaceKey &a, const FaceKey &b) { return compare_keys(a, b, copy) < 0; });
    int32_t written = 0;
    std::vector<int32_t> out = surviving_faces(keys, copy, written);
    // The survivors overwrite the list from its start; its capacity stays.
    std::copy(out.begin(), out.end(), model->faces.begin());
    model->faces.resize(out.size());
    model->face_count = written;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
  }
}

void apply_sketch_file(KRXDATA *model, const char *file_name) {
  if (!model_exists(model)) return;
  if (file_name == nullptr) {
    warning("Failed to apply sketch file.  Usage: sketch(filename)");
    return;
  }
  std::unique_ptr<FILE, FileCloser> file(std::fopen(file_name, "r"));
  if (!file) {
    warning("Failed to open sketch file %s", file_name);
    return;
  }
  int32_t face_total = 0;
  if (std::fscanf(file.get(), "%d", &face_total) != 1) {
    warning("Sketch file %s does not start with a face count", file_name);
    return;
  }
  try {
    std::vector<int32_t> list;
    list.reserve(kSketchGrowth);
    note("Using sketch file %s to replace %d faces with %d", file_name, model->face_count,
         face_total);
    if (!read_sketch_faces(model, file.get(), face_total, list)) return;
    file.reset();
    // A negative face count is stored as it was read.
    model->faces = std::move(list);
    model->face_count = face_total;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
  }
}

bool face_node_set(KRXDATA *model, std::vector<int32_t> &out) {
  if (!model_exists(model)) return false;
  try {
    if (!model->face_node_set_built) {
      size_t length = model->faces.size(), interface = model->interface_nodes.size();
      if (length + interface == 0) {
        KRX_REPORT_ALLOC(kSource);
        return false;
      }
      // A model that never had a face list (as opposed to an emptied one) has no capacity.
      if (model->faces.capacity() == 0) {
        error("Missing element face information");
        return false;
      }
      std::vector<int32_t> set(model->faces);
      for (size_t at = 0; at < set.size();) {
        int32_t count = set[at];
        set[at] = -1;
        at += size_t(std::max(count, 0)) + 1;
      }
      set.insert(set.end(), model->interface_nodes.begin(), model->interface_nodes.end());
      std::sort(set.begin(), set.end());
      set.erase(set.begin(), std::lower_bound(set.begin(), set.end(), 0));
      set.erase(std::unique(set.begin(), set.end()), set.end());
      model->face_node_set = std::move(set);
      model->face_node_set_built = true;
    }
    out = model->face_node_set;
    return true;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return false;
  }
}

}  // namespace krx
