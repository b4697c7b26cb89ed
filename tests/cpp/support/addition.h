// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The four additions as their tests see them: one case, computed by the oracle, by the definition
// (every pass made) and by the kernel's function of src/additions.h.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_ADDITION_H_
#define BITFOLD_TESTS_CPP_SUPPORT_ADDITION_H_

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/HAdd.h"
#include "bitfold/HBiasAdd.h"
#include "bitfold/HDecomposedBiasAdd.h"
#include "bitfold/HStandaloneElementwiseAdd.h"
#include "cpu/additions.h"
#include "reference.h"
#include "support/bits.h"
#include "support/ledger.h"
#include "support/op_case.h"
#include "support/random.h"
#include "support/tables.h"

namespace bitfold::testing {

// `operand` and `second` hold what the op's Call says.
template <typename T>
struct Addition {
  std::vector<T> value;
  std::vector<T> operand;
  T factor = T{1};
  float feed_repeat = 1.0f;
  int mult_shift = 0;
  int accumulator_size = 32;
  bool use_fp16_acc = false;
  std::vector<T> second;
  T second_factor = T{1};

  int64_t count() const { return static_cast<int64_t>(value.size()); }
  Datapath<T> datapath() const { return {accumulator_size, mult_shift, use_fp16_acc}; }
  int64_t passes() const { return FeedRepeatCount(feed_repeat); }
};

template <typename T>
struct AdditionInputs {
  const T* value;
  const T* operand;
  const T* second;
};

// What the four ops have in common, and where they differ.
struct AdditionCall {
  static constexpr bool kPerChannel = false;  // `operand` holds an element per channel, not value
  static constexpr int kSecondSets = 0;       // elements per channel in `second`
  static constexpr bool kRepeats = true;      // factors and a feed repeat

  template <typename T>
  static int64_t Channels(const Addition<T>& c) {
    return static_cast<int64_t>(c.operand.size());
  }
};

// `operand` is the elementwise tensor.
struct HAddCall : AdditionCall {
  static constexpr const char* kName = "HAdd";
  static constexpr Path kInt32Path = Path::kHAddInt32;
  static constexpr Path kFloatPath = Path::kHAddFloat;
  static constexpr Path kHalfPath = Path::kHAddHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::Add<T>(c.value.data(), c.operand.data(), c.factor, c.feed_repeat, c.mult_shift,
                      c.accumulator_size, c.use_fp16_acc, c.count(), out, lines);
  }
  template <typename T>
  static void Define(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    HAddElements(c.datapath(), in.value, in.operand, c.factor, c.passes(), 0, c.count(), out,
                 EveryPass{});
  }
  template <typename T>
  static void Run(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    AddElementwise(c.datapath(), in.value, in.operand, c.factor, c.passes(), c.count(), out);
  }
};

// `operand` is the bias.
struct HBiasAddCall : AdditionCall {
  static constexpr const char* kName = "HBiasAdd";
  static constexpr bool kPerChannel = true;
  static constexpr Path kInt32Path = Path::kHBiasAddInt32;
  static constexpr Path kFloatPath = Path::kHBiasAddFloat;
  static constexpr Path kHalfPath = Path::kHBiasAddHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::BiasAdd<T>(c.value.data(), c.operand.data(), c.factor, c.feed_repeat, c.mult_shift,
                          c.accumulator_size, c.use_fp16_acc, c.count(), Channels(c), out, lines);
  }
  template <typename T>
  static void Define(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    HBiasAddElements(c.datapath(), in.value, in.operand, c.factor, c.passes(), 0, c.count(),
                     Channels(c), out, EveryPass{});
  }
  template <typename T>
  static void Run(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    AddBias(c.datapath(), in.value, in.operand, c.factor, c.passes(), c.count(), Channels(c), out);
  }
};

// `operand` and `second` are the two parts of the bias.
struct HDecomposedBiasAddCall : AdditionCall {
  static constexpr const char* kName = "HDecomposedBiasAdd";
  static constexpr bool kPerChannel = true;
  static constexpr int kSecondSets = 1;
  static constexpr Path kInt32Path = Path::kHDecomposedBiasAddInt32;
  static constexpr Path kFloatPath = Path::kHDecomposedBiasAddFloat;
  static constexpr Path kHalfPath = Path::kHDecomposedBiasAddHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::DecomposedBiasAdd<T>(
        c.value.data(), c.operand.data(), c.second.data(), c.factor, c.second_factor, c.feed_repeat,
        c.mult_shift, c.accumulator_size, c.use_fp16_acc, c.count(), Channels(c), out, lines);
  }
  template <typename T>
  static void Define(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    HDecomposedBiasAddElements(c.datapath(), in.value, in.operand, in.second, c.factor,
                               c.second_factor, c.passes(), 0, c.count(), Channels(c), out,
                               EveryPass{});
  }
  template <typename T>
  static void Run(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    AddDecomposedBias(c.datapath(), in.value, in.operand, in.second, c.factor, c.second_factor,
                      c.passes(), c.count(), Channels(c), out);
  }
};

// `operand` is the elementwise tensor, `second` the weights of both operands. One pass, no factor.
struct HStandaloneElementwiseAddCall : AdditionCall {
  static constexpr const char* kName = "HStandaloneElementwiseAdd";
  static constexpr int kSecondSets = 2;
  static constexpr bool kRepeats = false;
  static constexpr Path kInt32Path = Path::kHStandaloneElementwiseAddInt32;
  static constexpr Path kFloatPath = Path::kHStandaloneElementwiseAddFloat;
  static constexpr Path kHalfPath = Path::kHStandaloneElementwiseAddHalf;

