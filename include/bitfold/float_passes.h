// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Many passes of a float accumulator at once, with the bits of every pass made: jumps (rule R4 of
// docs/arithmetic.md) and cycles (rule R5).

#ifndef BITFOLD_FLOAT_PASSES_H_
#define BITFOLD_FLOAT_PASSES_H_

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>

#include "bitfold/datapath.h"

namespace bitfold {

// What a pass adds, in order.
struct PassAddends {
  int count;
  float values[2];

  const float* begin() const { return values; }
  const float* end() const { return values + count; }
};

// What a number of passes does to a set of accumulators, in units: each x of [low, high] whose bits
// under `mask`, which are the lowest ones, are `residue` becomes x + shift, and nothing is printed.
struct PassJump {
  int64_t low = -(int64_t{1} << 62);
  int64_t high = int64_t{1} << 62;
  int64_t mask = 0;
  int64_t residue = 0;
  int64_t shift = 0;
  int64_t passes = 0;

  bool AppliesTo(int64_t x) const { return low <= x && x <= high && (x & mask) == residue; }

  // The jump then applies to no x but those that are in [least, greatest] after it.
  void Require(int64_t least, int64_t greatest) {
    low = std::max(low, least - shift);
    high = std::min(high, greatest - shift);
  }

  // This jump and then `next`, which applies to x + shift. Requires that this one applies to x.
  void Append(const PassJump& next, int64_t x) {
    Require(next.low, next.high);
    mask |= next.mask;
    residue = x & mask;
    shift += next.shift;
    passes += next.passes;
  }

  // How often in a row the jump applies from x on, at most `limit`. Requires that it applies to x
  // and limit >= 1.
  int64_t Repeats(int64_t x, int64_t limit) const {
    if (shift == 0) return limit;
    if ((shift & mask) != 0) return 1;
    const int64_t further = shift > 0 ? (high - x) / shift : (x - low) / -shift;
    return std::min(limit, further + 1);
  }

  // The jump `count` times. Requires count <= Repeats(x) for an x that it applies to.
  void Repeat(int64_t count) {
    const int64_t last = (count - 1) * shift;
    low = std::max(low, low - last);
    high = std::min(high, high - last);
    shift *= count;
    passes *= count;
  }
};

// The passes of a float accumulator that is not the half-precision one, in whole units.
class UnitPasses {
 public:
  UnitPasses(const Datapath<float>& datapath, const PassAddends& addends)
      : limits_(datapath.limits()), addends_(addends) {}

  // Chooses the unit for the passes from `acc` on. False where it finds none.
  bool ChooseUnit(float acc) {
    exponent_ = std::min(LowestBit(acc), LowestBit(limits_.max));
    exponent_ = std::min(exponent_, LowestBit(limits_.min));
    for (const float addend : addends_) exponent_ = std::min(exponent_, LowestBit(addend));
    wraps_ = limits_.max < static_cast<float>(kWarningLimit) && Fits(limits_.period) &&
             Fits(limits_.max) && Fits(limits_.min);
    double bound = std::min(Scaled(static_cast<float>(kWarningLimit)), kLargest);
    if (wraps_) {
      max_ = InUnits(limits_.max);
      min_ = InUnits(limits_.min);
      period_ = InUnits(limits_.period);
    } else {
      // Negative widths have a negative maximum: nothing is proven.
      bound = std::max(0.0, std::min({bound, Scaled(limits_.max), -Scaled(limits_.min)}));
    }
    bound_ = static_cast<int64_t>(bound);
    for (int k = 0; k < addends_.count; ++k) {
      if (!Fits(addends_.values[k])) return false;
      units_[k] = InUnits(addends_.values[k]);
    }
    return Holds(acc);
  }

  // Whether `acc` is a number of units; -0 is none.
  bool Holds(float acc) const {
    return Fits(acc) && LowestBit(acc) >= exponent_ && !(acc == 0.0f && std::signbit(acc));
  }

  int64_t InUnits(float value) const { return static_cast<int64_t>(Scaled(value)); }

  // Requires x to be the number of units of a float.
  float FromUnits(int64_t x) const {
    return static_cast<float>(std::ldexp(static_cast<double>(x), exponent_));
  }

