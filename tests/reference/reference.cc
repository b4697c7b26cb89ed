// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle's arithmetic. Everything is written for being evidently right, nothing for
// speed.

#include "reference.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace reference {
namespace {

using Wide = __int128;

const int64_t kTwo31 = 2147483648;
const int64_t kTwo32 = 4294967296;

// ---- Exact integers ----------------------------------------------------------------------------

// Quotient rounded toward minus infinity; the divisor is positive.
Wide FloorDivide(Wide dividend, Wide divisor) {
  Wide quotient = dividend / divisor;
  if (quotient * divisor > dividend) quotient -= 1;
  return quotient;
}

// The remainder that belongs to FloorDivide: 0 <= result < divisor.
Wide FloorModulo(Wide dividend, Wide divisor) {
  return dividend - FloorDivide(dividend, divisor) * divisor;
}

// Quotient rounded to the nearest integer, halves to even; the divisor is positive.
int64_t DivideHalfEven(int64_t dividend, int64_t divisor) {
  const Wide down = FloorDivide(dividend, divisor);
  const Wide twice_rest = 2 * FloorModulo(dividend, divisor);
  const bool is_odd = FloorModulo(down, 2) == 1;
  const bool up = twice_rest > divisor || (twice_rest == divisor && is_odd);
  return static_cast<int64_t>(up ? down + 1 : down);
}

// The 32-bit two's complement number congruent to `value` modulo 2^32. Sums, differences and
// products may be formed exactly and reduced once at their end, since reduction commutes with
// them; a comparison or a division needs a reduced operand.
int32_t Wrap32(Wide value) {
  Wide rest = FloorModulo(value, kTwo32);
  if (rest >= kTwo31) rest -= kTwo32;
  return static_cast<int32_t>(rest);
}

// 2^exponent, exact. Exponents beyond 400 either way are held there, far outside single precision
// and int32.
double PowerOfTwo(int32_t exponent) {
  double power = 1.0;
  for (int64_t i = 0; i < exponent && i < 400; ++i) power *= 2.0;
  for (int64_t i = 0; i > exponent && i > -400; --i) power *= 0.5;
  return power;
}

// Truncates toward zero. What int32 cannot hold becomes INT32_MIN.
int32_t ToInt32(double value) {
  const bool fits = value > -2147483649.0 && value < 2147483648.0;  // False for NaN.
  if (!fits) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// ---- Single precision --------------------------------------------------------------------------

// Each of these forms the result in double precision and rounds it once to single precision, to
// nearest even, subnormals kept. That equals the single-precision operation:
//  - a product of two 24-bit significands has 48 bits and is exact in double precision;
//  - a sum or a quotient may already be rounded in double precision, but rounding to 53 bits and
//    then to 24 (or fewer, for a subnormal) is harmless because 53 >= 2 * 24 + 2: a sum or quotient
//    of 24-bit significands that is not exactly half way between two floats is farther from
//    half way than a double-precision rounding moves it.
float Round(double value) { return static_cast<float>(value); }

float Sum(float a, float b) { return Round(static_cast<double>(a) + static_cast<double>(b)); }

float Difference(float a, float b) {
  return Round(static_cast<double>(a) - static_cast<double>(b));
}

float Product(float a, float b) { return Round(static_cast<double>(a) * static_cast<double>(b)); }

float Quotient(float a, float b) { return Round(static_cast<double>(a) / static_cast<double>(b)); }

// An int32 is exact in double precision.
float ToFloat(int32_t value) { return Round(static_cast<double>(value)); }

// ---- Text --------------------------------------------------------------------------------------

// Reports a sum outside [-8388607, 8388607), and a NaN.
void WarnIfOutOfBounds(float sum, std::string* lines) {
  const double exact = static_cast<double>(sum);
  const bool inside = exact >= -8388607.0 && exact < 8388607.0;
  if (inside || lines == nullptr) return;
  char text[256];
  std::snprintf(text, sizeof(text), "@@@ WARNING: acc %f is out of bounds <%d,%d>\n", exact,
                -8388607, 8388607);
  *lines += text;
}

void WarnDepthwiseWeights(std::string* lines) {
  if (lines == nullptr) return;
  *lines += "\033[1;31m";
  *lines +=
      "weights should be uint8 for DW, check predecessor has signed output, could cause "
      "degradation";
  *lines += "\033[0m";
  *lines += "\n";
}

// ---- Shifter -----------------------------------------------------------------------------------

// 2 to the power of a shift count taken modulo 32: what 1 << count is.
int64_t OneShifted(int64_t count) {
  int64_t power = 1;
  for (Wide i = 0; i < FloorModulo(count, 32); ++i) power *= 2;
  return power;
}

// Bit `index` of the two's complement form of `word`, 0 or 1.
int Bit(int64_t word, int64_t index) {
  return static_cast<int>(FloorModulo(FloorDivide(word, OneShifted(index)), 2));
}

// The shifter bit by bit: round up when the bit below the result's lowest is set and the masked
// bits form a positive signed word. The mask is (1 << (shift + 1)) - 1 - (1 << (shift - 1)).
int32_t ShiftByBits(int32_t x, int32_t shift) {
  const int64_t above = static_cast<int64_t>(shift) + 1;
  const int64_t below = static_cast<int64_t>(shift) - 1;
  const int32_t mask = Wrap32(static_cast<Wide>(OneShifted(above)) - 1 - OneShifted(below));
  int masked_bits = 0;
  for (int i = 0; i < 32; ++i) masked_bits += Bit(mask, i) * Bit(x, i);
  const bool is_negative = Bit(mask, 31) == 1 && Bit(x, 31) == 1;
  const bool is_positive = masked_bits > 0 && !is_negative;
  const Wide up = is_positive ? Bit(x, static_cast<int64_t>(FloorModulo(below, 32))) : 0;
  return Wrap32(FloorDivide(x, OneShifted(shift)) + up);
}

// ---- Half precision ----------------------------------------------------------------------------

// A finite float as sign * significand * 2^exponent.
struct Decoded {
  bool negative;
  bool finite;
  int64_t significand;
  int exponent;
};

Decoded Decode(float x) {
  uint32_t bits = 0;
  std::memcpy(&bits, &x, sizeof(bits));
  const int64_t word = bits;
  const int64_t fraction = word % 8388608;
  const int64_t biased = (word / 8388608) % 256;
  Decoded decoded;
  decoded.negative = word >= kTwo31;
  decoded.finite = biased != 255;
  decoded.significand = biased == 0 ? fraction : fraction + 8388608;
  decoded.exponent = (biased == 0 ? 1 : static_cast<int>(biased)) - 150;
  return decoded;
}

// Binary digits of a positive integer; 0 for 0.
int DigitCount(int64_t value) {
  int digits = 0;
  for (; value > 0; value /= 2) ++digits;
  return digits;
}

// floor(integer * 2^exponent) for an |integer| below 2^24 and an exponent below 24.
int64_t FloorScaled(int64_t integer, int exponent) {
  for (; exponent > 0; --exponent) integer *= 2;
  // Repeated floor division by 2 is one floor division by the power; it settles at 0 or -1.
  for (; exponent < 0; ++exponent) integer = static_cast<int64_t>(FloorDivide(integer, 2));
  return integer;
}

// ---- Accumulators ------------------------------------------------------------------------------

// Half of an accumulator's span, in single precision: infinity where that cannot hold it.
float HalfSpan(int32_t width) { return Round(PowerOfTwo(Wrap32(static_cast<Wide>(width) - 1))); }

int32_t InitialAccumulator(int32_t value, bool use_fp16_acc) {
  if (!use_fp16_acc) return value;
  return ToInt32(static_cast<double>(QuantiseHalf(ToFloat(value))));
}

float InitialAccumulator(float value, bool use_fp16_acc) {
  return use_fp16_acc ? QuantiseHalf(value) : value;
}

// One element of the addition operations. Each pass adds all addends in order; the count of passes
// is compared as a float.
template <typename T>
T AddRepeated(T value, std::initializer_list<T> addends, float feed_repeat, int accumulator_size,
              bool use_fp16_acc, std::string* lines) {
  T acc = InitialAccumulator(value, use_fp16_acc);
  if (feed_repeat <= 0.0F) return acc;
  int64_t passes = 0;
  do {
    for (const T addend : addends) {
      acc = Accumulate(acc, addend, accumulator_size, use_fp16_acc, lines);
    }
    passes += 1;
  } while (Round(static_cast<double>(passes)) < feed_repeat);
  return acc;
}

// ---- Convolution geometry ----------------------------------------------------------------------

// Input positions from the first to the last tap of a window, both counted.
int32_t WindowExtent(int32_t filter, int32_t dilation) {
  return Wrap32((static_cast<Wide>(filter) - 1) * dilation + 1);
}

// How far the first window reaches in front of the input. SAME padding splits its total in two,
// the smaller half in front; but the first window is centred on the input's first position, so
// that half the window is in front, when the total is negative and also when the total is even
// and the extent odd. The latter is how the accelerator places it, even where the split would
// give less.
int32_t LeadPadding(int32_t input, int32_t filter, int32_t stride, int32_t dilation, bool same) {
  if (!same) return 0;
  const int32_t extent = WindowExtent(filter, dilation);
  const int32_t outputs = OutputSize(input, filter, stride, dilation, same);
  const int32_t total = Wrap32((static_cast<Wide>(outputs) - 1) * stride - input + extent);
  const bool total_is_even = FloorModulo(total, 2) == 0;
  const bool extent_is_odd = FloorModulo(extent, 2) == 1;
  if (total < 0 || (total_is_even && extent_is_odd)) return extent / 2;
  return total / 2;
}

// Input coordinate of one tap of one window, which may lie outside the input.
int32_t TapPosition(int32_t lead, int64_t window, int32_t stride, int64_t tap, int32_t dilation) {
  return Wrap32(static_cast<Wide>(window) * stride + static_cast<Wide>(tap) * dilation - lead);
}

// ---- Convolution -------------------------------------------------------------------------------

// What one step of the accumulation adds: weight * input scaled by the shifter, or an elementwise
// value as it is.
template <typename T>
struct Addend {
  bool is_elementwise;
  T first;   // The elementwise value, or the weight.
  T second;  // The input value.
};

// The depthwise convolution's weights are signed numbers of half the accumulator's width: one above
// the largest such number is an unsigned one and is reduced by the span.
int32_t WeightLimit(int32_t width) { return ToInt32(PowerOfTwo(width / 2 - 1) - 1.0); }

int32_t WeightSpan(int32_t width) { return Wrap32(2 * static_cast<Wide>(WeightLimit(width)) + 2); }

// One image of a convolution and the place of the output element being computed.
template <typename T>
struct Place {
  const Convolution* c;
  const T* input;
  const T* filter;
  const T* elementwise;
  int64_t image;
  int64_t oh;
  int64_t ow;
  int64_t oc;
  int64_t output_index;
};

// Appends what the ordinary convolution takes from one row of the window: channels outermost.
template <typename T>
void AppendRow(const Place<T>& at, int64_t kh, int32_t ih, const std::vector<int32_t>& columns,
               std::vector<Addend<T>>* addends) {
  const Convolution& c = *at.c;
  for (int64_t ic = 0; ic < c.in_channels; ++ic) {
    for (int64_t kw = 0; kw < c.filter_width; ++kw) {
      const int32_t iw = columns[static_cast<size_t>(kw)];
      if (iw < 0 || iw >= c.in_width) continue;
      const T weight =
          at.filter[((kh * c.filter_width + kw) * c.in_channels + ic) * c.out_channels + at.oc];
      const T value =
          at.input[((at.image * c.in_height + ih) * c.in_width + iw) * c.in_channels + ic];
      addends->push_back({false, weight, value});
    }
  }
}

// The same for the depthwise convolution: each output channel sees its own input channel. Returns
// whether a weight had to be corrected.
template <typename T>
bool AppendDepthwiseRow(const Place<T>& at, int64_t kh, int32_t ih,
                        const std::vector<int32_t>& columns, std::vector<Addend<T>>* addends) {
  const Convolution& c = *at.c;
  const int64_t taps = static_cast<int64_t>(c.filter_height) * c.filter_width;
  const int64_t filter_image = c.filter_per_image ? at.image : 0;
  bool corrected = false;
  for (int64_t kw = 0; kw < c.filter_width; ++kw) {
    const int32_t iw = columns[static_cast<size_t>(kw)];
    if (iw < 0 || iw >= c.in_width) continue;
    const int64_t tap = filter_image * taps + kh * c.filter_width + kw;
    T weight = at.filter[tap * c.out_channels + at.oc];
    if (CorrectWeight(c.accumulator_size, &weight)) corrected = true;
    const T value =
        at.input[((at.image * c.in_height + ih) * c.in_width + iw) * c.in_channels + at.oc];
    addends->push_back({false, weight, value});
  }
  return corrected;
}

// Everything that one output element accumulates, in order. The elementwise value follows the row
// whose offset is half the window extent, also when that row lies outside the input; where no row
// has that offset it is left out. Returns whether a weight had to be corrected.
template <typename T>
bool ListAddends(const Place<T>& at, std::vector<Addend<T>>* addends) {
  const Convolution& c = *at.c;
  const int32_t lead_h =
      LeadPadding(c.in_height, c.filter_height, c.stride_h, c.dilation_h, c.same);
  const int32_t lead_w = LeadPadding(c.in_width, c.filter_width, c.stride_w, c.dilation_w, c.same);
  const int32_t centre = WindowExtent(c.filter_height, c.dilation_h) / 2;
  std::vector<int32_t> columns;
  for (int64_t kw = 0; kw < c.filter_width; ++kw) {
    columns.push_back(TapPosition(lead_w, at.ow, c.stride_w, kw, c.dilation_w));
  }
  bool corrected = false;
  for (int64_t kh = 0; kh < c.filter_height; ++kh) {
    const int32_t ih = TapPosition(lead_h, at.oh, c.stride_h, kh, c.dilation_h);
    if (ih >= 0 && ih < c.in_height) {
      if (c.is_depthwise) {
        if (AppendDepthwiseRow(at, kh, ih, columns, addends)) corrected = true;
      } else {
        AppendRow(at, kh, ih, columns, addends);
      }
    }
    const bool is_centre = Wrap32(static_cast<Wide>(kh) * c.dilation_h) == centre;
    if (is_centre && at.elementwise != nullptr) {
      addends->push_back({true, at.elementwise[at.output_index], T{0}});
    }
  }
  return corrected;
}

// Adds the list up, from zero.
template <typename T>
T Fold(const Convolution& c, const std::vector<Addend<T>>& addends, std::string* lines) {
  T acc = T{0};
  for (const Addend<T>& addend : addends) {
    const T step = addend.is_elementwise ? addend.first
                                         : ScaledProduct(addend.second, addend.first, c.mult_shift);
    acc = Accumulate(acc, step, c.accumulator_size, c.use_fp16_acc, lines);
  }
  return acc;
}

}  // namespace

int32_t AccumulatorInt(int32_t a, int32_t b, int32_t width, std::string* lines) {
  const float m = HalfSpan(width);
  const float s = Sum(ToFloat(a), ToFloat(b));
  WarnIfOutOfBounds(s, lines);
  float result = s;
  if (s > Difference(m, 1.0F)) {
    result = Difference(s, Sum(m, m));
  } else if (-m > s) {
    // Adds the span as 1 + (span - 1); each step rounds to single precision.
    result = Sum(Sum(1.0F, s), Sum(m, Difference(m, 1.0F)));
  }
  return ToInt32(static_cast<double>(result));
}

float AccumulatorHalf(float a, float b) {
  const float once = QuantiseHalf(a);
  const float twice = QuantiseHalf(once);
  return QuantiseHalf(Sum(QuantiseHalf(b), twice));
}

int32_t Multiply(int32_t a, int32_t b) { return Wrap32(static_cast<Wide>(a) * b); }

int32_t ShiftInt(int32_t x, int32_t shift) {
  if (shift == 0) return x;
  const int64_t count = static_cast<int64_t>(FloorModulo(shift, 32));
  // From 1 to 30 the rounding test is a true comparison with one half. At 31 the mask holds the
  // sign bit, and at a multiple of 32 the tested bit is the sign bit: these follow the bits.
  if (count >= 1 && count <= 30) return Wrap32(DivideHalfEven(x, OneShifted(count)));
  return ShiftByBits(x, shift);
}

float ShiftHalf(int32_t x) { return ToFloat(x); }

float QuantiseHalf(float x) {
  const Decoded d = Decode(x);
  if (!d.finite) return x;
  // x = fraction * 2^exponent with a fraction of [1/2, 1), or 0 = 0 * 2^0.
  int exponent = d.significand == 0 ? 0 : DigitCount(d.significand) + d.exponent;
  const int64_t integer = d.negative ? -d.significand : d.significand;
  bool negative = d.negative;
  int64_t rounded = 0;
  int unit = 0;
  if (exponent < 2) {
    // Down to 16 fractional bits, then half to even to 10.
    rounded = DivideHalfEven(FloorScaled(integer, d.exponent + 16), 64);
    unit = -10;
  } else {
    // The fraction down to 18 bits, then half to even to 12. From an exponent of 16 on the sign
    // flips and the exponent stays at 15.
    const int fraction_exponent = -DigitCount(d.significand);
    rounded = DivideHalfEven(FloorScaled(integer, fraction_exponent + 18), 64);
    if (exponent > 15) {
      negative = !negative;
      exponent = 15;
    }
    unit = exponent - 12;
  }
  // Rounding never changes the sign, and a zero keeps it: a tiny negative x gives -0.
  const int64_t magnitude = rounded < 0 ? -rounded : rounded;
  const float result = Round(std::ldexp(static_cast<double>(magnitude), unit));
  return negative ? -result : result;
}

float RoundToInteger(float value) {
  const double exact = static_cast<double>(value);
  if (!(exact > -8388608.0 && exact < 8388608.0)) return value;
  const int64_t down = static_cast<int64_t>(std::floor(exact));
  const double fraction = exact - static_cast<double>(down);
  const bool is_odd = FloorModulo(down, 2) == 1;
  const bool up = fraction > 0.5 || (fraction == 0.5 && is_odd);
  const double rounded = static_cast<double>(up ? down + 1 : down);
  return Round(std::copysign(rounded, exact));
}

int32_t ScaledProduct(int32_t a, int32_t b, int32_t mult_shift) {
  return ShiftInt(Multiply(a, b), mult_shift);
}

float ScaledProduct(float a, float b, int32_t mult_shift) {
  const float product = Product(a, b);
  if (mult_shift == 0) return product;
  return RoundToInteger(Quotient(product, ToFloat(mult_shift)));
}

int32_t ReciprocalProduct(int32_t a, int32_t b, int32_t mult_shift) {
  return ScaledProduct(a, b, mult_shift);
}

float ReciprocalProduct(float a, float b, int32_t mult_shift) {
  const float product = Product(a, b);
  if (mult_shift == 0) return product;
  return RoundToInteger(Product(product, Quotient(1.0F, ToFloat(mult_shift))));
}

// At most one correction by the span, no half precision and no warning.
int32_t Accumulate(int32_t acc, int32_t addend, int32_t width, bool /*use_fp16_acc*/,
                   std::string* /*lines*/) {
  const double half_span = static_cast<double>(HalfSpan(width));
  const int64_t highest = ToInt32(half_span - 1.0);
  const int64_t lowest = ToInt32(-half_span);
  const int64_t sum = Wrap32(static_cast<Wide>(acc) + addend);
  if (sum > highest) return Wrap32(lowest + (sum - highest) - 1);
  if (sum < lowest) return Wrap32(highest + (sum - lowest) + 1);
  return Wrap32(sum);
}

// The bounds are single precision: from 26 bits on the highest value rounds up to the half span
// itself.
float Accumulate(float acc, float addend, int32_t width, bool use_fp16_acc, std::string* lines) {
  const float sum = Sum(acc, addend);
  WarnIfOutOfBounds(sum, lines);
  if (use_fp16_acc) return QuantiseHalf(Sum(acc, QuantiseHalf(addend)));
  const float half_span = HalfSpan(width);
  const float span = Sum(half_span, half_span);
  if (sum > Difference(half_span, 1.0F)) return Difference(sum, span);
  if (sum < -half_span) return Sum(sum, span);
  return sum;
}

bool CorrectWeight(int32_t width, int32_t* weight) {
  if (*weight <= WeightLimit(width)) return false;
  *weight = Wrap32(static_cast<Wide>(*weight) - WeightSpan(width));
  return true;
}

bool CorrectWeight(int32_t width, float* weight) {
  if (!(*weight > ToFloat(WeightLimit(width)))) return false;
  *weight = Difference(*weight, ToFloat(WeightSpan(width)));
  return true;
}

template <typename T>
void Add(const T* value, const T* elementwise, T factor, float feed_repeat, int mult_shift,
         int accumulator_size, bool use_fp16_acc, int64_t count, T* out, std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    out[i] = AddRepeated(value[i], {ScaledProduct(factor, elementwise[i], mult_shift)}, feed_repeat,
                         accumulator_size, use_fp16_acc, lines);
  }
}

