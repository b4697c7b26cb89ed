// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What a part of shared work may count on, whichever thread runs it.

#include "frame/workers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cfenv>
#include <cstdint>
#include <memory>
#include <new>
#include <numeric>
#include <vector>

#include "bitfold/warning.h"
#include "frame/slots.h"
#include "support/workers.h"

namespace bitfold {
namespace {

std::vector<std::unique_ptr<Workers>> AllWorkers() {
  std::vector<std::unique_ptr<Workers>> all;
  all.push_back(std::make_unique<CallingThread>());
  all.push_back(std::make_unique<testing::BackwardParts>(3));
  all.push_back(std::make_unique<testing::ThreadParts>(4, 1));
  return all;
}

TEST(Workers, EveryUnitIsDoneOnce) {
  for (const auto& workers : AllWorkers()) {
    for (const int64_t units : {-1, 0, 1, 7, 100}) {
      std::vector<int> done(static_cast<size_t>(units < 0 ? 0 : units));
      workers->Share(units, 1, [&done](int64_t first, int64_t end) {
        ASSERT_LT(first, end);
        for (int64_t i = first; i < end; ++i) ++done[static_cast<size_t>(i)];
      });
      EXPECT_EQ(std::accumulate(done.begin(), done.end(), int64_t{0}), units < 0 ? 0 : units);
      for (const int times : done) EXPECT_EQ(times, 1);
    }
  }
}

TEST(Workers, LinesAreCountedForTheCaller) {
  for (const auto& workers : AllWorkers()) {
    BitfoldWarningCounts counts{};
    const WarningScope scope(&counts);
    workers->Share(50, 1, [](int64_t first, int64_t end) {
      for (int64_t i = first; i < end; ++i) WarnOutOfBounds(1e9f);
    });
    EXPECT_EQ(counts.out_of_bounds, 50);
    EXPECT_EQ(CountsOfThisThread(), &counts);
  }
}

// The work is done, and counted, nevertheless.
TEST(Workers, TheFirstExceptionReachesTheCaller) {
  for (const auto& workers : AllWorkers()) {
    BitfoldWarningCounts counts{};
    const WarningScope scope(&counts);
    std::atomic<int> parts{0};
    std::atomic<int> ended{0};
    EXPECT_THROW(workers->Share(50, 1,
                                [&](int64_t, int64_t) {
                                  ++parts;
                                  WarnOutOfBounds(1e9f);
                                  ++ended;
                                  throw std::bad_alloc();
                                }),
                 std::bad_alloc);
    EXPECT_GE(parts, 1);
    EXPECT_EQ(ended, parts);
    EXPECT_EQ(counts.out_of_bounds, parts);
    EXPECT_EQ(CountsOfThisThread(), &counts);
  }
}

TEST(Workers, PartsHaveTheDefaultFloatingPointEnvironment) {
  std::fenv_t saved;
  ASSERT_EQ(std::fegetenv(&saved), 0);
  for (const auto& workers : AllWorkers()) {
    std::fesetround(FE_UPWARD);
    std::atomic<int> others{0};
    workers->Share(50, 1, [&](int64_t, int64_t) {
      if (std::fegetround() != FE_TONEAREST) ++others;
    });
    EXPECT_EQ(others, 0);
    EXPECT_EQ(std::fegetround(), FE_UPWARD) << "the caller's own is kept";
    std::fesetenv(&saved);
  }
}

// Each slot is lent to one thread at a time, more threads than slots or not.
TEST(Slots, AreLentToOneAtATime) {
  Slots slots(3);
  std::atomic<int> lent[3] = {{0}, {0}, {0}};
  std::atomic<int> shared{0};
  testing::ThreadParts threads(6, 1);
  threads.Share(600, 1, [&](int64_t, int64_t) {
    const Slots::Lease slot(&slots);
    ASSERT_LT(slot.number(), 3);
    if (lent[slot.number()].fetch_add(1) != 0) ++shared;
    lent[slot.number()].fetch_sub(1);
  });
  EXPECT_EQ(shared, 0);
}

}  // namespace
}  // namespace bitfold
