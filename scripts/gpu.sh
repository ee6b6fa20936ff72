#!/usr/bin/env bash
# On a machine with a CUDA device: builds the CUDA backend, runs the whole test suite and the benchmark's
# smoke mode, and prints the device, the test summary and the benchmark table.
#   bash scripts/gpu.sh [build folder, default build-gpu]
#
# A device's machine without the build's Debian packages (nanoflann, GoogleTest, libpng, liblzf) gets the
# binaries made elsewhere: on a machine that has the packages and nvcc (no device needed)
#   bash scripts/gpu.sh --pack [folder, default .gpu]
# builds the CUDA backend (Release; CUDA architectures from TESSALINE_CUDA_ARCHITECTURES, default 75;90-real)
# and puts the programs, the libraries they load beyond the C and C++ runtimes, and the bunny scans
# (../shared/data, when there) into the folder; carried to the device's machine, in the same place,
#   bash scripts/gpu.sh --prebuilt [folder, default .gpu]
# runs them there: the test program in four shards at once, the example, the program on the bunny scans
# and on a simulated million points (the meshes' sha256, to hold against a host build's), the smoke mode.
# TESSALINE_GPU_LOGS=folder keeps the test shards' logs there; TESSALINE_GPU_TEST_TIMEOUT bounds a shard
# (seconds, default 900). There too,
#   bash scripts/gpu.sh --sanitize [folder, default .gpu]
# runs the program under compute-sanitizer's memcheck (leaks too), racecheck, initcheck and synccheck on a
# simulated 100,000 points, and memcheck on the bunny scans; each tool's log goes to TESSALINE_GPU_LOGS.
set -uo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
export OMP_WAIT_POLICY=passive

find_nvcc() {
  if command -v nvcc >/dev/null 2>&1; then command -v nvcc; elif [ -x /usr/local/cuda/bin/nvcc ]; then
    echo /usr/local/cuda/bin/nvcc; fi
}

show_device() {
  echo "== device"
  if command -v nvidia-smi >/dev/null 2>&1; then
    nvidia-smi --query-gpu=name,compute_cap,memory.total,driver_version --format=csv
  else
    echo "nvidia-smi not found"
  fi
}

pack() {
  local dir=$1 build=build-gpu-pack nvcc
  nvcc=$(find_nvcc)
  if [ -z "$nvcc" ]; then echo "gpu.sh: no nvcc" >&2; exit 2; fi
  echo "== build ($build) for $dir"
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTESSALINE_CUDA=ON -DCMAKE_CUDA_COMPILER="$nvcc" \
    -DCMAKE_CUDA_ARCHITECTURES="${TESSALINE_CUDA_ARCHITECTURES:-75;90-real}" -DTESSALINE_BUILD_BENCH=ON \
    -DTESSALINE_BUILD_PYTHON=OFF >"$build.configure.log" 2>&1 || { tail -n 30 "$build.configure.log"; exit 1; }
  cmake --build "$build" -j"$jobs" --target tessaline_cli tessaline_example tessaline_tests tessaline_bench \
    >"$build.build.log" 2>&1 || { tail -n 60 "$build.build.log"; exit 1; }
  rm -rf "$dir"
  mkdir -p "$dir/bin" "$dir/lib" "$dir/data"
  local programs=("$build/tessaline" "$build/tessaline_example" "$build/tests/tessaline_tests"
    "$build/bench/tessaline_bench")
  cp "${programs[@]}" "$dir/bin/"
  # What the programs load, less what every Linux has (the C library, the C++ and GCC runtimes).
  ldd "${programs[@]}" | awk '$2 == "=>" && $3 ~ /^\// {print $3}' | sort -u |
    grep -vE '/(libc|libm|libdl|libpthread|librt|libstdc\+\+|libgcc_s|ld-linux[^/]*)\.so' |
    while read -r lib; do cp -L "$lib" "$dir/lib/"; done
  if [ -d ../shared/data/stanford-bunny ]; then cp -r ../shared/data/stanford-bunny "$dir/data/"; fi
  du -sh "$dir"
  ls "$dir/lib"
}

