// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/matmul.h"

#include <algorithm>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/warning.h"
#include "chain/corrected_weights.h"
#include "chain/engine.h"
#include "chain/row_product.h"
#include "frame/slots.h"

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

// Units for each thread, so that none waits long for the last one.
constexpr int64_t kUnitsForEach = 3;

// Outputs whose lines may wait for those before them.
constexpr int64_t kOutputsTogether = int64_t{1} << 20;

// What is left of an entry once its outputs are there.
struct Rest {
  bool is_computed = false;  // otherwise nothing was written: the definition must do
  bool warns = false;
  std::vector<int64_t> may_print;  // outputs, in their order
};

template <typename T>
Rest RunEngine(const ConvolutionCall<T>& image, const CorrectedWeights<T>& weights, Look look,
               Workers* workers, Scratch* scratch) {
  if (weights.weights == nullptr) return {};
  const int threads = workers->AtOnce();
  const ChainEngine<ChainDatapath<T>, T> engine(
      image, weights, KnownFacts{{}, {}, look},
      {workers, threads, threads == 1 ? 1 : threads * kUnitsForEach, 1}, scratch);
  if (!engine.plan()) return {};

  Slots slots(engine.slots());
  auto may_print = engine.RunShared({image.input, nullptr, image.output, 0}, &slots, workers);
  if (!engine.IsAsAssumed()) return {};
  return {true, weights.corrected, std::move(may_print)};
}

// Weights that are bytes of which none needs its sign corrected are looked at while they are
// packed.
template <typename T>
Rest Multiply(const MatMulCall<T>& call, int32_t batch_index, Workers* workers, Scratch* scratch) {
  if (call.rows < 1 || call.cols < 1 || call.inner < 1) return {};
  if (call.rows == 1 && MultiplyRow(call, batch_index, workers, scratch)) return {true, false, {}};
  const ConvolutionCall<T> image = ConvolutionOf(call, batch_index);
  const WeightSign<T> sign(call.datapath.accumulator_size);
  if (!sign.NeedsCorrection(T{INT8_MAX})) {
    Rest rest = RunEngine(image, CorrectedWeights<T>{image.filter, false, {}}, Look::kWhilePacking,
                          workers, scratch);
    if (rest.is_computed) return rest;
  }
  const auto weights = CorrectWeights(sign, image.filter, image.FilterElements(), workers, scratch);
  return RunEngine(image, weights, Look::kFirst, workers, scratch);
}

template <typename T>
void Finish(const MatMulCall<T>& call, int32_t batch_index, const Rest& rest) {
  if (!rest.is_computed) return MatrixMultiplication(call, batch_index);
  MatrixProduct<T> definition(call, batch_index);
  for (const int64_t output : rest.may_print) {
    definition.DefineOutput(static_cast<int32_t>(output / call.cols),
                            static_cast<int32_t>(output % call.cols));
  }
  if (rest.warns) WarnMatMulWeights();
}

// Entries [first, end), a thread for each of them.
template <typename T>
void MultiplyTogether(const MatMulCall<T>& call, int32_t first, int32_t end,
                      const MakeScratch& make_scratch, Workers* workers) {
  std::vector<Rest> rests(static_cast<size_t>(end - first));
  const int64_t weights = int64_t{call.inner} * call.cols;
  const int64_t cost = weights * call.rows / 32 + weights;
  workers->Share(end - first, cost, [&](int64_t begin, int64_t stop) {
    CallingThread alone;
    for (int64_t i = begin; i < stop; ++i) {
      const std::unique_ptr<Scratch> scratch = make_scratch();
      rests[static_cast<size_t>(i)] =
          Multiply(call, static_cast<int32_t>(first + i), &alone, scratch.get());
    }
  });
  for (int32_t i = first; i < end; ++i) Finish(call, i, rests[static_cast<size_t>(i - first)]);
}

}  // namespace

template <typename T>
void ComputeMatMul(const MatMulCall<T>& call, int32_t batch, const MakeScratch& make_scratch,
                   Workers* workers) {
  const int64_t wanted = workers->AtOnce() * kUnitsForEach;
  if (workers->AtOnce() == 1 || batch < wanted) {
    for (int32_t i = 0; i < batch; ++i) {
      const std::unique_ptr<Scratch> scratch = make_scratch();
      Finish(call, i, Multiply(call, i, workers, scratch.get()));
    }
    return;
  }
  const int64_t outputs = std::max<int64_t>(1, int64_t{call.rows} * call.cols);
  const int64_t together = std::max(wanted, kOutputsTogether / outputs);
  for (int64_t first = 0; first < batch; first += together) {
    const int64_t end = std::min<int64_t>(batch, first + together);
    MultiplyTogether(call, static_cast<int32_t>(first), static_cast<int32_t>(end), make_scratch,
                     workers);
  }
}

template void ComputeMatMul(const MatMulCall<int32_t>&, int32_t, const MakeScratch&, Workers*);
template void ComputeMatMul(const MatMulCall<float>&, int32_t, const MakeScratch&, Workers*);

}  // namespace bitfold
