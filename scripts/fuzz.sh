#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer, float-to-int
# conversions that overflow named explicitly) and runs each for a bounded time from the seed corpus in
# tests/fuzz/corpus, which holds every damaged input that once crashed or hung a reader. Usage: scripts/fuzz.sh [SECONDS]
# (default 60 a target). New inputs go to build-fuzz/corpus-*; crashes to build-fuzz/crash-*. The
# library's diagnostic lines (standard output) are dropped; libFuzzer reports on standard error.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
packages=(clang libomp-dev libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
if ((${#missing[@]})); then
  sudo=""; if [ "$(id -u)" -ne 0 ]; then sudo=sudo; fi
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTESSALINE_FUZZ=ON -DTESSALINE_SANITIZE=address,undefined,float-cast-overflow -DTESSALINE_BUILD_TESTS=OFF -DTESSALINE_BUILD_TOOLS=OFF >/dev/null
targets=(fuzz_ply fuzz_scan_list fuzz_engine fuzz_ptx fuzz_pts fuzz_pcd fuzz_las)
cmake --build build-fuzz -j"$(nproc)" --target "${targets[@]}"
for target in "${targets[@]}"; do
  corpus=build-fuzz/corpus-${target#fuzz_}
  mkdir -p "$corpus"
  echo "== $target, ${seconds} s"
  (cd build-fuzz && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "./tests/fuzz/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="crash-${target#fuzz_}-" "../$corpus" "../tests/fuzz/corpus/${target#fuzz_}" >/dev/null)
done
echo "== fuzzing found nothing"
