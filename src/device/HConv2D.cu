// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HConv2d on a GPU: the filter rearranged into a row for each output channel, each image unfolded
// into a column for each position, and their product by tiles.

#include <type_traits>

#include "bitfold/device_bytes.h"
#include "bitfold/device_chain.h"
#include "bitfold/device_convolution.h"
#include "bitfold/device_datapath.h"
#include "device/device.h"
#include "device/launchers.h"
#include "device/tiles.h"

namespace bitfold {

// rows[oc][kh][ic][kw] = filter[kh][kw][ic][oc]: a row has its taps in the accelerator's order.
template <typename T>
__global__ void ker2row_kernel(const T* filter, int out_c, int in_c, int fh, int fw, T* rows) {
  const int row = fw * in_c * fh;
  const int count = out_c * row;
  for (uint32_t n = GridStride::first(); n < GridStride::end(count); n += GridStride::step()) {
    const int i = static_cast<int>(n);
    const int oc = i / row;
    const int r = i % row;
    const int kh = r / (fw * in_c) % fh;
    const int kw = r / in_c % fw;
    const int ic = i % in_c;
    rows[((oc * fh + kh) * in_c + ic) * fw + kw] =
        filter[((kh * fw + kw) * in_c + ic) * out_c + oc];
  }
}

// columns[kh][c][kw][oh][ow] = the image at the tap, 0 outside it, for n = col_h * in_c * col_w.
template <typename T>
__global__ void im2col_kernel(int n, const T* image, int in_c, int in_h, int in_w, int fh, int fw,
                              int pad_top, int pad_left, int stride_h, int stride_w, int dil_h,
                              int dil_w, int col_h, int col_w, T* columns) {
  for (uint32_t i = GridStride::first(); i < GridStride::end(n); i += GridStride::step()) {
    const int ow = static_cast<int>(i) % col_w;
    const int oh = static_cast<int>(i) / col_w % col_h;
    const int c = static_cast<int>(i) / col_w / col_h;
    const int h0 = WrapSubtract(WrapMultiply(oh, stride_h), pad_top);
    const int w0 = WrapSubtract(WrapMultiply(ow, stride_w), pad_left);
    for (int kh = 0; kh < fh; ++kh) {
      const int h = WrapAdd(h0, WrapMultiply(kh, dil_h));
      for (int kw = 0; kw < fw; ++kw) {
        const int w = WrapAdd(w0, WrapMultiply(kw, dil_w));
        const bool inside = 0 <= h && h < in_h && 0 <= w && w < in_w;
        columns[((kh * in_c + c) * fw + kw) * (col_h * col_w) + oh * col_w + ow] =
            inside ? image[(h * in_w + w) * in_c + c] : T{0};
      }
    }
  }
}

namespace {

template <bool kHalf, typename Division>
using FloatChain = std::conditional_t<kHalf, QuietHalfChain<Division>, QuietFloatChain<Division>>;

// Adds the products of one tile to *acc, unless they are not quiet in the sense of the chain.
template <typename T, typename Chain>
__device__ __forceinline__ bool AddQuietTile(const Chain& chain, const FourWords* a_row,
                                             const FourWords* b_col, T* acc) {
  typename Chain::State state = chain.Enter(*acc);
  BITFOLD_UNROLL_ALL
  for (int j = 0; j < kTile / 4; ++j) {
    const FourWords a = a_row[j];
    const FourWords b = b_col[j];
    BITFOLD_UNROLL_ALL
    for (int i = 0; i < 4; ++i) chain.Add(NumberOf<T>(a, i), NumberOf<T>(b, i), &state);
  }
  if (!chain.IsQuiet(state)) return false;
  *acc = chain.Leave(state);
  return true;
}

// As defined, step by step.
template <typename T>
__device__ __forceinline__ T AddTile(const DeviceDatapath<T>& datapath, const FourWords* a_row,
                                     const FourWords* b_col, T acc) {
  BITFOLD_KEEP_ROLLED
  for (int j = 0; j < kTile / 4; ++j) {
    const FourWords a = a_row[j];
    const FourWords b = b_col[j];
    BITFOLD_UNROLL_ALL
    for (int i = 0; i < 4; ++i) {
      acc = datapath.Accumulate(acc, datapath.Product(NumberOf<T>(a, i), NumberOf<T>(b, i)));
    }
  }
  return acc;
}

// How many steps of a chain were made, and what the accumulator is then.
template <typename T>
struct Begun {
  uint32_t steps;
  T acc;
};

// The chain of the thread's output while all factors are bytes, in tiles of 64 steps. The threads
// of the block bring them, see whether they are bytes, and stop together; a look at the first
// numbers spares most of what others are the tile. After the last tile threads may still read it.
template <typename T>
__device__ __forceinline__ Begun<T> MultiplyByteTiles(const ByteChain<T>& chain,
                                                      const Factors<T>& factors, uint32_t row,
                                                      uint32_t col, Tiles* shared) {
  const uint32_t tiles = factors.a_cols / ByteSums::kSteps;
  ByteTileReader<T> reader(factors, row, col);
  reader.Read();
  TilePlaces words(shared);
  int32_t sum = 0;
  uint32_t t = 0;
  for (; t < tiles; ++t) {
    ByteCheck check;
    words.Write(PackBytes(reader.a, &check), PackBytes(reader.b, &check));
    if (!__syncthreads_and(check.holds() && chain.MayAddMore(sum))) break;
    if (t + 1 < tiles) reader.Step();
    reader.Read();
    BITFOLD_UNROLL_ALL
    for (int j = 0; j < kTile / 4; ++j) {
      const FourWords a = words.a_row()[j];
      const FourWords b = words.b_col()[j];
      BITFOLD_UNROLL_ALL
      for (int i = 0; i < 4; ++i) sum = AddByteProducts(a.of[i], b.of[i], sum);
    }
    words.Turn();
  }
  return {t * ByteSums::kSteps, chain.Leave(sum)};
}

// The chain of the thread's output, if it has one; all threads of the block bring the tiles. While
// some still read one pair of tiles, others write the next. Each tile is tried by the chains in
// their order; one that failed likely fails again and is tried no more.
template <typename First, typename Second, typename T>
__device__ __forceinline__ T MultiplyTiles(const DeviceDatapath<T>& datapath,
                                           const Factors<T>& factors, uint32_t row, uint32_t col,
                                           Tiles* shared) {
  const First first(datapath);
  const Second second(datapath);
  const bool is_output = row < factors.a_rows && col < factors.b_cols;
  const int last = (static_cast<int>(factors.a_cols) - 1) / kTile;
  TileReader<T> reader(factors, row, col, 0);
  reader.Read();
  Begun<T> begin = {0, T{0}};
  if constexpr (First::kMayBeBytes) {
    const ByteChain<T> bytes(datapath);
    if (bytes.IsProven() && factors.a_cols >= ByteSums::kFewestSteps &&
        __syncthreads_and(IsByte(reader.a) && IsByte(reader.b))) {
      begin = MultiplyByteTiles(bytes, factors, row, col, shared);
      if (begin.steps == factors.a_cols) return begin.acc;
      __syncthreads();
      reader = TileReader<T>(factors, row, col, begin.steps);
      reader.Read();
    }
  }
  T acc = begin.acc;
  TilePlaces tiles(shared);
  int failed = 0;
  for (int t = static_cast<int>(begin.steps) / kTile; t <= last; ++t) {
    tiles.Write(WordOf(reader.a), WordOf(reader.b));
    __syncthreads();
    reader.Read();
    const FourWords* const a_row = tiles.a_row();
    const FourWords* const b_col = tiles.b_col();
    tiles.Turn();
    if (!is_output) continue;
    if (failed == 0) {
      if (AddQuietTile(first, a_row, b_col, &acc)) continue;
      failed = std::is_same_v<First, Second> ? 2 : 1;
    }
    if constexpr (!std::is_same_v<First, Second>) {
      if (failed == 1) {
        if (AddQuietTile(second, a_row, b_col, &acc)) continue;
        failed = 2;
      }
    }
    acc = AddTile(datapath, a_row, b_col, acc);
  }
  return acc;
}

// Float data, in half precision or not: a loop for each way to scale, so that none has the others'
// instructions.
template <bool kHalf>
__device__ __forceinline__ float MultiplyFloats(const DeviceDatapath<float>& datapath,
                                                const Factors<float>& factors, uint32_t row,
                                                uint32_t col, Tiles* tiles) {
  const int32_t mult_shift = datapath.mult_shift();
  if (mult_shift == 0) {
    const DeviceDatapath<float> unscaled(datapath.min(), datapath.max(), 0, kHalf);
    using Chain = FloatChain<kHalf, NoDivision>;
    return MultiplyTiles<Chain, Chain>(unscaled, factors, row, col, tiles);
  }
  const DeviceDatapath<float> scaled(datapath.min(), datapath.max(), mult_shift, kHalf);
  if (DivisionByPower::Divides(mult_shift)) {
    using Chain = FloatChain<kHalf, DivisionByPower>;
    return MultiplyTiles<Chain, Chain>(scaled, factors, row, col, tiles);
  }
  using Chain = FloatChain<kHalf, DivisionByAny>;
  return MultiplyTiles<Chain, Chain>(scaled, factors, row, col, tiles);
}

__device__ __forceinline__ float Multiply(const DeviceDatapath<float>& datapath,
                                          const Factors<float>& factors, uint32_t row, uint32_t col,
                                          Tiles* tiles) {
  if (datapath.use_fp16_acc()) return MultiplyFloats<true>(datapath, factors, row, col, tiles);
  return MultiplyFloats<false>(datapath, factors, row, col, tiles);
}

__device__ __forceinline__ int32_t Multiply(const DeviceDatapath<int32_t>& datapath,
                                            const Factors<int32_t>& factors, uint32_t row,
                                            uint32_t col, Tiles* tiles) {
  const AccumulatorLimits<int32_t>& limits = datapath.limits();
  if (datapath.mult_shift() == 0) {
    const DeviceDatapath<int32_t> unscaled(limits.min, limits.max, 0, false);
    return MultiplyTiles<QuietIntegerChain<false>, WrappingIntegerChain<false>>(unscaled, factors,
                                                                                row, col, tiles);
  }
  return MultiplyTiles<QuietIntegerChain<true>, WrappingIntegerChain<true>>(datapath, factors, row,
                                                                            col, tiles);
}

// What the kernel is given.
template <typename T>
struct ProductCall {
  Factors<T> factors;
  T* output;
  DeviceDatapath<T> datapath;
  const T* elementwise;
};

template <typename T>
__device__ __forceinline__ void ComputeOutput(const ProductCall<T>& call, Tiles* tiles) {
  const Factors<T>& factors = call.factors;
  const uint32_t row = blockIdx.y * blockDim.y + threadIdx.y;
  const uint32_t col = blockIdx.x * blockDim.x + threadIdx.x;
  T acc = Multiply(call.datapath, factors, row, col, tiles);
  if (row >= factors.a_rows || col >= factors.b_cols) return;
  const uint32_t o = col * factors.a_rows + row;
  if (call.elementwise != nullptr) acc = call.datapath.Accumulate(acc, call.elementwise[o]);
  call.output[o] = acc;
}

__device__ __forceinline__ uint32_t Unsigned(int x) { return static_cast<uint32_t>(x); }

}  // namespace

// C[col][row] = the chain over A[row][k] * B[k][col], then elementwise[col][row] unless that is
// null; a thread for each. The last tile is filled up with zeros, whose products are added too.
template <typename T>
__global__ void matrix_mul_opt_kernel(const T* A, int a_cols, int a_rows, const T* B, int b_cols,
                                      int b_rows, T* C, const int8_t* mult_shift, bool use_fp16_acc,
                                      T acc_min, T acc_max, const T* elementwise) {
  __shared__ Tiles tiles;
  ComputeOutput<T>({{A, Unsigned(a_cols), Unsigned(a_rows), B, Unsigned(b_cols), Unsigned(b_rows)},
                    C,
                    {acc_min, acc_max, mult_shift[0], use_fp16_acc},
                    elementwise},
                   &tiles);
}

// With few enough registers that a multiprocessor has room for six blocks, whose threads
// cover each other's reads. Floats would have to keep some of theirs in memory.
template <>
__global__ void __launch_bounds__(kTile* kTile, 6)
    matrix_mul_opt_kernel(const int32_t* A, int a_cols, int a_rows, const int32_t* B, int b_cols,
                          int b_rows, int32_t* C, const int8_t* mult_shift, bool use_fp16_acc,
                          int32_t acc_min, int32_t acc_max, const int32_t* elementwise) {
  __shared__ Tiles tiles;
  ComputeOutput<int32_t>(
      {{A, Unsigned(a_cols), Unsigned(a_rows), B, Unsigned(b_cols), Unsigned(b_rows)},
       C,
       {acc_min, acc_max, mult_shift[0], use_fp16_acc},
       elementwise},
      &tiles);
}

template <typename T>
void LaunchKer2Row(void* stream, const ConvolutionCall<T>& call, T* rows) {
  const DeviceConvolution sizes(call);
  BITFOLD_LAUNCH(ker2row_kernel<T>,
                 BlocksFor(static_cast<int>(sizes.row_elements()), kBlockThreads), kBlockThreads,
                 stream, call.filter, sizes.out_channels, sizes.in_channels, sizes.rows.taps,
                 sizes.columns.taps, rows);
  RequireLaunched("src/HConv2D", 235);
}

template <typename T>
void LaunchImages(void* stream, const ConvolutionCall<T>& call, const T* rows, T* columns) {
  const DeviceConvolution sizes(call);
  const DeviceWindowAxis& h = sizes.rows;
  const DeviceWindowAxis& w = sizes.columns;
  const int unfolded = static_cast<int>(sizes.unfolded());
  const int window = static_cast<int>(sizes.window());
  const int outputs = static_cast<int>(sizes.outputs());
  const int64_t in_image = int64_t{h.input} * w.input * sizes.in_channels;
  const int64_t out_image = int64_t{outputs} * sizes.out_channels;
  const AccumulatorLimits<T> limits(call.datapath.accumulator_size);
  const dim3 blocks(static_cast<unsigned>(BlocksFor(outputs, kTile)),
                    static_cast<unsigned>(BlocksFor(sizes.out_channels, kTile)));
  for (int32_t image = 0; image < sizes.batch; ++image) {
    BITFOLD_LAUNCH(im2col_kernel<T>, BlocksFor(unfolded, kBlockThreads), kBlockThreads, stream,
                   unfolded, call.input + image * in_image, sizes.in_channels, h.input, w.input,
                   h.taps, w.taps, h.pad_before, w.pad_before, h.stride, w.stride, h.dilation,
                   w.dilation, h.positions, w.positions, columns);
    RequireLaunched("src/HConv2D", 199);
    BITFOLD_LAUNCH(matrix_mul_opt_kernel<T>, blocks, dim3(kTile, kTile), stream, rows, window,
                   sizes.out_channels, columns, outputs, window, call.output + image * out_image,
                   call.datapath.mult_shift, call.datapath.use_fp16_acc, limits.min, limits.max,
                   call.elementwise == nullptr ? nullptr : call.elementwise + image * out_image);
    RequireLaunched("src/HConv2D", 250);
  }
}

template void LaunchKer2Row(void*, const ConvolutionCall<float>&, float*);
template void LaunchKer2Row(void*, const ConvolutionCall<int32_t>&, int32_t*);
template void LaunchImages(void*, const ConvolutionCall<float>&, const float*, float*);
template void LaunchImages(void*, const ConvolutionCall<int32_t>&, const int32_t*, int32_t*);

}  // namespace bitfold
