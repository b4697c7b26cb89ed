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

// The sums of P columns of N panels. What adds to them does so in a copy of its own: its address is
// not taken, and it stays in registers.
template <int P, int N>
struct Sums {
  Vector v[P][N];
};

template <int P, int N>
inline void Copy(const Vector (&from)[P][N], Vector (&to)[P][N]) {
  BITFOLD_UNROLL
  for (int p = 0; p < P; ++p) {
    BITFOLD_UNROLL
    for (int n = 0; n < N; ++n) to[p][n] = from[p][n];
  }
}

// Adds `words` words of a row.
template <int P, int N>
inline void AddSegment(const BorderTile& tile, const uint8_t* x, const int32_t* w, int32_t words,
                       Sums<P, N>* sums) {
  const int64_t pixel = tile.x_pixel;
  const int64_t panel = tile.w_panel;
  const int64_t x_tap = tile.x_tap;
  const int32_t taps = tile.taps;
  Vector acc[P][N];
  Copy<P, N>(sums->v, acc);
  for (int32_t k = 0; k < words; ++k, x += sizeof(int32_t)) {
    const uint8_t* tap = x;
    for (int32_t t = 0; t < taps; ++t, tap += x_tap, w += kSumLanes) {
      Vector weights[N];
      BITFOLD_UNROLL
      for (int n = 0; n < N; ++n) weights[n] = _mm512_loadu_si512(w + n * panel);
      BITFOLD_UNROLL
      for (int p = 0; p < P; ++p) {
        const Vector same = _mm512_set1_epi32(WordAt(tap + p * pixel));
        BITFOLD_UNROLL
        for (int n = 0; n < N; ++n) {
          acc[p][n] = _mm512_dpbusd_epi32(acc[p][n], same, weights[n]);
        }
      }
    }
  }
  Copy<P, N>(acc, sums->v);
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
inline void Load(const int32_t (*from)[kBorderPanels][kSumLanes], Sums<P, N>* sums) {
  BITFOLD_UNROLL
  for (int p = 0; p < P; ++p) {
    BITFOLD_UNROLL
    for (int n = 0; n < N; ++n) sums->v[p][n] = _mm512_load_si512(from[p][n]);
  }
}

template <int P, int N>
inline void Store(const Sums<P, N>& sums, int32_t (*to)[kBorderPanels][kSumLanes]) {
  BITFOLD_UNROLL
  for (int p = 0; p < P; ++p) {
    BITFOLD_UNROLL
    for (int n = 0; n < N; ++n) _mm512_store_si512(to[p][n], sums.v[p][n]);
  }
}

inline void Extend(Vector low, Vector high, const SumLimits& limits, PanelRecord* panel) {
  const Vector least = _mm512_min_epi32(low, _mm512_load_si512(panel->least));
  const Vector greatest = _mm512_max_epi32(high, _mm512_load_si512(panel->greatest));
  _mm512_store_si512(panel->least, least);
  _mm512_store_si512(panel->greatest, greatest);
  _mm512_store_si512(panel->quiet_least, _mm512_max_epi32(least, _mm512_set1_epi32(limits.low)));
  _mm512_store_si512(panel->quiet_greatest,
                     _mm512_min_epi32(greatest, _mm512_set1_epi32(limits.high)));
}

// What the bytes' offset has added to the sums before a segment.
template <int N>
inline void ExcessAt(const BorderTile& tile, int32_t segment, Vector (&excess)[N]) {
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    excess[n] = _mm512_loadu_si512(
        segment == 0 ? tile.excess[n] : tile.bounds[n * tile.bounds_panel + segment - 1].excess);
  }
}

// Where a segment of a tile begins, and its channels.
struct SegmentAt {
  const uint8_t* x;
  const int32_t* w;
  int32_t channels;
  int32_t segment;
};

