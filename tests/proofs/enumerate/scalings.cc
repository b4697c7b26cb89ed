// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Scaled products of floats (rules S2 and S3 of docs/arithmetic.md) for every divisor of 8 bits.
//
// They are tried by their magnitude, and for the floats from 2^-2 to 2^32 alone, which are all that
// there are to be told apart:
//   - Nothing but the sign of a result depends on the signs of x and s: so do quotients, products
//     and the rounding to whole numbers, which are symmetric.
//   - The digits of a quotient, or of a product with the reciprocal, are those of 2^k x, unless it
//     is subnormal: scaling by a power of two is exact.
//   - Below 2^-2, |x / s| and |x * (1 / s)| are below a half, which rounds to 0, whatever its
//     digits. From 2^32 on they are 2^24 or more, which is whole.
// The enumeration of every float and every divisor takes hours; a few divisors are tried so always.

#include <cmath>
#include <string>
#include <vector>

#include "bitfold/datapath.h"
#include "bitfold/device_chain.h"
#include "bitfold/product_scaling.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"
#include "proofs/enumerate/forms.h"
#include "proofs/enumerate/scaling.h"

namespace bitfold::enumeration {
namespace {

std::vector<Setting> Divisors(const std::vector<int32_t>& divisors) {
  std::vector<Setting> settings;
  for (const int32_t divisor : divisors) {
    settings.push_back({"by " + std::to_string(divisor), divisor});
  }
  return settings;
}

std::vector<int32_t> DivisorsFrom(int32_t least) {
  std::vector<int32_t> divisors;
  for (int32_t divisor = least; divisor <= INT8_MAX; ++divisor) divisors.push_back(divisor);
  return divisors;
}

template <typename D>
void AddLoops(std::vector<Form>* forms) {
  ForEachTarget([forms](const std::string& target) {
    const auto loop = LoopsOf(D(24, 0, false)).products;
    const std::vector<float> ones(kBlock, 1.0f);
    const auto compute = [loop, ones](const Block& block, Word* results) {
      const D datapath(24, block.setting.number, /*use_fp16_acc=*/false);
      InPieces(block, results, [&](int first, int count, float* out) {
        loop(datapath, block.x + first, ones.data(), count, out);
      });
    };
    forms->push_back({"loops, " + target, compute, {}});
  });
}

// A device's quotient, rounded by an addition as far as that goes, with the sign put back.
template <typename Division>
Form DeviceDivision(std::string name, bool takes_powers) {
  const auto select = [takes_powers](const Block& block, bool* taken) {
    const Division division(block.setting.number);
    const bool is_power = DivisionByPower::Divides(block.setting.number);
    const bool is_taken = block.setting.number != 0 && is_power == takes_powers;
    for (int i = 0; i < block.count; ++i) {
      taken[i] = is_taken && std::fabs(division(block.x[i])) <= kLargestRounded;
    }
  };
  Form form = Prepared(std::move(name), [](const Setting& setting) {
    return [division = Division(setting.number)](float x, float) -> Word {
      const uint32_t sign = (Bits(x) ^ static_cast<uint32_t>(division.mult_shift)) & kSign;
      return Bits(RoundToWhole(division(x))) | sign;
    };
  });
  form.select = select;
  return form;
}

Form DivisionDefinition() {
  return Prepared("DivideRoundHalfToEven", [](const Setting& setting) {
    return [s = setting.number](float x, float) { return WordOf(DivideRoundHalfToEven(x, s)); };
  });
}

Form ReciprocalDefinition() {
  return Prepared("MultiplyRoundHalfToEven", [](const Setting& setting) {
    return [s = setting.number, r = ShiftReciprocal(setting.number)](float x, float) {
      return WordOf(MultiplyRoundHalfToEven(x, s, r));
    };
  });
}

Form RoundedAway() {
  return Prepared("halves away from zero", [](const Setting& setting) {
    return [s = setting.number](float x, float) {
      return WordOf(s == 0 ? x : std::round(x / static_cast<float>(s)));
    };
  });
}

Enumeration Quotients(Inputs inputs, const std::vector<int32_t>& divisors) {
  Enumeration table = {"S2",
                       "the nearest quotient, rounded to a whole number, halves to even",
                       std::move(inputs),
                       Divisors(divisors),
                       {},
                       {},
                       {}};
  table.expected = Each("definition", [](const Setting& setting, float x, float) -> Word {
    return Divided(Bits(x), setting.number);
  });
  table.forms = {DivisionDefinition()};
  AddLoops<Datapath<float>>(&table.forms);
  table.forms.push_back(DeviceDivision<DivisionByPower>("device, by a power", true));
  table.forms.push_back(DeviceDivision<DivisionByAny>("device, by any", false));
  table.controls = {ReciprocalDefinition(), RoundedAway()};
  table.controls[0].name = "with the reciprocal";
  return table;
}

Enumeration Products(Inputs inputs, const std::vector<int32_t>& divisors) {
  Enumeration table = {"S3",
                       "the nearest product with the nearest reciprocal, rounded as in S2",
                       std::move(inputs),
                       Divisors(divisors),
                       {},
                       {},
                       {}};
  table.expected = Prepared("definition", [](const Setting& setting) {
    constexpr uint32_t kOne = 0x3f800000;
    const int32_t s = setting.number;
    const Exact factor = s == 0 ? Exact{} : Decoded(Quotient(kOne, ExactOf(s)));
    return [s, factor](float x, float) -> Word {
      return s == 0 ? WordOf(x) : Whole(Product(Bits(x), factor));
    };
  });
  table.forms = {ReciprocalDefinition()};
  AddLoops<ReciprocalDatapath<float>>(&table.forms);
  table.controls = {DivisionDefinition(), RoundedAway()};
  table.controls[0].name = "with the quotient";
  return table;
}

}  // namespace

std::vector<Enumeration> Scalings() {
  const std::vector<int32_t> few = {3, -128};
  const std::vector<int32_t> all = DivisorsFrom(INT8_MIN);
  std::vector<int32_t> magnitudes = DivisorsFrom(0);
  magnitudes.push_back(INT8_MIN);
  std::vector<Enumeration> tables = {Quotients(PositiveFloats(-2, 32), magnitudes),
                                     Quotients(EveryFloat(), few),
                                     Products(PositiveFloats(-2, 32), magnitudes),
                                     Products(EveryFloat(), few),
                                     Quotients(EveryFloat(), all),
                                     Products(EveryFloat(), all)};
  tables[4].is_long = tables[5].is_long = true;
  return tables;
}

}  // namespace bitfold::enumeration
