// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/engine.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include "bitfold/datapath_attributes.h"
#include "chain/pack.h"
#include "vector/vector_steps.h"

namespace bitfold {
namespace {

constexpr int kTileLanes = kTilePanels * kPanel;

// To pack the weights costs about as much as this many outputs of each channel in lanes; floats
// need another look at the weights for these.
template <typename T>
constexpr int64_t kOutputsWorthPacking = std::is_same_v<T, float> ? 1 : 6;

// A padded image of more than this many times the image, and more than this, is not made.
constexpr int64_t kMostPadding = 4;
constexpr int64_t kAlwaysPadded = int64_t{1} << 20;

// Channels are counted in 32 bits, filled up to whole panels and words.
constexpr int32_t kMostChannels = 1 << 30;

// The numbers of each output channel, filled up to `lanes` channels with zeros.
template <typename T, typename Out, typename Convert>
void FillUpChannels(const T* filter, int64_t rows, int32_t channels, int32_t lanes, Out* out,
                    Convert convert) {
  for (int64_t row = 0; row < rows; ++row, filter += channels, out += lanes) {
    std::transform(filter, filter + channels, out, convert);
    std::fill(out + channels, out + lanes, Out{0});
  }
}

template <typename T>
T* AllocateFor(Scratch* scratch, int64_t count) {
  return static_cast<T*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(T)));
}

// The elementwise values come after the centre row: without one they do not come.
template <typename T>
ConvolutionCall<T> WithUsedInputs(ConvolutionCall<T> call, const T* weights, int32_t centre) {
  call.filter = weights;
  if (centre < 0) call.elementwise = nullptr;
  return call;
}

template <typename D>
constexpr bool kDivides = std::is_same_v<D, Datapath<float>>;

}  // namespace

template <typename D, typename T>
ChainEngine<D, T>::ChainEngine(const ConvolutionCall<T>& call, const CorrectedWeights<T>& weights,
                               int slots, Scratch* scratch)
    : datapath_(MakeDatapath<D>(call.datapath)),
      rows_(call.rows),
      columns_(call.columns),
      centre_(GoesForward(rows_) ? CentreTaps{rows_}.first : -1),
      call_(WithUsedInputs(call, weights.weights, centre_)),
      windows_(call) {
  if (!GoesForward(rows_) || !GoesForward(columns_)) return;
  if (call.batch < 1 || call.in_channels < 1 || call.out_channels < 1) return;
  if (call.in_channels > kMostChannels || call.out_channels > kMostChannels) return;
  const bool has_bytes = CurrentDotKernels<SumOutput<T>>().HasBytes();
  const ChainFacts facts = LookAt(weights.facts);
  if constexpr (std::is_same_v<T, float>) {
    plan_ = PlanFloat(facts, has_bytes);
  } else {
    plan_ = PlanInt32(facts, has_bytes);
  }
  if (!Prepare(slots, scratch)) plan_.reset();
}

template <typename D, typename T>
ChainFacts ChainEngine<D, T>::LookAt(const std::optional<Facts>& weights) const {
  ChainFacts facts{};
  facts.accumulator_size = datapath_.accumulator_size();
  facts.mult_shift = datapath_.mult_shift();
  facts.use_fp16_acc = datapath_.use_fp16_acc();
  facts.divides = kDivides<D>;
  const int64_t outputs = int64_t{call_.batch} * rows_.outputs * columns_.outputs;
  facts.packs = call_.is_depthwise || outputs >= kOutputsWorthPacking<T>;
  facts.weight_sum = [this] { return WeightSum(); };
  facts.takes_remainders = !call_.is_depthwise && CurrentDotKernels<SumOutput<T>>().HasRemainders();
  facts.products = call_.FilterElements() / call_.out_channels;
  if (std::is_same_v<T, float> && facts.use_fp16_acc) return facts;  // stepwise, whatever comes
  facts.weights =
      weights ? *weights : FactsOf(call_.filter, call_.filters * call_.FilterElements());
  if (!facts.weights.is_whole) return facts;
  facts.input = FactsOf(call_.input, call_.batch * call_.InputElements());
  if (call_.elementwise != nullptr && facts.input.is_whole) {
    facts.elementwise = FactsOf(call_.elementwise, call_.batch * OutputElements());
  }
  return facts;
}

