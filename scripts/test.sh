#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test: once in the release
# configuration and once under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"
# The Python reader, against files that build/ writes (Debian's interpreter holds its packages).
KRX_BUILD_DIR=build MPLBACKEND=Agg /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKRX_SANITIZE=ON -DKRX_BENCH=OFF
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"
