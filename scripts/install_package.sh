#!/usr/bin/env bash
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
#
# Builds the package against the TensorFlow of .venv and installs it there, as a user would, where
# a source has changed since the last time. The build tree build/package is kept, so only what
# changed compiles. BITFOLD_GPU=OFF in the environment leaves device code out; otherwise it must
# build.
set -euo pipefail
cd "$(dirname "$0")/.."
venv=$PWD/.venv
stamp=build/package/.installed

sources() {
  find CMakeLists.txt pyproject.toml README.md LICENSE cmake include src python scripts/runtime_extras.py \
    -type f ! -name '*.pyc' -print0
}

# The time of the last change could lie before a checkout of other sources: compare contents.
gpu=${BITFOLD_GPU:-ON}
now=$(
  (
    sources | sort -z | xargs -0 sha256sum
    echo "$gpu"
    cat .cuda/.stamp 2>/dev/null || true
  ) | sha256sum | cut -d' ' -f1
)
if [ "$(cat $stamp 2>/dev/null)" = "$now" ] && [ -e "$venv/.requirements" ]; then
  exit 0
fi
printf '\033[1m[build]\033[0m Building the op library and installing the package (minutes the first time).\n'
PATH=$venv/bin:$PATH "$venv/bin/python" -m pip install --quiet --disable-pip-version-check \
  --no-build-isolation --no-deps --force-reinstall \
  --config-settings=build-dir=build/package --config-settings=cmake.define.BITFOLD_WARNINGS_AS_ERRORS=ON \
  --config-settings=cmake.define.BITFOLD_GPU="$gpu" .
echo "$now" >$stamp
