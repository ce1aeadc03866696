// Progress of a long run on standard error. On a terminal one line shows the stage, the seconds
// since the start and a count, rewritten in place at most five times a second; elsewhere (a log,
// a pipe) each stage gets one line of its own and counts are left out. Quiet shows nothing.
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "ccx2krx.h"

namespace ccx {

namespace {

struct Progress {
  bool quiet = true;
  bool terminal = false;
  bool line_open = false;  // a terminal line waits for its end
  std::chrono::steady_clock::time_point begin, shown;
  std::string stage;
};

Progress &state() {
  static Progress p;
  return p;
}

double elapsed(const Progress &p) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - p.begin).count();
}

}  // namespace

void start_progress(bool quiet) {
  Progress &p = state();
  p.quiet = quiet;
  p.terminal = isatty(2) != 0;
  p.begin = std::chrono::steady_clock::now();
}

void show_stage(const char *stage) {
  Progress &p = state();
  if (p.quiet) return;
  p.stage = stage;
  if (p.terminal) {
    std::fprintf(stderr, "\rccx2krx: %7.1f s  %s\033[K", elapsed(p), stage);
    p.line_open = true;
    p.shown = std::chrono::steady_clock::now();
  } else {
    std::fprintf(stderr, "ccx2krx: %.1f s: %s\n", elapsed(p), stage);
  }
  std::fflush(stderr);
}

void show_count(const char *what, int count, int total) {
  Progress &p = state();
  if (p.quiet || !p.terminal) return;
  auto now = std::chrono::steady_clock::now();
  if (count != total && std::chrono::duration<double>(now - p.shown).count() < 0.2) return;
  p.shown = now;
  if (total > 0)
    std::fprintf(stderr, "\rccx2krx: %7.1f s  %s, %s %d of %d\033[K", elapsed(p), p.stage.c_str(),
                 what, count, total);
  else
    std::fprintf(stderr, "\rccx2krx: %7.1f s  %s, %d %s\033[K", elapsed(p), p.stage.c_str(), count,
                 what);
  p.line_open = true;
  std::fflush(stderr);
}

void end_progress_line() {
  Progress &p = state();
  if (!p.line_open) return;
  std::fputc('\n', stderr);
  p.line_open = false;
}

}  // namespace ccx
