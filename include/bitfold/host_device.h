// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Marks a function that the device compiler must see as well as the host's.

#ifndef BITFOLD_HOST_DEVICE_H_
#define BITFOLD_HOST_DEVICE_H_

#if defined(__CUDACC__) || defined(__CUDA__)
#define BITFOLD_HOST_DEVICE __host__ __device__
#else
#define BITFOLD_HOST_DEVICE
#endif

#endif  // BITFOLD_HOST_DEVICE_H_
