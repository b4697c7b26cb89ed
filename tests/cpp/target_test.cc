// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Which target the vector loops take.

#include "vector/target.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "chain/dot_row.h"
#include "chain/lane_tile.h"
#include "cpu/vector_datapath.h"
#include "support/targets.h"
#include "vector/target_code.h"

namespace bitfold {
namespace {

TEST(Target, PortableIsAlwaysThere) { EXPECT_TRUE(IsSupported(Target::kPortable)); }

TEST(Target, TheWidestIsTheDefault) {
  const auto targets = testing::AllTargets();
  EXPECT_EQ(CurrentTarget(), targets.back().target);
}

TEST(Target, TheWidestWithinALimit) {
  const Target widest = testing::AllTargets().back().target;
  EXPECT_EQ(WidestTarget("portable"), Target::kPortable);
  EXPECT_EQ(WidestTarget("avx2"), std::min(Target::kAvx2, widest));
  EXPECT_EQ(WidestTarget("avx512"), std::min(Target::kAvx512, widest));
  for (const char* limit : {"avx512_vnni", "", "AVX2", "avx"}) {
    EXPECT_EQ(WidestTarget(limit), widest) << limit;
  }
}

TEST(Target, ForcedUntilLifted) {
  const Target widest = CurrentTarget();
  for (const auto& [target, name] : testing::AllTargets()) {
    ForceTarget(target);
    EXPECT_EQ(CurrentTarget(), target) << name;
  }
  ForceTarget(std::nullopt);
  EXPECT_EQ(CurrentTarget(), widest);
}

// The kernel's own list of the processor's features says the same, where the compiler made code for
// them.
TEST(Target, MatchesTheSystem) {
  std::ifstream file("/proc/cpuinfo");
  std::string features;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("flags", 0) == 0) {
      features = line + " ";
      break;
    }
  }
  if (features.empty()) GTEST_SKIP() << "no list of features";
  const auto has = [&features](const std::string& feature) {
    return features.find(" " + feature + " ") != std::string::npos;
  };
  constexpr bool kHasCode = BITFOLD_HAS_TARGETS != 0;
  EXPECT_EQ(IsSupported(Target::kAvx2), kHasCode && has("avx2"));
  const bool has_avx512 =
      kHasCode && has("avx512f") && has("avx512bw") && has("avx512dq") && has("avx512vl");
  EXPECT_EQ(IsSupported(Target::kAvx512), has_avx512);
  EXPECT_EQ(IsSupported(Target::kAvx512Vnni), has_avx512 && has("avx512_vnni"));
}

// Of each family of loops one function, for the target in use.
std::map<std::string, const void*> FunctionsInUse() {
  const auto address = [](auto function) { return reinterpret_cast<const void*>(function); };
  return {
      {"dot products", address(CurrentDotRowKernels<int32_t>().shorts)},
      {"lanes", address(LaneKernelsOf<Datapath<float>, float>().ordinary[1][1])},
      {"modular lanes", address(LaneKernelsOf<ModularDatapath, int32_t>().depthwise[0][0])},
      {"plain sums", address(CurrentSumKernels<float>().ordinary[1][0])},
      {"finished sums", address(CurrentSumKernels<int32_t>().finish)},
      {"rounded sums", address(CurrentRoundedKernels().ordinary[1][1])},
      {"datapath", address(LoopsOf(Datapath<int32_t>(16, 0, false)).products)},
      {"pairs", address(CurrentPairLoops<float>().join)},
  };
}

// A target that is claimed has loops of its own; those of the last but its dot products are the
// loops of the one before it.
TEST(Target, HasCodeOfItsOwn) {
  std::map<std::string, std::set<const void*>> functions;
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const auto& [family, function] : FunctionsInUse()) {
      const bool is_new = functions[family].insert(function).second;
      const bool is_shared = target == Target::kAvx512Vnni && family != "dot products";
      EXPECT_NE(is_new, is_shared) << family << " for " << name;
    }
  }
}

}  // namespace
}  // namespace bitfold
