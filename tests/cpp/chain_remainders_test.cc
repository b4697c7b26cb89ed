// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Remainders of scaled products of bytes: what the tables and choices say of every pair of bytes,
// and the kernels that add them up, against the shift of each product.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bitfold/product_scaling.h"
#include "chain/dot_tile.h"
#include "chain/remainder_tables.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/targets.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::ExactBuffer;
using testing::Random;

// By S1, from its rule: the quotient, halves to even.
int32_t Shifted(int32_t product, int32_t shift) { return ShiftRoundHalfToEven(product, shift); }

// Every pair of bytes: the exact product and what the two chose are 2^shift times the quotient.
void CheckEveryPair(int32_t shift, int32_t offset) {
  const RemainderTables remainders(shift, offset);
  const int32_t entries = remainders.Entries();
  std::vector<uint8_t> stored(256);
  for (int i = 0; i < 256; ++i) stored[static_cast<size_t>(i)] = static_cast<uint8_t>(i);
  ExactBuffer<uint8_t> tables(256 * entries, 1);
  remainders.LookUp(stored.data(), 256, tables.data());
  int32_t weights[4 * kPanel];  // each weight in each byte of a word
  for (int i = 0; i < 256; ++i) {
    const uint32_t byte = static_cast<uint32_t>(i / 4);
    reinterpret_cast<uint8_t*>(weights)[i] =
        static_cast<uint8_t>(byte * 4 + (static_cast<uint32_t>(i) + byte) % 4);
  }
  ExactBuffer<int32_t> choices(4 * 2 * kPanel, 0);
  int32_t sums[kPanel] = {};
  remainders.Choose(weights, 4, choices.data(), sums);
  const int32_t excess = 1 << (shift - 1);
  int32_t expected_sums[kPanel] = {};
  for (int i = 0; i < 256; ++i) {
    const int32_t weight = reinterpret_cast<int8_t*>(weights)[i];
    const int32_t* vectors = choices.data() + i / 64 * 2 * kPanel;
    const int32_t place = reinterpret_cast<const uint8_t*>(vectors)[i % 64];
    const int32_t factor = reinterpret_cast<const int8_t*>(vectors + kPanel)[i % 64];
    ASSERT_EQ(place / entries, i % 4) << "of the weight's own table";
    expected_sums[i % 64 / 4] -= excess * factor;
    for (int s = 0; s < 256; ++s) {
      const int32_t product = weight * (s - offset);
      const int32_t entry = tables[s * entries + place % entries];
      ASSERT_EQ(product + factor * (entry - excess), Shifted(product, shift) * (1 << shift))
          << Describe("shift", shift, "offset", offset, "weight", weight, "stored", s);
    }
  }
  for (int l = 0; l < kPanel; ++l) ASSERT_EQ(sums[l], expected_sums[l]) << l;
}

TEST(ChainRemainders, EveryPairOfBytes) {
  for (int32_t shift = 1; shift <= kMostRemainderShift; ++shift) {
    for (const int32_t offset : {0, 1, 17, 128, 32768}) {
      ASSERT_NO_FATAL_FAILURE(CheckEveryPair(shift, offset));
    }
    for (const testing::NamedTarget& target : testing::AllTargets()) {
      const testing::ForcedTarget forced(target.target);
      ASSERT_NO_FATAL_FAILURE(CheckEveryPair(shift, 128)) << target.name;
    }
  }
}

struct Shape {
  int pixels, panels, rows, taps, words, shift;
};

// Bytes among which the ends and ties of every shift are many.
uint8_t DrawByte(Random* random) {
  static const std::vector<uint8_t> corners = {0, 1, 2, 4, 8, 16, 31, 33, 64, 127, 128, 129, 255};
  return random->Flag() ? random->Pick(corners) : static_cast<uint8_t>(random->Bits());
}

ExactBuffer<int32_t> DrawBytes(Random* random, int64_t words) {
  ExactBuffer<int32_t> drawn(words, random->Between(0, 3));
  for (int64_t i = 0; i < words; ++i) {
    uint8_t bytes[4];
    for (uint8_t& byte : bytes) byte = DrawByte(random);
    std::memcpy(&drawn[i], bytes, sizeof bytes);
  }
  return drawn;
}

// The sum of the scaled products of a word.
int32_t ScaledDot(const uint8_t* x, int32_t w, int32_t shift) {
  int8_t weights[4];
  std::memcpy(weights, &w, sizeof weights);
  int32_t sum = 0;
  for (int k = 0; k < 4; ++k) sum += Shifted(x[k] * weights[k], shift);
  return sum;
}

