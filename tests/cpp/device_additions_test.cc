// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The device's kernels of the additions, emulated: worked examples, also of what the CPU does
// otherwise; values and printed text against the oracle over every attribute, in every order of
// the threads; and how they are launched.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "device/launchers.h"
#include "reference/device.h"
#include "support/addition.h"
#include "support/device_case.h"
#include "support/device_emulation.h"
#include "support/ledger.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using testing::Addition;
using testing::AdditionCase;
using testing::Data;
using testing::Describe;
using testing::DeviceEmulation;
using testing::Output;
using testing::Path;
using testing::Ran;
using testing::Same;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

// ---- The kernels as ops of support/addition.h --------------------------------------------------

// {count, 1, 1, 1} with a small factor moved to each of the other places, if it has one. An order
// of the elements that is not the flat one would show.
std::array<int, 4> Factors(int64_t count) {
  std::array<int, 4> factors = {static_cast<int>(count), 1, 1, 1};
  for (size_t place = 1; place < 4; ++place) {
    for (const int factor : {2, 3, 5, 7, 19}) {
      if (factors[0] % factor != 0) continue;
      factors[0] /= factor;
      factors[place] = factor;
      break;
    }
  }
  return factors;
}

// Rows in three dimensions, and the channels.
AdditionShape Rows(int64_t count, int64_t channels) {
  const std::array<int, 4> d = Factors(channels > 0 ? count / channels : 0);
  return {d[0], d[1], d[2] * d[3], static_cast<int>(channels)};
}

int stream_place = 0;
void* const kStream = &stream_place;

struct Add4D : testing::HAddTraits {
  static constexpr const char* kName = "AddEwFeedRepeat_4D";
  static constexpr Path kInt32Path = Path::kDeviceAdd4DInt32;
  static constexpr Path kFloatPath = Path::kDeviceAdd4DFloat;
  static constexpr Path kHalfPath = Path::kDeviceAdd4DHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::DeviceAdd<T>(c.value.data(), c.operand.data(), c.factor, c.feed_repeat, c.mult_shift,
                            c.accumulator_size, c.use_fp16_acc, c.count(), out, lines);
  }
  static AdditionShape ShapeOf(int64_t count, int64_t) {
    const auto d = Factors(count);
    return {d[0], d[1], d[2], d[3]};
  }
  template <typename T>
  static void Run(const AddCall<T>& call, int64_t, Workers*) {
    LaunchAddEwFeedRepeat4D(kStream, call);
  }
};

struct Add2D : Add4D {
  static constexpr const char* kName = "AddEwFeedRepeat_2D";
  static constexpr Path kInt32Path = Path::kDeviceAdd2DInt32;
  static constexpr Path kFloatPath = Path::kDeviceAdd2DFloat;
  static constexpr Path kHalfPath = Path::kDeviceAdd2DHalf;

  static AdditionShape ShapeOf(int64_t count, int64_t) {
    const auto d = Factors(count);
    return {d[0], 1, 1, d[1] * d[2] * d[3]};
  }
  template <typename T>
  static void Run(const AddCall<T>& call, int64_t, Workers*) {
    LaunchAddEwFeedRepeat2D(kStream, call);
  }
};

struct Bias : testing::HBiasAddTraits {
  static constexpr const char* kName = "AddFeedRepeat";
  static constexpr Path kInt32Path = Path::kDeviceBiasInt32;
  static constexpr Path kFloatPath = Path::kDeviceBiasFloat;
  static constexpr Path kHalfPath = Path::kDeviceBiasHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::DeviceBiasAdd<T>(c.value.data(), c.operand.data(), c.factor, c.feed_repeat,
                                c.mult_shift, c.accumulator_size, c.use_fp16_acc, c.count(),
                                Channels(c), out, lines);
  }
  static AdditionShape ShapeOf(int64_t count, int64_t channels) { return Rows(count, channels); }
  template <typename T>
  static void Run(const BiasAddCall<T>& call, int64_t, Workers*) {
    LaunchAddFeedRepeat(kStream, call);
  }
};

