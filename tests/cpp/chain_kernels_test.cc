// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The tiles of lanes of the chain engine: steps against plain loops over the datapath's rules, sums
// of rounded products against the division, plain sums against wide integers; each kernel on every
// target.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "chain/lane_tile.h"
#include "support/addition.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"
#include "support/targets.h"

namespace bitfold {
namespace {

using testing::Data;
using testing::Describe;
using testing::ExactBuffer;
using testing::Path;
using testing::Ran;
using testing::Random;

// ---- Tiles of lanes ----------------------------------------------------------------------------

// The shape of a tile: its kernel, and the part of the chains that it adds.
struct TileShape {
  int pixels = kTilePixels;
  int panels = kTilePanels;
  bool is_depthwise = false;
  int rows = 2;
  int channels = 2;  // 1 where depthwise
  int taps = 3;
  int stride = 1;
  int dilation = 1;

  int lanes() const { return panels * kPanel; }
  int sums() const { return pixels * lanes(); }
  std::string Text() const {
    return Describe("pixels", pixels, "panels", panels, "depthwise", is_depthwise, "rows", rows,
                    "channels", channels, "taps", taps, "stride", stride, "dilation", dilation);
  }
};

// The shape with each kernel's size.
std::vector<TileShape> OfEveryKernel(TileShape shape) {
  std::vector<TileShape> shapes;
  for (const bool is_depthwise : {false, true}) {
    for (const int pixels : {1, kTilePixels}) {
      for (const int panels : {1, kTilePanels}) {
        shapes.push_back(shape);
        shapes.back().pixels = pixels;
        shapes.back().panels = panels;
        shapes.back().is_depthwise = is_depthwise;
        if (is_depthwise) shapes.back().channels = 1;
      }
    }
  }
  return shapes;
}

// The numbers of a tile in buffers that end where it ends: an image of `channels` channels, or of
// one more than the lanes, and filters of three more channels than the lanes.
template <typename T>
struct TileNumbers {
  TileShape shape;
  ExactBuffer<T> x;
  ExactBuffer<T> w;
  std::vector<T> acc;
  std::vector<int32_t> largest;
  HalfAddends half = HalfAddends::kAny;

  template <typename DrawNumber>
  TileNumbers(const TileShape& s, int offset, DrawNumber draw)
      : shape(s), x(XCount(s), offset), w(WCount(s), (offset + 1) % 4) {
    for (int64_t i = 0; i < x.count(); ++i) x[i] = draw();
    for (int64_t i = 0; i < w.count(); ++i) w[i] = draw();
    acc.assign(static_cast<size_t>(s.sums()), T{0});
    largest.assign(static_cast<size_t>(s.sums()), 0);
  }

  LaneTile<T> Tile(T* sums, int32_t* magnitudes) const {
    LaneTile<T> tile{};
    tile.x = x.data();
    tile.w = w.data();
    tile.x_pixel = int64_t{shape.stride} * XChannels(shape);
    tile.x_row = Width(shape) * XChannels(shape);
    tile.x_tap = int64_t{shape.dilation} * XChannels(shape);
    tile.w_channel = shape.lanes() + 3;
    tile.w_tap = shape.channels * tile.w_channel;
    tile.w_row = shape.taps * tile.w_tap;
    tile.rows = shape.rows;
    tile.channels = shape.channels;
    tile.taps = shape.taps;
    tile.acc = sums;
    tile.largest = magnitudes;
    tile.half = half;
    return tile;
  }

