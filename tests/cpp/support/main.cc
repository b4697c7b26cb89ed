// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Runs the tests, or judges the ledger of the paths that they took.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "support/ledger.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (argc > 1 && std::strcmp(argv[1], "--check-ledger") == 0) {
    const char* directory = std::getenv("BITFOLD_LEDGER");
    return directory == nullptr ? 2 : bitfold::testing::CheckLedger(directory);
  }
  return RUN_ALL_TESTS();
}
