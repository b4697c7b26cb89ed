// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The datapath over arrays: each step's loop on every target against the scalar datapath, of which
// there are three; and the helpers that cut arrays into blocks.

#include "cpu/vector_datapath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/addition.h"
#include "support/buffer.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/tables.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Data;
using testing::Describe;
using testing::ExactBuffer;
using testing::Random;

// ---- The steps ---------------------------------------------------------------------------------

template <typename D, typename T>
struct Kind {
  using DatapathType = D;
  using Element = T;
};

template <typename K>
class VectorDatapathTest : public ::testing::Test {};

using Kinds = ::testing::Types<Kind<Datapath<int32_t>, int32_t>, Kind<Datapath<float>, float>,
                               Kind<ReciprocalDatapath<float>, float>>;
TYPED_TEST_SUITE(VectorDatapathTest, Kinds, );

// Operands of exact size, each misaligned differently.
template <typename T>
struct Arrays {
  ExactBuffer<T> acc, x, y;

  Arrays(Random* random, Data data, int64_t n, int offset)
      : acc(testing::DrawMany<T>(random, data, n), offset),
        x(testing::DrawMany<T>(random, data, n), (offset + 1) % 4),
        y(testing::DrawMany<T>(random, data, n), (offset + 2) % 4) {}
};

// Whether a line may be printed for a sum; one that is not NaN and only as large as the lower bound
// may be taken in.
bool MayPrint(float acc, float addend) { return !(std::fabs(acc + addend) < 8388607.0f); }
bool MayPrint(int32_t, int32_t) { return false; }

// What a step gives: the values as the scalar datapath computes them, and whether a line may be
// printed. scalar(i, &sum) computes element i with sum(acc, addend) for each addition.
template <typename D, typename T>
class Expected {
 public:
  template <typename Scalar>
  Expected(const D& datapath, int64_t n, Scalar scalar) : values_(n) {
    const auto sum = [&](T acc, T addend) {
      may_print_ |= MayPrint(acc, addend);
      return datapath.Accumulate(acc, addend);
    };
    const std::string lines = testing::PrintedBy([&] {
      for (int64_t i = 0; i < n; ++i) values_[i] = scalar(i, sum);
    });
    EXPECT_TRUE(may_print_ || lines.empty());
  }

  template <typename Inputs>
  ::testing::AssertionResult IsGivenBy(const ExactBuffer<T>& actual, const char* step,
                                       const Inputs& inputs) const {
    return testing::SameArrays(values_.data(), actual.data(), values_.count(), step, inputs);
  }

  template <typename Inputs>
  ::testing::AssertionResult IsGivenBy(bool warned, const ExactBuffer<T>& actual, const char* step,
                                       const Inputs& inputs) const {
    if (warned != may_print_) return ::testing::AssertionFailure() << step << " warned: " << warned;
    return IsGivenBy(actual, step, inputs);
  }

  bool may_print() const { return may_print_; }

 private:
  ExactBuffer<T> values_;
  bool may_print_ = false;
};

template <typename D, typename T>
T ScaledProduct(const D& d, T x, T y) {
  return d.ScaleProduct(d.Multiply(x, y));
}

// All steps on one set of operands, as they are defined.
template <typename D, typename T>
struct ExpectedSteps {
  Expected<D, T> initial, products, sums, two, accumulated;

  ExpectedSteps(const D& d, const Arrays<T>& in, int n)
      : initial(d, n, [&](int64_t i, auto) { return d.InitialValue(in.x[i]); }),
        products(d, n, [&](int64_t i, auto) { return ScaledProduct(d, in.x[i], in.y[i]); }),
        sums(d, n, [&](int64_t i, auto sum) { return sum(in.acc[i], in.x[i]); }),
        two(d, n, [&](int64_t i, auto sum) { return sum(sum(in.acc[i], in.x[i]), in.y[i]); }),
        accumulated(d, n, [&](int64_t i, auto sum) {
          return sum(in.acc[i], ScaledProduct(d, in.x[i], in.y[i]));
        }) {}
};

