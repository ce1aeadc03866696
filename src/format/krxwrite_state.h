// The state of one write, shared by the pipeline (krxwrite.cpp) and the block writers
// (krxwrite_blocks.cpp). Everything here lives for one write only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "format/krxformat.h"
#include "format/krxoptions.h"
#include "model/krxdata.h"

namespace krx {

struct WriteState {
  KRXDATA *model = nullptr;
  std::string path;
  WriteOptions options;
  FileSlot out;  // the output file; the model's own slot keeps the file it was read from
  int generation = 60;
  // The exported band of retained modes: records [band_start, band_start + band_count).
  int32_t band_start = 0;
  int32_t band_count = 0;
  // Generation 60 lists only the nodes that carry stress (strain) values; every other generation
  // lists every mode-shape node, with zeros where a node has none.
  bool dense_stress = false;
  bool reduction_failed = false;

  BlockIo io() { return BlockIo{out, model->scratch, generation, -1, false}; }
};

// Writes block 4 to 32 of the given number when flagged; prints the block's notes and diagnostics
// and, on failure, its failure message. 1 on success (or when the block is absent).
int write_data_block(WriteState &state, int block);

}  // namespace krx
