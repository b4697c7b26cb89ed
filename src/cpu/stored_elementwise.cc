// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/stored_elementwise.h"

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "cpu/result_scaling.h"
#include "vector/rescale_steps.h"
#include "vector/target.h"

namespace bitfold {
namespace {

constexpr int kBlock = 256;  // elements at a time: their sums stay in the nearest cache

// How the operands of a sum are scaled: the wider one by a factor, the other one by a mantissa in
// two halves, both shifted as the product needs it. The zero points are in the constants.
struct SumScaling {
  int32_t factor;
  int32_t upper;
  int32_t lower;
  int32_t lower_constant;
  int32_t constant;
  int32_t offset;
  int32_t right;
};

template <typename T>
struct LoopsOf {
  using Store = void (*)(const int32_t*, int, const ResultScaling&, T*);
  using Add = void (*)(const T*, const T*, int, const SumScaling&, int32_t*);

  Add add;
  Add add_divided;
  void (*multiply)(const T*, const T*, int, const int32_t*, int32_t*);
  Store divide;
  Store rescale;
};

struct ElementwiseLoops {
  LoopsOf<int8_t> int8;
  LoopsOf<int16_t> int16;
};

#define BITFOLD_LOOPS "cpu/stored_elementwise_loops.inc"
#define BITFOLD_LOOP_TABLE                                                               \
  ElementwiseLoops {                                                                     \
    {AddOperands<int8_t, false>, AddOperands<int8_t, true>, MultiplyCentred<int8_t>,     \
     DivideAndStore<int8_t>, RescaleAndStore<int8_t>},                                   \
    {                                                                                    \
      AddOperands<int16_t, false>, AddOperands<int16_t, true>, MultiplyCentred<int16_t>, \
          DivideAndStore<int16_t>, RescaleAndStore<int16_t>                              \
    }                                                                                    \
  }
#include "vector/vector_loops.inc"

template <typename T>
const LoopsOf<T>& CurrentLoopsOf() {
  if constexpr (std::is_same_v<T, int8_t>) {
    return CurrentLoops().int8;
  } else {
    return CurrentLoops().int16;
  }
}

// Of operand `wider` the multiplier is a half.
template <typename T>
SumScaling ScalingOf(const StoredElementwiseMode& mode, int wider, FixedMultiplier multiplier) {
  constexpr int32_t kShift = 31 - kSpareBits<T>;
  const bool is_difference = mode.operation == StoredOperation::kSubtract;
  const int32_t sign = is_difference && wider == 0 ? -1 : 1;
  const int32_t rounded = (multiplier.mantissa >> 16) + ((multiplier.mantissa >> 15) & 1);
  const auto lower = static_cast<int32_t>(multiplier.mantissa - int64_t{rounded} * 65536) * sign;
  const int32_t upper = rounded * (1 << (16 - kShift)) * sign;
  const int32_t factor = (is_difference && wider == 1 ? -1 : 1) * (1 << (kSpareBits<T> - 1));
  const int32_t zero_point = mode.operands[1 - wider].zero_point;
  return {factor,
          upper,
          lower,
          (1 << (kShift - 1)) - zero_point * lower,
          -zero_point * upper,
          -mode.operands[wider].zero_point * factor,
          -multiplier.exponent};
}

// An operand's elements as the common shape has them.
template <typename T>
class Operand {
 public:
  Operand(const StoredElementwiseCall<T>& call, int operand)
      : data_(call.operands[operand]), broadcast_(*call.broadcast), operand_(operand) {
    int64_t step = 1;
    for (auto axis = broadcast_.rbegin(); axis != broadcast_.rend(); ++axis) {
      is_whole_ = is_whole_ && axis->strides[operand] == step;
      step *= axis->size;
    }
  }

  // Elements [first, first + count) side by side; in `copy` where they do not lie so.
  const T* Block(int64_t first, int count, T* copy) const {
    if (is_whole_) return data_ + first;
    const auto [run, strides] = broadcast_.back();
    const int64_t stride = strides[operand_];
    for (int done = 0; done < count;) {
      const int begin = done;
      const int64_t i = first + done;
      const auto length = static_cast<int>(std::min<int64_t>(count - done, run - i % run));
      const T* from = data_ + PlaceInOperand(broadcast_, operand_, i);
      if (stride == 0) {
        std::fill_n(copy + done, length, *from);
      } else {
        std::copy_n(from, length, copy + done);
      }
      done += length;
      // The same runs again and again, as many at once as there are.
      const auto end = static_cast<int>(std::min<int64_t>(count, RepeatedTo(i) - first));
      while (done < end && done - begin >= run) {
        const auto period = static_cast<int>((done - begin) / run * run);
        const int repeated = std::min(period, end - done);
        std::copy_n(copy + done - period, repeated, copy + done);
        done += repeated;
      }
    }
    return copy;
  }

 private:
  // To where the elements from i on are those of its run again: the end of the dimension above,
  // where the operand is repeated along that.
  int64_t RepeatedTo(int64_t i) const {
    if (broadcast_.size() < 2) return i;
    const BroadcastAxis& above = broadcast_[broadcast_.size() - 2];
    const int64_t span = broadcast_.back().size * above.size;
    return above.strides[operand_] == 0 ? i - i % span + span : i;
  }

  const T* data_;
  const Broadcast& broadcast_;
  int operand_;
  bool is_whole_ = true;  // nothing is repeated
};

}  // namespace

template <typename T>
void ComputeStoredElementwise(const StoredElementwiseCall<T>& call, Workers* workers) {
  constexpr int64_t kCost = 1;  // cycles of an element
  const StoredElementwiseMode& mode = call.mode;
  const StoredElementwiseMultipliers multipliers = MultipliersOf<T>(mode);
  const bool is_product = mode.operation == StoredOperation::kMultiply;
  const int wider = mode.operands[0].scale >= mode.operands[1].scale ? 0 : 1;
  const SumScaling scaling = ScalingOf<T>(mode, wider, multipliers.operands[1 - wider]);
  const ResultScaling result = {multipliers.result, mode.output.zero_point, mode.minimum,
                                mode.maximum};
  const int32_t zero_points[2] = {mode.operands[0].zero_point, mode.operands[1].zero_point};
  const Operand<T> operands[2] = {{call, 0}, {call, 1}};
  const LoopsOf<T>& loops = CurrentLoopsOf<T>();
  const auto add = scaling.right == 0 ? loops.add : loops.add_divided;
  const auto store = OnlyDivides(result) ? loops.divide : loops.rescale;
  workers->Share(CountOf(*call.broadcast), kCost, [&](int64_t first, int64_t end) {
    T copies[2][kBlock];
    int32_t sums[kBlock];
    for (int64_t i = first; i < end; i += kBlock) {
      const auto count = static_cast<int>(std::min<int64_t>(kBlock, end - i));
      const T* const blocks[2] = {operands[0].Block(i, count, copies[0]),
                                  operands[1].Block(i, count, copies[1])};
      if (is_product) {
        loops.multiply(blocks[0], blocks[1], count, zero_points, sums);
      } else {
        add(blocks[wider], blocks[1 - wider], count, scaling, sums);
      }
      store(sums, count, result, call.output + i);
    }
  });
}

template void ComputeStoredElementwise(const StoredElementwiseCall<int8_t>&, Workers*);
template void ComputeStoredElementwise(const StoredElementwiseCall<int16_t>&, Workers*);

}  // namespace bitfold
