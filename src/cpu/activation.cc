// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/activation.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>

#include "cpu/activation_tables.h"
#include "vector/target.h"

namespace bitfold {
namespace {

constexpr int64_t kWideGroup = 128;  // channels whose own runs are as quick as lanes
constexpr int64_t kFewElements = 3;  // of a group are not worth a table

struct ActivationLoops {
  void (*magnitude)(const int64_t*, int, const PieceTable&, const ActivationClip&, int32_t*);
  void (*plain)(const int64_t*, int, const PieceTable&, const ActivationClip&, int32_t*);
  void (*magnitude_lanes)(const int64_t*, const Runs&, const LaneTables&, const ActivationClip&,
                          int32_t*);
  void (*plain_lanes)(const int64_t*, const Runs&, const LaneTables&, const ActivationClip&,
                      int32_t*);
};

#define BITFOLD_LOOPS "cpu/activation_loops.inc"
#define BITFOLD_LOOP_TABLE \
  ActivationLoops { Activate<true>, Activate<false>, ActivateLanes<true>, ActivateLanes<false> }
#include "vector/vector_loops.inc"

// False when the group needs the definition: its breakpoints do not ascend, so that the first one
// above x is not found by counting, there are too many, or the clip's bounds cross.
bool MakePieceTable(const ActivationGroups& groups, int64_t group, const ActivationMode& mode,
                    PieceTable* t) {
  if (groups.x_points.columns > kMaxPoints) return false;
  if (mode.clip_bits < 0) return false;
  t->points = static_cast<int>(groups.x_points.columns);
  t->first_piece = 0;
  std::fill_n(t->below, kMaxPoints, std::numeric_limits<int32_t>::max());
  for (int p = 0; p < t->points; ++p) {
    const int64_t point = groups.x_points(group, p);
    if (p > 0 && point < groups.x_points(group, p - 1)) return false;
    if (point <= std::numeric_limits<int32_t>::min()) {
      ++t->first_piece;
    } else if (point <= std::numeric_limits<int32_t>::max()) {
      t->below[p] = static_cast<int32_t>(point - 1);
    }
  }
  for (int p = 0; p <= t->points; ++p) {
    t->slope[p] = LowWord(groups.slopes_m(group, p));
    t->shift[p] =
        static_cast<int32_t>(ActivationShift(LowWord(groups.slopes_e(group, p)), mode) & 63);
    t->offset[p] = LowWord(groups.offsets(group, p));
  }
  return true;
}

// The numbers of rows that there are loops for.
int LaneRows(int64_t points) {
  for (const int rows : {2, 8, 16}) {
    if (points <= rows) return rows;
  }
  return kMaxPoints;
}

// A call, group by group.
class GroupWalk {
 public:
  GroupWalk(const int64_t* in, const ActivationShape& shape, const ActivationGroups& groups,
            const ActivationMode& mode, int32_t* out, Workers* workers)
      : in_(in),
        shape_(shape),
        groups_(groups),
        mode_(mode),
        out_(out),
        workers_(workers),
        clip_{mode.is_8bit_to_16bit_mode ? 8 : 0, -int64_t{mode.clip_bits} - 1, mode.clip_bits},
        is_plain_(mode.is_16bit_precision_mode || mode.is_velquin),
        max_lanes_(kMaxLanes * 8 / std::max(LaneRows(groups.x_points.columns), 8)) {}

  void Run() {
    for (int64_t g = 0; g < groups_.count; ++g) {
      const int64_t size = groups_.size_splits[g];
      if (size > 0) Add(g, size);
    }
    FlushLanes();
  }

 private:
  // A group that fills its runs, or needs the definition, goes by itself, others in lanes.
  void Add(int64_t group, int64_t size) {
    const bool is_small = size < kFewElements && shape_.positions * size < kFewElements;
    PieceTable table;
    const bool by_loop = !is_small && MakePieceTable(groups_, group, mode_, &table);
    if (by_loop && size < std::min(kWideGroup, shape_.channels)) {
      for (int64_t k = 0; k < size; ++k) AddLane(table);
      return;
    }
    FlushLanes();
    const int64_t positions = shape_.positions;
    const Runs elements = size == shape_.channels ? Runs{1, positions * size, 0}
                                                  : Runs{positions, size, shape_.channels};
    if (by_loop) {
      RunLoop(elements, table);
    } else {
      RunDefinition(elements, group);
    }
    channel_ += size;
  }

  void RunLoop(const Runs& elements, const PieceTable& table) {
    const auto loop = is_plain_ ? CurrentLoops().plain : CurrentLoops().magnitude;
    const auto run = [&](int64_t first, int64_t end) {
      for (int64_t i = first; i < end; i += kPieceBlock) {
        const int block = static_cast<int>(std::min<int64_t>(kPieceBlock, end - i));
        loop(in_ + i, block, table, clip_, out_ + i);
      }
    };
    ShareElements(elements, LoopCost(), run);
  }

