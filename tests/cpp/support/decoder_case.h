// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The two box decoders as their tests see them: one case, computed by the oracle, by the definition
// row by row and by what the kernel runs.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_DECODER_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_DECODER_CASE_H_

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bitfold/HBboxDecoder.h"
#include "bitfold/HSingleWeightPerProposalBboxDecoder.h"
#include "cpu/box_decoders.h"
#include "reference/decoder.h"
#include "support/bits.h"
#include "support/ledger.h"
#include "support/op_case.h"
#include "support/random.h"
#include "support/tables.h"

namespace bitfold::testing {

// How a decoder is called; its inputs are in the order of its registration, the first four shared.
struct HBboxDecoderTraits {
  static constexpr const char* kName = "HBboxDecoder";
  static constexpr size_t kInputs = 10;
  static constexpr Path kInt32Path = Path::kBboxDecoderInt32;
  static constexpr Path kFloatPath = Path::kBboxDecoderFloat;
  static constexpr Path kHalfPath = Path::kBboxDecoderHalf;

  template <typename T>
  static BboxDecoderCall<T> CallOf(const std::vector<const T*>& in, const DetectionGrid& grid,
                                   const DatapathAttributes& attributes, T* out) {
    return {in[0], in[1], in[2], in[3], in[4], in[5],     in[6],
            in[7], in[8], in[9], out,   grid,  attributes};
  }
  template <typename T>
  static void Define(const BboxDecoderCall<T>& call, const DetectionRow& row) {
    DefineBboxDecoder(call, row, 0, int64_t{call.grid.columns} * call.grid.anchors);
  }
  template <typename T>
  static void Run(const BboxDecoderCall<T>& call, Workers* workers) {
    ComputeBboxDecoder(call, workers);
  }
  template <typename T>
  static constexpr auto kOracle = reference::DecodeBoxes<T>;
};

struct HSingleWeightDecoderTraits {
  static constexpr const char* kName = "HSingleWeightPerProposalBboxDecoder";
  static constexpr size_t kInputs = 8;
  static constexpr Path kInt32Path = Path::kSingleWeightDecoderInt32;
  static constexpr Path kFloatPath = Path::kSingleWeightDecoderFloat;
  static constexpr Path kHalfPath = Path::kSingleWeightDecoderHalf;

  template <typename T>
  static SingleWeightPerProposalBboxDecoderCall<T> CallOf(const std::vector<const T*>& in,
                                                          const DetectionGrid& grid,
                                                          const DatapathAttributes& attributes,
                                                          T* out) {
    return {in[0], in[1], in[2], in[3], in[4], in[5], in[6], in[7], out, grid, attributes};
  }
  template <typename T>
  static void Define(const SingleWeightPerProposalBboxDecoderCall<T>& call,
                     const DetectionRow& row) {
    DefineSingleWeightPerProposalBboxDecoder(call, row, 0,
                                             int64_t{call.grid.columns} * call.grid.anchors);
  }
  template <typename T>
  static void Run(const SingleWeightPerProposalBboxDecoderCall<T>& call, Workers* workers) {
    ComputeSingleWeightPerProposalBboxDecoder(call, workers);
  }
  template <typename T>
  static constexpr auto kOracle = reference::DecodeBoxesSingleWeight<T>;
};

template <typename Op, typename T>
struct DecoderCase {
  using Element = T;
  static constexpr const char* kName = Op::kName;

  int32_t n = 1;
  int32_t h = 1;
  int32_t w = 1;
  int32_t anchors = 1;
  std::vector<std::vector<T>> inputs = std::vector<std::vector<T>>(Op::kInputs);
  int32_t accumulator_size = 32;
  int32_t mult_shift = 0;
  bool use_fp16_acc = false;

  int64_t count() const {
    return std::min({n, h, w, anchors}) < 1 ? 0 : int64_t{4} * n * h * w * anchors;
  }

  // Elements of an input.
  int64_t InputCount(size_t k) const {
    const int64_t positive_n = std::max(0, n);
    const int64_t positive_h = std::max(0, h);
    const int64_t positive_w = std::max(0, w);
    const int64_t a = std::max(0, anchors);
    return k < 2    ? 2 * positive_n * positive_h * positive_w * a
           : k == 2 ? 2 * positive_h * a
           : k == 3 ? 2 * positive_w * a
                    : a;
  }

  std::optional<Path> Loops() const { return Path::kDatapathPortable; }

  std::string Inputs(int64_t i) const {
    const int64_t anchor = i / 4 % anchors;
    const int64_t position = i / 4 / anchors;
    const int64_t column = position % w;
    const int64_t row = position / w % h;
    std::string text = Describe("corner", i % 4, "anchor", anchor, "column", column, "row", row,
                                "image", position / w / h, "shift", mult_shift, "width",
                                accumulator_size, "fp16", use_fp16_acc);
    const int64_t places[4] = {position, position, row, column};
    for (size_t k = 0; k < Op::kInputs; ++k) {
      const auto at = static_cast<size_t>(k < 4 ? 2 * (places[k] * anchors + anchor) : anchor);
      const std::string name = "input " + std::to_string(k);
      text += Describe(name.c_str(), inputs[k][at]);
      if (k < 4) text += Describe("and", inputs[k][at + 1]);
    }
    return text;
  }

  void Oracle(T* out, std::string* lines) const {
    std::vector<const T*> in;
    for (const auto& input : inputs) in.push_back(input.data());
    Op::template kOracle<T>(in.data(), n, h, w, anchors, accumulator_size, mult_shift, use_fp16_acc,
                            out, lines);
  }

  void Define(int offset, T* out) const {
    With(offset, out, [](const auto& call) {
      ForEachDetectionRow(call.grid, [&](const DetectionRow& row) { Op::Define(call, row); });
    });
  }

  void Run(int offset, Workers* workers, T* out) const {
    With(offset, out, [workers](const auto& call) { Op::Run(call, workers); });
  }

 private:
  template <typename How>
  void With(int offset, T* out, How how) const {
    std::vector<ExactBuffer<T>> buffers;
    std::vector<const T*> in;
    for (const auto& input : inputs) {
      buffers.emplace_back(input, offset++ % 4);
      in.push_back(buffers.back().data());
    }
    const ExactBuffer<int8_t> shift(std::vector<int8_t>{static_cast<int8_t>(mult_shift)});
    how(Op::CallOf(in, {n, h, w, anchors}, {accumulator_size, shift.data(), use_fp16_acc}, out));
  }
};

template <typename Op, typename T>
DecoderCase<Op, T> DrawDecoder(Random* random, Data data, int32_t n, int32_t h, int32_t w,
                               int32_t anchors) {
  DecoderCase<Op, T> c;
  c.n = n;
  c.h = h;
  c.w = w;
  c.anchors = anchors;
  for (size_t k = 0; k < Op::kInputs; ++k) {
    c.inputs[k] = DrawMany<T>(random, data, c.InputCount(k));
  }
  return c;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_DECODER_CASE_H_
