// Inertia invariants on a model of N nodes and M modes, up to the 200,000-node, 50-mode plate of
// bench_write: the fast set (invariants 3, 4 and 8 over the modes) and the full set, which adds
// the O(M^2 N) weighted products of invariants 5 and 9.
#include <benchmark/benchmark.h>

#include "host/krx_fortran.h"
#include "model/krxtools.h"
#include "processing/krxinvar.h"

namespace {

krx::KRXDATA *build(int nodes, int modes) {
  krx::release_all_models();
  krx::KRXDATA *model = krx::create_model(uint32_t(nodes), modes);
  for (int i = 0; i < nodes; ++i) {
    auto &node = model->nodes[krx::node_position_or_add(model, i + 1)];
    node.x = 0.01 * i, node.y = 0.02 * (i % 7), node.z = 0.5, node.mass = 1.0 + (i % 3);
  }
  model->flags[krx::kFlagNodalMasses] = 1;
  for (int j = 0; j < modes; ++j)
    for (int i = 0; i < nodes; ++i) {
      const double v[6] = {0.1 * j, 0.2 * i, 1.0, 0.0, 0.1, 0.2};
      krx::store_node_vector(model, j + 1, i + 1, krx::kModeShapes, v);
    }
  return model;
}

void clear_caches(krx::KRXDATA *model) {
  model->has_invariant1 = false;
  for (auto *cache :
       {&model->invariant2, &model->invariant3, &model->invariant4, &model->invariant5,
        &model->invariant7, &model->invariant8, &model->invariant9})
    cache->clear();
}

void BM_FastInvariants(benchmark::State &state) {
  krx::KRXDATA *model = build(int(state.range(0)), int(state.range(1)));
  for (auto _ : state) {
    clear_caches(model);
    krx::compute_fast_invariants(model);
  }
  krx::release_all_models();
}

void BM_FullInvariants(benchmark::State &state) {
  krx::KRXDATA *model = build(int(state.range(0)), int(state.range(1)));
  for (auto _ : state) {
    clear_caches(model);
    krx::compute_full_invariants(model);
  }
  krx::release_all_models();
}

BENCHMARK(BM_FastInvariants)->Args({10000, 20})->Args({200000, 50})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullInvariants)->Args({10000, 20})->Args({200000, 50})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
