// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The adder of an integer accumulator of WIDTH bits: what does not fit is dropped, so a sum beyond
// the range comes back by 2^WIDTH. That is one wrap as long as an addend is at most 2^WIDTH.

module wrap_accumulator #(
    parameter int WIDTH = 24,
    parameter int ADDEND_WIDTH = 24,
    parameter int BUG = 0
) (
    input  logic signed [       WIDTH-1:0] acc,
    input  logic signed [ADDEND_WIDTH-1:0] addend,
    output logic signed [       WIDTH-1:0] sum
);
  if (ADDEND_WIDTH > WIDTH + 1) begin : g_check
    $error("Need addends of at most %0d bits, got %0d", WIDTH + 1, ADDEND_WIDTH);
  end

  // A bit more than either, so that no sum is lost.
  localparam int FULL = (WIDTH > ADDEND_WIDTH ? WIDTH : ADDEND_WIDTH) + 1;
  logic signed [FULL-1:0] full;

  always_comb begin
    full = FULL'(acc) + FULL'(addend);
    sum  = full[WIDTH-1:0];
    if (BUG == 2 && full != FULL'(sum)) begin  // saturates
      sum = {full[FULL-1], {(WIDTH - 1) {~full[FULL-1]}}};
    end
  end
endmodule
