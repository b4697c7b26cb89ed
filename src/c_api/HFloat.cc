// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The narrow float model (rules F1 to F7 of docs/arithmetic.md). Exported functions only: no op
// uses it, and it registers nothing.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "bitfold/fpx.h"
#include "bitfold/int64_arithmetic.h"
#include "frame/log.h"

static_assert(sizeof(FPX) == 12 && offsetof(FPX, mantissa) == 4 && offsetof(FPX, exponent) == 8,
              "callers index arrays of FPX and pass it by value");

int32_t g_32toX_of = 0;
int32_t g_32toX_uf = 0;
int32_t g_resizeX_of = 0;
int32_t g_resizeX_uf = 0;

namespace {

using bitfold::ShiftLeftUnsigned;
using bitfold::ShiftLeftUnsigned64;
using bitfold::ShiftRightUnsigned;
using bitfold::ShiftRightUnsigned64;

constexpr int kFloatFractionBits = 23;
constexpr uint32_t kFloatFractionMask = 0x7fffffu;

// Counters are plain words; an increment past the top wraps.
void Count(int32_t* counter) {
  *counter = static_cast<int32_t>(static_cast<uint32_t>(*counter) + 1u);
}

// 2^bits - 1 and 2^(bits - 1), with the shift count modulo 32.
uint32_t Mask(int bits) { return ShiftLeftUnsigned(1u, bits) - 1u; }
uint32_t LeadingOne(int bits) { return ShiftLeftUnsigned(1u, bits - 1); }
bool HasLeadingOne(const FPX& x) { return (x.mantissa & LeadingOne(x.man_len)) != 0; }

// The largest exponent field of exp_len bits.
int32_t MaxExponent(int exp_len) { return static_cast<int32_t>(Mask(exp_len)); }

int BitLength(uint64_t x) {
  int length = 0;
  for (; x != 0; x >>= 1) ++length;
  return length;
}

bool SameWidths(const FPX& a, const FPX& b) {
  return a.exp_len == b.exp_len && a.man_len == b.man_len;
}

void SetZero(FPX* x) {
  x->mantissa = 0;
  x->exponent = 0;
}

void Saturate(FPX* x, int exp_len, int man_len) {
  x->exponent = static_cast<uint16_t>(Mask(exp_len));
  x->mantissa = Mask(man_len);
}

// "sign exponent mantissa" in binary digits: how many characters that are, and these, unterminated.
size_t DigitCount(const FPX& x) { return size_t{3} + x.exp_len + x.man_len; }

void WriteDigits(const FPX& x, char* out) {
  int2bin(out, static_cast<int>(x.sign), 1);
  out[1] = ' ';
  int2bin(out + 2, x.exponent, x.exp_len);
  out[2 + x.exp_len] = ' ';
  int2bin(out + 3 + x.exp_len, static_cast<int>(x.mantissa), x.man_len);
}

// Logs a non-zero result whose leading one is missing. Allocates nothing, so it cannot fail.
void CheckNormalised(const FPX& x, std::string_view operation) {
  if (x.mantissa == 0 || HasLeadingOne(x)) return;
  constexpr size_t kWidest = 3 + 2 * UINT8_MAX;
  char text[64 + kWidest];
  size_t size = 0;
  for (const std::string_view part :
       {std::string_view("Possible bug in "), operation, std::string_view(": ")}) {
    size += part.copy(text + size, part.size());
  }
  WriteDigits(x, text + size);
  bitfold::LogError({text, size + DigitCount(x)});
}

// What callers get where there is no memory for an array. The C library is compiled without
// exceptions, so that none can leave it; the op library's callers are C++.
FPX* NoArray() {
#ifdef __cpp_exceptions
  throw std::bad_array_new_length();
#else
  return nullptr;
#endif
}

// n values of v, or what NoArray gives.
template <typename Value>
FPX* NewArray(int n, unsigned char exp_len, unsigned char man_len, Value v) {
  const size_t count = n > 0 ? static_cast<size_t>(n) : 0;
  FPX* array = new (std::nothrow) FPX[count];
  if (array == nullptr) return NoArray();
  std::memset(array, 0, count * sizeof(FPX));  // no stale memory in the bits beside the sign
  for (int i = 0; i < n; ++i) {
    array[i].exp_len = exp_len;
    array[i].man_len = man_len;
    float32_toX(v(i), &array[i]);
  }
  return array;
}

}  // namespace

int get_bias(int exp_len) {
  // Four exponent bits have 11, the accelerator's choice, not 2^3 - 1.
  if (exp_len == 4) return 11;
  if (exp_len == 3) return 3;
  bitfold::LogError("Wrong Explen");
  return 0;
}