prebuilt() {
  local dir shards=4 status=0
  dir=$(cd "$1" && pwd) || exit 2
  export LD_LIBRARY_PATH="$dir/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
  export TESSALINE_TEST_PROGRAM="$dir/bin/tessaline" TESSALINE_TEST_DATA="$dir/data"
  local out
  out=$(mktemp -d)
  show_device
  "$dir/bin/tessaline" --version

  echo "== tests ($shards shards)"
  for ((s = 0; s < shards; ++s)); do
    GTEST_TOTAL_SHARDS=$shards GTEST_SHARD_INDEX=$s timeout "${TESSALINE_GPU_TEST_TIMEOUT:-900}" \
      "$dir/bin/tessaline_tests" >"$out/tests$s.log" 2>&1 &
  done
  for ((s = 0; s < shards; ++s)); do wait -n || status=1; done
  cat "$out"/tests*.log | grep -E "^\[  PASSED  \]|^\[  SKIPPED \] [0-9]|^\[  FAILED  \]" |
    awk '/PASSED/ {p += $4} /SKIPPED \] [0-9]/ {s += $4} /FAILED  \] [A-Za-z]/ {print}
         END {print "passed " p + 0 ", skipped " s + 0}'
  if [ -n "${TESSALINE_GPU_LOGS:-}" ]; then mkdir -p "$TESSALINE_GPU_LOGS" && cp "$out"/tests*.log "$TESSALINE_GPU_LOGS/"; fi
  "$dir/bin/tessaline_example" 2>&1 | tail -n 1

  echo "== the program (sha256 of each mesh)"
  local scans="$out/scans"
  mkdir -p "$scans"
  if [ -f "$dir/data/stanford-bunny/scans/bun.conf" ]; then
    "$dir/bin/tessaline" reconstruct "$dir/data/stanford-bunny/scans/bun.conf" --units m --resolution 0.5 \
      -o "$scans/bunny.ply" 2>&1 | grep -E "^time:|error" || status=1
  fi
  "$dir/bin/tessaline" simulate -o "$scans/part" --points 1000000 >/dev/null 2>&1 || status=1
  "$dir/bin/tessaline" reconstruct "$scans/part" --resolution 0.5 --markers none -o "$scans/part.ply" 2>&1 |
    grep -E "^time:|error" || status=1
  (cd "$scans" && sha256sum ./*.ply)

  echo "== benchmark (smoke mode)"
  "$dir/bin/tessaline_bench" --smoke --program "$dir/bin/tessaline" --data "$dir/data" \
    --out "$out/bench-smoke.json" || status=1
  rm -rf "$out"
  echo "== summary: rc=$status"
  return $status
}

sanitize() {
  local dir sanitizer logs out n=0 status=0
  dir=$(cd "$1" && pwd) || exit 2
  export LD_LIBRARY_PATH="$dir/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
  sanitizer=$(command -v compute-sanitizer || echo /usr/local/cuda/bin/compute-sanitizer)
  out=$(mktemp -d)
  logs=${TESSALINE_GPU_LOGS:-$out}
  mkdir -p "$logs"
  show_device
  "$sanitizer" --version | tail -n 1
  "$dir/bin/tessaline" simulate -o "$out/part" --points 100000 >/dev/null 2>&1 || status=1
  check() { # tool, seconds, input, program options...
    local tool=$1 seconds=$2 input=$3
    shift 3
    n=$((n + 1))
    echo "== $tool on $(basename "$input")"
    timeout "$seconds" "$sanitizer" --tool "$tool" --error-exitcode 9 ${SANITIZER_OPTIONS:-} \
      "$dir/bin/tessaline" reconstruct "$input" "$@" -o "$out/mesh$n.ply" >"$logs/$tool$n.log" 2>&1 || status=1
    grep -E "SUMMARY" "$logs/$tool$n.log"
  }
  SANITIZER_OPTIONS="--leak-check full" check memcheck 120 "$out/part" --resolution 0.5 --markers none
  check racecheck 120 "$out/part" --resolution 0.5 --markers none
  check initcheck 90 "$out/part" --resolution 0.5 --markers none
  check synccheck 60 "$out/part" --resolution 0.5 --markers none
  if [ -f "$dir/data/stanford-bunny/scans/bun.conf" ]; then
    check memcheck 90 "$dir/data/stanford-bunny/scans/bun.conf" --units m --resolution 0.5
  fi
  (cd "$out" && sha256sum ./*.ply)
  rm -rf "$out"
  echo "== summary: rc=$status"
  return $status
}

case "${1:-}" in
  --pack) pack "${2:-.gpu}"; exit $? ;;
  --prebuilt) prebuilt "${2:-.gpu}"; exit $? ;;
  --sanitize) sanitize "${2:-.gpu}"; exit $? ;;
esac

build=${1:-build-gpu}
nvcc=$(find_nvcc)
if [ -z "$nvcc" ]; then echo "gpu.sh: no nvcc" >&2; exit 2; fi
show_device
"$nvcc" --version | tail -n 2

echo "== build ($build)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTESSALINE_CUDA=ON -DCMAKE_CUDA_COMPILER="$nvcc" \
  -DTESSALINE_BUILD_BENCH=ON >"$build.configure.log" 2>&1 || {
  tail -n 30 "$build.configure.log"
  echo "gpu.sh: the build's packages are missing here: make the binaries elsewhere with --pack, run them with --prebuilt" >&2
  exit 1
}
cmake --build "$build" -j"$jobs" >"$build.build.log" 2>&1 || { tail -n 60 "$build.build.log"; exit 1; }

echo "== tests"
(cd "$build" && ctest -j"$jobs" --timeout 900 --output-on-failure) >"$build.ctest.log" 2>&1
tests_rc=$?
grep -E "tests passed|tests failed|\*\*\*|Failed|Not Run" "$build.ctest.log" | tail -n 40
"$build/tests/tessaline_tests" --gtest_filter='DeviceLayer.*' 2>&1 | grep -E "SKIPPED|PASSED|FAILED|no CUDA device" | head -n 5

echo "== benchmark (smoke mode)"
"$build/bench/tessaline_bench" --smoke --out "$build/bench-smoke.json"
bench_rc=$?

echo "== summary: tests rc=$tests_rc, benchmark rc=$bench_rc (full logs: $build.*.log)"
[ "$tests_rc" -eq 0 ] && [ "$bench_rc" -eq 0 ]
