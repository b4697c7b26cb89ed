// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The two additions as their tests see them: one case, computed by the oracle, by the definition
// and by what the kernels run.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_ADDITION_H_
#define BITFOLD_TESTS_CPP_SUPPORT_ADDITION_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/HAdd.h"
#include "bitfold/HBiasAdd.h"
#include "reference.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/tables.h"

namespace bitfold::testing {

// `operand` holds an element per value (HAdd), or one per channel (HBiasAdd).
template <typename T>
struct Addition {
  std::vector<T> value;
  std::vector<T> operand;
  T factor = T{1};
  float feed_repeat = 1.0f;
  int mult_shift = 0;
  int accumulator_size = 32;
  bool use_fp16_acc = false;

  int64_t count() const { return static_cast<int64_t>(value.size()); }
  int64_t channels() const { return static_cast<int64_t>(operand.size()); }

  std::string Inputs(int64_t i, bool per_channel) const {
    const auto at = static_cast<size_t>(per_channel ? i % channels() : i);
    return Describe("value", value[static_cast<size_t>(i)], "operand", operand[at], "factor",
                    factor, "repeat", feed_repeat, "shift", mult_shift, "width", accumulator_size,
                    "fp16", use_fp16_acc);
  }
};

template <typename T>
struct Output {
  ExactBuffer<T> values;
  std::string lines;
};

// How an op is called; kPerChannel tells the two apart.
struct HAddCall {
  static constexpr bool kPerChannel = false;
  static constexpr const char* kName = "HAdd";
  static constexpr Path kInt32Path = Path::kHAddInt32;
  static constexpr Path kFloatPath = Path::kHAddFloat;
  static constexpr Path kHalfPath = Path::kHAddHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::Add<T>(c.value.data(), c.operand.data(), c.factor, c.feed_repeat, c.mult_shift,
                      c.accumulator_size, c.use_fp16_acc, c.count(), out, lines);
  }

  template <typename T, typename Passes>
  static void Run(const Addition<T>& c, const T* value, const T* operand, T* out, Passes passes) {
    HAddElements(Datapath<T>(c.accumulator_size, c.mult_shift, c.use_fp16_acc), value, operand,
                 c.factor, FeedRepeatCount(c.feed_repeat), c.count(), out, passes);
  }
};

struct HBiasAddCall {
  static constexpr bool kPerChannel = true;
  static constexpr const char* kName = "HBiasAdd";
  static constexpr Path kInt32Path = Path::kHBiasAddInt32;
  static constexpr Path kFloatPath = Path::kHBiasAddFloat;
  static constexpr Path kHalfPath = Path::kHBiasAddHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::BiasAdd<T>(c.value.data(), c.operand.data(), c.factor, c.feed_repeat, c.mult_shift,
                          c.accumulator_size, c.use_fp16_acc, c.count(), c.channels(), out, lines);
  }

  template <typename T, typename Passes>
  static void Run(const Addition<T>& c, const T* value, const T* operand, T* out, Passes passes) {
    HBiasAddElements(Datapath<T>(c.accumulator_size, c.mult_shift, c.use_fp16_acc), value, operand,
                     c.factor, FeedRepeatCount(c.feed_repeat), c.count(), c.channels(), out,
                     passes);
  }
};

// `offset` misaligns the three buffers, each differently.
template <typename Call, typename T, typename Passes>
Output<T> RunAddition(const Addition<T>& c, Passes passes, int offset = 0) {
  const ExactBuffer<T> value(c.value, offset);
  const ExactBuffer<T> operand(c.operand, (offset + 1) % 4);
  Output<T> output{ExactBuffer<T>(c.count(), (offset + 2) % 4), ""};
  output.lines =
      PrintedBy([&] { Call::Run(c, value.data(), operand.data(), output.values.data(), passes); });
  return output;
}

template <typename Call, typename T>
Output<T> OracleAddition(const Addition<T>& c) {
  Output<T> output{ExactBuffer<T>(c.count()), ""};
  Call::Oracle(c, output.values.data(), &output.lines);
  return output;
}

template <typename Call, typename T>
::testing::AssertionResult SameOutputs(const Addition<T>& c, const Output<T>& expected,
                                       const Output<T>& actual, const std::string& path) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i, Call::kPerChannel); };
  const auto values = SameArrays(expected.values.data(), actual.values.data(), c.count(),
                                 std::string(Call::kName) + " " + path, describe);
  if (!values) return values;
  return SameText(expected.lines, actual.lines,
                  std::string(Call::kName) + " " + path + (c.count() > 0 ? " " + describe(0) : ""));
}

