// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Additions into a half-precision accumulator (rule H2 of docs/arithmetic.md), of products as they
// are and of scaled ones.

#include <string>
#include <vector>

#include "bitfold/datapath.h"
#include "bitfold/device_chain.h"
#include "bitfold/device_datapath.h"
#include "bitfold/device_half.h"
#include "bitfold/half_accumulator.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"
#include "proofs/enumerate/forms.h"
#include "proofs/enumerate/half.h"
#include "proofs/enumerate/scaling.h"

namespace bitfold::enumeration {
namespace {

constexpr int kWidth = 24;  // of which half precision takes no notice

DeviceDatapath<float> DeviceOf(int32_t mult_shift) {
  const AccumulatorLimits<float> limits(kWidth);
  return {limits.min, limits.max, mult_shift, /*use_fp16_acc=*/true};
}

// A step of a device's chain, where it is quiet and begins at a number of the format. A chain
// begins at +0 and never comes to -0.
template <typename Division>
Form QuietSteps() {
  using Chain = QuietHalfChain<Division>;
  const auto made = [](const Chain& chain, float x, float acc) {
    typename Chain::State state = chain.Enter(acc);
    chain.Add(x, 1.0f, &state);
    return state;
  };
  Form form = Prepared("device, quiet", [made](const Setting& setting) {
    return [made, chain = Chain(DeviceOf(setting.number))](float x, float acc) {
      return WordOf(Chain::Leave(made(chain, x, acc)));
    };
  });
  form.select = [made](const Block& block, bool* taken) {
    const Chain chain(DeviceOf(block.setting.number));
    for (int i = 0; i < block.count; ++i) {
      const float acc = block.acc[i];
      const bool is_begun = Bits(f32_to_hf16(acc)) == Bits(acc) && Bits(acc) != kSign;
      taken[i] = is_begun && Chain::IsQuiet(made(chain, block.x[i], acc));
    }
  };
  return form;
}

void AddLoops(std::vector<Form>* forms) {
  ForEachTarget([forms](const std::string& target) {
    const Datapath<float> datapath(kWidth, 0, /*use_fp16_acc=*/true);
    const auto loop = LoopsOf(datapath).accumulate;
    const auto compute = [datapath, loop](const Block& block, Word* results) {
      InPieces(block, results, [&](int first, int count, float* out) {
        loop(datapath, block.acc + first, block.x + first, count, out);
      });
    };
    forms->push_back({"loops, " + target, compute, {}});
  });
}

template <typename D>
void AddLanes(std::vector<Form>* forms) {
  ForEachTarget([forms](const std::string& target) {
    const auto compute = [step = LaneStep<D>()](const Block& block, Word* results) {
      step(D(kWidth, block.setting.number, /*use_fp16_acc=*/true), block, results);
    };
    forms->push_back({"lanes, " + target, compute, {}});
  });
}

Enumeration Additions(Inputs inputs, std::vector<Setting> settings) {
  Enumeration table = {"H2",
                       "the addend is quantised, and then the sum",
                       std::move(inputs),
                       std::move(settings),
                       {},
                       {},
                       {}};
  table.expected = Each("definition", [](const Setting&, float x, float acc) -> Word {
    return HalfSum(Bits(acc), Bits(x));
  });
  table.forms = {Each("AccumulateHalf", [](const Setting&, float x,
                                           float acc) { return WordOf(AccumulateHalf(acc, x)); }),
                 Each("device", [](const Setting&, float x,
                                   float acc) { return WordOf(AccumulateHalfOnDevice(acc, x)); }),
                 QuietSteps<NoDivision>()};
  AddLoops(&table.forms);
  AddLanes<Datapath<float>>(&table.forms);
  table.controls = {Each("the addend as it is", [](const Setting&, float x, float acc) {
    return WordOf(f32_to_hf16(acc + x));
  })};
  return table;
}

// Lanes scale a product and add it in one step. The floats that scaled products tell apart
// (scalings.cc) are enough: of the others they are 0, or whole numbers beyond the format.
template <typename D>
Enumeration ScaledAdditions(const std::string& rule, const std::string& claim,
                            uint32_t (*scaled)(uint32_t, int32_t)) {
  Enumeration table = {rule, claim, PositiveFloats(-2, 32), {}, {}, {}, {}};
  for (const int32_t divisor : {3, -5, 7, 30, 64, 100, 127, -128}) {
    table.settings.push_back({"by " + std::to_string(divisor), divisor});
  }
  table.expected = Each("definition", [scaled](const Setting& setting, float x, float acc) -> Word {
    return HalfSum(Bits(acc), scaled(Bits(x), setting.number));
  });
  AddLanes<D>(&table.forms);
  table.controls = {Each("the product as it is", [](const Setting&, float x, float acc) {
    return WordOf(AccumulateHalf(acc, x));
  })};
  return table;
}

Enumeration DividedAdditions() {
  Enumeration table = ScaledAdditions<Datapath<float>>(
      "S2, H2", "a product is divided and then added in half precision", Divided);
  Form by_any = QuietSteps<DivisionByAny>();
  by_any.name = "device, quiet, by any";
  Form by_power = QuietSteps<DivisionByPower>();
  by_power.name = "device, quiet, by a power";
  const auto all = by_power.select;
  by_power.select = [all](const Block& block, bool* taken) {
    all(block, taken);
    if (!DivisionByPower::Divides(block.setting.number)) std::fill_n(taken, block.count, false);
  };
  table.forms.insert(table.forms.end(), {by_any, by_power});
  return table;
}

}  // namespace

std::vector<Enumeration> HalfAccumulators() {
  return {Additions(PairsOfBoundaries(), {{""}}),
          Additions(EveryFloat(), {{"to 1 + 2^-10", 0, 0x1.004p0f}, {"to 32760", 0, 32760.0f}}),
          DividedAdditions(),
          ScaledAdditions<ReciprocalDatapath<float>>(
              "S3, H2", "a product with the reciprocal is added in half precision", Multiplied)};
}

}  // namespace bitfold::enumeration
