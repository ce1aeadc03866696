#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds the shared library, the example
# host and krxdump, lets the example host write the closed-form chain model through the exported
# entries, and lists the file with krxdump (contents and the eigenvalue block; the full listing is
# `build/krxdump out/sample.krx`); then the Python reader writes out/sample.vtu for ParaView and
# out/mode7.png, a picture of mode 7.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target krxlib example_host krxdump
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
