// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "cpu/nms.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

// One class of 2,000 boxes of up to 100 pixels in a picture of 1,000.
std::vector<Box> RandomBoxes() {
  std::mt19937 generator(2026);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::vector<Box> boxes(2000);
  for (Box& box : boxes) {
    box.y_min = 900.0f * unit(generator);
    box.x_min = 900.0f * unit(generator);
    box.y_max = box.y_min + 100.0f * unit(generator);
    box.x_max = box.x_min + 100.0f * unit(generator);
    box.score = unit(generator);
  }
  return boxes;
}

constexpr SuppressionOptions kOptions{0.1f, 0.5f, 200.0f, false, false};

void Define(benchmark::State& state) {
  const std::vector<Box> boxes = RandomBoxes();
  for (auto _ : state) benchmark::DoNotOptimize(DefineClassNMS(boxes, kOptions, nullptr));
}

void Compute(benchmark::State& state) {
  const std::vector<Box> boxes = RandomBoxes();
  Frame frame;
  for (auto _ : state) {
    ComputeClassNMS(boxes, kOptions, &frame);
    benchmark::ClobberMemory();
  }
}

[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HNMS/float/2000 boxes", Define),
    benchmark::RegisterBenchmark("HNMS/float/2000 boxes loops", Compute),
};

}  // namespace
}  // namespace bitfold
