// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/matmul.h"

#include <type_traits>

#include "bitfold/convolution_call.h"
#include "bitfold/warning.h"
#include "chain/corrected_weights.h"
#include "chain/engine.h"

namespace bitfold {
namespace {

// The datapath as the engine knows it: integers have one for all products.
template <typename T>
using ChainDatapath =
    std::conditional_t<std::is_same_v<T, float>, ReciprocalDatapath<float>, Datapath<int32_t>>;

// An entry of the batch as a convolution: a row of the image for the rows of a, of which each has
// one tap.
template <typename T>
ConvolutionCall<T> ConvolutionOf(const MatMulCall<T>& call, int32_t batch_index) {
  ConvolutionCall<T> image{};
  image.input = call.AOf(batch_index);
  image.filter = call.BOf(batch_index);
  image.output = call.OutOf(batch_index);
  image.batch = 1;
  image.in_channels = call.inner;
  image.out_channels = call.cols;
  image.rows = {1, 1, 1, 1, Padding::kValid};
  image.columns = {call.rows, 1, 1, 1, Padding::kValid};
  image.filters = 1;
  image.datapath = call.datapath;
  return image;
}

// False, with nothing written or printed, where the definition must do.
template <typename T>
bool MultiplyByEngine(const MatMulCall<T>& call, int32_t batch_index, Scratch* scratch) {
  if (call.rows < 1 || call.cols < 1 || call.inner < 1) return false;
  const ConvolutionCall<T> image = ConvolutionOf(call, batch_index);
  const auto weights = CorrectWeights(WeightSign<T>(call.datapath.accumulator_size), image.filter,
                                      image.FilterElements(), scratch);
  if (weights.weights == nullptr) return false;
  const ChainEngine<ChainDatapath<T>, T> engine(image, weights, 1, scratch);
  if (!engine.plan()) return false;
  MatrixProduct<T> definition(call, batch_index);
  engine.Run(0, 0, [&definition](int32_t, int32_t row, int32_t column) {
    definition.DefineOutput(row, column);
  });
  if (weights.corrected) WarnMatMulWeights();
  return true;
}

}  // namespace

template <typename T>
void ComputeMatMul(const MatMulCall<T>& call, int32_t batch_index, Scratch* scratch) {
  if (!MultiplyByEngine(call, batch_index, scratch)) MatrixMultiplication(call, batch_index);
}

template void ComputeMatMul(const MatMulCall<int32_t>&, int32_t, Scratch*);
template void ComputeMatMul(const MatMulCall<float>&, int32_t, Scratch*);

}  // namespace bitfold
