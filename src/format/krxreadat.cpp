// Positioned reading of a KRX file: every read is a pread of the bytes it needs, decoded by the
// block catalogue's codecs from memory, so that calls share no file position and no buffer.
#include "format/krxreadat.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

namespace krx {
namespace {

std::string at_block(const PositionedFile &f, int number) {
  return "block " + std::to_string(number) + " (" + block_info(number)->name + ") at byte " +
         std::to_string(f.start[number]) + " of " + f.path;
}

int pread_all(int fd, void *to, std::size_t bytes, int64_t offset) {
  char *p = static_cast<char *>(to);
  while (bytes > 0) {
    ssize_t got = pread(fd, p, bytes, off_t(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return 0;
    p += got;
    bytes -= std::size_t(got);
    offset += got;
  }
  return 1;
}

// Reads bytes at offset into memory and runs decode over them as over an open file of this
// encoding; limit is what the decoder's counts are checked against (the whole block).
int decode_range(const PositionedFile &f, int64_t offset, int64_t bytes, int64_t limit,
                 const std::function<int(BlockIo &)> &decode, bool &out_of_memory) {
  out_of_memory = false;
  std::vector<char> buffer;
  std::vector<float> scratch;
  FileSlot io;
  try {
    buffer.resize(std::size_t(bytes > 0 ? bytes : 1));
    if (f.single) scratch.assign(1 << 14, 0.0f);
    if (f.xdr) io.xdr = std::make_unique<XDR>();
  } catch (const std::bad_alloc &) {
    out_of_memory = true;
    return 0;
  }
  if (!pread_all(f.fd, buffer.data(), std::size_t(bytes), offset)) return 0;
  io.file = fmemopen(buffer.data(), buffer.size(), "rb");
  if (!io.file) return 0;
  io.precision = f.single ? 0 : 1;
  if (f.xdr && !bind_xdr_stream(io, XDR_DECODE, "..\\krxreadat")) {
    std::fclose(io.file);
    return 0;
  }
  BlockIo b{io, scratch, f.generation, limit, false};
  int ok = decode(b);
  out_of_memory = b.out_of_memory;
  close_stream(io);
  return ok;
}

// Native codes are recognised by their low byte; anything else must be an XDR code.
int read_version(PositionedFile &f) {
  unsigned char raw[4];
  if (!pread_all(f.fd, raw, 4, 0)) return 0;
  int32_t code;
  std::memcpy(&code, raw, 4);
  int low = version_generation(code);
  bool odd = version_is_xdr(code);
  if (low == 10 || low == 20 || low == 30 || low == 40 || low == 50 || (low >= 60 && !odd)) {
    f.code = code;
  } else {
    uint32_t big = uint32_t(raw[0]) << 24 | uint32_t(raw[1]) << 16 | uint32_t(raw[2]) << 8 | raw[3];
    code = int32_t(big);
    low = version_generation(code);
    if (!(low == 31 || low == 41 || low == 51 || (low >= 60 && version_is_xdr(code)))) return 0;
    f.code = code;
    f.xdr = true;
  }
  f.generation = version_generation(f.code);
  f.single = version_is_single(f.code);
  return 1;
}

int read_front(PositionedFile &f, std::string &problem) {
  bool memory = false;
  int64_t header_bytes = 544 * int64_t(f.C()), flag_bytes = kFlagCount * int64_t(f.C());
  if (f.size < 4 + header_bytes + flag_bytes ||
      !decode_range(f, 4, header_bytes, header_bytes,
                    [&](BlockIo &b) { return read_header_block(b, f.header); }, memory) ||
      !decode_range(f, 4 + header_bytes, flag_bytes, flag_bytes,
                    [&](BlockIo &b) { return read_content_block(b, f.flags); }, memory)) {
    problem = f.path + ": the header or the content summary cannot be read";
    return 0;
  }
  HeaderBlock &h = f.header;
  trim_header_fields(h);
  // These generations have no invariant or later blocks.
  if (f.generation == 10 || f.generation == 20 || f.generation == 30 || f.generation == 31)
    std::fill(f.flags.begin() + 17, f.flags.begin() + 97, uint8_t(0));
  for (auto &flag : f.flags) flag = flag != 0;
  f.start[1] = 0, f.bytes[1] = 4;
  f.start[2] = 4, f.bytes[2] = header_bytes;
  f.start[3] = 4 + header_bytes, f.bytes[3] = flag_bytes;
  return 1;
}

// The old element block: its face count, group count and words, from the group headers. The
// face count must be what the groups hold, since callers size the face list from it.
int read_topology_counts(BlockIo &b, BlockCounts &counts) {
  int32_t lead[2];
  if (!get_ints(b.io, lead, 2) || lead[0] < 0 || lead[1] < 0) return 0;
  int64_t words = 0, faces = 0;
  for (int32_t g = 0; g < lead[1]; ++g) {
    int32_t header[3];
    if (!get_ints(b.io, header, 3) || header[1] < 0 || header[2] < 0) return 0;
    faces += header[1];
    words += int64_t(header[1]) * (int64_t(header[2]) + 2);  // below 2^62 a group
    if (words > std::numeric_limits<int64_t>::max() / 8) return 0;
  }
  if (faces != lead[0]) return 0;
  counts.n = {lead[0], lead[1], words};
  return 1;
}

// The leading counts of a present block; the old element block is sized by its group headers.
int read_counts(PositionedFile &f, int number, int64_t at) {
  const BlockInfo *info = block_info(number);
  int64_t left = f.size - at;
  int64_t want = number == 14 ? 16 : 4 * int64_t(info->leading);
  if (number == 5) {
    int32_t lead[2];
    bool memory;
    if (left < 8 || !decode_range(f, at, 8, 8, [&](BlockIo &b) { return get_ints(b.io, lead, 2); },
                                  memory) || lead[1] < 0)
      return 0;
    want = 8 + 12 * int64_t(lead[1]);
  }
  if (want > left) return 0;
  if (want == 0) return 1;
  bool memory;
  int32_t faces[4] = {0, 0, 0, 0};
  return decode_range(f, at, want, want, [&](BlockIo &b) {
    if (number == 5) return read_topology_counts(b, f.counts[number]);
    if (number != 14) return read_block_counts(b, number, f.counts[number]);
    // The block states its own size, which must be that of its face list.
    if (!get_ints(b.io, faces, 4) || faces[2] < 0 || faces[3] < 0 || faces[2] > faces[3] ||
        int64_t(faces[0]) != 4 * int64_t(faces[3]) + 16)
      return 0;
    f.counts[number].n = {faces[0], faces[2], faces[3]};
    return 1;
  }, memory);
}

int locate_blocks(PositionedFile &f, std::string &problem) {
  int64_t at = f.start[3] + f.bytes[3];
  for (int number = 4; number <= kBlockCount; ++number) {
    f.start[number] = at;
    if (!f.flags[std::size_t(block_info(number)->flag)]) continue;
    if (!read_counts(f, number, at)) {
      problem = at_block(f, number) +
                ": its leading counts cannot be read or contradict each other";
      return 0;
    }
    BlockCounts sizing = f.counts[number];
    if (number == 14) sizing.n = {sizing.n[0], 0, 0};
    int64_t bytes = block_info(number)->size(sizing, f.C(), f.R(), f.generation);
    if (bytes <= 0 || bytes > f.size - at) {
      problem = at_block(f, number) + ": its counts call for more bytes than the file holds (" +
                std::to_string(f.size) + ")";
      return 0;
    }
    f.bytes[number] = bytes;
    at += bytes;
  }
  return 1;
}

// Counts that size no bytes of their own must still be what the file can justify, since callers
// allocate from them: the order of the generalized matrices (their entries are sparse), and the
// records of a generation-10 mode block over no nodes.
int check_unsized_counts(PositionedFile &f, std::string &problem) {
  int64_t known = std::max(f.has(7) ? f.counts[7].n[0] : 0, f.has(16) ? f.counts[16].n[0] : 0);
  for (int number : {8, 18, 29})
    if (f.has(number) && f.counts[number].n[0] > f.size) {
      problem = at_block(f, number) + ": more modes than the file has bytes";
      return 0;
    }
  known = std::max(known, f.has(8) ? f.counts[8].n[0] : 0);
  for (int number : {12, 13, 15}) {
    int64_t order = f.has(number) ? f.counts[number].n[1] : 0;
    if (order < 0 || (order > known && order * order > f.size)) {
      problem = at_block(f, number) + ": matrix order " + std::to_string(order) +
                " is more than the file can justify";
      return 0;
    }
  }
  return 1;
}

// One count serves a family of blocks (the generalized matrices' order, the invariants' mode
// count), so callers size every array of the family from it: the blocks must agree on it.
int check_families(PositionedFile &f, std::string &problem) {
  struct Family {
    std::initializer_list<int> blocks;
    int slot;
    const char *what;
  };
  for (const Family &family : {Family{{12, 13, 15}, 1, "matrix order"},
                               Family{{21, 22, 23, 25, 26}, 0, "mode count"}}) {
    int first = 0;
    for (int number : family.blocks) {
      if (!f.has(number)) continue;
      if (!first) first = number;
      std::size_t slot = std::size_t(family.slot);
      if (f.counts[number].n[slot] == f.counts[first].n[slot]) continue;
      problem = at_block(f, number) + ": its " + family.what + " differs from block " +
                std::to_string(first) + "'s";
      return 0;
    }
  }
  return 1;
}

}  // namespace

int open_positioned(const char *path, PositionedFile &f, std::string &problem) {
  f.path = path;
  f.fd = open(path, O_RDONLY | O_CLOEXEC);
  if (f.fd < 0) {
    problem = "cannot open " + f.path + ": " + std::strerror(errno);
    return 0;
  }
  struct stat st;
  if (fstat(f.fd, &st) != 0) {
    problem = "cannot read " + f.path + ": " + std::strerror(errno);
  } else if (f.size = int64_t(st.st_size), f.size < 4 || !read_version(f)) {
    problem = f.path + ": not a KRX file (no version code at byte 0)";
  } else if (read_front(f, problem) && locate_blocks(f, problem) &&
             check_unsized_counts(f, problem) && check_families(f, problem)) {
    return 1;
  }
  close_positioned(f);
  return 0;
}

void close_positioned(PositionedFile &f) {
  if (f.fd >= 0) close(f.fd);
  f.fd = -1;
}

int decode_block(const PositionedFile &f, int number, int64_t bytes,
                 const std::function<int(BlockIo &)> &decode, std::string &problem,
                 bool &memory) {
  if (bytes < 0 || bytes > f.bytes[number]) bytes = f.bytes[number];
  if (decode_range(f, f.start[number], bytes, f.bytes[number], decode, memory)) return 1;
  problem = memory ? "out of memory while reading " + at_block(f, number)
                   : at_block(f, number) + ": the block does not match its layout";
  return 0;
}

int read_mode_at(const PositionedFile &f, int number, int64_t mode, int32_t &mode_number,
                 double *values, std::string &problem) {
  int64_t nodes = f.counts[number].n[1];
  int64_t lead = f.generation == 10 ? 0 : 4;
  int64_t at = f.start[number] + 8 + 4 * nodes + mode * (lead + 6 * nodes * f.R());
  std::size_t count = std::size_t(6 * nodes);
  unsigned char raw[4];
  bool ok = !lead || pread_all(f.fd, raw, 4, at);
  // A piece at a time, decoded while it is still in the cache: one pass over memory, not two.
  // A piece of floats is read into the upper half of its own doubles and widened in place.
  constexpr std::size_t kPiece = 1 << 15;
  for (std::size_t done = 0; ok && done < count; done += kPiece) {
    std::size_t n = std::min(kPiece, count - done);
    double *piece = values + done;
    void *into = f.single ? static_cast<void *>(reinterpret_cast<float *>(piece) + n) : piece;
    ok = pread_all(f.fd, into, n * std::size_t(f.R()), at + lead + int64_t(done) * f.R());
    if (ok) decode_values_in_place(piece, n, f.xdr, f.single);
  }
  if (!ok) {
    problem = "cannot read mode " + std::to_string(mode + 1) + " of " + at_block(f, number);
    return 0;
  }
  if (lead) {
    std::memcpy(&mode_number, raw, 4);
    if (f.xdr) mode_number = int32_t(__builtin_bswap32(uint32_t(mode_number)));
  } else {
    mode_number = int32_t(mode + 1);
  }
  return 1;
}

}  // namespace krx
