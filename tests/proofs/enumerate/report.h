// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What enumerations found, as a table in Markdown and as JSON.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_REPORT_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_REPORT_H_

#include <string>
#include <vector>

#include "proofs/enumerate/engine.h"

namespace bitfold::enumeration {

// 1234567 as 1,234,567.
std::string Grouped(uint64_t number);

std::string TableHead();
std::string TableRow(const Result& result);

// A line for each form that differs, and for each control that does not; what controls were refuted
// by where `with_controls`.
std::string Findings(const Result& result, bool with_controls);

std::string Json(const std::vector<Result>& results);

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_REPORT_H_
