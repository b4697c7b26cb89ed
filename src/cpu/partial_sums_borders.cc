// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_borders.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "vector/intrinsics.h"
#include "vector/target.h"
#include "vector/target_code.h"

namespace bitfold {

#if BITFOLD_HAS_TARGETS
namespace {

inline int32_t WordAt(const uint8_t* x) {
  int32_t word;
  std::memcpy(&word, x, sizeof word);
  return word;
}

BITFOLD_BEGIN_AVX512_VNNI

using Vector = __m512i;

// The sums of P columns of N panels.
template <int P, int N>
struct Sums {
  Vector v[P][N];
};

// Adds `words` words of a row.
template <int P, int N>
inline void AddSegment(const BorderTile& tile, const uint8_t* x, const int32_t* w, int32_t words,
                       Sums<P, N>* sums) {
  const int64_t pixel = tile.x_pixel;
  for (int32_t k = 0; k < words; ++k, x += sizeof(int32_t)) {
    const uint8_t* tap = x;
    for (int32_t t = 0; t < tile.taps; ++t, tap += tile.x_tap, w += kSumLanes) {
      Vector weights[N];
      BITFOLD_UNROLL
      for (int n = 0; n < N; ++n) weights[n] = _mm512_loadu_si512(w + n * tile.w_panel);
      BITFOLD_UNROLL
      for (int p = 0; p < P; ++p) {
        const Vector same = _mm512_set1_epi32(WordAt(tap + p * pixel));
        BITFOLD_UNROLL
        for (int n = 0; n < N; ++n) {
          sums->v[p][n] = _mm512_dpbusd_epi32(sums->v[p][n], same, weights[n]);
        }
      }
    }
  }
}

// Looks at where the segment ends: whether a panel's partial sums may have left what is quiet.
template <int P, int N>
inline uint32_t Changes(const Sums<P, N>& sums, const SegmentBounds* bounds, int64_t bounds_panel,
                        const PanelRecord* panels, Vector* least, Vector* greatest) {
  uint32_t changes = 0;
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    const SegmentBounds& of = bounds[n * bounds_panel];
    Vector low = sums.v[0][n];
    Vector high = sums.v[0][n];
    BITFOLD_UNROLL
    for (int p = 1; p < P; ++p) {
      low = _mm512_min_epi32(low, sums.v[p][n]);
      high = _mm512_max_epi32(high, sums.v[p][n]);
    }
    const Vector excess = _mm512_load_si512(of.excess);
    low = _mm512_sub_epi32(low, excess);
    high = _mm512_sub_epi32(high, excess);
    const Vector bottom =
        _mm512_sub_epi32(_mm512_min_epi32(low, least[n]), _mm512_load_si512(of.below));
    const Vector top =
        _mm512_add_epi32(_mm512_max_epi32(high, greatest[n]), _mm512_load_si512(of.above));
    const __mmask16 is_low =
        _mm512_cmplt_epi32_mask(bottom, _mm512_load_si512(panels[n].quiet_least));
    const __mmask16 is_high =
        _mm512_cmpgt_epi32_mask(top, _mm512_load_si512(panels[n].quiet_greatest));
    changes |= (is_low | is_high) != 0 ? 1u << n : 0u;
    least[n] = low;
    greatest[n] = high;
  }
  return changes;
}

template <int P, int N>
inline void Store(const Sums<P, N>& sums, int32_t (*to)[kBorderPanels][kSumLanes]) {
  BITFOLD_UNROLL
  for (int p = 0; p < P; ++p) {
    BITFOLD_UNROLL
    for (int n = 0; n < N; ++n) _mm512_store_si512(to[p][n], sums.v[p][n]);
  }
}

template <int P, int N>
int32_t Advance(const BorderTile& tile, const PanelRecord* panels, int32_t first,
                BorderSums* state) {
  Sums<P, N> sums;
  Vector least[N];
  Vector greatest[N];
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    least[n] = _mm512_load_si512(state->least[n]);
    greatest[n] = _mm512_load_si512(state->greatest[n]);
    BITFOLD_UNROLL
    for (int p = 0; p < P; ++p) sums.v[p][n] = _mm512_load_si512(state->end[p][n]);
  }
  const int32_t of_row = tile.RowSegments();
  const int32_t end = tile.Segments();
  int32_t segment = first;
  uint32_t changes = 0;
  for (; segment < end; ++segment) {
    const int32_t row = segment / of_row;
    const int32_t word = segment % of_row * tile.segment_words;
    const int32_t words = std::min(tile.segment_words, tile.words - word);
    const int64_t taps_before = (int64_t{row} * tile.words + word) * tile.taps;
    Store<P, N>(sums, state->start);
    AddSegment<P, N>(tile, tile.x + row * tile.x_row + word * 4, tile.w + taps_before * kSumLanes,
                     words, &sums);
    changes =
        Changes<P, N>(sums, tile.bounds + segment, tile.bounds_panel, panels, least, greatest);
    if (changes != 0) break;
  }
  Store<P, N>(sums, state->end);
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    _mm512_store_si512(state->least[n], least[n]);
    _mm512_store_si512(state->greatest[n], greatest[n]);
  }
  state->changes = changes;
  return segment;
}

int32_t Step(const SegmentSteps& steps, const int32_t* sums, int32_t (*partial)[kSumLanes]) {
  Vector sum = _mm512_loadu_si512(sums);
  int32_t count = 0;
  for (int32_t c = 0; c < steps.channels; ++c) {
    const uint8_t* const x = steps.x + c;
    const int32_t* const w = steps.w + int64_t{c / 4} * steps.taps * kSumLanes;
    const __m128i up = _mm_cvtsi32_si128(24 - c % 4 * 8);
    for (int32_t t = steps.first_tap; t < steps.end_tap; ++t) {
      const Vector word = _mm512_loadu_si512(w + t * kSumLanes);
      const Vector weight = _mm512_srai_epi32(_mm512_sll_epi32(word, up), 24);
      const Vector number = _mm512_set1_epi32(x[t * steps.x_tap] - steps.offset);
      sum = _mm512_add_epi32(sum, _mm512_mullo_epi32(weight, number));
      _mm512_store_si512(partial[count++], sum);
    }
  }
  return count;
}

#define BITFOLD_ADVANCE(pixels) \
  { Advance<pixels, 1>, Advance<pixels, 2> }
constexpr BorderKernels kKernels = {
    {7, 4, 2, 1},
    {BITFOLD_ADVANCE(7), BITFOLD_ADVANCE(4), BITFOLD_ADVANCE(2), BITFOLD_ADVANCE(1)},
    Step};
#undef BITFOLD_ADVANCE

BITFOLD_END_TARGET

}  // namespace
#endif  // BITFOLD_HAS_TARGETS

const BorderKernels* CurrentBorderKernels() {
#if BITFOLD_HAS_TARGETS
  if (CurrentTarget() == Target::kAvx512Vnni) return &kKernels;
#endif
  return nullptr;
}

}  // namespace bitfold
