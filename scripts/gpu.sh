#!/usr/bin/env bash
# On a machine with a CUDA device: builds the CUDA backend, runs the whole test suite and the benchmark's
# smoke mode, and prints the device, the test summary and the benchmark table.
#   bash scripts/gpu.sh [build folder, default build-gpu]
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-gpu}
jobs=$(nproc)
export OMP_WAIT_POLICY=passive
nvcc=""
if command -v nvcc >/dev/null 2>&1; then nvcc=$(command -v nvcc); elif [ -x /usr/local/cuda/bin/nvcc ]; then nvcc=/usr/local/cuda/bin/nvcc; fi
if [ -z "$nvcc" ]; then echo "gpu.sh: no nvcc" >&2; exit 2; fi

echo "== device"
if command -v nvidia-smi >/dev/null 2>&1; then
  nvidia-smi --query-gpu=name,compute_cap,memory.total,driver_version --format=csv
else
  echo "nvidia-smi not found"
fi
"$nvcc" --version | tail -n 2

echo "== build ($build)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTESSALINE_CUDA=ON -DCMAKE_CUDA_COMPILER="$nvcc" \
  -DTESSALINE_BUILD_BENCH=ON >"$build.configure.log" 2>&1 || { tail -n 30 "$build.configure.log"; exit 1; }
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
