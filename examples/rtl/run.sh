#!/usr/bin/env bash
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
#
# Compares the unit in this folder with Bitfold, step by step, and then the unit with a planted bug,
# which must be found. Needs Verilator, a C++ compiler and CMake, and no TensorFlow.
#
#   examples/rtl/run.sh
#   ACC_WIDTH=32 STEPS=100000000 SEED=7 BUG=1 examples/rtl/run.sh
#
# BUG is one of mac_unit.sv, or 0 for none. Builds in OUT, build/rtl where not given.
set -euo pipefail
cd "$(dirname "$0")/../.."
out=${OUT:-$PWD/build/rtl}
width=${ACC_WIDTH:-24} steps=${STEPS:-10000000} seed=${SEED:-1} bug=${BUG:-3}

say() { printf '\033[1m[rtl]\033[0m %s\n' "$*"; }
need() { # need NAME PATTERN WHAT VALUE
  [[ $4 =~ ^$2$ ]] || { say "Need $1 to be $3, got '$4'." >&2 && exit 1; }
}
need ACC_WIDTH '[0-9]{1,2}' "a number of bits" "$width"
need STEPS '[0-9]{1,9}' "a number of steps below 10^9" "$steps"
need SEED '[0-9]{1,9}' "a number below 10^9" "$seed"
need BUG '[0-4]' "0 to 4" "$bug"
mkdir -p "$out"
quietly() { "$@" >"$out/log" 2>&1 || { cat "$out/log" >&2 && exit 1; }; }

# The C library and the headers, where pkg-config finds them.
quietly cmake -S . -B "$out/library" -DBITFOLD_BUILD_LIBRARY=OFF -DCMAKE_INSTALL_LIBDIR=lib
quietly cmake --build "$out/library"
quietly cmake --install "$out/library" --prefix "$out/prefix"
export PKG_CONFIG_PATH=$out/prefix/lib/pkgconfig
packages="bitfold-steps bitfold-arithmetic"

build() { # build BUG: the bench around the unit with that bug
  # shellcheck disable=SC2086 # a list
  quietly verilator --binary -Wall -O3 --timescale 1ns/1ns --top-module mac_bench \
    -GACC_WIDTH="$width" -GBUG="$1" --Mdir "$out/bug$1" -o bench \
    -CFLAGS "$(pkg-config --cflags $packages)" \
    -LDFLAGS "$(pkg-config --libs $packages) -Wl,-rpath,$out/prefix/lib" \
    examples/rtl/*.sv "$PWD/examples/rtl/reference.cc"
}

run() { # run BUG; Verilator's word on where the bench ended is left out
  "$out/bug$1/bench" "+steps=$steps" "+seed=$seed" | sed '/Verilog \$finish$/d'
}

build 0
begin=$EPOCHREALTIME
result=$(run 0)
end=$EPOCHREALTIME
echo "$result"
case $result in
  *"mac_bench: EQUAL in "*) ;;
  *) exit 1 ;;
esac
say "$(echo "${begin/,/.} ${end/,/.} $result" |
  awk '{ printf "%.1f s, %.1f million steps a second", $2 - $1, $6 / 1e6 / ($2 - $1) }')"

if [ "$bug" = 0 ]; then exit 0; fi
say "The same unit with bug $bug of mac_unit.sv:"
build "$bug"
result=$(run "$bug")
echo "$result"
case $result in
  *"mac_bench: DIFFERENT at step "*) say "Found." ;;
  *) say "Not found." && exit 1 ;;
esac