template <typename T>
void BiasAdd(const T* value, const T* bias, T factor, float feed_repeat, int mult_shift,
             int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels, T* out,
             std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    out[i] = AddRepeated(value[i], {ScaledProduct(bias[i % channels], factor, mult_shift)},
                         feed_repeat, accumulator_size, use_fp16_acc, lines);
  }
}

template <typename T>
void DecomposedBiasAdd(const T* value, const T* bias_a, const T* bias_b, T factor_a, T factor_b,
                       float feed_repeat, int mult_shift, int accumulator_size, bool use_fp16_acc,
                       int64_t count, int64_t channels, T* out, std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    const T addend_a = ScaledProduct(factor_a, bias_a[i % channels], mult_shift);
    const T addend_b = ScaledProduct(factor_b, bias_b[i % channels], mult_shift);
    out[i] = AddRepeated(value[i], {addend_a, addend_b}, feed_repeat, accumulator_size,
                         use_fp16_acc, lines);
  }
}

template <typename T>
void StandaloneAdd(const T* value, const T* elementwise, const T* weights, int mult_shift,
                   int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels, T* out,
                   std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    const int64_t channel = i % channels;
    const T first = ScaledProduct(weights[channel], value[i], mult_shift);
    const T second = ScaledProduct(weights[channels + channel], elementwise[i], mult_shift);
    out[i] = Accumulate(first, second, accumulator_size, use_fp16_acc, lines);
  }
}