// The loops of the target in use; an accumulator may be where the result goes.
template <typename D, typename T>
void CheckSteps(const D& d, const Arrays<T>& in, int n, const ExpectedSteps<D, T>& expected,
                const std::string& attributes) {
  const auto inputs = [&](int64_t i) {
    return attributes + Describe("acc", in.acc[i], "x", in.x[i], "y", in.y[i]);
  };
  const auto& loops = LoopsOf(d);
  const T* acc = in.acc.data();
  const T* x = in.x.data();
  const T* y = in.y.data();
  ExactBuffer<T> out(n, 1);
  loops.initial_values(d, x, n, out.data());
  ASSERT_TRUE(expected.initial.IsGivenBy(false, out, "initial_values", inputs));
  loops.products(d, x, y, n, out.data());
  ASSERT_TRUE(expected.products.IsGivenBy(false, out, "products", inputs));
  bool warned = loops.accumulate(d, acc, x, n, out.data());
  ASSERT_TRUE(expected.sums.IsGivenBy(warned, out, "accumulate", inputs));
  warned = loops.accumulate_two(d, acc, x, y, n, out.data());
  ASSERT_TRUE(expected.two.IsGivenBy(warned, out, "accumulate_two", inputs));
  warned = loops.accumulate_products(d, acc, x, y, n, out.data());
  ASSERT_TRUE(expected.accumulated.IsGivenBy(warned, out, "accumulate_products", inputs));
  std::copy_n(acc, n, out.data());
  warned = loops.accumulate(d, out.data(), x, n, out.data());
  ASSERT_TRUE(expected.sums.IsGivenBy(warned, out, "accumulate in place", inputs));
  std::copy_n(acc, n, out.data());
  warned = loops.accumulate_two(d, out.data(), x, y, n, out.data());
  ASSERT_TRUE(expected.two.IsGivenBy(warned, out, "accumulate_two in place", inputs));
  std::copy_n(acc, n, out.data());
  warned = loops.accumulate_products(d, out.data(), x, y, n, out.data());
  ASSERT_TRUE(expected.accumulated.IsGivenBy(warned, out, "accumulate_products in place", inputs));
}

template <typename D, typename T>
void CheckStepsOfEveryTarget(const D& d, const Arrays<T>& in, int n,
                             const std::string& attributes) {
  const ExpectedSteps<D, T> expected(d, in, n);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    ASSERT_NO_FATAL_FAILURE(CheckSteps(d, in, n, expected, attributes)) << name;
    testing::Ran(testing::OnTarget(testing::Path::kDatapathPortable, target));
  }
}

TYPED_TEST(VectorDatapathTest, AttributesCrossed) {
  using T = typename TypeParam::Element;
  Random random(0xda7a);
  for (const int width : testing::Widths<T>()) {
    for (const int shift : testing::Shifts()) {
      for (const bool use_fp16_acc : {false, true}) {
        const typename TypeParam::DatapathType datapath(width, shift, use_fp16_acc);
        for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
          const Arrays<T> in(&random, data, 43, random.Between(0, 3));
          ASSERT_NO_FATAL_FAILURE(CheckStepsOfEveryTarget(
              datapath, in, 43, Describe("width", width, "shift", shift, "fp16", use_fp16_acc)));
        }
      }
    }
  }
}

TYPED_TEST(VectorDatapathTest, SizesAndMisalignments) {
  using T = typename TypeParam::Element;
  Random random(0x512e);
  std::vector<int> sizes = testing::LaneSizes();
  sizes.insert(sizes.end(), {kDatapathBlock - 1, kDatapathBlock});
  for (const bool use_fp16_acc : {false, true}) {
    const typename TypeParam::DatapathType datapath(8, 2, use_fp16_acc);
    for (const int n : sizes) {
      for (int offset = 0; offset < 4; ++offset) {
        const Arrays<T> in(&random, Data::kSmall, n, offset);
        ASSERT_NO_FATAL_FAILURE(
            CheckStepsOfEveryTarget(datapath, in, n, Describe("n", n, "offset", offset)));
      }
    }
  }
}

// The quantiser as the loops have it: every pattern of the upper 16 bits.
TEST(VectorDatapath, InitialValuesOfEveryUpperPattern) {
  const Datapath<float> datapath(24, 0, true);
  ExactBuffer<float> x(kDatapathBlock);
  ExactBuffer<float> out(kDatapathBlock);
  for (uint32_t first = 0; first <= 0xffffu; first += kDatapathBlock) {
    for (const uint32_t lower : {0x0000u, 0x0001u, 0x0800u, 0x1fffu, 0x8000u, 0xffffu}) {
      for (uint32_t i = 0; i < kDatapathBlock; ++i)
        x[i] = testing::FloatOf((first + i) << 16 | lower);
      for (const auto& [target, name] : testing::SupportedTargets()) {
        const testing::ForcedTarget forced(target);
        LoopsOf(datapath).initial_values(datapath, x.data(), kDatapathBlock, out.data());
        for (int i = 0; i < kDatapathBlock; ++i) {
          if (testing::SameBits(datapath.InitialValue(x[i]), out[i])) continue;
          FAIL() << name << testing::Show(x[i]) << " gives " << testing::Show(out[i]);
        }
      }
    }
  }
}

