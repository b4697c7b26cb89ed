// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/workers.h"

#include <exception>
#include <mutex>

#include "bitfold/warning.h"
#include "frame/floating_point_scope.h"

namespace bitfold {

void Workers::Share(int64_t units, int64_t cost, const Part& part) {
  if (units < 1) return;
  BitfoldWarningCounts* const counts = CountsOfThisThread();
  std::mutex mutex;  // of what the parts leave behind: counts and a failure
  std::exception_ptr failure;
  ShareGuarded(units, cost, [&](int64_t first, int64_t end) {
    const DefaultFloatingPointScope environment;
    BitfoldWarningCounts own{};
    try {
      const WarningScope warnings(counts != nullptr ? &own : nullptr);
      part(first, end);
    } catch (...) {
      const std::lock_guard<std::mutex> lock(mutex);
      if (!failure) failure = std::current_exception();
    }
    if (!HasCounts(own)) return;
    const std::lock_guard<std::mutex> lock(mutex);
    AddCounts(own, counts);
  });
  if (failure) std::rethrow_exception(failure);
}

}  // namespace bitfold
