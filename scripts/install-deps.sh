#!/usr/bin/env bash
# Installs what Q5 needs to build and test on Debian 12: compiler, CMake,
# GoogleTest and Intel MKL (for PARDISO) from the non-free component, and the
# Python libraries of the companion tools (q5-import, q5-plot, q5-invert),
# and the engines of q5-batch: GNU parallel, Slurm and its munge
# authentication (the tests bring up a one-node cluster of their own), and
# Shewchuk's Triangle, the mesher of q5-import's triangle meshes (non-free);
# clang with libFuzzer's runtime (and llvm-symbolizer for its reports) for
# the fuzz targets of the readers.
# Idempotent: packages already present are left alone.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  exec sudo -E bash "$0" "$@"
fi

export DEBIAN_FRONTEND=noninteractive
packages=(g++ cmake make pkg-config libgtest-dev libmkl-dev
          python3 python3-numpy python3-matplotlib python3-meshio python3-pytest
          triangle-bin parallel slurm-wlm munge
          clang libclang-rt-14-dev llvm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

# MKL lives in Debian's non-free component, which the default sources omit.
list=/etc/apt/sources.list.d/q5-non-free.sources
if [ ! -f "$list" ]; then
  cat > "$list" <<'SRC'
Types: deb
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: non-free
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
fi

# The MKL package asks whether to make itself the system BLAS; answer no.
echo "libmkl-rt libmkl-rt/use-as-default-blas-lapack boolean false" | debconf-set-selections || true
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
