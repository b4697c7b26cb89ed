// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Defects in the translated text: other instructions in the places of some, one at a time.

#ifndef BITFOLD_TESTS_PTX_PLANTED_H_
#define BITFOLD_TESTS_PTX_PLANTED_H_

#include <cstdint>

namespace bitfold::ptx {

// The number of the defect that is there; below 0, none is.
extern int planted_defect;

// How often its instruction was reached, and gave something else than the one whose place it has.
struct DefectCounts {
  int64_t reached;
  int64_t differed;
};
extern DefectCounts& defect_counts;

inline bool IsPlanted(int number) {
  if (__builtin_expect(planted_defect != number, 1)) return false;
  ++defect_counts.reached;
  ++defect_counts.differed;  // taken to
  return true;
}

template <typename T>
T Altered(T original, T altered) {
  ++defect_counts.reached;
  if (original != altered) ++defect_counts.differed;
  return altered;
}

// What an instruction gives, and while the defect is there, what the other one gives.
#define PLANTED(number, original, altered)                         \
  (__builtin_expect(::bitfold::ptx::planted_defect == (number), 0) \
       ? ::bitfold::ptx::Altered(original, altered)                \
       : (original))

}  // namespace bitfold::ptx

#endif  // BITFOLD_TESTS_PTX_PLANTED_H_
