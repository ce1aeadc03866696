#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds the shared library, the example
# host and krxdump, lets the example host write the closed-form chain model through the exported
# entries, and lists the file with krxdump (contents and the eigenvalue block; the full listing is
# `build/krxdump out/sample.krx`); then the Python reader writes out/sample.vtu for ParaView and
# out/mode7.png, a picture of mode 7. Then the real path: gmsh meshes the bracket of
# hosts/calculix/geometry in quadratic tetrahedra, CalculiX assembles its matrices, ccx2krx solves
# for its component modes and stresses and exports out/bracket.krx, krxdump lists its eigenvalues,
# and the Python reader writes out/bracket.vtu, out/bracket_mode7.png, the first bending mode, and
# out/bracket.html, a page that animates every mode in a browser.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target krxlib example_host krxdump ccx2krx
mkdir -p out
echo
echo "== The example host writes out/sample.krx"
(cd out && TMP="$PWD" ../build/examples/example_host sample.krx)
echo
echo "== krxdump out/sample.krx -l"
build/krxdump out/sample.krx -l
echo
echo "== krxdump out/sample.krx -b 3"
build/krxdump out/sample.krx -b 3
echo
echo "== krxdump out/sample.krx -b 7"
build/krxdump out/sample.krx -b 7
echo
echo "== python3 -m krx: out/sample.vtu and out/mode7.png"
export PYTHONPATH=python MPLBACKEND=Agg
/usr/bin/python3 -m krx info out/sample.krx
/usr/bin/python3 -m krx vtu out/sample.krx out/sample.vtu
/usr/bin/python3 -m krx plot out/sample.krx --mode 7 -o out/mode7.png
echo
echo "== gmsh meshes the bracket: out/bracket.inp"
/usr/bin/python3 hosts/calculix/geometry/make_deck.py hosts/calculix/geometry/bracket.geo \
  out/bracket.inp -setnumber h 5
echo
echo "== ccx2krx out/bracket.inp -o out/bracket.krx --interface HOLE1 --interface HOLE2 --modes 12 --stress --timing"
TMP="$PWD/out" build/ccx2krx out/bracket.inp -o out/bracket.krx --interface HOLE1 \
  --interface HOLE2 --modes 12 --stress --timing > out/bracket.log
echo "(the library's messages are in out/bracket.log)"
echo
echo "== krxdump out/bracket.krx -b 7"
build/krxdump out/bracket.krx -b 7
echo
echo "== python3 -m krx: out/bracket.vtu, out/bracket_mode7.png and out/bracket.html"
/usr/bin/python3 -m krx vtu out/bracket.krx out/bracket.vtu
/usr/bin/python3 -m krx plot out/bracket.krx --mode 7 -o out/bracket_mode7.png --scale 0.2
/usr/bin/python3 -m krx html out/bracket.krx -o out/bracket.html
echo "(open out/bracket.html in a browser: file://$PWD/out/bracket.html)"
echo
echo "== gmsh meshes a bent sheet in S8R shells 1.5 mm thick: out/sheet.inp"
/usr/bin/python3 hosts/calculix/geometry/make_deck.py hosts/calculix/geometry/sheet.geo \
  out/sheet.inp -setnumber h 4 --shell 1.5
echo
echo "== ccx2krx out/sheet.inp -o out/sheet.krx --modes 12 --stress --timing" \
  "--interface HOLE1 --interface HOLE2 (the bolt holes as interface points)"
TMP="$PWD/out" build/ccx2krx out/sheet.inp -o out/sheet.krx --modes 12 --stress --timing \
  --interface HOLE1 --interface HOLE2 > out/sheet.log
echo "(the library's messages are in out/sheet.log)"
build/krxdump out/sheet.krx -b 7
/usr/bin/python3 -m krx vtu out/sheet.krx out/sheet.vtu
/usr/bin/python3 -m krx plot out/sheet.krx --mode 7 -o out/sheet_mode7.png
/usr/bin/python3 -m krx html out/sheet.krx -o out/sheet.html
echo "(open out/sheet.html in a browser: file://$PWD/out/sheet.html)"
