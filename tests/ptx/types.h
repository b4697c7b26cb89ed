// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The types of a device's assembly text. A register holds bits; an instruction's type says how many
// it takes and what they stand for.

#ifndef BITFOLD_TESTS_PTX_TYPES_H_
#define BITFOLD_TESTS_PTX_TYPES_H_

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace bitfold::ptx {

template <typename BitsT, typename ValueT>
struct Type {
  using Bits = BitsT;
  using Value = ValueT;
  static constexpr bool kIsFloat = std::is_floating_point_v<ValueT>;
  static constexpr unsigned kWidth = 8 * sizeof(BitsT);
};

struct Pred : Type<bool, bool> {};
struct B8 : Type<uint8_t, uint8_t> {};
struct U8 : Type<uint8_t, uint8_t> {};
struct S8 : Type<uint8_t, int8_t> {};
struct B16 : Type<uint16_t, uint16_t> {};
struct U16 : Type<uint16_t, uint16_t> {};
struct S16 : Type<uint16_t, int16_t> {};
struct B32 : Type<uint32_t, uint32_t> {};
struct U32 : Type<uint32_t, uint32_t> {};
struct S32 : Type<uint32_t, int32_t> {};
struct F32 : Type<uint32_t, float> {};
struct B64 : Type<uint64_t, uint64_t> {};
struct U64 : Type<uint64_t, uint64_t> {};
struct S64 : Type<uint64_t, int64_t> {};
struct F64 : Type<uint64_t, double> {};

template <typename T>
using Bits = typename T::Bits;
template <typename T>
using Value = typename T::Value;

template <typename T>
Value<T> ValueOf(Bits<T> bits) {
  Value<T> value;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

template <typename T>
Bits<T> BitsOf(Value<T> value) {
  Bits<T> bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

// What stands where nothing was written, or what the text's definition leaves open: as a float NaN,
// as an integer large.
template <typename T>
constexpr Bits<T> Poison() {
  return static_cast<Bits<T>>(uint64_t{0x7fe5a5e57fe5a5e5});
}

}  // namespace bitfold::ptx

#endif  // BITFOLD_TESTS_PTX_TYPES_H_
