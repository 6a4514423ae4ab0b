#!/usr/bin/env bash
# The Mulda hillslope line's 24 weekly surveys as one difference run of 24
# blocks (each survey against the first), inverted once by one q5 run and
# once by q5-batch -j 2; both timed, every fKKK file compared byte for byte,
# the 24 change sections drawn on one sheet.
# Usage, from anywhere, with q5 built: Q5=/path/to/q5 bash run.sh [WORK_DIR]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
top="$(cd "$here/../../.." && pwd)"
q5="$(realpath "${Q5:-$top/build/q5}")"
data="$top/../shared/fielddata/mulda-hillslope"
work="${1:-$top/scratch/mulda-batch}"
tools="$top/python/bin"
rm -rf "$work"
mkdir -p "$work"

# the first survey alone, every element written: the start model
"$tools/q5-import" "$data/data/MuldaA-2008-05-09.data" -o "$work/reference" --no-polyline
(cd "$work/reference" && "$q5" > console.txt)
# 24 blocks: every survey (the first included) against the first
"$tools/q5-import" --reference "$data/data/MuldaA-2008-05-09.data" \
  --start "$work/reference/f001_res.dat" "$data"/data/MuldaA-2008-*.data -o "$work/run"
cp -r "$work/run" "$work/sequential"

t0=$(date +%s.%N)
(cd "$work/sequential" && "$q5" > console.txt)
t1=$(date +%s.%N)
"$tools/q5-batch" "$work/run" -j 2 --q5 "$q5"
t2=$(date +%s.%N)

same=0
for f in "$work"/sequential/f*; do
  name="$(basename "$f")"
  case "$name" in fort.*) continue ;; esac
  cmp "$f" "$work/run/$name" || { echo "differs: $name"; exit 1; }
  same=$((same + 1))
done
theirs=$(cd "$work/run" && ls f* | grep -v '^fort\.' | wc -l)
[ "$theirs" -eq "$same" ] || { echo "the batch has $theirs fKKK files, the sequential run $same"; exit 1; }
/usr/bin/python3 -c "import sys; a, b, c = map(float, sys.argv[1:]);
print(f'sequential q5: {b - a:.1f} s; q5-batch -j 2: {c - b:.1f} s; speed-up {(b - a) / (c - b):.2f}')" "$t0" "$t1" "$t2"
echo "$same fKKK files byte-identical"

/usr/bin/python3 "$here/difference_sheet.py" "$work/run" "$here/differences.png" --dates "$data/MuldaA.times"
cp "$work/run/batch/summary.csv" "$here/summary.csv"
