#!/usr/bin/env bash
# Uses the installed package as a host would: installs the build into a scratch prefix, builds
# examples/ against it with find_package, links a one-file program with pkg-config alone, and runs
# the example's sync against `wdc emulator` (the installed one) on loopback.
# Usage: scripts/check-package.sh [BUILD_DIR]   (default: build, already built)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
work=$(mktemp -d)
emulator_pid=""
cleanup() {
  if [ -n "$emulator_pid" ]; then
    kill -TERM "$emulator_pid" 2>/dev/null || true
    wait "$emulator_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "check-package: $*" >&2; exit 1; }
step() { echo "check-package: $*"; }

prefix=$work/prefix
step "installing into a scratch prefix"
cmake --install "$build" --prefix "$prefix" > "$work/install.log" || fail "install failed: $(tail -5 "$work/install.log")"
for f in bin/wdc include/webdavconnect/webdav_connect.h include/webdavconnect/dropbox_client_config.h; do
  [ -e "$prefix/$f" ] || fail "$f was not installed"
done
if find "$prefix" -name '*emulator*' -o -name 'test_util*' | grep -q .; then
  fail "test or emulator pieces were installed: $(find "$prefix" -name '*emulator*' -o -name 'test_util*')"
fi

launcher=()
if command -v ccache > /dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
step "building examples/ with find_package(webdavconnect CONFIG)"
cmake -S examples -B "$work/example" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" \
      "${launcher[@]}" > "$work/example-configure.log" 2>&1 ||
  fail "examples/ does not configure: $(tail -20 "$work/example-configure.log")"
cmake --build "$work/example" -j2 > "$work/example-build.log" 2>&1 ||
  fail "examples/ does not build: $(tail -20 "$work/example-build.log")"

step "linking a one-file host with pkg-config --static"
pc=$(find "$prefix" -name webdavconnect.pc)
[ -n "$pc" ] || fail "webdavconnect.pc was not installed"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc")
[ "$(pkg-config --modversion webdavconnect)" = "$(sed -n 's/^project(webdavconnect VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)" ] ||
  fail "webdavconnect.pc has the wrong version: $(pkg-config --modversion webdavconnect)"
cat > "$work/pc_host.cpp" <<'CPP'
#include <webdavconnect/webdav_connect.h>
int main() {
  auto connection = wdc::WebDAVConnect::initWithConnectionType(wdc::kConnectionTypeDropbox, {}, {});
  // Links the Dropbox path and its dependencies, not only the constructor.
  return wdc::WebDAVConnect::getResolvedDropboxFolderPath("a/") == "/a" ? 0 : 1;
}
CPP
# shellcheck disable=SC2046  # pkg-config prints several words on purpose
g++ -std=c++20 "$work/pc_host.cpp" -o "$work/pc_host" $(pkg-config --cflags --libs --static webdavconnect) \
    2> "$work/pc_host.log" || fail "pkg-config link failed: $(tail -20 "$work/pc_host.log")"
"$work/pc_host" || fail "the pkg-config host exited $?"

step "running the example against the installed wdc emulator"
token="check-package-$$"
# Created here: the background job opens its redirections only once it runs.
: > "$work/emulator.out"
: > "$work/emulator.err"
"$prefix/bin/wdc" emulator --port 0 --tls --cert-out "$work/emulator.pem" --token "$token" \
    > "$work/emulator.out" 2> "$work/emulator.err" &
emulator_pid=$!
url=""
for _ in $(seq 100); do
  url=$(sed -n 's/^listening on //p' "$work/emulator.out")
  [ -n "$url" ] && [ -s "$work/emulator.pem" ] && break
  kill -0 "$emulator_pid" 2>/dev/null || fail "wdc emulator exited: $(cat "$work/emulator.err")"
  sleep 0.1
done
[ -n "$url" ] || fail "wdc emulator did not start within 10 s"
timeout 60 "$work/example/host_sync" "$url" "$work/emulator.pem" "$token" > "$work/sync.out" 2>&1 ||
  fail "host_sync exited $?: $(tail -20 "$work/sync.out")"
expect() {  # args: output file, line patterns...
  local out=$1; shift
  for line in "$@"; do
    grep -q "$line" "$out" || fail "host_sync printed no '$line': $(cat "$out")"
  done
}
expect "$work/sync.out" '^account: ' '^locked: ' '^listed: 0 records$' '^uploaded: 3 records$' \
       '^deleted: ' '^unlocked$' '^sync done$'
sed 's/^/  /' "$work/sync.out"
# A second sync finds no lock (the first let go of it) and downloads what the first left: its two
# records, not the deleted draft.
timeout 60 "$work/example/host_sync" "$url" "$work/emulator.pem" "$token" > "$work/sync2.out" 2>&1 ||
  fail "second host_sync exited $?: $(tail -20 "$work/sync2.out")"
expect "$work/sync2.out" '^downloaded: Buy milk$' '^downloaded: Call the bank$' '^listed: 2 records$' \
       '^sync done$'
! grep -q '^downloaded: Draft' "$work/sync2.out" || fail "the deleted draft came back: $(cat "$work/sync2.out")"
echo "  second sync:"
sed 's/^/    /' "$work/sync2.out"
# A wrong token is refused, and the example says so in one line.
if timeout 60 "$work/example/host_sync" "$url" "$work/emulator.pem" wrong-token > "$work/bad.out" 2>&1; then
  fail "host_sync succeeded with a wrong token"
fi
grep -q "account name failed" "$work/bad.out" || fail "host_sync with a wrong token said: $(cat "$work/bad.out")"
step "ok"