  // The pass that starts with x, as a jump; false where it may print a line or leaves the numbers
  // that are held. Requires |x| <= 2^60.
  bool Pass(int64_t x, PassJump* jump) const {
    *jump = PassJump{};
    for (int k = 0; k < addends_.count; ++k) {
      Add(units_[k], x, jump);
      const int64_t sum = x + jump->shift;
      if (sum < -bound_ || sum >= bound_) return false;
      jump->Require(-bound_, bound_ - 1);
      if (!wraps_) continue;
      if (sum > max_) {
        jump->Require(max_ + 1, bound_ - 1);
        Add(-period_, x, jump);
      } else if (sum < min_) {
        jump->Require(-bound_, min_ - 1);
        Add(period_, x, jump);
      } else {
        jump->Require(min_, max_);
      }
    }
    jump->residue = x & jump->mask;
    jump->passes = 1;
    return true;
  }

 private:
  static constexpr double kLargest = 0x1p59;  // in units; sums of two and a period fit 64 bits

  // The exponent of the lowest bit that is set, at most 0: what has none needs no finer unit.
  static int LowestBit(float value) {
    if (value == 0.0f || !std::isfinite(value)) return 0;
    int exponent = 0;
    const float fraction = std::frexp(value, &exponent);
    const auto significand = static_cast<int32_t>(fraction * 16777216.0f);
    return std::min(0, exponent - 24 + __builtin_ctz(static_cast<uint32_t>(significand)));
  }

  double Scaled(float value) const { return std::ldexp(static_cast<double>(value), -exponent_); }
  bool Fits(float value) const { return std::fabs(Scaled(value)) <= kLargest; }

  // Appends a sum rounded to single precision: numbers of b > 24 bits to multiples of 2^(b-24),
  // ties to even. The rounding depends on the bits below alone, of a tie on the lowest kept one as
  // well.
  static void Add(int64_t addend, int64_t x, PassJump* jump) {
    constexpr int64_t kExact = 1 << 24;
    jump->shift += addend;
    const int64_t sum = x + jump->shift;
    if (-kExact <= sum && sum <= kExact) return jump->Require(-kExact, kExact);
    const int bits = 64 - __builtin_clzll(static_cast<uint64_t>(sum < 0 ? -sum : sum));
    const int64_t least = int64_t{1} << (bits - 1);
    const int64_t greatest = 2 * least - 1;
    jump->Require(sum > 0 ? least : -greatest, sum > 0 ? greatest : -least);
    const int64_t spacing = int64_t{1} << (bits - 24);
    const int64_t rest = sum & (spacing - 1);
    const bool tie = rest == spacing / 2;
    const bool up = tie ? (sum & spacing) != 0 : rest > spacing / 2;
    jump->mask |= tie ? 2 * spacing - 1 : spacing - 1;
    jump->shift += (up ? spacing : 0) - rest;
  }

  AccumulatorLimits<float> limits_;
  PassAddends addends_;
  int64_t units_[2] = {0, 0};  // the addends
  int exponent_ = 0;
  bool wraps_ = false;
  int64_t bound_ = 0;  // sums in [-bound, bound) print nothing and, unless wraps_, do not wrap
  int64_t max_ = 0;
  int64_t min_ = 0;
  int64_t period_ = 0;
};

// The sequence of accumulators, followed in jumps. Level 0 has the jumps of one pass. Level k has a
// window inside that of level k - 1 and the jumps that lead from the window back into it, built of
// those of level k - 1. Such jumps are few, however small the window is; one that leads back to
// where it started is a cycle. Which jumps are built decides about time, never about a result.
class PassOrbit {
 public:
  explicit PassOrbit(const UnitPasses& passes) : passes_(passes) {}