struct DecomposedBias : testing::HDecomposedBiasAddTraits {
  static constexpr const char* kName = "AddDecomposedFeedRepeat";
  static constexpr Path kInt32Path = Path::kDeviceDecomposedBiasInt32;
  static constexpr Path kFloatPath = Path::kDeviceDecomposedBiasFloat;
  static constexpr Path kHalfPath = Path::kDeviceDecomposedBiasHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::DeviceDecomposedBiasAdd<T>(
        c.value.data(), c.operand.data(), c.second.data(), c.factor, c.second_factor, c.feed_repeat,
        c.mult_shift, c.accumulator_size, c.use_fp16_acc, c.count(), Channels(c), out, lines);
  }
  static AdditionShape ShapeOf(int64_t count, int64_t channels) { return Rows(count, channels); }
  template <typename T>
  static void Run(const DecomposedBiasAddCall<T>& call, int64_t, Workers*) {
    LaunchAddDecomposedFeedRepeat(kStream, call);
  }
};

struct Standalone : testing::HStandaloneElementwiseAddTraits {
  static constexpr const char* kName = "AddStandaloneEw";
  static constexpr Path kInt32Path = Path::kDeviceStandaloneInt32;
  static constexpr Path kFloatPath = Path::kDeviceStandaloneFloat;
  static constexpr Path kHalfPath = Path::kDeviceStandaloneHalf;

  template <typename T>
  static void Oracle(const Addition<T>& c, T* out, std::string* lines) {
    reference::DeviceStandaloneAdd<T>(c.value.data(), c.operand.data(), c.second.data(),
                                      c.mult_shift, c.accumulator_size, c.use_fp16_acc, c.count(),
                                      Channels(c), out, lines);
  }
  static AdditionShape ShapeOf(int64_t count, int64_t channels) { return Rows(count, channels); }
  template <typename T>
  static void Run(const StandaloneElementwiseAddCall<T>& call, int64_t, Workers*) {
    LaunchAddStandaloneEw(kStream, call);
  }
};

// Threads of a device know nothing of those that count.
template <typename Op, typename T>
bool CountsWarnings(const AdditionCase<Op, T>&) {
  return false;
}

// Against the oracle, in every order of the threads; only in the first is the text that of a loop.
template <typename Op, typename T>
::testing::AssertionResult Check(const Addition<T>& c, int offset = 0) {
  const AdditionCase<Op, T> addition{c};
  const Output<T> expected = OracleOf(addition);
  for (const testing::DeviceRun& run : testing::DeviceRuns()) {
    const DeviceEmulation emulation(run.options);
    Output<T> actual = KernelOf(addition, offset);
    const auto lines = run.is_in_order ? testing::SameText(expected.lines, actual.lines, run.name)
                                       : testing::SameLines(expected.lines, actual.lines, run.name);
    if (!lines) return lines;
    actual.lines = expected.lines;
    const auto values = SameOutputs(addition, expected, actual, run.name);
    if (!values) return values;
  }
  return ::testing::AssertionSuccess();
}

template <typename Op, typename T>
Output<T> OneOnDevice(T value, T operand, float feed_repeat, int shift, int width,
                      bool use_fp16_acc = false) {
  return testing::AddOne<Op, T>(value, operand, T{1}, feed_repeat, shift, width, use_fp16_acc);
}

// ---- Worked examples, and what the CPU does otherwise -------------------------------------------

// One element that prints nothing.
template <typename T>
::testing::AssertionResult Gives(T expected, T value, T operand, float feed_repeat, int shift,
                                 int width, bool use_fp16_acc = false) {
  const auto out = OneOnDevice<Add4D, T>(value, operand, feed_repeat, shift, width, use_fp16_acc);
  if (!out.lines.empty()) return ::testing::AssertionFailure() << "printed " << out.lines;
  return Same(expected, out.values[0], "on the device",
              Describe("value", value, "operand", operand, "repeat", feed_repeat, "shift", shift,
                       "width", width));
}

