// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/row_product.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <type_traits>
#include <vector>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/weight_sign.h"
#include "chain/facts.h"
#include "chain/pack.h"
#include "chain/plan.h"
#include "vector/target.h"
#include "vector/whole_bits.h"

namespace bitfold {
namespace {

// Rows that are read at the same time, each as a stream.
constexpr int kRowsTogether = 8;

// Rows after which it is asked whether the sums can still count.
constexpr int64_t kRowsBetweenQuestions = 64;

// Columns of a part, at least: lines of the cache of weights and sums.
constexpr int64_t kColumnsTogether = 128;

// What has been seen of weights.
struct SeenWeights {
  int32_t min = 0;
  int32_t max = 0;
  uint32_t differences = 0;  // of floats, from whole numbers
};

template <typename T>
struct RowLoops {
  using Add = void (*)(const T*, int64_t, const int32_t*, int64_t, uint32_t*, SeenWeights*);
  Add rows_together;
  Add row;
};

struct AllLoops {
  RowLoops<int32_t> integers;
  RowLoops<float> floats;
};

#define BITFOLD_LOOPS "chain/row_product_loops.inc"
#define BITFOLD_LOOP_TABLE \
  AllLoops { kRowLoopsOf<int32_t>, kRowLoopsOf<float> }
#include "vector/vector_loops.inc"

template <typename T>
const RowLoops<T>& LoopsOf() {
  if constexpr (std::is_same_v<T, float>) {
    return CurrentLoops().floats;
  } else {
    return CurrentLoops().integers;
  }
}

template <typename T>
Facts FactsOf(const SeenWeights& seen) {
  const Facts facts = {true, seen.min, seen.max};
  if (std::is_same_v<T, int32_t>) return facts;
  const bool is_read = facts.LieIn(1 - kWholeBitsLimit, kWholeBitsLimit - 1);
  return is_read && AreWhole(seen.differences) ? facts : Facts{false, 0, 0};
}

// One entry of the batch.
template <typename T>
class RowProduct {
 public:
  RowProduct(const MatMulCall<T>& call, int32_t batch_index)
      : x_(call.AOf(batch_index)),
        weights_(call.BOf(batch_index)),
        out_(call.OutOf(batch_index)),
        inner_(call.inner),
        cols_(call.cols),
        sign_(call.datapath.accumulator_size) {
    facts_.accumulator_size = call.datapath.accumulator_size;
    facts_.mult_shift = int32_t{call.datapath.mult_shift[0]};
    facts_.use_fp16_acc = call.datapath.use_fp16_acc;
    facts_.divides = false;
    facts_.packs = true;  // which asks for no more than that sums are known modulo 2^32
  }

  bool Run(Workers* workers, Scratch* scratch) {
    facts_.input = bitfold::FactsOf(x_, inner_);
    if (facts_.mult_shift != 0 || !CanCount({})) return false;
    auto* x = AllocateFor<int32_t>(scratch, inner_);
    sums_ = AllocateFor<uint32_t>(scratch, cols_);
    if (x == nullptr || sums_ == nullptr) return false;
    std::transform(x_, x_ + inner_, x, [](T number) { return static_cast<int32_t>(number); });
    whole_x_ = x;
    const int64_t parts = (cols_ + kColumnsTogether - 1) / kColumnsTogether;
    workers->Share(parts, inner_ * kColumnsTogether / 8, [&](int64_t first, int64_t end) {
      Add(first * kColumnsTogether, std::min(end * kColumnsTogether, int64_t{cols_}));
    });
    return can_count_ && Write();
  }

 private:
  // How products with weights of such facts are added, where that is modulo 2^32 and no weight
  // needs its sign corrected.
  std::optional<ChainPlan> PlanFor(const Facts& weights,
                                   const std::function<int64_t()>& weight_sum) const {
    if (!weights.is_whole || sign_.NeedsCorrection(static_cast<T>(weights.max))) return {};
    ChainFacts facts = facts_;
    facts.weights = weights;
    facts.weight_sum = weight_sum;
    ChainPlan plan;
    if constexpr (std::is_same_v<T, float>) {
      plan = PlanFloat(facts, false);
    } else {
      plan = PlanInt32(facts, false);
    }
    if (plan.path != ChainPath::kDotShorts && plan.path != ChainPath::kModular) return {};
    return plan;
  }

  // Whether the sums may count once such weights have been seen.
  bool CanCount(const Facts& weights) const {
    return PlanFor(weights, [] { return int64_t{0}; }).has_value();
  }

  // Columns [first, end), until no facts can prove what is added.
  void Add(int64_t first, int64_t end) {
    const RowLoops<T>& loops = LoopsOf<T>();
    std::fill(sums_ + first, sums_ + end, 0);
    SeenWeights seen;
    for (int64_t row = 0; row < inner_ && can_count_;) {
      const int64_t stop = std::min<int64_t>(row + kRowsBetweenQuestions, inner_);
      for (; row < stop;) {
        const bool is_whole = stop - row >= kRowsTogether;
        (is_whole ? loops.rows_together : loops.row)(weights_ + row * cols_ + first, cols_,
                                                     whole_x_ + row, end - first, sums_ + first,
                                                     &seen);
        row += is_whole ? kRowsTogether : 1;
      }
      if (!CanCount(FactsOf<T>(seen))) can_count_ = false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    all_.min = std::min(all_.min, int64_t{seen.min});
    all_.max = std::max(all_.max, int64_t{seen.max});
  }

  // The largest sum of magnitudes of a column; the weights are whole.
  int64_t WeightSum() const {
    std::vector<int64_t> sums(static_cast<size_t>(cols_));
    for (int64_t row = 0; row < inner_; ++row) {
      AddMagnitudes(weights_ + row * cols_, cols_, sums.data());
    }
    return *std::max_element(sums.begin(), sums.end());
  }

  // False where all facts together do not prove the sums.
  bool Write() {
    const auto plan = PlanFor(all_, [this] { return WeightSum(); });
    if (!plan) return false;
    const int32_t unused = 32 - plan->bits;
    for (int32_t c = 0; c < cols_; ++c) {
      const auto sum = static_cast<int32_t>(sums_[c]);
      out_[c] = static_cast<T>(ShiftRight(ShiftLeft(sum, unused), unused));
    }
    return true;
  }

  const T* const x_;
  const T* const weights_;
  T* const out_;
  const int32_t inner_;
  const int32_t cols_;
  const WeightSign<T> sign_;
  ChainFacts facts_{};
  const int32_t* whole_x_ = nullptr;
  uint32_t* sums_ = nullptr;
  std::atomic<bool> can_count_{true};
  std::mutex mutex_;
  Facts all_;  // of the weights
};

}  // namespace

template <typename T>
bool MultiplyRow(const MatMulCall<T>& call, int32_t batch_index, Workers* workers,
                 Scratch* scratch) {
  return RowProduct<T>(call, batch_index).Run(workers, scratch);
}

template bool MultiplyRow(const MatMulCall<int32_t>&, int32_t, Workers*, Scratch*);
template bool MultiplyRow(const MatMulCall<float>&, int32_t, Workers*, Scratch*);

}  // namespace bitfold
