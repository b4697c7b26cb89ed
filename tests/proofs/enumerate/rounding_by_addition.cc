// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Whole numbers read off sums with 1.5 * 2^23: a device's rounding, the kernels that add up rounded
// products, and what finds whole numbers among floats.

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "bitfold/device_chain.h"
#include "chain/lane_tile.h"
#include "chain/plan.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"
#include "proofs/enumerate/forms.h"
#include "proofs/enumerate/scaling.h"
#include "vector/whole_bits.h"

namespace bitfold::enumeration {
namespace {

// A device's rounding, where it is made.
Enumeration DeviceRounding() {
  const auto select = [](float most) {
    return [most](const Setting&, float x, float) { return std::fabs(x) <= most; };
  };
  Enumeration table = {"S2",
                       "adding and taking off 1.5 * 2^23 rounds to whole numbers up to 2^22",
                       EveryFloat(),
                       {{""}},
                       {},
                       {},
                       {}};
  table.expected = Each("definition", [](const Setting&, float x, float) -> Word {
    const uint32_t whole = Whole(Bits(x));
    return whole == kSign ? 0 : whole;  // zeros lose their sign
  });
  const auto rounded = [](const Setting&, float x, float) { return WordOf(RoundToWhole(x)); };
  table.forms = {Where("device", select(kLargestRounded), rounded)};
  table.controls = {Where("to 2^22 + 1/2", select(kLargestRounded + 0.5f), rounded),
                    Where("with 2^23", select(kLargestRounded), [](const Setting&, float x, float) {
                      return WordOf((x + 8388608.0f) - 8388608.0f);
                    })};
  return table;
}

// ---- Kernels -----------------------------------------------------------------------------------

// A product's rounded quotient as the kernel of a target adds it up: of one tap and one column.
class RoundedStep {
 public:
  RoundedStep() : kernel_(CurrentRoundedKernels().ordinary[0][1]) {}

  // A product that carries the reciprocal of the divisor is scaled.
  void operator()(const RoundedSums& sums, float scale, const Block& block, Word* results) const {
    constexpr int kLanes = kTilePanels * kPanel;
    const float one = 1.0f;
    for (int first = 0; first < block.count; first += kLanes) {
      const int count = std::min(kLanes, block.count - first);
      std::array<float, kLanes> weights = {};
      std::array<int32_t, kLanes> added = {};
      for (int i = 0; i < count; ++i) weights[static_cast<size_t>(i)] = block.x[first + i] * scale;
      LaneTile<float> tile = {};
      tile.x = &one;
      tile.w = weights.data();
      tile.rows = tile.channels = tile.taps = 1;
      tile.sums = added.data();
      kernel_(sums, tile);
      for (int i = 0; i < count; ++i) {
        const auto sum = static_cast<uint32_t>(added[static_cast<size_t>(i)]);
        results[first + i] = sum - kRoundingBits;
      }
    }
  }

