#!/usr/bin/env bash
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
#
# Lays out in .cuda the CUDA tree that clang needs to compile device code: assembler, packer,
# headers, libdevice and the static runtime, from the packages pinned in requirements/cuda.txt.
# It takes no GPU and no driver.
#
# Running it again changes nothing and takes a moment.
set -euo pipefail
cd "$(dirname "$0")/.."
tree=.cuda
fresh=.cuda.new
pins=requirements/cuda.txt

say() { printf '\033[1m[cuda]\033[0m %s\n' "$*"; }
fail() {
  printf '\033[1;31m[cuda]\033[0m %s\n' "$@" >&2
  exit 1
}

wanted=$(cat $pins scripts/cuda_toolchain.sh | sha256sum | cut -d' ' -f1)
if [ "$(cat $tree/.stamp 2>/dev/null)" = "$wanted" ]; then
  exit 0
fi

python=python3
[ -x .venv/bin/python ] && python=.venv/bin/python
$python -m pip --version >/dev/null 2>&1 ||
  fail "Downloading the CUDA packages needs pip: run scripts/setup.sh, which makes .venv."

say "Laying out the CUDA tree $tree (a download of some 80 MB, 45 MB kept)."
rm -rf $fresh
trap 'rm -rf $fresh' EXIT
packages=$fresh/packages
$python -m pip install --quiet --disable-pip-version-check --no-deps --only-binary :all: \
  --target $packages -r $pins ||
  fail "Could not download the packages of $pins (pip says why above)." \
    "Run this again once the package index can be reached, or build without device code:" \
    "BITFOLD_GPU=OFF in the environment."

cp -r $packages/nvidia/cuda_runtime/include $fresh/include
cp -r $packages/nvidia/cuda_nvcc/include/. $fresh/include
mkdir -p $fresh/bin $fresh/lib64 $fresh/nvvm
mv $packages/nvidia/cuda_runtime/lib/libcudart_static.a \
  $packages/nvidia/cuda_runtime/lib/libcudadevrt.a $fresh/lib64
mv $packages/nvidia/cuda_nvcc/nvvm/libdevice $fresh/nvvm
mv $packages/nvidia/cuda_nvcc/bin/ptxas $fresh/bin
mv $packages/nvidia/cu13/bin/fatbinary $fresh/bin/fatbinary-13
rm -r $packages

# Clang 19 describes an image to the packer in the words of version 12, which 13 no longer knows.
cat >$fresh/bin/fatbinary <<'WRAPPER'
#!/usr/bin/env bash
arguments=()
for argument; do
  case $argument in
    --image=profile=sm_*) argument=--image3=kind=elf,sm=${argument#*=sm_} ;;
    --image=profile=compute_*) argument=--image3=kind=ptx,sm=${argument#*=compute_} ;;
  esac
  arguments+=("$argument")
done
exec "$(dirname "$0")/fatbinary-13" "${arguments[@]}"
WRAPPER
chmod +x $fresh/bin/*

# Clang's own headers include this one, of a random number library that nothing here uses.
: >$fresh/include/curand_mtgp32_kernel.h

echo "$wanted" >$fresh/.stamp
rm -rf $tree
mv $fresh $tree
