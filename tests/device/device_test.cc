// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The device kernels on a device: compared with the host bit by bit, and timed.
//
//   device_test            everything
//   device_test --quick    few elements and no times, for an emulation
//   device_test --times    times alone
//
// Ends with a tally. Exits with 0 if all passed, 1 if something failed, 2 without a device.

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "device_runtime.h"
#include "groups.h"
#include "values.h"

int main(int argc, char** argv) {
  namespace program = bitfold::device_test;
  const std::string mode = argc > 1 ? argv[1] : "";
  if (argc > 2 ||
      (!mode.empty() && mode != "--quick" && mode != "--times" && mode != "--invalid-grid")) {
    std::fprintf(stderr, "usage: %s [--quick | --times]\n", argv[0]);
    return 2;
  }
  std::string description;
  if (!program::OpenDevice(&description)) {
    std::fprintf(stderr, "%s\n", description.c_str());
    return 2;
  }
  if (mode == "--invalid-grid") {
    program::LaunchInvalidGrid();
    return 0;
  }
  std::printf("Device: %s\nSeed: %" PRIu64 "\n\n", description.c_str(), program::RunSeed());

  if (mode == "--times") {
    program::MeasureTimes();
    return 0;
  }
  const bool is_quick = mode == "--quick";
  program::Report report;
  program::CompareAdditions(is_quick, &report);
  program::CompareConvolutions(is_quick, &report);
  program::CompareByteProducts(is_quick, &report);
  program::ComparePrintedLines(&report);
  program::CheckFailedLaunch(argv[0], &report);
  if (!is_quick) program::MeasureTimes();
  return report.Finish();
}
