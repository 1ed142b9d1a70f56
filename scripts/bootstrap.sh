#!/usr/bin/env bash
# Installs, from Debian's packages, whatever the build and the tests need that this machine lacks.
set -euo pipefail

need=()
have_cmd() { command -v "$1" >/dev/null 2>&1; }
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

for p in g++ cmake ninja-build gfortran libgtest-dev libgmock-dev libbenchmark-dev \
         python3-dev pybind11-dev python3-pybind11 \
         python3-numpy python3-scipy python3-vtk9 python3-pytest python3-meshio \
         clang libclang-rt-14-dev xvfb xauth; do
  have_pkg "$p" || need+=("$p")
done

if [ ${#need[@]} -gt 0 ]; then
  echo "bootstrap: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
