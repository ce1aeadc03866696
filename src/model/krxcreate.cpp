// Creation and release of models, the model list, the node table and the mode registry.
#include <algorithm>
#include <cstdio>
#include <new>

#include "host/krxmsg.h"
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

void build_node_index(KRXDATA &model) {
  model.node_index.clear();
  model.node_index.reserve(model.nodes.capacity());
  for (int32_t i = 0; i < int32_t(model.nodes.size()); ++i)
    model.node_index.emplace_back(model.nodes[i].id, i);
  std::sort(model.node_index.begin(), model.node_index.end());
  model.node_index_built = true;
}

}  // namespace

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

int32_t node_position(KRXDATA *model, int32_t id) {
  if (!model_exists(model)) return -1;
  if (!model->node_index_built) build_node_index(*model);
  auto &index = model->node_index;
  auto it = std::lower_bound(index.begin(), index.end(), std::make_pair(id, INT32_MIN));
  if (it == index.end() || it->first != id) return -1;
  return it->second;
}

int32_t add_node(KRXDATA *model, int32_t id) {
  if (!model_exists(model)) return -1;
  try {
    if (!model->node_index_built) build_node_index(*model);
    auto &nodes = model->nodes;
    if (nodes.size() == nodes.capacity()) {
      // At least 1000 entries at a time, and never fewer than half the table: a million nodes
      // added one by one must not copy the table a thousand times.
      nodes.reserve(nodes.capacity() + std::max<std::size_t>(1000, nodes.capacity() / 2));
      model->node_index.reserve(nodes.capacity());
    }
    int32_t position = int32_t(nodes.size());
    nodes.emplace_back();
    nodes.back().id = id;
    auto &index = model->node_index;
    auto at = std::upper_bound(index.begin(), index.end(), std::make_pair(id, position));
    index.insert(at, std::make_pair(id, position));
    return position;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return -1;
  }
}

int32_t node_position_or_add(KRXDATA *model, int32_t id) {
  int32_t position = node_position(model, id);
  if (position >= 0 || !model) return position;
  return add_node(model, id);
}

int32_t mode_count(const KRXDATA *model) { return model ? int32_t(model->modes.size()) : 0; }

int32_t mode_index(const KRXDATA *model, int32_t number) {
  if (!model_exists(model)) return -1;
  auto &modes = model->modes;
  auto it = std::find(modes.begin(), modes.end(), number);
  return it == modes.end() ? -1 : int32_t(it - modes.begin());
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

}  // namespace krx
