// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the narrow floats against the oracle, in any widths, logged lines and counters included.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "bitfold/fpx.h"
#include "fuzz_input.h"
#include "reference/fpx.h"
#include "support/log_stub.h"

namespace bitfold::testing {
namespace {

// A value as both know it; all bits beside the fields are 0.
struct Both {
  FPX actual;
  reference::Fpx expected;
};

Both ReadValue(FuzzInput* input, uint8_t exp_len, uint8_t man_len) {
  Both x;
  std::memset(&x, 0, sizeof(x));
  x.actual.exp_len = exp_len;
  x.actual.man_len = man_len;
  x.actual.mantissa = input->Word() >> input->Between(0, 31);
  if (input->Flag()) x.actual.mantissa |= 1u << ((man_len - 1) & 31);
  x.actual.exponent = static_cast<uint16_t>(input->Flag() ? input->Byte() & 31 : input->Word());
  x.actual.sign = input->Byte() & 1u;
  std::memcpy(&x.expected, &x.actual, sizeof(x.actual));
  return x;
}

std::string Text(const FPX& x) {
  return std::to_string(x.exp_len) + " " + std::to_string(x.man_len) + " " +
         std::to_string(x.mantissa) + " " + std::to_string(x.exponent) + " " +
         std::to_string(x.sign);
}

void Require(const Both& x, const char* path, const std::string& inputs) {
  const FPX& a = x.actual;
  const reference::Fpx& e = x.expected;
  if (a.exp_len == e.exp_len && a.man_len == e.man_len && a.mantissa == e.mantissa &&
      a.exponent == e.exponent && a.sign == e.sign) {
    return;
  }
  FPX expected;
  std::memcpy(&expected, &e, sizeof(e));
  Fail(std::string(path) + " (exp_len man_len mantissa exponent sign)\n  inputs:   " + inputs +
       "\n  expected: " + Text(expected) + "\n  actual:   " + Text(a));
}

void Fuzz(FuzzInput* input) {
  LoggedLines().clear();
  const int32_t start[4] = {g_32toX_of, g_32toX_uf, g_resizeX_of, g_resizeX_uf};
  reference::FpxRecord record;
  const auto exp_len = static_cast<uint8_t>(input->Flag() ? input->Between(3, 4) : input->Byte());
  const auto man_len = static_cast<uint8_t>(input->Flag() ? input->Between(1, 24) : input->Byte());
  Both a = ReadValue(input, exp_len, man_len);
  Both b = ReadValue(input, exp_len, man_len);
  Both out = ReadValue(input, exp_len, input->Flag() ? man_len : input->Byte());
  std::string inputs = Text(a.actual) + ", " + Text(b.actual) + ", " + Text(out.actual);

  add_sub_floatX(a.actual, b.actual, &out.actual);
  reference::FpxAdd(a.expected, b.expected, &out.expected, &record);
  Require(out, "add_sub_floatX", inputs);
  mul_floatX(a.actual, b.actual, &out.actual);
  reference::FpxMultiply(a.expected, b.expected, &out.expected, &record);
  Require(out, "mul_floatX", inputs);
  align_floatX(&a.actual, &b.actual);
  reference::FpxAlign(&a.expected, &b.expected);
  Require(a, "align_floatX", inputs);
  Require(b, "align_floatX", inputs);

  const float expected = reference::FpxToFloat(a.expected, &record);
  const float actual = floatX_to32(a.actual);
  RequireSame(&expected, &actual, 1, "floatX_to32", [&inputs](int64_t) { return inputs; });
  const float value = FloatOf(input->Word());
  float32_toX(value, &b.actual);
  reference::FpxFromFloat(value, &b.expected, &record);
  Require(b, "float32_toX", Show(value));
  const auto new_exp_len =
      static_cast<uint16_t>(input->Flag() ? input->Between(3, 4) : input->Word());
  const auto new_man_len =
      static_cast<uint16_t>(input->Flag() ? input->Between(1, 24) : input->Word());
  ResizeX(&a.actual, new_exp_len, new_man_len);
  reference::FpxResize(&a.expected, new_exp_len, new_man_len, &record);
  Require(a, "ResizeX", inputs);

  RequireSameText(record.lines, LoggedLines(), "the log", inputs);
  const int32_t moved[4] = {g_32toX_of - start[0], g_32toX_uf - start[1], g_resizeX_of - start[2],
                            g_resizeX_uf - start[3]};
  const int32_t counted[4] = {record.float_overflows, record.float_underflows,
                              record.resize_overflows, record.resize_underflows};
  RequireSame(counted, moved, 4, "counters", [&inputs](int64_t) { return inputs; });
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  bitfold::testing::Fuzz(&input);
  return 0;
}
