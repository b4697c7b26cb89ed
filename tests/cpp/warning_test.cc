// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The printed lines, byte for byte, the range that leads to them, and what counts them instead.

#include "bitfold/warning.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "frame/warning_store.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"

namespace bitfold {
namespace {

using testing::PrintedBy;
using testing::SameText;

std::string WarningOf(float sum) {
  return PrintedBy([sum] { PrintAccumulatorWarning(sum); });
}

TEST(Warning, AccumulatorLine) {
  EXPECT_EQ(WarningOf(8388607.0f),
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(-8388608.0f),
            "@@@ WARNING: acc -8388608.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(8388607.5f),
            "@@@ WARNING: acc 8388607.500000 is out of bounds <-8388607,8388607>\n");
  // The double that 3.4e38f widens to, all its digits.
  EXPECT_EQ(WarningOf(3.4e38f),
            "@@@ WARNING: acc 339999995214436424907732413799364296704.000000 is out of bounds "
            "<-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(std::numeric_limits<float>::infinity()),
            "@@@ WARNING: acc inf is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(-std::numeric_limits<float>::infinity()),
            "@@@ WARNING: acc -inf is out of bounds <-8388607,8388607>\n");
  // The sign of a NaN means nothing.
  EXPECT_TRUE(SameText("@@@ WARNING: acc nan is out of bounds <-8388607,8388607>\n",
                       WarningOf(std::numeric_limits<float>::quiet_NaN()), "NaN"));
}

TEST(Warning, RangeIsClosedBelowAndOpenAbove) {
  const float limit = 8388607.0f;
  EXPECT_TRUE(IsOutOfWarningRange(limit));
  EXPECT_TRUE(IsOutOfWarningRange(std::nextafter(limit, 1e9f)));
  EXPECT_FALSE(IsOutOfWarningRange(std::nextafter(limit, 0.0f)));  // 8388606.5
  EXPECT_FALSE(IsOutOfWarningRange(-limit));
  EXPECT_FALSE(IsOutOfWarningRange(std::nextafter(-limit, 0.0f)));
  EXPECT_TRUE(IsOutOfWarningRange(std::nextafter(-limit, -1e9f)));  // -8388607.5
  EXPECT_FALSE(IsOutOfWarningRange(0.0f));
  EXPECT_FALSE(IsOutOfWarningRange(-0.0f));
  EXPECT_TRUE(IsOutOfWarningRange(3.4e38f));
  EXPECT_TRUE(IsOutOfWarningRange(-std::numeric_limits<float>::infinity()));
  EXPECT_TRUE(IsOutOfWarningRange(std::numeric_limits<float>::quiet_NaN()));
  EXPECT_TRUE(IsOutOfWarningRange(-std::numeric_limits<float>::quiet_NaN()));
}

TEST(Warning, DepthwiseWeightLine) {
  EXPECT_EQ(PrintedBy(PrintDepthwiseWeightWarning),
            "\x1b[1;31mweights should be uint8 for DW, check predecessor has signed output, could "
            "cause degradation\x1b[0m\n");
}

TEST(Warning, MatMulWeightLine) {
  EXPECT_EQ(PrintedBy(PrintMatMulWeightWarning),
            "\x1b[1;31mweights should be uint8 for matmul, check predecessor has signed output, "
            "could cause degradation\x1b[0m\n");
}

TEST(Warning, SoftmaxLine) {
  EXPECT_EQ(PrintedBy(PrintSoftmaxWarning), "Warning, the softmax sum has overflowed.\n");
}

// ---- Counted -----------------------------------------------------------------------------------

void WarnOfAll() {
  WarnOutOfBounds(9e6f);
  WarnDepthwiseWeights();
  WarnMatMulWeights();
  WarnSoftmaxOverflow();
}

TEST(WarningScope, CountsEachKind) {
  BitfoldWarningCounts counts{};
  const std::string printed = PrintedBy([&] {
    const WarningScope scope(&counts);
    WarnOfAll();
    WarnOutOfBounds(9e6f);
  });
  EXPECT_EQ(printed, "");
  EXPECT_EQ(counts.out_of_bounds, 2);
  EXPECT_EQ(counts.corrected_weights, 2);
  EXPECT_EQ(counts.softmax_overflows, 1);
}

TEST(WarningScope, EndsWithTheObject) {
  const std::string all = PrintedBy(WarnOfAll);
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 4);
  BitfoldWarningCounts outer{};
  BitfoldWarningCounts inner{};
  {
    const WarningScope counted(&outer);
    {
      const WarningScope within(&inner);
      WarnSoftmaxOverflow();
    }
    const std::string printed = PrintedBy([] {
      const WarningScope shown(nullptr);
      WarnOfAll();
    });
    EXPECT_EQ(printed, all);
    WarnOutOfBounds(9e6f);
  }
  EXPECT_EQ(PrintedBy(WarnOfAll), all);
  EXPECT_EQ(outer.out_of_bounds, 1);
  EXPECT_EQ(outer.softmax_overflows, 0);
  EXPECT_EQ(inner.softmax_overflows, 1);
}

TEST(WarningScope, IsOfOneThread) {
  BitfoldWarningCounts counts{};
  const WarningScope scope(&counts);
  const std::string printed = PrintedBy([] { std::thread(WarnSoftmaxOverflow).join(); });
  EXPECT_EQ(printed, "Warning, the softmax sum has overflowed.\n");
  EXPECT_FALSE(HasCounts(counts));
}

// ---- By op and node ----------------------------------------------------------------------------

struct Told {
  std::string op;
  std::string node;
  int64_t out_of_bounds;
};

std::vector<Told>& Visited() {
  static std::vector<Told> visited;
  return visited;
}

void Visit(const char* op, const char* node, const BitfoldWarningCounts* counts) {
  Visited().push_back({op, node, counts->out_of_bounds});
}

std::map<std::string, int64_t> VisitedNodes(int reset) {
  Visited().clear();
  bitfold_visit_warning_counts(reset, Visit);
  std::map<std::string, int64_t> nodes;
  for (const Told& told : Visited()) nodes[told.op + " " + told.node] = told.out_of_bounds;
  return nodes;
}

TEST(WarningStore, AddsByOpAndNode) {
  VisitedNodes(1);
  RecordWarnings("HAdd", "a", {1, 0, 0});
  RecordWarnings("HAdd", "b", {2, 0, 0});
  RecordWarnings("HAdd", "a", {3, 0, 0});
  RecordWarnings("HConv2d", "a", {4, 0, 0});
  const std::map<std::string, int64_t> expected = {{"HAdd a", 4}, {"HAdd b", 2}, {"HConv2d a", 4}};
  EXPECT_EQ(VisitedNodes(0), expected);
  EXPECT_EQ(VisitedNodes(1), expected);
  EXPECT_TRUE(VisitedNodes(0).empty());
}

TEST(WarningStore, LosesNothingToAReset) {
  VisitedNodes(1);
  constexpr int kThreads = 4;
  constexpr int kCalls = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kCalls; ++i) RecordWarnings("HAdd", std::to_string(t % 2), {1, 0, 0});
    });
  }
  int64_t total = 0;
  for (int i = 0; i < 100; ++i) {
    for (const auto& [node, lines] : VisitedNodes(1)) total += lines;
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& [node, lines] : VisitedNodes(1)) total += lines;
  EXPECT_EQ(total, kThreads * kCalls);
}

