#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (address and undefined-behaviour sanitizers) and runs
# each over a working copy of its checked-in corpus for the given seconds (default 60 each).
# New inputs stay in build-fuzz/corpus/<target>; inputs that crash go to build-fuzz/findings.
#   scripts/fuzz.sh [seconds] [target ...]     targets: read read_api compare options sketch
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(read read_api compare options sketch)
bash scripts/install-deps.sh

CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKRX_FUZZ=ON -DKRX_TESTS=OFF -DKRX_BENCH=OFF
for t in "${targets[@]}"; do cmake --build build-fuzz -j 2 --target "fuzz_$t"; done

mkdir -p build-fuzz/findings
for t in "${targets[@]}"; do
  work=build-fuzz/corpus/$t
  mkdir -p "$work"
  echo "== fuzz_$t for ${seconds}s"
  # -rss_limit_mb and -timeout make a slow or greedy input a finding, not a hang.
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    build-fuzz/tests/fuzz/fuzz_$t "$work" tests/fuzz/corpus/$t \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
    -artifact_prefix=build-fuzz/findings/$t- -print_final_stats=1
done