TEST(DeviceAdditions, WorkedExamples) {
  EXPECT_TRUE(Gives<int32_t>(-106, 100, 50, 1.0f, 0, 8));
  EXPECT_TRUE(Gives<float>(-126.0f, 100.0f, 30.0f, 1.0f, 0, 8));
  EXPECT_TRUE(Gives<float>(126.0f, -100.0f, -30.0f, 1.0f, 0, 8));
  EXPECT_TRUE(Gives<int32_t>(21, 0, 7, 2.5f, 0, 16));
  EXPECT_TRUE(Gives<float>(21.0f, 0.0f, 7.0f, 2.5f, 0, 16));
  EXPECT_TRUE(Gives<int32_t>(1, 0, 5, 1.0f, 2, 16));
  EXPECT_TRUE(Gives<float>(2.0f, 0.0f, 5.0f, 1.0f, 2, 16));
  // The quotient, 2.5, goes to 2; by the reciprocal it would be 3.
  EXPECT_TRUE(Gives<float>(2.0f, 0.0f, 75.0f, 1.0f, 30, 16));
  EXPECT_TRUE(Gives<float>(1000.5f, 1000.5f, 50.0f, 0.0f, 0, 8));
  EXPECT_TRUE(Gives<float>(-20000.0f, 40000.0f, 50.0f, -1.0f, 0, 24, true));
  EXPECT_TRUE(Gives<int32_t>(-20000, 40000, 50, 0.0f, 0, 24, true));
}

TEST(DeviceAdditions, BiasOfTheChannel) {
  Addition<int32_t> c;
  c.value = {0, 0, 0, 1000, 1000, 1000};
  c.operand = {1, 2, 3};
  const auto out = testing::RunAddition<Bias>(c);
  const std::vector<int32_t> expected = {1, 2, 3, 1001, 1002, 1003};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(out.values[static_cast<int64_t>(i)], expected[i]) << i;
  }
}

TEST(DeviceAdditions, NanFeedAddsNothing) {
  EXPECT_TRUE(Gives<int32_t>(100, 100, 50, kNan, 0, 8));
  EXPECT_TRUE(Gives<float>(100.0f, 100.0f, 50.0f, kNan, 0, 8));
  EXPECT_TRUE(Gives<float>(-20000.0f, 40000.0f, 50.0f, -kNan, 0, 8, true));
  EXPECT_TRUE(Gives<int32_t>(-20000, 40000, 50, kNan, 0, 32, true));
}

// (float)k is compared: 2^24 + 3 passes are as many as 2^24 + 4.
TEST(DeviceAdditions, PassesAreCountedAsFloats) {
  EXPECT_TRUE(Gives<int32_t>(16777219, 0, 1, 16777220.0f, 0, 32));
}

TEST(DeviceAdditions, NanSumsPrintNothingUnlikeTheCpus) {
  const auto on_device = OneOnDevice<Add4D, float>(kNan, 1.0f, 2.0f, 0, 24);
  EXPECT_EQ(on_device.lines, "");
  const std::string line = "@@@ WARNING: acc nan is out of bounds <-8388607,8388607>\n";
  const auto on_cpu = testing::AddOne<testing::HAddTraits, float>(kNan, 1.0f, 1.0f, 2.0f, 0, 24);
  EXPECT_TRUE(testing::SameText(line + line, on_cpu.lines, "on the CPU"));
  EXPECT_TRUE(Same(kNan, on_device.values[0], "NaN", ""));
  // An infinite sum is printed by both.
  const auto infinite = OneOnDevice<Add4D, float>(-kInfinity, 1.0f, 1.0f, 0, 24);
  EXPECT_EQ(infinite.lines, "@@@ WARNING: acc -inf is out of bounds <-8388607,8388607>\n");
}

