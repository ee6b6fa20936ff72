#!/usr/bin/env bash
# Builds the benchmark (Release) and runs it: the tables on standard output, the JSON in
# bench/results.json. `bash bench/run.sh --smoke` runs the smallest case only.
# Unless told otherwise (--smoke, --no-peer, --peer PATH), the peer program PoissonRecon is built first
# into build-peers/ when it is not there yet; when that fails, the benchmark runs without it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
want_peer=1
for arg in "$@"; do
  case "$arg" in
    --smoke | --no-peer | --peer) want_peer=0 ;;
  esac
done
peer=build-peers/PoissonRecon-18.75/Bin/Linux/PoissonRecon
if ((want_peer)) && [ ! -x "$peer" ]; then
  # The peer's build needs the JPEG and zlib headers besides what deps.sh installs.
  missing=()
  for p in libjpeg-dev zlib1g-dev; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  if ((${#missing[@]})); then
    sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo=sudo; fi
    { $sudo apt-get update && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends \
      "${missing[@]}"; } || echo "warning: could not install ${missing[*]}" >&2
  fi
  echo "building the peer PoissonRecon into build-peers/ (5 to 10 minutes) ..." >&2
  bash ../shared/peers/build-poissonrecon.sh build-peers >/dev/null \
    || echo "warning: the peer PoissonRecon did not build; the benchmark runs without it" >&2
fi
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTESSALINE_BUILD_BENCH=ON -DTESSALINE_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target tessaline_bench
# The JSON goes to bench/results.json unless the arguments name another file (--out).
./build-bench/bench/tessaline_bench --out bench/results.json "$@"