// The two comparisons, each on its own: the definition against the oracle, and what the kernels
// run against the definition.
template <typename Call, typename T>
::testing::AssertionResult CheckAddition(const Addition<T>& c, int offset = 0) {
  const Output<T> definition = RunAddition<Call>(c, EveryPass{}, offset);
  const auto oracle = SameOutputs<Call>(c, OracleAddition<Call>(c), definition, "EveryPass");
  if (!oracle) return oracle;
  return SameOutputs<Call>(c, definition, RunAddition<Call>(c, ProvenPasses{}, offset),
                           "ProvenPasses");
}

// One element, as the kernels compute it.
template <typename Call, typename T>
Output<T> AddOne(T value, T operand, T factor, float feed_repeat, int mult_shift, int width,
                 bool use_fp16_acc = false) {
  return RunAddition<Call>(
      Addition<T>{{value}, {operand}, factor, feed_repeat, mult_shift, width, use_fp16_acc},
      ProvenPasses{});
}

template <typename T>
std::vector<int> Widths() {
  if constexpr (std::is_same_v<T, int32_t>) {
    return {0, 1, 2, 8, 16, 24, 31, 32};
  } else {
    return {0, 1, 8, 24, 25, 26, 32, 40, 130};
  }
}

// Crosses the attributes and scalars; each meets drawn data of all kinds.
template <typename Call, typename T>
void CrossAttributes(bool use_fp16_acc, const std::vector<float>& repeats, int64_t count) {
  Random random(0xadd + (use_fp16_acc ? 1 : 0));
  for (const int width : Widths<T>()) {
    for (const int shift : {0, 1, 2, 5, 30, 31, 32, 33, 127, -1, -3, -31, -32, -128}) {
      for (const float repeat : repeats) {
        for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
          Addition<T> c;
          c.value = DrawMany<T>(&random, data, count);
          c.operand = DrawMany<T>(&random, data, Call::kPerChannel ? 5 : count);
          c.factor = random.Flag() ? T{1} : Draw<T>(&random, data);
          c.feed_repeat = repeat;
          c.mult_shift = shift;
          c.accumulator_size = width;
          c.use_fp16_acc = use_fp16_acc;
          ASSERT_TRUE(CheckAddition<Call>(c, random.Between(0, 3)));
        }
      }
    }
  }
}

// Every corner as the accumulator with every corner as the operand.
template <typename Call, typename T>
void CrossCorners(bool use_fp16_acc) {
  const std::vector<T> corners = Corners<T>();
  for (const int width : Widths<T>()) {
    for (const int shift : {0, 1, 3}) {
      for (const T operand : corners) {
        Addition<T> c;
        c.value = corners;
        c.operand.assign(Call::kPerChannel ? 1 : corners.size(), operand);
        c.factor = T{1};
        c.feed_repeat = 2.0f;
        c.mult_shift = shift;
        c.accumulator_size = width;
        c.use_fp16_acc = use_fp16_acc;
        ASSERT_TRUE(CheckAddition<Call>(c));
      }
    }
  }
}

// Counts around every lane and tile width, at every misalignment; nothing behind the last element
// may be read (the buffers are exact) or written.
template <typename Call, typename T>
void CrossSizes() {
  Random random(0x512e5);
  for (const int64_t count : {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65}) {
    for (int offset = 0; offset < 4; ++offset) {
      for (const int64_t channels : {1, 2, 3, 4, 5, 8, 17}) {
        Addition<T> c;
        c.value = DrawMany<T>(&random, Data::kSmall, count);
        c.operand = DrawMany<T>(&random, Data::kSmall, Call::kPerChannel ? channels : count);
        c.factor = T{3};
        c.feed_repeat = 3.0f;
        c.mult_shift = 1;
        c.accumulator_size = 8;
        ASSERT_TRUE(CheckAddition<Call>(c, offset)) << "count " << count << " offset " << offset;

        std::vector<T> guarded(static_cast<size_t>(count) + 64, T{77});
        Call::Run(c, c.value.data(), c.operand.data(), guarded.data(), ProvenPasses{});
        for (size_t i = static_cast<size_t>(count); i < guarded.size(); ++i) {
          ASSERT_TRUE(SameBits(guarded[i], T{77})) << "wrote element " << i << " of " << count;
        }
        if (!Call::kPerChannel) break;
      }
    }
  }
}

// Repeat counts that are not numbers of passes yet: none, fractions, the smallest.
inline std::vector<float> FeedRepeats() {
  return {-std::numeric_limits<float>::infinity(), -1.0f, -0.0f, 0.0f, 1e-45f, 0.5f, 1.0f, 2.5f};
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_ADDITION_H_
