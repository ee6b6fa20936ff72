#!/usr/bin/env bash
# Applies the committed .clang-format to every C++ and CUDA source; with --check it changes nothing and
# fails when a file is not formatted. Installs clang-format (Debian) when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v clang-format >/dev/null 2>&1; then
  sudo=""; if [ "$(id -u)" -ne 0 ]; then sudo=sudo; fi
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends clang-format
fi
mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.cu' '*.inc')
if [ "${1:-}" = "--check" ]; then
  clang-format --dry-run --Werror "${files[@]}"
  echo "formatting: ${#files[@]} files as .clang-format wants them"
else
  clang-format -i "${files[@]}"
fi
