// The KRX file format: the stream layer that puts and gets every primitive in the file's encoding
// (XDR or native, double or single precision), the block catalogue (krxformat.h), the block
// queries that locate a block in a file (krxtoc.h), the writer options (krxoptions.h), the writer
// (krxwrite.h) and the reader (krxread.h). The inspection tools and the entries build on these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "model/krxdata.h"

namespace krx {

// Version code bits and the rules that derive encoding and precision from a code.
constexpr int32_t kXdrBit = 0x100;
constexpr int32_t kSingleBit = 0x200;
constexpr int32_t kDefaultVersion = 316;
inline int version_generation(int32_t code) { return code & 0xff; }
inline bool version_is_xdr(int32_t code) {
  return code == 31 || code == 41 || code == 51 || (code & kXdrBit) != 0;
}
inline bool version_is_single(int32_t code) {
  return code == 50 || code == 51 || (code & kSingleBit) != 0;
}

// Opens path for binary writing; with xdr an encoding stream is bound to it. Reports "Unable to
// open %s for write. Please check write permissions." (or the allocation failure with source).
int open_write_stream(FileSlot &io, const char *path, bool xdr, const char *source);
// Opens path for binary reading, no stream bound yet; silent on failure (callers decide).
int open_read_stream(FileSlot &io, const char *path);
// Binds an XDR stream in the given direction to the open file.
int bind_xdr_stream(FileSlot &io, xdr_op direction, const char *source);
// Destroys the XDR stream (flushing it) and closes the file; 0 when the flush or the close fails
// or the file already had an error.
int close_stream(FileSlot &io);

// 64-bit positions of the underlying file; the XDR stream reads and writes on from there.
int seek_stream(FileSlot &io, int64_t offset);
int64_t tell_stream(FileSlot &io);
// Size of the open file, -1 when unknown.
int64_t stream_file_size(FileSlot &io);

// Arrays of n items: XDR arrays are converted to network order in a buffer and moved in one
// put/get of bytes, byte-identical to xdr_vector with the element routine. n == 0 succeeds.
int put_ints(FileSlot &io, const int32_t *values, std::size_t n);
int get_ints(FileSlot &io, int32_t *values, std::size_t n);
int put_doubles(FileSlot &io, const double *values, std::size_t n);
int get_doubles(FileSlot &io, double *values, std::size_t n);
int put_floats(FileSlot &io, const float *values, std::size_t n);
int get_floats(FileSlot &io, float *values, std::size_t n);
// Characters: 4 bytes each (sign-extended) under XDR, 1 byte natively.
int put_chars(FileSlot &io, const char *values, std::size_t n);
int get_chars(FileSlot &io, char *values, std::size_t n);

inline int put_int(FileSlot &io, int32_t value) { return put_ints(io, &value, 1); }
inline int get_int(FileSlot &io, int32_t &value) { return get_ints(io, &value, 1); }

// Reals in the slot's precision (io.precision 1: doubles, 0: floats). Values are doubles in
// memory; single precision narrows through scratch (in chunks of its size, at least 512 values)
// and widens on reading.
int put_reals(FileSlot &io, std::vector<float> &scratch, const double *values, std::size_t n);
int get_reals(FileSlot &io, std::vector<float> &scratch, double *values, std::size_t n);
// The model's own file with the model's scratch array.
int put_reals(KRXDATA &model, const double *values, std::size_t n);
int get_reals(KRXDATA &model, double *values, std::size_t n);

// n reals of a file, read as raw bytes into values (doubles) or into its upper half (floats of a
// single-precision file), made native doubles in place.
void decode_values_in_place(double *values, std::size_t n, bool xdr, bool single);

// Sizes the model's scratch array for a single-precision file: zero-filled, at least 512 values
// and six per node. Reports the allocation failure with source.
int prepare_scratch(KRXDATA &model, const char *source);

// Byte widths of one character and one real in a file of this slot.
inline int char_width(const FileSlot &io) { return io.xdr_in_use ? 4 : 1; }
inline int real_width(const FileSlot &io) { return io.precision ? 8 : 4; }

}  // namespace krx