 private:
  static int64_t XChannels(const TileShape& s) {
    return s.is_depthwise ? s.lanes() + 1 : s.channels;
  }
  static int64_t Width(const TileShape& s) {
    return (s.pixels - 1) * s.stride + (s.taps - 1) * s.dilation + 1;
  }
  static int64_t XCount(const TileShape& s) {
    return (s.rows * Width(s) - 1) * XChannels(s) + (s.is_depthwise ? s.lanes() : s.channels);
  }
  static int64_t WCount(const TileShape& s) {
    return (int64_t{s.rows} * s.taps * s.channels - 1) * (s.lanes() + 3) + s.lanes();
  }
};

// Calls step(sum, w, x) for each product in the order of its chain.
template <typename T, typename Step>
void ForEachProduct(const TileNumbers<T>& in, Step step) {
  const TileShape& s = in.shape;
  const LaneTile<T> tile = in.Tile(nullptr, nullptr);
  for (int p = 0; p < s.pixels; ++p) {
    for (int l = 0; l < s.lanes(); ++l) {
      for (int r = 0; r < s.rows; ++r) {
        for (int c = 0; c < s.channels; ++c) {
          for (int t = 0; t < s.taps; ++t) {
            const T* x = tile.x + p * tile.x_pixel + r * tile.x_row + t * tile.x_tap + c;
            const T* w = tile.w + r * tile.w_row + t * tile.w_tap + c * tile.w_channel;
            step(static_cast<size_t>(p * s.lanes() + l), w[l], x[s.is_depthwise ? l : 0]);
          }
        }
      }
    }
  }
}

// The datapath's addition without its line, and the magnitude that it is judged by.
int32_t AddStep(const Datapath<int32_t>& d, int32_t acc, int32_t addend, int32_t*) {
  return d.Accumulate(acc, addend);
}
int32_t AddStep(const ModularDatapath& d, int32_t acc, int32_t addend, int32_t*) {
  return d.Accumulate(acc, addend);
}
float AddStep(const Datapath<float>& d, float acc, float addend, int32_t* largest) {
  const float sum = acc + addend;
  const auto bits = static_cast<int32_t>(testing::BitsOf(sum) & 0x7fffffffu);
  *largest = std::max(*largest, bits);
  return d.use_fp16_acc() ? AccumulateHalf(acc, addend) : WrapOnce(sum, d.limits());
}

template <typename D>
constexpr bool kIsFloat = std::is_base_of_v<Datapath<float>, D>;

bool IsHalf(const Datapath<float>& d) { return d.use_fp16_acc(); }
bool IsHalf(const Datapath<int32_t>&) { return false; }
bool IsHalf(const ModularDatapath&) { return false; }

bool MayPrint(int32_t magnitude) {
  return magnitude >= static_cast<int32_t>(testing::BitsOf(8388607.0f));
}

// In half precision the magnitudes only have to tell whether a line may come. NaNs are all one.
bool SameMagnitude(int32_t expected, int32_t actual, bool is_half) {
  constexpr int32_t kInfinityBits = 0x7f800000;
  if (is_half) return MayPrint(expected) == MayPrint(actual);
  return expected == actual || (expected > kInfinityBits && actual > kInfinityBits);
}

template <typename D, typename T>
class CheckedTile {
 public:
  CheckedTile(const D& datapath, const TileNumbers<T>& in, std::string attributes)
      : datapath_(datapath),
        in_(in),
        attributes_(std::move(attributes) + in.shape.Text()),
        sums_(in.acc),
        largest_(in.largest) {
    ForEachProduct(in, [&](size_t i, T w, T x) {
      const T addend = datapath.ScaleProduct(datapath.Multiply(w, x));
      sums_[i] = AddStep(datapath, sums_[i], addend, &largest_[i]);
    });
  }

  ::testing::AssertionResult OnEveryTarget() const {
    for (const auto& [target, name] : testing::SupportedTargets()) {
      const testing::ForcedTarget forced(target);
      const auto same = OnTarget(name);
      if (!same) return same;
    }
    return ::testing::AssertionSuccess();
  }

 private:
  ::testing::AssertionResult OnTarget(const char* name) const {
    const TileShape& s = in_.shape;
    const auto& kernels = LaneKernelsOf<D, T>();
    const auto& table = s.is_depthwise ? kernels.depthwise : kernels.ordinary;
    ExactBuffer<T> acc(in_.acc, 1);
    ExactBuffer<int32_t> largest(in_.largest, 3);
    table[s.pixels == kTilePixels][s.panels == kTilePanels](datapath_,
                                                            in_.Tile(acc.data(), largest.data()));
    const auto same =
        testing::SameArrays(sums_.data(), acc.data(), acc.count(), std::string("tile, ") + name,
                            [this](int64_t) { return attributes_; });
    if (!same || !kIsFloat<D>) return same;
    for (int64_t i = 0; i < largest.count(); ++i) {
      const int32_t expected = largest_[static_cast<size_t>(i)];
      if (SameMagnitude(expected, largest[i], IsHalf(datapath_))) continue;
      return ::testing::AssertionFailure() << name << ": magnitude " << i << " is " << largest[i]
                                           << ", expected " << expected << "\n  " << attributes_;
    }
    return ::testing::AssertionSuccess();
  }

