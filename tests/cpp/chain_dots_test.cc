// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The dot products of the chain engine: each kernel of every target against wide integers.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <type_traits>
#include <vector>

#include "bitfold/int32_arithmetic.h"
#include "chain/dot_row.h"
#include "chain/dot_tile.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/targets.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::ExactBuffer;
using testing::Random;

struct DotShape {
  int pixels, panels, rows, taps, words;
  int lanes() const { return panels * kPanel; }
};

// Words whose bytes and shorts are the ends of their ranges, or any.
int32_t DrawWord(Random* random) {
  static const std::vector<uint32_t> corners = {0x00000000, 0x80008000, 0x7fff7fff, 0xffffffff,
                                                0x80007fff, 0x80808080, 0x7f7f7f7f, 0x01010101,
                                                0xff80ff80, 0x807f807f, 0x00ff00ff, 0x7fff8000};
  return static_cast<int32_t>(random->Flag() ? random->Pick(corners) : random->Bits());
}

// In wide integers, then modulo 2^32.
int64_t DotOf(int32_t x, int32_t w, bool of_bytes) {
  int64_t sum = 0;
  if (of_bytes) {
    uint8_t a[4];
    int8_t b[4];
    std::memcpy(a, &x, sizeof a);
    std::memcpy(b, &w, sizeof b);
    for (int k = 0; k < 4; ++k) sum += int64_t{a[k]} * b[k];
  } else {
    int16_t a[2];
    int16_t b[2];
    std::memcpy(a, &x, sizeof a);
    std::memcpy(b, &w, sizeof b);
    for (int k = 0; k < 2; ++k) sum += int64_t{a[k]} * b[k];
  }
  return sum;
}

// What a sum becomes: of int32 any, of floats the elementwise values are whole.
template <typename T>
T Finished(int64_t sum, const T* elementwise, int64_t at, int32_t bits) {
  if (elementwise != nullptr) sum += static_cast<int64_t>(elementwise[at]);
  return static_cast<T>(testing::LowBits(sum, bits));
}

template <typename T>
ExactBuffer<T> DrawElementwise(Random* random, int64_t count) {
  ExactBuffer<T> numbers(count, random->Between(0, 3));
  for (int64_t i = 0; i < count; ++i) {
    numbers[i] = static_cast<T>(random->Between(-(1 << 24), 1 << 24));
  }
  return numbers;
}

// All of them `word` where there is one.
using Word = std::optional<uint32_t>;
ExactBuffer<int32_t> DrawWords(Random* random, int64_t count, Word word = {}) {
  ExactBuffer<int32_t> words(count, random->Between(0, 3));
  for (int64_t i = 0; i < count; ++i) {
    words[i] = word ? static_cast<int32_t>(*word) : DrawWord(random);
  }
  return words;
}

// Of the panels' lanes `channels` exist. Columns lie `stride` apart; what lies between stays.
template <typename T>
void CheckDot(const DotShape& s, bool of_bytes, typename DotKernels<SumOutput<T>>::Kernel kernel,
              Random* random, Word word = {}) {
  const int64_t x_pixel = random->Between(1, 3) * s.words;
  const int64_t x_tap = random->Between(1, 3) * s.words;
  const int64_t x_row = random->Between(0, 3) + (s.pixels - 1) * x_pixel + s.taps * x_tap;
  const int64_t panel = int64_t{s.rows} * s.taps * s.words * kPanel;
  const int64_t w_panel = panel + random->Between(0, 2) * kPanel;
  const auto x = DrawWords(
      random, (s.rows - 1) * x_row + (s.taps - 1) * x_tap + (s.pixels - 1) * x_pixel + s.words,
      word);
  const auto w = DrawWords(random, (s.panels - 1) * w_panel + panel, word);
  const auto initial = DrawWords(random, s.lanes());
  const int32_t channels = random->Pick<int32_t>({1, s.lanes() - 1, s.lanes(), s.lanes()});
  const int64_t stride = channels + random->Between(0, 3);
  const int64_t count = (s.pixels - 1) * stride + channels;
  const auto elementwise = DrawElementwise<T>(random, count);
  const T* addends = random->Flag() ? elementwise.data() : nullptr;
  const int32_t bits = random->Between(1, 32);
  std::vector<T> expected(static_cast<size_t>(count), T{77});
  for (int p = 0; p < s.pixels; ++p) {
    for (int32_t l = 0; l < channels; ++l) {
      int64_t sum = initial[l];
      for (int64_t k = 0; k < panel / kPanel; ++k) {
        const int64_t tap = k / s.words;
        const int64_t at = tap / s.taps * x_row + tap % s.taps * x_tap + k % s.words;
        sum +=
            DotOf(x[at + p * x_pixel], w[l / kPanel * w_panel + k * kPanel + l % kPanel], of_bytes);
      }
      const int64_t at = p * stride + l;
      expected[static_cast<size_t>(at)] = Finished(sum, addends, at, bits);
    }
  }
  ExactBuffer<T> out(std::vector<T>(static_cast<size_t>(count), T{77}), random->Between(0, 3));
  constexpr int64_t kWord = sizeof(int32_t);
  kernel(DotTile{reinterpret_cast<const uint8_t*>(x.data()), w.data(), initial.data(),
                 x_pixel * kWord, x_row * kWord, x_tap * kWord, w_panel, s.rows, s.taps, s.words},
         SumOutput<T>{addends, out.data(), stride, channels, bits});
  ASSERT_TRUE(testing::SameArrays(
      expected.data(), out.data(), count, of_bytes ? "bytes" : "shorts", [&](int64_t) {
        return Describe("pixels", s.pixels, "panels", s.panels, "rows", s.rows, "taps", s.taps,
                        "words", s.words, "channels", channels, "bits", bits);
      }));
}

