// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A prepared layer that counts its wrong sums: on its tiles, where these hold the sums of full
// width, too.

#ifndef BITFOLD_SRC_CPU_CHECKED_CONVOLUTION_H_
#define BITFOLD_SRC_CPU_CHECKED_CONVOLUTION_H_

#include <cstdint>
#include <optional>

#include "bitfold/HCheckedConvolution.h"
#include "cpu/kept_layer.h"
#include "cpu/prepared_convolution.h"
#include "frame/workers.h"

namespace bitfold {

// How sums are checked.
enum class CheckForm {
  kTiles,       // of the layer
  kNothing,     // none can be wrong
  kDefinition,  // sum by sum
};

// In and Out are int8_t or int16_t.
template <typename In, typename Out>
class CheckedConvolution {
 public:
  // Takes what the layer points to. Throws std::bad_alloc where there is no memory.
  CheckedConvolution(const PreparedLayer& layer, Workers* workers);
  CheckedConvolution(const CheckedConvolution&) = delete;
  CheckedConvolution& operator=(const CheckedConvolution&) = delete;

  // Of which no pointer and no accumulator counts.
  const PreparedLayer& layer() const { return kept_ ? kept_->layer() : layer_->layer(); }

  CheckForm form() const;

  // What DefineCheckedConvolution writes, prints and returns. Several threads may call it at the
  // same time.
  int64_t Run(const In* input, int32_t batch, Out* output, Workers* workers) const;

 private:
  std::optional<const PreparedConvolution<In, Out>> layer_;
  std::optional<const KeptLayer> kept_;  // for the definition
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_CHECKED_CONVOLUTION_H_
