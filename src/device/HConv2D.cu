// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HConv2d on a GPU: the filter rearranged into a row for each output channel, each image unfolded
// into a column for each position, and their product by tiles.

#include "bitfold/device_convolution.h"
#include "bitfold/device_datapath.h"
#include "device/device.h"
#include "device/launchers.h"

namespace bitfold {

namespace {

constexpr int kTile = 16;

}  // namespace

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

// C[col][row] = the chain over A[row][k] * B[k][col], then elementwise[col][row] unless that is
// null; a thread for each. The last tile is filled up with zeros, whose products are added too.
template <typename T>
__global__ void matrix_mul_opt_kernel(const T* A, int a_cols, int a_rows, const T* B, int b_cols,
                                      int b_rows, T* C, const int8_t* mult_shift, bool use_fp16_acc,
                                      T acc_min, T acc_max, const T* elementwise) {
  __shared__ T a_tile[kTile][kTile];
  __shared__ T b_tile[kTile][kTile];
  const int tx = static_cast<int>(threadIdx.x);
  const int ty = static_cast<int>(threadIdx.y);
  const int row = static_cast<int>(blockIdx.y) * kTile + ty;
  const int col = static_cast<int>(blockIdx.x) * kTile + tx;
  const bool is_output = row < a_rows && col < b_cols;
  const DeviceDatapath<T> datapath(acc_min, acc_max, mult_shift[0], use_fp16_acc);
  T acc = T{0};
  for (int t = 0; t <= (a_cols - 1) / kTile; ++t) {
    const int k = t * kTile;
    a_tile[ty][tx] = row < a_rows && k + tx < a_cols ? A[row * a_cols + k + tx] : T{0};
    b_tile[ty][tx] = col < b_cols && k + ty < b_rows ? B[(k + ty) * b_cols + col] : T{0};
    __syncthreads();
    if (is_output) {
      for (int j = 0; j < kTile; ++j) {
        acc = datapath.Accumulate(acc, datapath.Product(a_tile[ty][j], b_tile[j][tx]));
      }
    }
    __syncthreads();
  }
  if (!is_output) return;
  const int o = col * a_rows + row;
  if (elementwise != nullptr) acc = datapath.Accumulate(acc, elementwise[o]);
  C[o] = acc;
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
