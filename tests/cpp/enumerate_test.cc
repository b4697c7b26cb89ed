// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A sample of each enumeration of tests/proofs/enumerate, and that the engine goes through all
// inputs and finds what differs.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "proofs/enumerate/engine.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/report.h"
#include "support/scale.h"

namespace bitfold::enumeration {
namespace {

class EnumerationSample : public ::testing::TestWithParam<size_t> {};

// Boundaries and blocks between them; under a sanitizer few blocks.
TEST_P(EnumerationSample, Agrees) {
  const Enumeration enumeration = AllEnumerations()[GetParam()];
  Options options;
  options.processes = 0;
  options.sample = (enumeration.is_long ? 524287 : 8191) * uint64_t{testing::Step(4)};
  options.takes_boundaries = !testing::kSanitized && !enumeration.is_long;
  const Result result = GoThrough(enumeration, options);
  for (const FormResult& form : result.forms) EXPECT_EQ(form.differences, 0u) << form.first;
  for (const FormResult& control : result.controls) {
    EXPECT_GT(control.differences, 0u) << control.name;
  }
}

INSTANTIATE_TEST_SUITE_P(All, EnumerationSample,
                         ::testing::Range(size_t{0}, AllEnumerations().size()));

// ---- The engine --------------------------------------------------------------------------------

Form Identity() {
  return Each("as it is", [](const Setting&, float x, float) { return WordOf(x); });
}

// Wrong at the numbers.
Form WrongAt(const std::vector<float>& numbers) {
  return Each("wrong", [numbers](const Setting&, float x, float) {
    for (const float number : numbers) {
      if (x == number) return Word{1};
    }
    return WordOf(x);
  });
}

Enumeration Planted() {
  return {"Planted",
          "x is x",
          WholeNumbers(300000),
          {{"once"}, {"twice"}},
          Identity(),
          {Identity(), WrongAt({-300000, -1, 300000})},
          {WrongAt({0}), WrongAt({0.5f})}};
}

TEST(Enumeration, GoesThroughAllInputsInAnyNumberOfProcesses) {
  for (const int processes : {0, 1, 3}) {
    Options options;
    options.processes = processes;
    const Result result = GoThrough(Planted(), options);
    EXPECT_EQ(result.inputs, 1200002u);
    EXPECT_EQ(result.forms[0].inputs, 1200002u);
    EXPECT_EQ(result.forms[0].differences, 0u);
    EXPECT_EQ(result.forms[1].differences, 6u);
    EXPECT_EQ(result.forms[1].first,
              "once: x = -0x1.24f8p+18 (0xc8927c00), other 0x0p+0: expected 0xc8927c00, got 0x1");
    EXPECT_FALSE(result.IsRight());
  }
}

TEST(Enumeration, ControlsThatAreNotFoundAreFailures) {
  Enumeration planted = Planted();
  planted.forms.pop_back();
  const Result result = GoThrough(planted, {});
  EXPECT_EQ(result.controls[0].differences, 1u);
  EXPECT_EQ(result.controls[1].differences, 0u);
  EXPECT_FALSE(result.IsRight());
  EXPECT_EQ(Findings(result, /*with_controls=*/false),
            "FAILED Planted: control 'wrong' was not found\n");
  planted.controls.pop_back();
  EXPECT_TRUE(GoThrough(planted, {}).IsRight());
}

TEST(Enumeration, FormsWithoutInputsAreFailures) {
  Enumeration planted = Planted();
  const auto nowhere = [](const Setting&, float, float) { return false; };
  const auto same = [](const Setting&, float x, float) { return WordOf(x); };
  planted.forms = {Where("nowhere", nowhere, same)};
  planted.controls.pop_back();
  EXPECT_FALSE(GoThrough(planted, {}).IsRight());
}

TEST(Enumeration, ProcessesThatEndAreErrors) {
  Enumeration planted = Planted();
  planted.forms = {Each("ends", [](const Setting&, float x, float) {
    if (x == 7) _exit(1);
    return WordOf(x);
  })};
  EXPECT_THROW(GoThrough(planted, {}), std::runtime_error);
}

TEST(Enumeration, EveryFloatIsEveryPattern) {
  const Inputs inputs = EveryFloat();
  EXPECT_EQ(inputs.count, uint64_t{1} << 32);
  float x[2];
  float acc[2];
  inputs.fill({"", 0, 5.0f}, UINT32_MAX - 1, 2, x, acc);
  EXPECT_EQ(acc[1], 5.0f);
  inputs.fill({}, 0x3f800000, 2, x, acc);
  EXPECT_EQ(x[0], 1.0f);
  EXPECT_EQ(x[1], 0x1.000002p0f);
  const Inputs some = PositiveFloats(-2, 32);
  some.fill({}, some.count - 1, 1, x, acc);
  EXPECT_EQ(x[0], 0x1.fffffep31f);
}

}  // namespace
}  // namespace bitfold::enumeration