// Calls step(x, one, excess) for each step of a segment: a dot product of the word at x, of pixel
// 0, with one channel's weights of each panel, after which the sums have `excess`.
template <int N, typename F>
inline void ForEachStepOfPanels(const BorderTile& tile, const SegmentAt& at, F step) {
  const Vector offset = _mm512_set1_epi8(static_cast<char>(tile.offset));
  Vector excess[N];
  ExcessAt<N>(tile, at.segment, excess);
  for (int32_t c = 0; c < at.channels; ++c) {
    const Vector mask = _mm512_set1_epi32(static_cast<int32_t>(0xffu << (c % 4 * 8)));
    const uint8_t* tap = at.x + c / 4 * 4;
    const int32_t* word = at.w + int64_t{c / 4} * tile.taps * kSumLanes;
    for (int32_t t = 0; t < tile.taps; ++t, tap += tile.x_tap, word += kSumLanes) {
      Vector one[N];
      BITFOLD_UNROLL
      for (int n = 0; n < N; ++n) {
        one[n] = _mm512_and_si512(_mm512_loadu_si512(word + n * tile.w_panel), mask);
        excess[n] = _mm512_dpbusd_epi32(excess[n], offset, one[n]);
      }
      step(tap, one, excess);
    }
  }
}

// Adds a segment step by step. Returns whether all partial sums are quiet. One comparison is enough
// for both limits: what is below the lower one is large as an unsigned distance from it.
template <int P, int N>
inline bool StepQuietly(const BorderTile& tile, const SegmentAt& at, const PanelRecord* panels,
                        Sums<P, N>* sums) {
  const int64_t pixel = tile.x_pixel;
  Vector acc[P][N];
  Copy<P, N>(sums->v, acc);
  Vector least[N];
  Vector furthest[N][2];
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    least[n] = _mm512_load_si512(panels[n].quiet_least);
    furthest[n][0] = furthest[n][1] = _mm512_setzero_si512();
  }
  ForEachStepOfPanels<N>(
      tile, at,
      [&](const uint8_t* x, const Vector(&one)[N], const Vector(&excess)[N])
          __attribute__((always_inline)) {
            Vector from[N];
            BITFOLD_UNROLL
            for (int n = 0; n < N; ++n) from[n] = _mm512_add_epi32(least[n], excess[n]);
            BITFOLD_UNROLL
            for (int p = 0; p < P; ++p) {
              const Vector same = _mm512_set1_epi32(WordAt(x + p * pixel));
              BITFOLD_UNROLL
              for (int n = 0; n < N; ++n) {
                const Vector sum = _mm512_dpbusd_epi32(acc[p][n], same, one[n]);
                acc[p][n] = sum;
                furthest[n][p % 2] =
                    _mm512_max_epu32(furthest[n][p % 2], _mm512_sub_epi32(sum, from[n]));
              }
            }
          });
  Copy<P, N>(acc, sums->v);
  __mmask16 is_loud = 0;
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    const Vector greatest = _mm512_load_si512(panels[n].quiet_greatest);
    const Vector distance = _mm512_max_epu32(furthest[n][0], furthest[n][1]);
    is_loud |= _mm512_cmpgt_epu32_mask(distance, _mm512_sub_epi32(greatest, least[n]));
    is_loud |= _mm512_cmpgt_epi32_mask(least[n], greatest);  // there is no range
  }
  return is_loud == 0;
}

// Adds a segment step by step, and takes all partial sums into the extremes. Returns in which
// panels one is outside of the limits.
template <int P, int N>
inline uint32_t StepLoudly(const BorderTile& tile, const SegmentAt& at, PanelRecord* panels,
                           Sums<P, N>* sums) {
  const int64_t pixel = tile.x_pixel;
  Vector acc[P][N];
  Copy<P, N>(sums->v, acc);
  Vector least[N];
  Vector greatest[N];
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    least[n] = _mm512_set1_epi32(INT32_MAX);
    greatest[n] = _mm512_set1_epi32(INT32_MIN);
  }
  ForEachStepOfPanels<N>(
      tile, at,
      [&](const uint8_t* x, const Vector(&one)[N], const Vector(&excess)[N])
          __attribute__((always_inline)) {
            Vector low[N];
            Vector high[N];
            BITFOLD_UNROLL
            for (int p = 0; p < P; ++p) {
              const Vector same = _mm512_set1_epi32(WordAt(x + p * pixel));
              BITFOLD_UNROLL
              for (int n = 0; n < N; ++n) {
                const Vector sum = _mm512_dpbusd_epi32(acc[p][n], same, one[n]);
                acc[p][n] = sum;
                low[n] = p == 0 ? sum : _mm512_min_epi32(low[n], sum);
                high[n] = p == 0 ? sum : _mm512_max_epi32(high[n], sum);
              }
            }
            BITFOLD_UNROLL
            for (int n = 0; n < N; ++n) {
              least[n] = _mm512_min_epi32(least[n], _mm512_sub_epi32(low[n], excess[n]));
              greatest[n] = _mm512_max_epi32(greatest[n], _mm512_sub_epi32(high[n], excess[n]));
            }
          });
  Copy<P, N>(acc, sums->v);
  uint32_t outside = 0;
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    const __mmask16 is_outside =
        _mm512_cmplt_epi32_mask(least[n], _mm512_set1_epi32(tile.narrowest.low)) |
        _mm512_cmpgt_epi32_mask(greatest[n], _mm512_set1_epi32(tile.narrowest.high));
    outside |= is_outside != 0 ? 1u << n : 0u;
    Extend(least[n], greatest[n], tile.narrowest, &panels[n]);
  }
  return outside;
}

