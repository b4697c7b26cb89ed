// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Which target the vector loops take.

#include "vector/target.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "support/targets.h"

namespace bitfold {
namespace {

TEST(Target, PortableIsAlwaysThere) { EXPECT_TRUE(IsSupported(Target::kPortable)); }

TEST(Target, TheWidestIsTheDefault) {
  const auto targets = testing::AllTargets();
  EXPECT_EQ(CurrentTarget(), targets.back().target);
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

// The kernel's own list of the processor's features says the same.
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
  EXPECT_EQ(IsSupported(Target::kAvx2), has("avx2"));
  const bool has_avx512 = has("avx512f") && has("avx512bw") && has("avx512dq") && has("avx512vl");
  EXPECT_EQ(IsSupported(Target::kAvx512), has_avx512);
  EXPECT_EQ(IsSupported(Target::kAvx512Vnni), has_avx512 && has("avx512_vnni"));
}

}  // namespace
}  // namespace bitfold
