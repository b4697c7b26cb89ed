/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * Which threads compute a convolution on the CPU, for callers outside the runtime. One setting for
 * the process.
 *
 * C and C++. Link with libbitfold.so, whose path `bitfold.library_path()` prints, or load it. The
 * function may be called from any thread.
 */

#ifndef BITFOLD_IMAGE_THREADS_H_
#define BITFOLD_IMAGE_THREADS_H_

#ifdef __cplusplus
extern "C" {
#endif

/* What convolutions that begin from now on compute with. 0: the runtime's pool of threads, which
 * share images and parts of images. Anything else: a POSIX thread of its own for each image, at
 * most 20 of them at a time. The results and the lines of an image are the same.
 *
 * When the library is loaded, the environment variable BITFOLD_IMAGE_THREADS decides: 1 stands for
 * a thread for each image. Returns the setting before, 0 or 1. */
int bitfold_set_image_threads(int on);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* BITFOLD_IMAGE_THREADS_H_ */