// In three roundings, where the CPU takes the period off at once.
TEST(DeviceAdditions, WrapDiffersFromTheCpusInTheLastBit) {
  const auto on_device = OneOnDevice<Add4D, float>(25165828.0f, 2.0f, 1.0f, 0, 24);
  EXPECT_TRUE(Same(8388616.0f, on_device.values[0], "on the device", ""));
  const auto on_cpu =
      testing::AddOne<testing::HAddTraits, float>(25165828.0f, 2.0f, 1.0f, 1.0f, 0, 24);
  EXPECT_TRUE(Same(8388614.0f, on_cpu.values[0], "on the CPU", ""));
  EXPECT_EQ(on_device.lines, on_cpu.lines);
  // Integers are the same.
  EXPECT_TRUE(Gives<int32_t>(8388614, 25165828, 2, 1.0f, 0, 24));
}

TEST(DeviceAdditions, LinesOfEveryAddition) {
  const auto line = [](const std::string& sum) {
    return "@@@ WARNING: acc " + sum + ".000000 is out of bounds <-8388607,8388607>\n";
  };
  EXPECT_EQ((OneOnDevice<Add4D, float>(8388605.0f, 1.0f, 3.0f, 0, 32).lines),
            line("8388607") + line("8388608"));
  EXPECT_EQ((OneOnDevice<Add4D, float>(-8388606.0f, -1.0f, 2.0f, 0, 32).lines), line("-8388608"));
  EXPECT_EQ((OneOnDevice<Add4D, int32_t>(8388605, 1, 3.0f, 0, 32).lines), "");
  Addition<float> c;
  c.value = {8388608.0f};
  c.operand = {10.0f};
  c.second = {-2.0f};
  c.feed_repeat = 2.0f;
  c.accumulator_size = 40;
  EXPECT_EQ(testing::RunAddition<DecomposedBias>(c).lines,
            line("8388618") + line("8388616") + line("8388626") + line("8388624"));
}

// ---- Against the oracle ------------------------------------------------------------------------

template <typename T>
std::vector<int> DeviceWidths() {
  if constexpr (std::is_same_v<T, int32_t>) {
    return {0, 1, 8, 24, 31, 32};
  } else {
    return {0, 1, 8, 24, 31, 32, 33, 40, 126, 127, 128, 129, 130};
  }
}

std::vector<int> DeviceShifts() {
  return {0, 1, 2, 3, 7, 30, 31, 32, 33, -1, -2, -31, -32, INT8_MAX, INT8_MIN};
}

std::vector<float> DeviceRepeats() { return {0.0f, -1.0f, kNan, 0.5f, 1.0f, 2.5f, 3.0f, 17.0f}; }

template <typename Op, typename T>
void CheckDrawn(testing::Random* random, Data data, int width, int shift, float feed_repeat,
                bool use_fp16_acc) {
  Addition<T> c = testing::DrawAddition<Op, T>(random, data, 20, 5);
  c.factor = random->Flag() ? T{1} : testing::Draw<T>(random, data);
  c.second_factor = random->Flag() ? T{1} : testing::Draw<T>(random, data);
  c.feed_repeat = feed_repeat;
  c.mult_shift = shift;
  c.accumulator_size = width;
  c.use_fp16_acc = use_fp16_acc;
  ASSERT_TRUE(Check<Op>(c, random->Between(0, 3)));
}

