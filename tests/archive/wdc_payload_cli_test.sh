#!/bin/bash
# `wdc payload encode` then `decode` gives back the same JSON; input that is not a payload (or
# not payload JSON) exits 1 with one line on standard error.
# Usage: wdc_payload_cli_test.sh WDC SCRATCH_DIR SOURCE_DIR
set -u
wdc=$1 scratch=$2 source=$3
mkdir -p "$scratch"
fail() { echo "FAIL: $*"; exit 1; }

json="$source/fuzz/corpus/fuzz_payload_json/record.json"
"$wdc" payload encode "$json" "$scratch/record.tod" || fail "encode exited $?"
[ "$(head -c2 "$scratch/record.tod" | od -An -tx1 | tr -d ' ')" = "1f8b" ] || fail "not gzip"
"$wdc" payload decode "$scratch/record.tod" > "$scratch/decoded.json" || fail "decode exited $?"
python3 - "$json" "$scratch/decoded.json" <<'PY' || fail "decoded JSON differs"
import json, sys
a, b = (json.load(open(p)) for p in sys.argv[1:3])
a["Due"]["$date"] = b["Due"]["$date"]  # the input's text is ignored; $time is the value
assert json.dumps(a, sort_keys=True) == json.dumps(b, sort_keys=True), (a, b)
PY

# A date typed as ISO 8601 text alone is read as that instant.
echo '{"When": {"$date": "2023-03-08T21:26:40.5+01:00"}}' > "$scratch/typed.json"
"$wdc" payload encode "$scratch/typed.json" "$scratch/typed.tod" || fail "typed date: encode exited $?"
"$wdc" payload decode "$scratch/typed.tod" | grep -q '"\$time": 700000000.5' || fail "typed date: wrong instant"

check_refused() {  # args: description, command...
  local what=$1; shift
  "$@" > /dev/null 2> "$scratch/err"
  local rc=$?
  [ $rc -eq 1 ] || fail "$what: exit $rc"
  [ "$(wc -l < "$scratch/err")" -eq 1 ] || fail "$what: stderr is not one line: $(cat "$scratch/err")"
}
printf 'not a payload' > "$scratch/junk"
head -c 300 "$scratch/record.tod" > "$scratch/truncated"
echo '{"$bogus": 1}' > "$scratch/bad.json"
check_refused "junk bytes" "$wdc" payload decode "$scratch/junk"
check_refused "truncated gzip" "$wdc" payload decode "$scratch/truncated"
check_refused "missing file" "$wdc" payload decode "$scratch/does-not-exist"
check_refused "bad JSON form" "$wdc" payload encode "$scratch/bad.json" "$scratch/out"
echo '{"When": {"$date": "2023-02-30"}}' > "$scratch/bad-date.json"
check_refused "bad date" "$wdc" payload encode "$scratch/bad-date.json" "$scratch/out"
grep -q '2023-02-30' "$scratch/err" || fail "bad date: message does not name the value: $(cat "$scratch/err")"
echo "ok"
