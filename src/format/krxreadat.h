// Reading a KRX file at positions, for the public read API: one open descriptor, no file position
// shared between calls, so that several threads may read one file at once. Opening reads the
// version code, the header, the content flags and the leading counts of every present block;
// everything else is read when asked for, a block at a time, through the block catalogue's codecs.
// Nothing here prints: every failure leaves its text in the caller's string.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "format/krxformat.h"

namespace krx {

struct PositionedFile {
  int fd = -1;
  std::string path;
  int64_t size = -1;  // stays -1 when the file cannot be opened or its size read
  int32_t code = 0;
  int generation = 0;
  bool xdr = false;
  bool single = false;
  std::array<uint8_t, kFlagCount> flags{};
  // Per block number (index 0 unused): start, bytes (0 when absent) and leading counts. The
  // element_faces block keeps its face count and word count in counts.n[1] and n[2].
  std::array<int64_t, kBlockCount + 1> start{};
  std::array<int64_t, kBlockCount + 1> bytes{};
  std::array<BlockCounts, kBlockCount + 1> counts{};
  HeaderBlock header;
  int C() const { return xdr ? 4 : 1; }
  int R() const { return single ? 4 : 8; }
  bool has(int block) const { return block >= 1 && block <= kBlockCount && bytes[block] > 0; }
};

// Opens path and locates every block; each block must lie inside the file. On failure problem
// holds the reason and the file is closed.
int open_positioned(const char *path, PositionedFile &f, std::string &problem);
void close_positioned(PositionedFile &f);

// Decodes bytes of block number from its start (all of it when bytes is -1) with decode, whose
// counts are checked against the whole block. problem names the block on failure;
// out_of_memory tells an allocation failure from a block that does not match its layout.
int decode_block(const PositionedFile &f, int number, int64_t bytes,
                 const std::function<int(BlockIo &)> &decode, std::string &problem,
                 bool &out_of_memory);

// One record of block 8, 18 or 29 (by mode index): its mode number and 6 values per node of the
// block, widened to doubles into values.
int read_mode_at(const PositionedFile &f, int number, int64_t mode, int32_t &mode_number,
                 double *values, std::string &problem);

}  // namespace krx
