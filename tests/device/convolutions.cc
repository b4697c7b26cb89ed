// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The kernels of the convolution against plain loops.

#include <string>
#include <vector>

#include "convolution.h"
#include "groups.h"

namespace bitfold::device_test {

namespace {

constexpr Padding kSame = Padding::kSame;
constexpr Padding kValid = Padding::kValid;

struct Family {
  const char* name;
  // batch, in_h, in_w, in_c, fh, fw, out_c, stride_h, stride_w, dil_h, dil_w, padding
  std::vector<ConvolutionShape> shapes;
};

// The first of each family is small enough for the emulation.
std::vector<Family> Families() {
  return {
      {"1x1",
       {{1, 5, 3, 20, 1, 1, 17, 1, 1, 1, 1, kSame},
        {1, 8, 9, 16, 1, 1, 16, 1, 1, 1, 1, kValid},
        {2, 9, 7, 1, 1, 1, 1, 2, 3, 1, 1, kSame},
        {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, kValid}}},
      {"3x3",
       {{1, 6, 5, 3, 3, 3, 17, 1, 1, 1, 1, kSame},
        {1, 9, 11, 4, 3, 3, 8, 1, 1, 1, 1, kValid},
        {2, 17, 19, 16, 3, 3, 33, 1, 1, 1, 1, kSame}}},
      {"even filters",
       {{1, 5, 6, 5, 2, 2, 3, 1, 1, 1, 1, kSame},
        {1, 9, 8, 3, 4, 2, 15, 1, 1, 1, 1, kSame},
        {1, 9, 8, 3, 2, 6, 16, 1, 1, 1, 1, kValid},
        {2, 8, 9, 2, 4, 4, 5, 2, 2, 1, 1, kSame}}},
      {"strides",
       {{1, 7, 8, 3, 3, 2, 4, 2, 3, 1, 1, kSame},
        {1, 8, 7, 3, 3, 3, 4, 2, 2, 1, 1, kValid},
        {1, 12, 11, 3, 3, 3, 20, 2, 3, 1, 1, kValid},
        {1, 9, 16, 2, 5, 5, 6, 3, 2, 1, 1, kSame},
        {1, 9, 16, 2, 1, 3, 6, 4, 5, 1, 1, kSame}}},
      {"dilations, SAME",
       {{1, 7, 8, 3, 3, 2, 4, 1, 1, 2, 3, kSame},
        {1, 7, 8, 3, 3, 3, 4, 1, 1, 2, 2, kSame},
        {2, 11, 13, 4, 3, 3, 17, 1, 1, 3, 2, kSame},
        {1, 16, 15, 3, 2, 4, 5, 2, 1, 2, 3, kSame},
        {1, 9, 9, 3, 3, 3, 4, 1, 1, 1, 4, kSame}}},
      {"dilations, VALID",
       {{1, 9, 8, 3, 3, 2, 4, 1, 2, 2, 3, kValid},
        {1, 9, 8, 3, 3, 3, 4, 1, 1, 2, 2, kValid},
        {2, 13, 14, 4, 3, 2, 17, 1, 1, 3, 2, kValid},
        {1, 16, 15, 3, 2, 4, 5, 2, 1, 2, 3, kValid}}},
      {"dilations of 0 and below",
       {{1, 5, 6, 2, 3, 3, 3, 1, 1, 0, 0, kSame},
        {1, 7, 6, 2, 3, 2, 3, 1, 2, -1, 0, kSame},
        {1, 7, 6, 2, 3, 3, 3, 1, 1, 0, -2, kValid}}},
      {"filters larger than images",
       {{1, 2, 3, 4, 5, 5, 3, 1, 1, 1, 1, kSame},
        {1, 1, 1, 32, 7, 7, 5, 1, 1, 1, 1, kSame},
        {1, 3, 2, 3, 4, 3, 5, 2, 2, 1, 1, kValid}}},
      {"several images",
       {{3, 4, 5, 3, 3, 4, 5, 1, 1, 1, 1, kSame},
        {22, 6, 5, 8, 3, 3, 9, 1, 1, 1, 1, kSame},
        {5, 8, 9, 4, 2, 3, 18, 2, 1, 1, 2, kSame}}},
  };
}

std::vector<Attributes> AllAttributes() {
  return {{24, 0, false},  {8, 0, false},   {16, 4, false}, {32, 0, false},
          {32, 31, false}, {24, -3, false}, {0, 1, false},  {1, 2, false},
          {24, 0, true},   {24, 4, true},   {24, 3, true},  {10, -5, true}};
}

template <typename T>
void CompareLaunch(const ConvolutionInputs<T>& inputs, ConvolutionOnDevice<T>* device,
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

template <typename T>
void CompareFamily(const Family& family, bool is_quick, Report* report) {
  Random random(4);
  const size_t shapes = is_quick ? 1 : family.shapes.size();
  for (size_t s = 0; s < shapes; ++s) {
    for (const Data data : {Data::kSmall, Data::kBoundaries, Data::kBits}) {
      for (const bool has_elementwise : {false, true}) {
        const auto inputs = DrawConvolution<T>(&random, data, family.shapes[s], has_elementwise);
        ConvolutionOnDevice<T> device(inputs);
        for (const Attributes& attributes : AllAttributes()) {
          if (is_quick && random.Between(0, 2) != 0) continue;
          CompareLaunch(inputs, &device, attributes, report);
        }
      }
    }
  }
}

// The op refuses the others.
bool HasOutputs(const PlainAxis& axis) { return axis.outputs > 0 && axis.positions > 0; }

// Pseudo-random shapes, few of which fill their tiles.
template <typename T>
void CompareRandom(bool is_quick, Report* report) {
  Random random(5);
  const int most = is_quick ? 5 : 12;
  for (int run = 0; run < (is_quick ? 10 : 150);) {
    const ConvolutionShape shape = {
        random.Between(1, 3),    random.Between(1, most), random.Between(1, most),
        random.Between(1, most), random.Between(1, 4),    random.Between(1, 4),
        random.Between(1, 35),   random.Between(1, 3),    random.Between(1, 3),
        random.Between(1, 2),    random.Between(1, 2),    random.Flag() ? kSame : kValid};
    if (!HasOutputs(shape.rows()) || !HasOutputs(shape.columns())) continue;
    const Data data = random.Pick<Data>({Data::kSmall, Data::kBoundaries, Data::kBits});
    const auto inputs = DrawConvolution<T>(&random, data, shape, random.Flag());
    ConvolutionOnDevice<T> device(inputs);
    CompareLaunch(inputs, &device,
                  {random.Between(0, 32), random.Pick<int>({0, 0, 1, 2, 5, 30, 31, -1, 127}),
                   random.Between(0, 3) == 0},
                  report);
    ++run;
  }
}

template <typename T>
void CompareLarge(Report* report) {
  Random random(6);
  for (const ConvolutionShape& shape :
       {ConvolutionShape{1, 56, 56, 64, 3, 3, 64, 1, 1, 1, 1, kSame},
        {2, 28, 28, 32, 5, 5, 40, 2, 2, 1, 1, kSame}}) {
    const auto inputs = DrawConvolution<T>(&random, Data::kSmall, shape, true);
    ConvolutionOnDevice<T> device(inputs);
    CompareLaunch(inputs, &device, {20, 0, false}, report);
    CompareLaunch(inputs, &device, {24, 4, true}, report);
  }
}

template <typename T>
void CompareType(bool is_quick, Report* report) {
  const std::string name = std::string("convolution ") + kTypeName<T> + ": ";
  for (const Family& family : Families()) {
    report->Group(name + family.name, [&] { CompareFamily<T>(family, is_quick, report); });
  }
  report->Group(name + "random", [&] { CompareRandom<T>(is_quick, report); });
  if (!is_quick) report->Group(name + "large", [&] { CompareLarge<T>(report); });
}

}  // namespace

void CompareConvolutions(bool is_quick, Report* report) {
  CompareType<float>(is_quick, report);
  CompareType<int32_t>(is_quick, report);
}

}  // namespace bitfold::device_test
