#include "base/krxmsg.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>

#include "krx/krx.h"

// The host program may define its callbacks itself. The references are weak so that a host that
// defines none (a tool, a test) still loads; they are resolved against the host program when it
// links the library and against its exported symbols when it loads the library with dlopen.
extern "C" {
__attribute__((weak, visibility("default"))) int cwVlxmsg(const char *text);
__attribute__((weak, visibility("default"))) int cwVlxerr(int level, const char *text);
__attribute__((weak, visibility("default"))) int cwIopiqr(int *key);
}

namespace krx {
namespace {

krx_msg_callback registered_msg = nullptr;
krx_err_callback registered_err = nullptr;
krx_inquiry_callback registered_inquiry = nullptr;

constexpr int kBufferSize = 8192;

void send_note(const char *text) {
  if (registered_msg) {
    registered_msg(text);
  } else if (cwVlxmsg) {
    cwVlxmsg(text);
  } else {
    std::fputs(text, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }
}

void send_error(int level, const char *text) {
  if (registered_err) {
    registered_err(level, text);
  } else if (cwVlxerr) {
    cwVlxerr(level, text);
  } else {
    std::fflush(stdout);
    std::fputs(text, stderr);
    std::fputc('\n', stderr);
  }
}

struct Progress {
  int64_t steps = 0;
  int64_t done = 0;
  double start = 0.0;
  double last = 0.0;
  double estimate = 0.0;
};
Progress progress;

double wall_clock() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count() / 1000.0;
}
double (*clock_now)() = wall_clock;

// One step of the estimate: the duration of the last step times the steps still to do, plus the
// time spent so far, averaged with the previous estimate.
void advance(int *percent, double *left, double *total) {
  progress.done += 1;
  double fraction = progress.steps > 0 ? double(progress.done) / double(progress.steps) : 1.0;
  double now = clock_now();
  double step = now - progress.last;
  double elapsed = now - progress.start;
  double fresh = step * double(progress.steps - progress.done) + elapsed;
  double estimate = progress.estimate == 0.0 ? fresh : (progress.estimate + fresh) * 0.5;
  progress.estimate = estimate;
  progress.last = now;
  *percent = int(fraction * 100.0);
  *left = estimate - elapsed;
  *total = estimate;
}

}  // namespace

// Formats one message and hands it on: level 0 as a note, 2 and 3 to the error channel.
static void send_formatted(int level, const char *format, va_list args) {
  char buffer[kBufferSize];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  if (level == 0) send_note(buffer);
  else send_error(level, buffer);
}

void note(const char *format, ...) {
  va_list args;
  va_start(args, format);
  send_formatted(0, format, args);
  va_end(args);
}

void warning(const char *format, ...) {
  va_list args;
  va_start(args, format);
  send_formatted(kWarning, format, args);
  va_end(args);
}

void error(const char *format, ...) {
  va_list args;
  va_start(args, format);
  send_formatted(kError, format, args);
  va_end(args);
}

bool host_is_quiet() {
  int key = 4;
  if (registered_inquiry) return registered_inquiry(&key) > 0;
  if (cwIopiqr) return cwIopiqr(&key) > 0;
  return false;
}

void report_allocation_failure(int line, const char *source) {
  error("Failed to allocate memory at line %d in file %s.\n", line, source);
}

void progress_start(int64_t steps) {
  progress = Progress{};
  progress.steps = steps;
  progress.start = progress.last = clock_now();
}

void progress_tick() {
  int percent;
  double left, total;
  advance(&percent, &left, &total);
  std::printf("\r%3d%%, %4d seconds left of %4d estimated total         ", percent, int(left),
              int(total));
  std::fflush(stdout);
}

void progress_peek(int *percent, double *seconds_left, double *estimated_total) {
  bool first = progress.done == 0;
  advance(percent, seconds_left, estimated_total);
  if (first) {
    *seconds_left = 0.0;
    *estimated_total = 0.0;
  }
}

void set_progress_clock(double (*now)()) { clock_now = now ? now : wall_clock; }

}  // namespace krx

extern "C" KRX_API void krx_register_host_callbacks(krx_msg_callback msg, krx_err_callback err,
                                                    krx_inquiry_callback inquiry) {
  krx::registered_msg = msg;
  krx::registered_err = err;
  krx::registered_inquiry = inquiry;
}
