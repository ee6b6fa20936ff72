#!/usr/bin/env bash
# Builds the library and its command-line program, and runs the demo: a simulated scan of the
# built-in part, reconstructed; leaves tessaline-demo.ply and tessaline-demo.png in the current
# directory and prints how close the mesh lies to the part's true surface.
set -euo pipefail
here="$(pwd)"
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target tessaline_cli
./build/tessaline demo --quiet -o "$here"
