#!/usr/bin/env bash
# Runs every fuzz target of the readers.
#   run.sh long BUILD SECONDS   fuzzes each target for SECONDS on its corpus
#                               in fuzz/corpus/<target>/, keeps what is new and
#                               minimises the corpus again (-merge=1 on edge
#                               coverage), keeping the regression-* inputs
#   run.sh short BUILD SECONDS  fuzzes each target for SECONDS on a scratch copy
#                               of its corpus (the tree stays clean); fails on
#                               the first crash, leak, timeout or memory excess
# Findings are written to scratch/fuzz-artifacts/<target>-crash-..., and so on.
set -euo pipefail
mode=$1
build=$(cd "$2" && pwd)
seconds=$3
top="$(cd "$(dirname "$0")/.." && pwd)"
targets=(textio control mesh start_model protocol)
artifacts="$top/scratch/fuzz-artifacts"
mkdir -p "$artifacts"
# The memory limit of the process and the time one input may take; inputs
# longer than the largest seed (fuzz/seeds.py) teach the fuzzer nothing new
# about the readers and only slow it down.
flags=(-rss_limit_mb=2048 -timeout=20 -max_len=4096 -print_final_stats=1)

# The lines of a libFuzzer log worth showing: start, end, totals, reports.
summary() {
  grep -E '^(#[0-9]+[[:space:]]+(INITED|DONE)|stat::number_of_executed_units|==[0-9]+==|SUMMARY|artifact_prefix|Test unit written)' "$1" || true
}

for t in "${targets[@]}"; do
  corpus="$top/fuzz/corpus/$t"
  mkdir -p "$corpus"
  echo "== $t: ${seconds} s"
  if [ "$mode" = short ]; then
    work="$top/scratch/fuzz-ci/$t"
    rm -rf "$work"
    mkdir -p "$work"
    cp "$corpus"/. "$work"/ -r
    status=0
    "$build/${t}_fuzz" "${flags[@]}" -max_total_time="$seconds" \
      -artifact_prefix="$artifacts/$t-" "$work" > "$artifacts/$t.log" 2>&1 || status=$?
    summary "$artifacts/$t.log"
    if [ "$status" -ne 0 ]; then
      echo "fuzz target $t failed (status $status); the input is in $artifacts" >&2
      exit 1
    fi
  else
    status=0
    "$build/${t}_fuzz" "${flags[@]}" -max_total_time="$seconds" \
      -artifact_prefix="$artifacts/$t-" "$corpus" > "$artifacts/$t.log" 2>&1 || status=$?
    summary "$artifacts/$t.log"
    # Minimise: the inputs that keep the edges covered (hit counts left out,
    # which keeps the committed corpus small), and every regression input.
    merged="$top/scratch/fuzz-merge/$t"
    rm -rf "$merged"
    mkdir -p "$merged"
    "$build/${t}_fuzz" "${flags[@]}" -merge=1 -use_counters=0 "$merged" "$corpus" > "$artifacts/$t-merge.log" 2>&1
    cp "$corpus"/regression-* "$merged"/ 2>/dev/null || true
    rm -rf "$corpus"
    mv "$merged" "$corpus"
    echo "   corpus: $(ls "$corpus" | wc -l) inputs, $(cat "$corpus"/* | wc -c) bytes"
    if [ "$status" -ne 0 ]; then
      echo "fuzz target $t failed (status $status); the input is in $artifacts" >&2
      exit 1
    fi
  fi
done
