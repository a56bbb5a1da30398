#!/bin/bash
# wdc against the emulator through the binary: linking stores a token later commands use; a lock
# taken by one process is seen by another; bad arguments, an unreachable store and a wrong token
# each end in one line on standard error and a non-zero exit within seconds.
# Usage: wdc_store_cli_test.sh WDC SCRATCH_DIR
source "$(dirname "$0")/cli_test_lib.sh"
start_emulator --token T --app-key testkey
store=(--token-store "$scratch/tokens.json")

# Linking: read the authorize address, open it as the user would, paste the code back.
mkfifo "$scratch/code"
"$wdc" "${global[@]}" "${store[@]}" --log-level debug link --app-key testkey < "$scratch/code" \
  > "$scratch/link.out" 2> "$scratch/link.err" &
link_pid=$!
exec 3> "$scratch/code"  # held open until the code is written
for _ in $(seq 100); do
  address=$(grep -o 'https://[^ ]*oauth2/authorize[^ ]*' "$scratch/link.out")
  [ -n "$address" ] && break
  sleep 0.1
done
[ -n "$address" ] || fail "link printed no authorize address"
code=$(curl -s --cacert "$scratch/ca.pem" "$address") || fail "authorize page: curl exited $?"
echo "$code" >&3
exec 3>&-
wait "$link_pid" || fail "link exited $?"
link_output=$(cat "$scratch/link.out")
[[ $link_output == *Linked* ]] || fail "link said: $link_output"
[ "$(stat -c %a "$scratch/tokens.json")" = 600 ] || fail "token store mode $(stat -c %a "$scratch/tokens.json")"
grep -q '"app_key": "testkey"' "$scratch/tokens.json" || fail "the app key was not kept"
[ "$("$wdc" "${global[@]}" "${store[@]}" account)" = "Emu Lator" ] || fail "account with the linked token"
# The tokens it stored are printed nowhere, not even at debug level.
for secret in $(python3 -c 'import json, sys; t = json.load(open(sys.argv[1]))["oauth2"]
print(t["access_token"], t["refresh_token"])' "$scratch/tokens.json"); do
  [ ${#secret} -ge 8 ] || fail "implausible token in the store: $secret"
  ! grep -qF -- "$secret" "$scratch/link.out" "$scratch/link.err" || fail "link printed a token"
done

# A lock taken by one process is what another one sees.
lock_name=$("$wdc" "${global[@]}" "${store[@]}" lock device-A) || fail "lock exited $?"
[[ $lock_name == device-A_* ]] || fail "lock name $lock_name"
status=$("$wdc" "${global[@]}" --token T --json lock --status) || fail "lock --status exited $?"
python3 - "$status" "$lock_name" <<'PY' || fail "lock --status: $status"
import json, sys
s = json.loads(sys.argv[1])
assert s["locked"] and s["owner"] == "device-A" and s["lockName"] == sys.argv[2], s
assert 0 <= s["ageSeconds"] < 60, s
PY
"$wdc" "${global[@]}" --token T unlock "$lock_name" > /dev/null || fail "unlock exited $?"
[ "$("$wdc" "${global[@]}" --token T lock --status)" = "not locked" ] || fail "still locked"
expect_failure "unlock twice" 10 "$wdc" "${global[@]}" --token T unlock "$lock_name"

# Unlinking forgets the account.
"$wdc" "${global[@]}" "${store[@]}" unlink > /dev/null || fail "unlink exited $?"
expect_failure "account after unlink" 5 "$wdc" "${global[@]}" "${store[@]}" account
grep -q "no account is linked" "$scratch/err" || fail "after unlink: $(cat "$scratch/err")"

# Bad input and a bad store.
expect_failure "unknown command" 5 "$wdc" no-such-command
expect_failure "lock without owner or --status" 5 "$wdc" "${global[@]}" --token T lock
expect_failure "bad log level" 5 "$wdc" "${global[@]}" --token T --log-level loud account
expect_failure "wrong token" 10 "$wdc" "${global[@]}" --token not-T account
# A refused token is not echoed back, whatever the log level.
secret=refused-Secret-Token-4711
timeout 15 "$wdc" "${global[@]}" --token "$secret" --log-level debug account \
  > "$scratch/refused.out" 2> "$scratch/refused.err" < /dev/null && fail "a wrong token was accepted"
[ -s "$scratch/refused.err" ] || fail "a refused token gave no message"
! grep -qF -- "$secret" "$scratch/refused.out" "$scratch/refused.err" \
  || fail "the refused token was printed: $(cat "$scratch/refused.err")"
expect_failure "link without a code" 10 "$wdc" "${global[@]}" "${store[@]}" link --app-key testkey
expect_failure "unreachable store" 20 "$wdc" --api https://127.0.0.1:9 --content https://127.0.0.1:9 \
  --token T account
grep -q -- "-1004" "$scratch/err" || fail "unreachable: $(cat "$scratch/err")"
# Without the emulator's certificate the store is not trusted: there is no switch to skip the check.
expect_failure "untrusted certificate" 10 "$wdc" --api "$url" --content "$url" --token T account
grep -q -- "-1202" "$scratch/err" || fail "untrusted: $(cat "$scratch/err")"
echo "PASS"
