#!/usr/bin/env bash
# README command 1: set up, build everything, run the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
./build/tools/wdc/wdc --version
./build/tools/wdc/wdc selfcheck
