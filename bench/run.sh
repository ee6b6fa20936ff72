#!/usr/bin/env bash
# Builds the benchmark (Release) and runs it: the table on standard output, the JSON in
# bench/results.json. `bash bench/run.sh --smoke` runs the smallest case only.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTESSALINE_BUILD_BENCH=ON -DTESSALINE_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target tessaline_bench
# The JSON goes to bench/results.json unless the arguments name another file (--out).
./build-bench/bench/tessaline_bench --out bench/results.json "$@"
