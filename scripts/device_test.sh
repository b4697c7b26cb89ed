#!/usr/bin/env bash
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
#
# Compares the device kernels with the host's definitions on this machine's GPU, bit by bit, and
# times them. Needs a GPU, a CUDA toolkit of version 12 or newer and a C++17 compiler; no CMake,
# TensorFlow or Python.
#
#   scripts/device_test.sh          compiled for the GPU that is here
#   scripts/device_test.sh 61 75    for these compute capabilities, and as PTX for newer GPUs
#
#   BITFOLD_DEVICE_TEST=--times scripts/device_test.sh
#                                   an option of the program: --quick or --times
#
# Environment: BITFOLD_CUDA_ARCHITECTURES, the same list; NVCC and CXX, the compilers;
# BITFOLD_TEST_SEED. Exits with 0 if all passed, 1 if something failed, 2 if something is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
out=build/device-test

say() { printf '\033[1m[device-test]\033[0m %s\n' "$*"; }
missing() {
  printf '\033[1;31m[device-test]\033[0m %s\n' "$@" >&2
  exit 2
}

# --- compilers ------------------------------------------------------------------------------------

nvcc=${NVCC:-$(command -v nvcc || echo /usr/local/cuda/bin/nvcc)}
command -v "$nvcc" >/dev/null ||
  missing "Need nvcc of a CUDA toolkit, version 12 or newer; got none at $nvcc." \
    "Install a toolkit and put its bin folder on PATH, or name the compiler: NVCC=... $0"
cxx=${CXX:-g++}
command -v "$cxx" >/dev/null ||
  missing "Need a C++17 compiler that nvcc supports; got none at $cxx. Name one: CXX=... $0"
compile=("$nvcc" -ccbin "$cxx" -std=c++17 -O2 -Iinclude -Isrc -Itests/cpp)

# --- the GPU --------------------------------------------------------------------------------------

mkdir -p $out
"${compile[@]}" tests/device/compute_capability.cc -o $out/compute_capability
gpu=$($out/compute_capability) || missing "Need a GPU, and a driver for it (see above)."

wanted=("$@")
if [ ${#wanted[@]} -eq 0 ]; then
  IFS=' ,;' read -ra wanted <<<"${BITFOLD_CUDA_ARCHITECTURES:-$gpu}"
fi
for architecture in "${wanted[@]}"; do
  compile+=("-gencode=arch=compute_$architecture,code=[sm_$architecture,compute_$architecture]")
done

# --- the flags that can change a bit --------------------------------------------------------------

# flags_of START: the flags in the list of cmake/numerics.cmake that begins with START
flags_of() {
  sed 's/#.*//' cmake/numerics.cmake | sed -n "/^$1/,/)/p" | tr -s ' ()' '\n' | grep '^-' ||
    missing "cmake/numerics.cmake has no flags under $1."
}
device_flags=$(flags_of 'set(BITFOLD_DEVICE_NUMERICS_NVCC')
host_flags=$(flags_of 'target_compile_options')
for flag in $device_flags; do compile+=("$flag"); done
for flag in $host_flags; do compile+=("-Xcompiler=$flag"); done

# --- the program ----------------------------------------------------------------------------------

sources=(src/device/*.cu)
for source in tests/device/*.cc; do
  case $source in
    */compute_capability.cc | *_emulated.cc) ;;
    *) sources+=("$source") ;;
  esac
done
say "Compiling for compute capability ${wanted[*]} (a minute)."
"${compile[@]}" "${sources[@]}" -o $out/device_test
exec $out/device_test ${BITFOLD_DEVICE_TEST:+"$BITFOLD_DEVICE_TEST"}
