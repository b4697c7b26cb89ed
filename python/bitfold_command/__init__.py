# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The command `bitfold`: what the package does, from a shell.

A package of its own, so that help and errors of usage come at once: importing `bitfold` takes the
seconds that TensorFlow takes.
"""
