// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The headers of the rules as they ship, read with words that record in place of integers. Nothing
// of them is written anew, so what is proven is proven of their text.

#ifndef BITFOLD_TESTS_PROOFS_RECORDED_HEADERS_H_
#define BITFOLD_TESTS_PROOFS_RECORDED_HEADERS_H_

// What the headers include is read before their names mean something else.
#include <math.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "proofs/word.h"

namespace bitfold_proofs_words = bitfold::proofs;

// Prints, and is no rule.
#define BITFOLD_WARNING_H_

#define bitfold bitfold_recorded
#define constexpr
#define int8_t bitfold_proofs_words::Int8
#define int16_t bitfold_proofs_words::Int16
#define int32_t bitfold_proofs_words::Int32
#define int64_t bitfold_proofs_words::Int64
#define uint8_t bitfold_proofs_words::UInt8
#define uint16_t bitfold_proofs_words::UInt16
#define uint32_t bitfold_proofs_words::UInt32
#define uint64_t bitfold_proofs_words::UInt64

#include "bitfold/accumulator.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/int32_passes.h"
#include "bitfold/int64_arithmetic.h"
#include "bitfold/product_scaling.h"
#include "bitfold/requantise.h"

#undef bitfold
#undef constexpr
#undef int8_t
#undef int16_t
#undef int32_t
#undef int64_t
#undef uint8_t
#undef uint16_t
#undef uint32_t
#undef uint64_t

#endif  // BITFOLD_TESTS_PROOFS_RECORDED_HEADERS_H_
