// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/additions.h"

#include <type_traits>
#include <vector>

#include "cpu/vector_datapath.h"

namespace bitfold {
namespace {

// From so many passes on, proving them costs less than making them in vectors.
template <typename T>
constexpr int64_t kManyPasses = std::is_same_v<T, int32_t> ? 32 : 1 << 18;

struct StopWhenRequested {
  const Cancellation* cancellation;

  bool operator()() const { return cancellation != nullptr && cancellation->IsRequested(); }
};

using CancellablePasses = ProvenPasses<StopWhenRequested>;

// A block of `value` with the addends of every pass added in turn, until one may print a line: the
// definition then computes the block anew.
template <typename T>
bool AddPasses(const Datapath<T>& datapath, const T* value, std::initializer_list<const T*> addends,
               int64_t passes, int n, T* out) {
  const auto& loops = LoopsOf(datapath);
  const T* acc = value;
  if (datapath.use_fp16_acc() || passes == 0) {
    loops.initial_values(datapath, value, n, out);
    acc = out;
  }
  bool warned = false;
  for (int64_t k = 0; k < passes && !warned; ++k) {
    for (const T* addend : addends) {
      warned |= loops.accumulate(datapath, acc, addend, n, out);
      acc = out;
    }
  }
  return warned;
}

// The scaled products of an operand per channel with one factor, continued over the channels.
template <typename T>
PeriodicArray<T> ScaledPerChannel(const Datapath<T>& datapath, const T* operand, T factor,
                                  int64_t channels) {
  std::vector<T> products(static_cast<size_t>(channels));
  for (int64_t c = 0; c < channels; ++c) {
    products[c] = datapath.ScaleProduct(datapath.Multiply(operand[c], factor));
  }
  return PeriodicArray<T>(products.data(), channels);
}

}  // namespace

template <typename T>
void ComputeAdd(const AddCall<T>& call, int64_t count, const Cancellation* cancellation) {
  const CancellablePasses add_passes{{cancellation}};
  const auto define = [&](int64_t first, int64_t n) { DefineAdd(call, first, n, add_passes); };
  const int64_t passes = FeedRepeatCount(call.elementwise_feed_repeat[0]);
  if (passes >= kManyPasses<T>) return define(0, count);
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const auto& loops = LoopsOf(datapath);
  const std::vector<T> factors(kDatapathBlock, call.elementwise_factor[0]);
  const auto fast = [&](int64_t i, int n) {
    if (add_passes.stop()) return false;
    const T* value = call.value + i;
    const T* elementwise = call.elementwise + i;
    T* out = call.output + i;
    if (passes == 1 && !datapath.use_fp16_acc()) {
      return loops.accumulate_products(datapath, value, elementwise, factors.data(), n, out);
    }
    T products[kDatapathBlock];
    loops.products(datapath, elementwise, factors.data(), n, products);
    return AddPasses<T>(datapath, value, {products}, passes, n, out);
  };
  ForEachBlock(count, fast, define);
}

template <typename T>
void ComputeBiasAdd(const BiasAddCall<T>& call, int64_t count, const Cancellation* cancellation) {
  const CancellablePasses add_passes{{cancellation}};
  const auto define = [&](int64_t first, int64_t n) { DefineBiasAdd(call, first, n, add_passes); };
  const int64_t passes = FeedRepeatCount(call.bias_feed_repeat[0]);
  if (count <= 0 || passes >= kManyPasses<T>) return define(0, count);
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const PeriodicArray<T> addends =
      ScaledPerChannel(datapath, call.bias, call.bias_factor[0], call.shape.d3);
  const auto fast = [&](int64_t i, int n) {
    if (add_passes.stop()) return false;
    return AddPasses<T>(datapath, call.value + i, {addends.From(i)}, passes, n, call.output + i);
  };
  ForEachBlock(count, fast, define);
}

template <typename T>
void ComputeDecomposedBiasAdd(const DecomposedBiasAddCall<T>& call, int64_t count,
                              const Cancellation* cancellation) {
  const CancellablePasses add_passes{{cancellation}};
  const auto define = [&](int64_t first, int64_t n) {
    DefineDecomposedBiasAdd(call, first, n, add_passes);
  };
  const int64_t passes = FeedRepeatCount(call.bias_feed_repeat[0]);
  if (count <= 0 || passes >= kManyPasses<T>) return define(0, count);
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const PeriodicArray<T> parts_a =
      ScaledPerChannel(datapath, call.bias_a, call.bias_a_factor[0], call.shape.d3);
  const PeriodicArray<T> parts_b =
      ScaledPerChannel(datapath, call.bias_b, call.bias_b_factor[0], call.shape.d3);
  const auto fast = [&](int64_t i, int n) {
    if (add_passes.stop()) return false;
    return AddPasses<T>(datapath, call.value + i, {parts_a.From(i), parts_b.From(i)}, passes, n,
                        call.output + i);
  };
  ForEachBlock(count, fast, define);
}

template <typename T>
void ComputeStandaloneElementwiseAdd(const StandaloneElementwiseAddCall<T>& call, int64_t count) {
  if (count <= 0) return;
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const PeriodicArray<T> value_weights(call.weights, call.shape.d3);
  const PeriodicArray<T> elementwise_weights(call.weights + call.shape.d3, call.shape.d3);
  const auto& loops = LoopsOf(datapath);
  const auto fast = [&](int64_t i, int n) {
    T products[kDatapathBlock];
    loops.products(datapath, call.value + i, value_weights.From(i), n, products);
    return loops.accumulate_products(datapath, products, call.elementwise + i,
                                     elementwise_weights.From(i), n, call.output + i);
  };
  ForEachBlock(count, fast,
               [&](int64_t first, int64_t n) { DefineStandaloneElementwiseAdd(call, first, n); });
}

#define BITFOLD_INSTANTIATE(T)                                                          \
  template void ComputeAdd<T>(const AddCall<T>&, int64_t, const Cancellation*);         \
  template void ComputeBiasAdd<T>(const BiasAddCall<T>&, int64_t, const Cancellation*); \
  template void ComputeDecomposedBiasAdd<T>(const DecomposedBiasAddCall<T>&, int64_t,   \
                                            const Cancellation*);                       \
  template void ComputeStandaloneElementwiseAdd<T>(const StandaloneElementwiseAddCall<T>&, int64_t);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
