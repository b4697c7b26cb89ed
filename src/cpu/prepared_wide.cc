// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/prepared_wide.h"

#include <algorithm>
#include <new>

#include "chain/chain_image.h"
#include "chain/layer_finish.h"
#include "chain/sum_watch.h"
#include "cpu/prepared_blocks.h"

namespace bitfold {
namespace {

// Sums of a block stay in the second-level cache; of few positions weights are read too often.
constexpr int64_t kBlockSums = int64_t{1} << 15;
constexpr int64_t kLeastPositions = 14;

// Those of some input channels, side by side.
std::vector<int32_t> WeightsOf(const PreparedLayer& layer, const ChannelGroup& group) {
  std::vector<int32_t> weights;
  for (int64_t tap = 0; tap < int64_t{layer.rows.taps} * layer.columns.taps; ++tap) {
    const int8_t* of_tap = layer.filter + tap * layer.in_channels * layer.out_channels;
    weights.insert(weights.end(), of_tap + int64_t{group.first} * layer.out_channels,
                   of_tap + int64_t{group.end} * layer.out_channels);
  }
  return weights;
}

}  // namespace

// What a part has for itself. Whole panels of sums are read, of channels that do not exist, too.
template <typename In>
struct PreparedWide<In>::Buffers {
  std::vector<int32_t> words;
  std::vector<int32_t> sums;
  std::vector<int64_t> totals;

  Buffers(int64_t words_, int64_t sums_)
      : words(static_cast<size_t>(words_)),
        sums(static_cast<size_t>(sums_)),
        totals(static_cast<size_t>(sums_ + kPanel)) {}
};

// Lines of outputs by panels of channels: rows of an image, or, where each output meets one pixel,
// pixels of all images.
template <typename In>
struct PreparedWide<In>::Block {
  int64_t image;
  int32_t first_line;
  int32_t end_line;
  int32_t first_panel;
  int32_t end_panel;
};

template <typename In>
PreparedWide<In>::PreparedWide(const PreparedLayer& layer, const ChainPlan& plan,
                               const std::vector<ChannelGroup>& groups)
    : layer_(layer) {
  CallingThread calling_thread;  // once for a network
  for (const ChannelGroup& group : groups) {
    const DotLayer dots = {WindowOf(layer.rows), WindowOf(layer.columns), group.end - group.first,
                           layer.out_channels,   layer.zero_point,        layer.in_channels};
    groups_.push_back({group.first, std::make_unique<Dots>(dots, plan)});
    const std::vector<int32_t> weights = WeightsOf(layer, group);
    if (!groups_.back().dots->Prepare(weights.data(), &calling_thread, &memory_)) {
      throw std::bad_alloc();
    }
  }
}

template <typename In>
bool PreparedWide<In>::Fits() const {
  return std::all_of(groups_.begin(), groups_.end(), [this](const Group& group) {
    return group.dots->StripWords(1) <=
           MostPacked(layer_.InputElements()) / int64_t{sizeof(int32_t)};
  });
}

template <typename In>
int64_t PreparedWide<In>::StepOf(int64_t lines, int threads) const {
  const int64_t positions = std::max(kLeastPositions, kBlockSums / layer_.out_channels);
  int64_t step = std::max<int64_t>(1, positions / LinePositions());
  if (threads > 1) step = std::min(step, Parts(lines, kBlocksForEach * threads));
  return std::min(step, lines);
}

// Of so many lines, of the largest group.
template <typename In>
int64_t PreparedWide<In>::WordsOf(int64_t lines) const {
  int64_t words = 0;
  for (const Group& group : groups_) {
    words = std::max(words, IsRow() ? group.dots->PixelWords(lines)
                                    : group.dots->StripWords(static_cast<int32_t>(lines)));
  }
  return words;
}

template <typename In>
void PreparedWide<In>::Run(const In* input, int32_t batch, const StoredOutput& output,
                           Workers* workers) const {
  const int threads = workers->AtOnce();
  const int64_t images = IsRow() ? 1 : batch;
  const int64_t lines = IsRow() ? batch * layer_.Positions() : layer_.rows.outputs();
  const int64_t step = StepOf(lines, threads);
  const int64_t in_image = Parts(lines, step);
  const int64_t blocks = images * in_image;
  const int32_t all_panels = FirstDots().panels();
  const int32_t panels = PanelsOfBlock(all_panels, blocks, threads);
  const int64_t cost = CyclesOf(step * LinePositions() * panels * kPanel,
                                layer_.FilterElements() / layer_.out_channels);
  workers->Share(blocks * Parts(all_panels, panels), cost, [&](int64_t first, int64_t end) {
    const WatchedPart part(output);
    Buffers buffers(WordsOf(step), step * LinePositions() * layer_.out_channels);
    for (int64_t unit = first; unit < end; ++unit) {
      const int64_t line = unit % blocks % in_image * step;
      const auto panel = static_cast<int32_t>(unit / blocks) * panels;
      RunBlock(input,
               {unit % blocks / in_image, static_cast<int32_t>(line),
                static_cast<int32_t>(std::min(line + step, lines)), panel,
                std::min(panel + panels, all_panels)},
               part.output(), &buffers);
    }
  });
}

template <typename In>
void PreparedWide<In>::AddGroup(const In* input, const Block& block, const Group& group,
                                Buffers* buffers) const {
  const SumOutput<int32_t> output = {nullptr, buffers->sums.data(), layer_.out_channels,
                                     layer_.out_channels, 32};
  const DotBlock part = {block.first_line, block.end_line, block.first_panel, block.end_panel};
  const In* image = input + block.image * layer_.InputElements() + group.first;
  if (IsRow()) {
    group.dots->RunPixels(image + int64_t{block.first_line} * layer_.in_channels,
                          block.end_line - block.first_line, part, output, buffers->words.data());
  } else {
    group.dots->Run(image, part, output, buffers->words.data());
  }
}

template <typename In>
void PreparedWide<In>::RunBlock(const In* input, const Block& block, const StoredOutput& output,
                                Buffers* buffers) const {
  const int64_t positions = (block.end_line - block.first_line) * LinePositions();
  const int32_t channel = block.first_panel * kPanel;
  const int32_t channels = std::min(block.end_panel * kPanel, layer_.out_channels) - channel;
  for (const Group& group : groups_) {
    AddGroup(input, block, group, buffers);
    const bool is_first = &group == &groups_.front();
    for (int64_t p = 0; p < positions; ++p) {
      const int32_t* sums = buffers->sums.data() + p * layer_.out_channels + channel;
      int64_t* totals = buffers->totals.data() + p * layer_.out_channels + channel;
      for (int32_t c = 0; c < channels; ++c) totals[c] = (is_first ? 0 : totals[c]) + sums[c];
    }
  }
  const int64_t position =
      block.image * layer_.Positions() + int64_t{block.first_line} * LinePositions();
  const StoredOutput part = output.At(position, channel, channels);
  const int64_t* const totals = buffers->totals.data() + channel;
  const auto pixels = static_cast<int32_t>(positions);
  if (part.watch != nullptr) part.watch->See(totals, pixels, layer_.out_channels, part);
  part.finish->Run(totals, pixels, layer_.out_channels, part);
}

template class PreparedWide<int8_t>;
template class PreparedWide<int16_t>;

}  // namespace bitfold
