#!/usr/bin/env bash
# ccx2krx on a bracket of about 100,000 nodes (quadratic tetrahedra), 30 modes with stresses:
# CalculiX's own time, the tool's own time and its peak memory, as the tool's --timing line gives
# them. Usage: bench/ccx2krx_bench.sh [BUILD_DIR] [ELEMENT_SIZE] [OPTION...]  (size 1.35 gives
# ~103,000 nodes; options go to ccx2krx: "--interface HOLE1 --interface HOLE2" exports the
# component modes of both bolt holes, 30 of them fixed-interface modes)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
size=${2:-1.35}
options=("${@:3}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 hosts/calculix/geometry/make_deck.py hosts/calculix/geometry/bracket.geo \
  "$work/bracket.inp" -setnumber h "$size"
nodes=$(awk '/^\*NODE/ {on = 1; next} /^\*/ {on = 0} on' "$work/bracket.inp" | wc -l)
echo "bracket: element size $size mm, $nodes nodes, 30 modes, --stress ${options[*]}," \
  "OMP_NUM_THREADS=${OMP_NUM_THREADS:-unset}"
start=$(date +%s.%N)
TMP="$work" "$build/ccx2krx" "$work/bracket.inp" -o "$work/bracket.krx" --modes 30 --stress \
  --timing "${options[@]}" 2> "$work/stderr" > /dev/null || { cat "$work/stderr" >&2; exit 1; }
end=$(date +%s.%N)
grep '^ccx2krx: CalculiX' "$work/stderr"
echo "wall $(echo "$end - $start" | bc) s, file $(du -m "$work/bracket.krx" | cut -f1) MB"
