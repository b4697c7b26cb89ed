// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the device's kernels share: the ways in which the emulation runs a launch, none
// of which may change a result, and the comparison of lines that come in no order.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_DEVICE_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_DEVICE_CASE_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/compare.h"
#include "support/device_emulation.h"

namespace bitfold::testing {

struct DeviceRun {
  const char* name;
  EmulationOptions options;
  bool is_in_order;  // the elements are, where threads wait for no other
};

// In order, which makes the printed text that of a loop; in the opposite order; and in one block,
// whose threads take all steps.
inline std::vector<DeviceRun> DeviceRuns() {
  EmulationOptions reversed;
  reversed.is_reversed = true;
  EmulationOptions one_block;
  one_block.most_blocks = 1;
  return {{"on the device", {}, true},
          {"on the device, reversed", reversed, false},
          {"on the device, one block", one_block, false}};
}

// The emulation's record of a launch, for comparison.
inline std::string Show(const EmulatedLaunch& launch) {
  const auto show = [](const dim3& d) {
    return std::to_string(d.x) + "," + std::to_string(d.y) + "," + std::to_string(d.z);
  };
  return launch.kernel + " grid " + show(launch.grid) + " block " + show(launch.block);
}

inline std::vector<std::string> Show(const std::vector<EmulatedLaunch>& launches) {
  std::vector<std::string> lines;
  lines.reserve(launches.size());
  for (const EmulatedLaunch& launch : launches) lines.push_back(Show(launch));
  return lines;
}

// What a process prints at its end when a launch fails.
inline std::string LaunchError(const std::string& error, const std::string& place) {
  return "^GPUassert: " + error + " " + place + "\n$";
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_DEVICE_CASE_H_
