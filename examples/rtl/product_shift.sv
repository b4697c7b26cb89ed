// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The shifter behind the multiplier: product / 2^shift, halves to even.

module product_shift #(
    parameter int WIDTH = 24,
    parameter int SHIFT_WIDTH = 4,
    parameter int BUG = 0
) (
    input  logic signed [      WIDTH-1:0] product,
    input  logic        [SHIFT_WIDTH-1:0] shift,
    output logic signed [      WIDTH-1:0] scaled
);
  if (2 ** SHIFT_WIDTH > WIDTH + 1) begin : g_check
    $error("Need shifts up to WIDTH = %0d, got SHIFT_WIDTH = %0d", WIDTH, SHIFT_WIDTH);
  end

  logic signed [WIDTH-1:0] kept;
  logic [WIDTH-1:0] dropped;  // the fraction: its highest bit is a half
  logic half, beyond_half, round_up;

  always_comb begin
    {kept, dropped} = $signed({product, {WIDTH{1'b0}}}) >>> shift;
    half = dropped[WIDTH-1];
    beyond_half = |dropped[WIDTH-2:0];
    round_up = half & (beyond_half | kept[0]);
    if (BUG == 1) round_up = half;  // halves up
    scaled = kept + WIDTH'(round_up);
  end
endmodule
