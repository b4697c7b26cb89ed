// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The half-precision quantiser in all its forms (rule H1 of docs/arithmetic.md), of floats and of
// the integers that an accumulator begins with (rule R2).

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "bitfold/datapath.h"
#include "bitfold/device_datapath.h"
#include "bitfold/device_half.h"
#include "bitfold/half_accumulator.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"
#include "proofs/enumerate/forms.h"
#include "proofs/enumerate/half.h"
#include "vector/quantise_half.h"

namespace bitfold::enumeration {
namespace {

// The one formula for all exponents: rint(floor(x * 2^(18 - e')) / 64) * 2^(e' - 12).
uint32_t HalfByFormula(uint32_t bits) {
  if (!IsFinite(bits)) return Canonical(bits);
  const Exact x = Decoded(bits);
  const int e = x.digits == 0 ? 2 : std::max(x.exponent + Length(x.digits), 2);
  const int64_t units = HalvesToEven(FloorOfScaled(x, 18 - e), 6);
  return Units(x.is_negative != (e > 15), units, std::min(e, 15) - 12);
}

template <typename Function>
Form Quantiser(std::string name, Function function) {
  return Each(std::move(name),
              [function](const Setting&, float x, float) { return WordOf(function(x)); });
}

template <typename Function>
Form QuantiserOfWhole(std::string name, float below, Function function) {
  return Where(
      std::move(name), [below](const Setting&, float x, float) { return std::fabs(x) < below; },
      [function](const Setting&, float x, float) { return WordOf(function(x)); });
}

void AddLoops(std::vector<Form>* forms) {
  ForEachTarget([forms](const std::string& target) {
    const Datapath<float> datapath(24, 0, /*use_fp16_acc=*/true);
    const auto loop = LoopsOf(datapath).initial_values;
    const auto compute = [datapath, loop](const Block& block, Word* results) {
      InPieces(block, results, [&](int first, int count, float* out) {
        loop(datapath, block.x + first, count, out);
      });
    };
    forms->push_back({"loops, " + target, compute, {}});
  });
}

// What is floored to a tie is not a tie.
uint32_t RoundedOnce(uint32_t bits) {
  if (!IsFinite(bits)) return Canonical(bits);
  const Exact x = Decoded(bits);
  const int e = x.digits == 0 ? 2 : std::max(x.exponent + Length(x.digits), 2);
  const int64_t units = HalvesToEven(FloorOfScaled(x, 40 - e), 28);
  return Units(x.is_negative != (e > 15), units, std::min(e, 15) - 12);
}

Enumeration Quantisers() {
  Enumeration table = {"H1",
                       "all forms of the quantiser are its definition in whole numbers",
                       EveryFloat(),
                       {{""}},
                       {},
                       {},
                       {}};
  table.expected =
      Each("definition", [](const Setting&, float x, float) -> Word { return Half(Bits(x)); });
  table.forms = {
      Each("formula",
           [](const Setting&, float x, float) -> Word { return HalfByFormula(Bits(x)); }),
      Quantiser("f32_to_hf16", f32_to_hf16),
      Quantiser("QuantiseHalf", QuantiseHalf),
      Quantiser("device", QuantiseHalfOnDevice),
      Where(
          "device, in range",
          [](const Setting&, float x, float) { return !(std::fabs(x) >= kHalfOverflow); },
          [](const Setting&, float x, float) { return WordOf(QuantiseHalfInRange(x)); }),
  };
  AddLoops(&table.forms);
  table.controls = {
      Quantiser("32768 overflows not",
                [](float x) { return std::fabs(x) == 32768.0f ? x : f32_to_hf16(x); }),
      Each("one rounding",
           [](const Setting&, float x, float) -> Word { return RoundedOnce(Bits(x)); }),
      Quantiser("negative numbers floored toward 0",
                [](float x) { return std::signbit(x) ? -f32_to_hf16(-x) : f32_to_hf16(x); })};
  return table;
}

Enumeration WholeQuantisers() {
  Enumeration table = {
      "H1", "whole numbers below 2^16 need no floor", WholeNumbers(65535), {{""}}, {}, {}, {}};
  table.expected =
      Each("definition", [](const Setting&, float x, float) -> Word { return Half(Bits(x)); });
  table.forms = {QuantiserOfWhole("device", kHalfOverflow, QuantiseHalfOfWholeInRange),
                 QuantiserOfWhole("loops below 2^15", 32768.0f, RoundHalfOfWhole),
                 QuantiserOfWhole("loops", 65536.0f, QuantiseHalfOfWhole)};
  table.controls = {QuantiserOfWhole("without an overflow", 65536.0f, RoundHalfOfWhole)};
  return table;
}

// ---- Integers ----------------------------------------------------------------------------------

// Requires a number of magnitude below 2^31.
int32_t Truncated(uint32_t bits) {
  const Exact x = Decoded(bits);
  const auto magnitude = static_cast<int32_t>(Magnitude(x));
  return x.is_negative ? -magnitude : magnitude;
}

uint32_t Absolute(int32_t x) { return x < 0 ? 0 - static_cast<uint32_t>(x) : x; }

// An int32 as a float, quantised and truncated.
int32_t HalfOfInteger(int32_t x) { return Truncated(Half(Nearest({x < 0, Absolute(x), 0}))); }

// Without the rounding to a float. FloorOfScaled takes more digits where it drops some.
int32_t HalfOfExactInteger(int32_t x) {
  const Exact whole = {x < 0, Absolute(x), 0};
  const int e = std::max(Length(whole.digits), 2);
  const int64_t units = HalvesToEven(FloorOfScaled(whole, 18 - e), 6);
  return Truncated(Units(whole.is_negative != (e > 15), units, std::min(e, 15) - 12));
}

int32_t IntegerOf(float x) { return static_cast<int32_t>(Bits(x)); }
Word WordOfInteger(int32_t x) { return static_cast<uint32_t>(x); }

template <typename Function>
Form OfInteger(std::string name, Function function) {
  return Each(std::move(name), [function](const Setting&, float x, float) {
    return WordOfInteger(function(IntegerOf(x)));
  });
}

void AddIntegerLoops(std::vector<Form>* forms) {
  ForEachTarget([forms](const std::string& target) {
    const Datapath<int32_t> datapath(32, 0, /*use_fp16_acc=*/true);
    const auto loop = LoopsOf(datapath).initial_values;
    const auto compute = [datapath, loop](const Block& block, Word* results) {
      std::array<int32_t, kDatapathBlock> in;
      std::array<int32_t, kDatapathBlock> out;
      for (int first = 0; first < block.count; first += kDatapathBlock) {
        const int count = std::min(kDatapathBlock, block.count - first);
        std::memcpy(in.data(), block.x + first, static_cast<size_t>(count) * sizeof(int32_t));
        loop(datapath, in.data(), count, out.data());
        for (int i = 0; i < count; ++i) {
          results[first + i] = WordOfInteger(out[static_cast<size_t>(i)]);
        }
      }
    };
    forms->push_back({"loops, " + target, compute, {}});
  });
}

Enumeration IntegerValues() {
  Enumeration table = {"R2",
                       "an integer's first value is quantised as a float and truncated",
                       EveryFloat(),
                       {{""}},
                       {},
                       {},
                       {}};
  table.inputs.name = "every int32";
  table.expected = OfInteger("definition", HalfOfInteger);
  table.forms = {OfInteger("definition", [](int32_t x) { return QuantiseInitialValue(x); }),
                 OfInteger("device", [](int32_t x) { return QuantiseInitialValueOnDevice(x); })};
  AddIntegerLoops(&table.forms);
  table.controls = {OfInteger("without the conversion's rounding", HalfOfExactInteger)};
  return table;
}

}  // namespace

std::vector<Enumeration> HalfPrecision() {
  return {Quantisers(), WholeQuantisers(), IntegerValues()};
}

}  // namespace bitfold::enumeration
