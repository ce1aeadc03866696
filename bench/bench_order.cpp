// A host through the exported entries, with node identifiers handed over in increasing and in
// shuffled order in the same run: nodes and masses, then per mode a mode shape and a stress
// vector for every node, then the whole write ("no_ortho"). For each node count: seconds of the
// node setters, ns per vector elapsed and in processor time, seconds of the write, the
// shuffled-to-increasing ratio of the setters and the peak resident memory after the shuffled
// write (which runs first, so the peak is its own as long as the counts increase); then, per
// order, ns per vector at the largest count over that at the smallest (linear cost: near 1).
//   bench_order [nodes[,nodes...]] [modes]   (default 100000,1000000 nodes, 20 modes; files go to TMP)
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
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

// Processor time of the process: on a machine shared with other work it shows the setters' own
// cost where the elapsed time also shows the waiting.
double cpu_seconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

int ignore_note(const char *) { return 0; }
int print_error(int level, const char *text) {
  if (level >= 3) std::fprintf(stderr, "%s\n", text);
  return 0;
}
int quiet(int *key) { return *key == 4 ? 1 : 0; }

struct Timing {
  double nodes_s = 0, vectors_s = 0, vectors_cpu_s = 0, write_s = 0;
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
  double cpu_start = cpu_seconds();
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
  t.vectors_cpu_s = cpu_seconds() - cpu_start;
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
  std::vector<int> counts;
  for (const char *at = argc > 1 ? argv[1] : "100000,1000000"; *at;) {
    char *end = nullptr;
    counts.push_back(int(std::strtol(at, &end, 10)));
    at = *end == ',' ? end + 1 : end;
    if (end == at && *at) break;
  }
  int modes = argc > 2 ? std::atoi(argv[2]) : 20;
  const char *dir = std::getenv("TMP");
  std::string out = std::string(dir && *dir ? dir : "/tmp") + "/bench_order.krx";
  setenv("QOR_KRXWRITE_OPTIONS", "no_ortho", 1);
  krx_register_host_callbacks(ignore_note, print_error, quiet);

  std::printf("%d modes, a mode shape and a stress vector per node and mode\n", modes);
  std::printf("%9s %-11s %10s %10s %10s %10s %8s %9s\n", "nodes", "order", "nodes [s]", "ns/vector",
              "cpu ns/v", "write [s]", "shuf/inc", "peak [MB]");
  std::vector<std::pair<double, double>> per_vector;  // (increasing, shuffled) ns per vector
  for (int nodes : counts) {
    std::vector<int> increasing(static_cast<size_t>(nodes));
    std::iota(increasing.begin(), increasing.end(), 1);
    std::vector<int> shuffled = increasing;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(12345));

    Timing s = run(shuffled, modes, out);
    long shuffled_peak = peak_rss_mb();
    Timing i = run(increasing, modes, out);
    double vectors = 2.0 * nodes * modes;
    double ratio = (s.nodes_s + s.vectors_s) / (i.nodes_s + i.vectors_s);
    per_vector.emplace_back(i.vectors_s * 1e9 / vectors, s.vectors_s * 1e9 / vectors);
    std::printf("%9d %-11s %10.3f %10.1f %10.1f %10.2f\n", nodes, "increasing", i.nodes_s,
                per_vector.back().first, i.vectors_cpu_s * 1e9 / vectors, i.write_s);
    std::printf("%9d %-11s %10.3f %10.1f %10.1f %10.2f %8.2f %9ld\n", nodes, "shuffled", s.nodes_s,
                per_vector.back().second, s.vectors_cpu_s * 1e9 / vectors, s.write_s, ratio,
                shuffled_peak);
    std::fflush(stdout);
  }
  if (per_vector.size() > 1) {
    std::printf("ns per vector, %d over %d nodes: increasing %.2f, shuffled %.2f\n", counts.back(),
                counts.front(), per_vector.back().first / per_vector.front().first,
                per_vector.back().second / per_vector.front().second);
  }
  return 0;
}
