// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredLookup: the definition against the oracle, and the forms of every target against
// the definition.

#include "bitfold/HStoredLookup.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/stored_lookup_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Path;
using testing::Ran;
using testing::Random;
using testing::StoredLookupCase;

TEST(StoredLookup, Examples) {
  StoredLookupCase<int8_t, int16_t> c;
  for (int x = -128; x < 128; ++x) c.table.push_back(static_cast<int16_t>(100 * x));
  c.data = {-128, -1, 0, 127};
  const auto result = c.Definition();
  EXPECT_EQ(std::vector<int>(result.data(), result.data() + 4),
            (std::vector<int>{-12800, -100, 0, 12700}));
}

// The two comparisons, each on its own: the definition against the oracle, and the form of
// each target against the definition, in one piece and in parts.
template <typename T, typename Out>
::testing::AssertionResult Check(const StoredLookupCase<T, Out>& c, int offset, int64_t part) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  const auto oracle = testing::SameArrays(c.Oracle().data(), definition.data(), c.count(),
                                          "HStoredLookup definition", describe);
  if (!oracle) return oracle;
  CallingThread calling_thread;
  testing::BackwardParts parts(part);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    for (Workers* workers :
         {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
      const auto actual = c.Loops(workers, offset);
      const auto same = testing::SameArrays(definition.data(), actual.data(), c.count(),
                                            std::string("HStoredLookup ") + name, describe);
      if (!same) return same;
    }
    Ran(target == Target::kAvx512 ? Path::kStoredLookupAvx512 : Path::kStoredLookupPortable);
  }
  return ::testing::AssertionSuccess();
}

template <typename Input, typename Output>
struct Types {
  using T = Input;
  using Out = Output;
};

template <typename Types>
class StoredLookups : public ::testing::Test {};
using AllTypes =
    ::testing::Types<Types<int8_t, int8_t>, Types<int8_t, uint8_t>, Types<int8_t, int16_t>,
                     Types<uint8_t, int8_t>, Types<uint8_t, uint8_t>, Types<uint8_t, int16_t>,
                     Types<int16_t, int8_t>, Types<int16_t, uint8_t>, Types<int16_t, int16_t>>;
TYPED_TEST_SUITE(StoredLookups, AllTypes);

template <typename T, typename Out>
std::vector<Out> DrawTable(Random* random) {
  std::vector<Out> table;
  for (int64_t i = 0; i < kTableEntries<T>; ++i) table.push_back(static_cast<Out>(random->Bits()));
  return table;
}

TYPED_TEST(StoredLookups, EveryElement) {
  using T = typename TypeParam::T;
  using Out = typename TypeParam::Out;
  Random random(0x100c);
  StoredLookupCase<T, Out> c;
  c.table = DrawTable<T, Out>(&random);
  for (int64_t i = 0; i < kTableEntries<T>; i += sizeof(T) == 1 ? 1 : testing::Step(7)) {
    c.data.push_back(static_cast<T>(i));
  }
  ASSERT_TRUE(Check(c, 0, 1000));
}

TYPED_TEST(StoredLookups, SizesAndMisalignments) {
  using T = typename TypeParam::T;
  using Out = typename TypeParam::Out;
  Random random(0x100d);
  StoredLookupCase<T, Out> c;
  c.table = DrawTable<T, Out>(&random);
  for (const int size : testing::LaneSizes()) {
    c.data.clear();
    for (int i = 0; i < size; ++i) c.data.push_back(static_cast<T>(random.Bits() >> 9));
    for (int offset = 0; offset < 4; ++offset) ASSERT_TRUE(Check(c, offset, 1 + size / 3)) << size;
  }
}

}  // namespace
}  // namespace bitfold
