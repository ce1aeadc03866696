// Inspection of a KRX file read into a model: the block queries (present, seek, size) and the
// listing of one block as readable text, which the dump tool and the file comparison print.
#pragma once

#include <cstdint>
#include <cstdio>

#include "model/krxdata.h"

namespace krx {

// index is the block number - 1. Blocks 1 to 3 are always present; no model or index >= 32: 0.
int block_present(const KRXDATA *model, int index);
// Positions the model's open file at the block's start; 0 without model, file or block.
int seek_to_block(KRXDATA *model, int index);
// The block's length in bytes from its leading counts and the file's widths; the file position
// is restored. 0 for an absent block; -1 after reporting "Problem in ... block".
int64_t block_size(KRXDATA *model, int index);

// Prints the section of block 1..32; other numbers or no model print nothing.
void list_block(KRXDATA *model, int block, FILE *out);

}  // namespace krx
