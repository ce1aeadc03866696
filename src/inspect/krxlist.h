// Inspection of KRX files read into models: the listing of one block as readable text, which the
// dump tool and the file comparison print (here), and the comparison of two files (krxcompare.h).
// Built on the reader and the block queries of the format folder; used by the tools.
#pragma once

#include <cstdio>

#include "model/krxdata.h"

namespace krx {

// Prints the section of block 1..32; other numbers or no model print nothing.
void list_block(KRXDATA *model, int block, FILE *out);

}  // namespace krx
