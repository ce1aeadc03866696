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
  std::string path;       // the output name as given, for the messages
  std::string target;     // the file replaced: the path, or the file a symbolic link names
  std::string temporary;  // the new file while it is written; empty when written in place
  std::string directory;  // the directory of target, synced after the rename
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

// Opens the output of the write: a new temporary file beside the file that the path names, or
// the path itself when it is not a regular file (a device, a pipe). Reports "Unable to open %s for
// write. Please check write permissions." (or the allocation failure).
int open_output_file(WriteState &state, const char *path);
// Closes the output. With ok, flushes it to disk and renames it over the path (then flushes the
// directory); otherwise, or when that fails, removes it. The result: ok and all of that succeeded.
int close_output_file(WriteState &state, int ok);

// Writes block 4 to 32 of the given number when flagged; prints the block's notes and diagnostics
// and, on failure, its failure message. 1 on success (or when the block is absent).
int write_data_block(WriteState &state, int block);

}  // namespace krx
