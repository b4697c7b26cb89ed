// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The groups of comparisons, each a function of this program. `is_quick`: few elements, for a run
// in the emulation.

#ifndef BITFOLD_TESTS_DEVICE_GROUPS_H_
#define BITFOLD_TESTS_DEVICE_GROUPS_H_

#include <string>

#include "report.h"

namespace bitfold::device_test {

void CompareAdditions(bool is_quick, Report* report);
void CompareConvolutions(bool is_quick, Report* report);
void CompareByteProducts(bool is_quick, Report* report);
void ComparePrintedLines(Report* report);

// `program` is this one's path: a launch that fails ends the process, so it takes another.
void CheckFailedLaunch(const std::string& program, Report* report);
// What that other process does.
void LaunchInvalidGrid();

// Prints the tables of times.
void MeasureTimes();

}  // namespace bitfold::device_test

#endif  // BITFOLD_TESTS_DEVICE_GROUPS_H_
