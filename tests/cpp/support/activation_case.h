// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The activation unit as its tests see it: one case, computed by the oracle, by the definition and
// by the vector loops.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_ACTIVATION_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_ACTIVATION_CASE_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/activation.h"
#include "cpu/activation.h"
#include "reference/activation.h"
#include "support/bits.h"
#include "support/buffer.h"

namespace bitfold::testing {

inline reference::ActivationSettings OracleSettings(const ActivationMode& mode) {
  return {mode.is_8bit_to_16bit_mode,   mode.is_velquin,      mode.ebias, mode.clip_bits, mode.beta,
          mode.is_16bit_precision_mode, mode.is_signed_output};
}

inline std::string Describe(const ActivationMode& mode) {
  return Describe("8 to 16 bits", mode.is_8bit_to_16bit_mode, "variant", mode.is_velquin, "ebias",
                  mode.ebias, "clip", mode.clip_bits, "16-bit precision",
                  mode.is_16bit_precision_mode);
}

// `points` breakpoints and `pieces` pieces a group; the tables hold a row for each group.
struct ActivationCase {
  std::vector<int64_t> in;
  int64_t positions = 1;
  int64_t channels = 1;
  int64_t points = 0;
  int64_t pieces = 1;
  std::vector<int64_t> x_points;
  std::vector<int64_t> offsets;
  std::vector<int64_t> slopes_m;
  std::vector<int64_t> slopes_e;
  std::vector<int64_t> size_splits;
  ActivationMode mode = {};

  int64_t count() const { return positions * channels; }
  int64_t groups() const { return static_cast<int64_t>(size_splits.size()); }

  // The group of a channel, or one too many.
  int64_t GroupOf(int64_t channel) const {
    int64_t first = 0;
    for (int64_t g = 0; g < groups(); ++g) {
      first += std::max<int64_t>(size_splits[static_cast<size_t>(g)], 0);
      if (channel < first) return g;
    }
    return groups();
  }

  std::string Inputs(int64_t i) const {
    const int64_t channel = i % channels;
    const int64_t group = GroupOf(channel);
    std::string text = Describe("in", in[static_cast<size_t>(i)], "position", i / channels,
                                "channel", channel, "group", group) +
                       Describe(mode);
    if (group == groups()) return text;
    const auto row = [group, &text](const char* name, const std::vector<int64_t>& table,
                                    int64_t columns) {
      text += std::string("\n  ") + name + ":";
      for (int64_t k = 0; k < columns; ++k) {
        text += " " + std::to_string(table[static_cast<size_t>(group * columns + k)]);
      }
    };
    row("x_points", x_points, points);
    row("offsets", offsets, pieces);
    row("slopes_m", slopes_m, pieces);
    row("slopes_e", slopes_e, pieces);
    return text;
  }
};

// What a run starts from, so that elements that are not written show.
inline constexpr int32_t kUnwrittenActivation = 0x5eed;

template <typename Run>
ExactBuffer<int32_t> RunActivationBy(const ActivationCase& c, Run run, int offset = 0,
                                     int32_t unwritten = kUnwrittenActivation) {
  const ExactBuffer<int64_t> in(c.in, offset);
  const ExactBuffer<int64_t> x_points(c.x_points);
  const ExactBuffer<int64_t> offsets(c.offsets);
  const ExactBuffer<int64_t> slopes_m(c.slopes_m);
  const ExactBuffer<int64_t> slopes_e(c.slopes_e);
  ExactBuffer<int32_t> out(c.count(), (offset + 1) % 4);
  std::fill(out.data(), out.data() + c.count(), unwritten);
  const ActivationGroups groups = {{x_points.data(), c.points}, {offsets.data(), c.pieces},
                                   {slopes_m.data(), c.pieces}, {slopes_e.data(), c.pieces},
                                   c.size_splits.data(),        c.groups()};
  run(in.data(), ActivationShape{c.positions, c.channels}, groups, c.mode, out.data());
  return out;
}

// 0 where nothing is written.
inline ExactBuffer<int32_t> OracleActivation(const ActivationCase& c,
                                             reference::ActivationStatus* status) {
  ExactBuffer<int32_t> out(c.count());
  const int64_t rows = c.groups();
  const reference::ActivationTables tables = {{c.x_points.data(), rows, c.points},
                                              {c.offsets.data(), rows, c.pieces},
                                              {c.slopes_m.data(), rows, c.pieces},
                                              {c.slopes_e.data(), rows, c.pieces}};
  *status = reference::Activation(c.in.data(), c.positions, c.channels, tables,
                                  c.size_splits.data(), rows, OracleSettings(c.mode), out.data());
  return out;
}

// Whether the vector loops leave a group to the definition.
inline bool GroupNeedsDefinition(const ActivationCase& c, int64_t group) {
  if (c.points > 32 || c.mode.clip_bits < 0) return true;
  const auto first = c.x_points.begin() + group * c.points;
  return !std::is_sorted(first, first + c.points);
}

// Whether the group's channels get a lane each, which none has that fills its runs.
inline bool GroupTakesLanes(const ActivationCase& c, int64_t group) {
  const int64_t size = c.size_splits[static_cast<size_t>(group)];
  return !GroupNeedsDefinition(c, group) && size > 0 && size < 128 && size < c.channels &&
         size * c.positions >= 3;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_ACTIVATION_CASE_H_
