// The whole write of a synthetic plate through the exported entries: 200,000 nodes on a 500 x 400
// grid of quad faces, modes with full generalized mass and stiffness, stresses at every fourth
// node, options "full_invar". Reports the seconds of each phase, the output rate, the peak memory,
// and a plain fwrite of as many bytes as the write put into temporary and output files.
//   bench_write [modes]   (default 50; run with 10 and 100 to see that memory does not grow)
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "krx/krx.h"

namespace {

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

Clock::time_point g_start;
double g_eigen_start = -1, g_band = -1, g_summary = -1;

// The temporary files of the run, by name, at the largest size seen: the directory is looked at
// on every message, and the store lays each file out at its full size when it makes it.
std::string g_dir;
std::map<std::string, long long> g_temporary;
void scan_temporary() {
  DIR *d = opendir(g_dir.c_str());
  if (!d) return;
  while (dirent *e = readdir(d)) {
    if (std::strncmp(e->d_name, "krx_", 4) != 0) continue;
    struct stat st;
    std::string path = g_dir + "/" + e->d_name;
    if (::stat(path.c_str(), &st) == 0) {
      long long &seen = g_temporary[e->d_name];
      seen = std::max<long long>(seen, st.st_size);
    }
  }
  closedir(d);
}

int on_message(const char *text) {
  scan_temporary();
  double t = seconds_since(g_start);
  if (std::strstr(text, "Solving Generalized Eigenvalue Problem") && g_eigen_start < 0) g_eigen_start = t;
  if (std::strstr(text, "Exporting frequency range")) g_band = t;
  if (std::strstr(text, "Creating a Korex")) g_summary = t;
  return 0;
}
int on_error(int, const char *text) {
  std::fprintf(stderr, "%s\n", text);
  return 0;
}
int on_inquiry(int *) { return 1; }  // quiet: no progress lines, short tables

long long file_size(const std::string &path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

double plain_fwrite(const std::string &path, long long bytes) {
  std::vector<char> chunk(1 << 20, 1);
  Clock::time_point t = Clock::now();
  FILE *f = std::fopen(path.c_str(), "wb");
  for (long long left = bytes; left > 0; left -= static_cast<long long>(chunk.size())) {
    std::fwrite(chunk.data(), 1, std::size_t(std::min<long long>(left, chunk.size())), f);
  }
  std::fclose(f);
  double s = seconds_since(t);
  std::remove(path.c_str());
  return s;
}

}  // namespace

int main(int argc, char **argv) {
  int modes = argc > 1 ? std::atoi(argv[1]) : 50;
  const int nx = 500, ny = 400, nodes = nx * ny;
  const char *tmp = std::getenv("TMP");
  std::string base = tmp ? tmp : "/tmp";
  std::vector<char> pattern(base.begin(), base.end());
  for (char c : std::string("/krxbench_XXXXXX")) pattern.push_back(c);
  pattern.push_back('\0');
  if (!mkdtemp(pattern.data())) return 2;
  std::string dir = g_dir = pattern.data();
  setenv("TMP", dir.c_str(), 1);
  std::string out = dir + "/bench_write.krx";
  setenv("QOR_KRXWRITE_OPTIONS", "full_invar", 1);
  krx_register_host_callbacks(on_message, on_error, on_inquiry);

  g_start = Clock::now();
  int status = 0, n = nodes, m = modes;
  KRX_CREATE(&n, &m, &status);
  double multipliers[4] = {1000.0, 0.001, 1.0, 1.0};
  KRX_UNITS_SI_MULTIPLIERS(&multipliers[0], &multipliers[1], &multipliers[2], &multipliers[3], &status);
  for (int i = 0; i < nodes; ++i) {
    int id = i + 1;
    double xyz[3] = {10.0 * (i % nx), 10.0 * (i / nx), 0.0}, mass = 1e-3;
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
    KRX_SET_NODAL_MASS(&id, &mass, &status);
  }
  for (int j = 1; j <= modes; ++j) {
    for (int i = 0; i < nodes; ++i) {
      int id = i + 1;
      double x = (i % nx) / double(nx), y = (i / nx) / double(ny);
      double v[6] = {std::sin(j * x), std::cos(j * y), std::sin(j * (x + y)), 0.01 * j, 0.0, x * y};
      KRX_SET_MODE_SHAPE_VEC(&j, &id, v, &status);
      if (i % 4 == 0) {
        double s[6] = {100.0 * v[0], 50.0 * v[1], 0.0, 10.0 * v[2], 0.0, 0.0};
        KRX_SET_MODAL_STRESS_VEC(&j, &id, s, &status);
      }
    }
  }
  for (int a = 1; a <= modes; ++a) {
    for (int b = 1; b <= modes; ++b) {
      double g = (a == b ? 2.0 : 0.0) + 0.01 / (a + b), k = a == b ? 1000.0 * a * a : 0.0;
      KRX_SET_GENERALIZED_MASS(&a, &b, &g, &status);
      KRX_SET_GENERALIZED_STIFFNESS(&a, &b, &k, &status);
    }
  }
  for (int r = 0; r + 1 < ny; ++r) {
    for (int c = 0; c + 1 < nx; ++c) {
      int count = 4, ids[4] = {r * nx + c + 1, r * nx + c + 2, (r + 1) * nx + c + 2, (r + 1) * nx + c + 1};
      KRX_SET_FACE(&count, ids, &status);
    }
  }
  double setters = seconds_since(g_start);
  scan_temporary();
  KRX_WRITE_KRX(out.c_str(), &status, int(out.size()));
  double total = seconds_since(g_start);
  int write_status = status;
  scan_temporary();
  KRX_TERMINATE(&status);

  double eigen_from = g_eigen_start >= 0 ? g_eigen_start : setters;
  double eigen = g_band - eigen_from, invariants = g_summary - g_band, blocks = total - g_summary;
  double write = total - setters;
  long long output = file_size(out);
  long long temporary = 0;
  for (const auto &[name, size] : g_temporary) temporary += size;
  long long bytes = temporary + output;
  double plain = plain_fwrite(dir + "/bench_plain.bin", bytes);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  std::printf("modes %d, nodes %d, status %d\n", modes, nodes, write_status);
  std::printf("setters              %8.3f s\n", setters);
  std::printf("eigen and rewrite    %8.3f s\n", eigen);
  std::printf("invariants etc.      %8.3f s\n", invariants);
  std::printf("block writing        %8.3f s  (%.1f MB/s)\n", blocks, output / 1e6 / blocks);
  std::printf("whole write          %8.3f s  (%.1f MB output)\n", write, output / 1e6);
  std::printf("temporary files      %8.1f MB in %zu files\n", temporary / 1e6, g_temporary.size());
  std::printf("plain fwrite         %8.3f s  (%.1f MB = temporary + output)  whole write / plain %.2f\n",
              plain, bytes / 1e6, write / plain);
  std::printf("peak memory          %8.1f MB\n", usage.ru_maxrss / 1024.0);
  std::remove(out.c_str());
  rmdir(dir.c_str());
  return write_status;
}
