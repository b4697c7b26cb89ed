// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Compares both accumulators of mac_unit with Bitfold after every clock: boundaries crossed with
// each other first, then random steps from a seed. The first difference is shown and ends the run.
//
//   +steps=N  random steps, 10,000,000 where not given
//   +seed=N   which, 1 where not given

module mac_bench #(
    parameter int ACC_WIDTH = 24,
    parameter int BUG = 0
);
  localparam int DATA_WIDTH = 16;
  localparam int WEIGHT_WIDTH = 8;
  localparam int SHIFT_WIDTH = 4;

  // ---- The reference: bitfold/single_step.h as it is, and reference.cc --------------------------

  import "DPI-C" function int multiplier_verification(input int a, input int b);
  import "DPI-C" function int shifter_int_acc_verification(input int x, input int shift);
  import "DPI-C" function int reference_accumulate(
    input int acc,
    input int addend,
    input int width
  );
  import "DPI-C" function shortint unsigned reference_accumulate_half(
    input shortint unsigned acc,
    input int product
  );

  // ---- The unit ---------------------------------------------------------------------------------

  logic clk = 0;
  initial forever #1 clk = ~clk;

  logic load;
  logic signed [ACC_WIDTH-1:0] initial_acc, acc;
  logic [15:0] initial_half, half;
  logic signed [DATA_WIDTH-1:0] data;
  logic signed [WEIGHT_WIDTH-1:0] weight;
  logic [SHIFT_WIDTH-1:0] shift;

  mac_unit #(
      .DATA_WIDTH(DATA_WIDTH),
      .WEIGHT_WIDTH(WEIGHT_WIDTH),
      .SHIFT_WIDTH(SHIFT_WIDTH),
      .ACC_WIDTH(ACC_WIDTH),
      .BUG(BUG)
  ) unit (
      .*
  );

  // ---- One step ---------------------------------------------------------------------------------

  int expected_acc;
  shortint unsigned expected_half;
  int step_count = 0;
  string phase;

  function automatic real value_of(input logic [15:0] register);
    real x;
    x = register[14:11] == 0 ? $itor(register[10:0]) / 1024.0
      : (2048.0 + $itor(register[10:0])) * 2.0 ** ($itor(register[14:11]) - 11.0);
    value_of = register[15] ? -x : x;
  endfunction

  function automatic string verdict(input bit is_equal);
    if (is_equal) verdict = "equal";
    else verdict = "DIFFERENT";
  endfunction

  task automatic report(input int acc_before, input shortint unsigned half_before,
                        input int product, input int scaled);
    $display("step %0d (%s): data %0d * weight %0d = %0d, shifted by %0d: %0d", step_count, phase,
             data, weight, product, shift, scaled);
    $display("  integer accumulator of %0d bits: %0d + %0d", ACC_WIDTH, acc_before, scaled);
    $display("    expected %0d (%h), got %0d (%h), %s", expected_acc, ACC_WIDTH'(expected_acc), acc,
             acc, verdict(int'(acc) == expected_acc));
    $display("  half-precision accumulator: %0.10g (%h) + %0d", value_of(half_before), half_before,
             product);
    $display("    expected %0.10g (%h), got %0.10g (%h), %s", value_of(expected_half),
             expected_half, value_of(half), half, verdict(half == expected_half));
    $display("mac_bench: DIFFERENT at step %0d", step_count);
    $finish(0);
  endtask

  task automatic set_accumulators(input logic signed [ACC_WIDTH-1:0] to_acc,
                                  input logic [15:0] to_half);
    load = 1;
    initial_acc = to_acc;
    initial_half = to_half;
    @(negedge clk);
    load = 0;
    expected_acc = int'(to_acc);
    expected_half = to_half;
  endtask

  // Inputs change and outputs are read at the falling edge, away from the unit's.
  task automatic accumulate(input logic signed [DATA_WIDTH-1:0] a,
                            input logic signed [WEIGHT_WIDTH-1:0] b,
                            input logic [SHIFT_WIDTH-1:0] s);
    int acc_before, product, scaled;
    shortint unsigned half_before;
    acc_before = expected_acc;
    half_before = expected_half;
    data = a;
    weight = b;
    shift = s;
    product = multiplier_verification(int'(a), int'(b));
    scaled = shifter_int_acc_verification(product, int'(s));
    expected_acc = reference_accumulate(acc_before, scaled, ACC_WIDTH);
    expected_half = reference_accumulate_half(half_before, product);
    @(negedge clk);
    ++step_count;
    if (int'(acc) != expected_acc || half != expected_half) begin
      report(acc_before, half_before, product, scaled);
    end
  endtask

  // ---- Boundaries -------------------------------------------------------------------------------

  // Ends of the ranges, signs, halves, and 12 significant bits with one more.
  localparam int DATA_COUNT = 18;
  localparam int DATA[DATA_COUNT] = '{
      -32768, -32767, -2049, -2047, -257, -129, -3, -2, -1,
      0, 1, 2, 3, 255, 2047, 2049, 32766, 32767
  };
  localparam int WEIGHT_COUNT = 11;
  localparam int WEIGHT[WEIGHT_COUNT] = '{-128, -127, -8, -2, -1, 0, 1, 3, 8, 64, 127};
  // Of both signs: 0, the smallest, around 2, around 4, around 2^14, the largest and 32768.
  localparam int HALF_COUNT = 9;
  localparam int HALF[HALF_COUNT] = '{
      'h0000, 'h0001, 'h07ff, 'h0800, 'h0fff, 'h6fff, 'h7000, 'h77ff, 'h7800
  };

  task automatic boundaries();
    phase = "boundaries";
    for (int h = 0; h < 2 * HALF_COUNT; ++h) begin
      for (int d = 0; d < DATA_COUNT; ++d) begin
        for (int w = 0; w < WEIGHT_COUNT; ++w) begin
          for (int s = 0; s < 2 ** SHIFT_WIDTH; ++s) begin
            logic signed [ACC_WIDTH-1:0] start;
            case (h % 5)
              0: start = 0;
              1: start = {1'b1, {(ACC_WIDTH - 1) {1'b0}}};
              2: start = {1'b0, {(ACC_WIDTH - 1) {1'b1}}};
              3: start = -1;
              default: start = {1'b1, (ACC_WIDTH - 1)'(1)};
            endcase
            set_accumulators(start, {h >= HALF_COUNT, 15'(HALF[h%HALF_COUNT])});
            accumulate(DATA_WIDTH'(DATA[d]), WEIGHT_WIDTH'(WEIGHT[w]), SHIFT_WIDTH'(s));
          end
        end
      end
    end
  endtask

  // ---- Random steps -----------------------------------------------------------------------------

  // The same on every simulator.
  longint unsigned state;
  function automatic int random();
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    random = int'(state >> 32);
  endfunction

  // Of all sizes: a random number of the low bits, with its sign.
  function automatic int sized(input int bits);
    sized = (random() << (32 - bits)) >>> (32 - bits + int'(state[3:0]) % bits);
  endfunction

  task automatic random_steps(input int count);
    phase = "random";
    for (int i = 0; i < count; ++i) begin
      // Chains of some 16 steps. Exponents are those that the register can hold.
      if (i % 16 == 0) begin
        set_accumulators(ACC_WIDTH'(random()),
                         {state[8], 4'(32'(state[15:12]) % 15), state[26:16]});
      end
      accumulate(DATA_WIDTH'(sized(DATA_WIDTH)), WEIGHT_WIDTH'(sized(WEIGHT_WIDTH)),
                 SHIFT_WIDTH'(random()));
    end
  endtask

  initial begin
    int steps, seed;
    if (!$value$plusargs("steps=%d", steps)) steps = 10_000_000;
    if (!$value$plusargs("seed=%d", seed)) seed = 1;
    state = 64'h9e3779b97f4a7c15 ^ (64'(seed) << 1);
    boundaries();
    random_steps(steps);
    $display("mac_bench: EQUAL in %0d steps, %0d of them random, from seed %0d", step_count, steps,
             seed);
    $finish(0);
  end
endmodule
