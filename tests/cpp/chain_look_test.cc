// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Convolutions and matrix products that are decided as if their numbers were bytes and look at them
// while they are packed: the bits and lines of the definition where they are bytes, and where a
// single number, anywhere, is none.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "cpu/convolution.h"
#include "support/convolution.h"
#include "support/ledger.h"
#include "support/matmul_case.h"
#include "support/scale.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::ConvolutionData;
using testing::Path;
using testing::Plain;
using testing::Random;

// So many are looked at before anything is decided.
constexpr int64_t kFirst = 4096;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

std::vector<int32_t> NoInputs(int32_t) { return {256, -1, INT32_MIN, 1 << 16}; }
std::vector<float> NoInputs(float) { return {256, -1, 0.5f, kNan, kInfinity, 12582912.0f, 1e30f}; }
std::vector<int32_t> NoWeights(int32_t) { return {128, -129, INT32_MAX, -(1 << 16)}; }
std::vector<float> NoWeights(float) { return {128, -129, -0.5f, kNan, -kInfinity, 8388608.0f}; }

// More numbers and weights than are looked at first, where the form has as many: windows, pixels,
// channels by themselves at two strides, and taps that lie apart.
std::vector<Convolution> Shapes() {
  std::vector<Convolution> shapes = {Plain(18, 17, 16, 3, 3, 33), Plain(9, 10, 66, 1, 1, 64),
                                     Plain(16, 15, 20, 3, 3, 20), Plain(17, 16, 20, 3, 3, 20),
                                     Plain(13, 12, 35, 2, 2, 40)};
  for (Convolution& c : shapes) c.same = true;
  for (const size_t depthwise : {2u, 3u}) shapes[depthwise].is_depthwise = true;
  shapes[3].stride_h = shapes[3].stride_w = 2;
  shapes[4].dilation_h = shapes[4].dilation_w = 2;
  for (Convolution& c : shapes) c.accumulator_size = 22;
  return shapes;
}

// Bytes, the inputs from `low` on.
template <typename T>
ConvolutionData<T> Draw(Random* random, const Convolution& c, int32_t low) {
  ConvolutionData<T> data;
  for (int64_t i = 0; i < testing::InputCount(c); ++i) {
    data.input.push_back(static_cast<T>(random->Between(low, low + 255)));
  }
  for (int64_t i = 0; i < testing::FilterCount(c); ++i) {
    data.filter.push_back(static_cast<T>(random->Between(INT8_MIN, INT8_MAX)));
  }
  return data;
}

enum class Outcome { kNotTried, kAsAssumed, kOtherwise };

// On the target in use.
template <typename T>
Outcome Try(const Convolution& c, const ConvolutionData<T>& data, Workers* workers,
            std::vector<T>* output) {
  HeapScratch scratch;
  const auto mult_shift = static_cast<int8_t>(c.mult_shift);
  output->assign(static_cast<size_t>(testing::OutputCount(c)), T{1});
  const BatchConvolution<T> convolution(testing::CallOf<T>(c, data, output->data(), &mult_shift),
                                        workers, &scratch, Look::kWhilePacking);
  const bool is_tried = convolution.plan().has_value();
  bool is_done = false;
  EXPECT_EQ(testing::PrintedBy([&] { is_done = convolution.Run(); }), "");
  EXPECT_TRUE(is_tried || !is_done);
  if (!is_tried) return Outcome::kNotTried;
  return is_done ? Outcome::kAsAssumed : Outcome::kOtherwise;
}

std::vector<std::unique_ptr<Workers>> AllWorkers() {
  std::vector<std::unique_ptr<Workers>> all;
  all.push_back(std::make_unique<CallingThread>());
  all.push_back(std::make_unique<testing::BackwardParts>(1));
  all.push_back(std::make_unique<testing::ThreadParts>(3, 1));
  return all;
}

// What comes of trying, on a target with dot products of bytes, and the whole call on every target.
template <typename T>
void Check(const Convolution& c, const ConvolutionData<T>& data, Outcome expected) {
  const auto defined = testing::DefinedConvolution(c, data);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const bool has_bytes = target == Target::kAvx512Vnni;
    for (const auto& workers : AllWorkers()) {
      std::vector<T> output;
      const Outcome outcome = Try(c, data, workers.get(), &output);
      ASSERT_EQ(outcome, has_bytes ? expected : Outcome::kNotTried) << name << testing::Describe(c);
      if (outcome == Outcome::kAsAssumed) {
        ASSERT_TRUE(
            testing::SameConvolutions(c, defined.values.data(), output.data(), "assumed bytes"));
      }
      const auto shared = testing::SharedConvolution(c, data, workers.get());
      ASSERT_TRUE(testing::SameConvolutions(c, defined.values.data(), shared.values.data(), name));
      ASSERT_TRUE(testing::SameLines(defined.lines, shared.lines, name));
      if (!has_bytes) break;
    }
  }
}

template <typename T>
void CheckBytes(uint64_t seed) {
  Random random(seed);
  for (Convolution c : Shapes()) {
    for (const int32_t low : {0, -128}) {
      const auto data = Draw<T>(&random, c, low);
      for (const int32_t batch : {1, 3}) {
        c.batch = batch;
        const auto images = batch == 1 ? data : Draw<T>(&random, c, low);
        ASSERT_NO_FATAL_FAILURE(Check(c, images, Outcome::kAsAssumed));
      }
      c.batch = 1;
      c.mult_shift = 4;
      const bool has_remainders = testing::HasRemainders(Target::kAvx512Vnni) && !c.is_depthwise;
      ASSERT_NO_FATAL_FAILURE(
          Check(c, data, has_remainders ? Outcome::kAsAssumed : Outcome::kNotTried));
      c.mult_shift = 0;
    }
    testing::Ran(c.is_depthwise ? Path::kChainAssumedDepthwise : Path::kChainAssumed);
  }
}

