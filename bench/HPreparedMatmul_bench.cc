// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HPreparedMatmul.h"
#include "cpu/prepared_matmul.h"
#include "frame/workers.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

struct Shape {
  const char* name;
  int32_t pairs, rows, inner, cols;
  bool transpose_second;
};

struct Arithmetic {
  const char* name;
  int32_t accumulator_size;
  bool use_fp16_acc;
};

const std::vector<Shape> kShapes = {{"12x197x64 by 12x197x64 transposed", 12, 197, 64, 197, true},
                                    {"12x197x197 by 12x197x64", 12, 197, 197, 64, false}};
const std::vector<Arithmetic> kArithmetics = {
    {"proven", 32, false}, {"proven, to op by op", 32, false}, {"half precision", 32, true}};

void Multiply(benchmark::State& state, const Shape& shape, const Arithmetic& arithmetic,
              bool is_made_once) {
  const double multiplier = 1e-3;
  const PreparedProduct product = {1,
                                   shape.rows,
                                   shape.inner,
                                   shape.cols,
                                   false,
                                   shape.transpose_second,
                                   -3,
                                   7,
                                   &multiplier,
                                   false,
                                   {arithmetic.accumulator_size,
                                    arithmetic.use_fp16_acc,
                                    {Rescaling::kTwoRoundings, 0, 0, -128, 127}}};
  const auto first = RandomIntegers<int8_t>(shape.pairs * product.FirstElements(), -128, 127);
  const auto second = RandomIntegers<int8_t>(shape.pairs * product.SecondElements(), -128, 127);
  std::vector<int8_t> output(static_cast<size_t>(shape.pairs * product.OutputElements()));
  const Broadcast pairs = MakeBroadcast({shape.pairs}, {shape.pairs});
  const PreparedMatmulCall<int8_t, int8_t> call = {first.data(), second.data(), output.data(),
                                                   &pairs};
  CallingThread workers;
  const PreparedMatmul<int8_t, int8_t> matmul(product);
  for (auto _ : state) {
    if (is_made_once) {
      matmul.Run(call, &workers);
    } else {
      DefinePreparedMatmul(product, call);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * shape.pairs * product.FirstElements() * shape.cols);
}

bool Register() {
  for (const Shape& shape : kShapes) {
    for (const Arithmetic& arithmetic : kArithmetics) {
      for (const bool is_made_once : {false, true}) {
        const std::string name = std::string("HPreparedMatmul/") + shape.name + ", " +
                                 arithmetic.name + (is_made_once ? " made once" : "");
        benchmark::RegisterBenchmark(name.c_str(), Multiply, shape, arithmetic, is_made_once);
      }
    }
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