template <typename D, typename T>
int64_t ChainEngine<D, T>::WeightSum() const {
  std::vector<int64_t> sums(static_cast<size_t>(call_.out_channels));
  const int64_t rows = call_.FilterElements() / call_.out_channels;
  int64_t largest = 0;
  const T* filter = call_.filter;
  for (int32_t image = 0; image < call_.filters; ++image) {
    std::fill(sums.begin(), sums.end(), 0);
    for (int64_t row = 0; row < rows; ++row, filter += call_.out_channels) {
      AddMagnitudes(filter, call_.out_channels, sums.data());
    }
    largest = std::max(largest, *std::max_element(sums.begin(), sums.end()));
  }
  return largest;
}

template <typename D, typename T>
bool ChainEngine<D, T>::Prepare(int slots, Scratch* scratch) {
  if (plan_->path == ChainPath::kDotBytes || plan_->path == ChainPath::kDotShorts ||
      plan_->path == ChainPath::kDotRemainders) {
    const auto fits = [this](int64_t copied) {
      return copied <= kMostPadding * call_.InputElements() + kAlwaysPadded;
    };
    if (call_.is_depthwise) {
      dot_depthwise_.emplace(call_, *plan_);
      if (dot_depthwise_->HasWholePeriods() && fits(dot_depthwise_->KeptWords())) {
        return dot_depthwise_->Prepare(call_.filter, call_.filters, slots, scratch);
      }
    } else {
      dot_.emplace(DotLayer{rows_, columns_, call_.in_channels, call_.out_channels, 0}, *plan_);
      const int64_t words = DotWords();
      if (fits(words)) {
        dot_words_ =
            words <= INT64_MAX / 8 / slots ? AllocateFor<int32_t>(scratch, words * slots) : nullptr;
        return dot_words_ != nullptr && dot_->Prepare(call_.filter, scratch);
      }
    }
    if (plan_->path == ChainPath::kDotRemainders) {
      plan_->path = ChainPath::kRounded;
    } else {
      plan_->path = std::is_same_v<T, float> ? ChainPath::kStepwise : ChainPath::kModular;
    }
  }
  if (call_.is_depthwise && call_.out_channels < kPanel) return false;
  return plan_->path == ChainPath::kRounded ? PrepareRounded(slots, scratch)
                                            : PrepareLanes(scratch);
}

template <typename D, typename T>
bool ChainEngine<D, T>::PrepareLanes(Scratch* scratch) {
  lane_filter_ = call_.filter;
  lane_filter_elements_ = call_.FilterElements();
  if (call_.out_channels >= kPanel) return true;
  const int64_t rows = lane_filter_elements_ / call_.out_channels;
  lane_filter_elements_ = rows * kPanel;
  T* filter = AllocateFor<T>(scratch, lane_filter_elements_);
  if (filter == nullptr) return false;
  FillUpChannels(call_.filter, rows, call_.out_channels, kPanel, filter, [](T x) { return x; });
  lane_filter_ = filter;
  return true;
}

