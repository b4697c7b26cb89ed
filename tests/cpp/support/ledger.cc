// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A run of all tests in one process is judged at its end. ctest lets several processes share the
// tests: each then leaves its marks in the directory BITFOLD_LEDGER, and a last one reads them all.
// A partial run is not judged.

#include "support/ledger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace bitfold::testing {
namespace {

// Whether the build has only some of the tests.
#ifdef BITFOLD_PART_OF_THE_TESTS
constexpr bool kIsPart = true;
#else
constexpr bool kIsPart = false;
#endif

constexpr int kPaths = static_cast<int>(Path::kCount);

constexpr const char* kPathNames[] = {
#define BITFOLD_PATH(enumerator, name) name,
#include "support/ledger_paths.inc"
#undef BITFOLD_PATH
};

std::atomic<bool> ran[kPaths];

// Each in the order of its enumeration.
constexpr const char* kChainPaths[] = {"stepwise", "modular", "rounded",
                                       "shorts",   "bytes",   "remainders"};
constexpr int kAllChainPaths = sizeof(kChainPaths) / sizeof(kChainPaths[0]);
constexpr const char* kChainNumbers[] = {"int32", "float", "half precision"};
constexpr const char* kChainForms[] = {"ordinary", "depthwise", "matrices"};
constexpr const char* kChainTargets[] = {"portable", "AVX2", "AVX-512", "AVX-512 VNNI"};
static_assert(sizeof(kChainTargets) / sizeof(kChainTargets[0]) == kTargets);

std::atomic<bool> chain_ran[kAllChainPaths][3][3][kTargets];

// "chains, bytes, float, ordinary, AVX-512 VNNI"
std::string ChainName(int path, int numbers, int form, int target) {
  return std::string("chains, ") + kChainPaths[path] + ", " + kChainNumbers[numbers] + ", " +
         kChainForms[form] + ", " + kChainTargets[target];
}

// Calls visit(path, numbers, form, target) for each that the engine can take on a machine with all
// targets; of half-precision sums so small that they are exact for some.
template <typename Visit>
void ForEachChain(Visit visit) {
  for (int p = 0; p < kAllChainPaths; ++p) {
    for (int n = 0; n < 3; ++n) {
      for (int f = 0; f < 3; ++f) {
        for (int t = 0; t < kTargets; ++t) {
          const auto path = static_cast<ChainPath>(p);
          const auto numbers = static_cast<ChainNumbers>(n);
          const bool is_any_half = path != ChainPath::kModular && path != ChainPath::kDotShorts;
          if (numbers == ChainNumbers::kHalf && !is_any_half) continue;
          const bool is_remainders = path == ChainPath::kDotRemainders;
          const bool is_bytes = path == ChainPath::kDotBytes || is_remainders;
          if (is_bytes && static_cast<Target>(t) != Target::kAvx512Vnni) continue;
          if (is_remainders && static_cast<ChainForm>(f) == ChainForm::kDepthwise) continue;
          visit(p, n, f, t);
        }
      }
    }
  }
}

// Whether this machine can take a path.
bool CanRun(const std::string& name) {
  if (name.find("remainders") != std::string::npos) return HasRemainders(Target::kAvx512Vnni);
  if (name.find("VNNI") != std::string::npos) return IsSupported(Target::kAvx512Vnni);
  if (name.find("AVX-512") != std::string::npos) return IsSupported(Target::kAvx512);
  return name.find("AVX2") == std::string::npos || IsSupported(Target::kAvx2);
}

// Calls visit("path ...", whether this process took it) for every path.
template <typename Visit>
void ForEachPath(Visit visit) {
  for (int i = 0; i < kPaths; ++i) visit(std::string("path ") + kPathNames[i], ran[i].load());
  ForEachChain([&visit](int p, int n, int f, int t) {
    visit("path " + ChainName(p, n, f, t), chain_ran[p][n][f][t].load());
  });
}

// Calls visit("test ...", whether this process runs it) for every test.
template <typename Visit>
void ForEachTest(Visit visit) {
  const auto& unit = *::testing::UnitTest::GetInstance();
  for (int s = 0; s < unit.total_test_suite_count(); ++s) {
    const auto& suite = *unit.GetTestSuite(s);
    for (int t = 0; t < suite.total_test_count(); ++t) {
      const auto& test = *suite.GetTestInfo(t);
      visit(std::string("test ") + suite.name() + "." + test.name(), test.should_run());
    }
  }
}

// What this process did: a line per path taken and per test run.
std::set<std::string> OwnMarks() {
  std::set<std::string> marks;
  const auto add = [&marks](const std::string& name, bool is_done) {
    if (is_done) marks.insert(name);
  };
  ForEachPath(add);
  ForEachTest(add);
  return marks;
}

std::set<std::string> MissingPaths(const std::set<std::string>& marks) {
  std::set<std::string> missing;
  ForEachPath([&](const std::string& name, bool) {
    if (CanRun(name) && marks.count(name) == 0) missing.insert(name);
  });
  return missing;
}

// Leaves the marks of a process among many, or judges those of a full run.
class Ledger : public ::testing::Environment {
 public:
  void TearDown() override {
    const std::set<std::string> marks = OwnMarks();
    if (const char* directory = std::getenv("BITFOLD_LEDGER")) {
      std::ofstream file(std::string(directory) + "/marks-" + std::to_string(getpid()));
      for (const std::string& mark : marks) file << mark << "\n";
      return;
    }
    const auto& unit = *::testing::UnitTest::GetInstance();
    if (kIsPart || unit.test_to_run_count() != unit.total_test_count()) return;
    for (const std::string& path : MissingPaths(marks)) ADD_FAILURE() << "never ran: " << path;
  }
};

[[maybe_unused]] const ::testing::Environment* const registered =
    ::testing::AddGlobalTestEnvironment(new Ledger);

}  // namespace

int CheckLedger(const char* directory) {
  std::set<std::string> marks;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) marks.insert(line);
  }
  size_t tests_not_run = 0;
  ForEachTest([&](const std::string& test, bool) { tests_not_run += 1 - marks.count(test); });
  const std::set<std::string> missing = MissingPaths(marks);
  size_t paths = 0;
  ForEachPath([&paths](const std::string&, bool) { ++paths; });
  std::printf("ledger: %zu paths, %zu never ran\n", paths, missing.size());
  for (const std::string& path : missing) std::printf("never ran: %s\n", path.c_str());
  if (kIsPart || tests_not_run > 0) {
    std::printf("ledger: not judged, %zu tests did not run%s\n", tests_not_run,
                kIsPart ? ", others are not in this build" : "");
    return 0;
  }
  return missing.empty() ? 0 : 1;
}

void Ran(Path path) { ran[static_cast<int>(path)] = true; }

void Ran(ChainPath path, ChainNumbers numbers, ChainForm form, Target target) {
  chain_ran[static_cast<int>(path)][static_cast<int>(numbers)][static_cast<int>(form)]
           [static_cast<int>(target)] = true;
}

}  // namespace bitfold::testing
