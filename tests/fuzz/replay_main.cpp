// Replays a corpus through a fuzz target without exploring: every file named, or found in a
// directory named, is fed once to LLVMFuzzerTestOneInput. Used by the tests in builds without
// libFuzzer.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzzsupport.h"

namespace {

int replay(const std::filesystem::path &file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in.eof() && in.fail()) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return 0;
  }
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char **argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path arg(argv[i]);
    if (!std::filesystem::is_directory(arg)) {
      if (!replay(arg)) return 1;
      ++count;
      continue;
    }
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(arg))
      if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto &file : files) {
      if (!replay(file)) return 1;
      ++count;
    }
  }
  std::printf("replayed %d inputs\n", count);
  return count > 0 ? 0 : 1;
}
