// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A prepared layer with copies of what it points to, for who computes it by the definition.

#ifndef BITFOLD_SRC_CPU_KEPT_LAYER_H_
#define BITFOLD_SRC_CPU_KEPT_LAYER_H_

#include <cstdint>
#include <vector>

#include "bitfold/HPreparedConvolution.h"

namespace bitfold {

class KeptLayer {
 public:
  explicit KeptLayer(const PreparedLayer& from)
      : layer_(from),
        filter_(from.filter, from.filter + from.FilterElements()),
        bias_(CopyOf(from.bias, from.out_channels)),
        wide_bias_(CopyOf(from.wide_bias, from.out_channels)),
        multipliers_(from.multipliers,
                     from.multipliers + (from.per_channel ? from.out_channels : 1)) {
    layer_.filter = filter_.data();
    layer_.bias = bias_.empty() ? nullptr : bias_.data();
    layer_.wide_bias = wide_bias_.empty() ? nullptr : wide_bias_.data();
    layer_.multipliers = multipliers_.data();
  }
  KeptLayer(const KeptLayer&) = delete;
  KeptLayer& operator=(const KeptLayer&) = delete;

  const PreparedLayer& layer() const { return layer_; }

 private:
  template <typename T>
  static std::vector<T> CopyOf(const T* bias, int32_t channels) {
    return bias == nullptr ? std::vector<T>() : std::vector<T>(bias, bias + channels);
  }

  PreparedLayer layer_;
  const std::vector<int8_t> filter_;
  const std::vector<int32_t> bias_;
  const std::vector<int64_t> wide_bias_;
  const std::vector<double> multipliers_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_KEPT_LAYER_H_
