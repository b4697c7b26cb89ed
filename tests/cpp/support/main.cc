// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Runs the tests and keeps the ledger of the paths they took.
//
// A run of all tests in one process fails when a path is missing. ctest runs every test in a
// process of its own: each then leaves its marks in the directory BITFOLD_LEDGER, and a last one,
// `bitfold_tests --check-ledger`, reads them all. A partial run is not judged.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "support/ledger.h"

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
};
static_assert(sizeof(kPathNames) / sizeof(kPathNames[0]) == kPaths);

std::atomic<bool> ran[kPaths];

std::set<std::string> AllTests() {
  std::set<std::string> names;
  const auto& unit = *::testing::UnitTest::GetInstance();
  for (int s = 0; s < unit.total_test_suite_count(); ++s) {
    const auto& suite = *unit.GetTestSuite(s);
    for (int t = 0; t < suite.total_test_count(); ++t) {
      names.insert(std::string("test ") + suite.name() + "." + suite.GetTestInfo(t)->name());
    }
  }
  return names;
}

// What this process did: a line per path taken and per test run.
std::set<std::string> OwnMarks() {
  std::set<std::string> marks;
  for (int i = 0; i < kPaths; ++i) {
    if (ran[i]) marks.insert(std::string("path ") + kPathNames[i]);
  }
  const auto& unit = *::testing::UnitTest::GetInstance();
  for (int s = 0; s < unit.total_test_suite_count(); ++s) {
    const auto& suite = *unit.GetTestSuite(s);
    for (int t = 0; t < suite.total_test_count(); ++t) {
      const auto& test = *suite.GetTestInfo(t);
      if (!test.should_run()) continue;
      marks.insert(std::string("test ") + suite.name() + "." + test.name());
    }
  }
  return marks;
}

std::set<std::string> MissingPaths(const std::set<std::string>& marks) {
  std::set<std::string> missing;
  for (const char* name : kPathNames) {
    const std::string mark = std::string("path ") + name;
    if (marks.count(mark) == 0) missing.insert(mark);
  }
  return missing;
}

// Leaves the marks of a process among many, or judges those of a full run.
class Ledger : public ::testing::Environment {
 public:
  void TearDown() override {
    const std::set<std::string> marks = OwnMarks();
    if (const char* directory = std::getenv("BITFOLD_LEDGER")) {
      std::string name = std::string(directory) + "/marks-" + std::to_string(getpid());
      std::ofstream file(name);
      for (const std::string& mark : marks) file << mark << "\n";
      return;
    }
    const auto& unit = *::testing::UnitTest::GetInstance();
    if (unit.test_to_run_count() != unit.total_test_count()) return;
    for (const std::string& path : MissingPaths(marks)) ADD_FAILURE() << "never ran: " << path;
  }
};

int CheckLedger(const char* directory) {
  std::set<std::string> marks;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) marks.insert(line);
  }
  size_t tests_not_run = 0;
  for (const std::string& test : AllTests()) tests_not_run += 1 - marks.count(test);
  const std::set<std::string> missing = MissingPaths(marks);
  std::printf("ledger: %d paths, %zu never ran\n", kPaths, missing.size());
  for (const std::string& path : missing) std::printf("never ran: %s\n", path.c_str());
  if (tests_not_run > 0) {
    std::printf("ledger: not judged, %zu tests did not run\n", tests_not_run);
    return 0;
  }
  return missing.empty() ? 0 : 1;
}

}  // namespace

void Ran(Path path) { ran[static_cast<int>(path)] = true; }

}  // namespace bitfold::testing

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (argc > 1 && std::strcmp(argv[1], "--check-ledger") == 0) {
    const char* directory = std::getenv("BITFOLD_LEDGER");
    return directory == nullptr ? 2 : bitfold::testing::CheckLedger(directory);
  }
  ::testing::AddGlobalTestEnvironment(new bitfold::testing::Ledger);
  return RUN_ALL_TESTS();
}