TEST(ChainLook, Int32Bytes) { CheckBytes<int32_t>(0x100c); }
TEST(ChainLook, FloatBytes) { CheckBytes<float>(0x100d); }

// The first one behind those that are looked at before, one inside, and the last one, which alone
// is read at the end of what is allocated.
std::vector<int64_t> Places(int64_t count) {
  if (count <= kFirst) return {};
  if (testing::kSanitized) return {count - 1};
  return {kFirst, (kFirst + count) / 2, count - 1};
}

template <typename T>
void CheckOthers(uint64_t seed) {
  Random random(seed);
  for (const Convolution& c : Shapes()) {
    auto data = Draw<T>(&random, c, 0);
    for (const int64_t place : Places(testing::InputCount(c))) {
      T& number = data.input[static_cast<size_t>(place)];
      const T byte = number;
      for (const T other : NoInputs(T{})) {
        number = other;
        ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kOtherwise)) << testing::Show(other);
        testing::Ran(Path::kChainAssumedInputIsNone);
      }
      number = byte;
    }
    for (const int64_t place : Places(testing::FilterCount(c))) {
      T& weight = data.filter[static_cast<size_t>(place)];
      const T byte = weight;
      for (const T other : NoWeights(T{})) {
        weight = other;
        ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kNotTried)) << testing::Show(other);
        testing::Ran(Path::kChainAssumedWeightIsNone);
      }
      weight = byte;
    }
  }
}

TEST(ChainLook, AnInt32ThatIsNoByte) { CheckOthers<int32_t>(0x100e); }
TEST(ChainLook, AFloatThatIsNoByte) { CheckOthers<float>(0x100f); }

// Rows that no window meets change nothing.
TEST(ChainLook, RowsThatNoWindowMeets) {
  Random random(0x1010);
  Convolution c = Plain(24, 24, 12, 1, 1, 16);
  c.accumulator_size = 24;
  c.stride_h = c.stride_w = 3;
  auto data = Draw<int32_t>(&random, c, 0);
  data.input.back() = INT32_MIN;
  ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kAsAssumed));
}

// Those that are looked at first leave nothing to assume; few are known.
TEST(ChainLook, WhatIsSeenAtOnce) {
  Random random(0x1011);
  Convolution c = Plain(18, 17, 16, 3, 3, 33);
  c.same = true;
  c.accumulator_size = 24;
  const auto bytes = Draw<int32_t>(&random, c, 0);
  auto data = bytes;
  data.input[kFirst - 1] = 256;
  ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kNotTried));
  data = bytes;
  data.filter[kFirst - 1] = 128;
  ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kNotTried));
  data = bytes;
  c.accumulator_size = 12;  // products are larger than its period
  ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kNotTried));
  c = Plain(15, 15, 17, 1, 1, 20);
  c.accumulator_size = 24;
  auto few = Draw<int32_t>(&random, c, -200);  // no bytes but with an offset
  few.input[0] = -200;
  few.input[1] = 55;
  ASSERT_NO_FATAL_FAILURE(Check(c, few, Outcome::kAsAssumed));
}

TEST(ChainLook, ElementwiseValuesAreLookedAtFirst) {
  Random random(0x1012);
  Convolution c = Plain(18, 17, 16, 3, 3, 16);
  c.same = true;
  c.accumulator_size = 24;
  auto data = Draw<int32_t>(&random, c, 0);
  data.elementwise.assign(static_cast<size_t>(testing::OutputCount(c)), 7);
  ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kNotTried));
}

// Weights whose signs are corrected print a line: they are looked at first.
TEST(ChainLook, CorrectedWeights) {
  Random random(0x1013);
  Convolution c = Plain(16, 15, 20, 3, 3, 20);
  c.is_depthwise = true;
  c.accumulator_size = 14;  // from 64 on
  const auto data = Draw<int32_t>(&random, c, 0);
  ASSERT_NO_FATAL_FAILURE(Check(c, data, Outcome::kNotTried));
}

// Matrix products, whose weights are the larger part, by the same rule.
template <typename T>
void CheckProducts(uint64_t seed) {
  Random random(seed);
  testing::MatMulCase<T> c;
  c.rows = 65;
  c.inner = 67;
  c.cols = 70;
  c.accumulator_size = 22;
  for (int64_t i = 0; i < c.a_count(); ++i) {
    c.a.push_back(static_cast<T>(random.Between(0, UINT8_MAX)));
  }
  for (int64_t i = 0; i < c.b_count(); ++i) {
    c.b.push_back(static_cast<T>(random.Between(INT8_MIN, INT8_MAX)));
  }
  const auto check = [&c] {
    for (const int32_t width : {22, 14}) {
      c.accumulator_size = width;
      const auto same = testing::KernelAgainstDefinition(c, testing::DefinitionOf(c, 1), 1);
      if (!same) return same;
    }
    return ::testing::AssertionSuccess();
  };
  ASSERT_TRUE(check());
  for (const auto& [numbers, others] :
       {std::pair(&c.a, NoInputs(T{})), std::pair(&c.b, NoWeights(T{}))}) {
    for (const int64_t place : Places(static_cast<int64_t>(numbers->size()))) {
      T& number = (*numbers)[static_cast<size_t>(place)];
      const T byte = number;
      for (const T other : others) {
        number = other;
        ASSERT_TRUE(check()) << testing::Show(other) << " at " << place;
      }
      number = byte;
    }
  }
}

TEST(ChainLook, Int32Products) { CheckProducts<int32_t>(0x1014); }
TEST(ChainLook, FloatProducts) { CheckProducts<float>(0x1015); }

}  // namespace
}  // namespace bitfold
