// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/prepared_sums.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "bitfold/HConv2D.h"
#include "bitfold/warning.h"
#include "bitfold/weight_sign.h"
#include "chain/corrected_weights.h"
#include "chain/sum_output.h"
#include "chain/sum_watch.h"
#include "cpu/additions.h"

namespace bitfold {
namespace {

// Blocks for each thread, so that none waits long for the last one.
constexpr int64_t kBlocksForEach = 3;

int64_t BlocksFor(Workers* workers) {
  return workers->AtOnce() == 1 ? 1 : workers->AtOnce() * kBlocksForEach;
}

// Cycles of an image that are no sums, for each of its numbers.
constexpr int64_t kCostOfRest = 4;

}  // namespace

// Of an image: widened and padded, its sums, and these as integers.
template <typename T>
struct PreparedSums<T>::Buffers {
  std::vector<T> input;
  std::vector<T> sums;
  std::vector<int32_t> whole;  // floats alone

  explicit Buffers(const PreparedLayer& layer)
      : input(static_cast<size_t>(layer.PaddedElements())),
        // Whole panels are read.
        sums(static_cast<size_t>(layer.OutputElements() + kPanel)),
        whole(std::is_same_v<T, float> ? sums.size() : 0) {}
};

template <typename T>
PreparedSums<T>::PreparedSums(const PreparedLayer& layer, std::vector<T> weights, bool corrects,
                              const Facts& input, Workers* workers)
    : layer_(layer),
      shift_(layer.Shift()),
      filter_(layer.filter, layer.filter + layer.FilterElements()),
      weights_(std::move(weights)),
      bias_(layer.bias, layer.bias == nullptr ? nullptr : layer.bias + layer.out_channels),
      warns_(corrects && MeetsCorrectedWeight(WeightSign<T>(layer.accumulator_size), filter_.data(),
                                              layer.out_channels, WindowAxis(layer.rows.OfPadded()),
                                              WindowAxis(layer.columns.OfPadded()))),
      engine_(ConvolutionOf<T>(layer, &shift_), CorrectedWeights<T>{weights_.data(), corrects, {}},
              KnownFacts{input, {}}, ChainSharing{workers, workers->AtOnce(), BlocksFor(workers)},
              &memory_),
      slots_(workers->AtOnce()) {}

// By blocks, whose outputs that may print a line come after all of them, in their order.
template <typename T>
void PreparedSums<T>::SumBlocks(const ConvolutionCall<T>& call, Workers* workers) const {
  const std::vector<int64_t> may_print =
      engine_.RunShared({call.input, nullptr, call.output, 0}, &slots_, workers);
  ImageConvolution<T> definition(call, 0);
  const int64_t columns = layer_.columns.outputs();
  for (const int64_t output : may_print) {
    const int64_t position = output / layer_.out_channels;
    definition.DefineOutput(static_cast<int32_t>(position / columns),
                            static_cast<int32_t>(position % columns),
                            static_cast<int32_t>(output % layer_.out_channels));
  }
}

template <typename T>
void PreparedSums<T>::Sum(Buffers* buffers, Workers* workers) const {
  ConvolutionCall<T> call = ConvolutionOf<T>(layer_, &shift_);
  call.input = buffers->input.data();
  call.filter = filter_.data();
  call.output = buffers->sums.data();
  if (!engine_.plan()) return convolveOneImage(call, 0);
  SumBlocks(call, workers);
  if (warns_) WarnDepthwiseWeights();
}

template <typename T>
void PreparedSums<T>::AddBias(Buffers* buffers, Workers* workers) const {
  const T factor = T{1};
  const float once = 1.0f;
  const std::vector<T> sums = buffers->sums;
  ComputeBiasAdd<T>({sums.data(), bias_.data(), &factor, &once, buffers->sums.data(),
                     AdditionShape{1, 1, 1, layer_.out_channels},
                     DatapathAttributes{layer_.accumulator_size, &shift_, layer_.use_fp16_acc}},
                    layer_.OutputElements(), workers);
}

template <typename T>
template <typename In>
void PreparedSums<T>::RunImage(const In* image, const StoredOutput& output,
                               Workers* workers) const {
  Buffers buffers(layer_);
  PadImage(layer_, image, buffers.input.data());
  Sum(&buffers, workers);
  const int32_t* sums = buffers.whole.data();
  if constexpr (std::is_same_v<T, float>) {
    if (!bias_.empty()) AddBias(&buffers, workers);
    std::transform(buffers.sums.begin(), buffers.sums.end(), buffers.whole.begin(),
                   [](float sum) { return static_cast<int32_t>(sum); });
  } else {
    sums = buffers.sums.data();
  }
  // A row at a time: positions are counted in 32 bits.
  const int32_t columns = layer_.columns.outputs();
  for (int32_t row = 0; row < layer_.rows.outputs(); ++row) {
    const int64_t position = int64_t{row} * columns;
    FinishTile(sums + position * layer_.out_channels, columns, layer_.out_channels,
               output.At(position, 0, layer_.out_channels));
  }
}

template <typename T>
template <typename In>
void PreparedSums<T>::Run(const In* images, int32_t batch, const StoredOutput& output,
                          Workers* workers) const {
  const auto run = [&](int64_t first, int64_t end, Workers* of_image) {
    const WatchedPart part(output);
    for (int64_t image = first; image < end; ++image) {
      RunImage(images + image * layer_.InputElements(),
               part.output().At(image * layer_.Positions(), 0, layer_.out_channels), of_image);
    }
  };
  if (batch < BlocksFor(workers)) return run(0, batch, workers);
  const int64_t sums = engine_.plan() ? engine_.BlockCost() * engine_.blocks().count()
                                      : layer_.Positions() * layer_.FilterElements();
  workers->Share(batch, sums + layer_.OutputElements() * kCostOfRest,
                 [&](int64_t first, int64_t end) {
                   CallingThread calling_thread;
                   run(first, end, &calling_thread);
                 });
}

template class PreparedSums<int32_t>;
template class PreparedSums<float>;

#define BITFOLD_INSTANTIATE(T, In) \
  template void PreparedSums<T>::Run(const In*, int32_t, const StoredOutput&, Workers*) const;
BITFOLD_INSTANTIATE(int32_t, int8_t)
BITFOLD_INSTANTIATE(int32_t, int16_t)
BITFOLD_INSTANTIATE(float, int8_t)
BITFOLD_INSTANTIATE(float, int16_t)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
