// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/engine.h"

#include <algorithm>
#include <type_traits>
#include <vector>

#include "bitfold/datapath_attributes.h"
#include "chain/assumed_facts.h"
#include "chain/pack.h"
#include "chain/shared_facts.h"

namespace bitfold {
namespace {

// To pack the weights costs about as much as this many outputs of each channel in lanes; floats
// need another look at the weights for these.
template <typename T>
constexpr int64_t kOutputsWorthPacking = std::is_same_v<T, float> ? 1 : 6;

// Channels are counted in 32 bits, filled up to whole panels and words.
constexpr int32_t kMostChannels = 1 << 30;

// The numbers of the input that a block meets stay in a core's own cache once they are packed.
constexpr int64_t kNearNumbers = 256 << 10;

// The columns of a tile of any path go into so many.
constexpr int32_t kColumnsTogether = 48;

// What a path of dot products that need too much room becomes.
template <typename T>
ChainPath InLanes(ChainPath path) {
  if (path == ChainPath::kDotRemainders) return ChainPath::kRounded;
  return std::is_same_v<T, float> ? ChainPath::kStepwise : ChainPath::kModular;
}

template <typename D>
constexpr bool kDivides = std::is_same_v<D, Datapath<float>>;

// With vectors of 512 bits; rough.
int64_t ProductsInACycle(ChainPath path, bool is_depthwise) {
  switch (path) {
    case ChainPath::kDotBytes:
      return is_depthwise ? 8 : 64;
    case ChainPath::kDotShorts:
      return is_depthwise ? 8 : 32;
    case ChainPath::kDotRemainders:
      return 32;
    case ChainPath::kModular:
    case ChainPath::kRounded:
      return 4;
    case ChainPath::kStepwise:
      return 1;
  }
  return 1;
}

// The step of at most `parts` parts, each of whole units but for the last.
int32_t StepOf(int32_t all, int64_t parts, int32_t unit) {
  const int64_t units = (int64_t{all} + unit - 1) / unit;
  const int64_t step = (units + parts - 1) / parts * unit;
  return static_cast<int32_t>(std::min<int64_t>(step, all));
}

int64_t PartsOf(int32_t all, int32_t step) { return (int64_t{all} + step - 1) / step; }

template <typename T>
ConvolutionCall<T> With(ConvolutionCall<T> call, const T* weights) {
  call.filter = weights;
  return call;
}

}  // namespace

template <typename D, typename T>
ChainEngine<D, T>::ChainEngine(const ConvolutionCall<T>& call, const CorrectedWeights<T>& weights,
                               const KnownFacts& known, const ChainSharing& sharing,
                               Scratch* scratch)
    : datapath_(MakeDatapath<D>(call.datapath)),
      rows_(call.rows),
      columns_(call.columns),
      has_centre_(GoesForward(rows_) && CentreTaps{rows_}.first >= 0),
      assumes_(known.look == Look::kWhilePacking),
      call_(With(call, weights.weights)) {
  if (!GoesForward(rows_) || !GoesForward(columns_)) return;
  if (call.batch < 1 || call.in_channels < 1 || call.out_channels < 1) return;
  if (call.in_channels > kMostChannels || call.out_channels > kMostChannels) return;
  const bool has_bytes = CurrentDotKernels<SumOutput<T>>().HasBytes();
  const auto facts =
      assumes_ ? Assume(weights.facts, known) : LookAt(weights.facts, known, sharing.workers);
  if (!facts) return;
  if constexpr (std::is_same_v<T, float>) {
    plan_ = PlanFloat(*facts, has_bytes);
  } else {
    plan_ = PlanInt32(*facts, has_bytes);
  }
  const bool is_packed_at_once = IsOfBytes(plan_->path) || !assumes_;
  if (!is_packed_at_once || !Prepare(sharing, scratch)) plan_.reset();
}

// But for what the numbers are.
template <typename D, typename T>
ChainFacts ChainEngine<D, T>::FactsOfCall(const KnownFacts& known) const {
  ChainFacts facts{};
  facts.accumulator_size = datapath_.accumulator_size();
  facts.mult_shift = datapath_.mult_shift();
  facts.use_fp16_acc = datapath_.use_fp16_acc();
  facts.divides = kDivides<D>;
  const int64_t outputs = int64_t{call_.batch} * rows_.outputs * columns_.outputs;
  facts.packs = call_.is_depthwise || known.input || outputs >= kOutputsWorthPacking<T>;
  facts.takes_remainders = !call_.is_depthwise && CurrentDotKernels<SumOutput<T>>().HasRemainders();
  facts.products = call_.FilterElements() / call_.out_channels;
  return facts;
}

// Elementwise values are not packed.
template <typename D, typename T>
std::optional<ChainFacts> ChainEngine<D, T>::Assume(const std::optional<Facts>& weights,
                                                    const KnownFacts& known) const {
  ChainFacts facts = FactsOfCall(known);
  if (!facts.packs || (has_centre_ && call_.elementwise != nullptr)) return std::nullopt;
  const int64_t filter = call_.filters * call_.FilterElements();
  const auto of_weights = weights ? weights : AssumeFacts(call_.filter, filter, {kSignedByte});
  if (!of_weights) return std::nullopt;
  const auto of_input =
      AssumeFacts(call_.input, call_.batch * call_.InputElements(), {kUnsignedByte, kSignedByte});
  if (!of_input) return std::nullopt;
  facts.weights = *of_weights;
  facts.input = *of_input;
  facts.weight_sum = [products = facts.products, magnitude = of_weights->Magnitude()] {
    return magnitude > INT32_MAX ? INT64_MAX : products * magnitude;
  };
  return facts;
}

template <typename D, typename T>
ChainFacts ChainEngine<D, T>::LookAt(const std::optional<Facts>& weights, const KnownFacts& known,
                                     Workers* workers) const {
  ChainFacts facts = FactsOfCall(known);
  facts.weight_sum = [this] { return WeightSum(); };
  // Of int32, sums modulo 2^32, whatever comes.
  const bool is_plain = facts.mult_shift == 0 && facts.accumulator_size >= 31;
  if (std::is_same_v<T, int32_t> && is_plain && !facts.packs) return facts;
  facts.weights =
      weights ? *weights
              : SharedFactsOf(call_.filter, call_.filters * call_.FilterElements(), workers);
  if (!facts.weights.is_whole) return facts;
  facts.input = known.input
                    ? *known.input
                    : SharedFactsOf(call_.input, call_.batch * call_.InputElements(), workers);
  if (!has_centre_ || !facts.input.is_whole) return facts;
  if (known.elementwise) {
    facts.elementwise = *known.elementwise;
  } else if (call_.elementwise != nullptr) {
    facts.elementwise = SharedFactsOf(call_.elementwise, call_.batch * OutputElements(), workers);
  }
  return facts;
}

template <typename D, typename T>
int64_t ChainEngine<D, T>::WeightSum() const {
  std::vector<int64_t> sums(static_cast<size_t>(call_.out_channels));
  int64_t largest = 0;
  const T* filter = call_.filter;
  for (int32_t image = 0; image < call_.filters; ++image) {
    std::fill(sums.begin(), sums.end(), 0);
    for (int64_t row = 0; row < ChainLength(); ++row, filter += call_.out_channels) {
      AddMagnitudes(filter, call_.out_channels, sums.data());
    }
    largest = std::max(largest, *std::max_element(sums.begin(), sums.end()));
  }
  return largest;
}

// ---- Blocks ------------------------------------------------------------------------------------

template <typename D, typename T>
int64_t ChainEngine<D, T>::ImageCost() const {
  const int64_t products = OutputElements() * ChainLength();
  return products / ProductsInACycle(plan_->path, call_.is_depthwise) + call_.InputElements() / 4 +
         OutputElements() / 4;
}

template <typename D, typename T>
bool ChainEngine<D, T>::CanCutColumns() const {
  return rows_.outputs == 1 && !dot_depthwise_ && (!dot_ || dot_->IsPixelwise());
}

// Lanes take whole panels.
template <typename D, typename T>
bool ChainEngine<D, T>::CanCutChannels() const {
  return !call_.is_depthwise && call_.out_channels % kPanel == 0;
}

// Of the weights and the image the larger is cut first: each thread then meets only its own part.
template <typename D, typename T>
OutputBlocks ChainEngine<D, T>::Cut(const ChainSharing& sharing) const {
  const OutputExtent all = {rows_.outputs, columns_.outputs, call_.out_channels};
  OutputExtent step = all;
  const int64_t worthwhile = ImageCost() / sharing.workers->LeastCost();
  const int64_t blocks = std::max<int64_t>(1, std::min(sharing.blocks, worthwhile));
  const auto cut_channels = [&](int64_t parts) {
    if (CanCutChannels()) step.channels = StepOf(all.channels, parts, kPanel);
  };
  if (call_.FilterElements() > call_.InputElements()) cut_channels(blocks);
  const int64_t near_numbers = kNearNumbers >> std::max(0, plan_->shift - 2);  // with their tables
  const int64_t near = (call_.InputElements() + near_numbers - 1) / near_numbers;
  const int64_t channel_parts = PartsOf(all.channels, step.channels);
  const int64_t parts = std::max(near, (blocks + channel_parts - 1) / channel_parts);
  if (all.rows > 1) {
    step.rows = StepOf(all.rows, parts, 1);
  } else if (CanCutColumns()) {
    step.columns = StepOf(all.columns, parts, kColumnsTogether);
  }
  const int64_t cut = PartsOf(all.rows, step.rows) * PartsOf(all.columns, step.columns);
  if (cut * channel_parts < blocks) cut_channels((blocks + cut - 1) / cut);
  return OutputBlocks(all, step);
}

template <typename D, typename T>
void ChainEngine<D, T>::CutInto(const ChainSharing& sharing) {
  blocks_ = Cut(sharing);
  slots_ = static_cast<int>(std::min<int64_t>(sharing.slots, sharing.images * blocks_->count()));
}

// ---- Preparation -------------------------------------------------------------------------------

template <typename D, typename T>
bool ChainEngine<D, T>::Prepare(const ChainSharing& sharing, Scratch* scratch) {
  if (IsDots(plan_->path)) {
    if (call_.is_depthwise ? PrepareDotDepthwise(sharing, scratch)
                           : PrepareDots(sharing, scratch)) {
      return true;
    }
    if (dot_ || dot_depthwise_ || assumes_) return false;
    plan_->path = InLanes<T>(plan_->path);
  }
  if (call_.is_depthwise && call_.out_channels < kPanel) return false;
  CutInto(sharing);
  if (plan_->path == ChainPath::kStepwise) {
    return stepwise_.emplace(call_, datapath_, plan_->half).Prepare(call_, scratch);
  }
  return sums_.emplace(call_, *plan_, datapath_.mult_shift())
      .Prepare(call_, blocks_->largest().columns, slots_, scratch);
}

// False with dot_ where there is no memory, without it where too much would be needed.
template <typename D, typename T>
bool ChainEngine<D, T>::PrepareDots(const ChainSharing& sharing, Scratch* scratch) {
  dot_.emplace(DotLayer{rows_, columns_, call_.in_channels, call_.out_channels, 0}, *plan_);
  CutInto(sharing);
  if (DotWords() > MostPacked(call_.InputElements())) {
    dot_.reset();
    return false;
  }
  dot_words_ = AllocateFor<int32_t>(scratch, DotWords() * slots_);
  return dot_words_ != nullptr && dot_->Prepare(call_.filter, sharing.workers, scratch);
}

// The same with dot_depthwise_.
template <typename D, typename T>
bool ChainEngine<D, T>::PrepareDotDepthwise(const ChainSharing& sharing, Scratch* scratch) {
  dot_depthwise_.emplace(DotLayer{rows_, columns_, call_.in_channels, call_.out_channels, 0},
                         *plan_);
  CutInto(sharing);
  const int64_t bytes = dot_depthwise_->MemoryBytes();
  if (bytes > MostPacked(call_.InputElements())) {
    dot_depthwise_.reset();
    return false;
  }
  dot_memory_ = AllocateFor<char>(scratch, bytes * slots_);
  return dot_memory_ != nullptr && dot_depthwise_->Prepare(call_.filter, call_.filters, scratch);
}

// Of a slot.
template <typename D, typename T>
int64_t ChainEngine<D, T>::DotWords() const {
  const OutputExtent& largest = blocks_->largest();
  return RunsPixels() ? dot_->PixelWords(largest.columns) : dot_->StripWords(largest.rows);
}

// ---- Running -----------------------------------------------------------------------------------

template <typename D, typename T>
void ChainEngine<D, T>::Run(ChainImage<T> image, const OutputBlock& block, int slot,
                            const DefineOutput& define) const {
  if (!has_centre_) image.elementwise = nullptr;
  if (dot_ || dot_depthwise_) {
    if (is_as_assumed_ && !RunDots(image, block, slot)) is_as_assumed_ = false;
    return;
  }
  if (sums_) return sums_->Run(image, block, slot);
  stepwise_->Run(image, block, define);
}

template <typename D, typename T>
bool ChainEngine<D, T>::RunDots(const ChainImage<T>& image, const OutputBlock& block,
                                int slot) const {
  const SumOutput<T> output = {image.elementwise, image.output, call_.out_channels,
                               call_.out_channels, plan_->bits};
  if (dot_depthwise_) {
    return dot_depthwise_->Run(image.input, {image.filter, block.first_row, block.end_row}, output,
                               dot_memory_ + slot * dot_depthwise_->MemoryBytes());
  }
  const DotBlock part = {block.first_row, block.end_row, block.first_channel / kPanel,
                         (block.end_channel + kPanel - 1) / kPanel};
  int32_t* words = dot_words_ + slot * DotWords();
  if (!RunsPixels()) {
    const int64_t position = int64_t{block.first_row} * columns_.outputs;
    return dot_->Run(image.input, part, output.At(position, 0, call_.out_channels), words);
  }
  const int64_t first = block.first_column;
  return dot_->RunPixels(image.input + first * call_.in_channels, block.columns(), part,
                         output.At(first, 0, call_.out_channels), words);
}

template <typename D, typename T>
std::vector<int64_t> ChainEngine<D, T>::RunShared(const ChainImage<T>& image, Slots* slots,
                                                  Workers* workers) const {
  std::vector<std::vector<int64_t>> may_print(static_cast<size_t>(blocks_->count()));
  workers->Share(blocks_->count(), BlockCost(), [&](int64_t first, int64_t end) {
    const Slots::Lease slot(slots);
    for (int64_t block = first; block < end; ++block) {
      auto& of_block = may_print[static_cast<size_t>(block)];
      Run(image, (*blocks_)[block], slot.number(),
          [&of_block](int64_t output) { of_block.push_back(output); });
    }
  });
  std::vector<int64_t> all;
  for (const auto& of_block : may_print) all.insert(all.end(), of_block.begin(), of_block.end());
  std::sort(all.begin(), all.end());  // blocks may lie side by side
  return all;
}

template class ChainEngine<Datapath<int32_t>, int32_t>;
template class ChainEngine<Datapath<float>, float>;
template class ChainEngine<ReciprocalDatapath<float>, float>;

}  // namespace bitfold
