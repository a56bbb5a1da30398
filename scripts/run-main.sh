#!/usr/bin/env bash
# README command 1: set up, build everything, run the main job: a whole sync as a host runs it,
# against the emulator started in-process on loopback (`wdc demo`).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
./build/tools/wdc/wdc --version
./build/tools/wdc/wdc demo "$@"
