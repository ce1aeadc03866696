// The reader: loads a KRX file into a fresh model (detecting encoding and precision, locating
// every block), records where each mode's values start for on-demand reads, and reads the
// invariant blocks when they are asked for.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// Reads the open file into a fresh model; the model keeps the file (closed at release) and a
// copy of path. Every failure is reported; what was loaded stays in the model.
int read_krx(KRXDATA *model, FILE *file, const char *path);
// The first model read from path, or a model read afresh from the file (appended to the list of
// all models); null on failure.
KRXDATA *find_or_read_model(const char *path);

// The values of one mode record of kind 0, 1 or 2 (by mode index) straight from the model's
// file in its encoding and precision: six doubles per node of the block, unscaled.
int read_mode_values(KRXDATA *model, int kind, int32_t mode_index, std::vector<double> &out);

// Reads invariant block 19..26 from the model's file into out, unscaled, as many values as the
// model's retained mode count calls for (krx::read_invariant_block adds the checks and scaling). file_modes receives the block's own mode count (-1 when it has none).
// 0 when the block is absent or cannot be read.
int read_invariant_values(KRXDATA *model, int block, std::vector<double> &out,
                         int32_t *file_modes = nullptr);

}  // namespace krx
