#!/usr/bin/env bash
# ccx2krx on the demo's bent sheet meshed in S8R shells 1.5 mm thick, about 100,000 nodes, 30
# modes with stresses: CalculiX's own time, the tool's own time and its peak memory, as the
# tool's --timing line gives them. Usage: bench/ccx2krx_shell_bench.sh [BUILD_DIR] [ELEMENT_SIZE]
# (size 0.4 gives ~103,000 nodes, CalculiX expands them into about three times as many)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
size=${2:-0.4}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 hosts/calculix/geometry/make_deck.py hosts/calculix/geometry/sheet.geo \
  "$work/sheet.inp" -setnumber h "$size" --shell 1.5
nodes=$(awk '/^\*NODE/ {on = 1; next} /^\*/ {on = 0} on' "$work/sheet.inp" | wc -l)
echo "sheet: element size $size mm, $nodes nodes, 30 modes, --stress," \
  "OMP_NUM_THREADS=${OMP_NUM_THREADS:-unset}"
start=$(date +%s.%N)
TMP="$work" "$build/ccx2krx" "$work/sheet.inp" -o "$work/sheet.krx" --modes 30 --stress \
  --timing 2> "$work/stderr" > /dev/null || { cat "$work/stderr" >&2; exit 1; }
end=$(date +%s.%N)
grep '^ccx2krx: CalculiX' "$work/stderr"
echo "wall $(echo "$end - $start" | bc) s, file $(du -m "$work/sheet.krx" | cut -f1) MB"
