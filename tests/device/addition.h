// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// An addition as the program sees it: its inputs, the host's definition of an element, and its
// launch on the device.

#ifndef BITFOLD_TESTS_DEVICE_ADDITION_H_
#define BITFOLD_TESTS_DEVICE_ADDITION_H_

#include <array>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/accumulator.h"
#include "bitfold/device_datapath.h"
#include "device/launchers.h"
#include "device_runtime.h"
#include "support/bits.h"
#include "values.h"

namespace bitfold::device_test {

template <typename T>
inline constexpr const char* kTypeName = std::is_same_v<T, float> ? "float" : "int32";

struct Attributes {
  int accumulator_size = 24;
  int mult_shift = 0;
  bool use_fp16_acc = false;
  float feed_repeat = 1.0f;
};

inline std::string Describe(const Attributes& attributes) {
  return testing::Describe("accumulator_size", attributes.accumulator_size, "mult_shift",
                           attributes.mult_shift, "use_fp16_acc", attributes.use_fp16_acc,
                           "feed_repeat", attributes.feed_repeat);
}

// The datapath as the launchers set it up.
template <typename T>
DeviceDatapath<T> MakeDatapath(const Attributes& attributes) {
  const AccumulatorLimits<T> limits(attributes.accumulator_size);
  return {limits.min, limits.max, attributes.mult_shift, attributes.use_fp16_acc};
}

enum class AdditionKernel {
  kAddEwFeedRepeat4D,
  kAddEwFeedRepeat2D,
  kAddFeedRepeat,
  kAddDecomposedFeedRepeat,
  kAddStandaloneEw
};

inline constexpr AdditionKernel kAdditionKernels[] = {
    AdditionKernel::kAddEwFeedRepeat4D, AdditionKernel::kAddEwFeedRepeat2D,
    AdditionKernel::kAddFeedRepeat, AdditionKernel::kAddDecomposedFeedRepeat,
    AdditionKernel::kAddStandaloneEw};

inline const char* Name(AdditionKernel kernel) {
  switch (kernel) {
    case AdditionKernel::kAddEwFeedRepeat4D:
      return "AddEwFeedRepeat_4D";
    case AdditionKernel::kAddEwFeedRepeat2D:
      return "AddEwFeedRepeat_2D";
    case AdditionKernel::kAddFeedRepeat:
      return "AddFeedRepeat";
    case AdditionKernel::kAddDecomposedFeedRepeat:
      return "AddDecomposedFeedRepeat";
    case AdditionKernel::kAddStandaloneEw:
      return "AddStandaloneEw";
  }
  return "";
}

// Every kernel reads the inputs that it has: `elementwise` is as large as `value`; `a` and `b` hold
// an element per channel (a bias, the two of a decomposed one, or the two halves of the weights).
template <typename T>
struct AdditionInputs {
  AdditionKernel kernel;
  std::array<int, 4> shape;
  std::vector<T> value;
  std::vector<T> elementwise;
  std::vector<T> a;
  std::vector<T> b;
  T a_factor = T{1};
  T b_factor = T{1};

  size_t Channel(size_t i) const { return i % a.size(); }

  // The host's definition.
  T Element(const DeviceDatapath<T>& datapath, float feed_repeat, size_t i) const {
    const size_t j = Channel(i);
    const T start = datapath.InitialValue(value[i]);
    switch (kernel) {
      case AdditionKernel::kAddEwFeedRepeat4D:
      case AdditionKernel::kAddEwFeedRepeat2D:
        return AddRepeatedlyOnDevice(datapath, start, feed_repeat,
                                     datapath.Product(elementwise[i], a_factor));
      case AdditionKernel::kAddFeedRepeat:
        return AddRepeatedlyOnDevice(datapath, start, feed_repeat,
                                     datapath.Product(a[j], a_factor));
      case AdditionKernel::kAddDecomposedFeedRepeat:
        return AddRepeatedlyOnDevice(datapath, start, feed_repeat, datapath.Product(a[j], a_factor),
                                     datapath.Product(b[j], b_factor));
      case AdditionKernel::kAddStandaloneEw:
        return datapath.Accumulate(datapath.Product(value[i], a[j]),
                                   datapath.Product(elementwise[i], b[j]));
    }
    return T{};
  }

  std::vector<T> Expected(const Attributes& attributes) const {
    const DeviceDatapath<T> datapath = MakeDatapath<T>(attributes);
    std::vector<T> output;
    output.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) {
      output.push_back(Element(datapath, attributes.feed_repeat, i));
    }
    return output;
  }

