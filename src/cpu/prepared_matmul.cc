// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/prepared_matmul.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/warning.h"
#include "chain/dot_tile.h"
#include "chain/sum_output.h"
#include "cpu/matmul.h"
#include "cpu/prepared_dots.h"
#include "cpu/stored_matrices.h"
#include "frame/scratch.h"

namespace bitfold {
namespace {

// Pairs for each thread, so that none waits long for the last one.
constexpr int64_t kPairsForEach = 3;

// Numbers of a few pairs that are widened together.
constexpr int64_t kNumbersTogether = int64_t{1} << 20;

// Cycles: of a product in dots, of a number that is widened or finished.
constexpr int64_t kProductsInACycle = 32;
constexpr int64_t kNumbersInACycle = 2;

// What the type and the zero point bound.
template <typename T>
Facts FactsOfStored(int32_t zero_point) {
  using Limits = std::numeric_limits<T>;
  return {true, std::min<int64_t>(0, int64_t{Limits::min()} - zero_point),
          std::max<int64_t>(0, int64_t{Limits::max()} - zero_point)};
}

// With the signs corrected of those that need it.
Facts Corrected(const Facts& weights, const WeightSign<int32_t>& sign) {
  const int64_t max = sign.max();
  if (weights.max <= max) return weights;
  const auto corrected = [&sign](int64_t x) {
    return int64_t{sign.Correct(static_cast<int32_t>(x))};
  };
  return {true, std::min(weights.min, corrected(max + 1)), std::max(max, corrected(weights.max))};
}

}  // namespace

// The second operand of a pair, which may be that of the next one, too.
template <typename In, typename Out>
class PreparedMatmul<In, Out>::Packed {
 public:
  explicit Packed(const PreparedMatmul& matmul) : matmul_(matmul) {}

  void Pack(const In* second, Workers* workers) {
    if (second == second_) return;
    const PreparedProduct& product = matmul_.product_;
    const In* stored = second;
    if (product.transpose_second) {
      if (transposed_ == nullptr) transposed_.reset(new In[product.SecondElements()]);
      TransposeStored(second, product.inner, product.cols, transposed_.get());
      stored = transposed_.get();
    }
    if (weights_ == nullptr) weights_.reset(new int16_t[product.SecondElements()]);
    const bool moves = matmul_.moves_zero_point_;
    const WeightSign<int32_t> none(32);  // corrects no byte
    corrected_ =
        CorrectStored(stored, product.SecondElements(), moves ? 0 : product.second_zero_point,
                      moves ? none : matmul_.sign_, weights_.get());
    second_ = nullptr;
    dots_.emplace(matmul_.layer_, *matmul_.plan_);
    dots_->Prepare(weights_.get(), workers);
    second_ = second;
  }

  const PreparedDots<In>& dots() const { return *dots_; }
  bool corrected() const { return corrected_; }

