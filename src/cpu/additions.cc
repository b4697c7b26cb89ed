// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/additions.h"

#include <type_traits>
#include <vector>

#include "bitfold/HAdd.h"
#include "bitfold/HBiasAdd.h"
#include "bitfold/HDecomposedBiasAdd.h"
#include "bitfold/HStandaloneElementwiseAdd.h"
#include "cpu/vector_datapath.h"

namespace bitfold {
namespace {

// From so many passes on, proving them costs integers less than making them in vectors.
constexpr int64_t kManyPasses = 32;

template <typename T>
bool ShouldProve(int64_t passes) {
  return std::is_same_v<T, int32_t> && passes >= kManyPasses;
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
void AddElementwise(const Datapath<T>& datapath, const T* value, const T* elementwise, T factor,
                    int64_t passes, int64_t count, T* out) {
  const auto define = [&](int64_t first, int64_t n) {
    HAddElements(datapath, value, elementwise, factor, passes, first, n, out, ProvenPasses{});
  };
  if (ShouldProve<T>(passes)) return define(0, count);
  const auto& loops = LoopsOf(datapath);
  const std::vector<T> factors(kDatapathBlock, factor);
  const auto fast = [&](int64_t i, int n) {
    if (passes == 1 && !datapath.use_fp16_acc()) {
      return loops.accumulate_products(datapath, value + i, elementwise + i, factors.data(), n,
                                       out + i);
    }
    T products[kDatapathBlock];
    loops.products(datapath, elementwise + i, factors.data(), n, products);
    return AddPasses<T>(datapath, value + i, {products}, passes, n, out + i);
  };
  ForEachBlock(count, fast, define);
}

template <typename T>
void AddBias(const Datapath<T>& datapath, const T* value, const T* bias, T factor, int64_t passes,
             int64_t count, int64_t channels, T* out) {
  const auto define = [&](int64_t first, int64_t n) {
    HBiasAddElements(datapath, value, bias, factor, passes, first, n, channels, out,
                     ProvenPasses{});
  };
  if (count <= 0 || ShouldProve<T>(passes)) return define(0, count);
  const PeriodicArray<T> addends = ScaledPerChannel(datapath, bias, factor, channels);
  const auto fast = [&](int64_t i, int n) {
    return AddPasses<T>(datapath, value + i, {addends.From(i)}, passes, n, out + i);
  };
  ForEachBlock(count, fast, define);
}

template <typename T>
void AddDecomposedBias(const Datapath<T>& datapath, const T* value, const T* bias_a,
                       const T* bias_b, T factor_a, T factor_b, int64_t passes, int64_t count,
                       int64_t channels, T* out) {
  const auto define = [&](int64_t first, int64_t n) {
    HDecomposedBiasAddElements(datapath, value, bias_a, bias_b, factor_a, factor_b, passes, first,
                               n, channels, out, ProvenPasses{});
  };
  if (count <= 0 || ShouldProve<T>(passes)) return define(0, count);
  const PeriodicArray<T> parts_a = ScaledPerChannel(datapath, bias_a, factor_a, channels);
  const PeriodicArray<T> parts_b = ScaledPerChannel(datapath, bias_b, factor_b, channels);
  const auto fast = [&](int64_t i, int n) {
    return AddPasses<T>(datapath, value + i, {parts_a.From(i), parts_b.From(i)}, passes, n,
                        out + i);
  };
  ForEachBlock(count, fast, define);
}

template <typename T>
void AddWeighted(const Datapath<T>& datapath, const T* value, const T* elementwise,
                 const T* weights, int64_t count, int64_t channels, T* out) {
  if (count <= 0) return;
  const PeriodicArray<T> value_weights(weights, channels);
  const PeriodicArray<T> elementwise_weights(weights + channels, channels);
  const auto& loops = LoopsOf(datapath);
  const auto fast = [&](int64_t i, int n) {
    T products[kDatapathBlock];
    loops.products(datapath, value + i, value_weights.From(i), n, products);
    return loops.accumulate_products(datapath, products, elementwise + i,
                                     elementwise_weights.From(i), n, out + i);
  };
  ForEachBlock(count, fast, [&](int64_t first, int64_t n) {
    HStandaloneElementwiseAddElements(datapath, value, elementwise, weights, first, n, channels,
                                      out);
  });
}

#define BITFOLD_INSTANTIATE(T)                                                                     \
  template void AddElementwise<T>(const Datapath<T>&, const T*, const T*, T, int64_t, int64_t,     \
                                  T*);                                                             \
  template void AddBias<T>(const Datapath<T>&, const T*, const T*, T, int64_t, int64_t, int64_t,   \
                           T*);                                                                    \
  template void AddDecomposedBias<T>(const Datapath<T>&, const T*, const T*, const T*, T, T,       \
                                     int64_t, int64_t, int64_t, T*);                               \
  template void AddWeighted<T>(const Datapath<T>&, const T*, const T*, const T*, int64_t, int64_t, \
                               T*);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