  std::string Describe(size_t i) const {
    const size_t j = Channel(i);
    std::string text = Name(kernel);
    text.append(" ").append(kTypeName<T>).append(" ");
    return text + testing::Describe("d0", shape[0], "d1", shape[1], "d2", shape[2], "d3", shape[3],
                                    "value", value[i], "elementwise", elementwise[i], "a", a[j],
                                    "b", b[j], "a_factor", a_factor, "b_factor", b_factor);
  }
};

// The inputs in device memory, for launches of several attributes.
template <typename T>
class AdditionOnDevice {
 public:
  explicit AdditionOnDevice(const AdditionInputs<T>& inputs)
      : kernel_(inputs.kernel),
        shape_(inputs.shape),
        value_(inputs.value),
        elementwise_(inputs.elementwise),
        a_(inputs.a),
        b_(inputs.b),
        weights_(Joined(inputs.a, inputs.b)),
        a_factor_(std::vector<T>{inputs.a_factor}),
        b_factor_(std::vector<T>{inputs.b_factor}),
        feed_repeat_(size_t{1}),
        mult_shift_(size_t{1}),
        output_(inputs.value.size()) {}

  // Sets the scalars and poisons the output, for launches that follow.
  void Prepare(const Attributes& attributes) {
    feed_repeat_.Set(attributes.feed_repeat);
    mult_shift_.Set(static_cast<int8_t>(attributes.mult_shift));
    out_ = output_.Prepare();
  }

  void Launch(const Attributes& attributes) {
    const auto [d0, d1, d2, d3] = shape_;
    const AdditionShape shape{d0, d1, d2, d3};
    const DatapathAttributes datapath{attributes.accumulator_size, mult_shift_.data(),
                                      attributes.use_fp16_acc};
    const float* repeat = feed_repeat_.data();
    switch (kernel_) {
      case AdditionKernel::kAddEwFeedRepeat4D:
        return LaunchAddEwFeedRepeat4D<T>(
            Stream(),
            {value_.data(), elementwise_.data(), a_factor_.data(), repeat, out_, shape, datapath});
      case AdditionKernel::kAddEwFeedRepeat2D:
        return LaunchAddEwFeedRepeat2D<T>(Stream(), {value_.data(),
                                                     elementwise_.data(),
                                                     a_factor_.data(),
                                                     repeat,
                                                     out_,
                                                     {d0 * d1, 1, 1, d2 * d3},
                                                     datapath});
      case AdditionKernel::kAddFeedRepeat:
        return LaunchAddFeedRepeat<T>(
            Stream(), {value_.data(), a_.data(), a_factor_.data(), repeat, out_, shape, datapath});
      case AdditionKernel::kAddDecomposedFeedRepeat:
        return LaunchAddDecomposedFeedRepeat<T>(
            Stream(), {value_.data(), a_.data(), b_.data(), a_factor_.data(), b_factor_.data(),
                       repeat, out_, shape, datapath});
      case AdditionKernel::kAddStandaloneEw:
        return LaunchAddStandaloneEw<T>(
            Stream(), {value_.data(), elementwise_.data(), weights_.data(), out_, shape, datapath});
    }
  }

  std::vector<T> Run(const Attributes& attributes, bool* guard_is_intact) {
    Prepare(attributes);
    Launch(attributes);
    WaitForDevice();
    return output_.Take(guard_is_intact);
  }

 private:
  static std::vector<T> Joined(std::vector<T> first, const std::vector<T>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
  }

  AdditionKernel kernel_;
  std::array<int, 4> shape_;
  Buffer<T> value_;
  Buffer<T> elementwise_;
  Buffer<T> a_;
  Buffer<T> b_;
  Buffer<T> weights_;
  Buffer<T> a_factor_;
  Buffer<T> b_factor_;
  Buffer<float> feed_repeat_;
  Buffer<int8_t> mult_shift_;
  GuardedOutput<T> output_;
  T* out_ = nullptr;
};

// Inputs of `data`, pseudo-random.
template <typename T>
AdditionInputs<T> DrawAddition(Random* random, Data data, AdditionKernel kernel,
                               const std::array<int, 4>& shape) {
  const int64_t count = int64_t{shape[0]} * shape[1] * shape[2] * shape[3];
  return {kernel,
          shape,
          DrawMany<T>(random, data, count),
          DrawMany<T>(random, data, count),
          DrawMany<T>(random, data, shape[3]),
          DrawMany<T>(random, data, shape[3]),
          Draw<T>(random, random->Flag() ? Data::kSmall : data),
          Draw<T>(random, random->Flag() ? Data::kSmall : data)};
}

}  // namespace bitfold::device_test

#endif  // BITFOLD_TESTS_DEVICE_ADDITION_H_
