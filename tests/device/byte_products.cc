// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Convolutions of bytes, of which a kernel sums four products at once while all factors are bytes,
// against plain loops: the least and the greatest byte, what is none, at each place where tiles of
// 64 steps begin and end; and the sums at which floats print or round.

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "convolution.h"
#include "groups.h"
#include "support/capture.h"

namespace bitfold::device_test {

namespace {

constexpr Padding kSame = Padding::kSame;
constexpr Padding kValid = Padding::kValid;

// One tap, so that channels are steps.
ConvolutionShape Steps(int steps, int width, int out_c) {
  return {1, 1, width, steps, 1, 1, out_c, 1, 1, 1, 1, kValid};
}

template <typename T>
std::vector<T> DrawBytes(Random* random, int64_t count, int low = -128, int high = 127) {
  std::vector<T> values(static_cast<size_t>(count));
  for (T& value : values) value = static_cast<T>(random->Between(low, high));
  return values;
}

template <typename T>
ConvolutionInputs<T> DrawByteConvolution(Random* random, const ConvolutionShape& s,
                                         bool has_elementwise) {
  ConvolutionInputs<T> inputs{s, {}, {}, {}};
  inputs.input = DrawBytes<T>(random, int64_t{s.batch} * s.in_h * s.in_w * s.in_c);
  inputs.filter = DrawBytes<T>(random, int64_t{s.fh} * s.fw * s.in_c * s.out_c);
  if (has_elementwise) inputs.elementwise = DrawMany<T>(random, Data::kSmall, inputs.outputs());
  return inputs;
}

// Values, and lines of small launches.
template <typename T>
void CompareBoth(const ConvolutionInputs<T>& inputs, const Attributes& attributes, Report* report) {
  ConvolutionOnDevice<T> device(inputs);
  bool guard_is_intact = false;
  std::vector<T> got;
  std::vector<T> expected;
  const std::string lines =
      testing::PrintedBy([&] { got = device.Run(attributes, &guard_is_intact); });
  const std::string expected_lines =
      testing::PrintedBy([&] { expected = inputs.Expected(attributes); });
  report->Compare<T>(got, expected, guard_is_intact,
                     [&](size_t i) { return Describe(attributes) + inputs.Describe(i); });
  report->CompareLines(lines, expected_lines,
                       Describe(attributes) + Describe(inputs.shape) + ", lines");
}

// The widths at which a proof begins or ends, and what else there is.
template <typename T>
void CompareWidths(Report* report) {
  Random random(9);
  for (const int width : {8, 12, 13, 14, 15, 22, 23, 24, 25, 26, 31, 32}) {
    const auto inputs = DrawByteConvolution<T>(&random, Steps(144, 5, 3), random.Flag());
    CompareBoth(inputs, {width, 0, false}, report);
  }
  for (const Attributes& attributes :
       {Attributes{24, 1, false}, Attributes{24, 0, true}, Attributes{24, 64, false}}) {
    CompareBoth(DrawByteConvolution<T>(&random, Steps(80, 17, 17), true), attributes, report);
  }
}

// Steps around the tiles of 64 and of 16, positions and channels around those of 16.
template <typename T>
void CompareTiles(bool is_quick, Report* report) {
  Random random(10);
  for (const int steps : {1, 16, 63, 64, 65, 79, 80, 127, 128, 129, 192, 336}) {
    for (const int width : {1, 16, 17, 35}) {
      for (const int out_c : {1, 16, 17, 33}) {
        if (is_quick && random.Between(0, 7) != 0) continue;
        const auto inputs =
            DrawByteConvolution<T>(&random, Steps(steps, width, out_c), random.Flag());
        CompareBoth(inputs, {random.Pick<int>({14, 16, 20, 24, 32}), 0, false}, report);
      }
    }
  }
}

// What is no byte, or is one at the end of the range.
template <typename T>
std::vector<T> Intruders() {
  std::vector<T> values = {T{127}, T{128}, T{-128}, T{-129}, T{255}, T{256}, T{-256}, T{65536}};
  if constexpr (std::is_same_v<T, float>) {
    const float infinity = std::numeric_limits<float>::infinity();
    for (const float x : {0.5f, -127.5f, 127.00001f, -0.0f, 1e-40f, 4194304.0f, 8388608.0f,
                          -12582912.0f, 16777216.0f, 3e9f, 1e30f, infinity, -infinity, NAN}) {
      values.push_back(x);
    }
  } else {
    for (const int32_t x : {INT32_MAX, INT32_MIN, INT32_MIN + 1, 1 << 30, 257 - 128 - 1}) {
      values.push_back(x);
    }
  }
  return values;
}

template <typename T>
void CompareIntruders(bool is_quick, Report* report) {
  Random random(11);
  constexpr int kSteps = 208;
  for (const T intruder : Intruders<T>()) {
    for (const int step : {0, 15, 16, 40, 63, 64, 100, 127, 128, 191, 192, 207}) {
      if (is_quick && random.Between(0, 3) != 0) continue;
      auto inputs = DrawByteConvolution<T>(&random, Steps(kSteps, 18, 3), false);
      std::vector<T>& values = random.Flag() ? inputs.input : inputs.filter;
      // A row of the filter, [steps][channels], or of the image, [positions][steps].
      const bool is_input = &values == &inputs.input;
      const int other = random.Between(0, is_input ? 17 : 2);
      const auto place = [&](int s) -> T& {
        return values[static_cast<size_t>(is_input ? other * kSteps + s : s * 3 + other)];
      };
      place(step) = intruder;
      // Two that are equal, which one thread brings.
      if (random.Flag() && step + 16 < kSteps) place(step + 16) = intruder;
      CompareBoth(inputs, {random.Pick<int>({14, 22, 23, 24, 32}), 0, false}, report);
    }
  }
}

// The largest products, up to where floats of 24 bits and more print, and back.
template <typename T>
void CompareLargeSums(bool is_quick, Report* report) {
  for (const int width : {22, 23, 24, 25, 32}) {
    for (const int steps :
         is_quick ? std::vector<int>{448, 576} : std::vector<int>{448, 449, 511, 512, 513, 832}) {
      for (const int turn : {0, 448, 512, steps}) {
        ConvolutionInputs<T> inputs{Steps(steps, 2, 2), {}, {}, {}};
        inputs.input.assign(2 * static_cast<size_t>(steps), T{-128});
        for (int i = 0; i < 2 * steps; ++i) {
          inputs.filter.push_back(i / 2 < turn ? (i % 2 == 0 ? T{-128} : T{127}) : T{1});
        }
        CompareBoth(inputs, {width, 0, false}, report);
      }
    }
  }
}

// Windows at the border, several images of which not all are bytes, and positions that are not
// those of the product.
template <typename T>
void CompareImages(bool is_quick, Report* report) {
  Random random(12);
  const std::vector<ConvolutionShape> shapes = {{3, 4, 5, 16, 3, 3, 5, 1, 1, 1, 1, kSame},
                                                {2, 5, 6, 24, 2, 3, 17, 2, 1, 1, 1, kSame},
                                                {2, 7, 6, 16, 3, 3, 3, 1, 1, 2, 2, kSame},
                                                {2, 8, 9, 16, 3, 3, 33, 1, 1, 1, 1, kValid}};
  for (const ConvolutionShape& shape : shapes) {
    for (const int width : {14, 16, 24, 32}) {
      if (is_quick && random.Flag()) continue;
      auto inputs = DrawByteConvolution<T>(&random, shape, random.Flag());
      const size_t image = inputs.input.size() / static_cast<size_t>(shape.batch);
      if (random.Flag()) inputs.input[image / 2] = T{1000};
      if (random.Flag()) inputs.input[image + random.Bits() % image] = T{-300};
      CompareBoth(inputs, {width, 0, false}, report);
    }
  }
}

template <typename T>
void CompareType(bool is_quick, Report* report) {
  const std::string name = std::string("convolution ") + kTypeName<T> + " of bytes: ";
  report->Group(name + "widths", [&] { CompareWidths<T>(report); });
  report->Group(name + "tiles", [&] { CompareTiles<T>(is_quick, report); });
  report->Group(name + "what is no byte", [&] { CompareIntruders<T>(is_quick, report); });
  report->Group(name + "large sums", [&] { CompareLargeSums<T>(is_quick, report); });
  report->Group(name + "images", [&] { CompareImages<T>(is_quick, report); });
}

}  // namespace

void CompareByteProducts(bool is_quick, Report* report) {
  CompareType<float>(is_quick, report);
  CompareType<int32_t>(is_quick, report);
}

}  // namespace bitfold::device_test
