// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The registration of ops and kernels when the library is loaded, once in a process: with two
// kernels for one op, of two copies of the library, the runtime runs neither.

#ifndef BITFOLD_SRC_FRAME_OP_REGISTRATION_H_
#define BITFOLD_SRC_FRAME_OP_REGISTRATION_H_

namespace bitfold {

// Calls `registers` unless the process has loaded another copy of the library before this one. A
// copy that registers nothing is refused, with the names of both files: tf.load_op_library gives an
// error; for any other loader, who wants the exported functions, an error is logged.
bool RegisterInFirstCopy(void (*registers)());

// Begins a function that registers ops or kernels, to be called when the library is loaded, if it
// is the first copy.
#define BITFOLD_WHEN_LOADED(name)                                                  \
  static void name();                                                              \
  [[maybe_unused]] static const bool name##InThisCopy = RegisterInFirstCopy(name); \
  static void name()

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_OP_REGISTRATION_H_
