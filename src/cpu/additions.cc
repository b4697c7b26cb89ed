// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/additions.h"

#include <algorithm>
#include <type_traits>
#include <vector>

#include "bitfold/warning.h"
#include "cpu/vector_datapath.h"
#include "frame/replay.h"

namespace bitfold {
namespace {

// From so many passes on, proving them costs less than making them in vectors.
template <typename T>
constexpr int64_t kManyPasses = std::is_same_v<T, int32_t> ? 32 : 1 << 18;

// When passes end early: when nobody wants them, and when they have counted a line, where a line is
// what they are made to find.
struct Stop {
  const Cancellation* cancellation;
  const BitfoldWarningCounts* lines = nullptr;

  bool operator()() const {
    return (lines != nullptr && HasCounts(*lines)) ||
           (cancellation != nullptr && cancellation->IsRequested());
  }
};

using Passes = ProvenPasses<Stop>;

// The cycles of a block, roughly: for each array that is read or written, and each addition.
template <typename T>
int64_t BlockCost(const Datapath<T>& datapath, int64_t arrays, int64_t additions) {
  const bool quantises = datapath.use_fp16_acc() && std::is_same_v<T, float>;
  return 45 * arrays + (quantises ? 1000 : 45) * additions;
}

// define(first, n, passes) over [0, count), in parts of some elements, for many passes. Integers
// print nothing. Of floats a part that does not have all of them counts its lines: elements that
// print are computed anew, in order.
template <typename T, typename Define>
void ShareDefinition(Workers* workers, int64_t count, const Cancellation* cancellation,
                     const Define& define) {
  constexpr int64_t kElements = 16;
  constexpr int64_t kCost = kElements * (std::is_same_v<T, int32_t> ? 20 : 5000);
  const int64_t units = (count + kElements - 1) / kElements;
  const auto define_units = [&](int64_t first, int64_t end, const Stop& stop) {
    const int64_t element = first * kElements;
    define(element, std::min(end * kElements, count) - element, Passes{stop});
  };
  const auto part = [&](int64_t first, int64_t end, const Replay& replay) {
    if (std::is_same_v<T, int32_t> || IsWhole(first, end, units)) {
      return define_units(first, end, {cancellation});
    }
    for (int64_t unit = first; unit < end; ++unit) {
      BitfoldWarningCounts lines{};
      const WarningScope scope(&lines);
      define_units(unit, unit + 1, {cancellation, &lines});
      if (HasCounts(lines)) replay(unit);
    }
  };
  ShareWithReplay(workers, units, kCost, part,
                  [&](int64_t unit) { define_units(unit, unit + 1, {cancellation}); });
}

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
void ComputeAdd(const AddCall<T>& call, int64_t count, Workers* workers,
                const Cancellation* cancellation) {
  const auto define = [&](int64_t first, int64_t n, const Passes& add_passes) {
    DefineAdd(call, first, n, add_passes);
  };
  const int64_t passes = FeedRepeatCount(call.elementwise_feed_repeat[0]);
  if (passes >= kManyPasses<T>) return ShareDefinition<T>(workers, count, cancellation, define);
  const Stop stop{cancellation};
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const auto& loops = LoopsOf(datapath);
  const std::vector<T> factors(kDatapathBlock, call.elementwise_factor[0]);
  const auto fast = [&](int64_t i, int n) {
    if (stop()) return false;
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
  ForEachBlock(workers, count, BlockCost(datapath, 3, passes), fast,
               [&](int64_t first, int64_t n) { define(first, n, Passes{stop}); });
}

template <typename T>
void ComputeBiasAdd(const BiasAddCall<T>& call, int64_t count, Workers* workers,
                    const Cancellation* cancellation) {
  if (count <= 0) return;
  const auto define = [&](int64_t first, int64_t n, const Passes& add_passes) {
    DefineBiasAdd(call, first, n, add_passes);
  };
  const int64_t passes = FeedRepeatCount(call.bias_feed_repeat[0]);
  if (passes >= kManyPasses<T>) return ShareDefinition<T>(workers, count, cancellation, define);
  const Stop stop{cancellation};
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const PeriodicArray<T> addends =
      ScaledPerChannel(datapath, call.bias, call.bias_factor[0], call.shape.d3);
  const auto fast = [&](int64_t i, int n) {
    if (stop()) return false;
    return AddPasses<T>(datapath, call.value + i, {addends.From(i)}, passes, n, call.output + i);
  };
  ForEachBlock(workers, count, BlockCost(datapath, 2, passes), fast,
               [&](int64_t first, int64_t n) { define(first, n, Passes{stop}); });
}

template <typename T>
void ComputeDecomposedBiasAdd(const DecomposedBiasAddCall<T>& call, int64_t count, Workers* workers,
                              const Cancellation* cancellation) {
  if (count <= 0) return;
  const auto define = [&](int64_t first, int64_t n, const Passes& add_passes) {
    DefineDecomposedBiasAdd(call, first, n, add_passes);
  };
  const int64_t passes = FeedRepeatCount(call.bias_feed_repeat[0]);
  if (passes >= kManyPasses<T>) return ShareDefinition<T>(workers, count, cancellation, define);
  const Stop stop{cancellation};
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const auto& loops = LoopsOf(datapath);
  const PeriodicArray<T> parts_a =
      ScaledPerChannel(datapath, call.bias_a, call.bias_a_factor[0], call.shape.d3);
  const PeriodicArray<T> parts_b =
      ScaledPerChannel(datapath, call.bias_b, call.bias_b_factor[0], call.shape.d3);
  const auto fast = [&](int64_t i, int n) {
    if (stop()) return false;
    const T* value = call.value + i;
    T* out = call.output + i;
    if (passes == 1 && !datapath.use_fp16_acc()) {
      return loops.accumulate_two(datapath, value, parts_a.From(i), parts_b.From(i), n, out);
    }
    return AddPasses<T>(datapath, value, {parts_a.From(i), parts_b.From(i)}, passes, n, out);
  };
  ForEachBlock(workers, count, BlockCost(datapath, 2, 2 * passes), fast,
               [&](int64_t first, int64_t n) { define(first, n, Passes{stop}); });
}

template <typename T>
void ComputeStandaloneElementwiseAdd(const StandaloneElementwiseAddCall<T>& call, int64_t count,
                                     Workers* workers) {
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
  ForEachBlock(workers, count, BlockCost(datapath, 3, 1), fast,
               [&](int64_t first, int64_t n) { DefineStandaloneElementwiseAdd(call, first, n); });
}

#define BITFOLD_INSTANTIATE(T)                                                                    \
  template void ComputeAdd<T>(const AddCall<T>&, int64_t, Workers*, const Cancellation*);         \
  template void ComputeBiasAdd<T>(const BiasAddCall<T>&, int64_t, Workers*, const Cancellation*); \
  template void ComputeDecomposedBiasAdd<T>(const DecomposedBiasAddCall<T>&, int64_t, Workers*,   \
                                            const Cancellation*);                                 \
  template void ComputeStandaloneElementwiseAdd<T>(const StandaloneElementwiseAddCall<T>&,        \
                                                   int64_t, Workers*);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
