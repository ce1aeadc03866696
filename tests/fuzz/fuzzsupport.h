// Support shared by the fuzz targets and their replay: a host that swallows every message, an
// input held as an open file in memory, and a small host session through the exported entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "model/krxdata.h"

namespace krxfuzz {

// Registers callbacks that drop every message and answer the quiet inquiry with yes.
void silence_host();

// The bytes as a file in memory, open for reading at its start; null when it cannot be made.
// path receives a name under which the same file can be opened again.
FILE *memory_file(const uint8_t *data, std::size_t size, std::string *path = nullptr);

// Lists every block of the model to out, except the listings whose length is legitimately
// quadratic in the mode count (invariants 5 and 9 list a line per mode pair even when absent)
// once the model has more than kLongListingModes modes: they would only measure the output.
constexpr std::size_t kLongListingModes = 100;
void list_every_block(krx::KRXDATA *model, FILE *out);

// Reads the bytes into a fresh model; null (model released) when the reader refuses them.
krx::KRXDATA *read_bytes(const uint8_t *data, std::size_t size);

// A native file of modes over no nodes, built from the layout rather than by the writer: block 4
// without nodes, block 7 with the eigenvalue of mode k (1-based) from eigenvalue(k), block 8
// without values. Reals are doubles (code 60) or, with single, floats (code 50).
std::vector<uint8_t> modes_only_file(int32_t modes, double (*eigenvalue)(int32_t), bool single);

// A small model of every kind of item through the exported entries, as a host builds it: nodes,
// masses, inertias, mode shapes, stresses, strains, generalized mass and stiffness, faces and an
// interface node, plus pre-stress, preloads and a load case. 1 when every entry succeeded.
// observe, when given, sees the status of every call (0 success, 1 failure) as it returns.
using StatusObserver = void (*)(const char *entry, int status);
int build_session(int nodes, int modes, StatusObserver observe = nullptr);

}  // namespace krxfuzz

// The fuzz entry of each target.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);
