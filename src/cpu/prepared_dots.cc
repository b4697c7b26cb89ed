// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/prepared_dots.h"

#include <algorithm>
#include <memory>
#include <new>

#include "chain/chain_image.h"
#include "chain/sum_output.h"
#include "chain/sum_watch.h"
#include "cpu/prepared_blocks.h"

namespace bitfold {
namespace {

// Packed numbers of a block of outputs stay in the second-level cache beside the weights.
constexpr int64_t kBlockWords = int64_t{1} << 15;

struct alignas(64) CacheLine {
  char bytes[64];
};

}  // namespace

template <typename In>
PreparedDots<In>::PreparedDots(const PreparedLayer& layer, const ChainPlan& plan) : layer_(layer) {
  const DotLayer dots = {WindowOf(layer.rows), WindowOf(layer.columns), layer.in_channels,
                         layer.out_channels, layer.zero_point};
  if (layer.is_depthwise) {
    depthwise_.emplace(dots, plan);
  } else {
    dots_.emplace(dots, plan);
  }
}

template <typename In>
bool PreparedDots<In>::Fits() const {
  const int64_t most = MostPacked(layer_.InputElements());
  if (depthwise_) return depthwise_->MemoryBytes() <= most;
  return dots_->StripWords(1) <= most / int64_t{sizeof(int32_t)};
}

template <typename In>
void PreparedDots<In>::Prepare(const std::vector<int32_t>& weights, const int32_t* addends) {
  CallingThread calling_thread;  // once for a network
  const bool has_memory = depthwise_
                              ? depthwise_->Prepare(weights.data(), 1, &memory_, addends)
                              : dots_->Prepare(weights.data(), &calling_thread, &memory_, addends);
  if (!has_memory) throw std::bad_alloc();
}

template <typename In>
void PreparedDots<In>::Prepare(const int16_t* weights, Workers* workers) {
  if (!dots_->Prepare(weights, workers, &memory_)) throw std::bad_alloc();
}

template <typename In>
void PreparedDots<In>::Run(const In* input, int32_t batch, const StoredOutput& output,
                           Workers* workers) const {
  if (depthwise_) return RunDepthwise(input, batch, output, workers);
  if (!dots_->IsPixelwise()) return RunWindows(input, batch, output, workers);
  RunPixels(input, batch * layer_.Positions(), output, workers);
}

// The cycles of so many outputs, roughly.
template <typename In>
int64_t PreparedDots<In>::CostOf(int64_t outputs) const {
  return CyclesOf(outputs, layer_.FilterElements() / layer_.out_channels);
}

// Of the weights and the images the larger is cut first, so that a thread reads its own part of it
// alone; the weights where they have panels enough.
template <typename In>
bool PreparedDots<In>::CutsWeights(int64_t images, int threads) const {
  return threads > 1 && dots_->panels() >= 2 * threads * kPanelsTogether &&
         layer_.FilterElements() > images * layer_.InputElements();
}

// All images are one long row.
template <typename In>
void PreparedDots<In>::RunPixels(const In* input, int64_t pixels, const StoredOutput& output,
                                 Workers* workers) const {
  const int threads = workers->AtOnce();
  int64_t step = std::max<int64_t>(56, kBlockWords / dots_->PixelWords(1) / 56 * 56);
  if (threads > 1 && !CutsWeights(pixels / layer_.Positions(), threads)) {
    step = std::min(step, std::max<int64_t>(56, Parts(pixels, kBlocksForEach * threads)));
  }
  step = std::min(step, pixels);
  const int64_t blocks = Parts(pixels, step);
  const int32_t panels = PanelsOfBlock(dots_->panels(), blocks, threads);
  const int64_t cost = CostOf(step * panels * kPanel);
  workers->Share(blocks * Parts(dots_->panels(), panels), cost, [&](int64_t first, int64_t end) {
    const WatchedPart part(output);
    const std::unique_ptr<int32_t[]> words(new int32_t[dots_->PixelWords(step)]);
    for (int64_t unit = first; unit < end; ++unit) {
      const int64_t pixel = unit % blocks * step;
      const auto panel = static_cast<int32_t>(unit / blocks) * panels;
      dots_->RunPixels(input + pixel * layer_.in_channels,
                       static_cast<int32_t>(std::min(step, pixels - pixel)),
                       {0, 0, panel, std::min(panel + panels, dots_->panels())},
                       part.output().At(pixel, 0, layer_.out_channels), words.get());
    }
  });
}

template <typename In>
void PreparedDots<In>::RunWindows(const In* input, int32_t batch, const StoredOutput& output,
                                  Workers* workers) const {
  const int threads = workers->AtOnce();
  const int32_t rows = layer_.rows.outputs();
  const int32_t columns = layer_.columns.outputs();
  int32_t step = rows;
  while (step > 1 && dots_->StripWords(step) > kBlockWords) step = (step + 1) / 2;
  if (threads > 1 && !CutsWeights(batch, threads)) {
    const int64_t wished = Parts(int64_t{batch} * rows, kBlocksForEach * threads);
    step = std::min<int32_t>(step, static_cast<int32_t>(std::max<int64_t>(2, wished)));
  }
  const int64_t in_image = Parts(rows, step);
  const int64_t blocks = batch * in_image;
  const int32_t panels = PanelsOfBlock(dots_->panels(), blocks, threads);
  const int64_t cost = CostOf(int64_t{step} * columns * panels * kPanel);
  workers->Share(blocks * Parts(dots_->panels(), panels), cost, [&](int64_t first, int64_t end) {
    const WatchedPart part(output);
    const std::unique_ptr<int32_t[]> words(new int32_t[dots_->StripWords(step)]);
    for (int64_t unit = first; unit < end; ++unit) {
      const int64_t image = unit % blocks / in_image;
      const auto row = static_cast<int32_t>(unit % blocks % in_image) * step;
      const auto panel = static_cast<int32_t>(unit / blocks) * panels;
      dots_->Run(
          input + image * layer_.InputElements(),
          {row, std::min(row + step, rows), panel, std::min(panel + panels, dots_->panels())},
          part.output().At(image * layer_.Positions() + int64_t{row} * columns, 0,
                           layer_.out_channels),
          words.get());
    }
  });
}

// Rows that a block shares with the one before it are packed again.
template <typename In>
void PreparedDots<In>::RunDepthwise(const In* input, int32_t batch, const StoredOutput& output,
                                    Workers* workers) const {
  const int threads = workers->AtOnce();
  const int32_t rows = layer_.rows.outputs();
  int32_t step = rows;
  if (threads > 1) {
    const int64_t wished = Parts(int64_t{batch} * rows, kBlocksForEach * threads);
    step = static_cast<int32_t>(std::min<int64_t>(rows, std::max<int64_t>(4, wished)));
  }
  const int64_t in_image = Parts(rows, step);
  const int64_t cost = int64_t{step} * layer_.columns.outputs() * layer_.out_channels;
  workers->Share(batch * in_image, cost, [&](int64_t first, int64_t end) {
    const WatchedPart part(output);
    const auto lines = Parts(depthwise_->MemoryBytes(), sizeof(CacheLine));
    const std::unique_ptr<CacheLine[]> memory(new CacheLine[static_cast<size_t>(lines)]);
    for (int64_t unit = first; unit < end; ++unit) {
      const int64_t image = unit / in_image;
      const auto row = static_cast<int32_t>(unit % in_image) * step;
      depthwise_->Run(input + image * layer_.InputElements(), {0, row, std::min(row + step, rows)},
                      part.output().At(image * layer_.Positions(), 0, layer_.out_channels),
                      memory.get());
    }
  });
}

template class PreparedDots<int8_t>;
template class PreparedDots<int16_t>;

}  // namespace bitfold