// Numbers at the ends of the type's range, or any.
template <typename Number>
ExactBuffer<Number> DrawNumbers(Random* random, int64_t count) {
  constexpr int32_t kLow = std::numeric_limits<Number>::min();
  constexpr int32_t kHigh = std::numeric_limits<Number>::max();
  ExactBuffer<Number> numbers(count, random->Between(0, 3));
  for (int64_t i = 0; i < count; ++i) {
    const int32_t any = random->Between(kLow, kHigh);
    numbers[i] = static_cast<Number>(random->Flag() ? any : random->Flag() ? kLow : kHigh);
  }
  return numbers;
}

// The weights of a depthwise row, as numbers and as words, whose lanes repeat themselves.
template <typename Number>
struct RowWeights {
  using Weight = std::make_signed_t<Number>;
  static constexpr int32_t kEach = sizeof(int32_t) / sizeof(Number);
  std::vector<ExactBuffer<Weight>> taps;
  int32_t period;
  int32_t lanes;
  ExactBuffer<int32_t> words;

  RowWeights(Random* random, int32_t channels, int32_t count)
      : period((kRowBlock + channels - 1) / channels * channels),
        lanes(period + kRowBlock - 1 + random->Between(0, 1)),
        words((count + kEach - 1) / kEach * int64_t{lanes}, random->Between(0, 3)) {
    for (int32_t k = 0; k < count; ++k) {
      taps.push_back(DrawNumbers<Weight>(random, channels));
      for (int32_t lane = 0; lane < lanes; ++lane) {
        const int32_t bits = static_cast<Number>(taps.back()[lane % channels]);
        const int32_t part = sizeof(Number) == 1 ? bits : bits & UINT16_MAX;
        const int at = k % kEach * 8 * static_cast<int>(sizeof(Number));
        words[int64_t{k} / kEach * lanes + lane] |= ShiftLeft(part, at);
      }
    }
  }
};

// A row of `outputs` of a depthwise convolution of few channels or many.
template <typename T, typename Number, typename Kernel>
void CheckRow(int32_t channels, int32_t outputs, int32_t taps, Kernel kernel, Random* random) {
  const int64_t length = int64_t{channels} * outputs;
  const RowWeights<Number> weights(random, channels, taps);
  std::vector<ExactBuffer<Number>> rows;
  std::vector<const Number*> x;
  for (int32_t k = 0; k < taps; ++k) {
    rows.push_back(DrawNumbers<Number>(random, std::max<int64_t>(length, kRowBlock)));
    x.push_back(rows.back().data());
  }
  while (x.size() % RowWeights<Number>::kEach != 0) x.push_back(x[x.size() / 2]);
  auto initial = DrawWords(random, weights.lanes);
  for (int32_t i = channels; i < weights.lanes; ++i) initial[i] = initial[i - channels];
  const auto elementwise = DrawElementwise<T>(random, length);
  const T* addends = random->Flag() ? elementwise.data() : nullptr;
  const int32_t bits = random->Between(1, 32);
  std::vector<T> expected;
  for (int64_t i = 0; i < length; ++i) {
    int64_t sum = initial[i % channels];
    for (size_t k = 0; k < rows.size(); ++k) {
      sum += int64_t{rows[k][i]} * weights.taps[k][i % channels];
    }
    expected.push_back(Finished(sum, addends, i, bits));
  }
  ExactBuffer<T> out(length, random->Between(0, 3));
  kernel(DotRow<Number>{x.data(), weights.words.data(), initial.data(), length, weights.period,
                        weights.lanes, taps},
         SumOutput<T>{addends, out.data(), 0, 0, bits});
  ASSERT_TRUE(testing::SameArrays(expected.data(), out.data(), length, "row", [&](int64_t) {
    return Describe("bytes of a number", static_cast<int>(sizeof(Number)), "channels", channels,
                    "taps", taps, "bits", bits);
  }));
}

