// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The threads of a batch: groups of 20, each joined before the next; the same results and lines as
// image after image, also when some or all threads cannot be created.

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cpu/convolution.h"
#include "support/compare.h"
#include "support/convolution.h"
#include "support/ledger.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::ConvolutionData;
using testing::Path;
using testing::Ran;

constexpr int kGroup = 20;

// ---- Creators of threads that are watched, or fail ---------------------------------------------

struct Watch {
  std::atomic<int> batch{0};
  std::atomic<int> created{0};   // calls so far
  std::atomic<int> running{0};   // threads that have not ended
  std::atomic<int> most{0};      // of them at once
  std::atomic<int> overlaps{0};  // groups that began before the one before had ended
  std::atomic<bool> timed_out{false};
};

Watch watch;

void ResetWatch(int batch) {
  watch.batch = batch;
  watch.created = watch.running = watch.most = watch.overlaps = 0;
  watch.timed_out = false;
}

struct Start {
  void* (*entry)(void*);
  void* argument;
  int group_end;  // images started when this one's group is complete
};

// Ends with the thread, also through pthread_exit, which unwinds the stack.
struct Running {
  ~Running() { --watch.running; }
};

// Holds every thread back until its whole group has been created, so that they all run at once.
void* WatchedEntry(void* argument) {
  const std::unique_ptr<Start> start(static_cast<Start*>(argument));
  const Running running;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (watch.created < start->group_end && !watch.timed_out) {
    if (std::chrono::steady_clock::now() > deadline) {
      watch.timed_out = true;
      break;
    }
    std::this_thread::yield();
  }
  return start->entry(start->argument);
}

int CreateWatched(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                  void* argument) {
  const int image = watch.created;
  if (image % kGroup == 0 && watch.running != 0) ++watch.overlaps;
  const int group_end = std::min<int>(watch.batch, (image / kGroup + 1) * kGroup);
  auto start = std::make_unique<Start>(Start{entry, argument, group_end});
  const int running = ++watch.running;
  if (running > watch.most) watch.most = running;
  const int error = pthread_create(thread, attributes, WatchedEntry, start.get());
  if (error != 0) {
    --watch.running;
  } else {
    static_cast<void>(start.release());  // the thread owns it now
  }
  ++watch.created;
  return error;
}

int CreateNone(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }

int CreateTwoOfThree(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                     void* argument) {
  if (watch.created++ % 3 == 1) return EAGAIN;
  return pthread_create(thread, attributes, entry, argument);
}

// ---- Cases -------------------------------------------------------------------------------------

Convolution Batch(int32_t batch) {
  Convolution c = testing::Plain(5, 4, 2, 3, 2, 2);
  c.batch = batch;
  c.stride_h = 2;  // the two axes differ in everything, so that a mix-up shows
  c.dilation_w = 2;
  c.same = true;
  c.accumulator_size = 12;
  c.mult_shift = 1;
  return c;
}

// Every third image has a weight whose sign is corrected.
ConvolutionData<int32_t> DrawDepthwise(const Convolution& c, testing::Random* random) {
  auto data = testing::DrawConvolution<int32_t>(random, c, testing::Data::kSmall, true);
  const size_t filter = data.filter.size() / static_cast<size_t>(std::max(1, c.batch));
  for (size_t i = 0; i < data.filter.size(); ++i) {
    data.filter[i] = static_cast<int32_t>(i % 7) - 3;
    if (i / filter % 3 == 1 && i % filter == filter / 2) data.filter[i] = 60;
  }
  return data;
}

// Lines of different images may come in any order, but whole.
template <typename T>
void ExpectSameAsOracle(const Convolution& c, const ConvolutionData<T>& data, CreateThread create,
                        const char* path) {
  const auto expected = testing::OracleConvolution(c, data);
  const auto actual = testing::ThreadedConvolution(c, data, create);
  EXPECT_TRUE(testing::SameConvolutions(c, expected.values.data(), actual.values.data(), path));
  EXPECT_TRUE(testing::SameLines(expected.lines, actual.lines, path));
}

const int32_t kBatches[] = {0, 1, 2, 19, 20, 21, 40, 45};

