#!/usr/bin/env bash
# Runs the bundled examples in scratch copies: the forward example, whose
# transfer resistances with 3 % seeded noise become the data of the inverse
# example on the same grid; then says how the inversion ended and where its
# model is.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
q5="$(cd "$(dirname "${1:-$top/build/q5}")" && pwd)/$(basename "${1:-q5}")"
forward="$top/scratch/example-forward"
inverse="$top/scratch/example-inverse"
rm -rf "$forward" "$inverse"
mkdir -p "$forward" "$inverse"
cp "$top"/examples/forward/* "$forward"/
echo "Running the forward example in $forward"
(cd "$forward" && "$q5")
python3 "$top/scripts/noisy_data.py" "$forward/Q5_forward.dat" "$inverse/protocol.dat" 0.03
cp "$top"/examples/inverse/Q5.in "$inverse"/
echo
echo "Running the inverse example in $inverse"
(cd "$inverse" && "$q5")
echo
iterations=$(grep -c '^   Iteration ' "$inverse/Q5.out" || true)
rms=$(grep '^     Final RMS Misfit:' "$inverse/Q5.out" | tail -n 1 | awk '{print $4}')
ending=$(grep -E 'Outputing results to file|Solution not converged' "$inverse/Q5.out" | tail -n 1 | sed 's/^ *//')
echo "Inversion: $ending"
echo "  iterations: $iterations, final RMS misfit: $rms"
echo "  model for ParaView: $inverse/f001_res.vtk"
