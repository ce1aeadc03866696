// The block catalogue of a KRX file: one table of every block (number, name, content flag, size
// rule over its leading counts and the two widths) and one codec per block layout, shared by the
// writer, the reader, the size query and the listing. A block struct holds a block exactly as
// laid out in the file (node ids, 1-based matrix positions); builders convert from the model.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "format/krxstream.h"
#include "model/krxdata.h"

namespace krx {

// Leading counts of a block as read at its start (unused entries 0). Block 5 keeps the face
// count, the group count and the summed words of its faces.
struct BlockCounts {
  std::array<int64_t, 3> n{};
};

struct BlockInfo {
  int number;
  const char *name;          // the catalogue name: "nodal_coords", "invariant 1", ...
  int flag;                  // content-summary byte, -1 for blocks 1 to 3
  int leading;               // ints read at the block's start to size it
  // Bytes of the block from its counts, character width C, real width R and generation; -1
  // when the counts are negative or the size overflows.
  int64_t (*size)(const BlockCounts &counts, int C, int R, int generation);
  const char *size_problem;  // the size query's message, null when it has none
};

// Blocks 1 to 32; nullptr for other numbers.
const BlockInfo *block_info(int number);
// The block whose content flag is byte, 0 when the byte stands for no block.
int block_of_flag(int flag);

// One open file with its widths: the unit the codecs work on. limit is the file size when
// reading (every count is checked against the bytes left before anything is allocated).
struct BlockIo {
  FileSlot &io;
  std::vector<float> &scratch;
  int generation = 60;
  int64_t limit = -1;
  bool out_of_memory = false;  // set by a decoder whose allocation failed
};
BlockIo model_block_io(KRXDATA &model);

// Reads a block's leading counts at the current position.
int read_block_counts(BlockIo &b, int number, BlockCounts &counts);

// ---- block layouts ----
struct HeaderBlock {
  std::array<char, 128> title{};
  std::array<char, 32> date{};
  std::array<char, 128> input_name{};
  std::array<char, 16> input_type{};
  std::array<std::array<char, 80>, 3> comments{};
};
struct NodalCoordsBlock {  // block 4
  int32_t dims = 3;
  std::vector<int32_t> ids;
  std::vector<double> xyz;  // 3 per node
};
struct ElementTopologyBlock {  // block 5
  int32_t face_count = 0;
  std::vector<std::array<int32_t, 3>> groups;  // (group index, faces, vertices per face)
  std::vector<int32_t> words;  // per face: 2 skipped ints, then its node ids
};
struct NodalMassesBlock {  // block 9
  int32_t dims = 1;
  std::vector<int32_t> ids;
  std::vector<double> values;  // dims per node
};
struct InertiaEntry {
  int32_t id = 0;
  char row = 0, column = 0;  // 4, 5 or 6 as character values
  double value = 0.0;
};
struct MatrixBlockEntry {
  int32_t row = 0, column = 0;  // 1-based among the written modes
  double value = 0.0;
  int32_t one = 1;
};
struct MatrixBlock {  // blocks 12, 13, 15
  int32_t order = 0;
  std::vector<MatrixBlockEntry> entries;
};
struct ElementFacesBlock {  // block 14
  int32_t face_count = 0;
  std::vector<int32_t> words;  // per face: vertex count, then node ids
};
struct TransformationBlock {  // block 16
  std::vector<int32_t> modes;
  std::vector<double> matrix;  // modes x modes, row by row
};
struct ModeBlockHead {  // blocks 8, 18, 29 before their records
  int32_t modes = 0;
  std::vector<int32_t> ids;
};
struct InvariantBlock {  // blocks 19 to 26
  int32_t modes = 0;            // written only by blocks 21, 22, 23, 25, 26
  std::vector<double> values;   // as the model keeps them
};
struct PreloadBlock {  // block 27
  int32_t extra = 0;
  std::vector<double> values;
};
struct LoadCaseRecord {
  std::array<char, 256> name{};
  int32_t projected = 0;
  std::vector<double> values;
};
struct ModalLoadsBlock {  // block 28
  int32_t modes = 0;
  std::vector<LoadCaseRecord> cases;
};

// ---- codecs: write_* puts the block at the current position, read_* gets it ----
int write_version_block(BlockIo &b, int32_t code);
int read_version_block(BlockIo &b, int32_t &code);
int write_header_block(BlockIo &b, const HeaderBlock &h);
int read_header_block(BlockIo &b, HeaderBlock &h);
// Each text field of a header as read: its trailing blanks and padding cut, the last byte NUL.
void trim_header_fields(HeaderBlock &h);
int write_content_block(BlockIo &b, const std::array<uint8_t, kFlagCount> &flags);
int read_content_block(BlockIo &b, std::array<uint8_t, kFlagCount> &flags);
int write_nodal_coords_block(BlockIo &b, const NodalCoordsBlock &block);
int read_nodal_coords_block(BlockIo &b, NodalCoordsBlock &block);
int write_element_topology_block(BlockIo &b, const ElementTopologyBlock &block);
int read_element_topology_block(BlockIo &b, ElementTopologyBlock &block);
int write_global_body_block(BlockIo &b, const std::array<double, 13> &values);
int read_global_body_block(BlockIo &b, std::array<double, 13> &values);
int write_eigenvalues_block(BlockIo &b, const std::vector<EigenRecord> &records);
int read_eigenvalues_block(BlockIo &b, std::vector<EigenRecord> &records);
// Blocks 8, 18, 29: the head, then per mode its number (not in generation 10) and 6 x N reals.
int write_mode_block_head(BlockIo &b, const ModeBlockHead &head);
int read_mode_block_head(BlockIo &b, ModeBlockHead &head);
int write_mode_record(BlockIo &b, int32_t number, const double *values, std::size_t nodes);
// Reads the number (or gives fallback in generation 10) and leaves the position at the values.
int read_mode_record_number(BlockIo &b, int32_t fallback, int32_t &number);
// Only the two leading ints can fail it: the per-node writes are not checked (kept on purpose).
int write_nodal_masses_block(BlockIo &b, const NodalMassesBlock &block);
int read_nodal_masses_block(BlockIo &b, NodalMassesBlock &block);
int write_nodal_inertia_block(BlockIo &b, const std::vector<InertiaEntry> &entries);
int read_nodal_inertia_block(BlockIo &b, std::vector<InertiaEntry> &entries);
int write_units_block(BlockIo &b, const std::array<std::array<char, 16>, 4> &units);
int read_units_block(BlockIo &b, std::array<std::array<char, 16>, 4> &units);
int write_matrix_block(BlockIo &b, const MatrixBlock &block);
int read_matrix_block(BlockIo &b, MatrixBlock &block);
int write_element_faces_block(BlockIo &b, const ElementFacesBlock &block);
int read_element_faces_block(BlockIo &b, ElementFacesBlock &block);
int write_transformation_block(BlockIo &b, const TransformationBlock &block);
int read_transformation_block(BlockIo &b, TransformationBlock &block);
int write_interface_block(BlockIo &b, const std::vector<int32_t> &ids);
int read_interface_block(BlockIo &b, std::vector<int32_t> &ids);
// number 19 to 26; the value count follows from the block and its mode count.
int write_invariant_block(BlockIo &b, int number, const InvariantBlock &block);
int read_invariant_block(BlockIo &b, int number, int32_t modes, InvariantBlock &block);
int64_t invariant_value_count(int number, int64_t modes);
int write_preload_block(BlockIo &b, const PreloadBlock &block);
int read_preload_block(BlockIo &b, PreloadBlock &block);
int write_modal_loads_block(BlockIo &b, const ModalLoadsBlock &block);
int read_modal_loads_block(BlockIo &b, ModalLoadsBlock &block);
int write_statistics_block(BlockIo &b, const std::vector<ModalStatistics> &records);
int read_statistics_block(BlockIo &b, std::vector<ModalStatistics> &records);
// Blocks 31, 32: int N, then 6 x N reals.
int write_pre_block(BlockIo &b, const std::vector<double> &values);
int read_pre_block(BlockIo &b, std::vector<double> &values);

// ---- builders from the model (positions to ids, 0-based to 1-based) ----
void make_header_block(const KRXDATA &model, HeaderBlock &h);  // the date loses its newline
// Faces as the model keeps them: vertices are 0-based positions in the node table as block 4
// lists it. 0 when a vertex is not a node of the table.
int make_element_faces_block(const KRXDATA &model, ElementFacesBlock &block);
int make_element_topology_block(const KRXDATA &model, ElementTopologyBlock &block);
// Each node's non-zero terms among (4,4), (5,5), (6,6), (4,5), (4,6), (5,6), in that order.
void make_nodal_inertia_entries(const KRXDATA &model, std::vector<InertiaEntry> &entries);
// The non-zero entries of a generalized matrix; positions are mode indices + 1.
void make_matrix_block(const std::vector<MatrixEntry> &list, int32_t order, MatrixBlock &block);

}  // namespace krx