 private:
  const PreparedMatmul& matmul_;
  const In* second_ = nullptr;
  std::unique_ptr<In[]> transposed_;
  std::unique_ptr<int16_t[]> weights_;
  bool corrected_ = false;
  std::optional<PreparedDots<In>> dots_;
};

template <typename In, typename Out>
PreparedMatmul<In, Out>::PreparedMatmul(const PreparedProduct& product)
    : product_(product), sign_(product.arithmetic.accumulator_size), layer_(AsLayer()) {
  if (!product.arithmetic.use_fp16_acc) {
    plan_ = PlanInt32(TypeFacts(), CurrentDotKernels<StoredOutput>().HasBytes());
    MoveZeroPoint();
  }
  takes_dots_ = TakesDots();
  finish_ = std::make_unique<LayerFinish>(FinishCall());
  product_.multipliers = nullptr;
}

template <typename In, typename Out>
Facts PreparedMatmul<In, Out>::FirstFacts() const {
  return FactsOfStored<In>(product_.first_zero_point);
}

template <typename In, typename Out>
Facts PreparedMatmul<In, Out>::SecondFacts() const {
  return Corrected(FactsOfStored<In>(product_.second_zero_point), sign_);
}

template <typename In, typename Out>
ChainFacts PreparedMatmul<In, Out>::TypeFacts() const {
  ChainFacts facts{};
  facts.accumulator_size = product_.arithmetic.accumulator_size;
  facts.mult_shift = product_.arithmetic.requantise.shift;
  facts.packs = true;
  facts.input = FirstFacts();
  facts.weights = SecondFacts();
  facts.takes_remainders = CurrentDotKernels<StoredOutput>().HasRemainders();
  facts.products = product_.inner;
  return facts;
}

// Nine bits as bytes: with z the zero point, the sum of x (y - z) is that of x y less z times that
// of x, a number of the row, modulo 2^32. Corrected signs depend on the numbers: they stay shorts.
template <typename In, typename Out>
void PreparedMatmul<In, Out>::MoveZeroPoint() {
  if (!std::is_same_v<In, int8_t> || plan_->path != ChainPath::kDotShorts) return;
  if (!CurrentDotKernels<StoredOutput>().HasBytes()) return;
  if (sign_.NeedsCorrection(INT8_MAX - product_.second_zero_point)) return;
  moves_zero_point_ = true;
  plan_ = {ChainPath::kDotBytes, static_cast<int32_t>(-FirstFacts().min), plan_->bits};
}

// The first operand's rows are pixels of `inner` channels, one below the other.
template <typename In, typename Out>
PreparedLayer PreparedMatmul<In, Out>::AsLayer() const {
  PreparedLayer layer{};
  layer.in_channels = product_.inner;
  layer.out_channels = product_.cols;
  layer.rows = {static_cast<int32_t>(product_.AllRows()), 1, 1, 1, 0, 0};
  layer.columns = {1, 1, 1, 1, 0, 0};
  layer.zero_point = product_.first_zero_point;
  return layer;
}

template <typename In, typename Out>
bool PreparedMatmul<In, Out>::TakesDots() const {
  if (!plan_ || !IsDots(plan_->path)) return false;
  if (product_.AllRows() < 1 || product_.inner < 1 || product_.cols < 1) return false;
  return PreparedDots<In>(layer_, *plan_).Fits();
}

// No sum is larger than its products together, nor, where all addends are at most the period, than
// the accumulator's range. Sums in dots are reduced to its width unless none can exceed it.
template <typename In, typename Out>
LayerFinishCall PreparedMatmul<In, Out>::FinishCall() const {
  constexpr int64_t kLargestHalf = int64_t{1} << 15;
  const PreparedArithmetic& arithmetic = product_.arithmetic;
  const int64_t products = FirstFacts().Magnitude() * SecondFacts().Magnitude() * product_.inner;
  int64_t largest = INT64_MAX;
  int32_t bits = 32;
  if (!plan_) {
    largest = kLargestHalf;
  } else if (plan_->path != ChainPath::kStepwise) {
    const int64_t range = int64_t{1} << (arithmetic.accumulator_size - 1);
    largest = std::min(products, range);
    if (takes_dots_ && products >= range) bits = plan_->bits;
  }
  return {product_.cols,
          bits,
          nullptr,
          Datapath<int32_t>(arithmetic.accumulator_size, arithmetic.requantise.shift, false),
          product_.multipliers,
          product_.per_channel,
          arithmetic.requantise,
          std::is_same_v<Out, int8_t> ? StoredType::kInt8 : StoredType::kInt16,
          largest};
}

template <typename In, typename Out>
StoredOutput PreparedMatmul<In, Out>::OutputOf(const Call& call, int64_t pair) const {
  Out* const first = call.output + pair * product_.OutputElements();
  return {finish_.get(), first, 0, product_.cols, 0, product_.cols};
}

// What takes the zero point of the second operand off.
template <typename In, typename Out>
std::vector<int32_t> PreparedMatmul<In, Out>::RowAddends(const In* first) const {
  std::vector<int32_t> addends(static_cast<size_t>(product_.AllRows()));
  SumStoredRows(first, product_.AllRows(), product_.inner, addends.data());
  const int32_t zeros = WrapMultiply(product_.inner, product_.first_zero_point);
  for (int32_t& sum : addends) {
    sum = WrapMultiply(-product_.second_zero_point, WrapSubtract(sum, zeros));
  }
  return addends;
}

template <typename In, typename Out>
void PreparedMatmul<In, Out>::Run(const Call& call, Workers* workers) const {
  if (takes_dots_) return RunDots(call, workers);
  if (product_.arithmetic.use_fp16_acc) return RunSums<float>(call, workers);
  RunSums<int32_t>(call, workers);
}

// ---- Dot products of what is stored ------------------------------------------------------------

// Pairs print nothing but a line for a corrected weight, after all of them, in their order.
template <typename In, typename Out>
void PreparedMatmul<In, Out>::RunDots(const Call& call, Workers* workers) const {
  const int64_t pairs = CountOf(*call.pairs);
  std::vector<char> corrected(static_cast<size_t>(pairs));
  const auto multiply = [&](int64_t first, int64_t end, Workers* of_pair) {
    Packed packed(*this);
    for (int64_t pair = first; pair < end; ++pair) {
      corrected[static_cast<size_t>(pair)] = MultiplyDots(call, pair, &packed, of_pair);
    }
  };
  if (workers->AtOnce() == 1 || pairs < workers->AtOnce() * kPairsForEach) {
    multiply(0, pairs, workers);
  } else {
    const int64_t products = product_.FirstElements() * product_.cols;
    const int64_t cost = products / kProductsInACycle + product_.SecondElements();
    workers->Share(pairs, cost, [&](int64_t first, int64_t end) {
      CallingThread alone;
      multiply(first, end, &alone);
    });
  }
  for (const char is_corrected : corrected) {
    if (is_corrected) WarnMatMulWeights();
  }
}

// Returns whether a weight of the pair was corrected.
template <typename In, typename Out>
bool PreparedMatmul<In, Out>::MultiplyDots(const Call& call, int64_t pair, Packed* packed,
                                           Workers* workers) const {
  packed->Pack(call.SecondOf(product_, pair), workers);
  const In* first = call.FirstOf(product_, pair);
  std::vector<In> transposed;
  if (product_.transpose_first) {
    transposed.resize(static_cast<size_t>(product_.FirstElements()));
    const int64_t elements = int64_t{product_.rows} * product_.inner;
    for (int64_t i = 0; i < product_.matrices; ++i) {
      TransposeStored(first + i * elements, product_.rows, product_.inner,
                      transposed.data() + i * elements);
    }
    first = transposed.data();
  }
  StoredOutput output = OutputOf(call, pair);
  std::vector<int32_t> addends;
  if (moves_zero_point_) {
    addends = RowAddends(first);
    output.addends = addends.data();
  }
  packed->dots().Run(first, 1, output, workers);
  return packed->corrected();
}

// ---- Other sums --------------------------------------------------------------------------------

// As HMatmul makes them of what is widened, a few pairs at a time, which keep its lines' order.
template <typename In, typename Out>
template <typename T>
void PreparedMatmul<In, Out>::RunSums(const Call& call, Workers* workers) const {
  const int64_t pairs = CountOf(*call.pairs);
  const int64_t sizes[] = {product_.FirstElements(), product_.SecondElements(),
                           product_.OutputElements()};
  const int64_t largest = std::max<int64_t>(1, *std::max_element(sizes, sizes + 3));
  const int64_t together = std::clamp<int64_t>(kNumbersTogether / largest, 1, pairs);
  const auto room = [together](int64_t size) { return static_cast<size_t>(together * size); };
  std::vector<T> first(room(sizes[0]));
  std::vector<T> second(room(sizes[1]));
  std::vector<T> sums(room(sizes[2]) + kPanel);  // whole panels are read
  const int8_t shift = product_.arithmetic.Shift();
  const MatMulCall<T> product = {first.data(),
                                 second.data(),
                                 sums.data(),
                                 static_cast<int32_t>(product_.AllRows()),
                                 product_.inner,
                                 product_.cols,
                                 product_.arithmetic.DatapathWith(&shift)};
  for (int64_t pair = 0; pair < pairs; pair += together) {
    const int64_t count = std::min(together, pairs - pair);
    for (int64_t i = 0; i < count; ++i) {
      Widen(call, pair + i, first.data() + i * sizes[0], second.data() + i * sizes[1], workers);
    }
    ComputeMatMul(
        product, static_cast<int32_t>(count), [] { return std::make_unique<HeapScratch>(); },
        workers);
    for (int64_t i = 0; i < count; ++i) {
      Finish(sums.data() + i * sizes[2], OutputOf(call, pair + i), workers);
    }
  }
}

template <typename In, typename Out>
template <typename T>
void PreparedMatmul<In, Out>::Widen(const Call& call, int64_t pair, T* first, T* second,
                                    Workers* workers) const {
  const In* stored_first = call.FirstOf(product_, pair);
  const In* stored_second = call.SecondOf(product_, pair);
  workers->Share(product_.AllRows(), product_.inner / kNumbersInACycle,
                 [&](int64_t row, int64_t end) {
                   for (; row < end; ++row) {
                     WidenFirst(product_, stored_first, row, first + row * product_.inner);
                   }
                 });
  workers->Share(product_.inner, product_.cols / kNumbersInACycle, [&](int64_t k, int64_t end) {
    for (; k < end; ++k) WidenSecond(product_, stored_second, k, second + k * product_.cols);
  });
}

template <typename In, typename Out>
template <typename T>
void PreparedMatmul<In, Out>::Finish(const T* sums, const StoredOutput& output,
                                     Workers* workers) const {
  workers->Share(product_.AllRows(), product_.cols / kNumbersInACycle,
                 [&](int64_t first, int64_t end) {
                   std::vector<int32_t> whole(
                       std::is_same_v<T, float> ? static_cast<size_t>(product_.cols) + kPanel : 0);
                   for (int64_t row = first; row < end; ++row) {
                     const T* of_row = sums + row * product_.cols;
                     const StoredOutput at = output.At(row, 0, product_.cols);
                     if constexpr (std::is_same_v<T, float>) {
                       std::transform(of_row, of_row + product_.cols, whole.begin(),
                                      [](float sum) { return static_cast<int32_t>(sum); });
                       FinishTile(whole.data(), 1, product_.cols, at);
                     } else {
                       FinishTile(of_row, 1, product_.cols, at);
                     }
                   }
                 });
}

template class PreparedMatmul<int8_t, int8_t>;
template class PreparedMatmul<int8_t, int16_t>;
template class PreparedMatmul<int16_t, int8_t>;
template class PreparedMatmul<int16_t, int16_t>;

}  // namespace bitfold
