#!/usr/bin/env bash
# The install as consumers see it: installs a built tree (default: build) into a fresh temporary
# prefix, moves that prefix elsewhere, then builds and runs against it alone a C program through
# `pkg-config krxlib`, the same program compiled as C++ through find_package(krxlib) and
# krx::krxlib, and a Fortran program through `use krx` and `pkg-config krxlib-fortran`. The
# installed krxdump lists the file each one writes. Usage: scripts/check-install.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
sources=$PWD/tests/consumers
work=$(mktemp -d "${TMPDIR:-/tmp}/krx-install.XXXXXX")
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/staged" >/dev/null
# Moved after the install: nothing may depend on the prefix the files were installed to.
mv "$work/staged" "$work/prefix"
prefix=$work/prefix
pcfile=$(find "$prefix" -name krxlib.pc -path '*/pkgconfig/*')
libdir=$(dirname "$(dirname "$pcfile")")
for link in libkrxlib.so libkrxlib.so.1; do
  [ -L "$libdir/$link" ] || { echo "check-install: $libdir/$link is not a link" >&2; exit 1; }
done
export PKG_CONFIG_PATH=$libdir/pkgconfig
export LD_LIBRARY_PATH=$libdir
cd "$work"

lists() {  # lists FILE TITLE WHAT: the installed krxdump shows the header and the face of FILE
  # The full dump ends with status 1 by design; its text is what counts.
  "$prefix/bin/krxdump" "$1" >"$1.txt" || true
  if ! grep -q "^Title: $2\$" "$1.txt" || ! grep -q "^number of faces 1\$" "$1.txt"; then
    echo "check-install: krxdump does not list the title '$2' and the face of $1" >&2
    exit 1
  fi
  echo "check-install: $3: $1 written and listed"
}

# shellcheck disable=SC2046
"${CC:-cc}" -Wall -Wextra -Werror -o c_consumer "$sources/c_consumer.c" \
  $(pkg-config --cflags krxlib) $(pkg-config --libs krxlib)
TMP=$work ./c_consumer c.krx >consumer.log
lists c.krx "C consumer" "C through pkg-config krxlib"

cmake -S "$sources" -B cxx -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
cmake --build cxx >/dev/null
TMP=$work cxx/cxx_consumer cxx.krx >>consumer.log
lists cxx.krx "C consumer" "the C program as C++ through find_package(krxlib)"

if ! pkg-config --exists krxlib-fortran; then
  echo "check-install: no krxlib-fortran.pc (was a Fortran compiler found at configure time?)" >&2
  exit 1
fi
# shellcheck disable=SC2046
"${FC:-gfortran}" -Wall -Werror -o fortran_consumer "$sources/fortran_consumer.f90" \
  $(pkg-config --cflags krxlib-fortran) $(pkg-config --libs krxlib-fortran)
TMP=$work ./fortran_consumer fortran.krx >>consumer.log
lists fortran.krx "Fortran consumer" "Fortran through use krx and pkg-config krxlib-fortran"
