#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and fuzzers need, only when missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  zlib1g-dev libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libarchive-dev libplist-dev
  nettle-dev libicu-dev libcld2-dev libspdlog-dev libfmt-dev libcli11-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-dropbox gzip tar openssl
)
# clang builds the libFuzzer targets; it is optional for the normal build.
optional=(clang-14 libclang-rt-14-dev)

missing=()
for p in "${packages[@]}" "${optional[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${packages[@]}" >/dev/null
# Optional packages may be missing from a mirror; the build does not need them.
$SUDO apt-get install -y -qq --no-install-recommends "${optional[@]}" >/dev/null || \
  echo "note: clang-14 / libclang-rt-14-dev not installed; fuzzers will not build"
