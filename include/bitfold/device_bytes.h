// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Chains of multiply-adds whose factors are all bytes, four to a word: a device multiplies and adds
// up four pairs with one instruction. Which arithmetic allows it is proven by theorems 1 to 3 of
// docs/arithmetic.md; whether numbers are bytes is seen when they are packed.

#ifndef BITFOLD_DEVICE_BYTES_H_
#define BITFOLD_DEVICE_BYTES_H_

#include <cstdint>
#include <type_traits>

#include "bitfold/device_datapath.h"
#include "bitfold/float_bits.h"
#include "bitfold/host_device.h"
#include "bitfold/int32_arithmetic.h"

namespace bitfold {

// ---- Numbers to bytes --------------------------------------------------------------------------

// Numbers on their way to a word. `beyond` has bits above the lowest eight where one was no whole
// number from -128 to 127.
struct ByteCheck {
  uint32_t beyond = 0;
  bool is_whole = true;

  BITFOLD_HOST_DEVICE bool holds() const { return is_whole && beyond < 256; }
};

// A number's byte in the lowest bits; what is above them is anything.
BITFOLD_HOST_DEVICE inline uint32_t ToByte(int32_t x, ByteCheck* check) {
  check->beyond |= static_cast<uint32_t>(x) + 128;
  return static_cast<uint32_t>(x);
}

// By one addition, as the last bit of 1.5 * 2^23 and of what is near it is worth 1. What is beyond
// its neighbourhood, NaN among it, has other bits above the lowest eight. -0 becomes 0.
BITFOLD_HOST_DEVICE inline uint32_t ToByte(float x, ByteCheck* check) {
  constexpr float kBase = 12582912.0f;
  constexpr uint32_t kBaseBits = 0x4b400000;
  const float sum = x + kBase;
  const uint32_t bits = static_cast<uint32_t>(BitsOf(sum));
  check->is_whole &= sum - kBase == x;
  check->beyond |= bits - (kBaseBits - 128);
  return bits;
}

template <typename T>
BITFOLD_HOST_DEVICE bool IsByte(T x) {
  ByteCheck check;
  ToByte(x, &check);
  return check.holds();
}

// Four numbers as a word.
template <typename T>
BITFOLD_HOST_DEVICE uint32_t PackBytes(const T (&x)[4], ByteCheck* check) {
  const uint32_t a = ToByte(x[0], check);
  const uint32_t b = ToByte(x[1], check);
  const uint32_t c = ToByte(x[2], check);
  const uint32_t d = ToByte(x[3], check);
#if defined(__CUDA_ARCH__)
  return __byte_perm(__byte_perm(a, b, 0x0040), __byte_perm(c, d, 0x0040), 0x5410);
#else
  return (a & 0xff) | (b & 0xff) << 8 | (c & 0xff) << 16 | d << 24;
#endif
}

// ---- Sums --------------------------------------------------------------------------------------

// sum plus the products of the bytes of two words, modulo 2^32.
BITFOLD_HOST_DEVICE inline int32_t AddByteProducts(uint32_t a, uint32_t b, int32_t sum) {
#if defined(__CUDA_ARCH__) && __CUDA_ARCH__ >= 610
  return __dp4a(static_cast<int>(a), static_cast<int>(b), sum);
#else
  for (int shift = 0; shift < 32; shift += 8) {
    const int32_t product = static_cast<int8_t>(a >> shift) * static_cast<int8_t>(b >> shift);
    sum = WrapAdd(sum, product);
  }
  return sum;
#endif
}

// How sums of products of bytes end, which are formed modulo 2^32 from 0 on. A product's magnitude
// is 2^14 at most, so that theorem 1 holds from a period of 2^14 on, and theorem 2, too.
class ByteSums {
 public:
  // After as many products of a chain it may be asked whether more can be added.
  static constexpr uint32_t kSteps = 64;
  // Chains of fewer are as fast in other ways.
  static constexpr uint32_t kFewestSteps = 2 * kSteps;

 protected:
  static constexpr uint32_t kMostProduct = uint32_t{1} << 14;

  BITFOLD_HOST_DEVICE int32_t Reduced(int32_t sum) const {
    const uint32_t above = static_cast<uint32_t>(WrapSubtract(sum, min_)) & last_;
    return WrapAdd(static_cast<int32_t>(above), min_);
  }

  int32_t min_ = 0;
  uint32_t last_ = UINT32_MAX;  // number of a period, a power of two
};

// Each class has
//   IsProven    whether the sums are a datapath's, one without scaling and half precision, whose
//               bounds are those of a width
//   MayAddMore  whether kSteps more products, after the last ones for which this held, neither
//               print nor round
//   Leave       the accumulator that a sum is
template <typename T>
class ByteChain;

template <>
class ByteChain<int32_t> : public ByteSums {
 public:
  BITFOLD_HOST_DEVICE explicit ByteChain(const DeviceDatapath<int32_t>& datapath) {
    min_ = datapath.limits().min;
    last_ = static_cast<uint32_t>(WrapSubtract(datapath.limits().max, min_));
  }

  BITFOLD_HOST_DEVICE bool IsProven() const { return last_ >= kMostProduct - 1; }
  BITFOLD_HOST_DEVICE static bool MayAddMore(int32_t) { return true; }
  BITFOLD_HOST_DEVICE int32_t Leave(int32_t sum) const { return Reduced(sum); }
};

// Up to 23 bits by theorem 2. Wider ones wrap where no sum is let come: each that is formed between
// two questions is at most kSteps products away from the first one's sum, and so below 2^23 - 1,
// where theorem 3 holds.
template <>
class ByteChain<float> : public ByteSums {
 public:
  BITFOLD_HOST_DEVICE explicit ByteChain(const DeviceDatapath<float>& datapath)
      : is_proven_(datapath.max() >= kMaxOf14Bits) {
    constexpr float kMaxOf24Bits = 8388607.0f;
    if (datapath.max() >= kMaxOf24Bits) {
      reach_ = 8388606 - kSteps * kMostProduct;
      most_ = 2 * reach_;
      return;
    }
    if (!is_proven_) return;
    min_ = static_cast<int32_t>(datapath.min());
    last_ = static_cast<uint32_t>(static_cast<int32_t>(datapath.max() - datapath.min()));
  }

  BITFOLD_HOST_DEVICE bool IsProven() const { return is_proven_; }
  BITFOLD_HOST_DEVICE bool MayAddMore(int32_t sum) const {
    return static_cast<uint32_t>(sum) + reach_ <= most_;
  }
  BITFOLD_HOST_DEVICE float Leave(int32_t sum) const { return static_cast<float>(Reduced(sum)); }

 private:
  static constexpr float kMaxOf14Bits = 8191.0f;

  bool is_proven_;
  uint32_t reach_ = 0;
  uint32_t most_ = UINT32_MAX;
};

}  // namespace bitfold

#endif  // BITFOLD_DEVICE_BYTES_H_
