// A host of a million nodes through the exported entries, with node identifiers handed over in
// increasing and in shuffled order in the same run: nodes and masses, then per mode a mode shape
// and a stress vector for every node, then the whole write ("no_ortho"). Reports seconds of the
// node setters, ns per vector, the shuffled-to-increasing ratio of the setters, and the peak
// resident memory after the shuffled write (which runs first, so the peak is its own).
//   bench_order [nodes] [modes]   (default 1000000 nodes, 20 modes; files go to TMP)
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "krx/krx.h"

namespace {

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

int ignore_note(const char *) { return 0; }
int print_error(int level, const char *text) {
  if (level >= 3) std::fprintf(stderr, "%s\n", text);
  return 0;
}
int quiet(int *key) { return *key == 4 ? 1 : 0; }

struct Timing {
  double nodes_s = 0, vectors_s = 0, write_s = 0;
};

Timing run(const std::vector<int> &ids, int modes, const std::string &out) {
  Timing t;
  int status = 0, n = int(ids.size());
  KRX_CREATE(&n, &modes, &status);
  auto start = Clock::now();
  for (int id : ids) {
    int node = id;
    double xyz[3] = {double(id), 0.5 * id, 0.0}, mass = 1.0;
    KRX_SET_NODE_COORDINATES_VEC(&node, xyz, &status);
    KRX_SET_NODAL_MASS(&node, &mass, &status);
  }
  t.nodes_s = seconds_since(start);
  start = Clock::now();
  for (int m = 1; m <= modes; ++m) {
    for (int id : ids) {
      int node = id, mode = m;
      double v[6] = {1e-3 * m, 1e-6 * id, 0, 0, 0, 1.0};
      KRX_SET_MODE_SHAPE_VEC(&mode, &node, v, &status);
      KRX_SET_MODAL_STRESS_VEC(&mode, &node, v, &status);
    }
    double one = 1.0, k = 100.0 * m * m;
    int mode = m;
    KRX_SET_GENERALIZED_MASS(&mode, &mode, &one, &status);
    KRX_SET_GENERALIZED_STIFFNESS(&mode, &mode, &k, &status);
  }
  t.vectors_s = seconds_since(start);
  start = Clock::now();
  KRX_WRITE_KRX(out.c_str(), &status, int(out.size()));
  t.write_s = seconds_since(start);
  if (status) std::fprintf(stderr, "write failed\n");
  KRX_TERMINATE(&status);
  std::remove(out.c_str());
  return t;
}

long peak_rss_mb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

}  // namespace

int main(int argc, char **argv) {
  int nodes = argc > 1 ? std::atoi(argv[1]) : 1000000;
  int modes = argc > 2 ? std::atoi(argv[2]) : 20;
  const char *dir = std::getenv("TMP");
  std::string out = std::string(dir && *dir ? dir : "/tmp") + "/bench_order.krx";
  setenv("QOR_KRXWRITE_OPTIONS", "no_ortho", 1);
  krx_register_host_callbacks(ignore_note, print_error, quiet);

  std::vector<int> increasing(static_cast<size_t>(nodes));
  std::iota(increasing.begin(), increasing.end(), 1);
  std::vector<int> shuffled = increasing;
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(12345));

  Timing s = run(shuffled, modes, out);
  long shuffled_peak = peak_rss_mb();
  Timing i = run(increasing, modes, out);
  double vectors = 2.0 * nodes * modes;
  std::printf("%d nodes x %d modes, a mode shape and a stress vector per node and mode\n", nodes, modes);
  std::printf("%-11s %10s %12s %10s\n", "order", "nodes [s]", "ns/vector", "write [s]");
  for (auto [name, t] : {std::pair{"increasing", i}, std::pair{"shuffled", s}})
    std::printf("%-11s %10.3f %12.1f %10.2f\n", name, t.nodes_s, t.vectors_s * 1e9 / vectors, t.write_s);
  std::printf("setters, shuffled / increasing: %.2f\n",
              (s.nodes_s + s.vectors_s) / (i.nodes_s + i.vectors_s));
  std::printf("peak resident memory after the shuffled write: %ld MB\n", shuffled_peak);
  return 0;
}
