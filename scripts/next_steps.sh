#!/usr/bin/env bash
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
#
# Says what to type once everything is set up.
set -euo pipefail
cat <<'TEXT'
[setup] Ready. Type next:

  . .venv/bin/activate                     python and bitfold are then those of .venv
  python -c 'import bitfold; print(bitfold.ops.add([[100]], [[50]], accumulator_size=8).numpy())'
                                           150 wraps at 8 bits: [[-106]]
  bitfold info model.tflite                the layers of your network; bitfold --help for more
  make demo                                a network trained, studied and narrowed, in two minutes
  make help                                the other goals
TEXT