// Divisors that are powers of two go into the weights: their products stay exact.
template <typename D, typename T>
bool ChainEngine<D, T>::PrepareRounded(int slots, Scratch* scratch) {
  const int32_t s = datapath_.mult_shift();
  float scale = 1.0f;
  rounded_ = {true, 0.0f, 0.0f};
  if (std::is_same_v<T, int32_t>) {
    scale = exp2f(static_cast<float>(-s));
  } else if (IsPowerOfTwo(s)) {
    scale = ShiftReciprocal(s);
  } else {
    rounded_ = RoundedSums::ByQuotient(s);
  }
  const int32_t lanes = std::max(kPanel, call_.out_channels);
  const int64_t rows = call_.FilterElements() / call_.out_channels * call_.filters;
  lane_filter_elements_ = call_.FilterElements() / call_.out_channels * lanes;
  rounded_filter_ = AllocateFor<float>(scratch, rows * lanes);
  if (rounded_filter_ == nullptr) return false;
  FillUpChannels(call_.filter, rows, call_.out_channels, lanes, rounded_filter_,
                 [scale](T x) { return static_cast<float>(x) * scale; });
  if (std::is_same_v<T, float>) return true;
  rounded_rows_ = AllocateFor<float>(scratch, slots * WindowElements());
  return rounded_rows_ != nullptr;
}

template <typename D, typename T>
void ChainEngine<D, T>::Run(int32_t image, int slot, const DefineOutput& define) const {
  switch (plan_->path) {
    case ChainPath::kDotBytes:
    case ChainPath::kDotShorts:
    case ChainPath::kDotRemainders:
      if (call_.is_depthwise) {
        return dot_depthwise_->Run(InputOf(image), call_.FilterOf(image), ElementwiseOf(image),
                                   OutputOf(image), slot);
      }
      return RunDots(image, slot);
    case ChainPath::kModular:
      return RunModular(image);
    case ChainPath::kRounded:
      return RunRounded(image, slot);
    case ChainPath::kStepwise:
      return RunStepwise(image, define);
  }
}

template <typename D, typename T>
int64_t ChainEngine<D, T>::DotWords() const {
  return dot_->IsPixelwise() ? dot_->PixelWords(int64_t{rows_.outputs} * columns_.outputs)
                             : dot_->StripWords(rows_.outputs);
}

template <typename D, typename T>
void ChainEngine<D, T>::RunDots(int32_t image, int slot) const {
  const SumOutput<T> output = {ElementwiseOf(image), OutputOf(image), call_.out_channels,
                               call_.out_channels, plan_->bits};
  const DotBlock block = {0, rows_.outputs, 0, dot_->panels()};
  int32_t* words = dot_words_ + slot * DotWords();
  const int64_t pixels = int64_t{rows_.outputs} * columns_.outputs;
  if (dot_->IsPixelwise() && pixels <= INT32_MAX) {
    return dot_->RunPixels(InputOf(image), static_cast<int32_t>(pixels), block, output, words);
  }
  dot_->Run(InputOf(image), block, output, words);
}

// The paths whose sums are only reduced at the end. begin(row, rows) comes before the tiles of a
// row of outputs, of which add(row, rows, place, sums) adds the products to the sums of a tile,
// each of them `excess` too large.
template <typename D, typename T>
template <typename Begin, typename Add>
void ChainEngine<D, T>::RunSums(int32_t image, uint32_t excess, Begin begin, Add add) const {
  const auto finish = CurrentSumKernels<T>().finish;
  const T* elementwise = ElementwiseOf(image);
  T* output = OutputOf(image);
  const uint32_t channels_in = call_.is_depthwise ? 1 : static_cast<uint32_t>(call_.in_channels);
  for (int32_t row = 0; row < rows_.outputs; ++row) {
    const TapRange rows = TapsInside(rows_, row);
    begin(row, rows);
    windows_.ForEachTile([&](const LanePlace& place) {
      int32_t acc[kTilePixels * kTileLanes] = {};
      const uint32_t products =
          static_cast<uint32_t>(rows.count) * static_cast<uint32_t>(place.taps.count) * channels_in;
      if (rows.count > 0 && place.taps.count > 0) add(row, rows, place, acc);
      const int32_t lanes = place.panels * kPanel;
      const int32_t channels = std::min(lanes, call_.out_channels - place.channel);
      const int64_t o = OutputIndex(row, place.column, place.channel);
      finish(TileSums<int32_t>{acc, place.pixels, lanes, static_cast<int32_t>(products * excess)},
             SumOutput<T>{elementwise == nullptr ? nullptr : elementwise + o, output + o,
                          call_.out_channels, channels, plan_->bits});
    });
  }
}