void float32_toX(float v, FPX* x) {
  uint32_t bits;
  std::memcpy(&bits, &v, sizeof(bits));
  const int man_len = x->man_len;
  const int bias = get_bias(x->exp_len);
  const int biased = static_cast<int>((bits >> kFloatFractionBits) & 0xffu);
  const uint32_t fraction = bits & kFloatFractionMask;

  // 1. Sign and zero.
  x->sign = bits >> 31;
  if (biased == 0 && fraction == 0) return SetZero(x);

  // 2. Underflow: the octave just below the range rounds up to the smallest magnitude, uncounted.
  const int exponent = biased - 126;
  if (exponent < -bias) {
    const bool rounds_up = -bias - exponent == 1;
    x->exponent = 0;
    x->mantissa = rounds_up ? LeadingOne(man_len) : 0;
    if (!rounds_up) Count(&g_32toX_uf);
    return;
  }

  // 3. The top fraction bits under the leading one; above half rounds up, a tie is truncated.
  const int dropped = kFloatFractionBits + 1 - man_len;
  uint32_t mantissa = (ShiftRightUnsigned(fraction, dropped) & Mask(man_len)) | LeadingOne(man_len);
  if ((fraction & Mask(dropped)) > LeadingOne(dropped)) mantissa += 1;
  int stored_exponent = exponent;
  if (mantissa > Mask(man_len)) {
    mantissa >>= 1;
    stored_exponent += 1;
  }

  // 4. Overflow is tested on the exponent before the carry; a carry at the top wraps to 0.
  if (exponent > MaxExponent(x->exp_len) - bias) {
    Saturate(x, x->exp_len, man_len);
    return Count(&g_32toX_of);
  }
  x->mantissa = mantissa & Mask(man_len);
  x->exponent =
      static_cast<uint16_t>(static_cast<uint32_t>(stored_exponent + bias) & Mask(x->exp_len));
}

float floatX_to32(FPX x) {
  if (x.mantissa == 0 && x.exponent == 0) return 0.0f;
  const int exponent = static_cast<int>(x.exponent) - get_bias(x.exp_len);
  const float scale = static_cast<float>(std::ldexp(x.sign != 0 ? -1.0 : 1.0, exponent));
  if (x.man_len == 0) return 0.0f;
  // Bit by bit from the top; the sum is rounded to single precision after each.
  float fraction = 0.0f;
  for (int bit = x.man_len - 1; bit >= 0; --bit) {
    const double digit = static_cast<double>(ShiftRightUnsigned(x.mantissa, bit) & 1u);
    fraction =
        static_cast<float>(std::ldexp(digit, bit - x.man_len) + static_cast<double>(fraction));
  }
  return scale * fraction;
}

void ResizeX(FPX* x, uint16_t exp_len, uint16_t man_len) {
  const int old_bias = get_bias(x->exp_len);
  const int new_bias = get_bias(exp_len);
  const int old_man_len = x->man_len;
  const bool is_zero = x->exponent == 0 && x->mantissa == 0;
  x->exp_len = static_cast<uint8_t>(exp_len);
  x->man_len = static_cast<uint8_t>(man_len);
  if (is_zero) return;

  // 1. Underflow: counted also where the octave just below the range rounds up.
  const int exponent = static_cast<int>(x->exponent) - old_bias;
  if (exponent < -new_bias) {
    x->exponent = 0;
    x->mantissa = -new_bias - exponent == 1 ? LeadingOne(man_len) : 0;
    return Count(&g_resizeX_uf);
  }

  // 2. Narrowing rounds above half and truncates ties. Widening loses the mantissa: the count
  // wraps.
  const int dropped = old_man_len - man_len;
  uint32_t mantissa = ShiftRightUnsigned(x->mantissa, dropped);
  int stored_exponent = exponent;
  if (dropped > 0) {
    if ((x->mantissa & Mask(dropped)) > LeadingOne(dropped)) mantissa += 1;
    if (mantissa > Mask(man_len)) {
      mantissa >>= 1;
      stored_exponent += 1;
    }
  }

  // 3. Overflow is tested on the exponent before the carry.
  if (exponent > MaxExponent(exp_len) - new_bias) {
    Saturate(x, exp_len, man_len);
    return Count(&g_resizeX_of);
  }
  x->mantissa = mantissa & Mask(man_len);
  x->exponent =
      static_cast<uint16_t>(static_cast<uint32_t>(stored_exponent + new_bias) & Mask(exp_len));
}

