// The in-memory model: the KRXDATA record that the host fills through the setters and that the
// writer turns into a file (the reader fills the same record), its node table, mode registry and
// generalized-matrix lists, the list of all models, and creation and release. Per-mode vectors
// never live here: they are spooled to the temporary vector store (krxtools.h), whose slots the
// record owns. The model folder builds on base only; every folder above works on this record.
#pragma once

#include <rpc/xdr.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace krx {

constexpr int kFlagCount = 100;
constexpr int kBlockCount = 32;

// Vector kinds of the temporary store.
constexpr int kModeShapes = 0;
constexpr int kModalStress = 1;
constexpr int kModalStrain = 2;

// Content-flag indices (byte j of the content summary stands for block j + 4, with gaps at 7 and 11).
enum Flag : int {
  kFlagNodalCoords = 0,
  kFlagElementTopology = 1,
  kFlagGlobalBodyProps = 2,
  kFlagEigenvalues = 3,
  kFlagModeShapes = 4,
  kFlagNodalMasses = 5,
  kFlagNodalInertias = 6,
  kFlagUnits = 8,
  kFlagGeneralizedStiffness = 9,
  kFlagGeneralizedMass = 10,
  kFlagElementFaces = 12,
  kFlagGeneralizedDamping = 13,
  kFlagModeTransformation = 14,
  kFlagInterfaceNodes = 15,
  kFlagModalStress = 16,
  kFlagInvariant1 = 17,  // 17..21: invariants 1..5
  kFlagInvariant7 = 22,
  kFlagInvariant8 = 23,
  kFlagInvariant9 = 24,
  kFlagPreload = 25,
  kFlagModalLoads = 26,
  kFlagModalStrain = 27,
  kFlagModalStatistics = 28,
  kFlagPreStress = 29,
  kFlagPreStrain = 30,
};

constexpr double kInfiniteEigenvalue = 1.2345e20;
constexpr double kTwoPi = 6.28318530718;

// Identifier to position, an open-addressing hash table with linear probing: insertion and lookup
// cost O(1) amortised in any order of identifiers. The first position given for an identifier
// wins. The table keeps at most half its cells used and doubles when it would pass that.
struct IdIndex {
  std::vector<std::pair<int32_t, int32_t>> cells;  // (id, position); position -1: empty
  std::size_t used = 0;
};
// The position of id, -1 when it has none.
int32_t find_id(const IdIndex &index, int32_t id);
// Adds (id, position) unless id is there already; std::bad_alloc goes to the caller.
void insert_id(IdIndex &index, int32_t id, int32_t position);
// Room for count identifiers without growing; std::bad_alloc goes to the caller.
void reserve_ids(IdIndex &index, std::size_t count);
void clear_ids(IdIndex &index);
// The (id, position) pairs in increasing id order, built when something needs sorted order.
std::vector<std::pair<int32_t, int32_t>> sorted_ids(const IdIndex &index);

// Room for one more element: a full list grows by half its capacity, at least by `step`, so that
// n appends copy O(n) elements in all and allocate O(log n) times. std::bad_alloc goes to the
// caller with the list unchanged.
template <typename T>
void reserve_one_more(std::vector<T> &list, std::size_t step) {
  if (list.size() < list.capacity()) return;
  list.reserve(list.capacity() + std::max(step, list.capacity() / 2));
}

struct NodeRecord {
  int32_t id = 0;
  double x = 0.0, y = 0.0, z = 0.0;
  double mass = 0.0;
  // I11, I22, I33, I12, I13, I23; allocated when the node first gets an inertia.
  std::unique_ptr<std::array<double, 6>> inertia;
};

struct MatrixEntry {
  int32_t row = 0;  // mode index
  int32_t column = 0;
  double value = 0.0;
};

struct LoadCase {
  std::string label;  // at most 255 characters
  int32_t applied = 0;  // 1 once the rigid-body part has been replaced by resultants
  std::vector<double> values;  // one per mode
};

// A file opened by the model: the file it was read from or is written to, or a temporary file.
struct FileSlot {
  FILE *file = nullptr;
  std::string path;
  int xdr_in_use = 0;
  std::unique_ptr<XDR> xdr;
  int precision = 1;  // 1: 8-byte doubles, 0: 4-byte floats
};