  // Makes passes from *x on until the next one may print, all are made, or stop() says so. Returns
  // how many are left. Requires |*x| <= 2^60.
  template <typename Stop>
  int64_t Follow(int64_t* x, int64_t passes, const Stop& stop) {
    patience_ = kJumpsPerLevel;
    by_residue_ = false;
    Open(0, *x, passes);
    int64_t until_poll = kStepsPerPoll;
    while (passes > 0) {
      if (until_poll <= 0) {
        if (stop()) break;
        until_poll = kStepsPerPoll;
      }
      PassJump jump;
      work_ = kMostWork;
      const bool found = Find(level_, *x, passes, &jump);
      until_poll -= 1 + kMostWork - work_;
      if (!found) {
        if (level_ == 0) break;
        --level_;
        by_residue_ = !by_residue_;
        const bool helped = opened_at_ - passes >= kMostWork;
        patience_ = helped ? kJumpsPerLevel : std::min(2 * patience_, kMostPatience);
        Watch(*x, patience_);
        continue;
      }
      if (jump.passes > passes) {
        --level_;
        Watch(*x, std::numeric_limits<int64_t>::max());
        continue;
      }
      const int64_t count = jump.Repeats(*x, passes / jump.passes);
      *x += count * jump.shift;
      passes -= count * jump.passes;
      if ((jump.shift & jump.mask) != 0) residues_ |= jump.mask;
      visited_[visits_++ % kJumpsPerLevel] = *x;
      if (--jumps_to_next_ <= 0 && level_ + 1 < kLevels) Open(level_ + 1, *x, passes);
    }
    return passes;
  }

 private:
  static constexpr int kLevels = 24;
  static constexpr int64_t kJumpsPerLevel = 16;  // before the next level is opened
  static constexpr int64_t kMostPatience = 1 << 20;
  static constexpr int kTable = 48;
  static constexpr int kMostWork = 1 << 14;  // steps of jumps built at one time
  static constexpr int64_t kStepsPerPoll = 1 << 16;

  struct Level {
    PassJump window;  // of which the states are meant that it applies to
    int size;
    int oldest;
    std::array<PassJump, kTable> jumps;
  };

  // Enters a level. Its window is a class of residues where those that differ kept jumps from being
  // repeated, else of positions around x.
  void Open(int level, int64_t x, int64_t passes) {
    Level& opened = levels_[level];
    opened.size = 0;
    opened.oldest = 0;
    opened.window = level == 0 ? PassJump{} : levels_[level - 1].window;
    if (level > 0 && by_residue_ && residues_ != 0) {
      opened.window.mask |= residues_;
      opened.window.residue = x & opened.window.mask;
    } else if (level > 0) {
      const int64_t reach = LargestGap() / 2;
      opened.window.Require(x - reach, x + reach);
    }
    level_ = level;
    opened_at_ = passes;
    Watch(x, kJumpsPerLevel);
  }

  // Starts to look for the window of the next level.
  void Watch(int64_t x, int64_t jumps_to_next) {
    jumps_to_next_ = jumps_to_next;
    residues_ = 0;
    std::fill(std::begin(visited_), std::end(visited_), x);
    visits_ = 0;
  }

  // Between neighbours of those that were visited last. A window of this size is met by a sequence
  // that drifts slowly, too.
  int64_t LargestGap() {
    std::sort(std::begin(visited_), std::end(visited_));
    int64_t gap = 0;
    for (int i = 1; i < kJumpsPerLevel; ++i) gap = std::max(gap, visited_[i] - visited_[i - 1]);
    return gap;
  }

  // A jump of the level that applies to x, known or built. False where a pass may print, or where
  // the way back into the window takes more than `limit` passes or too much work.
  bool Find(int level, int64_t x, int64_t limit, PassJump* jump) {
    Level& known = levels_[level];
    for (int i = 0; i < known.size; ++i) {
      if (known.jumps[i].AppliesTo(x)) {
        *jump = known.jumps[i];
        return true;
      }
    }
    if (level == 0 ? !passes_.Pass(x, jump) : !Return(level, x, limit, jump)) return false;
    if (known.size < kTable) {
      known.jumps[known.size++] = *jump;
    } else {
      known.jumps[known.oldest] = *jump;
      known.oldest = (known.oldest + 1) % kTable;
    }
    return true;
  }

  // From x in the window of the level to where the window is met again.
  bool Return(int level, int64_t x, int64_t limit, PassJump* jump) {
    const PassJump& window = levels_[level].window;
    *jump = window;
    do {
      const int64_t y = x + jump->shift;
      PassJump step;
      if (jump->passes > limit || --work_ < 0 || !Find(level - 1, y, limit, &step)) return false;
      step.Repeat(step.Repeats(y, StepsToWindow(y, step.shift, window, limit)));
      jump->Append(step, x);
    } while (!window.AppliesTo(x + jump->shift));
    jump->Require(window.low, window.high);
    return true;
  }

