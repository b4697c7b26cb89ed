// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How fast the kernels are: the additions beside a copy of as many bytes, the convolution beside
// the host's definition on one thread. A table, not a test.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

#include "bitfold/HConv2D.h"
#include "convolution.h"
#include "groups.h"

namespace bitfold::device_test {

namespace {

// 64.3 MiB in a tensor.
constexpr std::array<int, 4> kAdditionShape = {21, 112, 112, 64};
constexpr ConvolutionShape kConvolutionShape = {1,  56, 56, 64, 3, 3,
                                                64, 1,  1,  1,  1, Padding::kSame};

// The median of several samples, each of several runs in a row. The first runs are not counted.
double MedianMilliseconds(const std::function<void()>& work) {
  constexpr int kSamples = 9;
  constexpr int kRuns = 10;
  work();
  work();
  std::array<double, kSamples> samples;
  for (double& sample : samples) {
    sample = Milliseconds([&work] {
               for (int run = 0; run < kRuns; ++run) work();
             }) /
             kRuns;
  }
  std::sort(samples.begin(), samples.end());
  return samples[kSamples / 2];
}

// Whole numbers whose sums print nothing. Those up to 127 are bytes.
template <typename T>
std::vector<T> QuietValues(size_t count, int largest = 20) {
  Random random(8);
  std::vector<T> values(count);
  for (T& value : values) value = static_cast<T>(random.Between(-largest, largest));
  return values;
}

double GigabytesPerSecond(double bytes, double milliseconds) { return bytes / milliseconds / 1e6; }

// The bytes that a kernel reads and writes, but for the channels' and the scalars'.
template <typename T>
size_t BytesMoved(AdditionKernel kernel, size_t count) {
  const bool has_elementwise = kernel != AdditionKernel::kAddFeedRepeat &&
                               kernel != AdditionKernel::kAddDecomposedFeedRepeat;
  return (has_elementwise ? 3 : 2) * count * sizeof(T);
}

// A copy moves each byte twice: it is read and written.
double CopyGigabytesPerSecond(size_t bytes_moved) {
  const Buffer<char> from(bytes_moved / 2);
  const Buffer<char> to(bytes_moved / 2);
  const double milliseconds =
      MedianMilliseconds([&] { CopyOnDevice(to.data(), from.data(), from.bytes()); });
  return GigabytesPerSecond(static_cast<double>(bytes_moved), milliseconds);
}

template <typename T>
void MeasureAdditions() {
  const auto [d0, d1, d2, d3] = kAdditionShape;
  const size_t count = static_cast<size_t>(d0) * d1 * d2 * d3;
  AdditionInputs<T> inputs;
  inputs.shape = kAdditionShape;
  inputs.value = QuietValues<T>(count);
  inputs.elementwise = QuietValues<T>(count);
  inputs.a = QuietValues<T>(static_cast<size_t>(d3));
  inputs.b = QuietValues<T>(static_cast<size_t>(d3));
  for (const AdditionKernel kernel : kAdditionKernels) {
    inputs.kernel = kernel;
    AdditionOnDevice<T> device(inputs);
    const Attributes attributes;
    device.Prepare(attributes);
    const double milliseconds = MedianMilliseconds([&] { device.Launch(attributes); });
    const size_t bytes = BytesMoved<T>(kernel, count);
    const double speed = GigabytesPerSecond(static_cast<double>(bytes), milliseconds);
    const double copy = CopyGigabytesPerSecond(bytes);
    std::printf("%-24s %-6s %10.3f %10.1f %10.1f %10.3f\n", Name(kernel), kTypeName<T>,
                milliseconds, speed, copy, speed / copy);
    std::fflush(stdout);
  }
}

template <typename T>
void MeasureConvolution() {
  ConvolutionInputs<T> inputs{kConvolutionShape, {}, {}, {}};
  const ConvolutionShape& s = inputs.shape;
  const size_t window = static_cast<size_t>(s.fh) * s.fw * s.in_c;
  inputs.input = QuietValues<T>(static_cast<size_t>(s.in_h) * s.in_w * s.in_c);
  inputs.filter = QuietValues<T>(window * s.out_c);
  const Attributes attributes;
  const double products = static_cast<double>(inputs.outputs()) * static_cast<double>(window);

  ConvolutionOnDevice<T> device(inputs);
  device.Prepare(attributes);
  const double device_ms = MedianMilliseconds([&] { device.Launch(attributes); });

  std::vector<T> output(static_cast<size_t>(inputs.outputs()));
  const auto mult_shift = static_cast<int8_t>(attributes.mult_shift);
  ConvolutionCall<T> call = s.Call<T>();
  call.input = inputs.input.data();
  call.filter = inputs.filter.data();
  call.output = output.data();
  call.datapath = {attributes.accumulator_size, &mult_shift, attributes.use_fp16_acc};
  const auto begin = std::chrono::steady_clock::now();
  convolve4DTensorSlow(call);
  const double host_ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
  std::printf("%-24s %-6s %10.3f %10.0f %10.0f %10.1f\n", "convolution", kTypeName<T>, device_ms,
              products / device_ms / 1e3, products / host_ms / 1e3, host_ms / device_ms);
  std::fflush(stdout);
}

// So many output channels that the product takes nearly all of the time.
constexpr ConvolutionShape kProductShape = {1, 56, 56, 64, 3, 3, 256, 1, 1, 1, 1, Padding::kSame};
// Chains of 128 steps, the shortest of which four products may be summed at once.
constexpr ConvolutionShape kShortShape = {1, 56, 56, 128, 1, 1, 256, 1, 1, 1, 1, Padding::kSame};

// Largest magnitudes of inputs, which are bytes or, most of them, not.
constexpr int kBytes = 20;
constexpr int kBeyondBytes = 1000;

struct ProductCase {
  const char* name;
  Attributes attributes;
};

// Sums of some thousands: those of 12 bits wrap.
const std::vector<ProductCase> kProductCases = {{"no scaling", {24, 0, false}},
                                                {"mult_shift 4", {24, 4, false}},
                                                {"mult_shift 5", {24, 5, false}},
                                                {"12 bits", {12, 0, false}},
                                                {"half precision", {24, 0, true}},
                                                {"half precision, mult_shift 4", {24, 4, true}},
                                                {"half precision, mult_shift 5", {24, 5, true}}};
const std::vector<ProductCase> kByteCases = {{"bytes", {24, 0, false}},
                                             {"bytes, 16 bits", {16, 0, false}}};

// Of inputs up to a magnitude and small weights.
template <typename T>
void MeasureProducts(const ConvolutionShape& s, int largest,
                     const std::vector<ProductCase>& cases) {
  ConvolutionInputs<T> inputs{s, {}, {}, {}};
  const size_t window = static_cast<size_t>(s.fh) * s.fw * s.in_c;
  inputs.input = QuietValues<T>(static_cast<size_t>(s.in_h) * s.in_w * s.in_c, largest);
  inputs.filter = QuietValues<T>(window * s.out_c);
  const double products = static_cast<double>(inputs.outputs()) * static_cast<double>(window);
  ConvolutionOnDevice<T> device(inputs);
  for (const ProductCase& c : cases) {
    // Integers have no half precision.
    if (std::is_same_v<T, int32_t> && c.attributes.use_fp16_acc) continue;
    device.Prepare(c.attributes);
    const double milliseconds = MedianMilliseconds([&] { device.Launch(c.attributes); });
    std::printf("%-30s %-6s %10.3f %10.1f\n", c.name, kTypeName<T>, milliseconds,
                products / milliseconds / 1e6);
    std::fflush(stdout);
  }
}

}  // namespace

void MeasureTimes() {
  const auto [d0, d1, d2, d3] = kAdditionShape;
  std::printf("\n%dx%dx%dx%d elements, feed repeat 1; medians\n", d0, d1, d2, d3);
  std::printf("%-24s %-6s %10s %10s %10s %10s\n", "kernel", "type", "ms", "GB/s", "copy GB/s",
              "ratio");
  MeasureAdditions<float>();
  MeasureAdditions<int32_t>();

  const ConvolutionShape& s = kConvolutionShape;
  std::printf(
      "\n%dx%dx%dx%d to %d, %dx%d; millions of multiply-adds a second, the host's on one "
      "thread\n",
      s.batch, s.in_h, s.in_w, s.in_c, s.out_c, s.fh, s.fw);
  std::printf("%-24s %-6s %10s %10s %10s %10s\n", "kernels", "type", "ms", "device", "host",
              "ratio");
  MeasureConvolution<float>();
  MeasureConvolution<int32_t>();

  for (const ConvolutionShape& p : {kProductShape, kShortShape}) {
    std::printf("\n%dx%dx%dx%d to %d, %dx%d; billions of multiply-adds a second\n", p.batch, p.in_h,
                p.in_w, p.in_c, p.out_c, p.fh, p.fw);
    std::printf("%-30s %-6s %10s %10s\n", "arithmetic", "type", "ms", "device");
    MeasureProducts<float>(p, kBeyondBytes, kProductCases);
    MeasureProducts<float>(p, kBytes, kByteCases);
    MeasureProducts<int32_t>(p, kBeyondBytes, kProductCases);
    MeasureProducts<int32_t>(p, kBytes, kByteCases);
  }
  std::printf("\n");
}

}  // namespace bitfold::device_test