int32_t OutputSize(int32_t input, int32_t filter, int32_t stride, int32_t dilation, bool same) {
  // SAME counts the strides that start inside the input, VALID those whose window ends inside it.
  const int32_t extent = same ? 1 : WindowExtent(filter, dilation);
  const Wide room = Wrap32(static_cast<Wide>(input) - extent);
  return Wrap32(room / stride + 1);
}

int32_t StartIndex(int32_t input, int32_t filter, int32_t stride, int32_t dilation, bool same) {
  const int32_t half = WindowExtent(filter, dilation) / 2;
  return Wrap32(static_cast<Wide>(half) - LeadPadding(input, filter, stride, dilation, same));
}

template <typename T>
void Convolve(const Convolution& convolution, const T* input, const T* filter, const T* elementwise,
              T* output, std::string* lines) {
  const Convolution& c = convolution;
  const int32_t out_height =
      OutputSize(c.in_height, c.filter_height, c.stride_h, c.dilation_h, c.same);
  const int32_t out_width =
      OutputSize(c.in_width, c.filter_width, c.stride_w, c.dilation_w, c.same);
  for (int64_t image = 0; image < c.batch; ++image) {
    bool corrected = false;
    for (int64_t oh = 0; oh < out_height; ++oh) {
      for (int64_t ow = 0; ow < out_width; ++ow) {
        for (int64_t oc = 0; oc < c.out_channels; ++oc) {
          const int64_t o = ((image * out_height + oh) * out_width + ow) * c.out_channels + oc;
          const Place<T> at = {&c, input, filter, elementwise, image, oh, ow, oc, o};
          std::vector<Addend<T>> addends;
          if (ListAddends(at, &addends)) corrected = true;
          output[o] = Fold(c, addends, lines);
        }
      }
    }
    if (corrected) WarnDepthwiseWeights(lines);
  }
}

