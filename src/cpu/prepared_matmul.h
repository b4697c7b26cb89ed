// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Products of stored matrices. What the stored types and the zero points say of them is decided
// once; the second operands are data, too, and packed by each call.

#ifndef BITFOLD_SRC_CPU_PREPARED_MATMUL_H_
#define BITFOLD_SRC_CPU_PREPARED_MATMUL_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "bitfold/HPreparedMatmul.h"
#include "bitfold/weight_sign.h"
#include "chain/layer_finish.h"
#include "chain/plan.h"
#include "frame/workers.h"

namespace bitfold {

// In and Out are int8_t or int16_t.
template <typename In, typename Out>
class PreparedMatmul {
 public:
  using Call = PreparedMatmulCall<In, Out>;

  // Takes what the product points to.
  explicit PreparedMatmul(const PreparedProduct& product);
  PreparedMatmul(const PreparedMatmul&) = delete;
  PreparedMatmul& operator=(const PreparedMatmul&) = delete;

  // Of which no pointer counts.
  const PreparedProduct& product() const { return product_; }

  // How sums may be formed, whatever is stored; empty in half precision.
  const std::optional<ChainPlan>& plan() const { return plan_; }

  // Whether the second operand keeps its zero point, and what that adds is taken off by rows.
  bool moves_zero_point() const { return moves_zero_point_; }

  // Whether they are dot products of what is stored. If not, they are made as HMatmul does it.
  bool takes_dots() const { return takes_dots_; }

  // The bits and the lines of DefinePreparedMatmul, these in its order. Requires outputs. Several
  // threads may call it at the same time. Throws std::bad_alloc where there is no memory.
  void Run(const Call& call, Workers* workers) const;

 private:
  class Packed;

  Facts FirstFacts() const;
  Facts SecondFacts() const;
  ChainFacts TypeFacts() const;
  void MoveZeroPoint();
  bool TakesDots() const;
  PreparedLayer AsLayer() const;
  LayerFinishCall FinishCall() const;
  StoredOutput OutputOf(const Call& call, int64_t pair) const;
  std::vector<int32_t> RowAddends(const In* first) const;

  void RunDots(const Call& call, Workers* workers) const;
  bool MultiplyDots(const Call& call, int64_t pair, Packed* packed, Workers* workers) const;
  template <typename T>
  void RunSums(const Call& call, Workers* workers) const;
  template <typename T>
  void Widen(const Call& call, int64_t pair, T* first, T* second, Workers* workers) const;
  template <typename T>
  void Finish(const T* sums, const StoredOutput& output, Workers* workers) const;

  PreparedProduct product_;
  const WeightSign<int32_t> sign_;
  const PreparedLayer layer_;  // a pair as an image of pixels, without its weights
  std::optional<ChainPlan> plan_;
  bool moves_zero_point_ = false;
  bool takes_dots_;
  std::unique_ptr<LayerFinish> finish_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PREPARED_MATMUL_H_
