#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests (the Python module's too, tessaline.distributed's
# on a local Dask cluster among them) and the benchmarks need; quiet when all of them are there already.
set -euo pipefail
packages=(cmake g++ make binutils pkg-config libgtest-dev libnanoflann-dev libthrust-dev libcub-dev libeigen3-dev
  libcxxopts-dev libpng-dev liblzf-dev pybind11-dev python3-dev python3-numpy python3-pytest python3-distributed)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo=sudo; fi
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
