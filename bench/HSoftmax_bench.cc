// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HSoftmax.h"
#include "cpu/softmax.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int kVectors = 128;
constexpr int kSize = 256;

// Falling exponentials, falling sums, rising reciprocals.
std::vector<uint32_t> MakeTable() {
  std::vector<uint32_t> words;
  for (uint32_t k = 0; k < 256; ++k) {
    const uint32_t sum = (255 - k) << 16;
    words.push_back((60000 / (k + 1)) | sum << 16);
    words.push_back(sum >> 16 | k << 8);
  }
  return words;
}

void HSoftmaxUnit(benchmark::State& state, decltype(run_softmax)* run) {
  const std::vector<float> in = RandomIntegers<float>(kVectors * kSize, -255, 0);
  const std::vector<uint32_t> table = MakeTable();
  std::vector<float> out(in.size());
  for (auto _ : state) {
    run(in.data(), out.data(), kVectors * kSize, kVectors, table.data(), true);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kVectors * kSize);
}

// The definition and the vector loops on the machine's widest target.
[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HSoftmax/float/128x256", HSoftmaxUnit, run_softmax),
    benchmark::RegisterBenchmark("HSoftmax/float/128x256 loops", HSoftmaxUnit,
                                 kOnCallingThread<ComputeSoftmax>),
};

}  // namespace
}  // namespace bitfold
