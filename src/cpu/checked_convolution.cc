// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/checked_convolution.h"

namespace bitfold {

template <typename In, typename Out>
CheckedConvolution<In, Out>::CheckedConvolution(const PreparedLayer& layer, Workers* workers) {
  layer_.emplace(layer, workers, SumsOfTiles::kWhole);
  if (layer.IsWide() || layer_->has_whole_tiles()) return;
  layer_.reset();
  kept_.emplace(layer);
}

template <typename In, typename Out>
CheckForm CheckedConvolution<In, Out>::form() const {
  if (kept_) return CheckForm::kDefinition;
  const bool is_wide = layer_->wide_sums() != WideSums::kNone;
  return is_wide ? CheckForm::kNothing : CheckForm::kTiles;
}

template <typename In, typename Out>
int64_t CheckedConvolution<In, Out>::Run(const In* input, int32_t batch, Out* output,
                                         Workers* workers) const {
  WrongSums wrong;
  switch (form()) {
    case CheckForm::kTiles:
      layer_->Run(input, batch, output, workers, nullptr, &wrong);
      break;
    case CheckForm::kNothing:
      layer_->Run(input, batch, output, workers);
      break;
    case CheckForm::kDefinition: {
      const PreparedLayer& layer = kept_->layer();
      const int64_t cost = 2 * layer.Positions() * layer.FilterElements();
      workers->Share(batch, cost, [&](int64_t first, int64_t end) {
        WrongSums of_part;
        of_part.Add(DefineCheckedConvolution(layer, input + first * layer.InputElements(),
                                             static_cast<int32_t>(end - first),
                                             output + first * layer.OutputElements()));
        wrong.Join(of_part);
      });
    }
  }
  return wrong.count();
}

template class CheckedConvolution<int8_t, int8_t>;
template class CheckedConvolution<int8_t, int16_t>;
template class CheckedConvolution<int16_t, int8_t>;
template class CheckedConvolution<int16_t, int16_t>;

}  // namespace bitfold
