#!/usr/bin/env bash
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
#
# Prepares a machine: installs the system packages that a goal needs and that are missing (by apt,
# where that is allowed), makes the virtual environment .venv with the pinned Python packages, and
# lays out what compiles device code in .cuda.
#
#   scripts/setup.sh build    what building the package needs
#   scripts/setup.sh demo     that, and the demo's data set; the demo has another where this fails
#   scripts/setup.sh tests    that, and what the C++ tests and the lint need
#   scripts/setup.sh bench    that, and what the C++ benchmarks need
#   scripts/setup.sh rtl      a compiler, CMake and Verilator, and nothing of Python's
#   scripts/setup.sh browser  that of build, and a browser to look at reports with
#
# BITFOLD_GPU=OFF in the environment leaves out what device code needs. Running it again changes
# nothing and takes a moment.
set -euo pipefail
cd "$(dirname "$0")/.."
goal=${1:-build}
gpu=${BITFOLD_GPU:-AUTO}
venv=.venv

say() { printf '\033[1m[setup]\033[0m %s\n' "$*"; }
fail() {
  printf '\033[1;31m[setup]\033[0m %s\n' "$@" >&2
  exit 1
}

# --- system packages ------------------------------------------------------------------------------

# Debian's package for each thing that is missing, in $missing.
missing=()
need() { # need PACKAGE COMMAND...: PACKAGE is missing unless COMMAND succeeds
  local package=$1
  shift
  "$@" >/dev/null 2>&1 || missing+=("$package")
}

has_header() { echo "#include <$1>" | c++ -x c++ -fsyntax-only -; }
has_browser() { chromium --version || chromium-browser --version; }
has_font() { ls /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf; }
cmake_is_recent() { cmake --version | awk 'NR == 1 { split($3, v, "."); exit !(v[1] > 3 || (v[1] == 3 && v[2] >= 25)) }'; }

find_missing() {
  missing=()
  if [ "$goal" != rtl ]; then need python3-venv python3 -c 'import venv, ensurepip'; fi
  need g++ c++ --version
  need cmake cmake_is_recent
  # Compiles device code, and in the tests the vector code once more.
  if [ "$gpu" != OFF ] || [ "$goal" = tests ]; then need clang-19 clang++-19 --version; fi
  if [ "$goal" = tests ]; then
    need libgtest-dev has_header gtest/gtest.h
    need clang-format clang-format --version
    need clang-tidy clang-tidy --version
  fi
  if [ "$goal" = bench ]; then need libbenchmark-dev has_header benchmark/benchmark.h; fi
  if [ "$goal" = tests ] || [ "$goal" = rtl ]; then need pkg-config pkg-config --version; fi
  if [ "$goal" = rtl ]; then need verilator verilator --version; fi
  if [ "$goal" = browser ]; then
    need chromium has_browser
    need fonts-dejavu-core has_font
  fi
}

apt_install() { # apt_install PACKAGE...
  as_root apt-get update -qq &&
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
      "$@" >/dev/null
}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo -n "$@"; fi; }

install_missing() {
  if ! command -v apt-get >/dev/null; then
    fail "Missing: ${missing[*]} (Debian's names), and there is no apt-get here." \
      "Install them with your system's package manager, then run this again."
  fi
  if ! as_root true 2>/dev/null; then
    fail "Missing: ${missing[*]}. Installing them needs root; run:" \
      "  sudo apt-get update && sudo apt-get install -y ${missing[*]}" \
      "then run this again."
  fi
  say "Installing ${missing[*]} with apt."
  apt_install "${missing[@]}" ||
    fail "apt could not install ${missing[*]}. (Without tests clang-19 is for device code alone; BITFOLD_GPU=OFF" \
      "in the environment does without.)"
}

[ "$goal" = rtl ] || python3 -c 'import sys; sys.exit(not (3, 11) <= sys.version_info[:2] <= (3, 13))' ||
  fail "Need python3 of version 3.11 to 3.13, which TensorFlow 2.21 supports; got $(python3 --version)."

find_missing
if [ ${#missing[@]} -gt 0 ]; then
  install_missing
  find_missing
  [ ${#missing[@]} -eq 0 ] ||
    fail "Still missing after apt's run: ${missing[*]} (cmake must be 3.25 or newer)."
fi

if [ "$goal" = rtl ]; then exit 0; fi

pictures=/usr/share/datasets/fashion-mnist
if [ "$goal" = demo ] && [ ! -d $pictures ]; then
  say "Installing dataset-fashion-mnist (31 MB)."
  { as_root true && apt_install dataset-fashion-mnist; } >/dev/null 2>&1 ||
    say "It could not be had, for want of root, apt or a network: the demo takes other pictures."
fi

# --- Python packages ------------------------------------------------------------------------------

wanted=$(cat requirements/constraints.txt requirements/dev.txt | sha256sum | cut -d' ' -f1)
if [ "$(cat $venv/.requirements 2>/dev/null)" != "$wanted" ]; then
  say "Making the virtual environment $venv (TensorFlow and its company, some 300 MB; minutes)."
  [ -x $venv/bin/python ] || python3 -m venv $venv
  # Progress bars on a terminal; in a log they would only fill lines.
  quiet=--quiet
  [ -t 1 ] && quiet=
  $venv/bin/python -m pip install $quiet --disable-pip-version-check \
    -r requirements/dev.txt -c requirements/constraints.txt
  echo "$wanted" >$venv/.requirements
fi

# --- the device toolchain -------------------------------------------------------------------------

if [ "$gpu" != OFF ]; then scripts/cuda_toolchain.sh; fi
