// The ground floor: the message channel to the host's callbacks (notes, warnings, errors and the
// quiet inquiry, with the lookup of callbacks the host registered or defined), the
// allocation-failure report and the progress line of long loops. Every other folder reports
// through here and nowhere else; this folder includes nothing of the others.
#pragma once

#include <cstdint>

namespace krx {

// Message levels of the error callback.
constexpr int kWarning = 2;
constexpr int kError = 3;

// Messages are formatted into a bounded buffer and passed on unchanged: no prefix, no newline.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));
void warning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// True when the host answers the quiet inquiry (key 4) with a positive value. Asked afresh each call.
bool host_is_quiet();

// "Failed to allocate memory at line %d in file %s.\n" with the line and a source name such as
// "..\\krxset". Use KRX_REPORT_ALLOC(source) so that the line is the caller's own.
void report_allocation_failure(int line, const char *source);
#define KRX_REPORT_ALLOC(source) ::krx::report_allocation_failure(__LINE__, source)

// The progress line of long loops goes to standard output, not to the host.
void progress_start(int64_t steps);
void progress_tick();
// The same arithmetic without printing: percentage, seconds left and estimated total (the last
// two are 0 after the first step).
void progress_peek(int *percent, double *seconds_left, double *estimated_total);
// Tests replace the millisecond wall clock; null restores it. The clock returns seconds.
void set_progress_clock(double (*now)());

}  // namespace krx
