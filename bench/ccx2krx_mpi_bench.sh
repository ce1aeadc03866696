#!/usr/bin/env bash
# ccx2krx's own solver on one machine beside --solver mpi on 1 and 2 ranks: the bracket
# (quadratic tetrahedra), 30 modes, free. Prints each run's --timing lines (factor, iteration,
# check, the largest rank's peak memory), its wall time and its seventh eigenvalue; the three
# files are compared with krxcompare. Usage: bench/ccx2krx_mpi_bench.sh [BUILD_DIR] [ELEMENT_SIZE]
# [RUN...] (size 1.35 gives ~103,000 nodes, 0.9 ~313,000, where a run needs 7-12 GB; RUN is own,
# mpi1 or mpi2, all three by default, in the order given). The threads are the tool's choice: one
# process uses every core, ranks on one machine share them (set OMP_NUM_THREADS to fix them).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
size=${2:-1.35}
runs=("${@:3}")
[ ${#runs[@]} -gt 0 ] || runs=(own mpi1 mpi2)
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 hosts/calculix/geometry/make_deck.py hosts/calculix/geometry/bracket.geo \
  "$work/bracket.inp" -setnumber h "$size"
nodes=$(awk '/^\*NODE/ {on = 1; next} /^\*/ {on = 0} on' "$work/bracket.inp" | wc -l)
echo "bracket: element size $size mm, $nodes nodes, 30 modes, free"
run() {
  local name=$1
  shift
  local start end
  start=$(date +%s.%N)
  TMPDIR="$work" "$@" "$work/bracket.inp" -o "$work/$name.krx" --modes 30 --timing --quiet \
    2> "$work/$name.err" > /dev/null || { cat "$work/$name.err" >&2; exit 1; }
  end=$(date +%s.%N)
  echo "== $name: wall $(echo "$end - $start" | bc) s, load average $(cut -d' ' -f1-3 /proc/loadavg)"
  grep -v 'krxlib warning' "$work/$name.err"
  "$build/krxdump" "$work/$name.krx" 2> /dev/null |
    awk '/mode   eigenvalue/ {on = 1} on && $1 == 7 && !done {print "mode 7:", $2; done = 1}' ||
    true
}
for r in "${runs[@]}"; do
  case $r in
    own) run own "$build/ccx2krx" --solver own ;;
    mpi1) run mpi1 mpirun -n 1 "$build/ccx2krx" --solver mpi ;;
    mpi2) run mpi2 mpirun -n 2 --oversubscribe "$build/ccx2krx" --solver mpi ;;
    *) echo "unknown run $r (own, mpi1, mpi2)" >&2; exit 2 ;;
  esac
done
[ -f "$work/own.krx" ] || exit 0
for n in mpi1 mpi2; do
  [ -f "$work/$n.krx" ] || continue
  status=0
  "$build/krxcompare" -q "$work/own.krx" "$work/$n.krx" || status=$?
  echo "krxcompare own $n: exit status $status (0: equivalent)"
done
