// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Integers that record what is done with them, for the headers of the rules in place of the
// language's own: they convert as those do. Their operators are those of word_operators.h.

#ifndef BITFOLD_TESTS_PROOFS_WORD_H_
#define BITFOLD_TESTS_PROOFS_WORD_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "proofs/path.h"
#include "proofs/term.h"

namespace bitfold::proofs {

template <int kBits, bool kSigned>
class Word;

using Int8 = Word<8, true>;
using Int16 = Word<16, true>;
using Int32 = Word<32, true>;
using Int64 = Word<64, true>;
using UInt8 = Word<8, false>;
using UInt16 = Word<16, false>;
using UInt32 = Word<32, false>;
using UInt64 = Word<64, false>;

// The recorded form of a type: of the language's integers and of words.
template <typename T>
struct RecordedType {
  using type = Word<8 * static_cast<int>(sizeof(T)), std::is_signed_v<T>>;
};
template <int kBits, bool kSigned>
struct RecordedType<Word<kBits, kSigned>> {
  using type = Word<kBits, kSigned>;
};
template <typename T>
using Recorded = typename RecordedType<T>::type;

template <typename T>
inline constexpr bool kIsWord = false;
template <int kBits, bool kSigned>
inline constexpr bool kIsWord<Word<kBits, kSigned>> = true;

// What operators take: a word and a word or an integer.
template <typename T>
inline constexpr bool kIsOperand = kIsWord<T> || std::is_integral_v<T>;
template <typename A, typename B>
using IfOperands =
    std::enable_if_t<(kIsWord<A> || kIsWord<B>)&&kIsOperand<A> && kIsOperand<B>, int>;

template <int kBits, bool kSigned>
class Word {
 public:
  static constexpr int kWidth = kBits;
  static constexpr bool kHasSign = kSigned;
  static constexpr int kPromotedWidth = kBits < 32 ? 32 : kBits;
  static constexpr bool kPromotedSign = kBits < 32 || kSigned;

  Word() : term_(Constant(kBits, 0)) {}
  explicit Word(TermPointer term) : term_(std::move(term)) {}

  template <typename T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
  Word(T value)  // NOLINT: as implicit as the language's own
      : term_(Constant(kBits, static_cast<uint64_t>(value))) {}

  // Whole numbers only, as constants of the rules are.
  explicit Word(double value) : Word(static_cast<int64_t>(value)) {}

  template <int kOther, bool kOtherSigned>
  Word(const Word<kOther, kOtherSigned>& other)  // NOLINT: as implicit as the language's own
      : term_(Resized(other.term(), kOther, kOtherSigned)) {}

  static Word Of(const std::string& name) { return Word(Parameter(name, kBits)); }

  const TermPointer& term() const { return term_; }

  explicit operator bool() const {
    return Decide(Apply("distinct", 0, {term_, Constant(kBits, 0)}));
  }
  explicit operator double() const { return static_cast<double>(Value()); }
  explicit operator float() const { return static_cast<float>(Value()); }
  // As an index, and as nothing else: a choice between a word and an integer has one type.
  template <typename T, std::enable_if_t<std::is_same_v<T, std::ptrdiff_t>, int> = 0>
  operator T() const {  // NOLINT: as implicit as the language's own
    return Value();
  }
  // A constant's value, where the language needs a number: an index, a loop's bound.
  int64_t Value() const {
    const int unused = 64 - kBits;
    const auto shifted = static_cast<int64_t>(ConstantValue(term_) << unused);
    return kSigned ? shifted >> unused
                   : static_cast<int64_t>(static_cast<uint64_t>(shifted) >> unused);
  }

  template <typename T>
  Word& operator+=(const T& x) {
    return *this = *this + x;
  }
  template <typename T>
  Word& operator-=(const T& x) {
    return *this = *this - x;
  }
  template <typename T>
  Word& operator*=(const T& x) {
    return *this = *this * x;
  }
  template <typename T>
  Word& operator/=(const T& x) {
    return *this = *this / x;
  }
  template <typename T>
  Word& operator&=(const T& x) {
    return *this = *this & x;
  }
  template <typename T>
  Word& operator|=(const T& x) {
    return *this = *this | x;
  }
  Word& operator++() { return *this = *this + 1; }
  Word& operator--() { return *this = *this - 1; }

 private:
  static TermPointer Resized(const TermPointer& term, int from, bool is_signed) {
    if (from == kBits) return term;
    if (from > kBits) {
      return Apply("(_ extract " + std::to_string(kBits - 1) + " 0)", kBits, {term});
    }
    const std::string more = std::to_string(kBits - from);
    return Apply(is_signed ? "(_ sign_extend " + more + ")" : "(_ zero_extend " + more + ")", kBits,
                 {term});
  }

  TermPointer term_;
};

// A truth value: to branch on it decides it for the path at hand.
class Bool {
 public:
  explicit Bool(TermPointer term) : term_(std::move(term)) {}
  operator bool() const { return Decide(term_); }  // NOLINT: as implicit as the language's own
  const TermPointer& term() const { return term_; }

 private:
  TermPointer term_;
};

inline TermPointer TruthOf(const Bool& value) { return value.term(); }
inline TermPointer TruthOf(bool value) { return Truth(value); }

}  // namespace bitfold::proofs

#endif  // BITFOLD_TESTS_PROOFS_WORD_H_
