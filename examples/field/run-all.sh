#!/usr/bin/env bash
# Remakes the four field runs of this folder (import, q5, pictures) with the
# commands of README.md. Needs q5 on PATH or Q5=/path/to/q5.
set -euo pipefail
cd "$(dirname "$0")"
tools=../../python/bin
q5=(--q5 "${Q5:-$(command -v q5)}")
data=../../../shared/fielddata
"$tools/q5-invert" "${q5[@]}" --force $data/slagdump/slagdump.ohm -o slagdump
"$tools/q5-invert" "${q5[@]}" --force $data/bedrock/bedrock.dat -o bedrock --borehole $data/bedrock/bedrock.txt
"$tools/q5-invert" "${q5[@]}" --force $data/xochimilco/Xoch1We.txt $data/xochimilco/Xoch2We.txt --spacing 5 -o xochimilco
"$tools/q5-invert" "${q5[@]}" --force --reference $data/mulda-hillslope/data/MuldaA-2008-05-09.data \
  $data/mulda-hillslope/data/MuldaA-2008-07-15.data $data/mulda-hillslope/data/MuldaA-2008-09-16.data \
  $data/mulda-hillslope/data/MuldaA-2008-12-02.data -o mulda-hillslope
