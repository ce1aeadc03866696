#!/usr/bin/env bash
# ccx2krx on a bracket of about 100,000 nodes (quadratic tetrahedra), 30 modes with stresses, by
# both paths in one run: the own solver (CalculiX assembles, the tool solves) and CalculiX's
# (--solver calculix). For each: the wall time, CalculiX's share, the tool's own share and peak
# memory, the largest child process's peak (CalculiX's jobs, the missed-mode check), as the
# tool's --timing lines give them.
# Usage: bench/ccx2krx_bench.sh [BUILD_DIR] [ELEMENT_SIZE] [PATHS] [OPTION...]  (size 1.35 gives
# ~103,000 nodes, 0.9 ~313,000; PATHS is "own calculix" (default), "own" or "calculix"; options
# go to ccx2krx: "--interface HOLE1 --interface HOLE2" exports the component modes of both bolt
# holes, 30 of them fixed-interface modes)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
size=${2:-1.35}
read -r -a paths <<< "${3:-own calculix}"
options=("${@:4}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 hosts/calculix/geometry/make_deck.py hosts/calculix/geometry/bracket.geo \
  "$work/bracket.inp" -setnumber h "$size"
nodes=$(awk '/^\*NODE/ {on = 1; next} /^\*/ {on = 0} on' "$work/bracket.inp" | wc -l)
echo "bracket: element size $size mm, $nodes nodes, 30 modes, --stress ${options[*]}," \
  "OMP_NUM_THREADS=${OMP_NUM_THREADS:-unset}, load average $(cut -d' ' -f1-3 /proc/loadavg)"
for path in "${paths[@]}"; do
  start=$(date +%s.%N)
  TMP="$work" "$build/ccx2krx" "$work/bracket.inp" -o "$work/bracket.krx" --modes 30 --stress \
    --timing --quiet --solver "$path" "${options[@]}" 2> "$work/stderr" > /dev/null ||
    { cat "$work/stderr" >&2; exit 1; }
  end=$(date +%s.%N)
  echo "--solver $path: wall $(echo "$end - $start" | bc) s," \
    "file $(du -m "$work/bracket.krx" | cut -f1) MB"
  grep '^ccx2krx: ' "$work/stderr" | grep -v 'krxlib warning' | sed 's/^/  /'
  rm -f "$work/bracket.krx"
done
