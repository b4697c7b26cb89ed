// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The runtime's pool of threads for the inside of an op.

#ifndef BITFOLD_SRC_FRAME_OP_WORKERS_H_
#define BITFOLD_SRC_FRAME_OP_WORKERS_H_

#include <cstdint>

#include "frame/pools.h"
#include "frame/workers.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/util/work_sharder.h"

namespace bitfold {

class OpWorkers : public Workers {
 public:
  explicit OpWorkers(tensorflow::OpKernelContext* context)
      : threads_(*context->device()->tensorflow_cpu_worker_threads()),
        has_threads_(HasThreads(threads_.workers)) {}

  int AtOnce() const override { return has_threads_ ? threads_.num_threads : 1; }

 private:
  void ShareGuarded(int64_t units, int64_t cost, const Part& part) override {
    if (!has_threads_) return part(0, units);
    tensorflow::Shard(threads_.num_threads, threads_.workers, units, cost, part);
  }

  const tensorflow::DeviceBase::CpuWorkerThreads& threads_;
  const bool has_threads_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_OP_WORKERS_H_