void align_floatX(FPX* a, FPX* b) {
  if (!SameWidths(*a, *b)) return;
  FPX* small = a->exponent < b->exponent ? a : b;
  const FPX* large = small == a ? b : a;
  small->mantissa = ShiftRightUnsigned(small->mantissa, large->exponent - small->exponent);
  small->exponent = large->exponent;
}

void add_sub_floatX(FPX a, FPX b, FPX* out) {
  if (!SameWidths(a, b) || !SameWidths(a, *out)) return SetZero(out);
  align_floatX(&a, &b);
  const int man_len = out->man_len;
  const int exponent = a.exponent;

  if (a.sign == b.sign) {
    uint32_t sum = a.mantissa + b.mantissa;
    const uint32_t carry = ShiftRightUnsigned(sum, man_len) & 1u;
    sum >>= carry;
    out->sign = a.sign;
    out->mantissa = sum & Mask(man_len);
    out->exponent = static_cast<uint16_t>(exponent + static_cast<int>(carry));
  } else {
    const bool a_is_larger = a.mantissa > b.mantissa;
    const uint32_t difference = a_is_larger ? a.mantissa - b.mantissa : b.mantissa - a.mantissa;
    out->sign = a_is_larger ? a.sign : b.sign;
    if (difference == 0) return SetZero(out);
    const int shift = man_len - BitLength(difference);
    if (exponent >= shift) {  // else only the sign is set
      out->mantissa = (shift >= 0 ? ShiftLeftUnsigned(difference, shift)
                                  : ShiftRightUnsigned(difference, -shift)) &
                      Mask(man_len);
      out->exponent = static_cast<uint16_t>(exponent - shift);
    }
  }
  CheckNormalised(*out, "addition/subtraction");
}

void mul_floatX(FPX a, FPX b, FPX* out) {
  SetZero(out);
  if (!SameWidths(a, b)) return;
  if (!HasLeadingOne(a) || !HasLeadingOne(b)) return;
  const uint64_t product = static_cast<uint64_t>(a.mantissa) * b.mantissa;
  out->sign = a.sign ^ b.sign;
  const int man_len = out->man_len;
  const int shift = man_len - BitLength(product);
  // With all widths equal: one less when the product of the two fractions is below a half.
  const int below_half = -static_cast<int>(a.man_len) < shift ? 1 : 0;
  const int exponent = get_bias(out->exp_len) + (a.exponent - get_bias(a.exp_len)) +
                       (b.exponent - get_bias(b.exp_len)) - below_half;
  out->exponent = static_cast<uint16_t>(exponent);
  const uint64_t shifted =
      shift >= 0 ? ShiftLeftUnsigned64(product, shift) : ShiftRightUnsigned64(product, -shift);
  out->mantissa = static_cast<uint32_t>(shifted) & Mask(man_len);
  CheckNormalised(*out, "multiplication");
}

char* int2bin(char* buf, int value, size_t n) {
  if (buf == nullptr) return buf;
  uint32_t rest = static_cast<uint32_t>(value);
  for (size_t i = n; i > 0; --i) {
    buf[i - 1] = static_cast<char>('0' + (rest & 1u));
    rest >>= 1;
  }
  return buf;
}

char* FPX_to_BitString(const FPX* x) {
  char* text = static_cast<char*>(std::malloc(DigitCount(*x) + 1));
  if (text == nullptr) return nullptr;
  WriteDigits(*x, text);
  text[DigitCount(*x)] = '\0';
  return text;
}

FPX* CreateFPXArray_fromFloat32(const float* data, int n, unsigned char exp_len,
                                unsigned char man_len) {
  return NewArray(n, exp_len, man_len, [data](int i) { return data[i]; });
}

FPX* CreateFPXArray_initZero(int n, unsigned char exp_len, unsigned char man_len) {
  return NewArray(n, exp_len, man_len, [](int) { return 0.0f; });
}

FPX* ReplaceFPXArray_fromFPXArray(FPX* arr, int n, unsigned char exp_len, unsigned char man_len) {
  if (arr == nullptr) return arr;
  for (int i = 0; i < n; ++i) ResizeX(&arr[i], exp_len, man_len);
  return arr;
}

void OverrideFloatArray_fromFPX(FPX* arr, float* out, int n) {
  if (arr == nullptr) return;
  for (int i = 0; i < n; ++i) out[i] = floatX_to32(arr[i]);
  DeleteInputFPX(arr);
}

void DeleteInputFPX(FPX* arr) { delete[] arr; }
