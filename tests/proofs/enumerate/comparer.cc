// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "proofs/enumerate/comparer.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "proofs/enumerate/exact.h"

namespace bitfold::enumeration {

Blocks::Blocks(const Enumeration& enumeration, uint64_t sample, bool takes_boundaries)
    : enumeration_(enumeration), of_setting_((enumeration.inputs.count + kBlock - 1) / kBlock) {
  count_ = of_setting_ * enumeration.settings.size();
  if (sample > 1) Choose(sample, takes_boundaries);
}

uint64_t Blocks::Inputs() const {
  if (chosen_.empty()) return enumeration_.inputs.count * enumeration_.settings.size();
  uint64_t inputs = 0;
  for (const uint64_t block : chosen_) inputs += static_cast<uint64_t>(Count(block));
  return inputs;
}

const Setting& Blocks::SettingOf(uint64_t block) const {
  return enumeration_.settings[block / of_setting_];
}

int Blocks::Count(uint64_t block) const {
  return static_cast<int>(std::min<uint64_t>(kBlock, enumeration_.inputs.count - First(block)));
}

void Blocks::Choose(uint64_t sample, bool takes_boundaries) {
  for (uint64_t block = 0; block < count_; block += sample) chosen_.push_back(block);
  if (takes_boundaries) AddBoundaries();
  std::sort(chosen_.begin(), chosen_.end());
  chosen_.erase(std::unique(chosen_.begin(), chosen_.end()), chosen_.end());
  count_ = chosen_.size();
}

void Blocks::AddBoundaries() {
  constexpr size_t kSettings = 3;
  const size_t settings = enumeration_.settings.size();
  const size_t step = (settings + kSettings - 1) / kSettings;
  for (size_t s = 0; s < settings; s += step) {
    for (const uint64_t b : enumeration_.inputs.boundaries) chosen_.push_back(s * of_setting_ + b);
  }
}

void Comparer::Compare(uint64_t number, const std::vector<Form>& forms, Tally* tallies) {
  const Block block = Fill(number);
  enumeration_.expected.compute(block, expected_.data());
  for (size_t f = 0; f < forms.size(); ++f) CompareForm(number, block, forms[f], &tallies[f]);
}

std::string Comparer::Describe(const Difference& difference) {
  const Block block = Fill(difference.block);
  const auto index = static_cast<size_t>(difference.index);
  std::array<char, 128> text;
  std::snprintf(text.data(), text.size(),
                "x = %a (0x%08" PRIx32 "), other %a: expected 0x%" PRIx64 ", got 0x%" PRIx64,
                static_cast<double>(x_[index]), Bits(x_[index]), static_cast<double>(acc_[index]),
                difference.expected, difference.actual);
  const std::string& name = block.setting.name;
  return (name.empty() ? "" : name + ": ") + text.data();
}

Block Comparer::Fill(uint64_t number) {
  const Setting& setting = blocks_.SettingOf(number);
  const int count = blocks_.Count(number);
  enumeration_.inputs.fill(setting, blocks_.First(number), count, x_.data(), acc_.data());
  return {setting, count, x_.data(), acc_.data()};
}

// First whether there is any difference, in a loop that becomes vectors.
void Comparer::CompareForm(uint64_t number, const Block& block, const Form& form, Tally* tally) {
  auto inputs = static_cast<uint64_t>(block.count);
  if (form.select) {
    form.select(block, taken_.data());
    inputs = static_cast<uint64_t>(std::count(taken_.begin(), taken_.begin() + block.count, true));
    if (inputs == 0) return;
  }
  form.compute(block, actual_.data());
  Word any = 0;
  for (size_t i = 0; i < static_cast<size_t>(block.count); ++i) {
    const bool taken = !form.select || taken_[i];
    any |= taken ? expected_[i] ^ actual_[i] : 0;
  }
  tally->inputs += inputs;
  if (any != 0) CountDifferences(number, block, form, tally);
}

void Comparer::CountDifferences(uint64_t number, const Block& block, const Form& form,
                                Tally* tally) const {
  for (int i = 0; i < block.count; ++i) {
    const auto at = static_cast<size_t>(i);
    if ((form.select && !taken_[at]) || expected_[at] == actual_[at]) continue;
    if (tally->differences++ == 0) tally->first = {number, i, expected_[at], actual_[at]};
  }
}

}  // namespace bitfold::enumeration
