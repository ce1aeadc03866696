#include "counting_new.h"

#include <climits>
#include <cstdlib>
#include <new>

namespace countingnew {

long fail_at = 0;
long calls = 0;
bool failed = false;

void arm(long k) {
  calls = 0;
  failed = false;
  fail_at = k;
}

void counting() { arm(LONG_MAX); }

void disarm() { fail_at = 0; }

namespace {

void *allocate(std::size_t n, bool nothrow) {
  if (fail_at > 0 && ++calls == fail_at) {
    failed = true;
    if (nothrow) return nullptr;
    throw std::bad_alloc();
  }
  void *p = std::malloc(n ? n : 1);
  if (!p && !nothrow) throw std::bad_alloc();
  return p;
}

}  // namespace
}  // namespace countingnew

void *operator new(std::size_t n) { return countingnew::allocate(n, false); }
void *operator new[](std::size_t n) { return countingnew::allocate(n, false); }
void *operator new(std::size_t n, const std::nothrow_t &) noexcept { return countingnew::allocate(n, true); }
void *operator new[](std::size_t n, const std::nothrow_t &) noexcept { return countingnew::allocate(n, true); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
