// Writes the seed corpus of the fuzz targets with the library itself:
//   make_corpus <corpus directory>
// read/: a sample of every version code, a file of every option family of the writer and a file of
// many modes made from the layout; compare/: pairs of those files (4-byte length of the base, base,
// new file), the file of many modes with itself;
// options/: option texts; sketch/: sketch files. Regression inputs are kept by hand.
#include <algorithm>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../krxsample.h"
#include "fuzzsupport.h"
#include "krx/krx.h"

namespace {

namespace fs = std::filesystem;

std::vector<char> bytes_of(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void put(const fs::path &path, const std::vector<char> &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
}

// A session of 6 nodes and 2 modes written with the option text; false when the write failed.
bool write_session(const fs::path &path, const char *options) {
  setenv("QOR_KRXWRITE_OPTIONS", options, 1);
  int status = 0;
  bool ok = krxfuzz::build_session(6, 2);
  std::string name = path.string();
  if (ok) KRX_WRITE_KRX(name.c_str(), &status, int(name.size()));
  int done = 0;
  KRX_TERMINATE(&done);
  unsetenv("QOR_KRXWRITE_OPTIONS");
  return ok && status == 0;
}

// The fuzz input of a pair: the base file's length (4 bytes), the base file, the new file.
std::vector<char> pair_of(const std::vector<char> &base, const std::vector<char> &fresh) {
  const uint32_t split = uint32_t(base.size());
  std::vector<char> pair(4 + base.size() + fresh.size());
  std::memcpy(pair.data(), &split, 4);
  std::copy(base.begin(), base.end(), pair.begin() + 4);
  std::copy(fresh.begin(), fresh.end(), pair.begin() + 4 + std::ptrdiff_t(base.size()));
  return pair;
}

constexpr int32_t kCloseModes = 1100;
double close_eigenvalue(int32_t k) {
  if (k <= 6) return 0.0;
  return k <= 600 ? 1000.0 + 0.001 * (k - 7) : 5000.0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) return 2;
  krxfuzz::silence_host();
  const fs::path root(argv[1]);
  for (const char *dir : {"read", "compare", "options", "sketch"}) fs::create_directories(root / dir);

  std::vector<fs::path> files;
  for (int32_t version : {10, 20, 30, 31, 40, 41, 50, 51, 60, 572, 316, 828}) {
    files.push_back(root / "read" / ("sample-" + std::to_string(version) + ".krx"));
    if (!krxtest::write_sample(files.back().string(), krxtest::Sample{.version = version})) return 1;
  }
  const char *families[][2] = {{"default", ""}, {"81_comp", "81_comp"}, {"82_comp", "82_comp"},
                               {"full_str", "full_str full_invar"}, {"sparse_str", "sparse_str fast_invar no_xdr"},
                               {"single", "single no_ortho full_invar"}, {"empty", "empty"},
                               {"mks", "mks lbrf2cm highpass(2) lowpass(100) invar"},
                               {"strip_face", "strip_face coarsen(0.2,20,1)"}};
  for (const auto &family : families) {
    files.push_back(root / "read" / (std::string("write-") + family[0] + ".krx"));
    if (!write_session(files.back(), family[1])) return std::fprintf(stderr, "make_corpus: \"%s\" failed\n", family[1]), 1;
  }

  // Pairs of small files: some with themselves, some against another encoding or writer family.
  const std::size_t pairs[][2] = {{0, 0}, {1, 8}, {4, 8}, {6, 10}, {8, 9}, {13, 15}, {17, 16}, {19, 19}};
  for (const auto &[i, j] : pairs)
    put(root / "compare" / ("pair-" + files[i].stem().string() + "-" + files[j].stem().string() + ".bin"),
        pair_of(bytes_of(files[i]), bytes_of(files[j])));
  // A file of many modes over no nodes with itself, small enough for the fuzzer's input length:
  // rigid-body zeros, a slow rise that chains from mode to mode within the tolerance, and a run of
  // equal eigenvalues longer than an eigenspace group.
  const std::vector<uint8_t> modes = krxfuzz::modes_only_file(kCloseModes, close_eigenvalue, true);
  const std::vector<char> file(modes.begin(), modes.end());
  put(root / "read" / "modes-1100-close-eigenvalues-over-no-nodes.krx", file);
  put(root / "compare" / "pair-1100-close-eigenvalues-over-no-nodes.bin", pair_of(file, file));

  const char *texts[] = {"", "full_invar", "no_xdr single", "81_comp full_str", "82_comp sparse_str",
                         "sketch(\"faces.txt\") strip_face", "coarsen(0.05,10,1,101,102,preserve_str)",
                         "highpass(0.5) lowpass(200)", "no_ortho empty mks lbrf2cm", "invar fast_invar",
                         "sketch('x') sketch(y)", "full_str sparse_str", "lowpass(abc"};
  int n = 0;
  for (const char *text : texts) put(root / "options" / ("text-" + std::to_string(n++)), {text, text + std::strlen(text)});

  const char *sketches[] = {"2\n4 1 2 3 4\n4 5 6 7 8\n", "3\n3 1 2 3\n3 3 2 1\n4 5 6 7 8\n", "1\n4 1 2 3 9\n",
                            "-1\n", "2\n3 1 2\n", "x\n"};
  n = 0;
  for (const char *text : sketches) put(root / "sketch" / ("sketch-" + std::to_string(n++)), {text, text + std::strlen(text)});
  return 0;
}