  // How many steps of `shift` from y on may be made before the window is looked for again, at most
  // `limit`.
  static int64_t StepsToWindow(int64_t y, int64_t shift, const PassJump& window, int64_t limit) {
    if (window.low <= y && y <= window.high) return 1;
    const int64_t ahead = shift > 0 ? window.low - y : y - window.high;
    const int64_t stride = shift > 0 ? shift : -shift;
    if (stride == 0 || ahead < 0) return limit;
    return std::min(limit, (ahead + stride - 1) / stride);
  }

  const UnitPasses& passes_;
  int level_ = 0;
  int64_t jumps_to_next_ = 0;
  int64_t opened_at_ = 0;  // the passes that were left
  int64_t patience_ = 0;   // jumps_to_next_ after a level that led nowhere
  bool by_residue_ = false;
  int64_t residues_ = 0;  // mask of those that kept jumps from being repeated
  int64_t visited_[kJumpsPerLevel] = {};
  int64_t visits_ = 0;
  int work_ = 0;
  Level levels_[kLevels];
};

// Brent's search for a cycle in a sequence of accumulators.
class CycleSearch {
 public:
  explicit CycleSearch(float acc) : anchor_(acc) {}

  // Takes the accumulator after one more pass. Returns the length of the cycle that it closes, in
  // which nothing was printed, or 0.
  int64_t Next(float acc, bool printed) {
    ++length_;
    printed_ |= printed;
    if (!printed_ && Bits(acc) == Bits(anchor_)) return length_;
    if (length_ == span_) {
      anchor_ = acc;
      span_ *= 2;
      length_ = 0;
      printed_ = false;
    }
    return 0;
  }

 private:
  // -0 is not 0, and a NaN is itself.
  static uint32_t Bits(float x) {
    uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    return bits;
  }

  float anchor_;
  int64_t length_ = 0;
  int64_t span_ = 1;
  bool printed_ = false;
};

// The passes of a float accumulator that a call makes: one after the other, or many at once where
// rules R4 and R5 prove them.
class FloatPasses {
 public:
  FloatPasses(const Datapath<float>& datapath, const PassAddends& addends)
      : datapath_(datapath), addends_(addends), units_(datapath, addends), orbit_(units_) {}

  // The accumulator after so many passes; any value once stop() says so.
  template <typename Stop>
  float Make(float acc, int64_t passes, const Stop& stop) {
    CycleSearch cycle(acc);
    bool stopped = false;
    const auto poll = [&stopped, &stop] { return stopped = stop(); };
    for (int64_t made = 1; passes > 0 && !stopped; ++made) {
      if (made % kPassesPerPoll == 0 && poll()) break;
      const bool printed = Pass(&acc);
      --passes;
      if (const int64_t length = cycle.Next(acc, printed)) passes %= length;
      if (!datapath_.use_fp16_acc() && Jump(&acc, &passes, poll)) cycle = CycleSearch(acc);
    }
    return acc;
  }

 private:
  static constexpr int64_t kPassesPerPoll = 1 << 14;

  // One pass as defined. Returns whether it printed.
  bool Pass(float* acc) const {
    bool printed = false;
    for (const float addend : addends_) {
      printed |= IsOutOfWarningRange(*acc + addend);
      *acc = datapath_.Accumulate(*acc, addend);
    }
    return printed;
  }

  // Returns whether passes were skipped.
  template <typename Stop>
  bool Jump(float* acc, int64_t* passes, const Stop& stop) {
    if (!(has_unit_ && units_.Holds(*acc))) has_unit_ = units_.ChooseUnit(*acc);
    if (!has_unit_) return false;
    int64_t x = units_.InUnits(*acc);
    const int64_t left = orbit_.Follow(&x, *passes, stop);
    // A unit that was chosen for a smaller accumulator may be too small.
    has_unit_ = left < *passes;
    *passes = left;
    *acc = units_.FromUnits(x);
    return has_unit_;
  }

  const Datapath<float>& datapath_;
  PassAddends addends_;
  UnitPasses units_;
  PassOrbit orbit_;
  bool has_unit_ = false;
};

}  // namespace bitfold

#endif  // BITFOLD_FLOAT_PASSES_H_
