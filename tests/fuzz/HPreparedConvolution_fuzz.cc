// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes prepared layers: the definition against the oracle, the layer that a target makes
// against the definition.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include "fuzz_input.h"
#include "support/prepared_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

LayerAxis ReadAxis(FuzzInput* input) {
  LayerAxis axis = {input->Between(1, 8), input->Between(1, 4), input->Between(1, 3),
                    input->Between(1, 3), input->Between(0, 4), input->Between(0, 4)};
  const int32_t extent = (axis.taps - 1) * axis.dilation + 1;
  axis.after += std::max(0, extent - axis.padded());
  return axis;
}

template <typename Out>
RequantiseMode ReadMode(FuzzInput* input) {
  RequantiseMode mode = {};
  mode.rescaling = input->Flag()   ? Rescaling::kTwoRoundings
                   : input->Flag() ? Rescaling::kShortMultiplier
                                   : Rescaling::kOneRounding;
  mode.zero_point = static_cast<Out>(input->Word());
  mode.minimum = std::numeric_limits<Out>::min();
  mode.maximum = std::numeric_limits<Out>::max();
  if (input->Flag()) {
    mode.minimum = static_cast<Out>(input->Word());
    mode.maximum = static_cast<Out>(input->Word());
    if (mode.minimum > mode.maximum) std::swap(mode.minimum, mode.maximum);
  }
  return mode;
}

// Numbers of all bytes, or of few.
template <typename T>
std::vector<T> ReadStored(FuzzInput* input, int64_t count) {
  const int shift = input->Between(0, 7);
  std::vector<T> values;
  for (int64_t i = 0; i < count; ++i) {
    const auto high = static_cast<T>(static_cast<int8_t>(input->Byte()));
    values.push_back(
        static_cast<T>(sizeof(T) == 1 ? high >> shift : (high * 256 + input->Byte()) >> shift));
  }
  return values;
}

// False where the op would refuse a multiplier.
template <typename In, typename Out>
bool ReadMultipliers(FuzzInput* input, PreparedCase<In, Out>* c) {
  const int32_t count = input->Flag() ? c->out_channels : 1;
  const int exponent = input->Between(-31, 8);
  for (int32_t i = 0; i < count; ++i) {
    const double fraction = 0.5 + std::ldexp(input->Word(), -33);
    c->multipliers.push_back(std::ldexp(fraction, exponent + input->Between(-2, 2)));
    const ChannelMultiplier shifted = ShiftedMultiplier(c->multipliers.back(), c->mult_shift);
    if (!IsDefined(c->mode.rescaling, shifted)) return false;
  }
  return true;
}

// Makes its sums wide.
template <typename In, typename Out>
void Widen(FuzzInput* input, PreparedCase<In, Out>* c) {
  c->accumulator_size = kWideAccumulator;
  c->use_fp16_acc = false;
  if (c->mode.rescaling == Rescaling::kTwoRoundings) {
    c->mode.rescaling = Rescaling::kShortMultiplier;
  }
  for (int32_t i = 0; i < c->out_channels; ++i) {
    const uint64_t high = input->Word();
    const auto word = static_cast<int64_t>(high << 32 | input->Word());
    c->wide_bias.push_back(word >> input->Between(0, 63));
  }
  if (input->Flag()) c->wide_bias.clear();
}

template <typename In, typename Out>
void Compare(FuzzInput* input) {
  PreparedCase<In, Out> c;
  c.batch = input->Between(1, 3);
  c.rows = ReadAxis(input);
  c.columns = ReadAxis(input);
  c.rows.padding = c.columns.padding = input->Flag() ? Padding::kSame : Padding::kValid;
  c.is_depthwise = input->Between(0, 3) == 0;
  c.in_channels = input->Between(1, input->Flag() ? 36 : 5);
  c.out_channels = input->Between(1, c.is_depthwise ? c.in_channels : 36);
  c.zero_point = input->Flag() ? 0 : static_cast<In>(input->Word());
  c.use_fp16_acc = input->Between(0, 3) == 0;
  c.accumulator_size = input->Width<int32_t>();
  c.mult_shift = input->Flag() ? 0 : input->Between(0, c.use_fp16_acc ? 6 : 31);
  c.mode = ReadMode<Out>(input);
  const bool is_wide = input->Between(0, 3) == 0;
  if (is_wide) Widen(input, &c);
  if (!ReadMultipliers(input, &c)) return;
  if (!is_wide && input->Flag()) c.bias = input->Values<int32_t>(c.out_channels);
  c.filter = ReadStored<int8_t>(input, c.FilterElements());
  c.input = ReadStored<In>(input, c.InputElements());

  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const int offset = input->Between(0, 3);
  const auto definition = c.Definition(offset);
  const auto oracle = c.Oracle();
  RequireSame(oracle.values.data(), definition.values.data(), c.count(), "definition", describe);
  RequireSameText(oracle.lines, definition.lines, "definition", c.Inputs(0));
  const auto targets = AllTargets();
  const auto& [target, name] =
      targets[static_cast<size_t>(input->Between(0, static_cast<int>(targets.size()) - 1))];
  const ForcedTarget forced(target);
  CallingThread calling_thread;
  BackwardParts parts(1 + input->Between(0, 3));
  const auto layer = c.Prepare(&parts);
  const auto whole = c.By(*layer, &calling_thread, offset);
  RequireSame(definition.values.data(), whole.values.data(), c.count(), name, describe);
  RequireSameText(definition.lines, whole.lines, name, c.Inputs(0));
  const auto shared = c.By(*layer, &parts, offset);
  RequireSame(definition.values.data(), shared.values.data(), c.count(), name, describe);
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace bitfold::testing;
  FuzzInput input(data, size);
  switch (input.Between(0, 3)) {
    case 0:
      Compare<int8_t, int8_t>(&input);
      break;
    case 1:
      Compare<int8_t, int16_t>(&input);
      break;
    case 2:
      Compare<int16_t, int8_t>(&input);
      break;
    default:
      Compare<int16_t, int16_t>(&input);
  }
  return 0;
}
