// The block queries of a KRX file read into a model: whether a block is present, the seek to its
// start and its length in bytes from its leading counts. Locating blocks is the file format's own
// rule; the reader, the listing and the comparison build on it.
#pragma once

#include <cstdint>

#include "model/krxdata.h"

namespace krx {

// index is the block number - 1. Blocks 1 to 3 are always present; no model or index >= 32: 0.
int block_present(const KRXDATA *model, int index);
// Positions the model's open file at the block's start; 0 without model, file or block.
int seek_to_block(KRXDATA *model, int index);
// The block's length in bytes from its leading counts and the file's widths; the file position
// is restored. 0 for an absent block; -1 after reporting "Problem in ... block".
int64_t block_size(KRXDATA *model, int index);

}  // namespace krx
