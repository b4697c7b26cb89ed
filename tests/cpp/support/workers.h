// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Pools of threads as far as bits and lines are concerned: they ask no runtime, and share whatever
// the cost.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_WORKERS_H_
#define BITFOLD_TESTS_CPP_SUPPORT_WORKERS_H_

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
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

// Parts of some units on as many threads of their own, whoever comes first. The threads start with
// the first work and end with the pool: one made for each work would cost more than most works.
class ThreadParts : public Workers {
 public:
  ThreadParts(int threads, int64_t units) : wanted_(threads), units_(units) {}

  ~ThreadParts() override {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_over_ = true;
    }
    work_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  int AtOnce() const override { return wanted_; }
  int64_t LeastCost() const override { return 1; }

 private:
  // Requires that no part shares work in the same pool, and one caller at a time.
  void ShareGuarded(int64_t units, int64_t, const Part& part) override {
    Start();
    if (threads_.empty()) {
      for (int64_t first = 0; first < units; first += units_) {
        part(first, std::min(first + units_, units));
      }
      return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    part_ = &part;
    next_ = 0;
    end_ = units;
    work_.notify_all();
    done_.wait(lock, [this] { return next_ >= end_ && running_ == 0; });
  }

  void Start() {
    try {
      threads_.reserve(static_cast<size_t>(wanted_));
      while (threads_.size() < static_cast<size_t>(wanted_)) {
        threads_.emplace_back([this] { Work(); });
      }
    } catch (const std::exception&) {
      // There are fewer threads, or none.
    }
  }

  void Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      work_.wait(lock, [this] { return is_over_ || next_ < end_; });
      if (is_over_) return;
      ++running_;
      lock.unlock();
      for (int64_t first = next_.fetch_add(units_); first < end_; first = next_.fetch_add(units_)) {
        (*part_)(first, std::min(first + units_, end_));
      }
      lock.lock();
      if (--running_ == 0) done_.notify_one();
    }
  }

  const int wanted_;
  const int64_t units_;
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable work_, done_;
  // The work: not changed while a thread does some of it.
  const Part* part_ = nullptr;
  int64_t end_ = 0;
  std::atomic<int64_t> next_{0};
  int running_ = 0;  // threads
  bool is_over_ = false;
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
