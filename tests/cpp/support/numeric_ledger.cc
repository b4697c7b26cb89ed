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
};
static_assert(sizeof(kPathNames) / sizeof(kPathNames[0]) == kPaths);

std::atomic<bool> ran[kPaths];

// Whether this machine can take a path.
bool CanRun(const std::string& name) {
  if (name.find("AVX-512") != std::string::npos) return IsSupported(Target::kAvx512);
  return name.find("AVX2") == std::string::npos || IsSupported(Target::kAvx2);
}

std::set<std::string> OwnMarks() {
  std::set<std::string> marks;
  for (int i = 0; i < kPaths; ++i) {
    if (ran[i]) marks.insert(std::string("numeric path ") + kPathNames[i]);
  }
  return marks;
}

void Judge(const std::set<std::string>& marks) {
  for (const char* name : kPathNames) {
    if (!CanRun(name)) continue;
    if (marks.count(std::string("numeric path ") + name) == 0) {
      ADD_FAILURE() << "never ran: " << name;
    }
  }
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

}  // namespace bitfold::testing
