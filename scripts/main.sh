#!/usr/bin/env bash
# Builds the library and runs the main job on its built-in default input.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target tessaline_example tessaline_cli
./build/tessaline_example
