// Internal to the QZ stages (krxqz.cpp, krxqz_vectors.cpp): a column-major matrix with leading
// dimension nm, addressed 1-based like the published algorithm.
#pragma once

#include <cstddef>

namespace krx {
namespace {

struct Matrix {
  double *p;
  int nm;
  double &operator()(int i, int j) const { return p[(i - 1) + std::ptrdiff_t(j - 1) * nm]; }
};

}  // namespace
}  // namespace krx
