// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A run of all tests in one process is judged at its end. ctest runs every test in a process of its
// own: each then leaves its marks in the directory BITFOLD_LEDGER, and a last one reads them all. A
// partial run is not judged.

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

constexpr int kPaths = static_cast<int>(Path::kCount);

// In the order of Path.
constexpr const char* kPathNames[] = {
    "half-precision quantiser, all 16-bit prefixes",
    "half-precision quantiser of the vector loops, all 16-bit prefixes",
    "int32, every pass",
    "float, every pass",
    "int32, passes proven at once",
    "int32, passes proven after steps",
    "int32, passes never proven",
    "int32, passes of two addends proven",
    "float, proven passes",
    "float, passes of two addends proven",
    "half precision, proven passes",
    "float, lines among proven passes",
    "float, passes stopped",
    "HAdd, int32",
    "HAdd, float",
    "HAdd, half precision",
    "HBiasAdd, int32",
    "HBiasAdd, float",
    "HBiasAdd, half precision",
    "HDecomposedBiasAdd, int32",
    "HDecomposedBiasAdd, float",
    "HDecomposedBiasAdd, half precision",
    "HStandaloneElementwiseAdd, int32",
    "HStandaloneElementwiseAdd, float",
    "HStandaloneElementwiseAdd, half precision",
    "a block computed anew, the line inside it",
    "a block computed anew, the partial one",
    "several blocks computed anew",
    "integer passes proven by the kernels",
    "float passes proven by the kernels",
    "passes cancelled",
    "matrix product, int32",
    "matrix product, float",
    "matrix product, half precision",
    "matrix product weight warning",
    "HBilinear, int32",
    "HBilinear, float",
    "HBilinear, float mode of int32",
    "HBilinear, float mode of float",
    "HBboxDecoder, int32",
    "HBboxDecoder, float",
    "HBboxDecoder, half precision",
    "HSingleWeightPerProposalBboxDecoder, int32",
    "HSingleWeightPerProposalBboxDecoder, float",
    "HSingleWeightPerProposalBboxDecoder, half precision",
    "suppression, logged",
    "suppression, quiet",
    "suppression, quiet, left to the definition",
    "convolution, int32",
    "convolution, float",
    "convolution, half precision",
    "depthwise, int32",
    "depthwise, float",
    "depthwise, a filter per image",
    "elementwise addend",
    "elementwise addend without a centre row",
    "accumulator warning",
    "depthwise weight warning",
    "image threads",
    "thread fallback, all images",
    "thread fallback, some images",
    "caller that flushes subnormals",
    "device, addition of 4 dimensions, int32",
    "device, addition of 4 dimensions, float",
    "device, addition of 4 dimensions, half precision",
    "device, addition of 2 dimensions, int32",
    "device, addition of 2 dimensions, float",
    "device, addition of 2 dimensions, half precision",
    "device, bias, int32",
    "device, bias, float",
    "device, bias, half precision",
    "device, bias in two parts, int32",
    "device, bias in two parts, float",
    "device, bias in two parts, half precision",
    "device, stand-alone addition, int32",
    "device, stand-alone addition, float",
    "device, stand-alone addition, half precision",
    "device, convolution, int32",
    "device, convolution, float",
    "device, convolution, half precision",
    "device, tiles over dirty shared memory",
    "device, fewer positions than columns",
    "device, feed without end",
    "device, failed launch",
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
    if (unit.test_to_run_count() != unit.total_test_count()) return;
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
  if (tests_not_run > 0) {
    std::printf("ledger: not judged, %zu tests did not run\n", tests_not_run);
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
