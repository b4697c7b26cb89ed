// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Pools of threads as far as bits and lines are concerned: they ask no runtime, and share whatever
// the cost.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_WORKERS_H_
#define BITFOLD_TESTS_CPP_SUPPORT_WORKERS_H_

#include <atomic>
#include <cstdint>
#include <exception>
#include <thread>
#include <vector>

#include "frame/workers.h"

namespace bitfold::testing {

// Parts of some units on the calling thread, the last one first.
class BackwardParts : public Workers {
 public:
  explicit BackwardParts(int64_t units) : units_(units) {}

  int AtOnce() const override { return 2; }  // so that work is cut
  int64_t LeastCost() const override { return 1; }

 private:
  void ShareGuarded(int64_t units, int64_t, const Part& part) override {
    for (int64_t first = (units - 1) / units_ * units_; first >= 0; first -= units_) {
      part(first, first + units_ < units ? first + units_ : units);
    }
  }

  const int64_t units_;
};

// Parts of some units on as many threads of their own, whoever comes first.
class ThreadParts : public Workers {
 public:
  ThreadParts(int threads, int64_t units) : threads_(threads), units_(units) {}

  int AtOnce() const override { return threads_; }
  int64_t LeastCost() const override { return 1; }

 private:
  void ShareGuarded(int64_t units, int64_t, const Part& part) override {
    std::atomic<int64_t> next{0};
    const auto work = [&] {
      for (int64_t first = next.fetch_add(units_); first < units; first = next.fetch_add(units_)) {
        part(first, first + units_ < units ? first + units_ : units);
      }
    };
    std::vector<std::thread> threads;
    try {
      threads.reserve(static_cast<size_t>(threads_));
      for (int t = 0; t < threads_; ++t) threads.emplace_back(work);
    } catch (const std::exception&) {
      work();  // there are fewer threads, or none
    }
    for (std::thread& thread : threads) thread.join();
  }

  const int threads_;
  const int64_t units_;
};

// A kernel as a function of its call alone, as its definition is one.
template <auto kCompute>
auto SharedBy(Workers* workers) {
  return [workers](auto... call) { kCompute(call..., workers); };
}

template <auto kCompute>
inline constexpr auto kOnCallingThread = [](auto... call) {
  CallingThread workers;
  kCompute(call..., &workers);
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_WORKERS_H_
