/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * When the lines of kernels on a GPU appear, for callers outside the runtime.
 *
 * C and C++. Link with libbitfold.so, whose path `bitfold.library_path()` prints, or load it. The
 * function may be called from any thread.
 */

#ifndef BITFOLD_DEVICE_LINES_H_
#define BITFOLD_DEVICE_LINES_H_

#ifdef __cplusplus
extern "C" {
#endif

/* Waits for the GPUs on which this library launched kernels, which brings their lines to C's
 * standard output, and writes out its buffer. A GPU keeps the lines until the next launch or such a
 * wait, and a process that ends without one loses them. Returns 0, also where nothing was launched
 * or there is no GPU, or the CUDA runtime's code of what failed. */
int bitfold_flush_device_lines(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* BITFOLD_DEVICE_LINES_H_ */
