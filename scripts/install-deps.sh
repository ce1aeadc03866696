#!/usr/bin/env bash
# Installs the build and test dependencies that are missing (apt-get, when run as root).
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-dev gfortran pkg-config libtirpc-dev libgtest-dev
          libgmock-dev libbenchmark-dev liblapack-dev calculix-ccx calculix-ccx-test gmsh chromium
          libjs-three libsuitesparse-dev libopenblas-dev libeigen3-dev libspectra-dev libmumps-dev
          libopenmpi-dev openmpi-bin libpetsc-real-dev libslepc-real-dev
          python3-numpy python3-meshio python3-matplotlib python3-pytest)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then exit 0; fi
if [ "$(id -u)" -eq 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "Missing packages: ${missing[*]} (run as root, or install them with sudo apt-get install)" >&2
  exit 1
fi
