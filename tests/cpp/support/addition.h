// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The four additions as their tests see them: one case, computed by the oracle, by the definition
// (every pass made) and by what the kernel runs.

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

// `operand` and `second` hold what the op's traits say.
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
};

// A case in memory of exact size, the tensors misaligned. Scalars are read at element 0.
template <typename T>
struct AdditionInputs {
  AdditionInputs(const Addition<T>& c, int offset)
      : value(c.value, offset % 4),
        operand(c.operand, (offset + 1) % 4),
        second(c.second, (offset + 2) % 4),
        factor(std::vector<T>{c.factor}),
        second_factor(std::vector<T>{c.second_factor}),
        feed_repeat(std::vector<float>{c.feed_repeat}),
        mult_shift(std::vector<int8_t>{static_cast<int8_t>(c.mult_shift)}),
        attributes{c.accumulator_size, mult_shift.data(), c.use_fp16_acc} {}

  const ExactBuffer<T> value;
  const ExactBuffer<T> operand;
  const ExactBuffer<T> second;
  const ExactBuffer<T> factor;
  const ExactBuffer<T> second_factor;
  const ExactBuffer<float> feed_repeat;
  const ExactBuffer<int8_t> mult_shift;
  const DatapathAttributes attributes;
};

// What the four ops have in common, and where they differ.
struct AdditionTraits {
  static constexpr bool kPerChannel = false;  // `operand` holds an element per channel, not value
  static constexpr int kSecondSets = 0;       // elements per channel in `second`
  static constexpr bool kRepeats = true;      // factors and a feed repeat

  template <typename T>
  static int64_t Channels(const Addition<T>& c) {
    return static_cast<int64_t>(c.operand.size());
  }

  // Of the dimensions the CPU reads the channels alone, beside the count.
  static AdditionShape ShapeOf(int64_t, int64_t channels) {
    return {1, 1, 1, static_cast<int32_t>(channels)};
  }
};

// `operand` is the elementwise tensor.
struct HAddTraits : AdditionTraits {
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
  static AddCall<T> CallOf(const AdditionInputs<T>& in, const AdditionShape& shape, T* out) {
    return {in.value.data(), in.operand.data(), in.factor.data(), in.feed_repeat.data(), out,
            shape,           in.attributes};
  }
  template <typename T>
  static void Define(const AddCall<T>& call, int64_t count) {
    DefineAdd(call, 0, count, EveryPass{});
  }
  template <typename T>
  static void Run(const AddCall<T>& call, int64_t count, Workers* workers,
                  const Cancellation* cancellation = nullptr) {
    ComputeAdd(call, count, workers, cancellation);
  }
};

// `operand` is the bias.
struct HBiasAddTraits : AdditionTraits {
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
  static BiasAddCall<T> CallOf(const AdditionInputs<T>& in, const AdditionShape& shape, T* out) {
    return {in.value.data(), in.operand.data(), in.factor.data(), in.feed_repeat.data(), out,
            shape,           in.attributes};
  }
  template <typename T>
  static void Define(const BiasAddCall<T>& call, int64_t count) {
    DefineBiasAdd(call, 0, count, EveryPass{});
  }
  template <typename T>
  static void Run(const BiasAddCall<T>& call, int64_t count, Workers* workers,
                  const Cancellation* cancellation = nullptr) {
    ComputeBiasAdd(call, count, workers, cancellation);
  }
};

// `operand` and `second` are the two parts of the bias.
struct HDecomposedBiasAddTraits : AdditionTraits {
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
  static DecomposedBiasAddCall<T> CallOf(const AdditionInputs<T>& in, const AdditionShape& shape,
                                         T* out) {
    return {in.value.data(),
            in.operand.data(),
            in.second.data(),
            in.factor.data(),
            in.second_factor.data(),
            in.feed_repeat.data(),
            out,
            shape,
            in.attributes};
  }
  template <typename T>
  static void Define(const DecomposedBiasAddCall<T>& call, int64_t count) {
    DefineDecomposedBiasAdd(call, 0, count, EveryPass{});
  }
  template <typename T>
  static void Run(const DecomposedBiasAddCall<T>& call, int64_t count, Workers* workers,
                  const Cancellation* cancellation = nullptr) {
    ComputeDecomposedBiasAdd(call, count, workers, cancellation);
  }
};

// `operand` is the elementwise tensor, `second` the weights of both operands. One pass, no factor.
struct HStandaloneElementwiseAddTraits : AdditionTraits {
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
  static StandaloneElementwiseAddCall<T> CallOf(const AdditionInputs<T>& in,
                                                const AdditionShape& shape, T* out) {
    return {in.value.data(), in.operand.data(), in.second.data(), out, shape, in.attributes};
  }
  template <typename T>
  static void Define(const StandaloneElementwiseAddCall<T>& call, int64_t count) {
    DefineStandaloneElementwiseAdd(call, 0, count);
  }
  template <typename T>
  static void Run(const StandaloneElementwiseAddCall<T>& call, int64_t count, Workers* workers) {
    ComputeStandaloneElementwiseAdd(call, count, workers);
  }
};