// Every corner as the accumulator with every corner as the operand, in one launch each.
template <typename Op, typename T>
void CrossCornersOnDevice(bool use_fp16_acc) {
  testing::Random random(0xde41c);
  const std::vector<T> corners = testing::Corners<T>();
  const size_t n = corners.size();
  for (const int width : DeviceWidths<T>()) {
    for (const int shift : {0, 1, 3, 31}) {
      Addition<T> c;
      for (size_t i = 0; i < n * n; ++i) {
        c.value.push_back(corners[i / n]);
        if (!Op::kPerChannel) c.operand.push_back(corners[i % n]);
      }
      if (Op::kPerChannel) c.operand = corners;
      for (size_t i = 0; i < Op::kSecondSets * n; ++i) {
        c.second.push_back(Op::kRepeats ? random.Pick(corners) : T{1});
      }
      c.feed_repeat = 2.0f;
      c.mult_shift = shift;
      c.accumulator_size = width;
      c.use_fp16_acc = use_fp16_acc;
      ASSERT_TRUE(Check<Op>(c));
    }
  }
}

template <typename Op, typename T>
void CrossAttributesOnDevice(bool use_fp16_acc) {
  ASSERT_NO_FATAL_FAILURE((CrossCornersOnDevice<Op, T>(use_fp16_acc)));
  testing::Random random(0xde41ce);
  int drawn = 0;
  const std::vector<float> repeats = Op::kRepeats ? DeviceRepeats() : std::vector<float>{1.0f};
  for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
    for (const int width : DeviceWidths<T>()) {
      for (const int shift : DeviceShifts()) {
        if (++drawn % testing::Step(7) != 0) continue;
        ASSERT_NO_FATAL_FAILURE(
            (CheckDrawn<Op, T>(&random, data, width, shift, random.Pick(repeats), use_fp16_acc)));
      }
      for (const float repeat : repeats) {
        ASSERT_NO_FATAL_FAILURE((CheckDrawn<Op, T>(
            &random, data, width, random.Pick(DeviceShifts()), repeat, use_fp16_acc)));
      }
    }
  }
}

// The counts at which a grid takes one block more, with the channels that divide them; one block,
// which finds nothing to do, for none.
template <typename Op, typename T>
void CrossCounts() {
  testing::Random random(0xc0107);
  for (const int64_t count : {0, 1, 511, 512, 513, 1024, 1025}) {
    for (const int64_t channels : {1, 3, 5, 7, 8, 19, 41, 73, 512, 1025}) {
      if (count % channels != 0) continue;
      Addition<T> c = testing::DrawAddition<Op, T>(&random, Data::kSmall, count, channels);
      c.factor = T{3};
      c.second_factor = T{-2};
      c.feed_repeat = 3.0f;
      c.mult_shift = 1;
      c.accumulator_size = 8;
      c.use_fp16_acc = random.Between(0, 3) == 0;
      ASSERT_TRUE(Check<Op>(c)) << "count " << count << " channels " << channels;
      const AdditionCase<Op, T> addition{c};
      ASSERT_TRUE(WritesItsOutputAlone(addition));
      const DeviceEmulation emulation;
      KernelOf(addition);
      const std::string blocks = std::to_string(count > 1024 ? 3 : count > 512 ? 2 : 1);
      ASSERT_EQ(
          Show(emulation.launches()),
          std::vector<std::string>{Op::kName + ("<T> grid " + blocks) + ",1,1 block 512,1,1"});
      EXPECT_EQ(emulation.launches()[0].stream, kStream);
      EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
    }
  }
}

template <typename Op>
class DeviceAdditionSuite : public ::testing::Test {};

using Kernels = ::testing::Types<Add4D, Add2D, Bias, DecomposedBias, Standalone>;

struct KernelNames {
  template <typename Op>
  static std::string GetName(int) {
    return Op::kName;
  }
};

TYPED_TEST_SUITE(DeviceAdditionSuite, Kernels, KernelNames);

TYPED_TEST(DeviceAdditionSuite, Int32AttributesCrossed) {
  CrossAttributesOnDevice<TypeParam, int32_t>(false);
  CrossAttributesOnDevice<TypeParam, int32_t>(true);
  Ran(TypeParam::kInt32Path);
}

TYPED_TEST(DeviceAdditionSuite, FloatAttributesCrossed) {
  CrossAttributesOnDevice<TypeParam, float>(false);
  Ran(TypeParam::kFloatPath);
}

