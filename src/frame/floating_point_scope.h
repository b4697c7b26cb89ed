// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_FRAME_FLOATING_POINT_SCOPE_H_
#define BITFOLD_SRC_FRAME_FLOATING_POINT_SCOPE_H_

#include <cfenv>

namespace bitfold {

// The default floating-point environment for the life of the object: round to nearest even,
// subnormals kept, no traps. The runtime's pool threads flush subnormals to zero and its callers'
// threads do not, so without this the bits would depend on the thread.
class DefaultFloatingPointScope {
 public:
  DefaultFloatingPointScope() {
    std::fegetenv(&saved_);
    std::fesetenv(FE_DFL_ENV);
  }
  ~DefaultFloatingPointScope() { std::fesetenv(&saved_); }

  DefaultFloatingPointScope(const DefaultFloatingPointScope&) = delete;
  DefaultFloatingPointScope& operator=(const DefaultFloatingPointScope&) = delete;

 private:
  std::fenv_t saved_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_FLOATING_POINT_SCOPE_H_
