#!/usr/bin/env bash
# Runs every libFuzzer target (or the ones named) for SECONDS each, FUZZ_JOBS at a time (default
# 2), at the lowest CPU priority, each on its own corpus fuzz/corpus/<target> so that new
# interesting inputs are kept. Prints one summary line per target; full logs and any crash,
# leak or timeout input go to FUZZ_LOGS (default build-fuzz/fuzz-logs).
#
#   scripts/fuzz-campaign.sh 600                      # all targets, 10 minutes each
#   scripts/fuzz-campaign.sh 60 fuzz_delta_listing    # one target
#
# Build the tree first (fuzz/CMakeLists.txt). Targets that write files (zip extraction, download
# decoding) run with TMPDIR on /dev/shm when it exists. Minimise a corpus afterwards with
# scripts/fuzz-campaign.sh --merge <target>...
set -euo pipefail
cd "$(dirname "$0")/.."

build=${FUZZ_BUILD:-build-fuzz}
logs=${FUZZ_LOGS:-$build/fuzz-logs}
jobs=${FUZZ_JOBS:-2}

# target, its area directory, and -max_len suited to its input.
targets=(
  "fuzz_keyed_archive archive 65536"
  "fuzz_payload_decode archive 65536"
  "fuzz_payload_json archive 65536"
  "fuzz_zlib_inflate codecs 65536"
  "fuzz_gzip_inflate codecs 65536"
  "fuzz_base64_decode codecs 16384"
  "fuzz_dbx_response dbx 65536"
  "fuzz_emulator_request emulator 65536"
  "fuzz_zip_extract snapshot 65536"
  "fuzz_tar_extract text 65536"
  "fuzz_percent_decode text 4096"
  "fuzz_delta_listing dropbox 65536"
  "fuzz_download_decode dropbox 65536"
  "fuzz_delete_batch_status dropbox 16384"
)

lookup() {
  local entry
  for entry in "${targets[@]}"; do
    if [[ ${entry%% *} == "$1" ]]; then
      echo "$entry"
      return 0
    fi
  done
  echo "unknown fuzz target: $1" >&2
  return 1
}

# The gzip tool leaves its streams open when a restore fails, as it always has; LeakSanitizer is
# told so (cmake/lsan.supp names only those two functions), so any other leak is still a finding.
export LSAN_OPTIONS="suppressions=$PWD/cmake/lsan.supp:print_suppressions=0${LSAN_OPTIONS:+:$LSAN_OPTIONS}"

# The target that restores through the gzip tool needs the slow unwinder (zlib and libc have no
# frame pointers, so the fast one never reaches the suppressed frames); it costs most of the
# speed, so only that target pays it.
lsan_options_for() {
  if [[ $1 == fuzz_download_decode ]]; then
    echo "$LSAN_OPTIONS:fast_unwind_on_malloc=0"
  else
    echo "$LSAN_OPTIONS"
  fi
}

scratch_tmp() {
  if [[ -d /dev/shm && -w /dev/shm ]]; then echo /dev/shm; else echo "${TMPDIR:-/tmp}"; fi
}

# Replaces the inputs the fuzzer found (named by their SHA-1) by a small subset that keeps every
# edge the corpus covers. Named files (hand-made seeds, inputs that once crashed) always stay.
merge_one() {
  local name area max_len
  read -r name area max_len <<<"$(lookup "$1")"
  local corpus=fuzz/corpus/$name fresh file
  fresh=$(mktemp -d "${TMPDIR:-/tmp}/$name-merged.XXXXXX")
  # Edges only (no hit-count buckets): every covered edge stays, at a fraction of the inputs.
  LSAN_OPTIONS=$(lsan_options_for "$name") TMPDIR=$(scratch_tmp) nice -n 19 \
    "$build/fuzz/$area/$name" -merge=1 -use_counters=0 \
    -max_len="$max_len" "$fresh" "$corpus" >"$logs/$name.merge.log" 2>&1
  find "$corpus" -type f -regextype posix-extended -regex '.*/[0-9a-f]{40}' -delete
  # What the merge kept of the named files is already there under their own names.
  for file in "$corpus"/*; do
    [[ -f $file ]] && rm -f "$fresh/$(sha1sum "$file" | cut -d' ' -f1)"
  done
  cp "$fresh"/* "$corpus"/ 2>/dev/null || true
  rm -rf "$fresh"
  echo "$name: $(find "$corpus" -type f | wc -l) files, $(du -sb "$corpus" | cut -f1) bytes"
}

run_one() {
  local name area max_len seconds=$2
  read -r name area max_len <<<"$(lookup "$1")"
  local binary=$build/fuzz/$area/$name log=$logs/$name.log
  mkdir -p "fuzz/corpus/$name" "$logs/$name.artifacts"
  local status=0
  LSAN_OPTIONS=$(lsan_options_for "$name") TMPDIR=$(scratch_tmp) nice -n 19 "$binary" \
    -max_total_time="$seconds" -max_len="$max_len" \
    -timeout=25 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$logs/$name.artifacts/" "fuzz/corpus/$name" >"$log" 2>&1 || status=$?
  summarize "$name" "$status"
}

summarize() {
  local name=$1 status=$2 log=$logs/$1.log
  local runs rate secs stats cov ft found files bytes result
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  secs=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log" | tail -1)
  stats=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$stats")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$stats")
  files=$(find "fuzz/corpus/$name" -type f | wc -l)
  bytes=$(du -sb "fuzz/corpus/$name" | cut -f1)
  found=$(find "$logs/$name.artifacts" -type f | head -1)
  if [[ -n $found ]]; then
    result="FOUND $found"
  elif [[ $status -ne 0 ]]; then
    result="exit $status"
  else
    result=ok
  fi
  printf '%-26s runs=%s exec/s=%s secs=%s cov=%s ft=%s corpus=%s files/%s bytes %s\n' \
    "$name" "${runs:-?}" "${rate:-?}" "${secs:-?}" "${cov:-?}" "${ft:-?}" "$files" "$bytes" \
    "$result" | tee "$logs/$name.summary"
}

mkdir -p "$logs"
if [[ ${1:-} == --merge ]]; then
  shift
  names=("$@")
  if [[ ${#names[@]} -eq 0 ]]; then for entry in "${targets[@]}"; do names+=("${entry%% *}"); done; fi
  for name in "${names[@]}"; do merge_one "$name"; done
  exit 0
fi

seconds=${1:?usage: fuzz-campaign.sh SECONDS [target...] | --merge [target...]}
shift
names=("$@")
if [[ ${#names[@]} -eq 0 ]]; then for entry in "${targets[@]}"; do names+=("${entry%% *}"); done; fi
for name in "${names[@]}"; do lookup "$name" >/dev/null; done

export build logs
export -f lookup scratch_tmp lsan_options_for run_one summarize
export targets_list
targets_list=$(printf '%s\n' "${targets[@]}")
# Arrays do not cross into the workers: each rebuilds the table from targets_list.
printf '%s\n' "${names[@]}" |
  xargs -P "$jobs" -I{} bash -c 'mapfile -t targets <<<"$targets_list"; run_one "$1" "$2"' _ {} \
    "$seconds" >/dev/null
echo "== summary ($seconds s per target, logs in $logs)"
for name in "${names[@]}"; do cat "$logs/$name.summary"; done
