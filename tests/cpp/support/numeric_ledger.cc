// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Keeps the ledger of the numeric units: judged at the end of a run of all tests in one process;
// where every test has a process of its own, in the one that gets BITFOLD_JUDGE_LEDGER, the folder
// of all the marks. A partial run is not judged.

#include "support/numeric_ledger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "target.h"

namespace bitfold::testing {
namespace {

constexpr int kPaths = static_cast<int>(NumericPath::kCount);

// In the order of NumericPath.
constexpr const char* kPathNames[] = {
    "narrow floats, in pairs",
    "narrow floats, other widths",
    "layer normalisation, portable loops",
    "layer normalisation, AVX2 loops",
    "layer normalisation, AVX-512 loops",
    "layer normalisation, shift to the left",
    "layer normalisation, shift to the right",
    "layer normalisation, elements left to the definition",
    "layer normalisation, shift left to the definition",
    "softmax, portable loops",
    "softmax, AVX2 loops",
    "softmax, AVX-512 loops",
    "softmax, sum in order",
    "activation, portable loops",
    "activation, AVX2 loops",
    "activation, AVX-512 loops",
    "activation, up to 8 breakpoints",
    "activation, up to 32 breakpoints",
    "activation, left to the definition",
    "datapath, portable loops",
    "datapath, AVX2 loops",
    "datapath, AVX-512 loops",
    "bilinear float mode, portable loops",
    "bilinear float mode, AVX2 loops",
    "bilinear float mode, AVX-512 loops",
    "suppression, portable loops",
    "suppression, AVX2 loops",
    "suppression, AVX-512 loops",
    "chains, outputs computed anew",
    "chains, outputs of overlapping tiles computed anew",
    "chains, half precision in range, AVX-512",
    "chains, half precision out of range, AVX-512",
    "chains, no memory",
    "chains, slots",
};
static_assert(sizeof(kPathNames) / sizeof(kPathNames[0]) == kPaths);

std::atomic<bool> ran[kPaths];

// Each in the order of its enumeration.
constexpr const char* kChainPaths[] = {"stepwise", "modular", "rounded", "shorts", "bytes"};
constexpr const char* kChainNumbers[] = {"int32", "float", "half precision"};
constexpr const char* kChainForms[] = {"ordinary", "depthwise", "matrices"};
constexpr const char* kChainTargets[] = {"portable", "AVX2", "AVX-512", "AVX-512 VNNI"};
static_assert(sizeof(kChainTargets) / sizeof(kChainTargets[0]) == kTargets);

std::atomic<bool> chain_ran[5][3][3][kTargets];

// "chains, bytes, float, ordinary, AVX-512 VNNI"
std::string ChainName(int path, int numbers, int form, int target) {
  return std::string("chains, ") + kChainPaths[path] + ", " + kChainNumbers[numbers] + ", " +
         kChainForms[form] + ", " + kChainTargets[target];
}

// Calls visit(path, numbers, form, target) for each that the engine can take on a machine with all
// targets.
template <typename Visit>
void ForEachChain(Visit visit) {
  for (int p = 0; p < 5; ++p) {
    for (int n = 0; n < 3; ++n) {
      for (int f = 0; f < 3; ++f) {
        for (int t = 0; t < kTargets; ++t) {
          const auto path = static_cast<ChainPath>(p);
          const auto numbers = static_cast<ChainNumbers>(n);
          if (numbers == ChainNumbers::kHalf && path != ChainPath::kStepwise) continue;
          if (path == ChainPath::kDotBytes && static_cast<Target>(t) != Target::kAvx512Vnni) {
            continue;
          }
          visit(p, n, f, t);
        }
      }
    }
  }
}

// Whether this machine can take a path.
bool CanRun(const std::string& name) {
  if (name.find("VNNI") != std::string::npos) return IsSupported(Target::kAvx512Vnni);
  if (name.find("AVX-512") != std::string::npos) return IsSupported(Target::kAvx512);
  return name.find("AVX2") == std::string::npos || IsSupported(Target::kAvx2);
}

std::set<std::string> OwnMarks() {
  std::set<std::string> marks;
  for (int i = 0; i < kPaths; ++i) {
    if (ran[i]) marks.insert(std::string("numeric path ") + kPathNames[i]);
  }
  ForEachChain([&marks](int p, int n, int f, int t) {
    if (chain_ran[p][n][f][t]) marks.insert("numeric path " + ChainName(p, n, f, t));
  });
  return marks;
}

void Judge(const std::set<std::string>& marks) {
  const auto expect = [&marks](const std::string& name) {
    if (CanRun(name) && marks.count("numeric path " + name) == 0) {
      ADD_FAILURE() << "never ran: " << name;
    }
  };
  for (const char* name : kPathNames) expect(name);
  ForEachChain([&expect](int p, int n, int f, int t) { expect(ChainName(p, n, f, t)); });
}

class NumericMarks : public ::testing::Environment {
 public:
  void TearDown() override {
    if (const char* directory = std::getenv("BITFOLD_LEDGER")) {
      std::ofstream file(std::string(directory) + "/numeric-" + std::to_string(getpid()));
      for (const std::string& mark : OwnMarks()) file << mark << "\n";
      return;
    }
    const auto& unit = *::testing::UnitTest::GetInstance();
    if (unit.test_to_run_count() == unit.total_test_count()) Judge(OwnMarks());
  }
};

[[maybe_unused]] const ::testing::Environment* const registered =
    ::testing::AddGlobalTestEnvironment(new NumericMarks);

TEST(NumericLedger, EveryPathRan) {
  const char* directory = std::getenv("BITFOLD_JUDGE_LEDGER");
  if (directory == nullptr) return;  // judged at the end
  std::set<std::string> marks;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) marks.insert(line);
  }
  const auto& unit = *::testing::UnitTest::GetInstance();
  for (int s = 0; s < unit.total_test_suite_count(); ++s) {
    const auto& suite = *unit.GetTestSuite(s);
    for (int t = 0; t < suite.total_test_count(); ++t) {
      const std::string name = std::string(suite.name()) + "." + suite.GetTestInfo(t)->name();
      if (marks.count("test " + name) == 0)
        GTEST_SKIP() << "not judged: " << name << " did not run";
    }
  }
  Judge(marks);
}

}  // namespace

void Ran(NumericPath path) { ran[static_cast<int>(path)] = true; }

void Ran(ChainPath path, ChainNumbers numbers, ChainForm form, Target target) {
  chain_ran[static_cast<int>(path)][static_cast<int>(numbers)][static_cast<int>(form)]
           [static_cast<int>(target)] = true;
}

}  // namespace bitfold::testing
