// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Every allocation of a call fails in turn, on threads of all kinds too: std::bad_alloc on the
// calling thread or the right result, and the floating-point environment as it was.

#include <gtest/gtest.h>

#include <atomic>
#include <cfenv>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <vector>

#include "bitfold/HConv2D.h"
#include "bitfold/HLayernorm.h"
#include "bitfold/HSoftmax.h"
#include "cpu/bilinear.h"
#include "cpu/convolution.h"
#include "cpu/image_threads.h"
#include "cpu/layernorm.h"
#include "cpu/matmul.h"
#include "cpu/nms.h"
#include "cpu/prepared_matmul.h"
#include "cpu/softmax.h"
#include "frame/floating_point_scope.h"
#include "frame/scratch.h"
#include "support/convolution.h"
#include "support/log_stub.h"
#include "support/random.h"
#include "support/workers.h"

namespace {

// The allocations until one fails; negative: none does.
std::atomic<int64_t> allocations_left{-1};

void* AllocateOrFail(size_t size, size_t alignment) {
  if (allocations_left.load() >= 0 && allocations_left.fetch_sub(1) == 0) throw std::bad_alloc();
  void* memory = std::aligned_alloc(alignment, (size + alignment) / alignment * alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

// Not inlined: beside an operator new that is not, the compiler would warn of a pair that differs.
[[gnu::noinline]] void Free(void* memory) noexcept { std::free(memory); }

}  // namespace

void* operator new(size_t size) { return AllocateOrFail(size, alignof(std::max_align_t)); }
void* operator new(size_t size, std::align_val_t alignment) {
  return AllocateOrFail(size, static_cast<size_t>(alignment));
}
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete(void* memory, size_t) noexcept { Free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { Free(memory); }
void operator delete(void* memory, size_t, std::align_val_t) noexcept { Free(memory); }

namespace bitfold {
namespace {

using testing::Random;

enum class Outcome { kFailed, kSurvived, kHasFewerAllocations };

// `call` with its allocation `index` failing.
Outcome Fail(int64_t index, const std::function<void()>& call) {
  allocations_left = index;
  bool failed = false;
  try {
    call();
  } catch (const std::bad_alloc&) {
    failed = true;
  }
  if (allocations_left.exchange(-1) >= 0) return Outcome::kHasFewerAllocations;
  return failed ? Outcome::kFailed : Outcome::kSurvived;
}

// `call` writes `output`. Returns how many of its allocations can fail it.
template <typename T>
int FailEach(std::vector<T>* output, const std::function<void()>& call) {
  std::fesetround(FE_UPWARD);  // not what the ops compute with
  call();
  const std::vector<T> expected = *output;
  int failures = 0;
  for (int64_t index = 0;; ++index) {
    output->assign(output->size(), T{77});
    const Outcome outcome = Fail(index, call);
    EXPECT_EQ(std::fegetround(), FE_UPWARD) << "allocation " << index;
    if (outcome == Outcome::kFailed) {
      ++failures;
      continue;
    }
    EXPECT_EQ(*output, expected) << "allocation " << index;
    if (outcome == Outcome::kHasFewerAllocations) break;
  }
  std::fesetround(FE_TONEAREST);
  return failures;
}

template <typename T>
int FailConvolution(reference::Convolution c, int32_t batch) {
  Random random(0xa110c);
  c.batch = batch;
  c.same = true;
  const auto data = testing::DrawConvolution<T>(&random, c, testing::Data::kSmall, true);
  std::vector<T> output(static_cast<size_t>(testing::OutputCount(c)));
  const int8_t mult_shift = 3;
  const ConvolutionCall<T> call = testing::CallOf<T>(c, data, output.data(), &mult_shift);
  testing::BackwardParts parts(2);
  testing::ThreadParts threads(3, 1);
  for (Workers* workers : {static_cast<Workers*>(&parts), static_cast<Workers*>(&threads)}) {
    EXPECT_GE(FailEach(&output,
                       [&call, workers] {
                         HeapScratch scratch;
                         ComputeConvolution(call, &scratch, workers);
                       }),
              1);
  }
  return FailEach(&output, [&call] {
    HeapScratch scratch;
    ComputeByImageThreads(call, &scratch);
  });
}

TEST(OutOfMemory, Convolution) {
  for (const int32_t batch : {1, 3, 23}) {
    reference::Convolution c = testing::Plain(5, 5, 3, 3, 3, 20);
    FailConvolution<int32_t>(c, batch);
    FailConvolution<float>(c, batch);
    c.use_fp16_acc = true;
    EXPECT_GE(FailConvolution<float>(c, batch), batch) << "the stepwise path allocates in threads";
    c = testing::Plain(5, 5, 20, 3, 3, 20);
    c.is_depthwise = true;
    FailConvolution<int32_t>(c, batch);
    FailConvolution<float>(c, batch);
  }
}

TEST(OutOfMemory, MatrixProduct) {
  const std::vector<float> a(5 * 7, 1.5f);
  const std::vector<float> b(7 * 20, 2.5f);
  std::vector<float> product(5 * 20);
  const int8_t mult_shift = 3;
  const MatMulCall<float> call = {a.data(), b.data(), product.data(),          5,
                                  7,        20,       {16, &mult_shift, false}};
  FailEach(&product, [&call] {
    const DefaultFloatingPointScope scope;
    HeapScratch scratch;
    testing::BackwardParts parts(1);
    ComputeMatMul(
        call, 1, [] { return std::make_unique<HeapScratch>(); }, &parts);
  });
}

// Dot products of what is stored, and sums of what is widened.
TEST(OutOfMemory, PreparedMatmul) {
  const std::vector<int8_t> first(3 * 5 * 7, 11);
  const std::vector<int8_t> second(3 * 7 * 20, -3);
  std::vector<int8_t> output(3 * 5 * 20);
  const double multiplier = 0.25;
  const Broadcast pairs = MakeBroadcast({3}, {3});
  for (const bool use_fp16_acc : {false, true}) {
    const PreparedProduct product = {
        1,
        5,
        7,
        20,
        true,
        true,
        2,
        5,
        &multiplier,
        false,
        {32, use_fp16_acc, {Rescaling::kTwoRoundings, 0, 0, INT8_MIN, INT8_MAX}}};
    EXPECT_GE(FailEach(&output,
                       [&] {
                         const DefaultFloatingPointScope scope;
                         testing::BackwardParts parts(1);
                         const PreparedMatmul<int8_t, int8_t> matmul(product);
                         matmul.Run({first.data(), second.data(), output.data(), &pairs}, &parts);
                       }),
              3);
  }
}

TEST(OutOfMemory, Resampler) {
  const std::vector<int32_t> numbers(600, 3);
  std::vector<int32_t> output(600);
  testing::BackwardParts parts(1);
  const int8_t mult_shift = 1;
  const int32_t* x = numbers.data();
  const BilinearCall<int32_t> call = {
      {{x, x, x, x}, {x, x, x, x}}, output.data(), 300, 2, 1.0f, false, {16, &mult_shift, false}};
  EXPECT_GE(FailEach(&output,
                     [&] {
                       const DefaultFloatingPointScope scope;
                       ComputeBilinear(call, &parts);
                     }),
            1);
}

// Each part of a vector has memory of its own.
TEST(OutOfMemory, Softmax) {
  const std::vector<float> value(60, 1.0f);
  const std::vector<uint32_t> table(kSoftmaxTableWords, 1);
  std::vector<float> output(60);
  testing::BackwardParts parts(1);
  EXPECT_GE(FailEach(&output,
                     [&] {
                       const DefaultFloatingPointScope scope;
                       ComputeSoftmax(value.data(), output.data(), 60, 3, table.data(), true,
                                      &parts);
                     }),
            3);
}

TEST(OutOfMemory, LayerNorm) {
  const std::vector<float> value(60, 5.0f);
  const std::vector<float> table(LUT_DEPTH, 9.0f);
  std::vector<float> output(60);
  testing::BackwardParts parts(1);
  LayerNormParams params{};
  params.epsilon = 7;
  EXPECT_GE(FailEach(&output,
                     [&] {
                       const DefaultFloatingPointScope scope;
                       ComputeLayernorm(value.data(), output.data(), {20, 3, 1, 1}, table.data(),
                                        params, &parts);
                     }),
            3);
}

TEST(OutOfMemory, Suppression) {
  const testing::InformationLog off(false);
  std::vector<float> boxes;
  for (int i = 0; i < 20; ++i) {
    const float at = static_cast<float>(30 * i);
    boxes.insert(boxes.end(), {at, at, at + 9.0f, at + 9.0f, 0.5f});
  }
  std::vector<float> output(2 * 12 * 5);
  testing::BackwardParts parts(1);
  EXPECT_GE(FailEach(&output,
                     [&] {
                       const DefaultFloatingPointScope scope;
                       ComputeNMS({boxes.data(), 1, 20, 5, 1, 2}, {0.0f, 0.5f, 12, false, true},
                                  output.data(), &parts);
                     }),
            10);
}

// Vectors without elements: one stands for all 2^62 of them, or more.
TEST(WithoutElements, LayerNormLooksAtOneVector) {
  const std::vector<float> table(LUT_DEPTH, 9.0f);
  LayerNormParams params{};
  params.epsilon = 7;
  constexpr int kMany = 2147483647;
  CallingThread workers;
  ComputeLayernorm(nullptr, nullptr, {0, kMany, kMany, kMany}, table.data(), params, &workers);
  params.epsilon = 0;
  EXPECT_DEATH(ComputeLayernorm(nullptr, nullptr, {0, kMany, 1, 1}, table.data(), params, &workers),
               "variance > 0");
  ComputeLayernorm(nullptr, nullptr, {0, kMany, 0, kMany}, table.data(), params, &workers);
}

}  // namespace
}  // namespace bitfold
