// The files of the temporary vector store: positioned raw access to them, the names and places
// of temporary files, and the replacement files (orthogonal and shortened mode files) that
// processing steps fill before the store switches a kind to them (krxtools.cpp).
#include "model/krxtools_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "base/krxmsg.h"
#include "model/krxtools.h"

namespace krx {
namespace {

// The store's files report allocation failures under the store's name.
constexpr const char *kSource = "..\\krxtools";
constexpr int64_t kZeroChunk = int64_t(1) << 20;

const char *const kEnvName[3] = {"QOR_TMP_MOD", "QOR_TMP_STR", "QOR_TMP_STN"};

const char *const kReplacementOpenFailure =
    "Unable to open %s for write.  Specify different temporary file directory by\nsetting the %s "
    "environment variable.";
const char *const kReplacementDiskFailure =
    "Insufficient disk space for file %s.  Specify different temporary\nfile directory by setting "
    "the %s environment variable";

// ---- Raw file access ----------------------------------------------------------------------------
// Positioned reads and writes on the stream's descriptor: a stdio seek on a read-write stream
// flushes and refills its buffer, which costs far more than the 48 bytes of a node vector. The
// library never reads or writes its own temporary files through the stream's buffer.

// Moves size bytes at offset with pread or pwrite, going on after short or interrupted moves.
template <typename Bytes, typename Move>
bool move_at(FILE *file, Bytes *data, int64_t size, int64_t offset, Move move) {
  int fd = fileno(file);
  if (fd < 0 || offset < 0) return false;
  while (size > 0) {
    ssize_t done = move(fd, data, size_t(size), off_t(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    data += done;
    size -= done;
    offset += done;
  }
  return true;
}

bool write_zeros(FILE *file, int64_t size) {
  std::vector<unsigned char> zeros(size_t(std::min(size, kZeroChunk)), 0);
  for (int64_t at = 0; at < size; at += kZeroChunk)
    if (!write_at(file, zeros.data(), std::min(kZeroChunk, size - at), at)) return false;
  return true;
}

}  // namespace

bool write_at(FILE *file, const unsigned char *data, int64_t size, int64_t offset) {
  return move_at(file, data, size, offset, ::pwrite);
}

bool read_at(FILE *file, unsigned char *data, int64_t size, int64_t offset) {
  return move_at(file, data, size, offset, ::pread);
}

// Every record is laid out at once, so that a full disk shows now rather than in the middle of
// the analysis. Space is reserved where the file system can do it; elsewhere zeros are written.
bool lay_out(FILE *file, int64_t size) {
  if (size <= 0) return true;
  int reserved = posix_fallocate(fileno(file), 0, off_t(size));
  if (reserved == 0) return true;
  if (reserved == ENOSPC || reserved == EFBIG) return false;
  return write_zeros(file, size);
}

// ---- Names --------------------------------------------------------------------------------------

// The directory of unnamed temporary files: TMP, else where the standard temporary names go.
std::string temp_directory() {
  for (const char *name : {"TMP", "TMPDIR"}) {
    const char *dir = std::getenv(name);
    if (dir && *dir) return dir;
  }
  return P_tmpdir;
}

std::string directory_of(const std::string &path) {
  auto cut = path.rfind('/');
  if (cut == std::string::npos) return ".";
  return cut == 0 ? "/" : path.substr(0, cut);
}

// A fresh file "<dir>/krx_XXXXXX" opened for reading and writing; path is the name tried.
FILE *open_unique_file(const std::string &dir, std::string &path) {
  std::string pattern = dir;
  if (!pattern.empty() && pattern.back() != '/') pattern += '/';
  pattern += "krx_XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  path.reserve(pattern.size());  // no allocation once the file exists
  int fd = mkstemp(name.data());
  path = name.data();
  if (fd < 0) return nullptr;
  FILE *file = fdopen(fd, "wb+");
  if (!file) {
    close(fd);
    std::remove(path.c_str());
  }
  return file;
}

const char *given_path(int kind) {
  const char *given = std::getenv(kEnvName[kind]);
  return given && *given ? given : nullptr;
}

void discard_file(FILE *file, const std::string &path) {
  std::fclose(file);
  std::remove(path.c_str());
}

// ---- Replacement files --------------------------------------------------------------------------

int open_replacement_file(KRXDATA *model, int kind, int32_t records, int32_t slots,
                          const char *note_format, ReplacementFile &out) {
  if (!model_exists(model) || !valid_kind(kind) || records < 0 || slots < 0) return 0;
  discard_replacement_file(out);
  try {
    const VectorSlot &slot = model->store[kind];
    std::string dir = temp_directory();
    if (slot.owns_file && !slot.io.path.empty())
      dir = directory_of(slot.io.path);
    else if (const char *given = given_path(kind))
      dir = directory_of(given);
    std::string path;
    FILE *file = open_unique_file(dir, path);
    if (!file) {
      error(kReplacementOpenFailure, path.c_str(), kEnvName[kind]);
      return 0;
    }
    out.kind = kind;
    out.io.file = file;
    out.io.path = std::move(path);  // a copy could fail with the file open and its name lost
    out.io.precision = slot.io.precision;
    out.slots = slots;
    if (!host_is_quiet()) note(note_format, out.io.path.c_str());
    int64_t record_bytes = int64_t(slots) * kNodeStep;
    out.record_start.resize(size_t(records));
    for (int32_t r = 0; r < records; ++r) out.record_start[size_t(r)] = r * record_bytes;
    if (!lay_out(file, records * record_bytes)) {
      error(kReplacementDiskFailure, out.io.path.c_str(), kEnvName[kind]);
      discard_replacement_file(out);
      return 0;
    }
    return 1;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    discard_replacement_file(out);
    return 0;
  }
}

int write_replacement_record(ReplacementFile &file, int32_t record, const double *values) {
  if (!file.io.file || record < 0 || size_t(record) >= file.record_start.size()) return 0;
  int64_t bytes = int64_t(file.slots) * kNodeStep;
  const unsigned char *data = reinterpret_cast<const unsigned char *>(values);
  std::vector<float> narrow;
  if (!file.io.precision) {
    try {
      narrow.assign(size_t(file.slots) * 12, 0.0f);
    } catch (const std::bad_alloc &) {
      KRX_REPORT_ALLOC(kSource);
      return 0;
    }
    for (size_t node = 0; node < size_t(file.slots); ++node)
      for (size_t j = 0; j < 6; ++j) narrow[node * 12 + j] = float(values[node * 6 + j]);
    data = reinterpret_cast<const unsigned char *>(narrow.data());
  }
  if (write_at(file.io.file, data, bytes, file.record_start[size_t(record)])) return 1;
  error(kReplacementDiskFailure, file.io.path.c_str(), kEnvName[file.kind]);
  return 0;
}

void discard_replacement_file(ReplacementFile &file) {
  if (file.io.file) discard_file(file.io.file, file.io.path);
  file = ReplacementFile{};
}

}  // namespace krx
