// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The CPU convolution of a batch: one POSIX thread per image, in groups of 20. Knows nothing of
// the runtime, so that it can be tested and sanitised without it.

#ifndef BITFOLD_SRC_CPU_CONVOLUTION_H_
#define BITFOLD_SRC_CPU_CONVOLUTION_H_

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "bitfold/convolution_call.h"
#include "bitfold/datapath.h"
#include "bitfold/geometry.h"
#include "chain/engine.h"
#include "frame/scratch.h"

namespace bitfold {

inline constexpr int kImageThreads = 20;

// pthread_create's signature; tests pass one that fails.
using CreateThread = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

// The convolutions of a call, as fast as its numbers allow.
template <typename T>
class BatchConvolution {
 public:
  // Up to kImageThreads images run at the same time. What the call points to stays.
  BatchConvolution(const ConvolutionCall<T>& call, Scratch* scratch);

  // Computes and writes the outputs of an image and prints its lines.
  void Run(int32_t image) const;

  // How; empty where by the definition.
  std::optional<ChainPlan> plan() const { return engine_ ? engine_->plan() : std::nullopt; }

 private:
  using Engine = ChainEngine<Datapath<T>, T>;

  bool NeedsWarning(int32_t image) const;

  const ConvolutionCall<T> call_;
  std::unique_ptr<Engine> engine_;
  bool corrects_ = false;  // depthwise: whether the sign of some weight is corrected
};

// The bits and lines of convolve4DTensorSlow; lines of different images may come in any order. A
// fixed table of 20 records and threads: image i uses slot i mod 20, and the table is reused once
// all its threads have been joined. An image whose thread cannot be created is computed on the
// calling thread instead. Rethrows the first exception of a group's images, all its threads joined;
// the outputs are incomplete then.
template <typename T>
void ComputeConvolution(const ConvolutionCall<T>& call, Scratch* scratch,
                        CreateThread create = pthread_create);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_CONVOLUTION_H_
