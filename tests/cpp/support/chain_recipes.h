// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Numbers that make the chain engine take each of its paths, at the proofs' bounds and just above
// them; and memory that runs out.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_CHAIN_RECIPES_H_
#define BITFOLD_TESTS_CPP_SUPPORT_CHAIN_RECIPES_H_

#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>
#include <vector>

#include "chain/plan.h"
#include "frame/scratch.h"
#include "support/ledger.h"
#include "support/random.h"

namespace bitfold::testing {

struct NumberRange {
  int32_t low;
  int32_t high;
};

inline constexpr NumberRange kAnyInt32 = {INT32_MIN, INT32_MAX};
inline constexpr NumberRange kInt16 = {INT16_MIN, INT16_MAX};
inline constexpr NumberRange kInt8 = {INT8_MIN, INT8_MAX};
inline constexpr NumberRange kUint8 = {0, UINT8_MAX};

struct ChainRecipe {
  const char* name;
  // Of an ordinary convolution, where the target has all that it needs; none where it depends on
  // the shape.
  std::optional<ChainPath> path;
  int width;
  int shift;
  NumberRange input;
  NumberRange weights;
  NumberRange elementwise;
  bool use_fp16_acc = false;
  float scale = 1.0f;       // floats: of all numbers
  bool has_others = false;  // floats: NaN, infinities, subnormals and numbers of any size
};

template <typename T>
std::vector<ChainRecipe> ChainRecipes();

template <>
inline std::vector<ChainRecipe> ChainRecipes<int32_t>() {
  constexpr auto kStepwise = ChainPath::kStepwise;
  constexpr auto kModular = ChainPath::kModular;
  constexpr auto kRounded = ChainPath::kRounded;
  constexpr auto kShorts = ChainPath::kDotShorts;
  constexpr auto kBytes = ChainPath::kDotBytes;
  constexpr auto kRemainders = ChainPath::kDotRemainders;
  return {
      {"unsigned bytes", kBytes, 32, 0, kUint8, kInt8, kAnyInt32},
      {"signed bytes", kBytes, 32, 0, kInt8, kInt8, kAnyInt32},
      {"unsigned bytes of 20 bits", kBytes, 20, 0, kUint8, kInt8, {-1048576, 1048576}},
      {"signed bytes of 15 bits", kBytes, 15, 0, {-1, 127}, kInt8, {-32768, 32768}},
      {"the largest products of 15 bits", kBytes, 15, 0, kUint8, kInt8, {-32768, 32768}},
      {"products above 14 bits", kStepwise, 14, 0, kUint8, kInt8, {-300, 300}},
      {"one bit", kBytes, 1, 0, {-1, 1}, {-2, 2}, {-2, 2}},
      {"products above one bit", kStepwise, 1, 0, {-1, 1}, {-3, 3}, {-2, 2}},
      {"no bit", kStepwise, 0, 0, kInt8, kInt8, {-300, 300}},
      {"no bit, shifted", kStepwise, 0, 2, kInt8, kInt8, {-300, 300}},
      {"one more than bytes", kShorts, 32, 0, {0, 256}, kInt8, kAnyInt32},
      {"one less than bytes", kShorts, 32, 0, {-129, 127}, kInt8, kAnyInt32},
      {"shorts", kShorts, 32, 0, kInt16, kInt16, kAnyInt32},
      {"the largest products of 30 bits",
       kShorts,
       30,
       0,
       kInt16,
       kInt16,
       {-1073741824, 1073741824}},
      {"products above 29 bits", kStepwise, 29, 0, kInt16, kInt16, kInt16},
      {"one more than shorts", kModular, 32, 0, {-32768, 32768}, {-3, 3}, kAnyInt32},
      {"one less than shorts", kModular, 24, 0, {-3, 3}, {-32769, 32767}, kInt16},
      {"any of 32 bits", kModular, 32, 0, kAnyInt32, kAnyInt32, kAnyInt32},
      {"any of 31 bits", kModular, 31, 0, kAnyInt32, kAnyInt32, kAnyInt32},
      {"any of 30 bits", kStepwise, 30, 0, kAnyInt32, kAnyInt32, kAnyInt32},
      {"the largest products of 18 bits",
       kModular,
       18,
       0,
       {-65536, 65536},
       {-4, 4},
       {-262144, 262144}},
      {"products above 18 bits", kStepwise, 18, 0, {-65537, 65537}, {-4, 4}, {-262144, 262144}},
      {"any, shifted", kModular, 32, 5, kAnyInt32, kAnyInt32, kAnyInt32},
      {"any, shifted by 31", kModular, 31, 31, kAnyInt32, kAnyInt32, kAnyInt32},
      {"bytes, shifted by 25", kModular, 20, 25, kUint8, kInt8, kInt16},
      {"bytes, shifted by -3", kModular, 16, -3, kInt8, kInt8, kInt8},
      {"bytes, shifted by 33", kModular, 16, 33, kInt8, kInt8, kInt8},
      {"bytes, shifted by 127", kModular, 16, 127, kInt8, kInt8, kInt8},
      {"rounded bytes", kRemainders, 20, 4, kUint8, kInt8, {-1048576, 1048576}},
      {"rounded by 1", kRemainders, 15, 1, kUint8, kInt8, kInt16},
      {"rounded by 2", kRemainders, 30, 2, {-40, 215}, kInt8, kInt16},
      {"rounded by 3", kRemainders, 32, 3, {-128, 0}, kInt8, kAnyInt32},
      {"rounded by 5", kRemainders, 32, 5, kInt8, kInt8, kAnyInt32},
      {"rounded by 6", kRounded, 32, 6, kInt8, kInt8, kAnyInt32},
      {"one more than bytes rounded", kRounded, 20, 4, {0, 256}, kInt8, kInt16},
      {"weights of one more", kRounded, 20, 4, kUint8, {-127, 128}, kInt16},
      {"rounded by 24", kRounded, 32, 24, {-4096, 4096}, {-4096, 4096}, kAnyInt32},
      {"the largest products rounded", kRounded, 32, 3, {-4096, 4096}, {-4096, 4096}, kAnyInt32},
      {"quotients too large to round", kModular, 32, 2, {-4096, 4096}, {-4096, 4096}, kAnyInt32},
      {"products too large to round", kModular, 32, 8, {-4096, 4097}, {-4096, 4097}, kAnyInt32},
      {"steps of 12 bits", kStepwise, 12, 3, {-300, 300}, {-300, 300}, {-3000, 3000}},
      {"any of 24 bits", kStepwise, 24, 7, kAnyInt32, kAnyInt32, kAnyInt32},
      {"any of 8 bits", kStepwise, 8, 31, kAnyInt32, kAnyInt32, kAnyInt32},
  };
}

template <>
inline std::vector<ChainRecipe> ChainRecipes<float>() {
  constexpr auto kStepwise = ChainPath::kStepwise;
  constexpr auto kModular = ChainPath::kModular;
  constexpr auto kRounded = ChainPath::kRounded;
  constexpr auto kShorts = ChainPath::kDotShorts;
  constexpr auto kBytes = ChainPath::kDotBytes;
  constexpr auto kRemainders = ChainPath::kDotRemainders;
  constexpr NumberRange kMillion = {-1000000, 1000000};
  constexpr NumberRange kLarge = {-3000000, 3000000};
  return {
      {"unsigned bytes", kBytes, 24, 0, kUint8, {-2, 2}, {-1000, 1000}},
      {"unsigned bytes of 20 bits", kBytes, 20, 0, kUint8, kInt8, {-1048576, 1048576}},
      {"signed bytes of 22 bits", kBytes, 22, 0, kInt8, kInt8, {-4194304, 4194304}},
      {"the largest products of 15 bits", kBytes, 15, 0, kUint8, kInt8, {-32768, 32768}},
      {"products above 14 bits", kStepwise, 14, 0, kUint8, kInt8, {-300, 300}},
      {"signed bytes of 32 bits", kBytes, 32, 0, kInt8, {-3, 3}, kInt8},
      {"unsigned bytes of 40 bits", kBytes, 40, 0, kUint8, {-2, 2}, kMillion},
      {"signed bytes of 1000 bits", kBytes, 1000, 0, {-128, 127}, {-1, 1}, kInt8},
      {"one more than bytes", kShorts, 20, 0, {-128, 128}, {-128, 127}, kInt8},
      {"the largest products of 22 bits",
       kShorts,
       22,
       0,
       {-2048, 2047},
       {-2048, 2047},
       {-4194304, 4194304}},
      {"products above 22 bits", kStepwise, 22, 0, {-2049, 2047}, {-2048, 2047}, kInt16},
      {"the largest products of 23 bits",
       kShorts,
       23,
       0,
       {-2047, 2047},
       {-2049, 2047},
       {-4194303, 4194303}},
      {"products above 23 bits", kStepwise, 23, 0, {-2048, 2047}, {-2048, 2047}, kInt16},
      {"shorts of 32 bits", kShorts, 32, 0, {-300, 300}, {-3, 3}, kInt16},
      {"one more than shorts", kModular, 20, 0, {-32768, 32768}, {-1, 1}, kInt16},
      {"large numbers of 40 bits", kModular, 40, 0, {-40000, 40000}, {-1, 1}, kInt16},
      {"sums around 24 bits", {}, 22, 0, {-40000, 40000}, {-100, 100}, kInt16},
      {"rounded by 2", kRounded, 22, 2, {-2048, 2047}, {-2048, 2047}, {-4194304, 4194304}},
      {"bytes rounded by 2", kRemainders, 20, 2, kUint8, kInt8, kInt16},
      {"bytes rounded by 4", kRemainders, 22, 4, kInt8, kInt8, {-4194304, 4194304}},
      {"bytes rounded by 8", kRemainders, 40, 8, {-55, 200}, {-2, 2}, kInt16},
      {"bytes rounded by 16", kRemainders, 15, 16, kUint8, kInt8, {-32768, 32768}},
      {"bytes rounded by 32", kRemainders, 16, 32, {-255, 0}, kInt8, kInt16},
      {"bytes rounded by 64", kRounded, 16, 64, kUint8, kInt8, kInt16},
      {"rounded by 1", kRounded, 16, 1, {-255, 255}, kInt8, kInt16},
      {"rounded by -4", kRounded, 20, -4, kUint8, kInt8, kInt16},
      {"rounded by -128", kRounded, 30, -128, kInt8, {-2, 2}, kInt8},
      {"the largest products rounded by 127",
       kRounded,
       20,
       127,
       {-724, 724},
       {-724, 724},
       {-1048576, 1048576}},
      {"products too large to round", kStepwise, 20, 127, {-725, 725}, {-724, 724}, kInt16},
      {"rounded by 3", kRounded, 20, 3, kUint8, kInt8, kInt16},
      {"rounded by -6", kRounded, 18, -6, kUint8, kInt8, kInt16},
      {"rounded by 100", kRounded, 40, 100, kInt8, {-2, 2}, kInt16},
      {"fractions", kStepwise, 24, 0, {-999, 999}, {-101, 99}, {-999, 999}, false, 0.37f},
      {"fractions, shifted", kStepwise, 12, 3, {-999, 999}, {-99, 99}, {-999, 999}, false, 0.37f},
      {"fractions of no bit", kStepwise, 0, 0, {-9, 9}, {-9, 9}, {-9, 9}, false, 0.37f},
      {"bytes of 8 bits", kStepwise, 8, 0, kInt8, kInt8, kInt8},
      {"bytes of no bit", kStepwise, 0, 2, kInt8, kInt8, kInt8},
      {"sums that print", kStepwise, 30, 0, kMillion, {-9, 9}, kLarge},
      {"sums that print and wrap", kStepwise, 24, 0, kLarge, {-4, 4}, kLarge},
      {"rounded sums that print", kStepwise, 40, 3, kLarge, {-9, 9}, kLarge},
      {"sums above every float", kStepwise, 130, 0, kMillion, kMillion, kMillion, false, 1e14f},
      {"others", kStepwise, 24, 0, {-99, 99}, {-99, 99}, {-99, 99}, false, 0.37f, true},
      {"others, shifted", {}, 33, -7, {-99, 99}, {-99, 99}, {-99, 99}, false, 1.0f, true},
      {"half precision", kStepwise, 24, 0, {-99, 99}, {-99, 99}, {-99, 99}, true, 0.13f},
      {"half precision, shifted", kStepwise, 24, 3, kInt8, kInt8, kInt8, true, 1.0f},
      {"small half precision", kStepwise, 24, 0, {-99, 99}, {-99, 99}, {-99, 99}, true, 0.0037f},
      {"half precision of whole numbers", {}, 24, 0, {-11, 11}, {-9, 9}, kInt16, true},
      {"the largest unchanged halves", {}, 24, 0, {-64, 64}, {-64, 64}, kInt16, true},
      {"the largest whole halves", kStepwise, 24, 0, {-127, 127}, {-257, 257}, kLarge, true},
      {"half precision of bytes", kStepwise, 24, 0, kUint8, kInt8, {-400000, 400000}, true},
      {"small sums in half precision", kBytes, 24, 0, {-2, 3}, {-1, 1}, kInt8, true},
      {"small sums divided by 4", kRemainders, 24, 4, {-2, 3}, {-1, 1}, kInt8, true},
      {"small sums divided by 3", kRounded, 24, 3, {-2, 3}, {-1, 1}, kInt8, true},
      {"small sums divided by 64", kRounded, 24, 64, {-2, 3}, {-1, 1}, kInt8, true},
      {"half precision out of range", kStepwise, 24, 0, {-400, 400}, {-400, 400}, kInt16, true},
      {"half precision that prints", kStepwise, 24, 2, kMillion, {-99, 99}, kLarge, true},
      {"others in half precision", kStepwise, 24, 0, kInt8, kInt8, kInt8, true, 0.13f, true},
  };
}

// The path of a recipe on a target, where it is known: whether dot products are worth packing for
// few outputs is the engine's to say.
template <typename T>
std::optional<ChainPath> PathOn(const ChainRecipe& recipe, bool is_depthwise, int64_t outputs,
                                Target target) {
  const bool is_remainders = recipe.path == ChainPath::kDotRemainders;
  const bool is_dot =
      recipe.path == ChainPath::kDotBytes || recipe.path == ChainPath::kDotShorts || is_remainders;
  constexpr int64_t kManyOutputs = 16;
  if (is_dot && !is_depthwise && outputs < kManyOutputs) return std::nullopt;
  if (is_remainders && (is_depthwise || !HasRemainders(target))) return ChainPath::kRounded;
  if (recipe.path == ChainPath::kDotBytes && target != Target::kAvx512Vnni) {
    return ChainPath::kDotShorts;
  }
  return recipe.path;
}

template <typename T>
ChainNumbers NumbersOf(bool use_fp16_acc) {
  if (!std::is_same_v<T, float>) return ChainNumbers::kInt32;
  return use_fp16_acc ? ChainNumbers::kHalf : ChainNumbers::kFloat;
}

// Numbers of a range with its ends among them, where there are two; floats have a -0 as well.
template <typename T>
std::vector<T> DrawRange(Random* random, int64_t count, const NumberRange& range,
                         const ChainRecipe& recipe) {
  std::vector<T> numbers;
  for (int64_t i = 0; i < count; ++i) {
    const int32_t x = random->Between(range.low, range.high);
    numbers.push_back(static_cast<T>(x));
  }
  if (count == 0) return numbers;
  const auto at = [&]() -> T& {
    return numbers[static_cast<size_t>(random->Between(0, count - 1))];
  };
  if (std::is_same_v<T, float>) at() = static_cast<T>(-0.0f);
  const auto low = static_cast<size_t>(random->Between(0, count - 1));
  numbers[(low + 1) % numbers.size()] = static_cast<T>(range.high);
  numbers[low] = static_cast<T>(range.low);
  if constexpr (std::is_same_v<T, float>) {
    for (T& x : numbers) x *= recipe.scale;
    if (!recipe.has_others || count < 8) return numbers;
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    for (const float x : {std::numeric_limits<float>::quiet_NaN(), kInfinity, -kInfinity, 3e38f,
                          -3e38f, 1e-45f, -1e-39f, -0.0f, 8388607.0f, 0.5f}) {
      if (random->Between(0, 3) == 0) at() = x;
    }
  }
  return numbers;
}

// Memory from the heap, except for one request.
class FailingScratch : public Scratch {
 public:
  // Requests from 0 on; -1 fails none.
  explicit FailingScratch(int failing) : failing_(failing) {}

  void* Allocate(size_t bytes) override {
    return requests_++ == failing_ ? nullptr : heap_.Allocate(bytes);
  }
  int requests() const { return requests_; }

 private:
  int failing_;
  int requests_ = 0;
  HeapScratch heap_;
};

// Another's memory, for who wants an object of its own.
class BorrowedScratch : public Scratch {
 public:
  explicit BorrowedScratch(Scratch* lender) : lender_(lender) {}

  void* Allocate(size_t bytes) override { return lender_->Allocate(bytes); }

 private:
  Scratch* const lender_;
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_CHAIN_RECIPES_H_
