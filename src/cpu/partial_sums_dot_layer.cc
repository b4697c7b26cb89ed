// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_dot_layer.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "chain/lane_windows.h"

namespace bitfold {
namespace {

constexpr int32_t kInWord = 4;
// At most, unless a word has more. Numbers of both signs carry sums further.
constexpr int32_t kSegmentSteps = 24;
constexpr int32_t kSegmentStepsOfOneSign = 32;

int32_t SegmentWords(const BytesCall& call, bool has_one_sign, int32_t words) {
  const int32_t steps = has_one_sign ? kSegmentStepsOfOneSign : kSegmentSteps;
  return std::clamp(steps / kInWord / call.columns.taps, 1, words);
}

// Where each output meets one number of each channel, the pixels of an image are a single row, and
// so are images of one pixel: tiles are the larger.
BytesCall InOneRow(const BytesCall& call) {
  const auto is_plain = [](const LayerAxis& axis) {
    return axis.taps == 1 && axis.stride == 1 && axis.before == 0 && axis.after == 0;
  };
  if (!is_plain(call.rows) || !is_plain(call.columns)) return call;
  BytesCall flat = call;
  flat.rows.input = 1;
  flat.columns.input = call.rows.input * call.columns.input;
  if (flat.columns.input == 1 && int64_t{call.batch} * call.in_channels < kMostSummedElements) {
    flat.columns.input = call.batch;
    flat.batch = 1;
  }
  return flat;
}

}  // namespace

SummedDotLayer::SummedDotLayer(const BytesCall& of, const PartialSumsTables& tables)
    : call(InOneRow(of)),
      layout{of.out_channels, of.bias, of.mult_shift, of.sizes, of.size_count},
      windows(call, kInWord),
      units(call.batch, windows.rows.outputs, windows.columns.outputs),
      begins(layout, tables),
      kernels(*CurrentBorderKernels()),
      loops(CurrentSummedLoops()),
      words((of.in_channels + kInWord - 1) / kInWord),
      segment_words(SegmentWords(call, HasOwnMagnitudes(), words)),
      row_segments((words + segment_words - 1) / segment_words) {
  PackWeights();
  Bound();
  for (int32_t c = 0; c < windows.columns.outputs; ++c) {
    const TapRange inside = TapsInside(windows.columns, c);
    taps.push_back({inside.first, inside.count});
  }
}

void SummedDotLayer::PackWeights() {
  weights.resize(static_cast<size_t>(layout.panels() * PanelVectors()));
  const int64_t outputs = call.out_channels;
  const int64_t panel = PanelVectors() * static_cast<int64_t>(sizeof(WeightVector) / kInWord);
  const std::vector<int8_t> none(static_cast<size_t>(outputs));
  for (int64_t kh = 0; kh < windows.rows.taps; ++kh) {
    for (int64_t kw = 0; kw < windows.columns.taps; ++kw) {
      const int8_t* tap =
          call.filter + (kh * windows.columns.taps + kw) * call.in_channels * outputs;
      for (int32_t word = 0; word < words; ++word) {
        const int8_t* rows[kInWord];
        for (int32_t c = 0; c < kInWord; ++c) {
          const int32_t channel = word * kInWord + c;
          rows[c] = channel < call.in_channels ? tap + channel * outputs : none.data();
        }
        const int64_t vector = kh * RowVectors() + int64_t{word} * windows.columns.taps + kw;
        loops.pack_words(rows, call.out_channels, panel,
                         weights[static_cast<size_t>(vector)].words);
      }
    }
  }
}

void SummedDotLayer::Bound() {
  bounds.resize(static_cast<size_t>(layout.panels() * PanelSegments()));
  for (int32_t p = 0; p < layout.panels(); ++p) {
    const SegmentBounds* before = nullptr;
    for (int64_t s = 0; s < PanelSegments(); ++s) {
      const int64_t row = s / row_segments;
      const auto word = static_cast<int32_t>(s % row_segments) * segment_words;
      const int64_t vector =
          p * PanelVectors() + row * RowVectors() + int64_t{word} * windows.columns.taps;
      SegmentBounds& of = bounds[static_cast<size_t>(p * PanelSegments() + s)];
      const int32_t vectors = std::min(segment_words, words - word) * windows.columns.taps;
      loops.bound({&weights[static_cast<size_t>(vector)], vectors, Offset()}, before, &of);
      before = &of;
    }
  }
}

}  // namespace bitfold