// ---- Tests -------------------------------------------------------------------------------------

TEST(ConvolveThreads, GroupsOfTwentyAreJoinedBeforeTheNext) {
  testing::Random random(0x7423);
  for (const int32_t batch : kBatches) {
    const Convolution c = Batch(batch);
    const auto data = testing::DrawConvolution<int32_t>(&random, c, testing::Data::kSmall, true);
    ResetWatch(batch);
    ExpectSameAsOracle(c, data, CreateWatched, "image threads");
    EXPECT_EQ(watch.created, batch) << "one thread per image";
    EXPECT_EQ(watch.most, std::min<int>(batch, kGroup)) << "all of a group at once";
    EXPECT_EQ(watch.overlaps, 0) << "a group began before the one before had ended";
    EXPECT_EQ(watch.running, 0) << "a thread was not joined";
    ASSERT_FALSE(watch.timed_out) << "threads waited for their group in vain";
  }
  Ran(Path::kImageThreads);
}

TEST(ConvolveThreads, FloatImagesAgainstOracle) {
  testing::Random random(0xf10a7);
  for (const int32_t batch : kBatches) {
    for (const testing::Data kind : {testing::Data::kSmall, testing::Data::kFull}) {
      Convolution c = Batch(batch);
      c.use_fp16_acc = random.Flag();
      ExpectSameAsOracle(c, testing::DrawConvolution<float>(&random, c, kind, true), pthread_create,
                         "image threads");
    }
  }
}

TEST(ConvolveThreads, NoThreadCanBeCreated) {
  testing::Random random(0x0);
  for (const int32_t batch : kBatches) {
    const Convolution c = Batch(batch);
    const auto data = testing::DrawConvolution<float>(&random, c, testing::Data::kFull, true);
    const auto expected = testing::OracleConvolution(c, data);
    const auto actual = testing::ThreadedConvolution(c, data, CreateNone);
    EXPECT_TRUE(
        testing::SameConvolutions(c, expected.values.data(), actual.values.data(), "no thread"));
    // On the calling thread the images' lines keep their order.
    EXPECT_TRUE(testing::SameText(expected.lines, actual.lines, "no thread"));
  }
  Ran(Path::kThreadFallbackAll);
}

TEST(ConvolveThreads, SomeThreadsCannotBeCreated) {
  testing::Random random(0x3);
  for (const int32_t batch : kBatches) {
    const Convolution c = Batch(batch);
    ResetWatch(batch);
    ExpectSameAsOracle(c,
                       testing::DrawConvolution<int32_t>(&random, c, testing::Data::kSmall, true),
                       CreateTwoOfThree, "some threads");
    EXPECT_EQ(watch.created, batch);
  }
  Ran(Path::kThreadFallbackSome);
}

TEST(ConvolveThreads, OneRedLinePerImageThatNeedsIt) {
  testing::Random random(0x4ed);
  for (const int32_t batch : kBatches) {
    Convolution c = Batch(batch);
    c.is_depthwise = true;
    c.filter_per_image = true;
    const auto data = DrawDepthwise(c, &random);
    ExpectSameAsOracle(c, data, pthread_create, "depthwise threads");
    const auto printed = testing::ThreadedConvolution(c, data, pthread_create).lines;
    EXPECT_EQ(testing::SortedLines(printed).size(), static_cast<size_t>((batch + 1) / 3)) << batch;
  }
}

// Without a filter per image all images use the first, and each that needs it prints its line.
TEST(ConvolveThreads, OneFilterForAllImages) {
  testing::Random random(0x1f);
  Convolution c = Batch(21);
  c.is_depthwise = true;
  auto data = testing::DrawConvolution<int32_t>(&random, c, testing::Data::kSmall, false);
  for (int32_t& weight : data.filter) weight = 40;  // 12 bits: above 31
  ExpectSameAsOracle(c, data, pthread_create, "depthwise threads");
  EXPECT_EQ(
      testing::SortedLines(testing::ThreadedConvolution(c, data, pthread_create).lines).size(),
      21u);
}

}  // namespace
}  // namespace bitfold
