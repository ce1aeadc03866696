// The reader: encoding detection, block location, the header and the blocks held in memory.
// The per-mode blocks (8, 18, 29) and the pre-stress blocks are in krxreadmodes.cpp.
#include "format/krxread.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/krxmsg.h"
#include "format/krxformat.h"
#include "format/krxreadint.h"
#include "format/krxtoc.h"

namespace krx {
namespace reader {

const char *const kSource = "..\\krxread";

bool present(const KRXDATA &model, int block) { return block_present(&model, block - 1) != 0; }

BlockIo block_io(KRXDATA &model) {
  BlockIo io = model_block_io(model);
  io.limit = stream_file_size(model.own);
  return io;
}

// Positions the file at a present block and reports problem when it cannot.
bool start_block(KRXDATA &model, int block, const char *problem) {
  if (seek_to_block(&model, block - 1)) return true;
  error("%s", problem);
  return false;
}

bool finish(const BlockIo &io, int ok, const char *memory, const char *problem) {
  if (ok) return true;
  error("%s", io.out_of_memory ? memory : problem);
  return false;
}

// Positions the file at a present block and decodes it with decode(io); a failure reports the
// block's problem text, or memory when the decoder ran out of memory.
template <typename Decode>
bool load_block(KRXDATA &model, int block, const char *memory, Decode decode) {
  const char *problem = block_problem(block);
  BlockIo io = block_io(model);
  if (!start_block(model, block, problem)) return false;
  return finish(io, decode(io), memory, problem);
}

// Node positions of ids that must already be known; false at the first unknown id.
bool positions_of(KRXDATA &model, std::vector<int32_t> &words, std::size_t from, std::size_t n) {
  for (std::size_t i = from; i < from + n; ++i) {
    int32_t at = node_position(&model, words[i]);
    if (at < 0) return false;
    words[i] = at;
  }
  return true;
}

}  // namespace reader

namespace {

using namespace reader;

// Native codes are recognised by their low byte; anything else must decode as XDR.
int detect_version(KRXDATA &model) {
  FileSlot &io = model.own;
  int32_t code = 0;
  bool native = seek_stream(io, 0) && std::fread(&code, 4, 1, io.file) == 1;
  int low = version_generation(code);
  bool odd = code == 31 || code == 41 || code == 51 || (code & kXdrBit);
  if (native && (low == 10 || low == 20 || low == 30 || low == 40 || low == 50 || (low >= 60 && !odd))) {
    model.version = code;
  } else {
    if (!bind_xdr_stream(io, XDR_DECODE, kSource)) return 0;
    code = 0;
    bool read = seek_stream(io, 0) && get_int(io, code);
    low = version_generation(code);
    odd = code == 31 || code == 41 || code == 51 || (code & kXdrBit);
    if (!read || !(low == 31 || low == 41 || low == 51 || (low >= 60 && odd))) {
      error("Not a valid KRX format.");
      return 0;
    }
    model.version = code;
  }
  model.own.precision = version_is_single(model.version) ? 0 : 1;
  model.char_width = model.own.xdr_in_use ? 4 : 1;
  model.real_width = model.own.precision ? 8 : 4;
  if (!model.own.precision && !prepare_scratch(model, kSource)) return 0;
  return 1;
}

int read_contents(KRXDATA &model) {
  BlockIo io = block_io(model);
  if (!seek_stream(model.own, 4 + 544 * int64_t(model.char_width)) ||
      !read_content_block(io, model.flags)) {
    error("Problem reading KRX table of contents.");
    return 0;
  }
  int generation = version_generation(model.version);
  // These generations have no invariant or later blocks.
  if (generation == 10 || generation == 20 || generation == 30 || generation == 31)
    std::fill(model.flags.begin() + 17, model.flags.begin() + 97, uint8_t(0));
  return 1;
}

// Each block starts where the present blocks before it end; a block that cannot be sized, or
// that would reach past the end of the file, ends the read.
int locate_blocks(KRXDATA &model) {
  int64_t file_size = stream_file_size(model.own);
  model.block_start[1] = 0;
  for (int k = 1; k < kBlockCount; ++k) {
    const char *problem = block_info(k)->size_problem;
    int64_t size = block_size(&model, k - 1);
    if (size < 0) {
      if (!problem) error("%s", block_problem(k));  // the size query has no text of its own
      return 0;
    }
    if (file_size >= 0 && size > file_size - model.block_start[k]) {
      error("%s", problem ? problem : block_problem(k));
      return 0;
    }
    model.block_start[k + 1] = model.block_start[k] + size;
  }
  return 1;
}

int read_header(KRXDATA &model) {
  const char *problem = "Problem reading Header information";
  BlockIo io = block_io(model);
  HeaderBlock h;
  if (!start_block(model, 2, problem)) return 0;
  if (!read_header_block(io, h)) {
    error("%s", problem);
    return 0;
  }
  trim_header_fields(h);
  model.title = h.title;
  model.date = h.date;
  model.input_name = h.input_name;
  model.input_type = h.input_type;
  model.comments = h.comments;
  return 1;
}

int read_nodal_coords(KRXDATA &model) {
  NodalCoordsBlock block;
  if (!load_block(model, 4, "Out of memory while reading Nodal Coordinate block",
                  [&](BlockIo &io) { return read_nodal_coords_block(io, block); }))
    return 0;
  if (block.dims != 3)
    error("Node location should only be specified with 3 coordinates, not %ld", long(block.dims));
  try {
    model.nodes.reserve(model.nodes.size() + block.ids.size());
    for (std::size_t i = 0; i < block.ids.size(); ++i) {
      NodeRecord node;
      node.id = block.ids[i];
      node.x = block.xyz[3 * i];
      node.y = block.xyz[3 * i + 1];
      node.z = block.xyz[3 * i + 2];
      model.nodes.push_back(std::move(node));
    }
    model.node_index_built = false;
    index_nodes(model);
  } catch (const std::bad_alloc &) {
    model.node_index_built = false;
    error("Out of memory while reading Nodal Coordinate block");
    return 0;
  }
  model.file_node_count = int32_t(model.nodes.size());
  return 1;
}

int read_global_body(KRXDATA &model) {
  std::array<double, 13> v{};
  if (!load_block(model, 6, block_problem(6), [&](BlockIo &io) { return read_global_body_block(io, v); }))
    return 0;
  model.total_mass = v[0];
  std::copy(v.begin() + 1, v.begin() + 4, model.centre_of_mass.begin());
  std::copy(v.begin() + 4, v.end(), model.global_inertia.begin());
  return 1;
}

// The modes of a file are registered from it, whatever the capacities of a fresh model.
int read_eigenvalues(KRXDATA &model) {
  const char *memory = "Out of memory while reading Eigenvalues block";
  if (!load_block(model, 7, memory, [&](BlockIo &io) { return read_eigenvalues_block(io, model.eigen); }))
    return 0;
  try {
    model.modes.clear();
    for (const EigenRecord &r : model.eigen) model.modes.push_back(r.number);
  } catch (const std::bad_alloc &) {
    error("%s", memory);
    return 0;
  }
  model.retained_modes = int32_t(model.modes.size());
  return 1;
}

int read_nodal_masses(KRXDATA &model) {
  const char *problem = block_problem(9);
  NodalMassesBlock block;
  if (!load_block(model, 9, problem, [&](BlockIo &io) { return read_nodal_masses_block(io, block); }))
    return 0;
  if (block.dims < 1) {
    error("%s", problem);
    return 0;
  }
  if (block.dims > 1) {
    warning("Each node must possess a single scalar mass");
    warning("Generating scalar by averaging %d values", block.dims);
  }
  try {
    std::vector<uint8_t> given(model.nodes.size(), 0);
    for (std::size_t i = 0; i < block.ids.size(); ++i) {
      int32_t at = node_position_or_add(&model, block.ids[i]);
      if (at < 0) return 0;
      if (std::size_t(at) >= given.size()) given.resize(std::size_t(at) + 1, 0);
      if (given[at]) warning("Redefining mass of Node %d", block.ids[i]);
      given[at] = 1;
      double sum = 0.0;
      for (int32_t d = 0; d < block.dims; ++d) sum += block.values[i * block.dims + d];
      model.nodes[at].mass = sum / block.dims;
    }
  } catch (const std::bad_alloc &) {
    error("%s", problem);
    return 0;
  }
  return 1;
}

// (row, column) among 4..6 to the stored term I11, I22, I33, I12, I13, I23; both orders of an
// off-diagonal pair land on the one term.
int inertia_term(int row, int column) {
  static const int terms[3][3] = {{0, 3, 4}, {3, 1, 5}, {4, 5, 2}};
  return terms[row - 4][column - 4];
}

int read_nodal_inertias(KRXDATA &model) {
  std::vector<InertiaEntry> entries;
  if (!load_block(model, 10, block_problem(10),
                  [&](BlockIo &io) { return read_nodal_inertia_block(io, entries); }))
    return 0;
  std::vector<uint8_t> given;
  for (const InertiaEntry &e : entries) {
    if (e.row < 4 || e.row > 6) {
      error("Row index of nodal inertia entries should be 4, 5, or 6.  %d encoutered\n", e.row);
      return 0;
    }
    if (e.column < 4 || e.column > 6) {
      error("Column index of nodal inertia entries should be 4, 5, or 6.  %d encoutered\n", e.column);
      return 0;
    }
    int32_t at = node_position_or_add(&model, e.id);
    if (at < 0) return 0;
    NodeRecord &node = model.nodes[at];
    try {
      if (!node.inertia) node.inertia = std::make_unique<std::array<double, 6>>();
      if (given.size() <= std::size_t(at)) given.resize(model.nodes.size(), 0);
    } catch (const std::bad_alloc &) {
      error("Error allocating memory for inertia matrix for node %d\n", e.id);
      return 0;
    }
    int term = inertia_term(e.row, e.column);
    if (given[at] & (1u << term)) warning("Redefining mass of Nodal inertia %d", e.id);
    given[at] |= uint8_t(1u << term);
    (*node.inertia)[term] = e.value;
  }
  return 1;
}

int read_units(KRXDATA &model) {
  BlockIo io = block_io(model);
  std::array<std::array<char, 16>, 4> units{};
  if (!seek_to_block(&model, 10) || !read_units_block(io, units)) return 1;
  for (auto &u : units) u.back() = '\0';
  model.mass_unit = units[0];
  model.length_unit = units[1];
  model.time_unit = units[2];
  model.force_unit = units[3];
  normalize_file_units(model);
  return 1;
}

int read_matrix(KRXDATA &model, int block, std::vector<MatrixEntry> &list, const char *memory) {
  const char *problem = block_problem(block);
  MatrixBlock m;
  if (!load_block(model, block, memory, [&](BlockIo &io) { return read_matrix_block(io, m); }))
    return 0;
  try {
    list.clear();
    list.reserve(m.entries.size());
    for (const MatrixBlockEntry &e : m.entries) {
      if (e.row < 1 || e.column < 1 || e.row > m.order || e.column > m.order) {
        error("%s", problem);
        return 0;
      }
      list.push_back({e.row - 1, e.column - 1, e.value});
    }
  } catch (const std::bad_alloc &) {
    error("%s", memory);
    return 0;
  }
  return 1;
}

// Block 14 names vertices by their 0-based position in block 4; every one must be inside it.
bool positions_in_range(KRXDATA &model, std::vector<int32_t> &words, std::size_t from, std::size_t n) {
  for (std::size_t i = from; i < from + n; ++i)
    if (words[i] < 0 || words[i] >= model.file_node_count) return false;
  return true;
}

// The face list of the model from a list of (count, vertices...) words, whose vertices vertices()
// turns into node positions in place; false on a malformed list.
template <typename Vertices>
bool install_faces(KRXDATA &model, std::vector<int32_t> &words, Vertices vertices) {
  int32_t faces = 0;
  for (std::size_t i = 0; i < words.size();) {
    int32_t n = words[i++];
    if (n < 0 || std::size_t(n) > words.size() - i || !vertices(model, words, i, n)) return false;
    i += std::size_t(n);
    ++faces;
  }
  model.faces = std::move(words);
  model.face_count = faces;
  return true;
}

int read_element_faces(KRXDATA &model) {
  ElementFacesBlock block;
  if (!load_block(model, 14, "Out of memory while reading Element Faces Block",
                  [&](BlockIo &io) { return read_element_faces_block(io, block); }))
    return 0;
  if (!install_faces(model, block.words, positions_in_range)) {
    error("%s", block_problem(14));
    return 0;
  }
  return 1;
}

// The old element block groups faces by vertex count; each face has two words in front.
int read_element_topology(KRXDATA &model) {
  const char *memory = "Out of memory while reading Element Topology Block";
  ElementTopologyBlock block;
  if (!load_block(model, 5, memory, [&](BlockIo &io) { return read_element_topology_block(io, block); }))
    return 0;
  std::vector<int32_t> words;
  try {
    words.reserve(block.words.size());
    std::size_t at = 0;
    for (const auto &group : block.groups) {
      for (int32_t f = 0; f < group[1]; ++f) {
        words.push_back(group[2]);
        words.insert(words.end(), block.words.begin() + at + 2, block.words.begin() + at + 2 + group[2]);
        at += std::size_t(group[2]) + 2;
      }
    }
  } catch (const std::bad_alloc &) {
    error("%s", memory);
    return 0;
  }
  // Unlike block 14, the old element block names its vertices by node identifier.
  if (!install_faces(model, words, positions_of)) {
    error("%s", block_problem(5));
    return 0;
  }
  return 1;
}

int read_transformation(KRXDATA &model) {
  TransformationBlock block;
  if (!load_block(model, 16, "Out of memory while reading Mode Shape Transformation Block",
                  [&](BlockIo &io) { return read_transformation_block(io, block); }))
    return 0;
  model.transformation_modes = std::move(block.modes);
  model.transformation = std::move(block.matrix);
  return 1;
}

int read_interface(KRXDATA &model) {
  std::vector<int32_t> ids;
  if (!load_block(model, 17, "Out of memory while reading Interface Nodes block",
                  [&](BlockIo &io) { return read_interface_block(io, ids); }))
    return 0;
  if (!positions_of(model, ids, 0, ids.size())) {
    error("%s", block_problem(17));
    return 0;
  }
  model.interface_nodes = std::move(ids);
  return 1;
}

int read_preload(KRXDATA &model) {
  PreloadBlock block;
  if (!load_block(model, 27, "Out of memory while reading Modal Preload Block",
                  [&](BlockIo &io) { return read_preload_block(io, block); }))
    return 0;
  if (block.values.size() != model.modes.size()) {
    error("Number of modal preloads does not match the number of modes");
    return 0;
  }
  model.preload = std::move(block.values);
  model.preload_extra = block.extra;
  return 1;
}

int read_modal_loads(KRXDATA &model) {
  const char *memory = "Out of memory while reading Modal Loads Block";
  ModalLoadsBlock block;
  if (!load_block(model, 28, memory, [&](BlockIo &io) { return read_modal_loads_block(io, block); }))
    return 0;
  if (block.modes != int32_t(model.modes.size())) {
    error("Number of modal load components does not match the number of modes");
    return 0;
  }
  try {
    model.load_cases.clear();
    for (LoadCaseRecord &r : block.cases) {
      LoadCase c;
      c.label.assign(r.name.data(), strnlen(r.name.data(), r.name.size()));
      c.applied = r.projected;
      c.values = std::move(r.values);
      model.load_cases.push_back(std::move(c));
    }
  } catch (const std::bad_alloc &) {
    error("%s", memory);
    return 0;
  }
  return 1;
}

int read_statistics(KRXDATA &model) {
  return load_block(model, 30, "Out of memory while reading Modal Statistics Block",
                    [&](BlockIo &io) { return read_statistics_block(io, model.statistics); });
}

// Blocks in the order the reader loads them; an absent block is skipped.
int read_blocks(KRXDATA &model) {
  if (present(model, 4) && !read_nodal_coords(model)) return 0;
  if (present(model, 6) && !read_global_body(model)) return 0;
  if (present(model, 7) && !read_eigenvalues(model)) return 0;
  if (present(model, 8) && !read_vector_block(model, kModeShapes)) return 0;
  if (present(model, 9) && !read_nodal_masses(model)) return 0;
  if (present(model, 10) && !read_nodal_inertias(model)) return 0;
  if (present(model, 11) && !read_units(model)) return 0;
  if (present(model, 12) &&
      !read_matrix(model, 12, model.stiffness, "Out of memory while reading Generalized Stiffness block"))
    return 0;
  if (present(model, 13) &&
      !read_matrix(model, 13, model.mass, "Out of memory while reading Generalized Mass block"))
    return 0;
  if (present(model, 14)) {
    if (!read_element_faces(model)) return 0;
  } else if (present(model, 5) && !read_element_topology(model)) {
    return 0;
  }
  if (present(model, 15) &&
      !read_matrix(model, 15, model.damping, "Out of memory while reading Generalized Damping Block"))
    return 0;
  if (present(model, 16) && !read_transformation(model)) return 0;
  if (present(model, 17) && !read_interface(model)) return 0;
  if (present(model, 18) && !read_vector_block(model, kModalStress)) return 0;
  if (present(model, 27) && !read_preload(model)) return 0;
  if (present(model, 28) && !read_modal_loads(model)) return 0;
  if (present(model, 29) && !read_vector_block(model, kModalStrain)) return 0;
  if (present(model, 30) && !read_statistics(model)) return 0;
  if (present(model, 31) && !read_pre_block_of(model, kModalStress)) return 0;
  if (present(model, 32) && !read_pre_block_of(model, kModalStrain)) return 0;
  return 1;
}

}  // namespace

const char *block_problem(int block) {
  switch (block) {
    case 4: return "Problem reading Node Coordinates Data";
    case 5: return "Problem when reading old style element block";
    case 6: return "Problem reading Global Body Properties";
    case 7: return "Problem reading Eigenvalue Data";
    case 8: return "Problem encountered while caching Mode shape Data";
    case 9: return "Problem reading Nodal Mass information";
    case 10: return "Problem reading Nodal Inertia information";
    case 12: return "Problem reading Generalized Stiffness information";
    case 13: return "Problem reading Generalized Mass information";
    case 14: return "Problem reading Element Faces";
    case 15: return "Problem reading Generalized Damping information";
    case 16: return "Problem when reading Mode Shape Transformation";
    case 17: return "Problem when reading Interface Nodes";
    case 18: return "Problem when reading Modal Stress info";
    case 27: return "Problem when reading Modal Preloads Block";
    case 28: return "Problem when reading Modal Loads Block";
    case 29: return "Problem when reading Modal Strain info";
    case 30: return "Problem when reading Modal Statistics Block";
    case 31: return "Problem when reading Pre-Stress Block";
    case 32: return "Problem when reading Pre-Strain Block";
    default: return "Problem reading KRX table of contents.";
  }
}

int read_krx(KRXDATA *model, FILE *file, const char *path) {
  if (!model_exists(model)) return 0;
  try {
    model->own.path = path ? path : "";
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
  model->own.file = file;
  model->read_from_file = true;
  model->stored_invariants = read_invariant_values;
  if (!detect_version(*model) || !read_contents(*model) || !locate_blocks(*model)) return 0;
  if (!read_header(*model)) return 0;
  return read_blocks(*model);
}

KRXDATA *find_or_read_model(const char *path) {
  if (!path) return nullptr;
  for (auto &m : model_list())
    if (!m->own.path.empty() && m->own.path == path) return m.get();
  FILE *file = std::fopen(path, "rb");
  if (!file) return nullptr;
  KRXDATA *model = create_model(0, 0);
  if (!model) {
    std::fclose(file);
    return nullptr;
  }
  if (read_krx(model, file, path)) return model;
  release_model(model);
  return nullptr;
}

}  // namespace krx