// Int32 with a shift.
template <typename D, typename T>
void ChainEngine<D, T>::RunModular(int32_t image) const {
  if (datapath_.mult_shift() == 0) return RunPlainSums(image);
  if constexpr (std::is_same_v<T, int32_t>) {
    const ModularDatapath datapath(datapath_.mult_shift());
    const auto& kernels = LaneKernelsOf<ModularDatapath, int32_t>();
    const auto& table = call_.is_depthwise ? kernels.depthwise : kernels.ordinary;
    const int32_t* filter = lane_filter_ + call_.FilterOf(image) * lane_filter_elements_;
    RunSums(
        image, 0, [](int32_t, const TapRange&) {},
        [&](int32_t row, const TapRange& rows, const LanePlace& place, int32_t* sums) {
          LaneTile<int32_t> tile = windows_.TileOf(place, row, rows, InputOf(image), filter);
          tile.acc = sums;
          table[place.pixels == kTilePixels][place.panels == kTilePanels](datapath, tile);
        });
  }
}

// Products that need no scaling.
template <typename D, typename T>
void ChainEngine<D, T>::RunPlainSums(int32_t image) const {
  const SumKernels<T>& kernels = CurrentSumKernels<T>();
  const T* filter = lane_filter_ + call_.FilterOf(image) * lane_filter_elements_;
  const T* elementwise = ElementwiseOf(image);
  for (int32_t row = 0; row < rows_.outputs; ++row) {
    const TapRange rows = TapsInside(rows_, row);
    const auto run = [&](typename SumKernels<T>::Kernel kernel, const LanePlace& place,
                         int32_t channels) {
      const int64_t o = OutputIndex(row, place.column, place.channel);
      kernel(windows_.TileOf(place, row, rows, InputOf(image), filter),
             SumOutput<T>{elementwise == nullptr ? nullptr : elementwise + o, OutputOf(image) + o,
                          call_.out_channels, channels, plan_->bits});
    };
    if (call_.is_depthwise) {
      windows_.ForEachColumns(kDepthwisePixels, [&](int32_t column, int32_t pixels, TapRange taps) {
        run(kernels.depthwise[pixels == kDepthwisePixels], LanePlace{column, pixels, 0, 0, taps},
            call_.out_channels);
      });
      continue;
    }
    windows_.ForEachTile([&](const LanePlace& place) {
      run(kernels.ordinary[place.pixels == kTilePixels][place.panels == kTilePanels], place,
          std::min(place.panels * kPanel, call_.out_channels - place.channel));
    });
  }
}

// Of integers the rows that a row of outputs meets are converted for it.
template <typename D, typename T>
void ChainEngine<D, T>::RunRounded(int32_t image, int slot) const {
  const RoundedKernels& kernels = CurrentRoundedKernels();
  const auto& table = call_.is_depthwise ? kernels.depthwise : kernels.ordinary;
  const float* filter = rounded_filter_ + call_.FilterOf(image) * lane_filter_elements_;
  const int64_t in_row = windows_.InRow();
  const float* first = nullptr;
  const auto begin = [&](int32_t row, const TapRange& rows) {
    if (rows.count == 0) return;
    const T* input = InputOf(image) + rows_.Coordinate(row, rows.first) * in_row;
    const int64_t next = rows_.dilation * in_row;
    if constexpr (std::is_same_v<T, float>) {
      first = input;
    } else {
      float* copy = rounded_rows_ + slot * WindowElements();
      for (int32_t r = 0; r < rows.count; ++r) {
        std::copy_n(input + r * next, in_row, copy + r * in_row);
      }
      first = copy;
    }
  };
  const int64_t x_row = std::is_same_v<T, float> ? rows_.dilation * in_row : in_row;
  RunSums(image, kRoundingBits, begin,
          [&](int32_t, const TapRange& rows, const LanePlace& place, int32_t* sums) {
            LaneTile<float> tile = windows_.TileOfRows(place, rows, first, x_row, filter);
            tile.sums = sums;
            table[place.pixels == kTilePixels][place.panels == kTilePanels](rounded_, tile);
          });
}

