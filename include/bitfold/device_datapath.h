// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The datapath as the kernels of a GPU compute it (rules D1 to D4 of docs/arithmetic.md). Products,
// their scaling and the integer accumulator are the host's rules, and the quantiser has its bits in
// steps that suit a GPU; what differs, on purpose, stands here and has a name of its own. Plain
// functions, so that the host computes the same bits where it must.

#ifndef BITFOLD_DEVICE_DATAPATH_H_
#define BITFOLD_DEVICE_DATAPATH_H_

#include <cstdint>
#include <type_traits>

#include "bitfold/accumulator.h"
#include "bitfold/datapath.h"
#include "bitfold/device_half.h"
#include "bitfold/feed_repeat.h"
#include "bitfold/host_device.h"
#include "bitfold/int32_passes.h"
#include "bitfold/warning.h"

namespace bitfold {

// A device's loop of passes ends here, whatever the feed repeat: an infinite one must not hang it.
inline constexpr uint32_t kMaxDevicePasses = uint32_t{1} << 31;

// Unlike IsOutOfWarningRange, false for NaN: a device prints no line for it.
BITFOLD_HOST_DEVICE inline bool IsOutOfDeviceWarningRange(float sum) {
  return sum >= static_cast<float>(kWarningLimit) || sum < static_cast<float>(-kWarningLimit);
}

// Unlike WrapOnce, the integer formula in single precision, rounded after each of its steps: for
// large sums and bounds the last bit can differ. NaN passes.
BITFOLD_HOST_DEVICE inline float WrapOnDevice(float sum, float min, float max) {
  if (sum > max) return ((sum - max) + -1.0f) + min;
  if (sum < min) return ((sum - min) + 1.0f) + max;
  return sum;
}

BITFOLD_HOST_DEVICE inline int32_t QuantiseInitialValueOnDevice(int32_t value) {
  return TruncateToInt32(QuantiseHalfOnDevice(static_cast<float>(value)));
}
BITFOLD_HOST_DEVICE inline float QuantiseInitialValueOnDevice(float value) {
  return QuantiseHalfOnDevice(value);
}

// What the datapaths of both element types share with the host's: all up to the scaled product.
template <typename T>
class CommonDeviceDatapath : public CommonDatapath<T> {
 public:
  using CommonDatapath<T>::CommonDatapath;

  BITFOLD_HOST_DEVICE T InitialValue(T value) const {
    return this->use_fp16_acc() ? QuantiseInitialValueOnDevice(value) : value;
  }

  BITFOLD_HOST_DEVICE T Product(T a, T b) const { return this->ScaleProduct(this->Multiply(a, b)); }
};

// The multiplier, the shifter and the accumulator in a row, as a kernel gets them: the bounds are
// AccumulatorLimits of the width, formed on the host.
template <typename T>
class DeviceDatapath;

// The host's Datapath<int32_t> but for the bounds, which come as they are.
template <>
class DeviceDatapath<int32_t> : public CommonDeviceDatapath<int32_t> {
 public:
  BITFOLD_HOST_DEVICE DeviceDatapath(int32_t acc_min, int32_t acc_max, int32_t mult_shift,
                                     bool use_fp16_acc)
      : CommonDeviceDatapath<int32_t>(mult_shift, use_fp16_acc), limits_(acc_min, acc_max) {}

  BITFOLD_HOST_DEVICE int32_t Accumulate(int32_t acc, int32_t addend) const {
    return bitfold::Accumulate(acc, addend, limits_);
  }

  BITFOLD_HOST_DEVICE const AccumulatorLimits<int32_t>& limits() const { return limits_; }

 private:
  AccumulatorLimits<int32_t> limits_;
};

// Lines are printed by whichever thread comes first.
template <>
class DeviceDatapath<float> : public CommonDeviceDatapath<float> {
 public:
  BITFOLD_HOST_DEVICE DeviceDatapath(float acc_min, float acc_max, int32_t mult_shift,
                                     bool use_fp16_acc)
      : CommonDeviceDatapath<float>(mult_shift, use_fp16_acc), min_(acc_min), max_(acc_max) {}

  BITFOLD_HOST_DEVICE float Accumulate(float acc, float addend) const {
    const float sum = acc + addend;
    if (IsOutOfDeviceWarningRange(sum)) PrintAccumulatorWarning(sum);
    return use_fp16_acc() ? AccumulateHalfOnDevice(acc, addend) : WrapOnDevice(sum, min_, max_);
  }

  BITFOLD_HOST_DEVICE float min() const { return min_; }
  BITFOLD_HOST_DEVICE float max() const { return max_; }

 private:
  float min_;
  float max_;
};

// The passes of a feed repeat on a device (rule D3): as many as on the host, none for NaN, and
// kMaxDevicePasses where that has none to give.
BITFOLD_HOST_DEVICE inline int64_t DeviceFeedRepeatCount(float feed_repeat) {
  if (!(feed_repeat > 0.0f)) return 0;
  return feed_repeat > kMaxFeedRepeat ? int64_t{kMaxDevicePasses} : FeedRepeatCount(feed_repeat);
}

// Integer passes, of which the rest is not made from the first one on that is proven.
template <typename... Addends>
BITFOLD_HOST_DEVICE int32_t AddManyOnDevice(const DeviceDatapath<int32_t>& datapath, int32_t acc,
                                            int64_t passes, Addends... addends) {
  for (; passes > 0; --passes) {
    if ((... && IsProvenPass(datapath.limits(), acc, addends))) {
      return MakeProvenPasses(datapath.limits(), acc, (... + int64_t{addends}), passes);
    }
    ((acc = datapath.Accumulate(acc, addends)), ...);
  }
  return acc;
}

// The passes of a feed: each adds the addends, which are scaled products, one after the other. A
// feed repeat that is NaN, like one that is not positive, adds nothing. Few integer passes are made
// faster than they are proven.
template <typename T, typename... Addends>
BITFOLD_HOST_DEVICE T AddRepeatedlyOnDevice(const DeviceDatapath<T>& datapath, T acc,
                                            float feed_repeat, Addends... addends) {
  if (!(feed_repeat > 0.0f)) return acc;
  if constexpr (std::is_same_v<T, int32_t>) {
    constexpr float kFewPasses = 64.0f;
    if (feed_repeat > kFewPasses) {
      return AddManyOnDevice(datapath, acc, DeviceFeedRepeatCount(feed_repeat), addends...);
    }
  }
  uint32_t k = 0;
  do {
    ((acc = datapath.Accumulate(acc, addends)), ...);
    ++k;
  } while (k < kMaxDevicePasses && feed_repeat > static_cast<float>(k));
  return acc;
}

}  // namespace bitfold

#endif  // BITFOLD_DEVICE_DATAPATH_H_