// Calls check(of_bytes, kernel, pixels, panels) for each kernel of every target.
template <typename T, typename Check>
void ForEachDotKernel(Check check) {
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const DotKernels<SumOutput<T>>& kernels = CurrentDotKernels<SumOutput<T>>();
    for (int i = 0; kernels.pixels[i] != 0; ++i) {
      for (int k = 0; kernels.panels[k] != 0; ++k) {
        ASSERT_NO_FATAL_FAILURE(
            check(false, kernels.shorts[i][k], kernels.pixels[i], kernels.panels[k]))
            << name;
        if (!kernels.HasBytes()) continue;
        ASSERT_NO_FATAL_FAILURE(
            check(true, kernels.bytes[i][k], kernels.pixels[i], kernels.panels[k]))
            << name;
      }
    }
  }
}

TEST(ChainDots, OnlyTheLastTargetHasBytes) {
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    EXPECT_EQ(CurrentDotKernels<SumOutput<int32_t>>().HasBytes(), target == Target::kAvx512Vnni)
        << name;
    EXPECT_EQ(CurrentDotKernels<SumOutput<float>>().HasBytes(), target == Target::kAvx512Vnni)
        << name;
  }
}

// Sizes fall to 1, so that every image and every filter is covered.
template <typename T>
void CheckSizes() {
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const DotKernels<SumOutput<T>>& kernels = CurrentDotKernels<SumOutput<T>>();
    const auto falls_to_one = [](const int* sizes) {
      while (sizes[1] != 0 && sizes[1] < sizes[0]) ++sizes;
      return sizes[0] == 1 && sizes[1] == 0;
    };
    EXPECT_TRUE(falls_to_one(kernels.pixels)) << name;
    EXPECT_TRUE(falls_to_one(kernels.panels)) << name;
  }
}

TEST(ChainDots, SizesEndWithOne) {
  CheckSizes<int32_t>();
  CheckSizes<float>();
}

template <typename T>
void CrossDotShapes() {
  Random random(0xd07);
  using Kernel = typename DotKernels<SumOutput<T>>::Kernel;
  ForEachDotKernel<T>([&](bool of_bytes, Kernel kernel, int pixels, int panels) {
    for (const int rows : {1, 2, 3}) {
      for (const int taps : {1, 2, 5}) {
        for (const int words : {1, 2, 3, 16}) {
          const DotShape shape = {pixels, panels, rows, taps, words};
          ASSERT_NO_FATAL_FAILURE(CheckDot<T>(shape, of_bytes, kernel, &random));
        }
      }
    }
  });
}

TEST(ChainDots, Int32Shapes) { CrossDotShapes<int32_t>(); }
TEST(ChainDots, FloatShapes) { CrossDotShapes<float>(); }

// Rows shorter than a block, of one period, of several and of parts of one.
template <typename T>
void CrossRows() {
  Random random(0xd08);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const DotRowKernels<T>& kernels = CurrentDotRowKernels<T>();
    ASSERT_EQ(kernels.bytes != nullptr, target == Target::kAvx512Vnni) << name;
    for (const int32_t channels : {1, 2, 3, 5, 8, 15, 16, 17, 24, 32, 33, 64, 65, 100, 144}) {
      for (const int32_t outputs : {1, 2, 3, 4, 5, 8, 9, 23, 70}) {
        for (const int32_t taps : {1, 2, 3, 4, 5, 6, 9, 25}) {
          if (random.Between(0, 2) != 0) continue;
          ASSERT_NO_FATAL_FAILURE(
              (CheckRow<T, int16_t>(channels, outputs, taps, kernels.shorts, &random)))
              << name;
          if (kernels.bytes == nullptr) continue;
          ASSERT_NO_FATAL_FAILURE(
              (CheckRow<T, uint8_t>(channels, outputs, taps, kernels.bytes, &random)))
              << name;
        }
      }
    }
  }
}

TEST(ChainDots, Int32Rows) { CrossRows<int32_t>(); }
TEST(ChainDots, FloatRows) { CrossRows<float>(); }

// Of shorts, both products of a word are 2^30; of bytes, all four are 255 * -128: nothing
// saturates.
TEST(ChainDots, LargestProducts) {
  Random random(0xb16);
  using Kernel = DotKernels<SumOutput<int32_t>>::Kernel;
  for (const uint32_t word : {0x80008000u, 0x7fff7fffu, 0x80808080u, 0xffffffffu, 0x7f7f7f7fu}) {
    ForEachDotKernel<int32_t>([&](bool of_bytes, Kernel kernel, int pixels, int panels) {
      for (const int words : {1, 2, 7}) {
        const DotShape shape = {pixels, panels, 1, 1, words};
        ASSERT_NO_FATAL_FAILURE(CheckDot<int32_t>(shape, of_bytes, kernel, &random, word));
      }
    });
  }
  EXPECT_EQ(DotOf(INT32_MIN + 0x8000, INT32_MIN + 0x8000, false), int64_t{1} << 31);
}

}  // namespace
}  // namespace bitfold
