#!/usr/bin/env bash
# Checks an installed tree and the Debian package: the commands are there,
# q5-invert finds q5 and the tools beside itself and draws a forward job, and
# the package holds the files and declares its dependencies.
# Usage: check-install.sh PREFIX BUILD_DIR
set -euo pipefail
prefix="$1"
build="$(cd "$2" && pwd)"
top="$(cd "$(dirname "$0")/.." && pwd)"
fail() { echo "check-install: $*" >&2; exit 1; }

for cmd in q5 q5-import q5-plot q5-invert q5-batch; do
  [ -x "$prefix/bin/$cmd" ] || fail "$prefix/bin/$cmd is missing"
done
[ -f "$prefix/share/q5/python/q5tools/plotting.py" ] || fail "the tools' package is missing"
"$prefix/bin/q5-import" --help | grep -q -- "--reference" || fail "q5-import --help"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"
# The slag-dump survey when the field data stand beside the repository;
# otherwise a small flat Wenner line in the same unified format.
field="$top/../shared/fielddata/slagdump/slagdump.ohm"
if [ ! -f "$field" ]; then
  field="$work/wenner.ohm"
  {
    echo "12# Number of sensors"; echo "#x z"
    for k in $(seq 0 11); do echo "$((2 * k)) 0"; done
    echo "18# Number of data"; echo "#a b m n R"
    for a in 1 2 3; do for k in $(seq 1 $((12 - 3 * a))); do
      echo "$k $((k + 3 * a)) $((k + a)) $((k + 2 * a)) $(awk -v a=$a 'BEGIN { printf "%.4f", 30 / (6.2832 * 2 * a) }')"
    done; done
  } > "$field"
fi
env -u PYTHONPATH PATH=/usr/bin:/bin "$prefix/bin/q5-invert" "$field" -o run --forward > invert.log \
  || { cat invert.log; fail "installed q5-invert failed"; }
[ -s run/forward_model.png ] && [ -s run/forward_data.png ] || fail "installed q5-invert drew no pictures"
grep -q "run/forward_model.png" invert.log || fail "q5-invert did not say where the pictures are"
# q5-batch starts from the prefix and reads the run: a forward job is refused in one line
if env -u PYTHONPATH PATH=/usr/bin:/bin "$prefix/bin/q5-batch" run > batch.log 2>&1; then
  fail "installed q5-batch took a forward job"
fi
grep -q "^q5-batch: .*/run/Q5.in line 2: job_type 0 is a forward job" batch.log \
  || { cat batch.log; fail "installed q5-batch"; }

deb="$(ls -t "$build"/q5_*_amd64.deb | head -1)"
[ -n "$deb" ] || fail "no package in $build"
depends="$(dpkg-deb -f "$deb" Depends)"
for p in libmkl-core libmkl-sequential python3-numpy python3-matplotlib python3-meshio triangle-bin parallel; do
  echo "$depends" | grep -q "$p" || fail "$deb does not depend on $p"
done
contents="$(dpkg-deb -c "$deb")"
for f in ./usr/bin/q5 ./usr/bin/q5-import ./usr/bin/q5-plot ./usr/bin/q5-invert ./usr/bin/q5-batch \
         ./usr/share/q5/python/q5tools/importer.py ./usr/share/q5/python/q5tools/batch.py; do
  echo "$contents" | grep -q " $f\$" || fail "$deb lacks $f"
done
echo "install and package: ok ($prefix, $(basename "$deb"))"
