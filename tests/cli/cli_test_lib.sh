# Shared by the wdc end-to-end tests: an emulator started from the binary itself (on loopback, a
# free port, TLS), the global options pointing at it, and checks that name what failed.
# Usage: source cli_test_lib.sh WDC SCRATCH_DIR
set -u
wdc=$1 scratch=$2
rm -rf "$scratch"
mkdir -p "$scratch"
fail() { echo "FAIL: $*"; exit 1; }

emulator_pid=""
stop_emulator() { [ -n "$emulator_pid" ] && kill "$emulator_pid" 2>/dev/null; wait 2>/dev/null; }
trap stop_emulator EXIT

# start_emulator [emulator options...]: sets $url and $global.
start_emulator() {
  "$wdc" emulator --tls --cert-out "$scratch/ca.pem" --port 0 "$@" > "$scratch/emulator.out" 2>&1 &
  emulator_pid=$!
  for _ in $(seq 100); do
    url=$(sed -n 's/^listening on //p' "$scratch/emulator.out")
    [ -n "$url" ] && break
    sleep 0.1
  done
  [ -n "$url" ] || fail "the emulator did not start: $(cat "$scratch/emulator.out")"
  global=(--api "$url" --content "$url" --ca-file "$scratch/ca.pem")
}

# expect_failure DESCRIPTION MAX_SECONDS command...: non-zero exit, exactly one line on standard
# error, within MAX_SECONDS.
expect_failure() {
  local what=$1 limit=$2; shift 2
  local started=$SECONDS
  timeout "$((limit + 5))" "$@" > /dev/null 2> "$scratch/err" < /dev/null
  local rc=$?
  [ $rc -ne 0 ] || fail "$what: exit 0"
  [ $rc -ne 124 ] || fail "$what: still running after $((limit + 5)) s"
  [ $((SECONDS - started)) -le "$limit" ] || fail "$what: took $((SECONDS - started)) s"
  [ "$(wc -l < "$scratch/err")" -eq 1 ] || fail "$what: standard error is not one line: $(cat "$scratch/err")"
}
