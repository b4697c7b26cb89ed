// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A depthwise convolution as dot products modulo 2^32 of narrow numbers. Rows of the image are
// packed as they are met, as many as a window is high, so that what a tap meets in the outputs of a
// row lies side by side: of a stride s, columns that lie s apart.

#ifndef BITFOLD_SRC_CHAIN_DOT_DEPTHWISE_H_
#define BITFOLD_SRC_CHAIN_DOT_DEPTHWISE_H_

#include <cstdint>
#include <type_traits>
#include <vector>

#include "chain/dot_convolution.h"
#include "chain/dot_row.h"
#include "chain/plan.h"
#include "chain/stored_output.h"
#include "frame/scratch.h"

namespace bitfold {

// Rows of outputs of an image: those from `first_row` on, before `end_row`.
struct DepthwiseBlock {
  int32_t filter;  // which of the filters the image meets
  int32_t first_row;
  int32_t end_row;
};

// Requires windows that go forward, out_channels <= in_channels and a plan of dot products, which
// is about numbers less their zero point. In is int32_t, float, or a stored int8_t or int16_t; its
// numbers are whole and fit the plan, but int32_t and float that are to be bytes: packing tells
// whether they are. Output is a SumOutput or a StoredOutput. Once prepared,
// several threads may run at the same time.
template <typename In, typename Output>
class DotDepthwise {
 public:
  using Weight = std::conditional_t<std::is_same_v<In, float>, float, int32_t>;

  DotDepthwise(const DotLayer& layer, const ChainPlan& plan);

  // Packs the weights of so many filters; false where there is no memory. The sums of a channel
  // begin with its addend, where there are some.
  bool Prepare(const Weight* filter, int32_t filters, Scratch* scratch,
               const int32_t* addends = nullptr);

  // What a run needs, in bytes. Dilations can make them any number: at most INT64_MAX.
  int64_t MemoryBytes() const;

  // Computes a block of an image, whose outputs begin at `output`. `memory` has MemoryBytes,
  // aligned for any number; what it holds does not count. False, with some outputs written, where a
  // number that is to be a byte is none.
  bool Run(const In* image, const DepthwiseBlock& block, const Output& output, void* memory) const;

 private:
  // The memory of a run: the rows that are kept, which ones these are, where the numbers of each
  // tap begin, and sums that are not stored yet. Number is uint8_t or int16_t.
  template <typename Number>
  struct Kept {
    Number* rows;
    int32_t* held;
    const Number** taps;
    int32_t* sums;
    bool fits;  // what has been packed
  };

  bool IsBytes() const { return plan_.path == ChainPath::kDotBytes; }
  int32_t NumbersInAWord() const { return IsBytes() ? 4 : 2; }
  int32_t Words() const { return (taps_ - 1) / NumbersInAWord() + 1; }
  int64_t RowBytes() const { return row_numbers_ * (IsBytes() ? 1 : 2); }
  int64_t HeldBytes() const;
  int64_t TapBytes() const;
  int64_t SumBytes() const;
  int32_t ColumnsTogether() const;

  void PackWeights(const Weight* filter, int32_t* words) const;
  void SumWeights(const Weight* filter, const int32_t* addends, int32_t* sums) const;
  template <typename Number>
  bool RunAs(const In* image, const DepthwiseBlock& block, const Output& output,
             void* memory) const;
  template <typename Number>
  bool PackRow(const In* row, Number* out) const;
  template <typename Number>
  const Number* KeepRow(const In* image, int32_t row, Kept<Number>* kept) const;
  template <typename Number>
  void FindTaps(const In* image, int32_t row, Kept<Number>* kept) const;
  template <typename Number>
  void StoreRow(DotRow<Number> dots, const StoredOutput& output, const Kept<Number>& kept) const;

  const DotLayer layer_;
  const ChainPlan plan_;
  const int32_t taps_;
  const int32_t period_;              // whole outputs of at least a block
  const int32_t lanes_;               // of the weights: a period and a block
  const int32_t kept_rows_;           // so many that those of a window never share a place
  std::vector<int32_t> phases_;       // the columns modulo the stride that taps meet
  std::vector<int64_t> tap_offsets_;  // where in a packed row a tap's numbers begin
  int64_t phase_columns_;             // of a phase in a packed row
  int64_t row_numbers_;               // of a packed row
  int32_t* weights_ = nullptr;        // [filter][word][lane]
  int32_t* initial_sums_ = nullptr;   // [filter][lane]: takes the input's offset off again
  void* outside_ = nullptr;           // a packed row of what lies outside the image
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_DOT_DEPTHWISE_H_