template void Add<int32_t>(const int32_t*, const int32_t*, int32_t, float, int, int, bool, int64_t,
                           int32_t*, std::string*);
template void Add<float>(const float*, const float*, float, float, int, int, bool, int64_t, float*,
                         std::string*);
template void BiasAdd<int32_t>(const int32_t*, const int32_t*, int32_t, float, int, int, bool,
                               int64_t, int64_t, int32_t*, std::string*);
template void BiasAdd<float>(const float*, const float*, float, float, int, int, bool, int64_t,
                             int64_t, float*, std::string*);
template void DecomposedBiasAdd<int32_t>(const int32_t*, const int32_t*, const int32_t*, int32_t,
                                         int32_t, float, int, int, bool, int64_t, int64_t, int32_t*,
                                         std::string*);
template void DecomposedBiasAdd<float>(const float*, const float*, const float*, float, float,
                                       float, int, int, bool, int64_t, int64_t, float*,
                                       std::string*);
template void StandaloneAdd<int32_t>(const int32_t*, const int32_t*, const int32_t*, int, int, bool,
                                     int64_t, int64_t, int32_t*, std::string*);
template void StandaloneAdd<float>(const float*, const float*, const float*, int, int, bool,
                                   int64_t, int64_t, float*, std::string*);
template void Convolve<int32_t>(const Convolution&, const int32_t*, const int32_t*, const int32_t*,
                                int32_t*, std::string*);
template void Convolve<float>(const Convolution&, const float*, const float*, const float*, float*,
                              std::string*);

}  // namespace reference
