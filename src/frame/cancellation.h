// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Whether a call is still wanted, asked now and then by loops that may take long.

#ifndef BITFOLD_SRC_FRAME_CANCELLATION_H_
#define BITFOLD_SRC_FRAME_CANCELLATION_H_

namespace bitfold {

class Cancellation {
 public:
  virtual ~Cancellation() = default;

  // Once true, true for good: the output may then be left as it is.
  virtual bool IsRequested() const = 0;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_CANCELLATION_H_