  template <typename T>
  static int64_t Channels(const Addition<T>& c) {
    return static_cast<int64_t>(c.second.size()) / 2;
  }
  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::StandaloneAdd<T>(c.value.data(), c.operand.data(), c.second.data(), c.mult_shift,
                                c.accumulator_size, c.use_fp16_acc, c.count(), Channels(c), out,
                                lines);
  }
  template <typename T>
  static void Define(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    HStandaloneElementwiseAddElements(c.datapath(), in.value, in.operand, in.second, 0, c.count(),
                                      Channels(c), out);
  }
  template <typename T>
  static void Run(const Addition<T>& c, const AdditionInputs<T>& in, T* out) {
    AddWeighted(c.datapath(), in.value, in.operand, in.second, c.count(), Channels(c), out);
  }
};

// An addition with the op that makes it, for op_case.h.
template <typename Call, typename T>
struct AdditionCase {
  using Element = T;
  static constexpr const char* kName = Call::kName;
  const Addition<T>& c;

  int64_t count() const { return c.count(); }
  std::optional<Path> Loops() const { return Path::kDatapathPortable; }

  std::string Inputs(int64_t i) const {
    const auto channel = static_cast<size_t>(i % std::max<int64_t>(1, Call::Channels(c)));
    const auto at = static_cast<size_t>(i);
    std::string text =
        Describe("value", c.value[at], "operand", c.operand[Call::kPerChannel ? channel : at]);
    for (size_t k = 0; k < Call::kSecondSets; ++k) {
      const size_t set = k * static_cast<size_t>(Call::Channels(c));
      text += Describe("second", c.second[set + channel]);
    }
    return text + Describe("factor", c.factor, "second factor", c.second_factor, "repeat",
                           c.feed_repeat, "shift", c.mult_shift, "width", c.accumulator_size,
                           "fp16", c.use_fp16_acc);
  }

  void Oracle(T* out, std::string* lines) const { Call::Oracle(c, out, lines); }
  void Define(int offset, T* out) const { With(offset, Call::template Define<T>, out); }
  void Run(int offset, T* out) const { With(offset, Call::template Run<T>, out); }

 private:
  template <typename How>
  void With(int offset, How how, T* out) const {
    const auto in = Misaligned<T>({&c.value, &c.operand, &c.second}, offset);
    how(c, AdditionInputs<T>{in[0].data(), in[1].data(), in[2].data()}, out);
  }
};

// Both comparisons.
template <typename Call, typename T>
::testing::AssertionResult CheckAddition(const Addition<T>& c, int offset = 0) {
  return CheckCase(AdditionCase<Call, T>{c}, offset);
}

template <typename Call, typename T>
Output<T> RunAddition(const Addition<T>& c) {
  return KernelOf(AdditionCase<Call, T>{c});
}

// One element of an op without a second operand, as the kernels compute it.
template <typename Call, typename T>
Output<T> AddOne(T value, T operand, T factor, float feed_repeat, int mult_shift, int width,
                 bool use_fp16_acc = false) {
  return RunAddition<Call>(Addition<T>{
      {value}, {operand}, factor, feed_repeat, mult_shift, width, use_fp16_acc, {}, T{1}});
}

// An addition of drawn data, one pass, unlimited.
template <typename Call, typename T>
Addition<T> DrawAddition(Random* random, Data data, int64_t count, int64_t channels) {
  Addition<T> c;
  c.value = DrawMany<T>(random, data, count);
  c.operand = DrawMany<T>(random, data, Call::kPerChannel ? channels : count);
  c.second = DrawMany<T>(random, data, Call::kSecondSets * channels);
  return c;
}

template <typename T>
std::vector<int> Widths() {
  if constexpr (std::is_same_v<T, int32_t>) {
    return {0, 1, 2, 8, 16, 24, 31, 32};
  } else {
    return {0, 1, 8, 24, 25, 26, 32, 40, 130};
  }
}

inline std::vector<int> Shifts() {
  return {0, 1, 2, 5, 30, 31, 32, 33, 127, -1, -3, -31, -32, -128};
}

// Crosses the attributes and scalars; each meets drawn data of all kinds.
template <typename Call, typename T>
void CrossAttributes(bool use_fp16_acc, const std::vector<float>& repeats, int64_t count) {
  Random random(0xadd + (use_fp16_acc ? 1 : 0));
  for (const int width : Widths<T>()) {
    for (const int shift : Shifts()) {
      for (const float repeat : Call::kRepeats ? repeats : std::vector<float>{1.0f}) {
        for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
          Addition<T> c = DrawAddition<Call, T>(&random, data, count, 5);
          c.factor = random.Flag() ? T{1} : Draw<T>(&random, data);
          c.second_factor = random.Flag() ? T{1} : Draw<T>(&random, data);
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
  Random random(0xc04e5);
  const std::vector<T> corners = Corners<T>();
  for (const int width : Widths<T>()) {
    for (const int shift : {0, 1, 3}) {
      for (const T operand : corners) {
        Addition<T> c;
        c.value = corners;
        c.operand.assign(Call::kPerChannel ? 1 : corners.size(), operand);
        c.second.assign(Call::kSecondSets, Call::kRepeats ? random.Pick(corners) : T{1});
        c.feed_repeat = 2.0f;
        c.mult_shift = shift;
        c.accumulator_size = width;
        c.use_fp16_acc = use_fp16_acc;
        ASSERT_TRUE(CheckAddition<Call>(c));
      }
    }
  }
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_ADDITION_H_