// Takes the ends into the record. Returns in which panels one is outside of a width.
template <int P, int N>
inline uint32_t Finish(const BorderTile& tile, int32_t segments, PanelRecord* panels,
                       Sums<P, N>* sums) {
  uint32_t outside = 0;
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    const int32_t* from =
        segments == 0 ? tile.excess[n] : tile.bounds[n * tile.bounds_panel + segments - 1].excess;
    const Vector excess = _mm512_loadu_si512(from);
    PanelRecord& panel = panels[n];
    Vector least = _mm512_set1_epi32(INT32_MAX);
    Vector greatest = _mm512_set1_epi32(INT32_MIN);
    BITFOLD_UNROLL
    for (int p = 0; p < P; ++p) {
      const Vector sum = _mm512_sub_epi32(sums->v[p][n], excess);
      sums->v[p][n] = sum;
      least = _mm512_min_epi32(least, sum);
      greatest = _mm512_max_epi32(greatest, sum);
    }
    const __mmask16 is_outside =
        _mm512_cmplt_epi32_mask(least, _mm512_load_si512(panel.end_least)) |
        _mm512_cmpgt_epi32_mask(greatest, _mm512_load_si512(panel.end_greatest));
    outside |= is_outside != 0 ? 1u << n : 0u;
    least = _mm512_min_epi32(least, _mm512_load_si512(panel.least_final));
    greatest = _mm512_max_epi32(greatest, _mm512_load_si512(panel.greatest_final));
    _mm512_store_si512(panel.least_final, least);
    _mm512_store_si512(panel.greatest_final, greatest);
  }
  return outside;
}

template <int P, int N>
int32_t Advance(const BorderTile& tile, PanelRecord* panels, int32_t first, BorderSums* state) {
  Sums<P, N> sums;
  Vector least[N];
  Vector greatest[N];
  BITFOLD_UNROLL
  for (int n = 0; n < N; ++n) {
    const Vector excess = _mm512_loadu_si512(tile.excess[n]);
    least[n] = first == 0 ? _mm512_setzero_si512() : _mm512_load_si512(state->least[n]);
    greatest[n] = first == 0 ? _mm512_setzero_si512() : _mm512_load_si512(state->greatest[n]);
    BITFOLD_UNROLL
    for (int p = 0; p < P; ++p) {
      sums.v[p][n] = first == 0 ? excess : _mm512_load_si512(state->end[p][n]);
    }
  }
  const int32_t of_row = tile.RowSegments();
  const int32_t end = tile.rows * of_row;
  int32_t segment = first;
  int32_t row = first / of_row;
  int32_t word = first % of_row * tile.segment_words;
  const int32_t* w = tile.w + (int64_t{row} * tile.words + word) * tile.taps * kSumLanes;
  uint32_t changes = 0;
  for (; segment < end; ++segment) {
    const int32_t words = std::min(tile.segment_words, tile.words - word);
    const uint8_t* const x = tile.x + row * tile.x_row + word * 4;
    Store<P, N>(sums, state->start);
    state->is_extended = tile.loudness[segment] != 0 && segment >= tile.first_plain;
    if (state->is_extended) {
      const SegmentAt at = {x, w, std::min(words * 4, tile.channels - word * 4), segment};
      tile.loudness[segment] = static_cast<uint8_t>(tile.loudness[segment] - 1);
      changes = 0;
      if (!StepQuietly<P, N>(tile, at, panels, &sums)) {
        Load<P, N>(state->start, &sums);
        changes = StepLoudly<P, N>(tile, at, panels, &sums);
      }
    } else {
      AddSegment<P, N>(tile, x, w, words, &sums);
    }
    const uint32_t may_change =
        Changes<P, N>(sums, tile.bounds + segment, tile.bounds_panel, panels, least, greatest);
    if (!state->is_extended) changes = may_change;
    if (state->is_extended && may_change != 0) tile.loudness[segment] = kLoud;
    if (changes != 0) break;
    w += int64_t{words} * tile.taps * kSumLanes;
    word += words;
    if (word == tile.words) {
      word = 0;
      ++row;
    }
  }
  if (segment == end) {
    changes = Finish<P, N>(tile, end, panels, &sums);
  } else {
    BITFOLD_UNROLL
    for (int n = 0; n < N; ++n) {
      _mm512_store_si512(state->least[n], least[n]);
      _mm512_store_si512(state->greatest[n], greatest[n]);
    }
  }
  Store<P, N>(sums, state->end);
  state->changes = changes;
  return segment;
}

