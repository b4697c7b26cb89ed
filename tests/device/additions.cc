// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The kernels of the additions against the host's definition.

#include <limits>
#include <string>
#include <vector>

#include "addition.h"
#include "groups.h"

namespace bitfold::device_test {

namespace {

std::vector<int> Shifts() {
  std::vector<int> shifts = {-128, -127, -33, -32, -31, -7, -3, -2, -1};
  for (int shift = 0; shift <= 33; ++shift) shifts.push_back(shift);
  for (const int shift : {64, 100, 126, 127}) shifts.push_back(shift);
  return shifts;
}

template <typename T>
std::vector<int> Widths() {
  std::vector<int> widths;
  for (int width = 0; width <= kMaxInt32AccumulatorSize; ++width) widths.push_back(width);
  if constexpr (std::is_same_v<T, float>) {
    for (const int width : {33, 40, 64, 126, 127, 128, 129, 130, 200}) widths.push_back(width);
  }
  return widths;
}

// The passes of an infinite repeat are 2^31, which comparisons cannot wait for. Above 64 integers
// end with the pass from which the rest is proven.
template <typename T>
std::vector<float> Repeats() {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  std::vector<float> repeats = {0.0f,
                                -0.0f,
                                -1.0f,
                                -kInfinity,
                                std::numeric_limits<float>::quiet_NaN(),
                                std::numeric_limits<float>::denorm_min(),
                                0.5f,
                                1.0f,
                                2.0f,
                                2.5f,
                                17.0f};
  if constexpr (!std::is_same_v<T, float>) {
    for (const float repeat : {64.0f, 64.5f, 65.0f, 66.0f, 1000.0f}) repeats.push_back(repeat);
  }
  return repeats;
}

template <typename T>
void CompareLaunch(const AdditionInputs<T>& inputs, AdditionOnDevice<T>* device,
                   const Attributes& attributes, Report* report) {
  std::vector<T> got;
  std::vector<T> expected;
  bool guard_is_intact = false;
  {
    const StdoutSilence silence;
    got = device->Run(attributes, &guard_is_intact);
    expected = inputs.Expected(attributes);
  }
  report->Compare<T>(got, expected, guard_is_intact,
                     [&](size_t i) { return Describe(attributes) + inputs.Describe(i); });
}

// Every boundary value with every other, in the place of each input.
template <typename T>
void CrossBoundaries(AdditionKernel kernel, bool is_quick, Report* report) {
  const std::vector<T>& all = Boundaries<T>();
  std::vector<T> values;
  for (size_t i = 0; i < all.size(); i += is_quick ? 7 : 1) values.push_back(all[i]);
  const size_t n = values.size();

  AdditionInputs<T> inputs;
  inputs.kernel = kernel;
  inputs.shape = {1, 1, static_cast<int>(n), static_cast<int>(n)};
  for (size_t row = 0; row < n; ++row) {
    for (size_t column = 0; column < n; ++column) {
      inputs.value.push_back(values[row]);
      inputs.elementwise.push_back(values[(5 * row + column) % n]);
    }
    inputs.a.push_back(values[row]);
    inputs.b.push_back(values[(3 * row + 1) % n]);
  }
  for (const T factor : {T{1}, T{-3}}) {
    inputs.a_factor = factor;
    inputs.b_factor = factor;
    AdditionOnDevice<T> device(inputs);
    for (const Attributes& attributes :
         {Attributes{24, 0, false, 1.0f}, Attributes{8, 3, false, 2.5f},
          Attributes{32, 1, false, 1.0f}, Attributes{24, 0, true, 1.0f},
          Attributes{24, 2, true, 2.5f}}) {
      CompareLaunch(inputs, &device, attributes, report);
    }
  }
}

// Each attribute through all its values, beside a few of the others.
template <typename T>
std::vector<Attributes> Sweeps() {
  std::vector<Attributes> sweeps;
  for (const int shift : Shifts()) {
    sweeps.push_back({24, shift, false, 1.0f});
    sweeps.push_back({31, shift, false, 2.5f});
    sweeps.push_back({24, shift, true, 1.0f});
  }
  for (const int width : Widths<T>()) {
    for (const int shift : {0, 3}) {
      sweeps.push_back({width, shift, false, 1.0f});
      sweeps.push_back({width, shift, true, 2.5f});
      sweeps.push_back({width, shift, false, 17.0f});
    }
  }
  for (const float repeat : Repeats<T>()) {
    for (const int width : {8, 20, 32}) {
      for (const bool half : {false, true}) {
        sweeps.push_back({width, 0, half, repeat});
        sweeps.push_back({width, 2, half, repeat});
      }
    }
  }
  return sweeps;
}

template <typename T>
void SweepAttributes(AdditionKernel kernel, bool is_quick, Report* report) {
  Random random(1);
  for (const Data data : {Data::kBoundaries, Data::kSmall}) {
    // Most sums of boundary values print, and a GPU's lines are written slowly.
    const int rows = is_quick ? 3 : data == Data::kBoundaries ? 8 : 128;
    const auto inputs = DrawAddition<T>(&random, data, kernel, {1, rows, 1, 17});
    AdditionOnDevice<T> device(inputs);
    for (const Attributes& attributes : Sweeps<T>()) {
      CompareLaunch(inputs, &device, attributes, report);
    }
  }
}

template <typename T>
void CompareRandom(AdditionKernel kernel, bool is_quick, Report* report) {
  Random random(2);
  const std::vector<int> shifts = Shifts();
  const std::vector<int> widths = Widths<T>();
  const std::vector<float> repeats = Repeats<T>();
  const int most = is_quick ? 5 : 14;
  for (int run = 0; run < (is_quick ? 30 : 200); ++run) {
    const Data data = random.Pick<Data>({Data::kSmall, Data::kBoundaries, Data::kBits});
    const std::array<int, 4> shape = {random.Between(1, most), random.Between(1, most),
                                      random.Between(1, most), random.Between(1, most)};
    const auto inputs = DrawAddition<T>(&random, data, kernel, shape);
    AdditionOnDevice<T> device(inputs);
    for (int i = 0; i < 4; ++i) {
      CompareLaunch(inputs, &device,
                    {random.Pick(widths), random.Pick(shifts), random.Flag(), random.Pick(repeats)},
                    report);
    }
  }
}

// Counts at which blocks fill up, and large ones.
template <typename T>
void CompareCounts(AdditionKernel kernel, bool is_quick, Report* report) {
  Random random(3);
  std::vector<std::array<int, 4>> shapes = {{1, 1, 1, 1},   {1, 1, 1, 511}, {1, 1, 512, 1},
                                            {1, 1, 171, 3}, {2, 2, 2, 128}, {1, 5, 41, 5}};
  if (!is_quick) {
    shapes.push_back({10, 10, 10, 100});
    shapes.push_back({2, 112, 112, 64});
    shapes.push_back({1, 1, 1048583, 1});
  }
  for (const std::array<int, 4>& shape : shapes) {
    const auto inputs = DrawAddition<T>(&random, Data::kSmall, kernel, shape);
    AdditionOnDevice<T> device(inputs);
    CompareLaunch(inputs, &device, {16, 3, false, 2.5f}, report);
    CompareLaunch(inputs, &device, {24, 0, true, 1.0f}, report);
  }
}

template <typename T>
void CompareKernel(AdditionKernel kernel, bool is_quick, Report* report) {
  const std::string name = std::string(Name(kernel)) + " " + kTypeName<T> + ": ";
  report->Group(name + "boundaries crossed", [&] { CrossBoundaries<T>(kernel, is_quick, report); });
  report->Group(name + "each attribute", [&] { SweepAttributes<T>(kernel, is_quick, report); });
  report->Group(name + "random", [&] { CompareRandom<T>(kernel, is_quick, report); });
  report->Group(name + "counts", [&] { CompareCounts<T>(kernel, is_quick, report); });
}

}  // namespace

void CompareAdditions(bool is_quick, Report* report) {
  for (const AdditionKernel kernel : kAdditionKernels) {
    CompareKernel<float>(kernel, is_quick, report);
    CompareKernel<int32_t>(kernel, is_quick, report);
  }
}

}  // namespace bitfold::device_test
