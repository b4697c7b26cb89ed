// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Runs the comparisons with one planted defect after the other, each in a process of its own, which
// ends with the first comparison that fails.
//
//   planted_test SECONDS < lines
//
// A line is a defect's number and the groups of comparisons to run, by the begins of their names,
// with tabs between. For each line it prints the number; `found` where a comparison failed, `ended`
// where the process broke, `endless` where it took more seconds of a processor, else `same`; how
// often the altered instruction was reached; and how often it gave something else.

#include "planted.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "device.h"
#include "groups.h"

namespace bitfold {
namespace ptx {

int planted_defect = -1;

namespace {

// Where a child leaves its counts, however it ends.
DefectCounts* SharedCounts() {
  void* memory = mmap(nullptr, sizeof(DefectCounts), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return new (memory) DefectCounts{};
}

}  // namespace

DefectCounts& defect_counts = *SharedCounts();

}  // namespace ptx

namespace {

std::vector<std::string> Fields(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream stream(line);
  for (std::string field; std::getline(stream, field, '\t');) fields.push_back(field);
  return fields;
}

// What the child does. It never returns.
[[noreturn]] void Compare(int defect, const std::vector<std::string>& groups, unsigned seconds) {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  if (std::freopen("/dev/null", "w", stderr) == nullptr) std::abort();
  const rlimit limit = {seconds, rlim_t{seconds} + 1};
  setrlimit(RLIMIT_CPU, &limit);
  ptx::planted_defect = defect;
  device_test::Report report(groups);
  for (const bool is_reversed : {false, true}) {
    if (is_reversed) ptx::ReverseOrder();
    device_test::CompareAdditions(true, &report);
    device_test::CompareConvolutions(true, &report);
    device_test::CompareByteProducts(true, &report);
    device_test::ComparePrintedLines(&report);
  }
  std::_Exit(0);
}

const char* Verdict(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status) == 0 ? "same" : "found";
  return WTERMSIG(status) == SIGXCPU ? "endless" : "ended";
}

}  // namespace
}  // namespace bitfold

int main(int argc, char** argv) {
  using bitfold::ptx::defect_counts;
  const unsigned seconds = argc == 2 ? static_cast<unsigned>(std::atoi(argv[1])) : 0;
  if (seconds == 0) {
    std::fprintf(stderr, "usage: %s SECONDS\n", argv[0]);
    return 2;
  }
  for (std::string line; std::getline(std::cin, line);) {
    std::vector<std::string> fields = bitfold::Fields(line);
    const int defect = std::atoi(fields.at(0).c_str());
    fields.erase(fields.begin());
    defect_counts = {};
    const pid_t child = fork();
    if (child < 0) return 2;
    if (child == 0) bitfold::Compare(defect, fields, seconds);
    int status = 0;
    if (waitpid(child, &status, 0) != child) return 2;
    std::printf("%d\t%s\t%" PRId64 "\t%" PRId64 "\n", defect, bitfold::Verdict(status),
                defect_counts.reached, defect_counts.differed);
    std::fflush(stdout);
  }
  return 0;
}