// ---- Inside of a segment -----------------------------------------------------------------------

// What the partial sums of a segment lie within.
struct Span {
  Vector start;
  Vector bottom;
  Vector top;
};

inline Span SpanOf(const SegmentSpot& spot, const BorderSums& sums, int32_t p) {
  const Vector start = _mm512_sub_epi32(_mm512_load_si512(sums.start[p][spot.panel]),
                                        _mm512_loadu_si512(spot.excess_before));
  const Vector end = _mm512_sub_epi32(_mm512_load_si512(sums.end[p][spot.panel]),
                                      _mm512_load_si512(spot.bounds->excess));
  return {start,
          _mm512_sub_epi32(_mm512_min_epi32(start, end), _mm512_load_si512(spot.bounds->below)),
          _mm512_add_epi32(_mm512_max_epi32(start, end), _mm512_load_si512(spot.bounds->above))};
}

inline bool IsBeyond(Vector low, Vector high, Vector least, Vector greatest) {
  return (_mm512_cmplt_epi32_mask(low, least) | _mm512_cmpgt_epi32_mask(high, greatest)) != 0;
}

inline bool MayExtend(const Span& span, const PanelRecord& panel) {
  return IsBeyond(span.bottom, span.top, _mm512_load_si512(panel.least),
                  _mm512_load_si512(panel.greatest));
}

// The weights of a channel of a word.
inline Vector WeightOf(Vector word, __m128i up) {
  return _mm512_srai_epi32(_mm512_sll_epi32(word, up), 24);
}

// Calls step(t, x, one, excess) for each step of P pixels: tap t's dot product of the word at x, of
// pixel 0, with one channel's weights, after which the sums have `excess`.
template <typename F>
inline void ForEachStep(const SegmentSpot& spot, F step) {
  const Vector offset = _mm512_set1_epi8(static_cast<char>(spot.offset));
  Vector excess = _mm512_loadu_si512(spot.excess_before);
  for (int32_t k = 0; k < spot.words; ++k) {
    const int32_t* const words = spot.w + int64_t{k} * spot.taps * kSumLanes;
    for (int32_t c = 0; c < 4 && 4 * k + c < spot.channels; ++c) {
      const Vector mask = _mm512_set1_epi32(static_cast<int32_t>(0xffu << (8 * c)));
      const uint8_t* tap = spot.x + 4 * k;
      for (int32_t t = 0; t < spot.taps; ++t, tap += spot.x_tap) {
        const Vector one = _mm512_and_si512(_mm512_loadu_si512(words + t * kSumLanes), mask);
        excess = _mm512_dpbusd_epi32(excess, offset, one);
        step(t, tap, one, excess);
      }
    }
  }
}