TEST(WarningStore, TellsTheListener) {
  Visited().clear();
  EXPECT_FALSE(WarningsAreCounted());
  EXPECT_EQ(bitfold_set_warnings(1, Visit), 0);
  EXPECT_TRUE(WarningsAreCounted());
  RecordWarnings("HAdd", "a", {5, 0, 0});
  ASSERT_EQ(Visited().size(), 1u);
  EXPECT_EQ(Visited()[0].op, "HAdd");
  EXPECT_EQ(Visited()[0].node, "a");
  EXPECT_EQ(Visited()[0].out_of_bounds, 5);
  EXPECT_EQ(bitfold_set_warnings(1, nullptr), 0);
  RecordWarnings("HAdd", "a", {5, 0, 0});
  EXPECT_EQ(bitfold_set_warnings(0, Visit), 0);  // who prints has no listener
  RecordWarnings("HAdd", "a", {5, 0, 0});
  EXPECT_EQ(Visited().size(), 1u);
  EXPECT_FALSE(WarningsAreCounted());
  VisitedNodes(1);
}

int running_within = 0;

TEST(WarningStore, SaysWhetherAListenerRuns) {
  bitfold_set_warnings(1, [](const char*, const char*, const BitfoldWarningCounts*) {
    running_within = bitfold_set_warnings(0, nullptr);
  });
  RecordWarnings("HAdd", "a", {1, 0, 0});
  EXPECT_EQ(running_within, 1);
  EXPECT_EQ(bitfold_set_warnings(0, nullptr), 0);
  VisitedNodes(1);
}

TEST(WarningStore, KnowsCountedNodesByAWord) {
  const std::string word = bitfold_counting_word();
  EXPECT_EQ(word, bitfold_counting_word());
  EXPECT_GE(word.size(), 16u);
  EXPECT_TRUE(IsCountedNode("network_" + word + "_1/layer"));
  EXPECT_TRUE(IsCountedNode(word));
  EXPECT_FALSE(IsCountedNode("network_counted_1/layer"));
  EXPECT_FALSE(IsCountedNode(""));
}

}  // namespace
}  // namespace bitfold
