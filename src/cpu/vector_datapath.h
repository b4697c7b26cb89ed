// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The datapath over arrays: its steps as vector loops, from which the kernels of the additions, the
// resampler and the box decoders build their definitions block by block. A step prints nothing; it
// tells whether the definition may have, and the block is then computed anew by the definition, so
// that the lines come as defined.

#ifndef BITFOLD_SRC_CPU_VECTOR_DATAPATH_H_
#define BITFOLD_SRC_CPU_VECTOR_DATAPATH_H_

#include <algorithm>
#include <cstdint>
#include <vector>

#include "bitfold/datapath.h"
#include "frame/replay.h"
#include "frame/workers.h"

namespace bitfold {

// Elements that go through all steps of an op together: few enough for the nearest cache.
inline constexpr int kDatapathBlock = 512;

// What the corners of detection boxes are made of, a pair for each anchor: the detections, the
// factors of the products, and the centres of the minimum and of the maximum corner, each as a y
// part and an x part that have 0 in each other's places.
template <typename T>
struct CornerFactors {
  const T* centers;
  const T* sizes;
  const T* factors[3];
  const T* y[2];
  const T* x[2];
};

// The steps for one kind of datapath D over 0 <= n <= kDatapathBlock elements; out may be acc. All
// but the first two return whether a line may have been printed: never for integers.
template <typename D, typename T>
struct DatapathLoops {
  // InitialValue(x)
  void (*initial_values)(const D&, const T* x, int n, T* out);
  // ScaleProduct(x * y)
  void (*products)(const D&, const T* x, const T* y, int n, T* out);
  // Accumulate(acc, x)
  bool (*accumulate)(const D&, const T* acc, const T* x, int n, T* out);
  // Accumulate(Accumulate(acc, x), y)
  bool (*accumulate_two)(const D&, const T* acc, const T* x, const T* y, int n, T* out);
  // Accumulate(acc, ScaleProduct(x * y))
  bool (*accumulate_products)(const D&, const T* acc, const T* x, const T* y, int n, T* out);
  // min = Accumulate(ScaleProduct(centers * factors[0]), centre 0) and
  // max = Accumulate(ScaleProduct(sizes * factors[1]), centre 1)
  bool (*corners_of_one_product)(const D&, const CornerFactors<T>&, int n, T* min, T* max);
  // min = Accumulate(Accumulate(P, ScaleProduct(sizes * factors[1])), centre 0) and
  // max = Accumulate(Accumulate(P, ScaleProduct(sizes * factors[2])), centre 1) with
  // P = ScaleProduct(centers * factors[0])
  bool (*corners_of_two_products)(const D&, const CornerFactors<T>&, int n, T* min, T* max);
};

// The loops for the target in use.
const DatapathLoops<Datapath<int32_t>, int32_t>& LoopsOf(const Datapath<int32_t>&);
const DatapathLoops<Datapath<float>, float>& LoopsOf(const Datapath<float>&);
const DatapathLoops<ReciprocalDatapath<float>, float>& LoopsOf(const ReciprocalDatapath<float>&);

// n pairs each of x and y become n groups of four, for the box decoders.
template <typename T>
struct PairLoops {
  void (*join)(const T* x, const T* y, int n, T* out);       // (x0, x1, y0, y1)
  void (*join_swap)(const T* x, const T* y, int n, T* out);  // (x1, x0, y1, y0)
};
template <typename T>
const PairLoops<T>& CurrentPairLoops();

// How often a block of kDatapathBlock elements fits `count`, begun ones included.
inline int64_t BlocksOf(int64_t count) { return (count + kDatapathBlock - 1) / kDatapathBlock; }

// The elements of block `block` of `count`.
inline int BlockSize(int64_t block, int64_t count) {
  return static_cast<int>(std::min<int64_t>(kDatapathBlock, count - block * kDatapathBlock));
}

// Calls fast(first, n) for each block of [0, count), shared out among the workers, and
// define(first, n), in order, for those for which it returned that a line may have been printed.
// `cost` are the cycles of a block, roughly.
template <typename Fast, typename Define>
void ForEachBlock(Workers* workers, int64_t count, int64_t cost, const Fast& fast,
                  const Define& define) {
  const auto part = [&](int64_t first, int64_t end, const Replay& replay) {
    for (int64_t block = first; block < end; ++block) {
      if (fast(block * kDatapathBlock, BlockSize(block, count))) replay(block);
    }
  };
  ShareWithReplay(workers, BlocksOf(count), cost, part,
                  [&](int64_t block) { define(block * kDatapathBlock, BlockSize(block, count)); });
}

// An array of `period` elements continued periodically, so that a block may start anywhere in it.
// Requires period >= 1.
template <typename T>
class PeriodicArray {
 public:
  // Of zeros.
  explicit PeriodicArray(int64_t period)
      : period_(period), elements_(static_cast<size_t>(period) + kDatapathBlock) {}

  PeriodicArray(const T* elements, int64_t period) : PeriodicArray(period) {
    std::copy_n(elements, period, FirstPeriod());
    Continue();
  }

  // To be written, and then continued.
  T* FirstPeriod() { return elements_.data(); }

  void Continue() {
    for (int64_t filled = period_; filled < period_ + kDatapathBlock;) {
      const int64_t count = std::min(filled, period_ + kDatapathBlock - filled);
      std::copy_n(elements_.begin(), count, elements_.begin() + filled);
      filled += count;
    }
  }

  // kDatapathBlock elements: those of index first, first + 1 and so on.
  const T* From(int64_t first) const { return elements_.data() + first % period_; }

 private:
  int64_t period_;
  std::vector<T> elements_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_VECTOR_DATAPATH_H_
