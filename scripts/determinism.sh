#!/usr/bin/env bash
# The same frames give byte-identical meshes: a simulated scan and, when present, the Stanford bunny
# scans, each reconstructed twice with 2 threads and once with 1 (OMP_NUM_THREADS), compared with cmp.
# Needs a build in build/ (scripts/test.sh makes one).
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tessaline=./build/tessaline

check() {  # name, then the input arguments of reconstruct
  local name=$1
  shift
  OMP_NUM_THREADS=2 "$tessaline" reconstruct "$@" --quiet -o "$work/$name-2a.ply" >/dev/null 2>&1
  OMP_NUM_THREADS=2 "$tessaline" reconstruct "$@" --quiet -o "$work/$name-2b.ply" >/dev/null 2>&1
  OMP_NUM_THREADS=1 "$tessaline" reconstruct "$@" --quiet -o "$work/$name-1.ply" >/dev/null 2>&1
  cmp "$work/$name-2a.ply" "$work/$name-2b.ply"
  cmp "$work/$name-2a.ply" "$work/$name-1.ply"
  echo "$name: identical meshes across repeats and thread counts ($(stat -c %s "$work/$name-1.ply") bytes)"
}

"$tessaline" simulate -o "$work/frames" --points 300000 >/dev/null
check part "$work/frames"
bunny=../shared/data/stanford-bunny/scans/bun.conf
if [ -f "$bunny" ]; then
  check bunny "$bunny" --units m
else
  echo "bunny: skipped, no $bunny"
fi