// Takes all steps of P pixels into the extremes.
template <int P>
void StepPixels(const SegmentSpot& spot, const BorderSums& state, const SumLimits& limits,
                PanelRecord* panel) {
  const int64_t pixel = spot.x_pixel;
  Vector least = _mm512_load_si512(panel->least);
  Vector greatest = _mm512_load_si512(panel->greatest);
  Vector sums[P];
  BITFOLD_UNROLL
  for (int p = 0; p < P; ++p) sums[p] = _mm512_load_si512(state.start[p][spot.panel]);
  ForEachStep(
      spot, [&](int32_t, const uint8_t* x, Vector one,
                Vector excess) __attribute__((always_inline)) {
        BITFOLD_UNROLL
        for (int p = 0; p < P; ++p) {
          sums[p] = _mm512_dpbusd_epi32(sums[p], _mm512_set1_epi32(WordAt(x + p * pixel)), one);
        }
        Vector low = sums[0];
        Vector high = sums[0];
        BITFOLD_UNROLL
        for (int p = 1; p < P; ++p) {
          low = _mm512_min_epi32(low, sums[p]);
          high = _mm512_max_epi32(high, sums[p]);
        }
        least = _mm512_min_epi32(least, _mm512_sub_epi32(low, excess));
        greatest = _mm512_max_epi32(greatest, _mm512_sub_epi32(high, excess));
      });
  Extend(least, greatest, limits, panel);
}

// Which lanes of a pixel are counted, at each tap: all or none.
struct CountedLanes {
  __mmask16 at[kMostSegmentSteps / 4][kBorderPixels] = {};

  CountedLanes(const SegmentSpot& spot, uint32_t counted) {
    for (int32_t p = 0; p < spot.pixels; ++p) {
      const PixelTaps taps = spot.pixel_taps[p];
      if ((counted >> p & 1) == 0) continue;
      for (int32_t t = taps.first; t < taps.first + taps.count; ++t) at[t][p] = 0xffff;
    }
  }
};

// Counts the steps of some of P pixels and of a width; `counts` of pixel 0. The first step outside
// is looked for in `whole` pixels, which have all taps. Returns the others where it may come
// sooner.
template <int P>
uint32_t CountPixels(const SegmentSpot& spot, const BorderSums& state, const CountedLanes& lanes,
                     uint32_t whole, WidthRecord* width, OutputCounts* counts,
                     int64_t pixel_counts) {
  const int64_t pixel = spot.x_pixel;
  const Vector low = _mm512_set1_epi32(width->low);
  const Vector range = _mm512_set1_epi32(
      static_cast<int32_t>(static_cast<uint32_t>(width->high) - static_cast<uint32_t>(width->low)));
  const Vector one_more = _mm512_set1_epi32(1);
  Vector first = _mm512_loadu_si512(width->first);
  Vector number = _mm512_set1_epi32(spot.channels_before * spot.taps);
  Vector sums[P];
  Vector outside[P];
  __mmask16 is_whole[P];
  BITFOLD_UNROLL
  for (int p = 0; p < P; ++p) {
    sums[p] = _mm512_load_si512(state.start[p][spot.panel]);
    outside[p] = _mm512_setzero_si512();
    is_whole[p] = static_cast<__mmask16>((whole >> p & 1) != 0 ? 0xffff : 0);
  }
  ForEachStep(
      spot, [&](int32_t t, const uint8_t* x, Vector one,
                Vector excess) __attribute__((always_inline)) {
        const Vector from = _mm512_add_epi32(low, excess);
        __mmask16 any = 0;
        number = _mm512_add_epi32(number, one_more);
        BITFOLD_UNROLL
        for (int p = 0; p < P; ++p) {
          sums[p] = _mm512_dpbusd_epi32(sums[p], _mm512_set1_epi32(WordAt(x + p * pixel)), one);
          const __mmask16 is_outside =
              _mm512_mask_cmpgt_epu32_mask(lanes.at[t][p], _mm512_sub_epi32(sums[p], from), range);
          outside[p] = _mm512_mask_add_epi32(outside[p], is_outside, outside[p], one_more);
          any = static_cast<__mmask16>(any | (is_outside & is_whole[p]));
        }
        first = _mm512_mask_min_epi32(first, any, first, number);
      });
  _mm512_storeu_si512(width->first, first);
  uint32_t sooner = 0;
  BITFOLD_UNROLL
  for (int p = 0; p < P; ++p) {
    int32_t* const of_pixel = counts[p * pixel_counts].outside;
    _mm512_storeu_si512(of_pixel, _mm512_add_epi32(outside[p], _mm512_loadu_si512(of_pixel)));
    const Vector next = _mm512_set1_epi32(spot.channels_before * spot.pixel_taps[p].count + 1);
    const __mmask16 may_be =
        _mm512_mask_cmpgt_epi32_mask(_mm512_test_epi32_mask(outside[p], outside[p]), first, next);
    if (is_whole[p] == 0 && may_be != 0) sooner |= 1u << p;
  }
  return sooner;
}

