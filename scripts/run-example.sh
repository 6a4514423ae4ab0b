#!/usr/bin/env bash
# Runs the bundled forward example in a scratch copy of examples/forward and
# says where its outputs are.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
q5="$(cd "$(dirname "${1:-$top/build/q5}")" && pwd)/$(basename "${1:-q5}")"
scratch="$top/scratch/example-forward"
rm -rf "$scratch"
mkdir -p "$scratch"
cp "$top"/examples/forward/* "$scratch"/
cd "$scratch"
echo "Running q5 in $scratch"
"$q5"
echo
echo "Outputs in $scratch:"
for f in Q5.out Q5_forward.dat forward_model.dat forward_model.vtk electrodes.dat electrodes.vtk; do
  [ -f "$f" ] && printf '  %-20s %s\n' "$f" "$(wc -l < "$f") lines"
done
