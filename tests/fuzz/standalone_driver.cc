// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Runs a fuzz target without a fuzzer: a bounded number of seeded pseudo-random inputs of growing
// size, the same on every machine; or the files named, to repeat what a fuzzer found.
//
//   HAdd_fuzz [--runs N] [--seed S] [--first R] [FILE...]
//
// When the target aborts, the run that did it is printed: repeat it alone with --first R --runs 1.

#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

char current_run[128];

void ReportRun(int) {
  const ssize_t written = write(STDERR_FILENO, current_run, std::strlen(current_run));
  static_cast<void>(written);
}

// The input of one run alone, whatever ran before: up to 64 bytes first, 4096 from run 4032 on.
std::vector<uint8_t> MakeInput(uint64_t seed, uint64_t run) {
  std::mt19937_64 random(seed * 1000003 + run);
  const uint64_t grown = 64 + run;
  const uint64_t largest = grown < 4096 ? grown : 4096;
  std::vector<uint8_t> bytes(random() % (largest + 1));
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() >> 56);
  return bytes;
}

// The target gets a copy that ends where the bytes end.
void RunOn(const std::vector<uint8_t>& bytes) {
  const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t runs = 1000;
  uint64_t seed = 1;
  uint64_t first = 0;
  int files = 0;
  std::signal(SIGABRT, ReportRun);
  for (int i = 1; i < argc; ++i) {
    uint64_t* option = std::strcmp(argv[i], "--runs") == 0    ? &runs
                       : std::strcmp(argv[i], "--seed") == 0  ? &seed
                       : std::strcmp(argv[i], "--first") == 0 ? &first
                                                              : nullptr;
    if (option != nullptr && i + 1 < argc) {
      *option = std::strtoull(argv[++i], nullptr, 0);
      continue;
    }
    std::ifstream file(argv[i], std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "cannot read %s\n", argv[i]);
      return 2;
    }
    std::snprintf(current_run, sizeof(current_run), "in file %s\n", argv[i]);
    RunOn({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
    ++files;
  }
  if (files > 0) {
    std::printf("%d files\n", files);
    return 0;
  }
  for (uint64_t run = first; run < first + runs; ++run) {
    std::snprintf(current_run, sizeof(current_run), "in run %llu of seed %llu\n",
                  static_cast<unsigned long long>(run), static_cast<unsigned long long>(seed));
    RunOn(MakeInput(seed, run));
  }
  std::printf("%llu runs of seed %llu from run %llu\n", static_cast<unsigned long long>(runs),
              static_cast<unsigned long long>(seed), static_cast<unsigned long long>(first));
  return 0;
}
