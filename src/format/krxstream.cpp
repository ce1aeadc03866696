// The stream layer: primitives of a KRX file in XDR or native encoding.
#include <sys/stat.h>

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "format/krxstream.h"
#include "base/krxmsg.h"

namespace krx {
namespace {

// Arrays are encoded through this buffer a chunk at a time, so that a mode record of millions of
// values costs no allocation. Each chunk is one write call, and a write call costs about as much
// as copying a megabyte to the page cache: 512 KiB chunks made the encode twice the plain write,
// 4 MiB chunks leave the swap itself as the only extra pass. Decoding reads straight into the
// destination and swaps each 256 KiB piece in place while it is still in the cache.
constexpr std::size_t kChunkBytes = 1 << 22;
constexpr std::size_t kDecodeBytes = 1 << 18;
alignas(8) unsigned char g_chunk[kChunkBytes];

template <typename Word>
Word swap_word(Word w) {
  if constexpr (sizeof(Word) == 4) return __builtin_bswap32(w);
  else return __builtin_bswap64(w);
}

template <typename Word>
void swap_tail(const unsigned char *in, unsigned char *out, std::size_t at, std::size_t bytes) {
  for (; at < bytes; at += sizeof(Word)) {
    Word w;
    std::memcpy(&w, in + at, sizeof(Word));
    w = swap_word(w);
    std::memcpy(out + at, &w, sizeof(Word));
  }
}

// Baseline x86-64 (SSE2): sixteen bytes at a time through 16-bit shifts and word shuffles.
template <typename Word>
void swap_words_sse2(const unsigned char *in, unsigned char *out, std::size_t bytes) {
  std::size_t at = 0;
  for (; at + 16 <= bytes; at += 16) {
    __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + at));
    x = _mm_or_si128(_mm_slli_epi16(x, 8), _mm_srli_epi16(x, 8));  // bytes within 16-bit halves
    if constexpr (sizeof(Word) == 8) {
      x = _mm_shufflelo_epi16(x, _MM_SHUFFLE(0, 1, 2, 3));
      x = _mm_shufflehi_epi16(x, _MM_SHUFFLE(0, 1, 2, 3));
    } else {
      x = _mm_shufflelo_epi16(x, _MM_SHUFFLE(2, 3, 0, 1));
      x = _mm_shufflehi_epi16(x, _MM_SHUFFLE(2, 3, 0, 1));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + at), x);
  }
  swap_tail<Word>(in, out, at, bytes);
}

// Machines with AVX2: one byte shuffle per 32 bytes.
template <typename Word>
__attribute__((target("avx2"))) void swap_words_avx2(const unsigned char *in, unsigned char *out,
                                                     std::size_t bytes) {
  const __m256i order = sizeof(Word) == 8
      ? _mm256_setr_epi8(7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8,
                         7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8)
      : _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12,
                         3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
  std::size_t at = 0;
  for (; at + 32 <= bytes; at += 32) {
    __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + at));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + at), _mm256_shuffle_epi8(x, order));
  }
  swap_tail<Word>(in, out, at, bytes);
}

// Byte-reverses count words of from into to (which may be the same memory): the swap is the
// whole cost of XDR beyond the plain write, so it must not go word by word. The machine is asked
// once which path it takes; the library is built for baseline x86-64.
template <typename Word>
void swap_words(const void *from, void *to, std::size_t count) {
  static const bool avx2 = __builtin_cpu_supports("avx2");
  const unsigned char *in = static_cast<const unsigned char *>(from);
  unsigned char *out = static_cast<unsigned char *>(to);
  if (avx2) swap_words_avx2<Word>(in, out, count * sizeof(Word));
  else swap_words_sse2<Word>(in, out, count * sizeof(Word));
}

// XDR lays every item out big-endian; the machine is little-endian, so encoding is a byte swap.
template <typename T, typename Word>
int put_swapped(FileSlot &io, const T *values, std::size_t n) {
  static_assert(sizeof(T) == sizeof(Word));
  constexpr std::size_t per_chunk = kChunkBytes / sizeof(Word);
  Word *words = reinterpret_cast<Word *>(g_chunk);
  while (n > 0) {
    std::size_t count = std::min(n, per_chunk);
    swap_words<Word>(values, words, count);
    if (!XDR_PUTBYTES(io.xdr.get(), reinterpret_cast<char *>(words), u_int(count * sizeof(Word))))
      return 0;
    values += count;
    n -= count;
  }
  return 1;
}

