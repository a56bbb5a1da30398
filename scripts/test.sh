#!/usr/bin/env bash
# README command 2: set up, build everything, run the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
jobs=$(nproc 2>/dev/null || echo 2)
cd build
ctest --output-on-failure -j"$jobs" --timeout 600
bash ../scripts/check-package.sh