template <typename T>
void CheckKernel(const Shape& s, typename DotKernels<SumOutput<T>>::RemainderKernel kernel,
                 Random* random) {
  const RemainderTables remainders(s.shift, 0);
  const int64_t x_pixel = random->Between(1, 8 * s.words);  // in bytes, as words lie anywhere
  const int64_t x_tap = random->Between(1, 8 * s.words);
  const int64_t x_row = random->Between(0, 3) + (s.pixels - 1) * x_pixel + s.taps * x_tap;
  const int64_t panel = int64_t{s.rows} * s.taps * s.words * kPanel;
  const int64_t x_bytes =
      (s.rows - 1) * x_row + (s.taps - 1) * x_tap + (s.pixels - 1) * x_pixel + 4 * s.words;
  const auto x_words = DrawBytes(random, (x_bytes + 3) / 4);
  const auto* x = reinterpret_cast<const uint8_t*>(x_words.data());
  const auto w = DrawBytes(random, s.panels * panel);
  // The tables of a word are read with what follows them.
  ExactBuffer<uint8_t> tables(x_bytes * remainders.Entries() + 32, random->Between(0, 3));
  remainders.LookUp(x, x_bytes, tables.data());
  ExactBuffer<int32_t> choices(2 * s.panels * panel, random->Between(0, 3));
  const int32_t lanes = s.panels * kPanel;
  ExactBuffer<int32_t> initial(lanes, 0);
  for (int n = 0; n < s.panels; ++n) {
    remainders.Choose(w.data() + n * panel, panel / kPanel, choices.data() + 2 * n * panel,
                      initial.data() + n * kPanel);
  }
  const int32_t channels = random->Pick<int32_t>({1, lanes - 1, lanes, lanes});
  const int64_t stride = channels + random->Between(0, 3);
  const int64_t count = (s.pixels - 1) * stride + channels;
  // Sums that 32 bits do not hold give but the lowest 32 - s bits.
  const int32_t bits = random->Between(1, 32);
  const int64_t base = bits <= 32 - s.shift ? random->Between(INT32_MIN, INT32_MAX) : 0;
  for (int32_t l = 0; l < lanes; ++l) {
    initial[l] = testing::LowBits(initial[l] + base * (1 << s.shift), 32);
  }
  std::vector<T> expected(static_cast<size_t>(count), T{77});
  for (int p = 0; p < s.pixels; ++p) {
    for (int32_t l = 0; l < channels; ++l) {
      int64_t sum = base;
      for (int64_t k = 0; k < panel / kPanel; ++k) {
        const int64_t tap = k / s.words;
        const int64_t at = tap / s.taps * x_row + tap % s.taps * x_tap + 4 * (k % s.words);
        sum += ScaledDot(x + at + p * x_pixel, w[l / kPanel * panel + k * kPanel + l % kPanel],
                         s.shift);
      }
      expected[static_cast<size_t>(p * stride + l)] = static_cast<T>(testing::LowBits(sum, bits));
    }
  }
  ExactBuffer<T> out(std::vector<T>(static_cast<size_t>(count), T{77}), random->Between(0, 3));
  const DotTile dot = {x,     w.data(), initial.data(), x_pixel, x_row,
                       x_tap, panel,    s.rows,         s.taps,  s.words};
  kernel(RemainderTile{dot, tables.data(), choices.data(), remainders.Entries(), s.shift},
         SumOutput<T>{nullptr, out.data(), stride, channels, bits});
  ASSERT_TRUE(testing::SameArrays(expected.data(), out.data(), count, "remainders", [&](int64_t) {
    return Describe("pixels", s.pixels, "panels", s.panels, "rows", s.rows, "taps", s.taps, "words",
                    s.words, "shift", s.shift, "channels", channels, "bits", bits);
  }));
}

template <typename T>
void CrossShapes() {
  Random random(0x4e3);
  for (const testing::NamedTarget& target : testing::AllTargets()) {
    const testing::ForcedTarget forced(target.target);
    const DotKernels<SumOutput<T>>& kernels = CurrentDotKernels<SumOutput<T>>();
    if (!kernels.HasRemainders()) continue;
    for (int i = 0; kernels.pixels[i] != 0; ++i) {
      for (int k = 0; kernels.panels[k] != 0; ++k) {
        for (int32_t shift = 1; shift <= kMostRemainderShift; ++shift) {
          const bool is_wide = shift > 4;
          for (const int rows : {1, 3}) {
            for (const int taps : {1, 2}) {
              for (const int words : {1, 2, 16}) {
                const Shape shape = {
                    kernels.pixels[i], kernels.panels[k], rows, taps, words, shift};
                ASSERT_NO_FATAL_FAILURE(
                    CheckKernel<T>(shape, kernels.remainders[is_wide][i][k], &random));
              }
            }
          }
        }
      }
    }
  }
}

TEST(ChainRemainders, Int32Kernels) { CrossShapes<int32_t>(); }
TEST(ChainRemainders, FloatKernels) { CrossShapes<float>(); }

}  // namespace
}  // namespace bitfold
