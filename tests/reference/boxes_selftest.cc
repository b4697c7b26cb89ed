// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracles of the box decoders and of the suppression against results worked out by hand.
// Prints one line when all hold; on the first failure prints what failed and exits with status 1.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "decoder.h"
#include "nms.h"
#include "selftest.h"

namespace {

using reference::Nms;
using reference::NmsBox;
using reference::NmsResult;
using selftest::checks;
using selftest::Expect;
using selftest::ExpectAll;
using selftest::ExpectFloat;
using selftest::ExpectText;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// 0.3 in a half-precision accumulator: 307 / 1024.
const float kThreeTenths = 0.2998046875F;

std::string Warning(const char* sum) {
  return std::string("@@@ WARNING: acc ") + sum + " is out of bounds <-8388607,8388607>\n";
}

// ---- Box decoders ------------------------------------------------------------------------------

template <typename T>
using Inputs = std::vector<std::vector<T>>;

struct Grid {
  int64_t n;
  int64_t h;
  int64_t w;
  int64_t a;
};

// Of either decoder, which the number of inputs tells apart.
template <typename T>
std::vector<T> Decode(const Inputs<T>& inputs, const Grid& grid, int width, int shift, bool half,
                      std::string* lines) {
  std::vector<const T*> pointers;
  for (const std::vector<T>& input : inputs) pointers.push_back(input.data());
  std::vector<T> out(static_cast<size_t>(4 * grid.n * grid.h * grid.w * grid.a), T{77});
  const auto decode =
      inputs.size() == 10 ? reference::DecodeBoxes<T> : reference::DecodeBoxesSingleWeight<T>;
  decode(pointers.data(), grid.n, grid.h, grid.w, grid.a, width, shift, half, out.data(), lines);
  return out;
}

const Grid kOne = {1, 1, 1, 1};

// One anchor whose products are: height times centre, its half times the size for the maximum edge
// and for the minimum edge, all in y; x is 0.
template <typename T>
Inputs<T> OneHeight(T whole, T half_max, T half_min, T centre_min, T centre_max) {
  return {{T{1}, T{0}}, {T{1}, T{0}}, {centre_min, centre_max},
          {T{0}, T{0}}, {whole},      {half_max},
          {half_min},   {T{0}},       {T{0}},
          {T{0}}};
}

void CheckDecoderLayout() {
  const Inputs<int32_t> rows = {
      {1, 2, 3, 4}, {5, 6, 7, 8}, {1000, 2000, 3000, 4000}, {100, 200}, {10}, {20}, {-30}, {40},
      {50},         {-60}};
  ExpectAll("rows", Decode(rows, {1, 2, 1, 1}, 32, 0, false, nullptr),
            {860, -180, 2110, 580, 2820, -220, 4170, 760});
  Inputs<int32_t> columns = {{1, 2, 3, 4, 5, 6, 7, 8},
                             {0, 0, 0, 0, 0, 0, 0, 0},
                             {1, 2, 3, 4},
                             {5, 6, 7, 8, 9, 10, 11, 12},
                             {10, 100},
                             {9, 9},
                             {9, 9},
                             {1000, 10000},
                             {9, 9},
                             {9, 9}};
  ExpectAll(
      "columns", Decode(columns, {1, 1, 2, 2}, 32, 0, false, nullptr),
      {11, 2005, 12, 2006, 303, 40007, 304, 40008, 51, 6009, 52, 6010, 703, 80011, 704, 80012});
  ExpectAll(
      "images", Decode(columns, {2, 1, 1, 2}, 32, 0, false, nullptr),
      {11, 2005, 12, 2006, 303, 40007, 304, 40008, 51, 6005, 52, 6006, 703, 80007, 704, 80008});
  // A last dimension of 5 has two anchors; positions follow each other without a gap.
  columns[0].resize(10, 999);
  columns[1].resize(10, 999);
  ExpectAll(
      "odd last dimension", Decode(columns, {1, 1, 2, 2}, 32, 0, false, nullptr),
      {11, 2005, 12, 2006, 303, 40007, 304, 40008, 51, 6009, 52, 6010, 703, 80011, 704, 80012});

  std::string lines;
  for (const Grid& grid :
       {Grid{0, 1, 1, 1}, Grid{1, 0, 1, 1}, Grid{1, 1, 0, 1}, Grid{1, 1, 1, 0}}) {
    float untouched = 77.0F;
    const Inputs<float> loud = OneHeight<float>(9e6F, 0, 0, 0, 0);
    std::vector<const float*> pointers;
    for (const std::vector<float>& input : loud) pointers.push_back(input.data());
    reference::DecodeBoxes<float>(pointers.data(), grid.n, grid.h, grid.w, grid.a, 8, 0, false,
                                  &untouched, &lines);
    reference::DecodeBoxesSingleWeight<float>(pointers.data(), grid.n, grid.h, grid.w, grid.a, 8, 0,
                                              false, &untouched, &lines);
    ExpectFloat("nothing", untouched, 77.0F);
  }
  ExpectText("nothing", lines, "");
}

void CheckDecoderSteps() {
  std::string lines;
  const Inputs<int32_t> i = OneHeight<int32_t>(6, 10, 14, 100, 200);
  ExpectAll("shift 2", Decode(i, kOne, 32, 2, false, &lines), {106, 0, 204, 0});
  ExpectAll("shift 0", Decode(i, kOne, 32, 0, true, &lines), {120, 0, 216, 0});
  // 130 folds to -126; 400 folds to 144, which is folded again with the centre.
  ExpectAll("fold", Decode(OneHeight<int32_t>(100, 300, 30, -3, 0), kOne, 8, 0, false, &lines),
            {127, 0, -112, 0});
  ExpectAll("fold", Decode(OneHeight<int32_t>(100, 0, -229, 0, 300), kOne, 8, 0, false, &lines),
            {127, 0, 144, 0});
  ExpectText("integers have no lines", lines, "");

  ExpectAll("3 and 5 by 2", Decode(OneHeight<float>(3, 5, 0, 0, 0), kOne, 16, 2, false, &lines),
            {2, 0, 4, 0});
  ExpectAll("45.5 by 7",
            Decode(OneHeight<float>(45.5F, 0, 3, 0.5F, 0.25F), kOne, 16, 7, false, &lines),
            {7.5F, 0, 7.25F, 0});
  ExpectAll("fold", Decode(OneHeight<float>(100, 300, 30, -3, 0), kOne, 8, 0, false, &lines),
            {127, 0, -112, 0});
  ExpectAll("-8388607", Decode(OneHeight<float>(-8388607, 0, 0, 0, 0), kOne, 32, 0, false, &lines),
            {-8388607, 0, -8388607, 0});
  // The whole product enters a half-precision accumulator as it is, the others are quantised.
  ExpectAll("half",
            Decode(OneHeight<float>(40000, -30000, -10000, 2768, 0.3F), kOne, 8, 0, true, &lines),
            {-16384, 0, 10000, 0});
  ExpectAll("half", Decode(OneHeight<float>(0, 40000, 0, 0.3F, 0), kOne, 8, 0, true, &lines),
            {kThreeTenths, 0, -20000, 0});
  ExpectText("in bounds", lines, "");

  // Lines in the order of the edges, two sums each; x is 2^23 and the maxima have a centre of -1.
  Inputs<float> loud = OneHeight<float>(8388607, 0, 0, 0, -1);
  loud[0] = {1, 1};
  loud[3] = {0, -1};
  loud[7] = {8388608};
  ExpectAll("loud", Decode(loud, kOne, 32, 0, false, &lines), {8388607, 8388608, 8388606, 8388607});
  const std::string below = Warning("8388607.000000");
  const std::string at = Warning("8388608.000000");
  ExpectText("lines", lines, below + below + at + at + below + at + below);
  lines.clear();
  // In half precision 2^23 - 1 becomes -32768 and 2^23 becomes -16384; the second addition then
  // turns -32768, with or without the -1, to 16384. Only the first sums are out of bounds.
  ExpectAll("loud half", Decode(loud, kOne, 32, 0, true, &lines), {16384, -16384, 16384, -16384});
  ExpectText("half lines", lines, below + at + below + at);
}

void CheckSingleWeight() {
  std::string lines;
  const Inputs<int32_t> crosswise = {{1, 2}, {3, 4}, {1000, 2000}, {100, 200},
                                     {10},   {-20},  {30},         {-40}};
  ExpectAll("crosswise", Decode(crosswise, kOne, 32, 0, true, &lines), {960, 60, 2040, 290});
  // Two anchors, two rows and two columns; the minimum edges have the factors 1 and 10, in x 100
  // and 1000, and the maximum edges none.
  Inputs<int32_t> grid = {{},         std::vector<int32_t>(16, 9), {}, {}, {0, 0}, {1, 10}, {0, 0},
                          {100, 1000}};
  for (int32_t k = 0; k < 16; ++k) grid[0].push_back(k % 10);
  for (int32_t k = 0; k < 8; ++k) grid[2].push_back(10000 * (k + 1));
  for (int32_t k = 0; k < 8; ++k) grid[3].push_back(20000 * (k + 1));
  ExpectAll("grid", Decode(grid, {1, 2, 2, 2}, 32, 0, false, &lines),
            {10001, 20000,  20000, 40000,  30030, 62000,  40000, 80000,   // (0, 0)
             10005, 100400, 20000, 120000, 30070, 146000, 40000, 160000,  // (0, 1)
             50009, 20800,  60000, 40000,  70010, 60000,  80000, 80000,   // (1, 0)
             50003, 100200, 60000, 120000, 70050, 144000, 80000, 160000});

  const auto one = [](auto product, auto centre) {
    using T = decltype(product);
    return Inputs<T>{{T{0}, T{1}}, {T{0}, T{1}}, {centre, centre}, {T{0}, T{0}},
                     {product},    {product},    {T{0}},           {T{0}}};
  };
  ExpectAll("3 / 2", Decode(one(3, 10), kOne, 32, 1, false, &lines), {12, 0, 12, 0});
  ExpectAll("5 / 2", Decode(one(5, 10), kOne, 32, 1, false, &lines), {12, 0, 12, 0});
  ExpectAll("no shift", Decode(one(5, 10), kOne, 32, 0, false, &lines), {15, 0, 15, 0});
  ExpectAll("200", Decode(one(100, 100), kOne, 8, 0, false, &lines), {-56, 0, -56, 0});
  ExpectText("integers have no lines", lines, "");
  ExpectAll("200", Decode(one(100.0F, 100.0F), kOne, 8, 0, false, &lines), {-56, 0, -56, 0});
  ExpectAll("45.5 by 7", Decode(one(45.5F, 0.5F), kOne, 8, 7, false, &lines), {7.5F, 0, 7.5F, 0});
  ExpectAll("half 0.3", Decode(one(0.0F, 0.3F), kOne, 8, 0, true, &lines),
            {kThreeTenths, 0, kThreeTenths, 0});
  // 0.3 + 1 + 1/1024 + 1/8192: with the centre at 307 / 1024 the sum is an eighth of a step above
  // 1332 / 1024.
  ExpectAll("half sum", Decode(one(1.0010986328125F, 0.3F), kOne, 8, 0, true, &lines),
            {1.30078125F, 0, 1.30078125F, 0});
  ExpectAll("half product", Decode(one(40000.0F, -10000.0F), kOne, 8, 0, true, &lines),
            {30000, 0, 30000, 0});
  ExpectAll("half centre", Decode(one(-10000.0F, 40000.0F), kOne, 8, 0, true, &lines),
            {-30000, 0, -30000, 0});
  ExpectText("in bounds", lines, "");
  ExpectAll("loud", Decode(one(8388600.0F, 8.0F), kOne, 24, 0, false, &lines),
            {-8388608, 0, -8388608, 0});
  const std::string twice = Warning("8388608.000000") + Warning("8388608.000000");
  ExpectText("lines", lines, twice);
  lines.clear();
  ExpectAll("loud half", Decode(one(8388607.0F, 1.0F), kOne, 24, 0, true, &lines),
            {-16384, 0, -16384, 0});
  ExpectText("half lines", lines, twice);
}

// ---- Suppression -------------------------------------------------------------------------------

void ExpectAreas(const char* what, const NmsBox& a, const NmsBox& b, bool precise,
                 double expected_union, double expected_overlap) {
  const reference::NmsAreas areas = reference::CalculateAreas(a, b, precise, nullptr);
  ++checks;
  if (areas.union_area == expected_union && areas.overlap == expected_overlap) return;
  std::printf("boxes reference: %s: got %.17g and %.17g, expected %.17g and %.17g\n", what,
              areas.union_area, areas.overlap, expected_union, expected_overlap);
  std::exit(1);
}

void CheckAreas() {
  const NmsBox ten = {0, 0, 9, 9, 0};
  ExpectAreas("identical", ten, ten, false, 100, 100);
  ExpectAreas("identical, precise", ten, ten, true, 119, 81);
  const NmsBox near = {0, 0, 4, 4, 0};
  const NmsBox far = {10, 10, 14, 14, 0};
  for (const bool precise : {false, true}) {
    ExpectAreas("disjoint", near, far, precise, 50, 0);
    ExpectAreas("disjoint", far, near, precise, 50, 0);
  }
  const NmsBox right = {0, 4, 9, 9, 0};
  const NmsBox left = {0, 0, 9, 4, 0};
  ExpectAreas("strip", right, left, false, 100, 10);
  ExpectAreas("strip, precise", right, left, true, 110, 0);
  ExpectAreas("strip, swapped", left, right, false, 100, 10);
  // The strip stays one wide but loses its last row.
  ExpectAreas("strip, precise, swapped", left, right, true, 101, 9);
  // Half a pixel apart: 0.5 * 1 shared.
  ExpectAreas("between pixels", {0, 0, 0, 1, 0}, {0, 1.5F, 0, 1.5F, 0}, false, 2.5, 0.5);
  ExpectAreas("a pixel apart", {0, 0, 0, 1, 0}, {0, 2, 0, 2, 0}, false, 3, 0);
  // 4097^2 = 16785409 is odd and above 2^24: the area of b loses its last digit.
  const NmsBox wide = {0, 0, 4096, 4096, 0};
  ExpectAreas("precisions", wide, wide, false, 16785408, 16785409);
  // From 1 to 2^24 there are 2^24, but 2^24 + 1 is not a single-precision number: the extent is
  // one short. The shared length has its 1 added last and is not.
  const NmsBox long_row = {0, 1, 0, 16777216, 0};
  ExpectAreas("single additions", long_row, long_row, false, 16777214, 16777216);
  ExpectAreas("inverted", {9, 9, 0, 0, 0}, ten, false, 164, 0);
  // Where the edges of b are NaN those of a count; the other way around nothing is shared.
  const std::vector<NmsBox> open = {
      {kNaN, 0, 9, 9, 0}, {0, kNaN, 9, 9, 0}, {0, 0, kNaN, 9, 0}, {0, 0, 9, kNaN, 0}};
  for (const NmsBox& edge : open) {
    const reference::NmsAreas b_nan = reference::CalculateAreas(ten, edge, false, nullptr);
    Expect("NaN in b", static_cast<int64_t>(b_nan.overlap), 100);
    Expect("NaN in b", std::isnan(b_nan.union_area), true);
    const reference::NmsAreas a_nan = reference::CalculateAreas(edge, ten, false, nullptr);
    Expect("NaN in a", static_cast<int64_t>(a_nan.overlap), 0);
  }
}

int64_t Selected(const std::vector<float>& scores, bool is_variant) {
  std::vector<NmsBox> boxes(scores.size());
  for (size_t i = 0; i < scores.size(); ++i) boxes[i].score = scores[i];
  return reference::SelectBox(boxes, is_variant);
}

void CheckSelection() {
  Expect("first", Selected({0.5F, 0.9F, 0.9F}, false), 1);
  Expect("last", Selected({0.5F, 0.9F, 0.9F}, true), 2);
  Expect("negative", Selected({-3, -1, -2}, false), 1);
  Expect("negative", Selected({-3, -1, -2}, true), -1);
  Expect("zeros", Selected({0.0F, -0.0F, -1}, true), 1);
  Expect("NaN first", Selected({kNaN, 0.5F, 0.7F}, false), 0);
  Expect("NaN later", Selected({0.5F, kNaN, 0.7F}, false), 2);
  Expect("NaN first", Selected({kNaN, 0.7F, 0.5F}, true), 1);
  Expect("NaN only", Selected({kNaN}, true), -1);
  Expect("infinite", Selected({-kInf, kInf, kInf}, false), 1);
  Expect("no box", Selected({}, false), -1);
  Expect("no box", Selected({}, true), -1);
}

// Settings of one class of `boxes` boxes, threshold 0.25, IoU threshold 0.5.
Nms Class(int32_t boxes, float max_output_size, bool is_variant) {
  return {0.25F, 0.5F, max_output_size, 1, boxes, 5, 1, 1, false, is_variant};
}

std::vector<float> Flatten(const std::vector<NmsBox>& boxes) {
  std::vector<float> values;
  for (const NmsBox& b : boxes) {
    for (const float v : {b.y_min, b.x_min, b.y_max, b.x_max, b.score}) values.push_back(v);
  }
  return values;
}

// Of one class.
void ExpectFrame(const char* what, Nms nms, const std::vector<NmsBox>& boxes,
                 const std::vector<NmsBox>& expected) {
  nms.d1 = static_cast<int32_t>(boxes.size());
  const std::vector<float> value = Flatten(boxes);
  const NmsResult result = reference::SuppressNonMaxima(nms, value.data(), nullptr);
  Expect(what, static_cast<int64_t>(result.rows.size()), 1);
  Expect(what, result.rows[0], static_cast<int64_t>(expected.size()));
  ExpectAll(what, result.values, Flatten(expected));
}

const NmsBox kTen = {0, 0, 9, 9, 0.75F};
const NmsBox kHalfOfTen = {0, 0, 9, 4, 0.5F};
const NmsBox kZero = {0, 0, 0, 0, 0};

// A box of one pixel that shares nothing with those of other places.
NmsBox Pixel(float place, float score) { return {place, 50, place, 50, score}; }

void CheckThreshold() {
  Nms nms = Class(2, 2, false);
  // 50 shared of 100: 50 > 32768 * 100 / 65536 is false.
  ExpectFrame("IoU 0.5", nms, {kTen, kHalfOfTen}, {kTen, kHalfOfTen});
  // 32112 * 100 / 65536 is 48.99, of which the fraction is dropped.
  nms.iou_threshold = 0.49F;
  ExpectFrame("IoU 0.49", nms, {kTen, kHalfOfTen}, {kTen, kZero});
  // The best box stands second: it is chosen first all the same.
  ExpectFrame("IoU 0.49", nms, {kHalfOfTen, kTen}, {kTen, kZero});
  // With precise edges 4 * 9 of 114 are shared: 36 > 32112 * 114 / 65536 = 55 is false.
  nms.is_precise = true;
  ExpectFrame("precise", nms, {kTen, kHalfOfTen}, {kTen, kHalfOfTen});
  nms = Class(2, 2, false);
  nms.iou_threshold = 1.0F;
  const NmsBox twin = {0, 0, 9, 9, 0.5F};
  ExpectFrame("same corners", nms, {kTen, twin}, {kTen, kZero});
  nms.iou_threshold = 1e20F;
  ExpectFrame("same corners", nms, {kTen, twin}, {kTen, kZero});
  ExpectFrame("other corners", nms, {kTen, {0, 0, 9, 8, 0.5F}}, {kTen, {0, 0, 9, 8, 0.5F}});
  // A best box with a NaN edge shares nothing; a NaN counts as the same corner.
  const NmsBox open = {0, 0, 9, kNaN, 0.75F};
  ExpectFrame("NaN corner", nms, {open, twin}, {open, kZero});
  const NmsBox other = {0, 0, 8, 9, 0.5F};
  ExpectFrame("NaN corner", nms, {open, other}, {open, other});
  // The other way around 90 is shared, of a union that is no number and counts as 0.
  ExpectFrame("NaN in the other", nms, {kTen, {0, 0, 8, kNaN, 0.5F}}, {kTen, kZero});
  // Below 0 and NaN are 0: whatever shares a whole pixel goes.
  for (const float threshold : {-1.0F, kNaN, 0.0F}) {
    nms.iou_threshold = threshold;
    const NmsBox touching = {9, 9, 20, 20, 0.5F};
    ExpectFrame("no threshold", nms, {kTen, touching}, {kTen, kZero});
    const NmsBox less = {9.25F, 9, 20, 20, 0.5F};
    ExpectFrame("less than a pixel", nms, {kTen, less}, {kTen, less});
  }
}

void CheckFrames() {
  const NmsBox p = Pixel(1, 0.5F);
  const NmsBox q = Pixel(3, 0.75F);
  const NmsBox r = Pixel(5, 0.5F);
  const NmsBox at = Pixel(7, 0.25F);
  ExpectFrame("order", Class(3, 3, false), {p, q, r}, {q, p, r});
  ExpectFrame("order of the variant", Class(3, 3, true), {p, q, r}, {q, r, p});
  ExpectFrame("padded", Class(3, 5, false), {p, q, r}, {q, p, r, kZero, kZero});
  ExpectFrame("full", Class(3, 2, false), {p, q, r}, {q, p});
  ExpectFrame("one box", Class(1, 3, false), {p}, {p, kZero, kZero});
  ExpectFrame("at the threshold", Class(1, 1, false), {at}, {kZero});
  ExpectFrame("at the threshold", Class(1, 1, true), {at}, {at});
  ExpectFrame("no box", Class(0, 2, true), {}, {kZero, kZero});
  ExpectFrame("no row", Class(1, 0, false), {p}, {});
  ExpectFrame("negative", Class(1, -2, false), {p}, {});
  // A frame is full from 2.5 rows on, and padded to 2.
  ExpectFrame("2.5 rows", Class(3, 2.5F, false), {p, q, r}, {q, p, r});
  ExpectFrame("2.5 rows", Class(1, 2.5F, false), {p}, {p, kZero});
  ExpectFrame("never full", Class(3, kNaN, false), {p, q, r}, {q, p, r});

  const NmsBox low = {9, 0, 0, 9, 1.0F};
  const NmsBox narrow = {0, 9, 9, 0, 1.0F};
  for (const NmsBox& bad : {low, narrow}) {
    ExpectFrame("inverted", Class(3, 3, false), {p, bad, q}, {kZero, q, p});
    ExpectFrame("inverted", Class(3, 2, false), {p, bad, q}, {kZero, q});
    ExpectFrame("inverted", Class(1, 0, false), {bad}, {kZero});
    ExpectFrame("inverted, variant", Class(3, 3, true), {p, bad, q}, {q, p, kZero});
  }
  // An inverted box of another rank is dropped without a row.
  ExpectFrame("inverted, not best", Class(2, 2, false), {p, {9, 0, 0, 9, 0.25F}}, {p, kZero});
  // What is looked at need not pass the threshold.
  ExpectFrame("inverted, low", Class(1, 1, false), {{9, 0, 0, 9, -1}}, {kZero});

  // NaN passes either threshold. The variant never chooses it, which ends the class.
  ExpectFrame("NaN", Class(2, 2, false), {p, Pixel(3, kNaN)}, {p, Pixel(3, kNaN)});
  ExpectFrame("NaN", Class(2, 2, true), {p, Pixel(3, kNaN)}, {p, kZero});
  Nms below = Class(2, 2, true);
  below.scores_threshold = -2.0F;
  ExpectFrame("negative scores", below, {Pixel(1, -1), q}, {q, kZero});
  below.is_variant = false;
  ExpectFrame("negative scores", below, {Pixel(1, -1), q}, {q, Pixel(1, -1)});
}

void ExpectLog(const char* what, const std::vector<std::string>& actual,
               const std::vector<std::string>& expected) {
  for (size_t i = 0; i < actual.size() && i < expected.size(); ++i) {
    ExpectText(what, actual[i], expected[i]);
  }
  Expect(what, static_cast<int64_t>(actual.size()), static_cast<int64_t>(expected.size()));
}

void CheckLog() {
  const std::string ten = " y_min=0 x_min=0 y_max=9 x_max=9 score=0.75\n";
  const std::string half = " y_min=0 x_min=0 y_max=9 x_max=4 score=0.5\n";
  const std::string low = " y_min=-1.5 x_min=1.23457e+06 y_max=1e-05 x_max=1e+06 score=0.1\n";
  const NmsBox dropped = {-1.5F, 1234567, 1e-5F, 1e6F, 0.1F};
  std::vector<std::string> log;
  Nms nms = Class(3, 2, false);
  const std::vector<float> value = Flatten({kTen, dropped, kHalfOfTen});
  reference::SuppressNonMaxima(nms, value.data(), &log);
  ExpectLog("kept", log,
            {"batch = 0 class = 0\n",
             ten,
             low,
             half,
             "after filter:\n",
             ten,
             half,
             "boxes size = 2 class_boxes size = 0",
             "calculate areas between boxes:\n",
             ten,
             half,
             "union_area=100, overlap_area=50, iou_threshold_val=32768, iou_threshold=0.5\n",
             "boxes size = 1 class_boxes size = 1",
             "final:\n",
             "0 ",
             "0 ",
             "9 ",
             "9 ",
             "0.75 ",
             "\n",
             "0 ",
             "0 ",
             "9 ",
             "4 ",
             "0.5 ",
             "\n",
             "\n",
             "vec size = 1, internal_size = 2\n"});

  log.clear();
  nms.iou_threshold = 0.49F;
  nms.max_output_size = 1;
  reference::SuppressNonMaxima(nms, value.data(), &log);
  ExpectLog("erased", log,
            {"batch = 0 class = 0\n",
             ten,
             low,
             half,
             "after filter:\n",
             ten,
             half,
             "boxes size = 2 class_boxes size = 0",
             "calculate areas between boxes:\n",
             ten,
             half,
             "union_area=100, overlap_area=50, iou_threshold_val=32112, iou_threshold=0.49\n",
             "erasing... :\n",
             half,
             "final:\n",
             "0 ",
             "0 ",
             "9 ",
             "9 ",
             "0.75 ",
             "\n",
             "\n",
             "vec size = 1, internal_size = 1\n"});

  // The end of a class in which no box qualifies, and the largest threshold.
  log.clear();
  const std::string kept =
      "union_area=101, overlap_area=0, iou_threshold_val=18446744073709551615, "
      "iou_threshold=1e+20\n";
  const std::string pixel = " y_min=1 x_min=50 y_max=1 x_max=50 score=-1\n";
  nms = Class(2, 1.5F, true);
  nms.scores_threshold = -1.0F;
  nms.iou_threshold = 1e20F;
  reference::SuppressNonMaxima(nms, Flatten({Pixel(1, -1), kTen}).data(), &log);
  ExpectLog("no box qualifies", log,
            {"batch = 0 class = 0\n",
             pixel,
             ten,
             "after filter:\n",
             pixel,
             ten,
             "boxes size = 2 class_boxes size = 0",
             "calculate areas between boxes:\n",
             ten,
             pixel,
             kept,
             "boxes size = 1 class_boxes size = 1",
             "final:\n",
             "0 ",
             "0 ",
             "9 ",
             "9 ",
             "0.75 ",
             "\n",
             "\n",
             "vec size = 1, internal_size = 1\n"});

  // No row at all.
  log.clear();
  nms = Class(0, 0, true);
  nms.classes = 2;
  reference::SuppressNonMaxima(nms, nullptr, &log);
  ExpectLog("empty", log,
            {"batch = 0 class = 0\n", "after filter:\n", "batch = 0 class = 1\n", "after filter:\n",
             "final:\n", "\n", "\n", "vec size = 2, internal_size = 0\n"});
}

// Two batch entries of two classes with one box each, and a value that belongs to none.
void CheckClasses() {
  std::vector<float> value;
  for (const float place : {1.0F, 3.0F, 5.0F, 7.0F}) {
    for (const float v : Flatten({Pixel(place, place)})) value.push_back(v);
    if (place == 3.0F || place == 7.0F) value.push_back(99.0F);
  }
  Nms nms = Class(11, 2, false);
  nms.batch = 2;
  nms.d2 = 1;
  nms.classes = 2;
  nms.scores_threshold = 2.0F;
  const NmsResult result = reference::SuppressNonMaxima(nms, value.data(), nullptr);
  Expect("frames", static_cast<int64_t>(result.rows.size()), 4);
  for (const int64_t rows : result.rows) Expect("rows", rows, 2);
  ExpectAll("classes", result.values,
            Flatten({kZero, kZero, Pixel(3, 3), kZero, Pixel(5, 5), kZero, Pixel(7, 7), kZero}));
  // Frames of different lengths.
  nms.max_output_size = 0;
  nms.batch = 1;
  value[0] = 9;
  value[4] = 1;
  const NmsResult uneven = reference::SuppressNonMaxima(nms, value.data(), nullptr);
  Expect("rows of an inverted box", uneven.rows[0], 1);
  Expect("rows of another", uneven.rows[1], 0);
  ExpectAll("uneven", uneven.values, Flatten({kZero}));
}

}  // namespace

int main() {
  CheckDecoderLayout();
  CheckDecoderSteps();
  CheckSingleWeight();
  CheckAreas();
  CheckSelection();
  CheckThreshold();
  CheckFrames();
  CheckLog();
  CheckClasses();
  std::printf("boxes reference: %d checks passed\n", checks);
  return 0;
}