// Reading swaps in place: the destination has the same item size as the file.
template <typename T, typename Word>
int get_swapped(FileSlot &io, T *values, std::size_t n) {
  static_assert(sizeof(T) == sizeof(Word));
  constexpr std::size_t per_chunk = kDecodeBytes / sizeof(Word);
  while (n > 0) {
    std::size_t count = std::min(n, per_chunk);
    if (!XDR_GETBYTES(io.xdr.get(), reinterpret_cast<char *>(values), u_int(count * sizeof(Word))))
      return 0;
    swap_words<Word>(values, values, count);
    values += count;
    n -= count;
  }
  return 1;
}

int put_native(FileSlot &io, const void *values, std::size_t size, std::size_t n) {
  if (n == 0) return 1;
  return std::fwrite(values, size, n, io.file) == n;
}

int get_native(FileSlot &io, void *values, std::size_t size, std::size_t n) {
  if (n == 0) return 1;
  return std::fread(values, size, n, io.file) == n;
}

bool usable(const FileSlot &io) { return io.file && (!io.xdr_in_use || io.xdr); }

}  // namespace

int open_write_stream(FileSlot &io, const char *path, bool xdr, const char *source) {
  io.file = std::fopen(path, "wb");
  if (!io.file) {
    error("Unable to open %s for write. Please check write permissions.", path);
    return 0;
  }
  if (!xdr) return 1;
  return bind_xdr_stream(io, XDR_ENCODE, source);
}

int open_read_stream(FileSlot &io, const char *path) {
  io.file = std::fopen(path, "rb");
  return io.file != nullptr;
}

int bind_xdr_stream(FileSlot &io, xdr_op direction, const char *source) {
  if (!io.file) return 0;
  if (io.xdr_in_use && io.xdr) xdr_destroy(io.xdr.get());
  try {
    if (!io.xdr) io.xdr = std::make_unique<XDR>();
  } catch (const std::bad_alloc &) {
    report_allocation_failure(__LINE__, source);
    return 0;
  }
  xdrstdio_create(io.xdr.get(), io.file, direction);
  io.xdr_in_use = 1;
  return 1;
}

int close_stream(FileSlot &io) {
  if (io.xdr_in_use && io.xdr) xdr_destroy(io.xdr.get());
  io.xdr.reset();
  io.xdr_in_use = 0;
  int ok = 1;
  if (io.file) {
    // A full disk may show only when the buffer is flushed, and an earlier failed put leaves
    // only the error flag behind: either makes the close fail.
    ok = std::fflush(io.file) == 0 && !std::ferror(io.file);
    ok = std::fclose(io.file) == 0 && ok;
  }
  io.file = nullptr;
  return ok;
}

int seek_stream(FileSlot &io, int64_t offset) {
  if (!io.file || offset < 0) return 0;
  return fseeko(io.file, off_t(offset), SEEK_SET) == 0;
}

int64_t tell_stream(FileSlot &io) { return io.file ? int64_t(ftello(io.file)) : -1; }

int64_t stream_file_size(FileSlot &io) {
  if (!io.file) return -1;
  std::fflush(io.file);
  struct stat st;
  if (fstat(fileno(io.file), &st) != 0) return -1;
  return int64_t(st.st_size);
}

int put_ints(FileSlot &io, const int32_t *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (io.xdr_in_use) return put_swapped<int32_t, uint32_t>(io, values, n);
  return put_native(io, values, sizeof(int32_t), n);
}

int get_ints(FileSlot &io, int32_t *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (io.xdr_in_use) return get_swapped<int32_t, uint32_t>(io, values, n);
  return get_native(io, values, sizeof(int32_t), n);
}

int put_doubles(FileSlot &io, const double *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (io.xdr_in_use) return put_swapped<double, uint64_t>(io, values, n);
  return put_native(io, values, sizeof(double), n);
}

