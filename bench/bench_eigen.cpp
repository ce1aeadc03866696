// The rewrite of spooled mode shapes through a dense mode transformation (100,000 nodes x 100
// modes, file to file) beside the naive triple loop, and the QZ stages of order 200 beside the
// reference LAPACK solver, in the same run.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "host/krx_fortran.h"
#include "model/krxtools.h"
#include "processing/krxeigen.h"
#include "processing/krxnumerics.h"

extern "C" void dggev_(const char *, const char *, const int *, double *, const int *, double *,
                       const int *, double *, double *, double *, double *, const int *, double *,
                       const int *, double *, const int *, int *, std::size_t, std::size_t);

namespace {

constexpr int kNodes = 100000;
constexpr int kModes = 100;

krx::KRXDATA *spooled_model() {
  static krx::KRXDATA *model = nullptr;
  if (model) return model;
  model = krx::create_model(kNodes, kModes);
  std::mt19937_64 rng(1);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  double v[6];
  for (int m = 1; m <= kModes; ++m)
    for (int node = 1; node <= kNodes; ++node) {
      for (double &x : v) x = u(rng);
      krx::store_node_vector(model, m, node, krx::kModeShapes, v);
    }
  krx::flush_vector_store(model, krx::kModeShapes);
  model->transformation.resize(kModes * kModes);
  for (double &x : model->transformation) x = u(rng) * 0.1;
  model->transformation_modes = model->modes;
  return model;
}

void BM_RewritePanelKernel(benchmark::State &state) {
  krx::KRXDATA *model = spooled_model();
  for (auto _ : state) {
    if (!krx::write_transformed_vectors(model, krx::kModeShapes, kModes)) state.SkipWithError("rewrite");
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 2 * kModes * int64_t(kNodes) * 48);
}

// For each new mode, for each old mode, for each value; one record in memory at a time.
void BM_RewriteNaiveTripleLoop(benchmark::State &state) {
  krx::KRXDATA *model = spooled_model();
  std::vector<double> acc(std::size_t(kNodes) * 6);
  for (auto _ : state) {
    krx::ReplacementFile file;
    krx::open_replacement_file(model, krx::kModeShapes, kModes, kNodes, "%s", file);
    for (int j = 0; j < kModes; ++j) {
      std::fill(acc.begin(), acc.end(), 0.0);
      for (int k = 0; k < kModes; ++k) {
        krx::load_mode_record_by_index(model, k, krx::kModeShapes);
        const double *old = model->store[krx::kModeShapes].record.data();
        double t = model->transformation[k * kModes + j];
        for (std::size_t v = 0; v < acc.size(); ++v) acc[v] += t * old[v];
      }
      krx::write_replacement_record(file, j, acc.data());
    }
    krx::install_replacement_file(model, file);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 2 * kModes * int64_t(kNodes) * 48);
}

struct Pencil {
  std::vector<double> a, b;
};

Pencil pencil(int n) {
  std::mt19937_64 rng(2);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> x(n * n), y(n * n);
  for (double &v : x) v = u(rng);
  for (double &v : y) v = u(rng);
  Pencil p{std::vector<double>(n * n, 0.0), std::vector<double>(n * n, 0.0)};
  // Symmetric positive definite: X^T X + n I and Y^T Y + n I.
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      for (int k = 0; k < n; ++k) {
        p.a[i + j * n] += x[k + i * n] * x[k + j * n];
        p.b[i + j * n] += y[k + i * n] * y[k + j * n];
      }
      if (i == j) {
        p.a[i + j * n] += n;
        p.b[i + j * n] += n;
      }
    }
  return p;
}

void BM_QzFourStages(benchmark::State &state) {
  int n = int(state.range(0));
  Pencil p = pencil(n);
  std::vector<double> a, b, z(n * n), ar(n), ai(n), beta(n);
  for (auto _ : state) {
    a = p.a;
    b = p.b;
    int err = 0;
    krx::qz_reduce(n, n, a.data(), b.data(), true, z.data());
    krx::qz_iterate(n, n, a.data(), b.data(), 0.0, true, z.data(), &err);
    krx::qz_values(n, n, a.data(), b.data(), ar.data(), ai.data(), beta.data(), true, z.data());
    krx::qz_vectors(n, n, a.data(), b.data(), ar.data(), ai.data(), beta.data(), z.data());
    benchmark::DoNotOptimize(z.data());
  }
}

void BM_LapackDggev(benchmark::State &state) {
  int n = int(state.range(0)), one = 1, info = 0, lwork = 64 * n;
  Pencil p = pencil(n);
  std::vector<double> a, b, vr(n * n), vl(1), ar(n), ai(n), beta(n), work(lwork);
  for (auto _ : state) {
    a = p.a;
    b = p.b;
    dggev_("N", "V", &n, a.data(), &n, b.data(), &n, ar.data(), ai.data(), beta.data(), vl.data(),
           &one, vr.data(), &n, work.data(), &lwork, &info, 1, 1);
    benchmark::DoNotOptimize(vr.data());
  }
}

}  // namespace

BENCHMARK(BM_RewritePanelKernel)->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RewriteNaiveTripleLoop)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QzFourStages)->Arg(50)->Arg(200)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LapackDggev)->Arg(50)->Arg(200)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
  setenv("TMP", "/tmp", 0);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  krx::release_all_models();
  return 0;
}
