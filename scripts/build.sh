#!/usr/bin/env bash
# Installs missing Debian packages, then configures and builds everything into ./build.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWDC_WERROR=ON "$@" >/dev/null
cmake --build build -j"$jobs"