  const D datapath_;
  const TileNumbers<T>& in_;
  const std::string attributes_;
  std::vector<T> sums_;
  std::vector<int32_t> largest_;
};

template <typename D, typename T>
::testing::AssertionResult CheckTile(const D& datapath, const TileNumbers<T>& in,
                                     const std::string& attributes) {
  return CheckedTile<D, T>(datapath, in, attributes).OnEveryTarget();
}

template <typename D, typename T>
struct Kind {
  using DatapathType = D;
  using Element = T;
};

template <typename D>
D MakeDatapath(int width, int shift, bool use_fp16_acc) {
  if constexpr (std::is_same_v<D, ModularDatapath>) {
    return D(shift);
  } else {
    return D(width, shift, use_fp16_acc);
  }
}

template <typename K>
class ChainLanesTest : public ::testing::Test {};

using Kinds =
    ::testing::Types<Kind<Datapath<int32_t>, int32_t>, Kind<ModularDatapath, int32_t>,
                     Kind<Datapath<float>, float>, Kind<ReciprocalDatapath<float>, float>>;
TYPED_TEST_SUITE(ChainLanesTest, Kinds, );

// What the numbers of a tile are drawn from; the last are fractions whose half-precision sums stay
// in range.
enum class TileData { kSmall, kCorners, kFull, kFractions };

template <typename T>
T DrawNumber(Random* random, TileData data) {
  switch (data) {
    case TileData::kSmall:
      return testing::Draw<T>(random, Data::kSmall);
    case TileData::kCorners:
      return testing::Draw<T>(random, Data::kCorners);
    case TileData::kFull:
      return testing::Draw<T>(random, Data::kFull);
    case TileData::kFractions:
      break;
  }
  return static_cast<T>(static_cast<float>(random->Between(-3000, 3000)) / 37.0f);
}

template <typename T>
TileNumbers<T> DrawTile(Random* random, const TileShape& shape, TileData data) {
  return {shape, random->Between(0, 3), [&] { return DrawNumber<T>(random, data); }};
}

TYPED_TEST(ChainLanesTest, AttributesCrossed) {
  using D = typename TypeParam::DatapathType;
  using T = typename TypeParam::Element;
  Random random(0x1a4e);
  int turn = 0;
  for (const int width : testing::Widths<T>()) {
    if (std::is_same_v<D, ModularDatapath> && width != 32) continue;
    for (const int shift : testing::Shifts()) {
      for (const bool use_fp16_acc : {false, true}) {
        if (use_fp16_acc && !kIsFloat<D>) continue;
        for (const TileData data :
             {TileData::kSmall, TileData::kCorners, TileData::kFull, TileData::kFractions}) {
          const D datapath = MakeDatapath<D>(width, shift, use_fp16_acc);
          for (const TileShape& shape : OfEveryKernel({})) {
            if (++turn % testing::Step(5) != 0) continue;
            const auto in = DrawTile<T>(&random, shape, data);
            ASSERT_TRUE(CheckTile(datapath, in,
                                  Describe("width", width, "shift", shift, "fp16", use_fp16_acc)));
          }
        }
      }
    }
  }
}

TYPED_TEST(ChainLanesTest, Shapes) {
  using D = typename TypeParam::DatapathType;
  using T = typename TypeParam::Element;
  Random random(0x5a9e);
  for (const bool use_fp16_acc : {false, true}) {
    for (const int shift : {0, 3}) {
      const D datapath = MakeDatapath<D>(12, shift, use_fp16_acc);
      for (const int rows : {1, 2, 5}) {
        for (const int channels : {1, 3, 8}) {
          for (const int taps : {1, 2, 4}) {
            TileShape shape;
            shape.rows = rows;
            shape.channels = channels;
            shape.taps = taps;
            shape.stride = random.Between(1, 3);
            shape.dilation = random.Between(1, 3);
            for (const TileShape& s : OfEveryKernel(shape)) {
              const auto in =
                  DrawTile<T>(&random, s, random.Flag() ? TileData::kSmall : TileData::kFractions);
              ASSERT_TRUE(CheckTile(datapath, in, Describe("shift", shift, "fp16", use_fp16_acc)));
            }
          }
        }
      }
    }
  }
}

// A tile goes on from the sums of another.
TYPED_TEST(ChainLanesTest, FromOtherSums) {
  using D = typename TypeParam::DatapathType;
  using T = typename TypeParam::Element;
  Random random(0xf205);
  for (const bool use_fp16_acc : {false, true}) {
    const D datapath = MakeDatapath<D>(20, 0, use_fp16_acc);
    for (const TileShape& shape : OfEveryKernel({})) {
      for (const TileData data :
           {TileData::kSmall, TileData::kCorners, TileData::kFull, TileData::kFractions}) {
        auto in = DrawTile<T>(&random, shape, data);
        for (T& acc : in.acc) acc = DrawNumber<T>(&random, data);
        if (kIsFloat<D>) {
          for (int32_t& largest : in.largest) {
            largest = static_cast<int32_t>(testing::BitsOf(random.Pick<float>(
                {0.0f, 5.0f, 8388606.0f, 8388607.0f, std::numeric_limits<float>::infinity()})));
          }
        }
        ASSERT_TRUE(CheckTile(datapath, in, Describe("fp16", use_fp16_acc)));
      }
    }
  }
}

// ---- Half precision ----------------------------------------------------------------------------

// A tile of the most lanes whose sums are each acc + 1 * x.
TileNumbers<float> OneTap(float acc) {
  TileShape shape;
  shape.is_depthwise = true;
  shape.rows = shape.channels = shape.taps = 1;
  TileNumbers<float> in(shape, 1, [] { return 1.0f; });
  in.acc.assign(in.acc.size(), acc);
  return in;
}

// The numbers of its 128 lanes; x of column p and lane l is in[p * 33 + l].
template <typename Number>
void SetAddends(TileNumbers<float>* in, Number number) {
  for (int i = 0; i < in->shape.sums(); ++i) {
    in->x[i / in->shape.lanes() * (in->shape.lanes() + 1) + i % in->shape.lanes()] = number(i);
  }
}

// Every pattern of the upper 16 bits below 2^15, where the quantiser of AVX-512 does not give up,
// and above, where it does.
TEST(ChainHalfPrecision, QuantisesEveryUpperPattern) {
  const Datapath<float> datapath(24, 0, true);
  for (const float acc : {0.0f, -0.0f, 0.4375f, -3.0f, 1000.0f}) {
    TileNumbers<float> in = OneTap(acc);
    for (uint32_t first = 0; first <= 0xffffu; first += 128 * testing::Step(7)) {
      for (const uint32_t lower :
           {0x0000u, 0x0001u, 0x0fffu, 0x1000u, 0x1001u, 0x1fffu, 0x5555u, 0x8000u, 0xffffu}) {
        SetAddends(&in, [&](int i) {
          return testing::FloatOf((first + static_cast<uint32_t>(i)) << 16 | lower);
        });
        ASSERT_TRUE(CheckTile(datapath, in, Describe("acc", acc)));
      }
    }
  }
  Ran(Path::kChainHalfInRange);
}

// The floor's and the rounding's steps of each exponent, and between them.
TEST(ChainHalfPrecision, QuantisesFineSteps) {
  const Datapath<float> datapath(24, 0, true);
  TileNumbers<float> in = OneTap(0.0f);
  Random random(0xf19e);
  for (int exponent = -20; exponent <= 14; ++exponent) {
    const float unit = std::ldexp(1.0f, std::max(exponent, 1) - 17);
    for (int k = 0; k < 60 / testing::Step(3); ++k) {
      const float from =
          std::ldexp(1.0f + static_cast<float>(random.Between(0, 4095)) / 4096.0f, exponent);
      const float sign = random.Flag() ? 1.0f : -1.0f;
      SetAddends(&in, [&](int i) { return sign * (from + static_cast<float>(i - 64) * unit / 2); });
      ASSERT_TRUE(CheckTile(datapath, in, Describe("exponent", exponent)));
    }
  }
}

// One lane out of range, wherever it stands and however it gets there.
TEST(ChainHalfPrecision, OverflowInAnyLane) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  for (const float addend : {32768.0f, -32768.0f, 40000.0f, 8388607.0f, 3e38f, kInfinity,
                             -kInfinity, std::numeric_limits<float>::quiet_NaN()}) {
    for (const int shift : {0, 2, -3}) {
      const Datapath<float> dividing(24, shift, true);
      const ReciprocalDatapath<float> multiplying(24, shift, true);
      TileNumbers<float> in = OneTap(7.0f);
      for (int lane = 0; lane < in.shape.sums(); lane += testing::Step(5)) {
        SetAddends(&in, [&](int i) { return i == lane ? addend : 0.75f * static_cast<float>(i); });
        ASSERT_TRUE(CheckTile(dividing, in, Describe("lane", lane, "shift", shift)));
        ASSERT_TRUE(CheckTile(multiplying, in, Describe("lane", lane, "shift", shift)));
      }
    }
  }
  Ran(Path::kChainHalfOverflow);
}

// Sums that overflow although no addend does, at each step of a chain; and the largest in range.
TEST(ChainHalfPrecision, OverflowOfSums) {
  const Datapath<float> datapath(24, 0, true);
  for (const float each : {8191.0f, 8191.99f, 8192.0f, 16383.99f, 16384.0f, 32767.0f, 32767.99f}) {
    for (const TileShape& kernel : OfEveryKernel({})) {
      TileShape shape = kernel;
      shape.rows = 1;
      shape.taps = 4;
      int turn = 0;
      // Others are far from an overflow.
      const TileNumbers<float> in(
          shape, 2, [&] { return turn++ % 37 == 0 ? each : (turn % 3 == 0 ? 1.0f : -1.0f); });
      ASSERT_TRUE(CheckTile(datapath, in, Describe("each", each)));
    }
  }
  const TileNumbers<float> largest = OneTap(32767.99f);
  ASSERT_TRUE(CheckTile(datapath, largest, ""));
}

// Sums of quantised numbers of all sizes in range, as the chains have them.
TEST(ChainHalfPrecision, SumsOfEverySize) {
  const Datapath<float> datapath(24, 0, true);
  Random random(0x50b5);
  const auto draw = [&random] {
    const float mantissa = static_cast<float>(random.Between(-(1 << 24), 1 << 24));
    return f32_to_hf16(std::ldexp(mantissa, random.Between(-38, -10)));
  };
  TileNumbers<float> in = OneTap(0.0f);
  for (int turn = 0; turn < 4000 / testing::Step(7); ++turn) {
    for (float& acc : in.acc) acc = draw();
    SetAddends(&in, [&](int) { return draw(); });
    ASSERT_TRUE(CheckTile(datapath, in, Describe("turn", turn)));
  }
}

// ---- Half precision of whole numbers -----------------------------------------------------------

// Every sum of a number in range and a product of the largest that is known to be one.
TEST(ChainWholeHalves, EverySum) {
  const Datapath<float> datapath(24, 0, true);
  for (const float acc : {0.0f, 32768.0f, -32768.0f, 32760.0f, -4098.0f}) {
    for (const HalfAddends half : {HalfAddends::kWhole, HalfAddends::kUnchanged}) {
      TileNumbers<float> in = OneTap(acc);
      in.half = half;
      const int most = half == HalfAddends::kWhole ? 32763 : 4096;
      for (int first = -most; first <= most; first += 128 * testing::Step(5)) {
        SetAddends(&in, [&](int i) { return static_cast<float>(std::min(first + i, most)); });
        ASSERT_TRUE(CheckTile(datapath, in, Describe("acc", acc, "first", first)));
      }
    }
  }
}

// Chains that stay in range, that leave it now and then, and that do at nearly every step.
template <typename D>
void CrossWholeHalves(uint64_t seed) {
  Random random(seed);
  struct {
    int input, weight;
    HalfAddends half;
  } const ranges[] = {{3, 2, HalfAddends::kUnchanged},    {64, 64, HalfAddends::kUnchanged},
                      {4096, 1, HalfAddends::kUnchanged}, {127, 127, HalfAddends::kWhole},
                      {255, 128, HalfAddends::kWhole},    {32763, 1, HalfAddends::kWhole}};
  for (const auto& range : ranges) {
    for (const int shift : {0, 1, 3, -2, 100}) {
      TileShape shape;
      shape.rows = random.Between(1, 3);
      shape.channels = random.Between(1, 9);
      shape.taps = random.Between(1, 5);
      for (const TileShape& s : OfEveryKernel(shape)) {
        TileNumbers<float> in(s, random.Between(0, 3), [&] {
          return static_cast<float>(random.Between(-range.input, range.input));
        });
        for (int64_t i = 0; i < in.w.count(); ++i) {
          in.w[i] = static_cast<float>(random.Between(-range.weight, range.weight));
        }
        in.half = range.half;
        for (float& acc : in.acc) {
          acc = f32_to_hf16(static_cast<float>(random.Between(-32768, 32768)));
        }
        ASSERT_TRUE(CheckTile(MakeDatapath<D>(24, shift, true), in,
                              Describe("input", range.input, "shift", shift)));
      }
    }
  }
}

TEST(ChainWholeHalves, Divided) { CrossWholeHalves<Datapath<float>>(0x3a1f); }
TEST(ChainWholeHalves, Multiplied) { CrossWholeHalves<ReciprocalDatapath<float>>(0x3a20); }

// ---- Sums of rounded products ------------------------------------------------------------------

// As the engine forms them: divisors that are powers of two are in the weights.
RoundedSums RoundedBy(int32_t divisor) {
  if ((std::abs(divisor) & (std::abs(divisor) - 1)) == 0) return {true, 0.0f, 0.0f};
  return RoundedSums::ByQuotient(divisor);
}

float WeightScale(int32_t divisor) {
  return RoundedBy(divisor).is_scaled ? ShiftReciprocal(divisor) : 1.0f;
}

// The tile's sums on the target in use, less what the rounding adds to each. They go on from 5.
std::vector<int32_t> RoundedTileOf(const TileNumbers<float>& in, int32_t divisor) {
  const TileShape& s = in.shape;
  const RoundedKernels& kernels = CurrentRoundedKernels();
  const auto& table = s.is_depthwise ? kernels.depthwise : kernels.ordinary;
  ExactBuffer<int32_t> acc(std::vector<int32_t>(static_cast<size_t>(s.sums()), 5), 1);
  LaneTile<float> tile = in.Tile(nullptr, nullptr);
  tile.sums = acc.data();
  table[s.pixels == kTilePixels][s.panels == kTilePanels](RoundedBy(divisor), tile);
  const auto products = static_cast<uint32_t>(s.rows * s.channels * s.taps);
  const auto excess = static_cast<int32_t>(5 + products * kRoundingBits);
  std::vector<int32_t> sums;
  for (int64_t i = 0; i < acc.count(); ++i) sums.push_back(WrapSubtract(acc[i], excess));
  return sums;
}

// In all kernels, with weights and inputs of which the products stay below `limit`.
TEST(ChainRoundedSums, Shapes) {
  Random random(0x20d);
  for (const int32_t divisor : {1, -1, 2, 4, -64, -128, 3, -3, 7, 30, 100, -127, 127}) {
    const float scale = WeightScale(divisor);
    for (TileShape& shape : OfEveryKernel({})) {
      shape.stride = random.Between(1, 2);
      shape.dilation = random.Between(1, 2);
      TileNumbers<float> in(shape, random.Between(0, 3),
                            [&] { return static_cast<float>(random.Between(-724, 724)); });
      std::vector<int32_t> expected(static_cast<size_t>(shape.sums()));
      ForEachProduct(in, [&](size_t i, float w, float x) {
        const float rounded = DivideRoundHalfToEven(w * x, divisor);
        expected[i] = WrapAdd(expected[i], static_cast<int32_t>(rounded));
      });
      for (int64_t i = 0; i < in.w.count(); ++i) in.w[i] *= scale;
      for (const auto& [target, name] : testing::SupportedTargets()) {
        const testing::ForcedTarget forced(target);
        EXPECT_EQ(expected, RoundedTileOf(in, divisor)) << name << " by " << divisor;
      }
    }
  }
}

// Every product [first, last], 128 at once, against the division.
void CheckQuotients(int32_t divisor, int32_t first, int32_t last, TileNumbers<float>* in) {
  for (int32_t from = first; from <= last; from += 128) {
    SetAddends(in, [&](int i) { return static_cast<float>(std::min(from + i, last)); });
    std::vector<int32_t> expected(128);
    for (int32_t i = 0; i < 128; ++i) {
      const auto product = static_cast<float>(std::min(from + i, last));
      expected[static_cast<size_t>(i)] =
          static_cast<int32_t>(DivideRoundHalfToEven(product, divisor));
    }
    for (const auto& [target, name] : testing::SupportedTargets()) {
      const testing::ForcedTarget forced(target);
      ASSERT_EQ(expected, RoundedTileOf(*in, divisor)) << name << ": " << from << " by " << divisor;
    }
  }
}

// Every product under every divisor that is no power of two. A sanitizer sees the first and the
// last ones, and all remainders between.
TEST(ChainRoundedSums, EveryDivisor) {
  constexpr int32_t kLimit = (1 << 19) - 1;
  TileNumbers<float> in = OneTap(0.0f);
  for (int32_t divisor = -128; divisor <= 127; divisor += testing::Step(5)) {
    if (divisor == 0 || RoundedBy(divisor).is_scaled) continue;
    if (!testing::kSanitized) {
      ASSERT_NO_FATAL_FAILURE(CheckQuotients(divisor, -kLimit, kLimit, &in));
      continue;
    }
    ASSERT_NO_FATAL_FAILURE(CheckQuotients(divisor, -500, 500, &in));
    ASSERT_NO_FATAL_FAILURE(CheckQuotients(divisor, kLimit - 500, kLimit, &in));
    ASSERT_NO_FATAL_FAILURE(CheckQuotients(divisor, -kLimit, 500 - kLimit, &in));
  }
}

// Quotients up to 2^22, around whole numbers and ties.
TEST(ChainRoundedSums, PowersOfTwo) {
  for (const int32_t divisor : {1, 2, 4, 8, 16, 32, 64, -1, -2, -4, -8, -16, -32, -64, -128}) {
    TileNumbers<float> in = OneTap(0.0f);
    for (int64_t i = 0; i < in.w.count(); ++i) in.w[i] = ShiftReciprocal(divisor);
    const int64_t size = std::abs(divisor);
    const auto limit = static_cast<int32_t>(std::min<int64_t>(1 << 24, (size << 22) - 1));
    for (const int32_t middle : {0, 1 << 20, -(1 << 20), 4194303, -4194303}) {
      if (std::abs(middle) + 500 > limit) continue;
      ASSERT_NO_FATAL_FAILURE(CheckQuotients(divisor, middle - 500, middle + 500, &in));
    }
    ASSERT_NO_FATAL_FAILURE(CheckQuotients(divisor, limit - 1000, limit, &in));
    ASSERT_NO_FATAL_FAILURE(CheckQuotients(divisor, -limit, 1000 - limit, &in));
  }
}

// ---- Plain sums --------------------------------------------------------------------------------

// A tile's outputs with a gap between columns, of which `channels` of each are written.
template <typename T>
void CheckSums(const TileNumbers<T>& in, int32_t channels, int32_t bits, bool has_elementwise,
               Random* random) {
  const TileShape& s = in.shape;
  const int64_t stride = channels + random->Between(0, 3);
  const int64_t count = (s.pixels - 1) * stride + channels;
  ExactBuffer<T> elementwise(count, random->Between(0, 3));
  for (int64_t i = 0; i < count; ++i) elementwise[i] = static_cast<T>(random->Between(-999, 999));
  // Of int32 the products wrap apart, so that wide sums hold them.
  std::vector<int64_t> sums(static_cast<size_t>(s.sums()));
  ForEachProduct(in, [&](size_t i, T w, T x) {
    sums[i] += WrapMultiply(static_cast<int32_t>(w), static_cast<int32_t>(x));
  });
  ExactBuffer<T> expected(std::vector<T>(static_cast<size_t>(count), T{77}));
  for (int p = 0; p < s.pixels; ++p) {
    for (int32_t l = 0; l < channels; ++l) {
      const int64_t at = p * stride + l;
      const int64_t addend = has_elementwise ? static_cast<int64_t>(elementwise[at]) : 0;
      const int64_t sum = sums[static_cast<size_t>(p * s.lanes() + l)] + addend;
      expected[at] = static_cast<T>(testing::LowBits(sum, bits));
    }
  }
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const SumKernels<T>& kernels = CurrentSumKernels<T>();
    const auto kernel = s.is_depthwise
                            ? kernels.depthwise[s.pixels == kDepthwisePixels]
                            : kernels.ordinary[s.pixels == kTilePixels][s.panels == kTilePanels];
    ExactBuffer<T> out(std::vector<T>(static_cast<size_t>(count), T{77}), random->Between(0, 3));
    const SumOutput<T> output = {has_elementwise ? elementwise.data() : nullptr, out.data(), stride,
                                 channels, bits};
    kernel(in.Tile(nullptr, nullptr), output);
    ASSERT_TRUE(testing::SameArrays(expected.data(), out.data(), count, name, [&](int64_t) {
      return s.Text() + Describe("channels", channels, "bits", bits, "with", has_elementwise);
    }));
  }
}

