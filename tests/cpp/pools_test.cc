// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Pools of threads before and after a fork.

#include "frame/pools.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>
#include <vector>

namespace bitfold {
namespace {

// What a fork of this process finds.
template <typename Check>
bool InChild(Check check) {
  const pid_t child = fork();
  if (child == 0) _exit(check() ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

TEST(Pools, AForkHasNoThreadsOfItsParentsPools) {
  const int seen = 0;
  const int later = 0;
  EXPECT_TRUE(HasThreads(&seen));
  EXPECT_TRUE(HasThreads(&seen));
  EXPECT_TRUE(InChild([&] { return !HasThreads(&seen) && HasThreads(&later); }));
  EXPECT_TRUE(InChild([&] {
    const bool has = HasThreads(&later);
    return has && InChild([&] { return !HasThreads(&later) && !HasThreads(&seen); });
  }));
  EXPECT_TRUE(HasThreads(&seen));
  EXPECT_TRUE(HasThreads(&later));
}

TEST(Pools, AreFoundByManyThreads) {
  const int pools[8] = {};
  std::vector<std::thread> threads;
  std::vector<int> missed(16, 0);
  for (size_t t = 0; t < missed.size(); ++t) {
    threads.emplace_back([&, t] {
      for (const int& pool : pools) missed[t] += HasThreads(&pool) ? 0 : 1;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(missed, std::vector<int>(16, 0));
}

TEST(Pools, ThatAreTooManyAreTaken) {
  const std::vector<char> pools(200);
  for (const char& pool : pools) EXPECT_TRUE(HasThreads(&pool));
}

}  // namespace
}  // namespace bitfold
