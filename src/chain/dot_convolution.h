// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// An ordinary convolution as dot products modulo 2^32 of narrow numbers: strips of the image padded
// with zeros, the weights packed by panels of output channels.

#ifndef BITFOLD_SRC_CHAIN_DOT_CONVOLUTION_H_
#define BITFOLD_SRC_CHAIN_DOT_CONVOLUTION_H_

#include <cstdint>
#include <optional>

#include "bitfold/geometry.h"
#include "chain/dot_tile.h"
#include "chain/plan.h"
#include "chain/remainder_tables.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

// What does not change from image to image.
struct DotLayer {
  WindowAxis rows;
  WindowAxis columns;
  int32_t in_channels;
  int32_t out_channels;
  int32_t zero_point;  // the stored number that stands for 0
  // Numbers from a pixel of the image to the next, where the channels are some of more; else 0.
  int32_t pixel_stride = 0;

  int32_t PixelStride() const { return pixel_stride == 0 ? in_channels : pixel_stride; }
};

// Part of an image's outputs: rows [first_row, end_row) by panels of 16 channels [first_panel,
// end_panel).
struct DotBlock {
  int32_t first_row;
  int32_t end_row;
  int32_t first_panel;
  int32_t end_panel;
};

// Requires windows that go forward and a plan of dot products, which is about numbers less their
// zero point. In is int32_t, float, or a stored int8_t or int16_t; its numbers are whole and fit
// the plan, but int32_t and float that are to be bytes: packing tells whether they are. Output is a
// SumOutput or a StoredOutput. Once prepared, everything may be called by several threads at the
// same time.
template <typename In, typename Output>
class DotConvolution {
 public:
  DotConvolution(const DotLayer& layer, const ChainPlan& plan);

  // Packs the weights, which `workers` share; false where there is no memory, and where weights
  // that are to be bytes are none. Every sum of an output channel begins with its addend, where
  // there are some. Weight is int32_t, for stored inputs int16_t, too; of floats it is float.
  template <typename Weight>
  bool Prepare(const Weight* filter, Workers* workers, Scratch* scratch,
               const int32_t* addends = nullptr);

  // Panels of 16 output channels.
  int32_t panels() const { return panels_; }

  // Whether each output meets one pixel of its own: images are rows of pixels then, whatever their
  // height, and several of them one long row. RunPixels computes them.
  bool IsPixelwise() const;

  // The words that `rows` rows of outputs, or as many pixels, need; rows >= 1. Dilations can make
  // them of any number: at most INT64_MAX.
  int64_t StripWords(int32_t rows) const;
  int64_t PixelWords(int64_t pixels) const;

  // Computes a block of an image: the outputs of its first row, of all panels, begin at `output`.
  // `words` has room for the strip of the block's rows; what it holds does not count. False, with
  // nothing computed, where a number that is to be a byte is none.
  bool Run(const In* image, const DotBlock& block, const Output& output, int32_t* words) const;

  // The same for panels [first_panel, end_panel) of so many pixels, at least 1. Requires
  // IsPixelwise.
  bool RunPixels(const In* pixels, int32_t count, const DotBlock& panels, const Output& output,
                 int32_t* words) const;

 private:
  // A strip of packed rows: where it lies, the tables of its bytes, if they have any, and how its
  // outputs follow one another.
  struct Strip {
    const uint8_t* numbers;
    const uint8_t* tables;
    int64_t row;     // bytes from an output's row to the next
    int64_t column;  // from a column to the next
    int32_t rows;
    int32_t columns;
  };

  bool IsBytes() const { return plan_.path != ChainPath::kDotShorts; }
  int32_t NumbersInAWord() const { return IsBytes() ? 4 : 2; }
  int64_t WholeWords(int64_t numbers) const {
    return (numbers + NumbersInAWord() - 1) / NumbersInAWord() * NumbersInAWord();
  }
  int64_t PixelBytes() const { return pixel_ * (IsBytes() ? 1 : 2); }
  int64_t RowBytes() const { return padded_columns_ * PixelBytes(); }
  // Of a panel, and from one to the next: an odd number of the cache's lines, since panels are
  // written side by side and would share a few places in the cache.
  int64_t PanelWords() const { return int64_t{layer_.rows.taps} * taps_ * words_ * kPanel; }
  int64_t PanelStride() const {
    return PanelWords() / kPanel % 2 == 0 ? PanelWords() + kPanel : PanelWords();
  }
  int32_t StoredOffset() const { return plan_.input_offset - layer_.zero_point; }

  template <typename Weight>
  bool PackPanels(const Weight* filter, const int32_t* addends, int64_t first, int64_t end);
  bool PackPixels(const In* pixels, int64_t count, uint8_t* out) const;
  bool PackStrip(const In* image, int32_t first, int32_t rows, uint8_t* out) const;
  int64_t WithTables(int64_t bytes) const;
  const uint8_t* LookUpTables(uint8_t* numbers, int64_t bytes) const;
  void RunStrip(const Strip& strip, int32_t first_panel, int32_t end_panel,
                const Output& output) const;
  void RunPanels(const Strip& strip, int32_t panel, int size_index, const Output& output) const;

  const DotLayer layer_;
  const ChainPlan plan_;
  const int32_t before_;          // columns of padding
  const int32_t padded_columns_;  // of a packed row
  // Taps of a row that follow one another are one long tap, whose numbers fill whole words. Others
  // have words of their own, so that a pixel is filled up.
  const bool is_dense_;
  const int32_t taps_;      // of a row
  const int64_t tap_size_;  // numbers
  const int64_t pixel_;     // numbers, some of which may be none of the image's
  const int32_t words_;     // of a tap
  const int32_t panels_;
  int32_t* weights_ = nullptr;
  int32_t* initial_sums_ = nullptr;  // for each lane: takes the input's offset off again
  const std::optional<RemainderTables> remainders_;
  int32_t* choices_ = nullptr;  // of the remainders, two vectors for each of the weights'
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_DOT_CONVOLUTION_H_
