// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracles of the box decoders. Both write a list of outputs, each an edge of an anchor at a
// position; what differs is the list of terms that an edge is the sum of.

#include "decoder.h"

#include <cstdint>
#include <string>
#include <vector>

#include "reference.h"

namespace reference {
namespace {

// One edge of one anchor: where its values are.
struct Edge {
  int64_t position;
  int64_t row;
  int64_t column;
  int64_t anchor;
  int64_t anchors;
  int axis;  // 0 for y, 1 for x.
  bool is_maximum;

  // Element `of_pair` of the anchor's pair in a table of 2A values per place.
  int64_t InPair(int64_t place, int of_pair) const {
    return (place * anchors + anchor) * 2 + of_pair;
  }
};

template <typename T>
T CentreTerm(const T* const* inputs, const Edge& edge) {
  const int64_t place = edge.axis == 0 ? edge.row : edge.column;
  return inputs[2 + edge.axis][edge.InPair(place, edge.is_maximum ? 1 : 0)];
}

// The centre's offset times the anchor's size, the detected size times half the anchor's (negated
// for a minimum), and the centre.
template <typename T>
std::vector<T> Terms(const T* const* inputs, const Edge& edge, int32_t mult_shift) {
  const int64_t detection = edge.InPair(edge.position, edge.axis);
  const T* const* sizes = inputs + 4 + 3 * edge.axis;
  const T* halves = edge.is_maximum ? sizes[1] : sizes[2];
  return {ReciprocalProduct(sizes[0][edge.anchor], inputs[0][detection], mult_shift),
          ReciprocalProduct(halves[edge.anchor], inputs[1][detection], mult_shift),
          CentreTerm(inputs, edge)};
}

// One detected value and the centre. A minimum takes it from the first input and a maximum from the
// second; y takes the second value of the pair and x the first.
template <typename T>
std::vector<T> SingleWeightTerms(const T* const* inputs, const Edge& edge, int32_t mult_shift) {
  const int64_t detection = edge.InPair(edge.position, edge.axis == 0 ? 1 : 0);
  const T* const* factors = inputs + 4 + 2 * edge.axis;
  const T* factor = edge.is_maximum ? factors[0] : factors[1];
  const T value = edge.is_maximum ? inputs[1][detection] : inputs[0][detection];
  return {ReciprocalProduct(factor[edge.anchor], value, mult_shift), CentreTerm(inputs, edge)};
}

// All edges in the order of the output, which is that of the lines as well.
std::vector<Edge> ListEdges(int64_t N, int64_t H, int64_t W, int64_t A) {
  std::vector<Edge> edges;
  for (int64_t n = 0; n < N; ++n) {
    for (int64_t h = 0; h < H; ++h) {
      for (int64_t w = 0; w < W; ++w) {
        for (int64_t j = 0; j < A; ++j) {
          const int64_t position = (n * H + h) * W + w;
          edges.push_back({position, h, w, j, A, 0, false});
          edges.push_back({position, h, w, j, A, 1, false});
          edges.push_back({position, h, w, j, A, 0, true});
          edges.push_back({position, h, w, j, A, 1, true});
        }
      }
    }
  }
  return edges;
}

// The first term enters as it is, every other one by an addition.
template <typename T>
T AddTerms(const std::vector<T>& terms, int32_t accumulator_size, bool use_fp16_acc,
           std::string* lines) {
  T acc = terms[0];
  for (size_t k = 1; k < terms.size(); ++k) {
    acc = Accumulate(acc, terms[k], accumulator_size, use_fp16_acc, lines);
  }
  return acc;
}

}  // namespace

template <typename T>
void DecodeBoxes(const T* const* inputs, int64_t N, int64_t H, int64_t W, int64_t A,
                 int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc, T* out,
                 std::string* lines) {
  for (const Edge& edge : ListEdges(N, H, W, A)) {
    *out++ = AddTerms(Terms(inputs, edge, mult_shift), accumulator_size, use_fp16_acc, lines);
  }
}

template <typename T>
void DecodeBoxesSingleWeight(const T* const* inputs, int64_t N, int64_t H, int64_t W, int64_t A,
                             int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc,
                             T* out, std::string* lines) {
  for (const Edge& edge : ListEdges(N, H, W, A)) {
    const std::vector<T> terms = SingleWeightTerms(inputs, edge, mult_shift);
    *out++ = AddTerms(terms, accumulator_size, use_fp16_acc, lines);
  }
}

template void DecodeBoxes<int32_t>(const int32_t* const*, int64_t, int64_t, int64_t, int64_t,
                                   int32_t, int32_t, bool, int32_t*, std::string*);
template void DecodeBoxes<float>(const float* const*, int64_t, int64_t, int64_t, int64_t, int32_t,
                                 int32_t, bool, float*, std::string*);
template void DecodeBoxesSingleWeight<int32_t>(const int32_t* const*, int64_t, int64_t, int64_t,
                                               int64_t, int32_t, int32_t, bool, int32_t*,
                                               std::string*);
template void DecodeBoxesSingleWeight<float>(const float* const*, int64_t, int64_t, int64_t,
                                             int64_t, int32_t, int32_t, bool, float*, std::string*);

}  // namespace reference
