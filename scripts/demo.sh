#!/usr/bin/env bash
# Builds the library and tools, then runs the example host and lists its file with krxdump.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
if [ -x build/examples/example_host ]; then
  mkdir -p out
  (cd out && ../build/examples/example_host sample.krx)
  build/krxdump out/sample.krx || true
else
  echo "The example host is not built yet."
fi
