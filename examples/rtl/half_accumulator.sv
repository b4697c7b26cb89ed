// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The adder of a half-precision accumulator, of integers, without any arithmetic on reals.
//
// The register has 16 bits: a sign, an exponent field E of 4 bits, a fraction f of 11. Its value is
//   E = 0:   f * 2^-10, numbers below 2;
//   E > 0:   (2048 + f) * 2^(E - 11), 12 significant bits. E = 15 is 32768 alone, with f = 0.
// Inside, numbers are magnitudes in units of 2^-10 with a sign beside them.
//
// A step quantises the addend, adds it, rounds the sum to the 24 bits of single precision, and
// quantises it.

module half_accumulator #(
    parameter int ADDEND_WIDTH = 24,
    parameter int BUG = 0
) (
    input  logic        [            15:0] acc,
    input  logic signed [ADDEND_WIDTH-1:0] addend,
    output logic        [            15:0] sum
);
  // Converted to single precision a wider addend would be rounded.
  if (ADDEND_WIDTH > 25) begin : g_check
    $error("Need addends of at most 25 bits, got %0d", ADDEND_WIDTH);
  end

  // Holds an addend of 25 bits, and a sum of two values of the register.
  localparam int WIDTH = 35;
  typedef logic [WIDTH-1:0] magnitude_t;

  function automatic int bit_length(input magnitude_t x);
    bit_length = 0;
    for (int i = 0; i < WIDTH; ++i) if (x[i]) bit_length = i + 1;
  endfunction

  function automatic magnitude_t magnitude_of(input logic [14:0] register);
    if (register[14:11] == 0) magnitude_of = magnitude_t'(register[10:0]);
    else magnitude_of = magnitude_t'({1'b1, register[10:0]}) << (register[14:11] - 1);
  endfunction

  // To 24 significant bits, halves to even.
  function automatic magnitude_t single(input magnitude_t x);
    int drop;
    magnitude_t kept, rest, tie;
    drop = bit_length(x) - 24;
    if (drop <= 0 || BUG == 3) begin  // keeps all bits of the sum
      single = x;
    end else begin
      tie = magnitude_t'(1) << (drop - 1);
      kept = x >> drop;
      rest = x - (kept << drop);
      if (rest > tie || (rest == tie && kept[0])) kept = kept + 1;
      single = kept << drop;
    end
  endfunction

  // To the register. Of numbers from 2 on, first all but 18 significant bits are cut off, towards
  // minus infinity, then the 18 are rounded to 12, halves to even. A number from 2^15 on comes out
  // with the other sign, and its exponent is held at that of 2^14 to 2^15.
  function automatic logic [15:0] quantise(input logic negative, input magnitude_t x);
    int length;
    logic [3:0] exponent;
    logic [18:0] cut;  // 18 bits, and one for a carry
    logic [12:0] significand;  // 12 bits, and one for a carry
    length = bit_length(x);
    if (length < 12) begin
      quantise = {negative, 4'd0, x[10:0]};
    end else begin
      if (length <= 18) begin
        cut = 19'(x << (18 - length));
      end else begin
        cut = 19'(x >> (length - 18));
        if (negative && (magnitude_t'(cut) << (length - 18)) != x) cut = cut + 1;
      end
      significand = cut[18:6];
      if (cut[5:0] > 6'd32 || (cut[5:0] == 6'd32 && cut[6])) significand = significand + 1;
      exponent = 4'(length - 11);
      if (length > 25) begin
        exponent = 4'd14;
        if (BUG != 4) negative = ~negative;  // overflow keeps its sign
      end
      // A carry out of the 12 bits leaves a fraction of 0.
      quantise = {negative, exponent + 4'(significand[12]), significand[10:0]};
    end
  endfunction

  magnitude_t magnitude;
  logic [15:0] quantised;
  logic signed [WIDTH:0] a, b, total;

  always_comb begin
    magnitude = magnitude_t'(addend < 0 ? -WIDTH'(addend) : WIDTH'(addend));
    quantised = quantise(addend < 0, magnitude << 10);
    a = $signed({1'b0, magnitude_of(acc[14:0])});
    b = $signed({1'b0, magnitude_of(quantised[14:0])});
    total = (acc[15] ? -a : a) + (quantised[15] ? -b : b);
    sum = quantise(total < 0, single(magnitude_t'(total < 0 ? -total : total)));
  end
endmodule