// Writes the partial sums of a pixel, takes them into the extremes and returns how many.
inline int32_t StepPixel(const SegmentSpot& spot, int32_t p, Vector sum, const SumLimits& limits,
                         PanelRecord* panel, Vector* steps) {
  const PixelTaps taps = spot.pixel_taps[p];
  Vector least = _mm512_load_si512(panel->least);
  Vector greatest = _mm512_load_si512(panel->greatest);
  int32_t count = 0;
  for (int32_t c = 0; c < spot.channels; ++c) {
    const uint8_t* const x = spot.x + p * spot.x_pixel + c;
    const int32_t* const w = spot.w + int64_t{c / 4} * spot.taps * kSumLanes;
    const __m128i up = _mm_cvtsi32_si128(24 - c % 4 * 8);
    for (int32_t t = taps.first; t < taps.first + taps.count; ++t) {
      const Vector number = _mm512_set1_epi32(x[t * spot.x_tap] - spot.offset);
      const Vector weight = WeightOf(_mm512_loadu_si512(w + t * kSumLanes), up);
      sum = _mm512_add_epi32(sum, _mm512_mullo_epi32(weight, number));
      least = _mm512_min_epi32(least, sum);
      greatest = _mm512_max_epi32(greatest, sum);
      steps[count++] = sum;
    }
  }
  Extend(least, greatest, limits, panel);
  return count;
}

inline void AddCounts(Vector outside, Vector first, WidthRecord* width, OutputCounts* counts) {
  const Vector sum = _mm512_add_epi32(outside, _mm512_loadu_si512(counts->outside));
  _mm512_storeu_si512(counts->outside, sum);
  _mm512_storeu_si512(width->first, _mm512_min_epi32(first, _mm512_loadu_si512(width->first)));
}

inline void CountSteps(const Vector* steps, int32_t count, int32_t before, WidthRecord* width,
                       OutputCounts* counts) {
  const Vector low = _mm512_set1_epi32(width->low);
  const Vector high = _mm512_set1_epi32(width->high);
  const Vector one = _mm512_set1_epi32(1);
  Vector outside = _mm512_setzero_si512();
  Vector first = _mm512_set1_epi32(INT32_MAX);
  Vector number = _mm512_set1_epi32(before);
  for (int32_t i = 0; i < count; ++i) {
    const __mmask16 is_outside =
        _mm512_cmplt_epi32_mask(steps[i], low) | _mm512_cmpgt_epi32_mask(steps[i], high);
    number = _mm512_add_epi32(number, one);
    outside = _mm512_mask_add_epi32(outside, is_outside, outside, one);
    first = _mm512_mask_min_epi32(first, is_outside, first, number);
  }
  AddCounts(outside, first, width, counts);
}

// The lanes of a span that are outside of a width, and whether that is true of all of it.
struct Sides {
  __mmask16 outside;
  bool is_known;
};

inline Sides SidesOf(const Span& span, const WidthRecord& width) {
  const Vector low = _mm512_set1_epi32(width.low);
  const Vector high = _mm512_set1_epi32(width.high);
  const __mmask16 outside =
      _mm512_cmpgt_epi32_mask(span.bottom, high) | _mm512_cmplt_epi32_mask(span.top, low);
  const __mmask16 may_be =
      _mm512_cmpgt_epi32_mask(span.top, high) | _mm512_cmplt_epi32_mask(span.bottom, low);
  return {outside, outside == may_be};
}

// Counts without steps where a span does not meet a limit; false where it does.
inline bool CountWhole(const SegmentSpot& spot, int32_t p, const Span& span,
                       const CountedWidths& counted) {
  for (int32_t i = 0; i < counted.count; ++i) {
    if (!SidesOf(span, counted.widths[i]).is_known) return false;
  }
  const int32_t taps = spot.pixel_taps[p].count;
  for (int32_t i = 0; i < counted.count; ++i) {
    const __mmask16 outside = SidesOf(span, counted.widths[i]).outside;
    if (outside == 0) continue;
    const Vector count = _mm512_maskz_set1_epi32(outside, spot.channels * taps);
    const Vector first = _mm512_mask_set1_epi32(_mm512_set1_epi32(INT32_MAX), outside,
                                                spot.channels_before * taps + 1);
    AddCounts(count, first, &counted.widths[i], counted.counts + p * counted.pixel_counts + i);
  }
  return true;
}

