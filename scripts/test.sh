#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test, warnings as errors: once
# with g++ in the release configuration with debug information, once under AddressSanitizer and
# UndefinedBehaviorSanitizer, and once with clang++ in Release; then checks the install as
# consumers see it (C, C++ and Fortran programs built against a fresh install prefix).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
# Each step says how long it took, so that the build and test times of every configuration show.
step() {
  local start=$SECONDS
  "$@"
  echo "== $((SECONDS - start)) s: $*"
}

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKRX_WERROR=ON
step cmake --build build -j "$jobs"
step ctest --test-dir build --output-on-failure -j "$jobs"
# The Python reader, against files that build/ writes (Debian's interpreter holds its packages).
KRX_BUILD_DIR=build MPLBACKEND=Agg step /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKRX_SANITIZE=ON -DKRX_BENCH=OFF \
  -DKRX_WERROR=ON
step cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  step ctest --test-dir build-asan --output-on-failure -j "$jobs"

# A second compiler, so that a compiler-specific break fails here.
cmake -S . -B build-clang -G Ninja -DCMAKE_BUILD_TYPE=Release -DKRX_BENCH=OFF -DKRX_WERROR=ON \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
step cmake --build build-clang -j "$jobs"
step ctest --test-dir build-clang --output-on-failure -j "$jobs"

step bash scripts/check-install.sh build
