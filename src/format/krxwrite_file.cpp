// The output file of a write. The bytes go to a new file beside the output, created for this
// write alone; only a write that succeeded renames it over the output, so that a failure at any
// point leaves the path as it was: the old file, or nothing. Outputs that are not regular files
// (a device such as /dev/null, a pipe) cannot be replaced by a rename and are written in place.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/krxmsg.h"
#include "format/krxstream.h"
#include "format/krxwrite_state.h"

namespace krx {

namespace {

constexpr const char *kSource = "..\\krxwrite";

void report_open_failure(const std::string &path) {
  error("Unable to open %s for write. Please check write permissions.", path.c_str());
}

std::size_t directory_end(const std::string &path) {
  std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? 0 : slash + 1;
}

enum class Target {
  none,      // no file can be made under this name: empty, or ending in a slash
  in_place,  // not a regular file (a device, a pipe, a link to a file yet to be made), or a path
             // that cannot be looked at: an open of the path itself decides
  new_file,  // nothing there yet
  existing,  // a regular file, directly or through symbolic links
};

// What the output path stands for, and in state.target the file that a rename replaces: the path
// itself, or the file its symbolic links name, so that a link stays a link and is written
// through as an open of the path would.
Target resolve_target(WriteState &state) {
  const std::string &path = state.path;
  if (path.empty() || directory_end(path) == path.size()) return Target::none;
  struct stat st, link;
  if (::stat(path.c_str(), &st) != 0) {
    if (errno != ENOENT || ::lstat(path.c_str(), &link) == 0) return Target::in_place;
    state.target = path;
    return Target::new_file;
  }
  if (!S_ISREG(st.st_mode)) return Target::in_place;
  if (::lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    char *real = ::realpath(path.c_str(), nullptr);
    if (!real) return Target::in_place;
    state.target = real;
    std::free(real);
  } else {
    state.target = path;
  }
  return Target::existing;
}

// An existing file that this process may not write keeps the refusal an open of it would give.
bool may_write(const std::string &path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

// "<directory>/.<name>.<six letters>": hidden, beside the output, and named after it. A long name
// is cut so that the temporary name stays within the file system's limit.
std::string temporary_name(const std::string &target, unsigned long long seed) {
  static const char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::size_t start = directory_end(target);
  std::string name = target.substr(0, start) + "." + target.substr(start, 200) + ".";
  for (int i = 0; i < 6; ++i, seed /= 62) name += kLetters[seed % 62];
  return name;
}

unsigned long long next_seed(unsigned long long seed) {
  // One step of a 64-bit linear congruential generator mixed with the clock.
  auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  return seed * 6364136223846793005ULL + 1442695040888963407ULL + static_cast<unsigned long long>(now);
}

// Creates the temporary file beside the target exclusively, with the permissions of a plain
// create (0666 less the umask). A name that another process took is drawn again.
bool create_temporary(WriteState &state) {
  const std::string &target = state.target;
  std::string &temporary = state.temporary;
  std::size_t end = directory_end(target);
  state.directory = end == 0 ? "." : target.substr(0, end);
  unsigned long long seed = next_seed(static_cast<unsigned long long>(::getpid()));
  for (int attempt = 0; attempt < 100; ++attempt, seed = next_seed(seed)) {
    temporary = temporary_name(target, seed >> 16);
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0 && errno == EEXIST) continue;
    if (fd < 0) break;
    state.out.file = ::fdopen(fd, "wb");
    if (state.out.file) return true;
    ::close(fd);
    ::unlink(temporary.c_str());
    break;
  }
  temporary.clear();
  return false;
}

// Written in place: a device or a pipe is left alone; a file that an open made through a dangling
// symbolic link is removed, the link kept.
void remove_partial_file(const std::string &path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
  char *real = ::realpath(path.c_str(), nullptr);
  if (real) ::unlink(real);
  std::free(real);
}

int sync_file(FILE *file) { return std::fflush(file) == 0 && ::fsync(::fileno(file)) == 0; }

// The rename is on disk only once the directory is. Some file systems refuse to sync a
// directory; the new file is in place by then, so that refusal does not fail the write.
void sync_directory(const std::string &directory) {
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

int open_output_file(WriteState &state, const char *path) {
  bool opened = false;
  try {
    state.path = path;
    switch (resolve_target(state)) {
      case Target::none: break;
      case Target::in_place:
        state.out.file = std::fopen(path, "wb");
        opened = state.out.file != nullptr;
        break;
      case Target::new_file: opened = create_temporary(state); break;
      case Target::existing: opened = may_write(state.target) && create_temporary(state); break;
    }
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return 0;
  }
  if (!opened) report_open_failure(state.path);
  return opened ? 1 : 0;
}

int close_output_file(WriteState &state, int ok) {
  // Every block may have gone to the stream's buffer and still fail on its way to the disk: the
  // flush, the sync and the close are the write's last steps and report like any other.
  const int blocks_written = ok;
  errno = 0;
  if (ok && !state.temporary.empty()) ok = sync_file(state.out.file);
  int reason = errno;
  // An XDR stream over standard I/O keeps no buffer of its own, so the close sees every byte.
  if (!close_stream(state.out) && ok) {
    ok = 0;
    reason = errno;
  }
  if (blocks_written && !ok)
    error("Problem writing %s: %s", state.path.c_str(), std::strerror(reason ? reason : EIO));
  if (state.temporary.empty()) {
    if (!ok) remove_partial_file(state.path);
    return ok;
  }
  if (ok && ::rename(state.temporary.c_str(), state.target.c_str()) != 0) {
    // The path could not take the new file (a directory made in its place meanwhile, a sticky
    // directory that protects another user's file): as if it could not be opened.
    report_open_failure(state.path);
    ok = 0;
  }
  if (!ok) {
    ::unlink(state.temporary.c_str());
    return 0;
  }
  sync_directory(state.directory);
  return 1;
}

}  // namespace krx
