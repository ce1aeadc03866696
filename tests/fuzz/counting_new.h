// The counting allocator of the allocation tests: every form of operator new of the program goes
// through it (counting_new.cpp replaces them). Armed with k, it counts calls and fails the k-th;
// counting() arms it so that it only counts.
#pragma once

namespace countingnew {

extern long fail_at;  // 0: not armed
extern long calls;    // calls since the last arm
extern bool failed;   // the k-th call has happened

void arm(long k);
void counting();
void disarm();

}  // namespace countingnew
