#!/usr/bin/env bash
# Builds the library, its program and the Python module, and runs every test through CTest: the
# GoogleTest suite, the package and program checks, and the Python module's pytest suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DTESSALINE_BUILD_PYTHON=ON -DPython3_EXECUTABLE=/usr/bin/python3 >/dev/null
cmake --build build -j"$(nproc)"
cd build
# Tests run side by side, each with its own OpenMP team: idle threads that spin would take the cores
# from the others.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}
ctest --output-on-failure -j"$(nproc)"