// The shape with each size of the kernels of plain sums; those of depthwise take any panels, also
// one that overlaps another.
std::vector<TileShape> OfEverySumKernel(const TileShape& drawn) {
  std::vector<TileShape> shapes = OfEveryKernel(drawn);
  for (TileShape& shape : shapes) {
    if (shape.is_depthwise && shape.pixels == kTilePixels) shape.pixels = kDepthwisePixels;
    if (shape.is_depthwise && shape.panels == kTilePanels) shape.panels = 3;
  }
  return shapes;
}

// Floats are whole and their sums within 2^24.
template <typename T>
void CrossSums() {
  Random random(0x5035);
  for (int32_t bits = 1; bits <= 32; bits += testing::Step(3)) {
    TileShape drawn;
    drawn.rows = random.Between(1, 3);
    drawn.taps = random.Between(1, 4);
    drawn.channels = random.Between(1, 5);
    drawn.stride = random.Between(1, 3);
    drawn.dilation = random.Between(1, 3);
    for (const TileShape& shape : OfEverySumKernel(drawn)) {
      for (const int32_t channels : {1, shape.lanes() - 1, shape.lanes()}) {
        if (shape.is_depthwise && channels < kPanel) continue;
        const auto draw = [&] {
          if (std::is_same_v<T, float>) return static_cast<T>(random.Between(-500, 500));
          return static_cast<T>(random.Bits());
        };
        const TileNumbers<T> in(shape, random.Between(0, 3), draw);
        ASSERT_NO_FATAL_FAILURE(CheckSums(in, channels, bits, random.Flag(), &random));
      }
    }
  }
}

