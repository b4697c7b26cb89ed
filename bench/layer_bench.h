// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Layers whose sums are looked at, with an accumulator that some of them leave.

#ifndef BITFOLD_BENCH_LAYER_BENCH_H_
#define BITFOLD_BENCH_LAYER_BENCH_H_

#include <cstdint>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "scalar_bench.h"

namespace bitfold {

// Outputs lie as the pixels do.
struct LayerShape {
  const char* name;
  int32_t side, in_channels, out_channels, taps;
  bool is_depthwise;
};

inline const std::vector<LayerShape> kLayerShapes = {
    {"56x56x64 to 64, 3x3", 56, 64, 64, 3, false},
    {"28x28x32 to 192, 1x1", 28, 32, 192, 1, false},
    {"14x14x576, 3x3", 14, 576, 576, 3, true}};
inline constexpr int32_t kAccumulatorSize = 18;

// A layer, an image and where its output goes.
class BenchedLayer {
 public:
  explicit BenchedLayer(const LayerShape& shape)
      : multipliers_(static_cast<size_t>(shape.out_channels), 1e-3),
        bias_(RandomIntegers<int32_t>(shape.out_channels, -1000, 1000)) {
    const LayerAxis axis = {shape.side, shape.taps, 1, 1, 0, 0, Padding::kSame};
    layer_ = {shape.in_channels,
              shape.out_channels,
              axis,
              axis,
              shape.is_depthwise,
              -1,
              nullptr,
              bias_.data(),
              multipliers_.data(),
              true,
              kAccumulatorSize,
              0,
              false,
              {Rescaling::kTwoRoundings, 0, 0, INT8_MIN, INT8_MAX}};
    filter_ = RandomIntegers<int8_t>(layer_.FilterElements(), -127, 127);
    layer_.filter = filter_.data();
    input_ = RandomIntegers<int8_t>(layer_.InputElements(), INT8_MIN, INT8_MAX);
    output_.resize(static_cast<size_t>(layer_.OutputElements()));
  }
  BenchedLayer(const BenchedLayer&) = delete;
  BenchedLayer& operator=(const BenchedLayer&) = delete;

  const PreparedLayer& layer() const { return layer_; }
  const int8_t* input() const { return input_.data(); }
  int8_t* output() { return output_.data(); }
  int64_t Products() const { return layer_.Positions() * layer_.FilterElements(); }

 private:
  PreparedLayer layer_ = {};
  std::vector<double> multipliers_;
  std::vector<int32_t> bias_;
  std::vector<int8_t> filter_;
  std::vector<int8_t> input_;
  std::vector<int8_t> output_;
};

}  // namespace bitfold

#endif  // BITFOLD_BENCH_LAYER_BENCH_H_
