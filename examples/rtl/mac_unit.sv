// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A multiply-accumulate unit: each clock adds data * weight to two accumulators, to an integer one
// the product shifted, to a half-precision one the product as it is. `load` sets both instead.
//
// BUG plants an error, for the test bench to find:
//   1  the shifter rounds halves up
//   2  the integer accumulator saturates
//   3  the half-precision adder keeps all bits of a sum
//   4  a half-precision overflow keeps its sign

module mac_unit #(
    parameter int DATA_WIDTH = 16,
    parameter int WEIGHT_WIDTH = 8,
    parameter int SHIFT_WIDTH = 4,
    parameter int ACC_WIDTH = 24,
    parameter int BUG = 0
) (
    input  logic                           clk,
    input  logic                           load,
    input  logic signed [   ACC_WIDTH-1:0] initial_acc,
    input  logic        [            15:0] initial_half,
    input  logic signed [  DATA_WIDTH-1:0] data,
    input  logic signed [WEIGHT_WIDTH-1:0] weight,
    input  logic        [ SHIFT_WIDTH-1:0] shift,
    output logic signed [   ACC_WIDTH-1:0] acc,
    output logic        [            15:0] half
);
  localparam int PRODUCT_WIDTH = DATA_WIDTH + WEIGHT_WIDTH;
  logic signed [PRODUCT_WIDTH-1:0] product, scaled;
  logic signed [ACC_WIDTH-1:0] acc_sum;
  logic [15:0] half_sum;

  assign product = PRODUCT_WIDTH'(data) * PRODUCT_WIDTH'(weight);

  product_shift #(
      .WIDTH(PRODUCT_WIDTH),
      .SHIFT_WIDTH(SHIFT_WIDTH),
      .BUG(BUG)
  ) shifter (
      .product(product),
      .shift(shift),
      .scaled(scaled)
  );

  wrap_accumulator #(
      .WIDTH(ACC_WIDTH),
      .ADDEND_WIDTH(PRODUCT_WIDTH),
      .BUG(BUG)
  ) integer_adder (
      .acc(acc),
      .addend(scaled),
      .sum(acc_sum)
  );

  half_accumulator #(
      .ADDEND_WIDTH(PRODUCT_WIDTH),
      .BUG(BUG)
  ) half_adder (
      .acc(half),
      .addend(product),
      .sum(half_sum)
  );

  always_ff @(posedge clk) begin
    acc  <= load ? initial_acc : acc_sum;
    half <= load ? initial_half : half_sum;
  end
endmodule
