// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Float accumulators of the host and of a device (rules A2, A4 and D2 of docs/arithmetic.md).

#include <array>
#include <string>
#include <vector>

#include "bitfold/accumulator.h"
#include "bitfold/datapath.h"
#include "bitfold/device_chain.h"
#include "bitfold/device_datapath.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"
#include "proofs/enumerate/forms.h"

namespace bitfold::enumeration {
namespace {

constexpr uint32_t kOne = 0x3f800000;

// A2, in whole numbers.
struct Limits {
  uint32_t min;
  uint32_t max;
  uint32_t period;

  explicit Limits(int32_t width) {
    const uint32_t magnitude = Nearest({false, 1, width - 1});
    min = Negated(magnitude);
    max = Sum(magnitude, Negated(kOne));
    period = Sum(magnitude, magnitude);
  }
};

// A4.
uint32_t Wrapped(const Limits& limits, uint32_t sum) {
  if (IsLess(limits.max, sum)) return Sum(sum, Negated(limits.period));
  if (IsLess(sum, limits.min)) return Sum(sum, limits.period);
  return sum;
}

// D2.
uint32_t WrappedOnDevice(const Limits& limits, uint32_t sum) {
  if (IsLess(limits.max, sum)) {
    return Sum(Sum(Sum(sum, Negated(limits.max)), Negated(kOne)), limits.min);
  }
  if (IsLess(sum, limits.min)) return Sum(Sum(Sum(sum, Negated(limits.min)), kOne), limits.max);
  return sum;
}

template <typename Wrap>
Form Definition(Wrap wrap) {
  return Prepared("definition", [wrap](const Setting& setting) {
    return [wrap, limits = Limits(setting.number)](float x, float acc) -> Word {
      return wrap(limits, Sum(Bits(acc), Bits(x)));
    };
  });
}

template <typename Wrap>
Form Shipped(std::string name, Wrap wrap) {
  return Prepared(std::move(name), [wrap](const Setting& setting) {
    return [wrap, limits = AccumulatorLimits<float>(setting.number)](float x, float acc) {
      return WordOf(wrap(acc + x, limits));
    };
  });
}

void AddLoops(std::vector<Form>* forms) {
  ForEachTarget([forms](const std::string& target) {
    const auto loop = LoopsOf(Datapath<float>(24, 0, false)).accumulate;
    const auto compute = [loop](const Block& block, Word* results) {
      const Datapath<float> datapath(block.setting.number, 0, /*use_fp16_acc=*/false);
      InPieces(block, results, [&](int first, int count, float* out) {
        loop(datapath, block.acc + first, block.x + first, count, out);
      });
    };
    forms->push_back({"loops, " + target, compute, {}});
    const auto in_lanes = [step = LaneStep<Datapath<float>>()](const Block& block, Word* results) {
      step(Datapath<float>(block.setting.number, 0, /*use_fp16_acc=*/false), block, results);
    };
    forms->push_back({"lanes, " + target, in_lanes, {}});
  });
}

// A step of a device's chain, where it is quiet: a chain begins at +0 and never comes to -0.
Form QuietSteps() {
  using Chain = QuietFloatChain<NoDivision>;
  const auto chain_of = [](const Setting& setting) {
    const AccumulatorLimits<float> limits(setting.number);
    return Chain(DeviceDatapath<float>(limits.min, limits.max, 0, /*use_fp16_acc=*/false));
  };
  const auto made = [](const Chain& chain, float x, float acc) {
    Chain::State state = Chain::Enter(acc);
    chain.Add(x, 1.0f, &state);
    return state;
  };
  Form form = Prepared("device, quiet", [chain_of, made](const Setting& setting) {
    return [made, chain = chain_of(setting)](float x, float acc) {
      return WordOf(Chain::Leave(made(chain, x, acc)));
    };
  });
  form.select = [chain_of, made](const Block& block, bool* taken) {
    const Chain chain = chain_of(block.setting);
    for (int i = 0; i < block.count; ++i) {
      const bool is_begun = Bits(block.acc[i]) != kSign;
      taken[i] = is_begun && chain.IsQuiet(made(chain, block.x[i], block.acc[i]));
    }
  };
  return form;
}

float WrapAtMax(float sum, const AccumulatorLimits<float>& limits) {
  return sum >= limits.max ? sum - limits.period : WrapOnce(sum, limits);
}

float WrapByDevice(float sum, const AccumulatorLimits<float>& limits) {
  return WrapOnDevice(sum, limits.min, limits.max);
}

Enumeration OnHost(Inputs inputs, std::vector<Setting> settings) {
  Enumeration table = {"A4",
                       "a sum beyond a limit comes back by one period",
                       std::move(inputs),
                       std::move(settings),
                       {},
                       {},
                       {}};
  table.expected = Definition(Wrapped);
  table.forms = {Shipped("WrapOnce", WrapOnce)};
  AddLoops(&table.forms);
  table.controls = {Shipped("a sum of the limit wraps", WrapAtMax),
                    Shipped("D2 in its place", WrapByDevice)};
  return table;
}

Enumeration OnDevice(Inputs inputs, std::vector<Setting> settings) {
  Enumeration table = {"D2",
                       "a device's wrap rounds after each of its steps",
                       std::move(inputs),
                       std::move(settings),
                       {},
                       {},
                       {}};
  table.expected = Definition(WrappedOnDevice);
  table.forms = {Shipped("WrapOnDevice", WrapByDevice), QuietSteps()};
  table.controls = {Shipped("A4 in its place", WrapOnce)};
  return table;
}

std::vector<Setting> Widths() {
  std::vector<Setting> settings;
  for (int32_t width = -2; width <= 40; ++width) settings.push_back({"", width});
  for (const int32_t width : {-200, -149, -148, -147, 64, 126, 127, 128, 129, 130, 200}) {
    settings.push_back({"", width});
  }
  for (Setting& setting : settings) setting.name = std::to_string(setting.number) + " bits";
  return settings;
}

std::vector<Setting> WidthsAndNumbers() {
  return {{"24 bits, to 2^23 - 1", 24, 8388607.0f},
          {"8 bits, to -127.5", 8, -127.5f},
          {"31 bits, to 2^30", 31, 1073741824.0f}};
}

}  // namespace

std::vector<Enumeration> FloatAccumulators() {
  return {OnHost(PairsOfBoundaries(), Widths()), OnHost(EveryFloat(), WidthsAndNumbers()),
          OnDevice(PairsOfBoundaries(), Widths()), OnDevice(EveryFloat(), WidthsAndNumbers())};
}

}  // namespace bitfold::enumeration
