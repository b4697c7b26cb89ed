// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the requantisation: the definition against the oracle, the vector loops of every target
// against the definition.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

#include "fuzz_input.h"
#include "support/requantise_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

uint64_t ReadWord64(FuzzInput* input) {
  const uint64_t high = input->Word();
  return high << 32 | input->Word();
}

// A usual one, or any bits.
double ReadMultiplier(FuzzInput* input) {
  if (input->Byte() < 220) {
    return std::ldexp(0.5 + std::ldexp(input->Word(), -33), input->Between(-36, 12));
  }
  const uint64_t word = ReadWord64(input);
  double multiplier;
  std::memcpy(&multiplier, &word, sizeof(multiplier));
  return multiplier;
}

template <typename Out>
RequantiseMode ReadMode(FuzzInput* input) {
  RequantiseMode mode = {};
  const int kind = input->Between(0, 2);
  mode.rescaling = kind == 0   ? Rescaling::kTwoRoundings
                   : kind == 1 ? Rescaling::kShortMultiplier
                               : Rescaling::kOneRounding;
  mode.shift = input->Flag() ? 0 : input->Between(-40, 40);
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

template <typename T, typename Out>
void Compare(FuzzInput* input) {
  RequantiseCase<T, Out> c;
  c.mode = ReadMode<Out>(input);
  if (std::is_same_v<T, int64_t> && c.mode.rescaling == Rescaling::kTwoRoundings) return;
  c.channels = 1 + input->Count();
  const int64_t multipliers = input->Flag() ? c.channels : 1;
  for (int64_t i = 0; i < multipliers; ++i) c.multipliers.push_back(ReadMultiplier(input));
  if (!c.IsTaken()) return;
  const int64_t count = c.channels * input->Between(1, 4);
  for (int64_t i = 0; i < count; ++i) {
    c.sums.push_back(
        static_cast<T>(static_cast<int64_t>(ReadWord64(input)) >> input->Between(0, 63)));
  }
  const int offset = input->Between(0, 3);
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  RequireSame(c.Oracle().data(), definition.data(), c.count(), "definition", describe);
  BackwardParts parts(1 + input->Byte());
  for (const auto& [target, name] : SupportedTargets()) {
    const ForcedTarget forced(target);
    const auto loops = c.Loops(&parts, offset);
    RequireSame(definition.data(), loops.data(), c.count(), name, describe);
  }
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using bitfold::testing::Compare;
  bitfold::testing::FuzzInput input(data, size);
  switch (input.Between(0, 5)) {
    case 0:
      Compare<int32_t, int8_t>(&input);
      break;
    case 1:
      Compare<int32_t, int16_t>(&input);
      break;
    case 2:
      Compare<int32_t, int32_t>(&input);
      break;
    case 3:
      Compare<int64_t, int8_t>(&input);
      break;
    case 4:
      Compare<int64_t, int16_t>(&input);
      break;
    default:
      Compare<int64_t, int32_t>(&input);
  }
  return 0;
}
