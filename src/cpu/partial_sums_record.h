// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the fast forms of HPartialSums keep of the sums that they have seen: by lanes of 16 output
// channels, of the products alone. The bias, the last addend, is one number for all sums of a
// channel: it moves the limits that their ends are compared with, and the final extremes once.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_RECORD_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_RECORD_H_

#include <cstdint>
#include <vector>

#include "bitfold/HPartialSums.h"

namespace bitfold {

inline constexpr int kSumLanes = 16;

// Of a channel in a lane. Lanes without a channel have sums of 0, which are never outside.
struct alignas(64) PanelRecord {
  // Of all sums of products, as they end.
  int32_t least_final[kSumLanes];
  int32_t greatest_final[kSumLanes];
  // Of all partial sums, or known from elsewhere.
  int32_t least[kSumLanes];
  int32_t greatest[kSumLanes];
  // Partial sums within these change nothing: neither the extremes nor a count.
  int32_t quiet_least[kSumLanes];
  int32_t quiet_greatest[kSumLanes];
  // Ends within these are within every width.
  int32_t end_least[kSumLanes];
  int32_t end_greatest[kSumLanes];
};

// Of a panel and a width.
struct alignas(64) WidthRecord {
  int32_t low;  // of a partial sum inside
  int32_t high;
  // What the products must sum up to for the end to be inside; no int32_t if low > high.
  int32_t end_low[kSumLanes];
  int32_t end_high[kSumLanes];
  int32_t first[kSumLanes];  // INT32_MAX: none
  int64_t ends_outside[kSumLanes];
  int64_t was_outside[kSumLanes];
  int64_t partials_outside[kSumLanes];
};

// Of a width.
struct SumLimits {
  int32_t low;
  int32_t high;
};

// Counts of one output of each lane and of one width.
struct OutputCounts {
  int32_t outside[kSumLanes];
};

// What a layer's record begins with, whatever the types.
struct RecordLayout {
  int32_t channels;
  const int64_t* bias;  // or null
  int32_t mult_shift;
  const int32_t* sizes;
  int32_t size_count;

  int32_t panels() const { return (channels + kSumLanes - 1) / kSumLanes; }
};

class SumRecord {
 public:
  // Takes the extremes of the tables for known.
  SumRecord(const RecordLayout& layout, const PartialSumsTables& tables);

  PanelRecord& panel(int32_t p) { return panels_[static_cast<size_t>(p)]; }
  WidthRecord& width(int32_t p, int32_t i) {
    return widths_[static_cast<size_t>(int64_t{p} * layout_.size_count + i)];
  }
  int32_t panels() const { return layout_.panels(); }
  int32_t widths() const { return layout_.size_count; }
  bool has_bias() const { return layout_.bias != nullptr; }

  // Of the narrowest width.
  SumLimits limits() const {
    const int64_t limit = int64_t{1} << (narrowest_ - 1);
    return {static_cast<int32_t>(-limit), static_cast<int32_t>(limit - 1)};
  }

  // Takes the extremes that partial sums have reached elsewhere into account, and tells there.
  void Exchange(std::vector<int32_t>* least, std::vector<int32_t>* greatest);

  // To be called where least or greatest of a panel have changed.
  void Quieten(int32_t p);

  // Adds what was seen.
  void AddTo(const PartialSumsTables& tables) const;

 private:
  void InitPanel(int32_t p, const PartialSumsTables& tables);
  void InitWidth(int32_t p, int32_t i);
  int64_t BiasOf(int32_t channel) const {
    return has_bias() ? ScaledAddend(layout_.bias[channel], layout_.mult_shift) : 0;
  }
  void AddChannel(int32_t channel, const PartialSumsTables& tables) const;

  const RecordLayout layout_;
  int32_t narrowest_;  // width; 32 where there is none
  std::vector<PanelRecord> panels_;
  std::vector<PanelRecord> initial_;
  std::vector<WidthRecord> widths_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_RECORD_H_
