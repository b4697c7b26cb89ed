// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracle of partial sums behind a C interface.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "partial_sums.h"

extern "C" {

// `settings`: batch, input and output channels; of rows and then columns the size, the zeros before
// and after, taps, stride and dilation; whether SAME, whether depthwise, filters, the two zero
// points, the shift, how many widths, and these. `bias` may be null. `extremes`, `counts` and
// `first` are filled as the op's outputs are.
void reference_partial_sums(const int32_t* settings, const int32_t* input, const int32_t* filter,
                            const int64_t* bias, int64_t* extremes, int64_t* counts,
                            int64_t* first) {
  const auto axis = [](const int32_t* s) {
    return reference::SummedAxis{s[0], s[1], s[2], s[3], s[4], s[5]};
  };
  const int32_t* s = settings;
  const std::vector<int32_t> sizes(s + 22, s + 22 + s[21]);
  const reference::SummedLayer layer = {s[0],        s[1],       s[2],       axis(s + 3),
                                        axis(s + 9), s[15] != 0, s[16] != 0, s[17],
                                        s[18],       s[19],      s[20],      sizes};
  const auto channels = reference::SumsOnTheWay(layer, input, filter, bias);
  const size_t all = channels.size();
  for (size_t c = 0; c < all; ++c) {
    const reference::SummedChannel& channel = channels[c];
    extremes[c] = channel.least_final;
    extremes[all + c] = channel.greatest_final;
    extremes[2 * all + c] = channel.least_partial;
    extremes[3 * all + c] = channel.greatest_partial;
    for (size_t i = 0; i < sizes.size(); ++i) {
      counts[(i * all + c) * 3] = channel.ends_outside[i];
      counts[(i * all + c) * 3 + 1] = channel.was_outside[i];
      counts[(i * all + c) * 3 + 2] = channel.partials_outside[i];
      first[i * all + c] = channel.first_outside[i];
    }
  }
}

}  // extern "C"
