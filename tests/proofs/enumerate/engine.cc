// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "proofs/enumerate/engine.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "proofs/enumerate/comparer.h"

namespace bitfold::enumeration {
namespace {

constexpr uint64_t kControlSample = 1021;  // what is searched for a difference of a control
constexpr uint64_t kBlocksAtOnce = 64;
constexpr size_t kMostForms = 16;

using Tallies = std::array<Tally, kMostForms>;

// What the processes share.
struct Shared {
  std::atomic<uint64_t> next;
  std::atomic<uint64_t> done;
};

// Takes blocks until there are no more.
void Work(const Enumeration& enumeration, const Blocks& blocks, Shared* shared, Tallies* tallies) {
  const auto comparer = std::make_unique<Comparer>(enumeration, blocks);
  for (;;) {
    const uint64_t first = shared->next.fetch_add(kBlocksAtOnce);
    if (first >= blocks.count()) return;
    const uint64_t end = std::min(first + kBlocksAtOnce, blocks.count());
    for (uint64_t i = first; i < end; ++i) {
      comparer->Compare(blocks.Number(i), enumeration.forms, tallies->data());
    }
    shared->done += end - first;
  }
}

// In a process of its own, of which nothing else may run.
[[noreturn]] void WorkAndEnd(const Enumeration& enumeration, const Blocks& blocks, Shared* shared,
                             Tallies* tallies) {
  try {
    Work(enumeration, blocks, shared, tallies);
  } catch (...) {
    _exit(EXIT_FAILURE);
  }
  _exit(EXIT_SUCCESS);
}

// Memory that forks share, zero at first.
class SharedMemory {
 public:
  explicit SharedMemory(size_t size) : size_(size) {
    at_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (at_ == MAP_FAILED) throw std::runtime_error("no memory to share");
  }
  ~SharedMemory() { munmap(at_, size_); }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;
  void* at() const { return at_; }

 private:
  void* at_;
  size_t size_;
};

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Of this process and of those that it has waited for.
double ProcessorSeconds() {
  double seconds = 0;
  for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage;
    getrusage(who, &usage);
    seconds += static_cast<double>(usage.ru_utime.tv_sec) +
               1e-6 * static_cast<double>(usage.ru_utime.tv_usec);
  }
  return seconds;
}

// Waits for all of them, and says how far they are.
void Await(const std::vector<pid_t>& children, const Shared& shared, uint64_t blocks,
           const Options& options) {
  const auto start = Clock::now();
  bool failed = false;
  for (const pid_t child : children) {
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      const auto done = static_cast<double>(shared.done) / static_cast<double>(blocks);
      if (options.progress) options.progress(done, SecondsSince(start));
    }
    failed |= !WIFEXITED(status) || WEXITSTATUS(status) != 0;
  }
  if (failed) throw std::runtime_error("a process that went through inputs has ended");
}

Tallies Joined(const Tallies* parts, int count) {
  Tallies joined = parts[0];
  for (int p = 1; p < count; ++p) {
    for (size_t f = 0; f < kMostForms; ++f) {
      const Tally& part = parts[p][f];
      Tally& sum = joined[f];
      const bool is_first =
          part.differences > 0 && (sum.differences == 0 || part.first.block < sum.first.block);
      if (is_first) sum.first = part.first;
      sum.inputs += part.inputs;
      sum.differences += part.differences;
    }
  }
  return joined;
}

Tallies TalliesOf(const Enumeration& enumeration, const Blocks& blocks, const Options& options) {
  const int parts = std::max(options.processes, 1);
  const SharedMemory memory(sizeof(Shared) + static_cast<size_t>(parts) * sizeof(Tallies));
  auto* shared = new (memory.at()) Shared{};
  auto* tallies = reinterpret_cast<Tallies*>(shared + 1);
  if (options.processes == 0) {
    Work(enumeration, blocks, shared, tallies);
    return tallies[0];
  }
  std::vector<pid_t> children;
  for (int p = 0; p < parts; ++p) {
    const pid_t child = fork();
    if (child == 0) WorkAndEnd(enumeration, blocks, shared, tallies + p);
    if (child > 0) children.push_back(child);
  }
  if (children.empty()) throw std::runtime_error("no process could be started");
  Await(children, *shared, blocks.count(), options);
  return Joined(tallies, parts);
}

// As far as its first difference.
FormResult Search(const Enumeration& enumeration, const Blocks& blocks, const Form& control) {
  const auto comparer = std::make_unique<Comparer>(enumeration, blocks);
  const std::vector<Form> forms = {control};
  Tally tally = {};
  for (uint64_t i = 0; i < blocks.count() && tally.differences == 0; ++i) {
    comparer->Compare(blocks.Number(i), forms, &tally);
  }
  const bool is_found = tally.differences != 0;
  return {control.name, tally.inputs, tally.differences,
          is_found ? comparer->Describe(tally.first) : ""};
}

}  // namespace

bool Result::IsRight() const {
  const auto agrees = [](const FormResult& form) {
    return form.inputs > 0 && form.differences == 0;
  };
  const auto differs = [](const FormResult& form) { return form.differences > 0; };
  return std::all_of(forms.begin(), forms.end(), agrees) &&
         std::all_of(controls.begin(), controls.end(), differs);
}

Result GoThrough(const Enumeration& enumeration, const Options& options) {
  const auto start = Clock::now();
  const double processor = ProcessorSeconds();
  if (enumeration.forms.size() > kMostForms) throw std::runtime_error("more forms than tallies");
  const Blocks blocks(enumeration, options.sample, options.takes_boundaries);
  const Tallies tallies = TalliesOf(enumeration, blocks, options);

  Result result = {enumeration.rule,
                   enumeration.claim,
                   enumeration.inputs.name,
                   enumeration.settings.size(),
                   blocks.Inputs(),
                   0,
                   0,
                   {},
                   {}};
  const auto comparer = std::make_unique<Comparer>(enumeration, blocks);
  for (size_t f = 0; f < enumeration.forms.size(); ++f) {
    const Tally& tally = tallies[f];
    const Form& form = enumeration.forms[f];
    if (!form.select && tally.inputs != result.inputs)
      throw std::runtime_error("inputs are missing");
    const bool is_found = tally.differences != 0;
    result.forms.push_back({form.name, tally.inputs, tally.differences,
                            is_found ? comparer->Describe(tally.first) : ""});
  }
  const Blocks searched(enumeration, kControlSample);
  for (const Form& control : enumeration.controls) {
    result.controls.push_back(Search(enumeration, searched, control));
  }
  result.seconds = SecondsSince(start);
  result.processor_seconds = ProcessorSeconds() - processor;
  return result;
}

double Estimate(const Enumeration& enumeration) {
  constexpr uint64_t kTried = 256;
  const Blocks blocks(enumeration, 1);
  const auto comparer = std::make_unique<Comparer>(enumeration, blocks);
  Tallies tallies = {};
  const uint64_t tried = std::min(kTried, blocks.count());
  const double start = ProcessorSeconds();
  for (uint64_t i = 0; i < tried; ++i) {
    comparer->Compare(i * blocks.count() / tried, enumeration.forms, tallies.data());
  }
  const double each = (ProcessorSeconds() - start) / static_cast<double>(tried);
  return each * static_cast<double>(blocks.count());
}

}  // namespace bitfold::enumeration
