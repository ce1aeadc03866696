// Cost of storing node vectors in the temporary vector store, in the two orders hosts use (mode by
// mode, and node by node across the modes), beside a plain seek and write per vector on a stdio
// stream over the same layout. Prints nanoseconds per stored vector.
//
//   bench_store [nodes] [modes]     (default 200000 nodes, 20 modes; files go to TMP)
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "krx/krx.h"
#include "model/krxdata.h"
#include "model/krxtools.h"

namespace {

using Clock = std::chrono::steady_clock;

int quiet_inquiry(int *) { return 1; }
int ignore_note(const char *) { return 0; }
int print_error(int, const char *text) { return std::fprintf(stderr, "%s\n", text); }

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void fill(int mode, int node, double v[6]) {
  for (int j = 0; j < 6; ++j) v[j] = mode + node * 1e-6 + j;
}

// ns per vector through the store; mode_major picks the loop order.
double time_store(int nodes, int modes, bool mode_major, double &layout_ms) {
  krx::KRXDATA *model = krx::create_model(uint32_t(nodes), modes);
  for (int node = 0; node < nodes; ++node) krx::node_position_or_add(model, node + 1);
  double v[6];
  fill(1, 1, v);
  auto start = Clock::now();
  krx::store_node_vector(model, 1, 1, krx::kModeShapes, v);  // creates and lays out the file
  layout_ms = seconds_since(start) * 1e3;
  start = Clock::now();
  int failures = 0;
  for (int outer = 0; outer < (mode_major ? modes : nodes); ++outer)
    for (int inner = 0; inner < (mode_major ? nodes : modes); ++inner) {
      int mode = (mode_major ? outer : inner) + 1;
      int node = (mode_major ? inner : outer) + 1;
      fill(mode, node, v);
      failures += !krx::store_node_vector(model, mode, node, krx::kModeShapes, v);
    }
  krx::flush_vector_store(model, krx::kModeShapes);
  double elapsed = seconds_since(start);
  if (failures) std::fprintf(stderr, "%d stores failed\n", failures);
  krx::release_model(model);
  return elapsed * 1e9 / (double(nodes) * modes);
}

// ns per vector for fseeko + fwrite on a "wb+" stream, over the first `count` vectors.
double time_plain(int nodes, int modes, bool mode_major, long count) {
  const char *tmp = std::getenv("TMP");
  std::string path = std::string(tmp && *tmp ? tmp : "/tmp") + "/krx_bench_XXXXXX";
  int fd = mkstemp(path.data());
  if (fd < 0) return -1.0;
  FILE *file = fdopen(fd, "wb+");
  int64_t record = int64_t(nodes) * 48;
  if (posix_fallocate(fd, 0, off_t(record * modes)) != 0) std::fprintf(stderr, "no layout\n");
  double v[6];
  long done = 0;
  auto start = Clock::now();
  for (int outer = 0; outer < (mode_major ? modes : nodes) && done < count; ++outer)
    for (int inner = 0; inner < (mode_major ? nodes : modes) && done < count; ++inner, ++done) {
      int mode = mode_major ? outer : inner;
      int node = mode_major ? inner : outer;
      fill(mode, node, v);
      fseeko(file, off_t(mode * record + int64_t(node) * 48), SEEK_SET);
      std::fwrite(v, sizeof(double), 6, file);
    }
  std::fflush(file);
  double elapsed = seconds_since(start);
  std::fclose(file);
  std::remove(path.c_str());
  return elapsed * 1e9 / double(done);
}

}  // namespace

int main(int argc, char **argv) {
  int nodes = argc > 1 ? std::atoi(argv[1]) : 200000;
  int modes = argc > 2 ? std::atoi(argv[2]) : 20;
  krx_register_host_callbacks(ignore_note, print_error, quiet_inquiry);
  long plain_count = std::min(long(nodes) * modes, 500000L);
  std::printf("%d nodes x %d modes = %ld vectors, %.0f MB per file\n", nodes, modes,
              long(nodes) * modes, double(nodes) * modes * 48 / 1e6);
  for (bool mode_major : {true, false}) {
    double layout_ms = 0.0;
    double store = time_store(nodes, modes, mode_major, layout_ms);
    double plain = time_plain(nodes, modes, mode_major, plain_count);
    std::printf("%-10s store_node_vector %7.1f ns/vector (layout %.0f ms)   "
                "fseeko+fwrite %7.1f ns/vector (first %ld vectors)\n",
                mode_major ? "mode-major" : "node-major", store, layout_ms, plain, plain_count);
  }
  return 0;
}