int get_doubles(FileSlot &io, double *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (io.xdr_in_use) return get_swapped<double, uint64_t>(io, values, n);
  return get_native(io, values, sizeof(double), n);
}

int put_floats(FileSlot &io, const float *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (io.xdr_in_use) return put_swapped<float, uint32_t>(io, values, n);
  return put_native(io, values, sizeof(float), n);
}

int get_floats(FileSlot &io, float *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (io.xdr_in_use) return get_swapped<float, uint32_t>(io, values, n);
  return get_native(io, values, sizeof(float), n);
}

int put_chars(FileSlot &io, const char *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (!io.xdr_in_use) return put_native(io, values, 1, n);
  constexpr std::size_t per_chunk = kChunkBytes / 4;
  uint32_t *words = reinterpret_cast<uint32_t *>(g_chunk);
  while (n > 0) {
    std::size_t count = std::min(n, per_chunk);
    // A character goes out as the int it promotes to, sign extension included.
    for (std::size_t i = 0; i < count; ++i) words[i] = __builtin_bswap32(uint32_t(int32_t(values[i])));
    if (!XDR_PUTBYTES(io.xdr.get(), reinterpret_cast<char *>(words), u_int(count * 4))) return 0;
    values += count;
    n -= count;
  }
  return 1;
}

int get_chars(FileSlot &io, char *values, std::size_t n) {
  if (!usable(io)) return 0;
  if (n == 0) return 1;
  if (!io.xdr_in_use) return get_native(io, values, 1, n);
  constexpr std::size_t per_chunk = kChunkBytes / 4;
  uint32_t *words = reinterpret_cast<uint32_t *>(g_chunk);
  while (n > 0) {
    std::size_t count = std::min(n, per_chunk);
    if (!XDR_GETBYTES(io.xdr.get(), reinterpret_cast<char *>(words), u_int(count * 4))) return 0;
    for (std::size_t i = 0; i < count; ++i) values[i] = char(__builtin_bswap32(words[i]));
    values += count;
    n -= count;
  }
  return 1;
}

int put_reals(FileSlot &io, std::vector<float> &scratch, const double *values, std::size_t n) {
  if (io.precision) return put_doubles(io, values, n);
  if (n > 0 && scratch.empty()) return 0;
  while (n > 0) {
    std::size_t count = std::min(n, scratch.size());
    for (std::size_t i = 0; i < count; ++i) scratch[i] = float(values[i]);
    if (!put_floats(io, scratch.data(), count)) return 0;
    values += count;
    n -= count;
  }
  return 1;
}

int get_reals(FileSlot &io, std::vector<float> &scratch, double *values, std::size_t n) {
  if (io.precision) return get_doubles(io, values, n);
  if (n > 0 && scratch.empty()) return 0;
  while (n > 0) {
    std::size_t count = std::min(n, scratch.size());
    if (!get_floats(io, scratch.data(), count)) return 0;
    for (std::size_t i = 0; i < count; ++i) values[i] = double(scratch[i]);
    values += count;
    n -= count;
  }
  return 1;
}

int put_reals(KRXDATA &model, const double *values, std::size_t n) {
  return put_reals(model.own, model.scratch, values, n);
}

int get_reals(KRXDATA &model, double *values, std::size_t n) {
  return get_reals(model.own, model.scratch, values, n);
}

void decode_values_in_place(double *values, std::size_t n, bool xdr, bool single) {
  if (!single) {
    if (xdr) swap_words<uint64_t>(values, values, n);
    return;
  }
  float *floats = reinterpret_cast<float *>(values) + n;
  if (xdr) swap_words<uint32_t>(floats, floats, n);
  // Widening runs forwards: value i is written below float i + 1, which is still to be read.
  for (std::size_t i = 0; i < n; ++i) {
    float v;
    std::memcpy(&v, floats + i, sizeof v);
    values[i] = double(v);
  }
}

int prepare_scratch(KRXDATA &model, const char *source) {
  std::size_t want = std::max<std::size_t>(512, 6 * model.nodes.size());
  if (model.scratch.size() >= want) return 1;
  try {
    model.scratch.assign(want, 0.0f);
  } catch (const std::bad_alloc &) {
    report_allocation_failure(__LINE__, source);
    return 0;
  }
  return 1;
}

}  // namespace krx