  void RunDefinition(const Runs& elements, int64_t group) {
    const auto run = [&](int64_t first, int64_t end) {
      for (int64_t i = first; i < end; ++i) {
        out_[i] = DefineActivationElement(in_[i], group, groups_, mode_);
      }
    };
    ShareElements(elements, 15 + groups_.x_points.columns, run);
  }

  // The cycles of an element in the loops, roughly.
  int64_t LoopCost() const { return 1 + groups_.x_points.columns / 8; }

  // Shares out the elements from the channel on, a run or a block of the only one at a time: run
  // takes a range of neighbours. `cost` are the cycles of an element.
  template <typename Run>
  void ShareElements(const Runs& elements, int64_t cost, const Run& run) {
    const bool is_one = elements.runs == 1;
    const int64_t unit = is_one ? kPieceBlock : elements.count;
    const int64_t units = is_one ? (elements.count + unit - 1) / unit : elements.runs;
    const auto part = [&](int64_t first, int64_t end) {
      if (is_one) {
        return run(channel_ + first * unit, channel_ + std::min(end * unit, elements.count));
      }
      for (int64_t k = first; k < end; ++k) {
        const int64_t begin = channel_ + k * elements.stride;
        run(begin, begin + elements.count);
      }
    };
    workers_->Share(units, unit * cost, std::cref(part));
  }

  // Gives the channel after those in lanes a lane.
  void AddLane(const PieceTable& table) {
    if (lanes_ == max_lanes_) FlushLanes();
    if (!lane_tables_) lane_tables_.emplace();
    LaneTables& t = *lane_tables_;
    t.rows = LaneRows(table.points);
    const int lane = lanes_++;
    t.slope[0][lane] = table.slope[table.first_piece];
    t.shift[0][lane] = table.shift[table.first_piece];
    t.offset[0][lane] = table.offset[table.first_piece];
    for (int p = 0; p < t.rows; ++p) {
      const int piece = std::min(p + 1, table.points);
      t.below[p][lane] = table.below[p];
      t.slope[p + 1][lane] = table.slope[piece];
      t.shift[p + 1][lane] = table.shift[piece];
      t.offset[p + 1][lane] = table.offset[piece];
    }
  }

  // Activates the channels in lanes. Where these are all channels, positions follow one another
  // without a gap, and the lanes are repeated for as many as there is room for.
  void FlushLanes() {
    if (lanes_ == 0) return;
    const int64_t width = lanes_;
    if (width == shape_.channels) {
      const int64_t together = std::min<int64_t>(max_lanes_ / width, shape_.positions);
      RepeatLanes(static_cast<int>(together));
      const int64_t count = together * width;
      const int64_t runs = count > 0 ? shape_.positions / together : 0;
      RunLanes({runs, count, count}, 0);
      const int64_t done = runs * count;
      RunLanes({1, shape_.positions * width - done, 0}, done);
    } else {
      RunLanes({shape_.positions, width, shape_.channels}, channel_);
    }
    channel_ += width;
    lanes_ = 0;
  }

  void RunLanes(const Runs& runs, int64_t first) {
    const auto loop = is_plain_ ? CurrentLoops().plain_lanes : CurrentLoops().magnitude_lanes;
    const auto part = [&](int64_t begin, int64_t end) {
      const int64_t at = first + begin * runs.stride;
      loop(in_ + at, {end - begin, runs.count, runs.stride}, *lane_tables_, clip_, out_ + at);
    };
    workers_->Share(runs.runs, runs.count * LoopCost(), std::cref(part));
  }

  void RepeatLanes(int times) {
    const auto repeat = [this, times](int32_t(*rows)[kMaxLanes], int count) {
      for (int r = 0; r < count; ++r) {
        for (int i = lanes_; i < times * lanes_; ++i) rows[r][i] = rows[r][i - lanes_];
      }
    };
    repeat(lane_tables_->below, lane_tables_->rows);
    repeat(lane_tables_->slope, lane_tables_->rows + 1);
    repeat(lane_tables_->shift, lane_tables_->rows + 1);
    repeat(lane_tables_->offset, lane_tables_->rows + 1);
  }

  const int64_t* in_;
  const ActivationShape& shape_;
  const ActivationGroups& groups_;
  const ActivationMode& mode_;
  int32_t* out_;
  Workers* workers_;
  ActivationClip clip_;
  bool is_plain_;
  int max_lanes_;        // the tables of so many stay in the nearest cache
  int64_t channel_ = 0;  // the first that is not written; those in lanes follow
  int lanes_ = 0;
  std::optional<LaneTables> lane_tables_;  // from the first lane on
};

}  // namespace

void ComputeActivation(const int64_t* in, const ActivationShape& shape,
                       const ActivationGroups& groups, const ActivationMode& mode, int32_t* out,
                       Workers* workers) {
  GroupWalk(in, shape, groups, mode, out, workers).Run();
}

}  // namespace bitfold