TEST(ChainSums, Int32Shapes) { CrossSums<int32_t>(); }
TEST(ChainSums, FloatShapes) { CrossSums<float>(); }

// Of no taps: the elementwise value, or 0.
template <typename T>
void CheckNoTaps() {
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const auto kernel = CurrentSumKernels<T>().ordinary[0][0];
    const std::vector<T> elementwise = {T{-3}, T{100}, T{127}};
    std::vector<T> out(3, T{77});
    kernel(LaneTile<T>{}, SumOutput<T>{elementwise.data(), out.data(), 3, 3, 7});
    EXPECT_EQ(out, (std::vector<T>{T{-3}, T{-28}, T{-1}})) << name;
    kernel(LaneTile<T>{}, SumOutput<T>{nullptr, out.data(), 3, 2, 7});
    EXPECT_EQ(out, (std::vector<T>{T{0}, T{0}, T{-1}})) << name;
  }
}

TEST(ChainSums, OfNoTaps) {
  CheckNoTaps<int32_t>();
  CheckNoTaps<float>();
}

// Up to 2^24, where the next whole number is no float.
TEST(ChainSums, LargestFloats) {
  Random random(0x1a46);
  TileShape drawn;
  drawn.rows = 1;
  drawn.channels = 1;
  drawn.taps = 4;
  for (const TileShape& shape : OfEverySumKernel(drawn)) {
    for (const float x : {2048.0f, -2048.0f}) {
      TileNumbers<float> in(shape, 1, [&] { return x; });
      for (int64_t i = 0; i < in.w.count(); ++i) in.w[i] = 2048.0f;
      for (const int32_t bits : {16, 25, 26, 32}) {
        ASSERT_NO_FATAL_FAILURE(CheckSums(in, 16, bits, false, &random));
      }
    }
  }
}

}  // namespace
}  // namespace bitfold
