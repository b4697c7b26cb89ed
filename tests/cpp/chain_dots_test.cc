// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The dot products of the chain engine: each kernel of every target against wide integers.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "chain/dot_tile.h"
#include "chain/lane_tile.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/numeric.h"
#include "support/random.h"

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

template <typename DrawFrom>
void CheckDot(const DotShape& s, bool of_bytes, DotKernel kernel, Random* random, DrawFrom draw) {
  const int64_t stride = random->Between(1, 3) * s.words;
  const int64_t dilation = random->Between(1, 3) * s.words;
  const int64_t row = random->Between(0, 3) + (s.pixels - 1) * stride + s.taps * dilation;
  const int64_t panel = int64_t{s.rows} * s.taps * s.words * 16;
  DotTile tile;
  tile.x_pixel = stride;
  tile.x_tap = dilation;
  tile.x_row = row;
  tile.w_panel = panel + random->Between(0, 2) * 16;
  tile.rows = s.rows;
  tile.taps = s.taps;
  tile.words = s.words;
  ExactBuffer<int32_t> x(
      (s.rows - 1) * row + (s.taps - 1) * dilation + (s.pixels - 1) * stride + s.words,
      random->Between(0, 3));
  ExactBuffer<int32_t> w((s.panels - 1) * tile.w_panel + panel, random->Between(0, 3));
  ExactBuffer<int32_t> acc(s.pixels * s.lanes(), random->Between(0, 3));
  for (int64_t i = 0; i < x.count(); ++i) x[i] = draw();
  for (int64_t i = 0; i < w.count(); ++i) w[i] = draw();
  for (int64_t i = 0; i < acc.count(); ++i) acc[i] = static_cast<int32_t>(random->Bits());
  tile.x = x.data();
  tile.w = w.data();
  tile.acc = acc.data();
  std::vector<int32_t> expected;
  for (int p = 0; p < s.pixels; ++p) {
    for (int l = 0; l < s.lanes(); ++l) {
      int64_t sum = acc[p * s.lanes() + l];
      for (int64_t k = 0; k < panel / 16; ++k) {
        const int64_t tap = k / s.words;
        const int64_t at = tap / s.taps * row + tap % s.taps * dilation + k % s.words;
        sum += DotOf(x[at + p * stride], w[l / 16 * tile.w_panel + k * 16 + l % 16], of_bytes);
      }
      expected.push_back(static_cast<int32_t>(static_cast<uint32_t>(sum)));
    }
  }
  kernel(tile);
  ASSERT_TRUE(testing::SameArrays(expected.data(), acc.data(), acc.count(),
                                  of_bytes ? "bytes" : "shorts", [&](int64_t) {
                                    return Describe("pixels", s.pixels, "panels", s.panels, "rows",
                                                    s.rows, "taps", s.taps, "words", s.words);
                                  }));
}

// Calls check(of_bytes, kernel, pixels, panels) for each kernel of every target.
template <typename Check>
void ForEachDotKernel(Check check) {
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const DotKernels& kernels = CurrentDotKernels();
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
    EXPECT_EQ(CurrentDotKernels().HasBytes(), target == Target::kAvx512Vnni) << name;
  }
}

// Sizes fall to 1, so that every image and every filter is covered, and fit the engine's room.
TEST(ChainDots, SizesEndWithOne) {
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const DotKernels& kernels = CurrentDotKernels();
    EXPECT_LE(kernels.pixels[0], kMaxDotPixels);
    EXPECT_LE(kernels.panels[0], kMaxDotPanels);
    const auto falls_to_one = [](const int* sizes) {
      while (sizes[1] != 0 && sizes[1] < sizes[0]) ++sizes;
      return sizes[0] == 1 && sizes[1] == 0;
    };
    EXPECT_TRUE(falls_to_one(kernels.pixels)) << name;
    EXPECT_TRUE(falls_to_one(kernels.panels)) << name;
  }
}

TEST(ChainDots, Shapes) {
  Random random(0xd07);
  ForEachDotKernel([&](bool of_bytes, DotKernel kernel, int pixels, int panels) {
    for (const int rows : {1, 2, 3}) {
      for (const int taps : {1, 2, 5}) {
        for (const int words : {1, 2, 3, 16}) {
          const DotShape shape = {pixels, panels, rows, taps, words};
          ASSERT_NO_FATAL_FAILURE(
              CheckDot(shape, of_bytes, kernel, &random, [&] { return DrawWord(&random); }));
        }
      }
    }
  });
}

// Of shorts, both products of a word are 2^30; of bytes, all four are 255 * -128: nothing
// saturates.
TEST(ChainDots, LargestProducts) {
  Random random(0xb16);
  for (const uint32_t word : {0x80008000u, 0x7fff7fffu, 0x80808080u, 0xffffffffu, 0x7f7f7f7fu}) {
    ForEachDotKernel([&](bool of_bytes, DotKernel kernel, int pixels, int panels) {
      for (const int words : {1, 2, 7}) {
        const DotShape shape = {pixels, panels, 1, 1, words};
        ASSERT_NO_FATAL_FAILURE(
            CheckDot(shape, of_bytes, kernel, &random, [&] { return static_cast<int32_t>(word); }));
      }
    });
  }
  EXPECT_EQ(DotOf(INT32_MIN + 0x8000, INT32_MIN + 0x8000, false), int64_t{1} << 31);
}

}  // namespace
}  // namespace bitfold
