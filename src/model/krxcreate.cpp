// Creation and release of models, the model list, the node table, the mode registry and the
// generalized-matrix lists.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>

#include "base/krxmsg.h"
#include "model/krxdata.h"

namespace krx {
namespace {

constexpr const char *kSource = "..\\krxcreate";

void close_file_slot(FileSlot &slot) {
  if (slot.xdr_in_use && slot.xdr) xdr_destroy(slot.xdr.get());
  slot.xdr.reset();
  slot.xdr_in_use = 0;
  if (slot.file) std::fclose(slot.file);
  slot.file = nullptr;
}

// Files are closed in the order of the record: temporary slots (deleting the files the library
// made), then the model's own file. A slot that merely shares the own file leaves it open.
void close_model_files(KRXDATA &model) {
  for (VectorSlot &slot : model.store) {
    if (slot.io.file == nullptr || slot.io.file == model.own.file) {
      slot.io.file = nullptr;
      continue;
    }
    close_file_slot(slot.io);
    if (slot.owns_file && !slot.io.path.empty()) std::remove(slot.io.path.c_str());
  }
  close_file_slot(model.own);
}

// Fibonacci hashing: consecutive identifiers spread over the whole table.
std::size_t cell_of(int32_t id, std::size_t mask) {
  return std::size_t((uint64_t(uint32_t(id)) * 0x9E3779B97F4A7C15ull) >> 32) & mask;
}

void place(std::vector<std::pair<int32_t, int32_t>> &cells, int32_t id, int32_t position) {
  std::size_t mask = cells.size() - 1;
  std::size_t at = cell_of(id, mask);
  while (cells[at].second >= 0) at = (at + 1) & mask;
  cells[at] = {id, position};
}

void rehash(IdIndex &index, std::size_t cell_count) {
  std::vector<std::pair<int32_t, int32_t>> cells(cell_count, std::make_pair(0, -1));
  for (const auto &cell : index.cells)
    if (cell.second >= 0) place(cells, cell.first, cell.second);
  index.cells = std::move(cells);
}

// Built from the node table as it stands; the first position of a repeated id wins.
void build_node_index(KRXDATA &model) {
  clear_ids(model.node_index);
  reserve_ids(model.node_index, model.nodes.size());
  for (int32_t i = 0; i < int32_t(model.nodes.size()); ++i)
    insert_id(model.node_index, model.nodes[std::size_t(i)].id, i);
  model.node_index_built = true;
}

int32_t find_mode_linearly(const KRXDATA &model, int32_t number) {
  auto it = std::find(model.modes.begin(), model.modes.end(), number);
  return it == model.modes.end() ? -1 : int32_t(it - model.modes.begin());
}

// Brings the mode lookup up to the registry: entries appended since the last lookup join it; a
// registry that shrank (a reader starting over) is indexed afresh.
bool catch_up_modes(const KRXDATA &model) {
  if (model.mode_index_covered > model.modes.size()) {
    clear_ids(model.mode_lookup);
    model.mode_index_covered = 0;
  }
  try {
    for (std::size_t i = model.mode_index_covered; i < model.modes.size(); ++i) {
      insert_id(model.mode_lookup, model.modes[i], int32_t(i));
      model.mode_index_covered = i + 1;
    }
  } catch (const std::bad_alloc &) {
    return false;
  }
  return true;
}

}  // namespace

int32_t find_id(const IdIndex &index, int32_t id) {
  if (index.used == 0) return -1;
  std::size_t mask = index.cells.size() - 1;
  for (std::size_t at = cell_of(id, mask);; at = (at + 1) & mask) {
    const auto &cell = index.cells[at];
    if (cell.second < 0) return -1;
    if (cell.first == id) return cell.second;
  }
}

void reserve_ids(IdIndex &index, std::size_t count) {
  std::size_t cells = 16;
  while (cells < 2 * count) cells *= 2;
  if (cells > index.cells.size()) rehash(index, cells);
}

void insert_id(IdIndex &index, int32_t id, int32_t position) {
  if (2 * (index.used + 1) > index.cells.size()) reserve_ids(index, 2 * (index.used + 1));
  if (find_id(index, id) >= 0) return;
  place(index.cells, id, position);
  ++index.used;
}

void clear_ids(IdIndex &index) {
  index.cells.clear();
  index.used = 0;
}

std::vector<std::pair<int32_t, int32_t>> sorted_ids(const IdIndex &index) {
  std::vector<std::pair<int32_t, int32_t>> pairs;
  pairs.reserve(index.used);
  for (const auto &cell : index.cells)
    if (cell.second >= 0) pairs.push_back(cell);
  std::sort(pairs.begin(), pairs.end());
  return pairs;
}

std::vector<std::unique_ptr<KRXDATA>> &model_list() {
  static std::vector<std::unique_ptr<KRXDATA>> list;
  return list;
}

bool model_exists(const KRXDATA *model) {
  if (model) return true;
  error("The database has not been initialized.");
  return false;
}

KRXDATA *create_model(uint32_t node_capacity, int32_t mode_capacity) {
  try {
    auto model = std::make_unique<KRXDATA>();
    model->node_capacity = node_capacity;
    model->mode_capacity = mode_capacity;
    model_list().push_back(std::move(model));
    return model_list().back().get();
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

void release_model(KRXDATA *model) {
  auto &list = model_list();
  auto it = std::find_if(list.begin(), list.end(), [&](auto &m) { return m.get() == model; });
  if (it == list.end()) return;
  close_model_files(**it);
  list.erase(it);
}

void release_all_models() {
  auto &list = model_list();
  while (!list.empty()) release_model(list.front().get());
}

int32_t node_count(const KRXDATA *model) { return model ? int32_t(model->nodes.size()) : 0; }

void index_nodes(KRXDATA &model) {
  if (!model.node_index_built) build_node_index(model);
}

int32_t append_node(KRXDATA &model, int32_t id) {
  index_nodes(model);
  auto &nodes = model.nodes;
  reserve_one_more(nodes, 1000);
  int32_t position = int32_t(nodes.size());
  insert_id(model.node_index, id, position);
  nodes.emplace_back();
  nodes.back().id = id;
  return position;
}

namespace {

// The identifier index is built on first use; a failed build is reported here, once.
bool node_index_ready(KRXDATA &model) {
  try {
    index_nodes(model);
    return true;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return false;
  }
}

}  // namespace

int32_t node_position(KRXDATA *model, int32_t id) {
  if (!model_exists(model) || !node_index_ready(*model)) return -1;
  return find_id(model->node_index, id);
}

int32_t add_node(KRXDATA *model, int32_t id) {
  if (!model_exists(model)) return -1;
  try {
    return append_node(*model, id);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return -1;
  }
}

// An index that cannot be built is not taken for an unknown identifier: no node is added then.
int32_t node_position_or_add(KRXDATA *model, int32_t id) {
  if (!model_exists(model) || !node_index_ready(*model)) return -1;
  int32_t position = find_id(model->node_index, id);
  return position >= 0 ? position : add_node(model, id);
}

int32_t mode_count(const KRXDATA *model) { return model ? int32_t(model->modes.size()) : 0; }

int32_t mode_index(const KRXDATA *model, int32_t number) {
  if (!model_exists(model)) return -1;
  if (!catch_up_modes(*model)) return find_mode_linearly(*model, number);
  return find_id(model->mode_lookup, number);
}

int32_t register_mode(KRXDATA *model, int32_t number) {
  int32_t index = mode_index(model, number);
  if (index >= 0 || !model) return index;
  if (int32_t(model->modes.size()) + 1 > model->mode_capacity) {
    error("Insufficient room for mode %d in temporary mode shape file.  \n"
          "Specify larger number of modes in KRX_Create.\n",
          number);
    return -1;
  }
  try {
    if (model->modes.capacity() == 0) model->modes.reserve(model->mode_capacity);
    model->modes.push_back(number);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return -1;
  }
  if (!model->retained_set) model->retained_modes = int32_t(model->modes.size());
  return int32_t(model->modes.size()) - 1;
}

namespace {

// A generalized-mass diagonal entry further than this from 1 asks for the transformation.
constexpr double kUnitTolerance = 1e-8;

int append_entry(std::vector<MatrixEntry> &list, int32_t row, int32_t column, double value) {
  try {
    reserve_one_more(list, 100);
    list.push_back(MatrixEntry{row, column, value});
    return 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
}

int add_matrix_entry(KRXDATA *model, std::vector<MatrixEntry> &list, int flag, int32_t row_mode,
                     int32_t column_mode, double value, bool mass) {
  int32_t row = register_mode(model, row_mode);
  if (row < 0) return 0;
  int32_t column = register_mode(model, column_mode);
  if (column < 0) return 0;
  if (mass) {
    if (row != column)
      model->gm_off_diagonal = 1;
    else if (std::fabs(1.0 - value) > kUnitTolerance)
      model->gm_not_unit = 1;
  }
  if (!append_entry(list, row, column, value)) return 0;
  model->flags[flag] = 1;
  return 1;
}

}  // namespace

int add_generalized_mass(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value) {
  if (!model_exists(model)) return 0;
  return add_matrix_entry(model, model->mass, kFlagGeneralizedMass, row_mode, column_mode, value,
                          true);
}

int add_generalized_stiffness(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value) {
  if (!model_exists(model)) return 0;
  return add_matrix_entry(model, model->stiffness, kFlagGeneralizedStiffness, row_mode,
                          column_mode, value, false);
}

int add_generalized_damping(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value) {
  if (!model_exists(model)) return 0;
  return add_matrix_entry(model, model->damping, kFlagGeneralizedDamping, row_mode, column_mode,
                          value, false);
}

}  // namespace krx
