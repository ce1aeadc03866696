// Reader internals shared by its two source files.
#pragma once

#include "model/krxdata.h"

namespace krx {

// The reader's "Problem ..." message of a block.
const char *block_problem(int block);
// Blocks 8, 18, 29 by kind: checks the head, records each mode's start, sets up the store slot.
int read_vector_block(KRXDATA &model, int kind);
// Blocks 31 (kind 1) and 32 (kind 2).
int read_pre_block_of(KRXDATA &model, int kind);
// Unit names read from a file are brought to their canonical spelling.
void normalize_file_units(KRXDATA &model);

}  // namespace krx
