// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What is read of one float: whole numbers (rules I4, I6 and I8 of docs/arithmetic.md), passes (R1
// and D3), whether a line is printed (W1 and D1), and stored integers (V1).

#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HNMS.h"
#include "bitfold/HStoredQuantise.h"
#include "bitfold/device_datapath.h"
#include "bitfold/feed_repeat.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/int64_arithmetic.h"
#include "bitfold/warning.h"
#include "cpu/stored_quantise.h"
#include "frame/workers.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"
#include "proofs/enumerate/forms.h"
#include "vector/vector_steps.h"

namespace bitfold::enumeration {
namespace {

constexpr uint32_t kTwo31 = 0x4f000000;
constexpr uint32_t kTwo63 = 0x5f000000;
constexpr uint32_t kTwo64 = 0x5f800000;

template <typename Function>
Form OfFloat(std::string name, Function function) {
  return Each(std::move(name),
              [function](const Setting&, float x, float) -> Word { return function(x); });
}

template <typename Function>
Form OfBits(Function function) {
  return OfFloat("definition", [function](float x) { return function(Bits(x)); });
}

Enumeration Table(std::string rule, std::string claim, Form expected) {
  return {std::move(rule), std::move(claim), EveryFloat(), {{""}}, std::move(expected), {}, {}};
}

// ---- Whole numbers -----------------------------------------------------------------------------

// Truncated, or `otherwise` where the magnitude is that of `end` or beyond, which is itself right
// for -end.
Word Truncated(uint32_t bits, uint32_t end, Word otherwise) {
  if (IsNan(bits) || !IsLess(bits & ~kSign, end)) return otherwise;
  const Exact x = Decoded(bits);
  const uint64_t magnitude = Magnitude(x);
  return x.is_negative ? 0 - magnitude : magnitude;
}

Word Saturated(uint32_t bits) {
  if (IsNan(bits) || (bits & kSign) != 0) return 0;
  if (!IsLess(bits, kTwo64)) return UINT64_MAX;
  const Exact x = Decoded(bits);
  return x.exponent >= 0 ? x.digits << x.exponent : Magnitude(x);
}

Word Word32(int32_t x) { return static_cast<uint32_t>(x); }

Enumeration ToInt32() {
  Enumeration table =
      Table("I4", "truncates; NaN and what no int32 holds give -2^31",
            OfBits([](uint32_t bits) { return Truncated(bits, kTwo31, kSign) & UINT32_MAX; }));
  table.forms = {OfFloat("TruncateToInt32", [](float x) { return Word32(TruncateToInt32(x)); })};
  table.controls = {
      OfFloat("rounds", [](float x) { return Word32(TruncateToInt32(std::rint(x))); }),
      OfFloat("saturates",
              [](float x) { return Word32(x >= 2147483648.0f ? INT32_MAX : TruncateToInt32(x)); })};
  return table;
}

Enumeration ToInt64() {
  constexpr Word kLeast = uint64_t{1} << 63;
  Enumeration table = Table("I6", "truncates; NaN and what no int64 holds give -2^63",
                            OfBits([](uint32_t bits) { return Truncated(bits, kTwo63, kLeast); }));
  const auto shipped = [](float x) { return static_cast<Word>(TruncateToInt64(x)); };
  table.forms = {OfFloat("TruncateToInt64", shipped)};
  table.controls = {OfFloat("NaN gives 0", [shipped](float x) { return x == x ? shipped(x) : 0; }),
                    OfFloat("floors", [shipped](float x) { return shipped(std::floor(x)); })};
  return table;
}

Enumeration ToUnsigned() {
  Enumeration table =
      Table("I8", "truncates and saturates at 0 and 2^64 - 1; NaN gives 0", OfBits(Saturated));
  table.forms = {OfFloat("SaturateToUint64", [](float x) { return SaturateToUint64(x); })};
  table.controls = {OfFloat("saturates from 2^63 on", [](float x) {
    return x >= 9223372036854775808.0f ? UINT64_MAX : SaturateToUint64(x);
  })};
  return table;
}

// ---- Passes ------------------------------------------------------------------------------------

// The smallest k >= 1 with (float)k >= r > 0. Above 2^24 numbers that lie half way to r, or above,
// round to it, the very middle where r is even. Requires r <= 2^31.
Word Passes(uint32_t bits) {
  const Exact r = Decoded(bits);
  const uint64_t whole = Magnitude(r);
  if (whole <= uint64_t{1} << 24) {
    const bool is_whole = r.exponent >= 0 || (whole != 0 && Whole(bits) == bits);
    return is_whole ? whole : whole + 1;
  }
  const Exact below = Decoded(bits - 1);
  const uint64_t middle = (whole + Magnitude(below)) / 2;
  return (bits & 1) == 0 ? middle : middle + 1;
}

Word PassesOrNone(uint32_t bits) {
  if (IsNan(bits) || bits == 0 || (bits & kSign) != 0) return 0;
  return IsLess(kTwo31, bits) ? uint64_t{1} << 31 : Passes(bits);
}

Enumeration FeedRepeats() {
  Enumeration table = Table("R1, D3", "the smallest k with (float)k >= r, 2^31 at most on a device",
                            OfBits(PassesOrNone));
  table.forms = {
      Where(
          "FeedRepeatCount", [](const Setting&, float x, float) { return x <= kMaxFeedRepeat; },
          [](const Setting&, float x, float) -> Word {
            return static_cast<Word>(x <= kMaxFeedRepeat ? FeedRepeatCount(x) : 0);
          }),
      OfFloat("device", [](float x) { return static_cast<Word>(DeviceFeedRepeatCount(x)); })};
  table.controls = {OfFloat("the ceiling", [](float x) {
    if (!(x > 0.0f)) return Word{0};
    return x > kMaxFeedRepeat ? Word{1} << 31 : static_cast<Word>(std::ceil(x));
  })};
  return table;
}

// ---- Lines -------------------------------------------------------------------------------------

// Not in [-8388607, 8388607).
Word IsOutside(uint32_t bits) {
  constexpr uint32_t kLimit = 0x4afffffe;
  const bool is_inside = IsLess(bits, kLimit) && !IsLess(bits, Negated(kLimit)) && !IsNan(bits);
  return is_inside ? 0 : 1;
}

Enumeration Lines() {
  Enumeration table = Table("W1, D1", "sums outside [-8388607, 8388607) print, on a host NaN too",
                            OfBits(IsOutside));
  const auto device = [](const Setting&, float x, float) -> Word {
    return IsOutOfDeviceWarningRange(x) ? 1 : 0;
  };
  const auto loops = [](const Setting&, float x, float) -> Word {
    return MayWarn(MagnitudeBits(x)) ? 1 : 0;
  };
  table.forms = {
      OfFloat("host", [](float x) { return IsOutOfWarningRange(x) ? 1 : 0; }),
      Where(
          "device", [](const Setting&, float x, float) { return x == x; }, device),
      Where(
          "loops", [](const Setting&, float x, float) { return x != -8388607.0f; }, loops)};
  table.controls = {Each("NaN as on a device", device), Each("-8388607 as in loops", loops)};
  return table;
}

// ---- Stored integers ---------------------------------------------------------------------------

struct Stored {
  StoredScale scale;
  int32_t lowest;
  int32_t highest;
};

const Stored& StoredOf(const Setting& setting) {
  static const std::array<Stored, 3> kKinds = {Stored{{0.1f, -5}, INT8_MIN, INT8_MAX},
                                               Stored{{0x1.54p-9f, 128}, 0, UINT8_MAX},
                                               Stored{{3.0f, 0}, INT16_MIN, INT16_MAX}};
  return kKinds[static_cast<size_t>(setting.number)];
}

// The quotient in single precision, halves away from zero, within the type; NaN is the zero point.
Word StoredWord(const Setting& setting, float x, float) {
  const Stored& stored = StoredOf(setting);
  const uint32_t steps = Quotient(Bits(x), Decoded(Bits(stored.scale.scale)));
  int64_t number = 0;
  if (!IsNan(steps)) {
    const bool is_far = IsLess(Bits(1048576.0f), steps & ~kSign);
    const Exact exact = is_far ? Exact{false, 1 << 20, 0} : Decoded(steps);
    const auto magnitude = FloorOfScaled({false, exact.digits, exact.exponent}, 1);
    number = (magnitude + 1) / 2;
    if ((steps & kSign) != 0) number = -number;
  }
  number = std::clamp<int64_t>(number + stored.scale.zero_point, stored.lowest, stored.highest);
  return static_cast<Word>(number);
}

// By `function` of a call.
template <typename T, typename Function>
void ComputeStored(const Block& block, Word* results, Function function) {
  std::array<T, kBlock> output;
  function(
      StoredQuantiseCall<T>{block.x, output.data(), block.count, StoredOf(block.setting).scale});
  for (int i = 0; i < block.count; ++i) {
    results[i] = static_cast<Word>(int64_t{output[static_cast<size_t>(i)]});
  }
}

template <typename Function>
Form OfStored(std::string name, Function function) {
  const auto compute = [function](const Block& block, Word* results) {
    switch (block.setting.number) {
      case 0:
        return ComputeStored<int8_t>(block, results, function);
      case 1:
        return ComputeStored<uint8_t>(block, results, function);
      default:
        return ComputeStored<int16_t>(block, results, function);
    }
  };
  return {std::move(name), compute, {}};
}

Enumeration StoredIntegers() {
  Enumeration table =
      Table("V1", "the quotient, halves away from zero, with the zero point, within the type",
            Each("definition", StoredWord));
  table.settings = {{"int8", 0}, {"uint8", 1}, {"int16", 2}};
  table.forms = {OfStored("StoredInteger", [](const auto& call) { DefineStoredQuantise(call); })};
  ForEachTarget([&table](const std::string& name) {
    const Target target = CurrentTarget();
    table.forms.push_back(OfStored("loops, " + name, [target](const auto& call) {
      CallingThread thread;
      ForceTarget(target);
      ComputeStoredQuantise(call, &thread);
      ForceTarget({});
    }));
  });
  table.controls = {Each("halves to even", [](const Setting& setting, float x, float) -> Word {
    const Stored& stored = StoredOf(setting);
    const float steps = x / stored.scale.scale;
    const float whole = std::isnan(steps) ? 0.0f : std::rint(std::clamp(steps, -1e6f, 1e6f));
    const auto number = static_cast<int32_t>(whole) + stored.scale.zero_point;
    return static_cast<Word>(int64_t{std::clamp(number, stored.lowest, stored.highest)});
  })};
  return table;
}

}  // namespace

std::vector<Enumeration> Conversions() {
  return {ToInt32(), ToInt64(), ToUnsigned(), FeedRepeats(), Lines(), StoredIntegers()};
}

}  // namespace bitfold::enumeration