 private:
  RoundedKernel kernel_;
};

template <typename SumsOf>
void AddKernels(SumsOf sums_of, std::vector<Form>* forms) {
  ForEachTarget([&](const std::string& target) {
    const auto compute = [step = RoundedStep(), sums_of](const Block& block, Word* results) {
      const int32_t divisor = block.setting.number;
      const RoundedSums sums = sums_of(divisor);
      const float scale = sums.is_scaled ? 1.0f / static_cast<float>(divisor) : 1.0f;
      step(sums, scale, block, results);
    };
    forms->push_back({"lanes, " + target, compute, {}});
  });
}

Word ExpectedWhole(const Setting& setting, float x, float) {
  const Exact p = Decoded(Bits(x));
  const Exact s = ExactOf(setting.number);
  // The products are whole: twice the quotient and whether there is a rest tell all.
  const uint64_t whole = Magnitude(p);
  const uint64_t doubled = 2 * whole / s.digits;
  const bool has_more = doubled * s.digits != 2 * whole;
  const auto rounded = static_cast<uint32_t>(HalvesToEven(doubled, 1, has_more));
  return p.is_negative != s.is_negative ? 0 - rounded : rounded;
}

// S1 divides by 2 to 2^24, S2 by numbers of 8 bits.
Enumeration ByPowers() {
  Enumeration table = {"S1, S2",
                       "adding 1.5 * 2^23 to p / 2^k rounds it, halves to even",
                       WholeNumbers(1 << 24),
                       {},
                       {},
                       {},
                       {}};
  for (int k = 0; k <= 24; ++k) {
    const std::string power = "2^" + std::to_string(k);
    table.settings.push_back({"by " + power, 1 << k});
    if (k <= 7) table.settings.push_back({"by -" + power, -(1 << k)});
  }
  table.expected = Each("definition", ExpectedWhole);
  AddKernels([](int32_t) { return RoundedSums{true, 0, 0}; }, &table.forms);
  const auto select = [](int32_t below) {
    return [below](const Block& block, bool* taken) {
      for (int i = 0; i < block.count; ++i) {
        const double quotient = static_cast<double>(block.x[i]) / block.setting.number;
        taken[i] = std::fabs(quotient) < below;
      }
    };
  };
  table.controls = {table.forms[0]};
  table.controls[0].name = "quotients from 2^22 on";
  for (Form& form : table.forms) form.select = select(1 << 22);
  table.controls[0].select = select(1 << 23);
  return table;
}

Enumeration ByOthers() {
  Enumeration table = {"S2",
                       "two products with reciprocals are rounded as the quotient",
                       WholeNumbers((1 << 19) - 1),
                       {},
                       {},
                       {},
                       {}};
  for (int32_t divisor = INT8_MIN; divisor <= INT8_MAX; ++divisor) {
    if (divisor == 0 || IsPowerOfTwo(divisor)) continue;
    table.settings.push_back({"by " + std::to_string(divisor), divisor});
  }
  table.expected = Each("definition", ExpectedWhole);
  AddKernels(RoundedSums::ByQuotient, &table.forms);
  std::vector<Form> one;
  AddKernels(
      [](int32_t divisor) {
        const float reciprocal = 1.0f / static_cast<float>(divisor);
        return RoundedSums{false, reciprocal, reciprocal};
      },
      &one);
  table.controls = {one[0]};
  table.controls[0].name = "one reciprocal";
  return table;
}

// ---- Whole numbers found -----------------------------------------------------------------------

// What is not whole, or larger than the limit, is told by the bits or by the size of the result.
Enumeration FoundWhole() {
  constexpr Word kNotWhole = uint64_t{1} << 32;
  const auto found = [](float x, bool takes_differences) -> Word {
    uint32_t differences = 0;
    const uint32_t whole = WholeBits(x, &differences);
    const auto number = static_cast<int32_t>(whole);
    const bool is_small = number >= -kWholeBitsLimit && number <= kWholeBitsLimit;
    const bool is_whole = (!takes_differences || AreWhole(differences)) && is_small;
    return is_whole ? whole : kNotWhole;
  };
  Enumeration table = {"Whole",
                       "floats that are whole numbers up to 2^22 are found and read",
                       EveryFloat(),
                       {{""}},
                       {},
                       {},
                       {}};
  table.expected = Each("definition", [](const Setting&, float x, float) -> Word {
    if (!IsFinite(Bits(x))) return kNotWhole;
    const Exact exact = Decoded(Bits(x));
    if (exact.exponent >= 0 || Whole(Bits(x)) != Bits(x)) return kNotWhole;
    const uint64_t magnitude = Magnitude(exact);
    if (magnitude > 1 << 22) return kNotWhole;
    const auto whole = static_cast<uint32_t>(magnitude);
    return exact.is_negative ? 0 - whole : whole;
  });
  table.forms = {
      Each("WholeBits", [found](const Setting&, float x, float) { return found(x, true); })};
  table.controls = {Each("without the differences",
                         [found](const Setting&, float x, float) { return found(x, false); })};
  return table;
}

}  // namespace

std::vector<Enumeration> RoundingByAddition() {
  return {DeviceRounding(), ByPowers(), ByOthers(), FoundWhole()};
}

}  // namespace bitfold::enumeration