// Pixels, a bit for each.
struct OpenPixels {
  uint32_t extending = 0;  // whose steps may change the extremes
  uint32_t counting = 0;   // whose steps must be counted
  uint32_t searching = 0;  // that have been counted, and may have left a width sooner than others
  uint32_t whole = 0;      // that have all taps of a row
};

// Counts what needs no steps; the pixels that need them are left.
inline OpenPixels OpenPixelsOf(const SegmentSpot& spot, const BorderSums& sums,
                               const PanelRecord& panel, const CountedWidths& counted) {
  OpenPixels open;
  for (int32_t p = 0; p < spot.pixels; ++p) {
    const PixelTaps taps = spot.pixel_taps[p];
    if (taps.count == 0) continue;
    const uint32_t bit = 1u << p;
    const Span span = SpanOf(spot, sums, p);
    if (taps.count == spot.taps) open.whole |= bit;
    if (!sums.is_extended && MayExtend(span, panel)) open.extending |= bit;
    const bool leaves = counted.count != 0 &&
                        IsBeyond(span.bottom, span.top, _mm512_set1_epi32(counted.narrowest.low),
                                 _mm512_set1_epi32(counted.narrowest.high));
    if (leaves && !CountWhole(spot, p, span, counted)) open.counting |= bit;
  }
  return open;
}

template <int P>
void StepTile(const SegmentSpot& spot, const BorderSums& sums, PanelRecord* panel,
              const CountedWidths& counted, OpenPixels* open) {
  constexpr auto has_several = [](uint32_t pixels) { return (pixels & (pixels - 1)) != 0; };
  if (spot.is_plain && has_several(open->extending)) {
    StepPixels<P>(spot, sums, counted.narrowest, panel);
    *spot.loudness = kLoud;
    open->extending = 0;
  }
  if (!has_several(open->counting)) return;
  const CountedLanes lanes(spot, open->counting);
  for (int32_t i = 0; i < counted.count; ++i) {
    open->searching |= CountPixels<P>(spot, sums, lanes, open->whole, &counted.widths[i],
                                      counted.counts + i, counted.pixel_counts);
  }
  open->counting = 0;
}

void Resolve(const SegmentSpot& spot, const BorderSums& sums, PanelRecord* panel,
             const CountedWidths& counted) {
  OpenPixels open = OpenPixelsOf(spot, sums, *panel, counted);
  if (spot.pixels == 7) StepTile<7>(spot, sums, panel, counted, &open);
  if (spot.pixels == 4) StepTile<4>(spot, sums, panel, counted, &open);
  if (spot.pixels == 2) StepTile<2>(spot, sums, panel, counted, &open);
  for (uint32_t left = open.extending | open.counting | open.searching; left != 0;
       left &= left - 1) {
    const int32_t p = __builtin_ctz(left);
    Vector steps[kMostSegmentSteps];
    const int32_t count =
        StepPixel(spot, p, SpanOf(spot, sums, p).start, counted.narrowest, panel, steps);
    const bool is_counted = (open.counting >> p & 1) != 0;
    if (!is_counted && (open.searching >> p & 1) == 0) continue;
    OutputCounts unused = {};
    for (int32_t i = 0; i < counted.count; ++i) {
      CountSteps(steps, count, spot.channels_before * spot.pixel_taps[p].count, &counted.widths[i],
                 is_counted ? counted.counts + p * counted.pixel_counts + i : &unused);
    }
  }
}

#define BITFOLD_ADVANCE(pixels) \
  { Advance<pixels, 1>, Advance<pixels, 2> }
constexpr BorderKernels kKernels = {
    {7, 4, 2, 1},
    {BITFOLD_ADVANCE(7), BITFOLD_ADVANCE(4), BITFOLD_ADVANCE(2), BITFOLD_ADVANCE(1)},
    Resolve};
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
