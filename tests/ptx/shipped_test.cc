// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The comparisons of device_test.cc on the translated text, in both orders of blocks and threads.
//
//   shipped_test          few elements
//   shipped_test --all    also the long form, in the first order

#include <cinttypes>
#include <cstdio>
#include <string>

#include "device.h"
#include "groups.h"
#include "values.h"

int main(int argc, char** argv) {
  namespace program = bitfold::device_test;
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "--invalid-grid") {
    program::LaunchInvalidGrid();
    return 0;
  }
  if (argc > 2 || (!mode.empty() && mode != "--all")) {
    std::fprintf(stderr, "usage: %s [--all]\n", argv[0]);
    return 2;
  }
  std::printf("Seed: %" PRIu64 "\n", program::RunSeed());
  program::Report report;
  const auto compare = [&report](bool is_quick) {
    program::CompareAdditions(is_quick, &report);
    program::CompareConvolutions(is_quick, &report);
    program::CompareByteProducts(is_quick, &report);
    program::ComparePrintedLines(&report);
  };
  compare(mode.empty());
  program::CheckFailedLaunch(argv[0], &report);
  std::printf("\nFrom the last thread to the first, in one block:\n");
  bitfold::ptx::ReverseOrder();
  compare(true);
  const auto [held, failed] = bitfold::ptx::VoteCounts();
  std::printf("\n%" PRId64 " launches; tiles of bytes: %" PRId64 ", others met: %" PRId64 "\n",
              bitfold::ptx::LaunchCount(), held, failed);
  report.Check(held > 1000 && failed > 100, "products sum bytes, and end where others come");
  return report.Finish();
}
