// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The lines that kernels print, as a sorted text against the host's. Launches are so small that the
// device's buffer holds all their lines.

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "convolution.h"
#include "groups.h"
#include "support/capture.h"

namespace bitfold::device_test {

namespace {

const Attributes kAttributes[] = {
    {24, 0, false, 1.0f}, {24, 0, true, 2.5f},
    {8, 2, false, 1.0f},  {40, -3, false, 3.0f},
    {24, 0, false, 0.0f}, {24, 0, false, std::numeric_limits<float>::quiet_NaN()}};

// Sums of two lie at both ends of the warning range, within it and beyond, and are NaN.
std::vector<float> LoudValues() {
  const float infinity = std::numeric_limits<float>::infinity();
  return {0.0f,        0.5f,       1.0f,       -1.0f,      4194303.5f,  -4194303.5f, 4194304.0f,
          8388606.0f,  8388606.5f, 8388607.0f, 8388608.0f, -8388606.5f, -8388607.0f, -8388607.5f,
          -8388608.0f, 1.5e38f,    -3.0e38f,   infinity,   -infinity,   NAN};
}

template <typename T>
void CompareAdditionLines(AdditionKernel kernel, Report* report) {
  std::vector<T> values;
  for (const float x : LoudValues()) {
    values.push_back(std::is_same_v<T, float> ? static_cast<T>(x)
                                              : static_cast<T>(TruncateToInt32(x)));
  }
  const size_t n = values.size();
  AdditionInputs<T> inputs;
  inputs.kernel = kernel;
  inputs.shape = {1, 1, static_cast<int>(n), static_cast<int>(n)};
  for (size_t i = 0; i < n * n; ++i) {
    inputs.value.push_back(values[i / n]);
    inputs.elementwise.push_back(values[(i / n + i) % n]);
  }
  // The weights of one kernel are multiplied by both, so they stay small.
  const bool is_weight = kernel == AdditionKernel::kAddStandaloneEw;
  for (size_t j = 0; j < n; ++j) {
    inputs.a.push_back(is_weight ? T{1} : values[j]);
    inputs.b.push_back(is_weight ? static_cast<T>(j % 3) : values[(j + 4) % n]);
  }
  AdditionOnDevice<T> device(inputs);
  for (const Attributes& attributes : kAttributes) {
    bool guard_is_intact = false;
    const std::string got = testing::PrintedBy([&] { device.Run(attributes, &guard_is_intact); });
    const std::string expected = testing::PrintedBy([&] { inputs.Expected(attributes); });
    report->CompareLines(got, expected, Describe(attributes) + Name(kernel) + " " + kTypeName<T>);
  }
}

template <typename T>
void CompareConvolutionLines(Report* report) {
  Random random(7);
  ConvolutionInputs<T> inputs{{2, 4, 3, 2, 3, 3, 3, 1, 1, 1, 1, Padding::kSame}, {}, {}, {}};
  for (int i = 0; i < 48; ++i) {
    inputs.input.push_back(static_cast<T>(TruncateToInt32(random.Pick(LoudValues()))));
  }
  for (int i = 0; i < 54; ++i) inputs.filter.push_back(static_cast<T>(random.Between(-1, 1)));
  for (int i = 0; i < 72; ++i) inputs.elementwise.push_back(static_cast<T>(8388606));
  if constexpr (std::is_same_v<T, float>) inputs.input[7] = NAN;
  ConvolutionOnDevice<T> device(inputs);
  for (const Attributes& attributes : kAttributes) {
    bool guard_is_intact = false;
    const std::string got = testing::PrintedBy([&] { device.Run(attributes, &guard_is_intact); });
    const std::string expected = testing::PrintedBy([&] { inputs.Expected(attributes); });
    report->CompareLines(got, expected, Describe(attributes) + "convolution " + kTypeName<T>);
  }
}

}  // namespace

void ComparePrintedLines(Report* report) {
  report->Group("printed lines of float kernels", [&] {
    for (const AdditionKernel kernel : kAdditionKernels) {
      CompareAdditionLines<float>(kernel, report);
    }
    CompareConvolutionLines<float>(report);
  });
  report->Group("printed lines of int32 kernels, of which there are none", [&] {
    for (const AdditionKernel kernel : kAdditionKernels) {
      CompareAdditionLines<int32_t>(kernel, report);
    }
    CompareConvolutionLines<int32_t>(report);
  });
}

}  // namespace bitfold::device_test