template <typename D, typename T>
void ChainEngine<D, T>::RunStepwise(int32_t image, const DefineOutput& define) const {
  const int64_t in_a_row = int64_t{columns_.outputs} * call_.out_channels;
  std::vector<char> may_print(std::is_same_v<T, float> ? static_cast<size_t>(in_a_row) : 0);
  for (int32_t row = 0; row < rows_.outputs; ++row) {
    bool any = false;
    windows_.ForEachTile(
        [&](const LanePlace& place) { any |= RunStepwiseTile(image, row, place, &may_print); });
    if (!any) continue;
    for (int32_t column = 0; column < columns_.outputs; ++column) {
      for (int32_t channel = 0; channel < call_.out_channels; ++channel) {
        char& mark = may_print[static_cast<size_t>(OutputIndex(0, column, channel))];
        if (mark != 0) define(row, column, channel);
        mark = 0;
      }
    }
  }
}

// Marks the outputs that may print a line; true where there are any.
template <typename D, typename T>
bool ChainEngine<D, T>::RunStepwiseTile(int32_t image, int32_t row, const LanePlace& place,
                                        std::vector<char>* may_print) const {
  T acc[kTilePixels * kTileLanes] = {};
  int32_t largest[kTilePixels * kTileLanes] = {};
  const auto& kernels = LaneKernelsOf<D, T>();
  const auto& table = call_.is_depthwise ? kernels.depthwise : kernels.ordinary;
  const auto kernel = table[place.pixels == kTilePixels][place.panels == kTilePanels];
  const T* filter = lane_filter_ + call_.FilterOf(image) * lane_filter_elements_;
  const auto add_rows = [&](int32_t first, int32_t end) {
    if (first >= end || place.taps.count == 0) return;
    LaneTile<T> tile =
        windows_.TileOf(place, row, TapRange{first, end - first}, InputOf(image), filter);
    tile.acc = acc;
    tile.largest = largest;
    kernel(datapath_, tile);
  };

  const int32_t lanes = place.panels * kPanel;
  const int32_t channels = std::min(lanes, call_.out_channels - place.channel);
  const T* elementwise = ElementwiseOf(image);
  const TapRange rows = TapsInside(rows_, row);
  const int32_t end = rows.first + rows.count;
  const bool has_addend = elementwise != nullptr;
  const int32_t middle = has_addend ? std::min(end, centre_ + 1) : end;
  add_rows(rows.first, middle);
  for (int32_t p = 0; has_addend && p < place.pixels; ++p) {
    const T* addends = elementwise + OutputIndex(row, place.column + p, place.channel);
    for (int32_t i = p * lanes; i < p * lanes + channels; ++i) {
      acc[i] = datapath_.use_fp16_acc()
                   ? Accumulate<true>(datapath_, acc[i], addends[i - p * lanes], &largest[i])
                   : Accumulate<false>(datapath_, acc[i], addends[i - p * lanes], &largest[i]);
    }
  }
  add_rows(std::max(rows.first, middle), end);

  bool any = false;
  for (int32_t p = 0; p < place.pixels; ++p) {
    const int64_t o = OutputIndex(row, place.column + p, place.channel);
    std::copy_n(acc + p * lanes, channels, OutputOf(image) + o);
    if (std::is_same_v<T, int32_t>) continue;
    char* marks = may_print->data() + OutputIndex(0, place.column + p, place.channel);
    for (int32_t l = 0; l < channels; ++l) {
      const bool may = MayWarn(largest[p * lanes + l]);
      marks[l] = may ? 1 : 0;
      any |= may;
    }
  }
  return any;
}

template class ChainEngine<Datapath<int32_t>, int32_t>;
template class ChainEngine<Datapath<float>, float>;
template class ChainEngine<ReciprocalDatapath<float>, float>;

}  // namespace bitfold