// The one element that would print is found wherever it stands.
TEST(VectorDatapath, OneWarningAnywhere) {
  for (const bool use_fp16_acc : {false, true}) {
    const Datapath<float> datapath(24, 0, use_fp16_acc);
    const std::vector<float> ones(kDatapathBlock, 1.0f);
    for (const auto& [target, name] : testing::SupportedTargets()) {
      const testing::ForcedTarget forced(target);
      std::vector<float> acc(kDatapathBlock, 5.0f);
      std::vector<float> out(kDatapathBlock);
      for (const int n : {1, 15, 16, 17, 100, kDatapathBlock}) {
        const auto warns = [&] {
          const auto& loops = LoopsOf(datapath);
          const bool added = loops.accumulate(datapath, acc.data(), ones.data(), n, out.data());
          const bool multiplied = loops.accumulate_products(datapath, acc.data(), ones.data(),
                                                            ones.data(), n, out.data());
          EXPECT_EQ(added, multiplied);
          return added;
        };
        ASSERT_FALSE(warns()) << name;
        for (int i = 0; i < n; ++i) {
          acc[static_cast<size_t>(i)] = 8388606.0f;
          ASSERT_TRUE(warns()) << name << ": element " << i << " of " << n;
          acc[static_cast<size_t>(i)] = 5.0f;
        }
      }
    }
  }
}

// ---- Corners of detection boxes ----------------------------------------------------------------

// What goes into the corners. A centre is in two parts, of which one is 0.
template <typename T>
struct CornerArrays {
  std::vector<ExactBuffer<T>> drawn;  // centers, sizes, three factors, two centres
  std::vector<ExactBuffer<T>> parts;  // y and x of the first centre, y and x of the second

  CornerArrays(Random* random, Data data, int64_t n, int offset) {
    for (int k = 0; k < 7; ++k) {
      drawn.emplace_back(testing::DrawMany<T>(random, data, n), (offset + k) % 4);
    }
    for (int k = 0; k < 4; ++k) {
      parts.emplace_back(n, (offset + k + 1) % 4);
      for (int64_t i = k % 2; i < n; i += 2) parts.back()[i] = drawn[5 + k / 2][i];
    }
  }

  CornerFactors<T> Factors() const {
    return {drawn[0].data(),
            drawn[1].data(),
            {drawn[2].data(), drawn[3].data(), drawn[4].data()},
            {parts[0].data(), parts[2].data()},
            {parts[1].data(), parts[3].data()}};
  }
};

template <typename D, typename T>
void CheckCorners(const D& d, const CornerArrays<T>& in, int n, const std::string& attributes) {
  const auto inputs = [&](int64_t i) {
    std::string text = attributes;
    for (const auto& array : in.drawn) text += testing::Show(array[i]) + " ";
    return text;
  };
  const auto product = [&](int64_t i, size_t detection, size_t factor) {
    return ScaledProduct(d, in.drawn[detection][i], in.drawn[2 + factor][i]);
  };
  // Of one product, the minimum and the maximum; then of two.
  const Expected<D, T> expected[4] = {
      {d, n, [&](int64_t i, auto sum) { return sum(product(i, 0, 0), in.drawn[5][i]); }},
      {d, n, [&](int64_t i, auto sum) { return sum(product(i, 1, 1), in.drawn[6][i]); }},
      {d, n,
       [&](int64_t i, auto sum) {
         return sum(sum(product(i, 0, 0), product(i, 1, 1)), in.drawn[5][i]);
       }},
      {d, n, [&](int64_t i, auto sum) {
         return sum(sum(product(i, 0, 0), product(i, 1, 2)), in.drawn[6][i]);
       }}};
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const auto& loops = LoopsOf(d);
    ExactBuffer<T> min(n, 1);
    ExactBuffer<T> max(n, 2);
    bool warned = loops.corners_of_one_product(d, in.Factors(), n, min.data(), max.data());
    EXPECT_EQ(warned, expected[0].may_print() || expected[1].may_print()) << name;
    ASSERT_TRUE(expected[0].IsGivenBy(min, "minimum of one product", inputs)) << name;
    ASSERT_TRUE(expected[1].IsGivenBy(max, "maximum of one product", inputs)) << name;
    warned = loops.corners_of_two_products(d, in.Factors(), n, min.data(), max.data());
    EXPECT_EQ(warned, expected[2].may_print() || expected[3].may_print()) << name;
    ASSERT_TRUE(expected[2].IsGivenBy(min, "minimum of two products", inputs)) << name;
    ASSERT_TRUE(expected[3].IsGivenBy(max, "maximum of two products", inputs)) << name;
  }
}