TYPED_TEST(DeviceAdditionSuite, HalfPrecisionAttributesCrossed) {
  CrossAttributesOnDevice<TypeParam, float>(true);
  Ran(TypeParam::kHalfPath);
}

TYPED_TEST(DeviceAdditionSuite, CountsAndTheirLaunches) {
  CrossCounts<TypeParam, int32_t>();
  CrossCounts<TypeParam, float>();
}

TYPED_TEST(DeviceAdditionSuite, NoChannels) {
  EXPECT_TRUE((Check<TypeParam>(Addition<int32_t>{})));
  EXPECT_TRUE((Check<TypeParam>(Addition<float>{})));
}

// ---- Launches ----------------------------------------------------------------------------------

// A launcher called with these dimensions and memory that nothing may touch.
struct Launcher {
  const char* place;  // what it names when its launch fails
  std::function<void(const AdditionShape&)> launch;
};

// The same number of elements in a rank of 2.
AdditionShape Flat(const AdditionShape& s) {
  return {s.d0, 1, 1, WrapMultiply(s.d1, WrapMultiply(s.d2, s.d3))};
}

template <typename Op, typename T>
Launcher LauncherOf(const char* place) {
  return {place, [](const AdditionShape& dimensions) {
            const AdditionShape shape = std::is_same_v<Op, Add2D> ? Flat(dimensions) : dimensions;
            const testing::AdditionInputs<T> nothing(Addition<T>{}, 0);
            Op::Run(Op::CallOf(nothing, shape, static_cast<T*>(nullptr)), 0, nullptr);
          }};
}

template <typename T>
std::vector<Launcher> Launchers() {
  return {LauncherOf<Add4D, T>("src/HAdd 76"), LauncherOf<Add2D, T>("src/HAdd 96"),
          LauncherOf<Bias, T>("src/HBiasAdd 53"),
          LauncherOf<DecomposedBias, T>("src/HDecomposedBiasAdd 56"),
          LauncherOf<Standalone, T>("src/HStandaloneElementwiseAdd 43")};
}

// Counts are formed modulo 2^32: 0, 2^31 and 2^32.
template <typename T>
void LaunchWithoutElements() {
  for (const Launcher& launcher : Launchers<T>()) {
    for (const AdditionShape& shape : {AdditionShape{0, 2, 3, 4},
                                       {2, 3, 4, 0},
                                       {65536, 32768, 1, 1},
                                       {1, 1, 65536, 65536},
                                       {-1, 1, 1, 5}}) {
      const DeviceEmulation emulation;
      launcher.launch(shape);
      ASSERT_EQ(emulation.launches().size(), 1u);
      EXPECT_EQ(emulation.launches()[0].grid.x, 1u) << launcher.place;
      EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
    }
  }
}

TEST(DeviceAdditions, CountsBelowOneTouchNothing) {
  LaunchWithoutElements<int32_t>();
  LaunchWithoutElements<float>();
}

template <typename T>
void FailLaunches() {
  for (const Launcher& launcher : Launchers<T>()) {
    testing::EmulationOptions options;
    options.failing_launch = 0;
    const DeviceEmulation invalid(options);
    EXPECT_EXIT(launcher.launch({1, 1, 1, 1}), ::testing::ExitedWithCode(9),
                testing::LaunchError("invalid configuration argument", launcher.place));
    options.failure = static_cast<cudaError_t>(98);
    const DeviceEmulation other(options);
    EXPECT_EXIT(launcher.launch({1, 1, 1, 1}), ::testing::ExitedWithCode(98),
                testing::LaunchError("unrecognized error code", launcher.place));
  }
}

TEST(DeviceAdditions, AFailedLaunchEndsTheProcess) {
  FailLaunches<int32_t>();
  FailLaunches<float>();
  Ran(Path::kDeviceLaunchFailed);
}

}  // namespace
}  // namespace bitfold