// An addition with the op that makes it, for op_case.h.
template <typename Op, typename T>
struct AdditionCase {
  using Element = T;
  static constexpr const char* kName = Op::kName;
  const Addition<T>& c;

  int64_t count() const { return c.count(); }
  std::optional<Path> Loops() const { return Path::kDatapathPortable; }

  std::string Inputs(int64_t i) const {
    const auto channel = static_cast<size_t>(i % std::max<int64_t>(1, Op::Channels(c)));
    const auto at = static_cast<size_t>(i);
    std::string text =
        Describe("value", c.value[at], "operand", c.operand[Op::kPerChannel ? channel : at]);
    for (size_t k = 0; k < Op::kSecondSets; ++k) {
      const size_t set = k * static_cast<size_t>(Op::Channels(c));
      text += Describe("second", c.second[set + channel]);
    }
    return text + Describe("factor", c.factor, "second factor", c.second_factor, "repeat",
                           c.feed_repeat, "shift", c.mult_shift, "width", c.accumulator_size,
                           "fp16", c.use_fp16_acc);
  }

  void Oracle(T* out, std::string* lines) const { Op::Oracle(c, out, lines); }
  void Define(int offset, T* out) const {
    With(offset, out, [this](const auto& call) { Op::Define(call, count()); });
  }
  void Run(int offset, Workers* workers, T* out) const {
    With(offset, out, [=](const auto& call) { Op::Run(call, count(), workers); });
  }

 private:
  template <typename How>
  void With(int offset, T* out, How how) const {
    const AdditionInputs<T> in(c, offset);
    how(Op::CallOf(in, Op::ShapeOf(count(), Op::Channels(c)), out));
  }
};

// Both comparisons.
template <typename Op, typename T>
::testing::AssertionResult CheckAddition(const Addition<T>& c, int offset = 0) {
  return CheckCase(AdditionCase<Op, T>{c}, offset);
}

template <typename Op, typename T>
Output<T> RunAddition(const Addition<T>& c) {
  return KernelOf(AdditionCase<Op, T>{c});
}

// One element of an op without a second operand, as the kernels compute it.
template <typename Op, typename T>
Output<T> AddOne(T value, T operand, T factor, float feed_repeat, int mult_shift, int width,
                 bool use_fp16_acc = false) {
  return RunAddition<Op>(Addition<T>{
      {value}, {operand}, factor, feed_repeat, mult_shift, width, use_fp16_acc, {}, T{1}});
}

// An addition of drawn data, one pass, unlimited.
template <typename Op, typename T>
Addition<T> DrawAddition(Random* random, Data data, int64_t count, int64_t channels) {
  Addition<T> c;
  c.value = DrawMany<T>(random, data, count);
  c.operand = DrawMany<T>(random, data, Op::kPerChannel ? channels : count);
  c.second = DrawMany<T>(random, data, Op::kSecondSets * channels);
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
template <typename Op, typename T>
void CrossAttributes(bool use_fp16_acc, const std::vector<float>& repeats, int64_t count) {
  Random random(0xadd + (use_fp16_acc ? 1 : 0));
  for (const int width : Widths<T>()) {
    for (const int shift : Shifts()) {
      for (const float repeat : Op::kRepeats ? repeats : std::vector<float>{1.0f}) {
        for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
          Addition<T> c = DrawAddition<Op, T>(&random, data, count, 5);
          c.factor = random.Flag() ? T{1} : Draw<T>(&random, data);
          c.second_factor = random.Flag() ? T{1} : Draw<T>(&random, data);
          c.feed_repeat = repeat;
          c.mult_shift = shift;
          c.accumulator_size = width;
          c.use_fp16_acc = use_fp16_acc;
          ASSERT_TRUE(CheckAddition<Op>(c, random.Between(0, 3)));
        }
      }
    }
  }
}

// Every corner as the accumulator with every corner as the operand.
template <typename Op, typename T>
void CrossCorners(bool use_fp16_acc) {
  Random random(0xc04e5);
  const std::vector<T> corners = Corners<T>();
  for (const int width : Widths<T>()) {
    for (const int shift : {0, 1, 3}) {
      for (const T operand : corners) {
        Addition<T> c;
        c.value = corners;
        c.operand.assign(Op::kPerChannel ? 1 : corners.size(), operand);
        c.second.assign(Op::kSecondSets, Op::kRepeats ? random.Pick(corners) : T{1});
        c.feed_repeat = 2.0f;
        c.mult_shift = shift;
        c.accumulator_size = width;
        c.use_fp16_acc = use_fp16_acc;
        ASSERT_TRUE(CheckAddition<Op>(c));
      }
    }
  }
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_ADDITION_H_
