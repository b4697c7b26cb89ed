// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Pools of threads and forks: the child of a fork has the parent's pools, but not their threads,
// and would wait for them without end.

#ifndef BITFOLD_SRC_FRAME_POOLS_H_
#define BITFOLD_SRC_FRAME_POOLS_H_

namespace bitfold {

// Whether a pool has its threads, as far as this knows: false where a process that this one was
// forked from has asked for it before. May be called by any thread.
bool HasThreads(const void* pool);

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_POOLS_H_