// Bytes of a temporary vector file that the store holds back to write them in one go.
struct PendingRun {
  int64_t start = 0;  // file offset of bytes[0]
  int64_t used = 0;   // 0: nothing pending
  std::unique_ptr<unsigned char[]> bytes;
};

// One kind of the temporary vector store. Records are laid out back to back, one per possible
// mode, each node-capacity x 48 bytes; a node's six values sit at its slot x 48.
struct VectorSlot {
  FileSlot io;
  int opened = 0;
  bool owns_file = false;  // a temporary file the library made, deleted at release
  int64_t slot_bytes = 48;  // step between nodes inside a record
  std::vector<int64_t> record_start;  // per mode index
  // Kinds 1 and 2: node positions in the order they first received a value, and the index from
  // node id to slot.
  std::vector<int32_t> nodes;
  IdIndex index;
  // The one cached record (six doubles per node of the kind) and the mode index it holds.
  std::vector<double> record;
  int32_t held_mode = -1;
  // Store-private write combining: per mode index one run of consecutive bytes not yet written,
  // each at most run_capacity bytes. Dropped unwritten when the model is released.
  std::vector<PendingRun> runs;
  int64_t run_capacity = 0;
  // Node position and mode index of the last store, tried before the lookups.
  int32_t node_hint = -1;
  int32_t mode_hint = -1;
  int32_t slot_hint = -1;  // kinds 1 and 2: the node slot of the last store
};

struct EigenRecord {
  int32_t number = 0;  // slot 0
  double eigenvalue = 0.0;
  double hertz = 0.0;
  double radians = 0.0;
  double generalized_mass = 0.0;
  double generalized_stiffness = 0.0;
};

// One per exported mode: 13 integer and 13 real slots, written as they stand.
struct ModalStatistics {
  std::array<int32_t, 13> ints{};
  std::array<double, 13> reals{};
};

struct KRXDATA {
  // Own file: the file read from, or being written.
  FileSlot own;
  std::array<int64_t, kBlockCount + 1> block_start{};  // by block number, as located by the reader
  int char_width = 1;
  int real_width = 8;
  bool read_from_file = false;
  // The stored invariants of a model read from a file, installed by the reader so that processing
  // needs to know nothing of files: reads invariant block 19..26 into out, unscaled, and gives the
  // block's own mode count (-1 when it has none). 0 when the block cannot be read.
  int (*stored_invariants)(KRXDATA *model, int block, std::vector<double> &out,
                           int32_t *file_modes) = nullptr;
  int32_t file_node_count = 0;  // nodes that block 4 of the file read lists: the range of block 14

  // Temporary vector store, one slot per kind.
  std::array<VectorSlot, 3> store;
  std::vector<float> scratch;  // single-precision conversion buffer

  // Writer switches set by the generalized-mass setter.
  int gm_off_diagonal = 0;  // orthogonalise flag
  int gm_not_unit = 0;      // transform flag

  // Units: ratios of the last change, and canonical names (empty = not set).
  double force_ratio = 1.0, length_ratio = 1.0, mass_ratio = 1.0, time_ratio = 1.0;
  std::array<char, 16> mass_unit{}, length_unit{}, time_unit{}, force_unit{};

  // Version code and header texts.
  int32_t version = 31;
  std::array<char, 128> title{};
  std::array<char, 32> date{};
  std::array<char, 128> input_name{};
  std::array<char, 16> input_type{};
  std::array<std::array<char, 80>, 3> comments{};

  std::array<uint8_t, kFlagCount> flags{};

  // Node table; grows by half, at least 1000 entries at a time.
  uint32_t node_capacity = 0;
  std::vector<NodeRecord> nodes;
  IdIndex node_index;  // id to position, built on first use
  bool node_index_built = false;

  // Mode registry: mode numbers in order of first mention.
  int32_t mode_capacity = 0;
  std::vector<int32_t> modes;
  // Mode number to index, kept up with the registry on lookup: the first mode_index_covered
  // entries of modes are in it.
  mutable IdIndex mode_lookup;
  mutable std::size_t mode_index_covered = 0;
  int32_t retained_modes = 0;  // equals the registry count until the eigen solution sets it
  bool retained_set = false;

