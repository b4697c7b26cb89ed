// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"

namespace bitfold::enumeration {
namespace {

constexpr uint64_t kBinade = uint64_t{1} << 23;

// The patterns from `first` on, with the first and the last block of each exponent.
Inputs Patterns(std::string name, uint32_t first_pattern, uint64_t count) {
  Inputs inputs = {std::move(name), count, {}, {}};
  inputs.fill = [first_pattern](const Setting& setting, uint64_t first, int n, float* x,
                                float* acc) {
    const uint32_t pattern = first_pattern + static_cast<uint32_t>(first);
    for (int i = 0; i < n; ++i) {
      x[i] = Float(pattern + static_cast<uint32_t>(i));
      acc[i] = setting.acc;
    }
  };
  for (uint64_t binade = 0; binade < count / kBinade; ++binade) {
    inputs.boundaries.push_back(binade * kBinade / kBlock);
    inputs.boundaries.push_back((binade + 1) * kBinade / kBlock - 1);
  }
  return inputs;
}

// Powers of two with what lies around them, whole numbers beside powers, halves and ties of the
// half-precision accumulator, the limits of warnings; of both signs, and what is no number.
std::vector<float> Boundaries() {
  std::vector<float> magnitudes = {0.0f, 40000.0f, 8388606.5f, 8388607.0f, 8388607.5f};
  for (int e = -149; e <= 127; ++e) {
    const float power = std::ldexp(1.0f, e);
    for (const float x : {power, power * 1.5f}) {
      magnitudes.insert(magnitudes.end(),
                        {std::nextafter(x, 0.0f), x, std::nextafter(x, HUGE_VALF)});
    }
  }
  for (int e = 0; e <= 33; ++e) {
    const float power = std::ldexp(1.0f, e);
    for (const float factor : {1.0f, 2.0f, 3.0f}) {
      for (const float more : {-2.0f, -1.0f, -0.5f, 0.5f, 1.0f, 2.0f}) {
        magnitudes.push_back(std::fabs(power * factor + more));
      }
    }
    // An odd step and a half of the format of 12 bits, a floor more and less.
    magnitudes.push_back(power * (1.0f + 0x1.8p-10f));
    magnitudes.push_back(power * (1.0f + 0x1.8p-10f + 0x1p-17f));
    magnitudes.push_back(power * (1.0f + 0x1.8p-10f - 0x1p-18f));
  }
  std::vector<float> values = {HUGE_VALF, -HUGE_VALF, Float(kNan), Float(0x7f800001)};
  for (const float x : magnitudes) values.insert(values.end(), {x, -x});
  std::sort(values.begin() + 4, values.end(), [](float a, float b) { return Bits(a) < Bits(b); });
  const auto is_same = [](float a, float b) { return Bits(a) == Bits(b); };
  values.erase(std::unique(values.begin(), values.end(), is_same), values.end());
  return values;
}

}  // namespace

Word WordOf(float x) { return Canonical(Bits(x)); }

Inputs EveryFloat() { return Patterns("every float", 0, uint64_t{1} << 32); }

Inputs PositiveFloats(int low, int high) {
  const std::string name = "floats from 2^" + std::to_string(low) + " to 2^" + std::to_string(high);
  return Patterns(name, static_cast<uint32_t>(low + 127) << 23,
                  static_cast<uint64_t>(high - low) * kBinade);
}

Inputs WholeNumbers(int32_t most) {
  Inputs inputs = {"whole numbers to " + std::to_string(most), {}, {}, {}};
  inputs.count = 2 * static_cast<uint64_t>(most) + 1;
  inputs.fill = [most](const Setting& setting, uint64_t first, int n, float* x, float* acc) {
    for (int i = 0; i < n; ++i) {
      x[i] = static_cast<float>(static_cast<int64_t>(first) + i - most);
      acc[i] = setting.acc;
    }
  };
  inputs.boundaries = {0, inputs.count / kBlock / 2, inputs.count / kBlock};
  return inputs;
}

Inputs PairsOfBoundaries() {
  const auto values = std::make_shared<const std::vector<float>>(Boundaries());
  const uint64_t size = values->size();
  Inputs inputs = {"pairs of " + std::to_string(size) + " boundaries", size * size, {}, {}};
  inputs.fill = [values, size](const Setting&, uint64_t first, int n, float* x, float* acc) {
    for (int i = 0; i < n; ++i) {
      const uint64_t pair = first + static_cast<uint64_t>(i);
      x[i] = (*values)[pair % size];
      acc[i] = (*values)[pair / size];
    }
  };
  return inputs;
}

}  // namespace bitfold::enumeration
