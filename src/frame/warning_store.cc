// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/warning_store.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <utility>

#include "bitfold/warning.h"

namespace bitfold {
namespace {

using Counts = std::map<std::pair<std::string, std::string>, BitfoldWarningCounts>;

std::atomic<bool> all_are_counted{false};
std::atomic<BitfoldWarningVisitor> current_listener{nullptr};
std::atomic<int> listeners_running{0};

// Never destroyed: the runtime's threads may outlive this library's static objects.
struct Store {
  std::mutex mutex;
  Counts counts;
};

Store& TheStore() {
  static Store* const store = new Store;
  return *store;
}

// Unlike forks, which compute the same graphs, a process that loads what this one saved has
// another.
std::string DrawWord() {
  std::random_device device;
  char word[32];
  std::snprintf(word, sizeof(word), "counted_%08x%04x", device(), getpid() & 0xffff);
  return word;
}

const std::string& CountingWord() {
  static const std::string* const word = new std::string(DrawWord());
  return *word;
}

}  // namespace

bool WarningsAreCounted() { return all_are_counted.load(std::memory_order_relaxed); }

bool IsCountedNode(const std::string& node) {
  return node.find(CountingWord()) != std::string::npos;
}

void RecordWarnings(const std::string& op, const std::string& node,
                    const BitfoldWarningCounts& counts) {
  {
    const std::lock_guard<std::mutex> lock(TheStore().mutex);
    AddCounts(counts, &TheStore().counts[{op, node}]);
  }
  // Counted before the listener is read: who replaces it and then finds none running knows that
  // the former one is not called any more.
  ++listeners_running;
  const BitfoldWarningVisitor listener = current_listener;
  if (listener != nullptr) listener(op.c_str(), node.c_str(), &counts);
  --listeners_running;
}

}  // namespace bitfold

int bitfold_set_warnings(int counted, BitfoldWarningVisitor listener) {
  bitfold::current_listener = counted != 0 ? listener : nullptr;
  bitfold::all_are_counted = counted != 0;
  return bitfold::listeners_running;
}

void bitfold_visit_warning_counts(int reset, BitfoldWarningVisitor visitor) {
  bitfold::Counts counts;
  {
    const std::lock_guard<std::mutex> lock(bitfold::TheStore().mutex);
    if (reset != 0) {
      counts.swap(bitfold::TheStore().counts);
    } else {
      counts = bitfold::TheStore().counts;
    }
  }
  for (const auto& [place, count] : counts) {
    visitor(place.first.c_str(), place.second.c_str(), &count);
  }
}

const char* bitfold_counting_word(void) { return bitfold::CountingWord().c_str(); }
