// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the final sums of a layer reach, looked at a tile at a time before they are finished: while
// they still are what they would be at full width.

#ifndef BITFOLD_SRC_CHAIN_SUM_WATCH_H_
#define BITFOLD_SRC_CHAIN_SUM_WATCH_H_

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "bitfold/HWatchedConvolution.h"
#include "chain/stored_output.h"

namespace bitfold {

// How tiles hold sums.
enum class WatchedTiles { kNarrow, kWide };  // int32_t or int64_t

// What the sums of tiles are compared with; made once for a layer.
class WatchLimits {
 public:
  // Tiles lack the addends, one for each channel, of at most 2^62 in magnitude: so much more a
  // final sum is. The sizes stay.
  WatchLimits(const std::vector<int64_t>& addends, WatchedTiles tiles, const WatchedSizes& sizes);
  WatchLimits(const WatchLimits&) = delete;
  WatchLimits& operator=(const WatchLimits&) = delete;

  int32_t channels() const { return static_cast<int32_t>(addends_.size()); }
  int32_t lanes() const { return lanes_; }  // of whole panels
  WatchedTiles tiles() const { return tiles_; }
  const WatchedSizes& sizes() const { return sizes_; }
  int64_t addend(int32_t channel) const { return addends_[static_cast<size_t>(channel)]; }

  // [sizes][lanes]: a sum of T outside of these is outside of the width. No T is inside where the
  // least is above the greatest.
  template <typename T>
  const T* least() const;
  template <typename T>
  const T* greatest() const;

 private:
  template <typename T>
  void Fill(std::vector<T>* least, std::vector<T>* greatest) const;

  const std::vector<int64_t> addends_;
  const WatchedTiles tiles_;
  const WatchedSizes sizes_;
  const int32_t lanes_;
  std::vector<int32_t> least_;
  std::vector<int32_t> greatest_;
  std::vector<int64_t> wide_least_;
  std::vector<int64_t> wide_greatest_;
};

// What the loops read and write: of each lane, and of each size and lane.
template <typename T>
struct WatchedSums {
  int32_t sizes;
  int32_t lanes;
  T* least;
  T* greatest;
  const T* low;  // of what is inside
  const T* high;
  int64_t* outside;
};

// What was seen, of a call or of a part of it.
class SumWatch {
 public:
  explicit SumWatch(const WatchLimits& limits);
  SumWatch(const SumWatch&) = delete;
  SumWatch& operator=(const SumWatch&) = delete;

  const WatchLimits& limits() const { return limits_; }

  // A tile of at least one position, [pixels][lanes], of the output's channels. Of a position whole
  // panels are read.
  void See(const int32_t* sums, int32_t pixels, int32_t lanes, const StoredOutput& output) {
    narrow_.loop(narrow_.seen, sums, pixels, lanes, output);
  }
  void See(const int64_t* sums, int32_t pixels, int32_t lanes, const StoredOutput& output) {
    wide_.loop(wide_.seen, sums, pixels, lanes, output);
  }

  // What another part of the call saw; several threads may do so at the same time.
  void Join(const SumWatch& part);

  // Adds all that was seen.
  void AddTo(const WatchedTables& tables) const;

 private:
  template <typename T>
  using Loop = void (*)(const WatchedSums<T>&, const T*, int32_t, int32_t, const StoredOutput&);

  // Of sums of a type.
  template <typename T>
  struct Kind {
    std::vector<T> least;  // of each lane
    std::vector<T> greatest;
    WatchedSums<T> seen = {};
    Loop<T> loop = nullptr;
  };

  template <typename T>
  void Start(Kind<T>* kind, Loop<T> loop);
  template <typename T>
  void AddExtremes(const Kind<T>& kind, const WatchedTables& tables) const;

  const WatchLimits& limits_;
  std::vector<int64_t> outside_;  // [sizes][lanes]
  Kind<int32_t> narrow_;          // one of the two
  Kind<int64_t> wide_;
  std::mutex mutex_;
};

// The outputs of a part of a call: where they are watched the part has a watch of its own, which
// joins that of the call at the end.
class WatchedPart {
 public:
  explicit WatchedPart(const StoredOutput& output) : output_(output), whole_(output.watch) {
    if (whole_ != nullptr) output_.watch = &own_.emplace(whole_->limits());
  }
  ~WatchedPart() {
    if (whole_ != nullptr) whole_->Join(*own_);
  }
  WatchedPart(const WatchedPart&) = delete;
  WatchedPart& operator=(const WatchedPart&) = delete;

  const StoredOutput& output() const { return output_; }

 private:
  StoredOutput output_;
  SumWatch* const whole_;
  std::optional<SumWatch> own_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_SUM_WATCH_H_
