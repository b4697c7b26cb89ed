// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The CPU convolution of a batch with a POSIX thread for each image, in groups of 20: what a caller
// may choose who counts on it. A pool of threads is faster (cpu/convolution.h).

#ifndef BITFOLD_SRC_CPU_IMAGE_THREADS_H_
#define BITFOLD_SRC_CPU_IMAGE_THREADS_H_

#include <pthread.h>

#include "bitfold/convolution_call.h"
#include "frame/scratch.h"

namespace bitfold {

inline constexpr int kImageThreads = 20;

// pthread_create's signature; tests pass one that fails.
using CreateThread = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

// The bits and lines of convolve4DTensorSlow; lines of different images may come in any order. A
// fixed table of 20 records and threads: image i uses slot i mod 20, and the table is reused once
// all its threads have been joined. An image whose thread cannot be created is computed on the
// calling thread instead. Rethrows the first exception of a group's images, all its threads joined;
// the outputs are incomplete then.
template <typename T>
void ComputeByImageThreads(const ConvolutionCall<T>& call, Scratch* scratch,
                           CreateThread create = pthread_create);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_IMAGE_THREADS_H_
