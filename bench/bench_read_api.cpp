// The read API on a large file: opening with the counts and the header, one mode shape, and all
// mode shapes from one thread and from two threads on one handle, all from the page cache, beside
// a plain memory copy of the same bytes by one and two threads.
//
//   bench_read_api [FILE] [NODES] [MODES]     (default: $TMP/bench_read_api.krx, 1000000, 20)
//
// The file is made by a generator of its own (XDR, double precision, nodal coordinates,
// eigenvalues, mode shapes and modal stresses: about 2 GB at the default size), not by the
// writer, and removed afterwards.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "krx/krx_read.h"

namespace {

using Clock = std::chrono::steady_clock;
double ms_since(Clock::time_point t) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

struct Out {
  FILE *file;
  std::vector<unsigned char> buffer;
  void word(uint32_t w) {
    for (int s = 24; s >= 0; s -= 8) buffer.push_back(uint8_t(w >> s));
    if (buffer.size() >= (1u << 24)) flush();
  }
  void real(double v) {
    uint64_t w;
    std::memcpy(&w, &v, 8);
    word(uint32_t(w >> 32));
    word(uint32_t(w));
  }
  void flush() {
    std::fwrite(buffer.data(), 1, buffer.size(), file);
    buffer.clear();
  }
};

// XDR, code 316: blocks 4, 7, 8 and 18 (every node carries stresses).
bool generate(const std::string &path, int32_t nodes, int32_t modes) {
  Out o{std::fopen(path.c_str(), "wb"), {}};
  if (!o.file) return false;
  o.word(316);
  const char *title = "bench_read_api";
  for (int i = 0; i < 544; ++i) o.word(i < int(std::strlen(title)) ? uint32_t(title[i]) : 0);
  for (int flag = 0; flag < 100; ++flag) o.word(flag == 0 || flag == 3 || flag == 4 || flag == 16);
  o.word(uint32_t(nodes)), o.word(3);
  for (int32_t n = 0; n < nodes; ++n) {
    o.word(uint32_t(n + 1));
    o.real(n), o.real(0.5 * n), o.real(1.0);
  }
  o.word(uint32_t(modes));
  for (int32_t m = 0; m < modes; ++m) {
    o.word(uint32_t(m + 1));
    for (double v : {1.0 + m, 0.1, 0.2, 1.0, 1.0 + m}) o.real(v);
  }
  for (int kind = 0; kind < 2; ++kind) {
    o.word(uint32_t(modes)), o.word(uint32_t(nodes));
    for (int32_t n = 0; n < nodes; ++n) o.word(uint32_t(n + 1));
    for (int32_t m = 0; m < modes; ++m) {
      o.word(uint32_t(m + 1));
      for (int32_t n = 0; n < nodes; ++n)
        for (int c = 0; c < 6; ++c) o.real(1e-6 * n + m + 0.1 * c + kind);
    }
  }
  o.flush();
  return std::fclose(o.file) == 0;
}

double best_of(int runs, const std::function<void()> &body) {
  double best = 1e30;
  for (int r = 0; r < runs; ++r) {
    auto t = Clock::now();
    body();
    best = std::min(best, ms_since(t));
  }
  return best;
}

// Reads the modes from..to step by step into values (allocated and touched beforehand, so that
// page faults of fresh memory are not measured).
void read_modes(const krx_file *file, std::vector<double> &values, int64_t from, int64_t to,
                int64_t step) {
  for (int64_t m = from; m < to; m += step)
    if (krx_read_mode(file, KRX_MODE_SHAPE, m, nullptr, values.data()) != KRX_OK) std::abort();
}

}  // namespace

int main(int argc, char **argv) {
  const char *tmp = std::getenv("TMP");
  std::string path = argc > 1 ? argv[1] : std::string(tmp ? tmp : "/tmp") + "/bench_read_api.krx";
  int32_t nodes = argc > 2 ? std::atoi(argv[2]) : 1000000;
  int32_t modes = argc > 3 ? std::atoi(argv[3]) : 20;
  auto t = Clock::now();
  if (!generate(path, nodes, modes)) return 1;
  std::printf("generated %s (%d nodes, %d modes) in %.0f ms\n", path.c_str(), nodes, modes,
              ms_since(t));

  krx_file *file = nullptr;
  int64_t counts[3];
  char title[128];
  auto open_and_count = [&] {
    if (krx_open(path.c_str(), &file) != KRX_OK) std::abort();
    krx_count(file, KRX_COUNT_NODES, &counts[0]);
    krx_count(file, KRX_COUNT_MODES, &counts[1]);
    krx_count(file, KRX_COUNT_MODE_SHAPE_NODES, &counts[2]);
    krx_read_header(file, KRX_HEADER_TITLE, title, sizeof title);
    krx_close(file);
  };
  double open_ms = best_of(20, open_and_count);
  krx_open(path.c_str(), &file);
  std::vector<double> values(std::size_t(6 * int64_t(nodes))), second(values.size());
  read_modes(file, values, 0, modes, 1);  // into the page cache
  read_modes(file, second, 0, 1, 1);
  double one_ms = best_of(10, [&] {
    krx_read_mode(file, KRX_MODE_SHAPE, modes / 2, nullptr, values.data());
  });
  double single_ms = best_of(5, [&] { read_modes(file, values, 0, modes, 1); });
  double cpu = 0.0;
  double dual_ms = best_of(5, [&] {
    std::clock_t c = std::clock();
    std::thread other([&] { read_modes(file, second, 1, modes, 2); });
    read_modes(file, values, 0, modes, 2);
    other.join();
    cpu = 1000.0 * double(std::clock() - c) / CLOCKS_PER_SEC;
  });
  krx_close(file);
  std::remove(path.c_str());

  // The yardstick: the same bytes copied from memory to memory, by one thread and by two. Two
  // threads cannot read the modes faster than the machine's memory lets them copy.
  std::vector<double> from(values.size(), 1.0), from2(values.size(), 2.0);
  auto copy = [&](std::vector<double> &to, const std::vector<double> &src, int times) {
    for (int k = 0; k < times; ++k) std::memcpy(to.data(), src.data(), src.size() * sizeof(double));
  };
  double copy_one = best_of(5, [&] { copy(values, from, modes); });
  double copy_two = best_of(5, [&] {
    std::thread other([&] { copy(second, from2, modes / 2); });
    copy(values, from, modes - modes / 2);
    other.join();
  });
  std::printf("open, counts and header: %.2f ms\n", open_ms);
  std::printf("one mode shape (%d nodes): %.2f ms\n", nodes, one_ms);
  std::printf("all %d mode shapes, one thread: %.1f ms; two threads, one handle: %.1f ms (%.2fx)\n",
              modes, single_ms, dual_ms, single_ms / dual_ms);
  // Processor time over elapsed time of the last two-thread run: near 2 when both threads had a
  // core of their own, near 1 when the machine gave them one between them.
  std::printf("two threads: processor time %.1f ms over %.1f ms elapsed in the last run\n", cpu,
              dual_ms);
  std::printf("yardstick, memcpy of the same bytes: one thread %.1f ms; two threads %.1f ms "
              "(%.2fx)\n", copy_one, copy_two, copy_one / copy_two);
  return 0;
}
