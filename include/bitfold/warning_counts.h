/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * What becomes of the lines that ops print when sums leave their range: printed, or counted by op
 * and node, for callers outside the runtime. One setting for the process. docs/warnings.md says
 * what the lines mean.
 *
 * C and C++. Link with libbitfold.so, whose path `bitfold.library_path()` prints, or load it. The
 * functions may be called from any thread.
 */

#ifndef BITFOLD_WARNING_COUNTS_H_
#define BITFOLD_WARNING_COUNTS_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Lines of each kind. */
typedef struct BitfoldWarningCounts {
  int64_t out_of_bounds;     /* float sums outside [-8388607, 8388607) */
  int64_t corrected_weights; /* images or matrices with a weight whose sign was corrected */
  int64_t softmax_overflows; /* softmax sums above 2^24 - 1, which wrapped */
} BitfoldWarningCounts;

/* Told the registered name of an op, the name of its node and what was counted; the pointers are
 * valid during the call. */
typedef void (*BitfoldWarningVisitor)(const char* op, const char* node,
                                      const BitfoldWarningCounts* counts);

/* What calls of ops that begin from now on do with their lines. 0, as when the library is loaded:
 * they are printed, but those of nodes with bitfold_counting_word() in their names are counted.
 * Anything else: all are counted, and `listener`, unless it is NULL, is told the counts of each
 * call of an op that would have printed, on the thread that computed it, before the call's outputs
 * are there.
 *
 * Returns how many calls of listeners have not returned. When that is 0, a former listener is not
 * called any more. */
int bitfold_set_warnings(int counted, BitfoldWarningVisitor listener);

/* Calls `visitor` for each op and node with counts, on this thread. With `reset` not 0 they start
 * anew: each line is then visited once. */
void bitfold_visit_warning_counts(int reset, BitfoldWarningVisitor visitor);

/* A word of letters, digits and underscores that no other process has, but forks of this one. */
const char* bitfold_counting_word(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* BITFOLD_WARNING_COUNTS_H_ */