TYPED_TEST(VectorDatapathTest, Corners) {
  using T = typename TypeParam::Element;
  Random random(0xc04);
  for (const int width : testing::Widths<T>()) {
    for (const int shift : testing::Shifts()) {
      for (const bool use_fp16_acc : {false, true}) {
        const typename TypeParam::DatapathType datapath(width, shift, use_fp16_acc);
        for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
          const int n = random.Pick<int>({1, 8, 15, 43, kDatapathBlock});
          const CornerArrays<T> in(&random, data, n, random.Between(0, 3));
          ASSERT_NO_FATAL_FAILURE(CheckCorners(
              datapath, in, n, Describe("width", width, "shift", shift, "fp16", use_fp16_acc)));
        }
      }
    }
  }
}

// ---- Pairs -------------------------------------------------------------------------------------

template <typename T>
void CheckPairs() {
  Random random(0x9a12);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const PairLoops<T>& loops = CurrentPairLoops<T>();
    for (const int n : {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 127, 128}) {
      for (int offset = 0; offset < 4; ++offset) {
        const ExactBuffer<T> x(testing::DrawMany<T>(&random, Data::kFull, 2 * n), offset);
        const ExactBuffer<T> y(testing::DrawMany<T>(&random, Data::kFull, 2 * n), (offset + 1) % 4);
        ExactBuffer<T> joined(4 * n, 3);
        ExactBuffer<T> swapped(4 * n, 2);
        loops.join(x.data(), y.data(), n, joined.data());
        loops.join_swap(x.data(), y.data(), n, swapped.data());
        for (int64_t i = 0; i < 4 * n; ++i) {
          const int64_t pair = i / 4 * 2;
          const int64_t k = i % 4;
          const ExactBuffer<T>& from = k < 2 ? x : y;
          const std::string at = Describe("i", i, "n", n) + name;
          ASSERT_TRUE(testing::Same(from[pair + k % 2], joined[i], "join", at));
          ASSERT_TRUE(testing::Same(from[pair + 1 - k % 2], swapped[i], "join_swap", at));
        }
      }
    }
  }
}

TEST(VectorDatapath, Pairs) {
  CheckPairs<int32_t>();
  CheckPairs<float>();
}

// ---- Blocks ------------------------------------------------------------------------------------

TEST(VectorDatapath, ForEachBlockDefinesTheBlocksThatWarn) {
  using Blocks = std::vector<std::pair<int64_t, int64_t>>;
  CallingThread calling_thread;
  testing::BackwardParts parts(1);
  for (const int64_t count : {0, 1, kDatapathBlock - 1, kDatapathBlock, kDatapathBlock + 1,
                              3 * kDatapathBlock, 3 * kDatapathBlock + 7}) {
    for (Workers* workers : std::vector<Workers*>{&calling_thread, &parts}) {
      Blocks fast;
      Blocks defined;
      ForEachBlock(
          workers, count, 1,
          [&fast](int64_t first, int n) {
            fast.emplace_back(first, n);
            return first > 0;
          },
          [&defined](int64_t first, int64_t n) { defined.emplace_back(first, n); });
      std::sort(fast.begin(), fast.end());  // in parts the last came first
      int64_t next = 0;
      for (const auto& [first, n] : fast) {
        EXPECT_EQ(first, next);
        EXPECT_TRUE(n == kDatapathBlock || (n > 0 && n < kDatapathBlock && first + n == count));
        next = first + n;
      }
      EXPECT_EQ(next, count);
      if (!fast.empty()) fast.erase(fast.begin());
      EXPECT_EQ(defined, fast);
    }
  }
}

TEST(VectorDatapath, PeriodicArrayGoesOnFromAnyPlace) {
  for (const int64_t period : {1, 2, 3, 7, 511, 512, 513, 2000}) {
    std::vector<int32_t> elements(static_cast<size_t>(period));
    for (int64_t i = 0; i < period; ++i) elements[static_cast<size_t>(i)] = static_cast<int>(i);
    const PeriodicArray<int32_t> array(elements.data(), period);
    for (const int64_t first : {int64_t{0}, int64_t{1}, period - 1, period, period + 1,
                                3 * period + 2, int64_t{1} << 40}) {
      const int32_t* block = array.From(first);
      for (int64_t i = 0; i < kDatapathBlock; ++i) {
        ASSERT_EQ(block[i], (first + i) % period) << "period " << period << " from " << first;
      }
    }
    PeriodicArray<int32_t> refilled(period);
    for (const int64_t i : {period, int64_t{0}}) {
      ASSERT_EQ(refilled.From(i)[0], 0) << "not zero to begin with";
    }
    for (auto& element : elements) element = -element;
    std::copy_n(elements.data(), period, refilled.FirstPeriod());
    refilled.Continue();
    for (int64_t i = 0; i < kDatapathBlock; ++i)
      ASSERT_EQ(refilled.From(1)[i], -((i + 1) % period));
  }
}

}  // namespace
}  // namespace bitfold