  // Generalized matrices: appended, never merged; a list grows by half, at least 100 entries.
  std::vector<MatrixEntry> stiffness, mass, damping;
  // 1 once the damping matrix is projected onto principal coordinates: its first six rows and
  // columns are then the principal rigid-body degrees of freedom. The listing says which.
  int32_t damping_projected = 0;

  // Global body properties.
  double total_mass = 0.0;
  std::array<double, 3> centre_of_mass{};
  std::array<double, 9> global_inertia{};

  // Faces: per face its vertex count then that many node positions.
  std::vector<int32_t> faces;
  int32_t face_count = 0;
  std::vector<int32_t> face_node_set;  // cached sorted node positions of faces and interface nodes
  bool face_node_set_built = false;

  // Interface nodes, as node positions in the order given. The lookup that keeps a node from
  // being marked twice is keyed by identifier, which a node keeps when a written model's table
  // is reduced, and catches up with the list on use.
  std::vector<int32_t> interface_nodes;
  IdIndex interface_lookup;
  std::size_t interface_covered = 0;

  // Inertia invariants, cached; empty until computed or set.
  bool has_invariant1 = false;
  double invariant1 = 0.0;
  std::vector<double> invariant2;  // 3
  std::vector<double> invariant3;  // 3 x M, component-major
  std::vector<double> invariant4;  // 3 x M, component-major
  std::vector<double> invariant5;  // M arrays of 3 x M
  std::vector<double> invariant7;  // 9
  std::vector<double> invariant8;  // M arrays of 9
  std::vector<double> invariant9;  // M x M arrays of 9

  // Eigen solution: one record per retained mode, the maps, and the transformation (n x n,
  // row-major, column j = new mode j in the host's modes) with the mode numbers it stands for.
  std::vector<EigenRecord> eigen;
  std::vector<int32_t> record_map;
  std::vector<int32_t> record_numbers;
  std::vector<double> transformation;
  std::vector<int32_t> transformation_modes;
  bool modes_orthonormalised = false;  // vectors, damping and loads already rewritten

  std::vector<ModalStatistics> statistics;

  // Pre-stress and pre-strain: six values per node of the kind's node list.
  std::vector<double> pre_stress, pre_strain;

  std::vector<LoadCase> load_cases;

  // Modal preload: one value per mode.
  std::vector<double> preload;
  int32_t preload_applied = 0;
  int32_t preload_extra = 0;  // the second int of the preload block
};

// The list of all models, in order of creation or reading.
std::vector<std::unique_ptr<KRXDATA>> &model_list();

// Sends "The database has not been initialized." when model is null.
bool model_exists(const KRXDATA *model);

// Creation appends to the model list; null (and no message) when allocation fails.
KRXDATA *create_model(uint32_t node_capacity, int32_t mode_capacity);
// Unlinks and releases one model; a model not in the list is left alone.
void release_model(KRXDATA *model);
void release_all_models();

// Node identifiers to positions: -1 when unknown. add_node appends and returns the new position.
int32_t node_position(KRXDATA *model, int32_t id);
int32_t add_node(KRXDATA *model, int32_t id);
// The position of id, adding the node when it is unknown; -1 on failure.
int32_t node_position_or_add(KRXDATA *model, int32_t id);
int32_t node_count(const KRXDATA *model);
// The throwing forms for callers that report a failed allocation in their own words: the
// identifier index is built when the node table changed, a node is appended to the table.
void index_nodes(KRXDATA &model);
int32_t append_node(KRXDATA &model, int32_t id);

// Mode numbers to indices: -1 when unknown. register_mode checks the mode capacity.
int32_t mode_index(const KRXDATA *model, int32_t number);
int32_t register_mode(KRXDATA *model, int32_t number);
int32_t mode_count(const KRXDATA *model);

// Generalized matrices: appends (row mode, column mode, value) to the list, registering both
// modes, and raises the list's content flag. A mass entry off the diagonal, or one on it that is
// not 1, also sets the writer switch it calls for. 0 on failure (reported).
int add_generalized_mass(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value);
int add_generalized_stiffness(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value);
int add_generalized_damping(KRXDATA *model, int32_t row_mode, int32_t column_mode, double value);

}  // namespace krx
