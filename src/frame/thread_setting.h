// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The process's choice of threads, as bitfold/image_threads.h offers it to C.

#ifndef BITFOLD_SRC_FRAME_THREAD_SETTING_H_
#define BITFOLD_SRC_FRAME_THREAD_SETTING_H_

namespace bitfold {

// Whether convolutions that begin now have a thread for each image.
bool ImageThreadsAreOn();

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_THREAD_SETTING_H_
