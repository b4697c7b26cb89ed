// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What calls of ops counted instead of printing, by op and node: the process's setting and its
// counts, as bitfold/warning_counts.h offers them to C.

#ifndef BITFOLD_SRC_FRAME_WARNING_STORE_H_
#define BITFOLD_SRC_FRAME_WARNING_STORE_H_

#include <string>

#include "bitfold/warning_counts.h"

namespace bitfold {

// Whether calls that begin now count their lines, whatever the node.
bool WarningsAreCounted();

// Whether those of a node of this name always do.
bool IsCountedNode(const std::string& node);

// Adds what a call of an op counted and tells the listener.
void RecordWarnings(const std::string& op, const std::string& node,
                    const BitfoldWarningCounts& counts);

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_WARNING_STORE_H_
