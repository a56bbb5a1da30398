#!/bin/bash
# Records through the wdc binary against the emulator: put then pull gives back the same records
# (and what pull writes, put takes back unchanged); delta lists them with a cursor; delta --watch
# prints a change made after it started; get prints one record; rm removes them; demo runs a
# whole sync and verifies what it downloaded.
# Usage: wdc_records_cli_test.sh WDC SCRATCH_DIR
source "$(dirname "$0")/cli_test_lib.sh"
start_emulator --token T
global+=(--token T)

mkdir -p "$scratch/in"
for i in 1 2 3; do
  cat > "$scratch/in/r$i.json" <<JSON
{"meta": {"OpType": "u", "ContainerUID": "List1", "ParentUID": "P$i", "UID": "Task$i", "Extension": "tod"},
 "data": {"Title": "task $i", "Done": $([ $i = 2 ] && echo true || echo false), "Order": $i,
          "Due": {"\$date": "2026-11-2${i}T10:00:00Z"}, "Tags": ["home", "n$i"],
          "Blob": {"\$data": "AAEC/w=="}, "Sub": {"Ratio": 0.5, "None": null}}}
JSON
done
"$wdc" "${global[@]}" put tod "$scratch"/in/*.json > "$scratch/put.out" || fail "put exited $?"
[ "$(grep -c '^uploaded ' "$scratch/put.out")" = 3 ] || fail "put: $(cat "$scratch/put.out")"

"$wdc" "${global[@]}" pull tod --out "$scratch/pulled" > /dev/null || fail "pull exited $?"
[ "$(ls "$scratch/pulled" | wc -l)" = 3 ] || fail "pull wrote $(ls "$scratch/pulled")"
python3 - "$scratch/in" "$scratch/pulled" <<'PY' || fail "pulled records differ from what was put"
import json, os, sys
src, out = sys.argv[1:3]
pulled = {}
for name in os.listdir(out):
    record = json.load(open(os.path.join(out, name)))
    assert name == record["meta"]["FilePath"] + ".json", name
    pulled[record["meta"]["UID"]] = record
for name in sorted(os.listdir(src)):
    given = json.load(open(os.path.join(src, name)))
    got = pulled[given["meta"]["UID"].lower()]
    for key in ("OpType", "ContainerUID", "ParentUID"):
        assert got["meta"][key] == given["meta"][key].lower(), (key, got["meta"])
    assert got["meta"]["FileRev"] and got["meta"]["DeletedFromDropbox"] is False, got["meta"]
    # A date typed as text comes back with its instant spelled out too.
    assert got["data"]["Due"]["$date"].startswith(given["data"]["Due"]["$date"][:19]), got["data"]
    given["data"]["Due"] = got["data"]["Due"]
    assert got["data"] == given["data"], (got["data"], given["data"])
PY

# What pull wrote goes back unchanged, and comes back equal again.
"$wdc" "${global[@]}" put col "$scratch"/pulled/*.json > /dev/null || fail "put of pulled files exited $?"
"$wdc" "${global[@]}" pull col --out "$scratch/again" > /dev/null || fail "second pull exited $?"
python3 - "$scratch/pulled" "$scratch/again" <<'PY' || fail "a second round trip changed records"
import json, os, sys
a, b = sys.argv[1:3]
first = {json.load(open(os.path.join(a, n)))["meta"]["UID"]: json.load(open(os.path.join(a, n))) for n in os.listdir(a)}
for n in os.listdir(b):
    record = json.load(open(os.path.join(b, n)))
    assert record["data"] == first[record["meta"]["UID"]]["data"], n
assert len(os.listdir(b)) == len(first)
PY

name=$(cd "$scratch/pulled" && ls | head -1)
"$wdc" "${global[@]}" get tod "${name%.json}" > "$scratch/get.json" || fail "get exited $?"
python3 -c 'import json,sys; r=json.load(open(sys.argv[1])); assert r["data"]["Title"].startswith("task")' \
  "$scratch/get.json" || fail "get printed $(cat "$scratch/get.json")"
expect_failure "get of a missing record" 15 "$wdc" "${global[@]}" get tod o_u_k_x_p_x_i_missing_d_.tod

"$wdc" "${global[@]}" --json delta tod > "$scratch/delta.json" || fail "delta exited $?"
cursor=$(python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); assert len(d["records"]) == 3, d; print(d["cursor"])' \
  "$scratch/delta.json") || fail "delta printed $(cat "$scratch/delta.json")"

# --watch sees a record put after it started.
timeout 60 "$wdc" "${global[@]}" delta tod --cursor "$cursor" --watch --rounds 1 > "$scratch/watch.out" &
watch_pid=$!
sleep 1
sed 's/Task1/Task9/' "$scratch/in/r1.json" > "$scratch/r9.json"
"$wdc" "${global[@]}" put tod "$scratch/r9.json" > /dev/null || fail "put during watch exited $?"
wait "$watch_pid" || fail "delta --watch exited $?"
grep -q 'i_task9_d_.tod' "$scratch/watch.out" || fail "watch printed: $(cat "$scratch/watch.out")"

"$wdc" "${global[@]}" rm tod $(cd "$scratch/pulled" && ls | sed 's/\.json$//') > /dev/null || fail "rm exited $?"
"$wdc" "${global[@]}" --json delta tod > "$scratch/after.json" || fail "delta after rm exited $?"
python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); live=[r for r in d["records"] if not r["DeletedFromDropbox"]]; assert [r["UID"] for r in live] == ["task9"], live' \
  "$scratch/after.json" || fail "after rm: $(cat "$scratch/after.json")"

expect_failure "put of a file that is not a record" 5 "$wdc" "${global[@]}" put tod "$scratch/get.json.missing"
echo '{"meta": {"OpType": "u"}, "data": {}}' > "$scratch/bad.json"
expect_failure "put of a record without identifiers" 5 "$wdc" "${global[@]}" put tod "$scratch/bad.json"

"$wdc" --json demo --records 60 > "$scratch/demo.json" || fail "demo exited $?"
python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); s={x["step"]: x for x in d["steps"]}; assert s["download records"]["detail"].startswith("60 verified"), s' \
  "$scratch/demo.json" || fail "demo printed $(cat "$scratch/demo.json")"
echo "PASS"
