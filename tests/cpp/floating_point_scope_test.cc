// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A caller whose thread flushes subnormals and rounds upward gets the same bits as any other, and
// its own modes back.

#include "frame/floating_point_scope.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cfenv>
#include <cstdint>
#include <vector>

#include "cpu/convolution.h"
#include "support/chain_convolution.h"
#include "support/compare.h"
#include "support/ledger.h"

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace bitfold {
namespace {

using testing::FloatOf;
using testing::Same;

// Rounds upward and, where the machine can be told to, flushes subnormals, as the caller's thread.
class ForeignModes {
 public:
  ForeignModes() {
    std::fegetenv(&saved_);
    std::fesetround(FE_UPWARD);
#if defined(__SSE2__)
    _mm_setcsr(_mm_getcsr() | 0x8040u);  // FTZ and DAZ
#elif defined(__aarch64__)
    uint64_t control;
    asm volatile("mrs %0, fpcr" : "=r"(control));
    asm volatile("msr fpcr, %0" : : "r"(control | (uint64_t{1} << 24)));  // FZ
#endif
  }
  ~ForeignModes() { std::fesetenv(&saved_); }

 private:
  std::fenv_t saved_;
};

// Formed when called, in the modes of the calling thread.
float Product(float a, float b) {
  volatile float x = a;
  volatile float y = b;
  volatile float product = x * y;
  return product;
}

float Sum(float a, float b) {
  volatile float x = a;
  volatile float y = b;
  volatile float sum = x + y;
  return sum;
}

const float kSubnormal = FloatOf(3);
const float kTiny = FloatOf(0x20000000);  // 2^-63: rounded away in 1 + kTiny unless rounding up

bool RoundsUpward() { return Sum(1.0f, kTiny) > 1.0f; }
bool FlushesSubnormals() { return testing::BitsOf(Product(kSubnormal, 2.0f)) == 0; }

#if defined(__SSE2__) || defined(__aarch64__)
constexpr bool kCanFlush = true;
#else
constexpr bool kCanFlush = false;
#endif

TEST(FloatingPointScope, DefaultInsideAndTheCallersModesAfter) {
  const ForeignModes modes;
  ASSERT_TRUE(RoundsUpward());
  ASSERT_EQ(FlushesSubnormals(), kCanFlush);
  {
    const DefaultFloatingPointScope scope;
    EXPECT_FALSE(RoundsUpward());
    EXPECT_FALSE(FlushesSubnormals());
    EXPECT_TRUE(Same(FloatOf(6), Product(kSubnormal, 2.0f), "subnormal * 2", ""));
    {
      const DefaultFloatingPointScope nested;
      EXPECT_FALSE(RoundsUpward());
    }
    EXPECT_FALSE(RoundsUpward());
  }
  EXPECT_TRUE(RoundsUpward());
  EXPECT_EQ(FlushesSubnormals(), kCanFlush);
}

// One output per image: subnormal * 1 + (-0.75 / 1 rounded) and so on, all of which the foreign
// modes would change. `create` chooses threads or the calling thread.
std::vector<float> Convolve(CreateThread create, int32_t shift) {
  const std::vector<float> input = {FloatOf(3), FloatOf(0x00400000), FloatOf(5),
                                    0.1f,       FloatOf(1),          0.7f};
  const std::vector<float> filter = {1.0f, 0.3f};
  std::vector<float> output(3, 99.0f);
  HeapScratch scratch;
  const auto mult_shift = static_cast<int8_t>(shift);
  const ConvolutionCall<float> call = {input.data(),
                                       filter.data(),
                                       nullptr,
                                       output.data(),
                                       3,
                                       1,
                                       1,
                                       {1, 1, 1, 1, Padding::kValid},
                                       {2, 2, 1, 1, Padding::kValid},
                                       false,
                                       1,
                                       {24, &mult_shift, false}};
  ComputeByImageThreads(call, &scratch, create);
  return output;
}

int NoThread(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }

TEST(FloatingPointScope, ImagesDoNotDependOnTheCallersModes) {
  for (const int32_t shift : {0, 3}) {
    const std::vector<float> expected = Convolve(pthread_create, shift);
    for (const CreateThread create : {CreateThread{pthread_create}, CreateThread{NoThread}}) {
      std::vector<float> actual;
      bool restored = false;
      {
        const ForeignModes modes;
        actual = Convolve(create, shift);
        restored = RoundsUpward();
      }
      EXPECT_TRUE(restored);
      EXPECT_TRUE(
          testing::SameArrays(expected.data(), actual.data(), 3, "foreign modes",
                              [shift](int64_t) { return testing::Describe("shift", shift); }));
    }
  }
  // The check can see: the first image, 3 * 2^-149 + 0.3 * 2^-127, is subnormal itself.
  EXPECT_TRUE(Same(FloatOf(3 + 1258291), Convolve(pthread_create, 0)[0], "image 0", ""));
  testing::Ran(testing::Path::kFlushedCaller);
}

// Whatever path the chains of floats take.
TEST(FloatingPointScope, ChainsDoNotDependOnTheCallersModes) {
  testing::Random random(0xf0de);
  for (const testing::ChainRecipe& recipe : testing::ChainRecipes<float>()) {
    for (const bool is_depthwise : {false, true}) {
      reference::Convolution c = testing::Plain(2, 5, is_depthwise ? 20 : 3, 2, 2, 20);
      c.is_depthwise = is_depthwise;
      const auto data = testing::DrawRecipe<float>(&random, recipe, true, &c);
      const auto defined = testing::DefinedConvolution(c, data);
      for (const auto& [target, name] : testing::AllTargets()) {
        const testing::ForcedTarget forced(target);
        HeapScratch scratch;
        const auto actual = [&] {
          const ForeignModes modes;
          return testing::ChainConvolution(c, data, 1, &scratch);
        }();
        ASSERT_TRUE(testing::SameAsDefined(c, defined, actual, name)) << recipe.name;
      }
    }
  }
}

}  // namespace
}  // namespace bitfold
