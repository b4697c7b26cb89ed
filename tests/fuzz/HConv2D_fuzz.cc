// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the convolution's definition, and its threads, against the oracle, and the convolutions of
// a call on every target against the definition.

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "fuzz_input.h"
#include "support/chain_convolution.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

int NonZero(int x) { return x == 0 ? 1 : x; }

reference::Convolution ReadConvolution(FuzzInput* input, bool is_float) {
  reference::Convolution c = Plain(input->Between(0, 6), input->Between(0, 6), input->Between(1, 4),
                                   input->Between(0, 5), input->Between(0, 5), 1);
  c.batch = input->Between(0, 3);
  c.stride_h = NonZero(input->Between(-1, 3));
  c.stride_w = NonZero(input->Between(-1, 3));
  c.dilation_h = input->Between(-1, 3);
  c.dilation_w = input->Between(-1, 3);
  c.same = input->Flag();
  c.is_depthwise = input->Flag();
  c.out_channels = input->Between(1, c.is_depthwise ? c.in_channels : 4);
  if (input->Between(0, 3) == 0) {
    c.out_channels = input->Between(14, 70);  // around the lanes of the tiles
    if (c.is_depthwise) c.in_channels = c.out_channels + input->Between(0, 1);
    c.in_width = input->Between(0, 12);
  }
  c.filter_per_image = input->Flag();
  c.accumulator_size = input->Between(0, is_float ? 140 : 32);
  c.mult_shift = input->Flag() ? input->Between(0, 8) : static_cast<int8_t>(input->Byte());
  c.use_fp16_acc = input->Flag();
  return c;
}

template <typename T>
void FuzzConvolution(FuzzInput* input) {
  const reference::Convolution c = ReadConvolution(input, std::is_same_v<T, float>);
  if (OutputCount(c) > 2000) return;
  ConvolutionData<T> data;
  const bool elementwise = input->Flag();
  const int offset = input->Between(0, 3);
  data.input = input->Values<T>(InputCount(c));
  data.filter = input->Values<T>(FilterCount(c));
  if (elementwise) data.elementwise = input->Values<T>(OutputCount(c));

  const auto describe = [&c](int64_t) { return Describe(c); };
  const auto oracle = OracleConvolution(c, data);
  const auto defined = DefinedConvolution(c, data, offset);
  RequireSame(oracle.values.data(), defined.values.data(), OutputCount(c), "convolve4DTensorSlow",
              describe);
  RequireSameText(oracle.lines, defined.lines, "convolve4DTensorSlow", Describe(c));
  const auto any = [](const std::optional<ChainPlan>&, Target) {
    return ::testing::AssertionSuccess();
  };
  Require(CompareChains(c, data, offset, any));
  // The threads' lines come in any order.
  const auto threaded = ThreadedConvolution(c, data, pthread_create);
  RequireSame(defined.values.data(), threaded.values.data(), OutputCount(c), "image threads",
              describe);
  BackwardParts parts(1);
  const auto shared = SharedConvolution(c, data, &parts);
  RequireSame(defined.values.data(), shared.values.data(), OutputCount(c), "shared", describe);
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  if (input.Flag()) {
    bitfold::testing::FuzzConvolution<int32_t>(&input);
  } else {
    bitfold::testing::FuzzConvolution<float>(&input);
  }
  return 0;
}
