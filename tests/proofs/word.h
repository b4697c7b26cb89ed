// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Integers that record what is done with them, for the headers of the rules in place of the
// language's own: they convert, promote and compute as those do. What the language leaves undefined
// (a signed overflow, a shift by too much, a division by zero) is recorded as an obligation: it
// must be proven never to come.

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

// ---- The usual arithmetic conversions ----------------------------------------------------------

template <typename T>
using Promoted = Word<Recorded<T>::kPromotedWidth, Recorded<T>::kPromotedSign>;

template <typename A, typename B>
struct CommonType {
  static constexpr int kA = Promoted<A>::kWidth;
  static constexpr int kB = Promoted<B>::kWidth;
  static constexpr bool kSignA = Promoted<A>::kHasSign;
  static constexpr bool kSignB = Promoted<B>::kHasSign;
  using type = std::conditional_t<kA == kB, Word<kA, kSignA && kSignB>,
                                  std::conditional_t<(kA > kB), Promoted<A>, Promoted<B>>>;
};
template <typename A, typename B>
using Common = typename CommonType<A, B>::type;

// Requires what is not undefined of an operation on operands converted to W: that the operation in
// more bits gives the same.
template <typename W>
void RequireNoOverflow(const std::string& operation, const W& a, const W& b,
                       const TermPointer& result) {
  if (!W::kHasSign) return;
  if (a.term()->is_constant && b.term()->is_constant) {
    const __int128 x = a.Value();
    const __int128 y = b.Value();
    const __int128 exact = operation == "bvadd" ? x + y : operation == "bvsub" ? x - y : x * y;
    return Require(Truth(exact == W(result).Value()));
  }
  const int more = operation == "bvmul" ? W::kWidth : 1;
  const std::string extend = "(_ sign_extend " + std::to_string(more) + ")";
  const int sort = W::kWidth + more;
  const TermPointer wide =
      Apply(operation, sort, {Apply(extend, sort, {a.term()}), Apply(extend, sort, {b.term()})});
  Require(Apply("=", 0, {wide, Apply(extend, sort, {result})}));
}

template <typename A, typename B>
Common<A, B> Arithmetic(const std::string& operation, const A& a, const B& b) {
  using W = Common<A, B>;
  const W x = Recorded<A>(a);
  const W y = Recorded<B>(b);
  const TermPointer result = Apply(operation, W::kWidth, {x.term(), y.term()});
  RequireNoOverflow(operation, x, y, result);
  return W(result);
}

template <typename A, typename B, IfOperands<A, B> = 0>
auto operator+(const A& a, const B& b) {
  return Arithmetic("bvadd", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator-(const A& a, const B& b) {
  return Arithmetic("bvsub", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator*(const A& a, const B& b) {
  return Arithmetic("bvmul", a, b);
}

template <typename A, typename B>
Common<A, B> Divide(const char* of_signed, const char* of_unsigned, const A& a, const B& b) {
  using W = Common<A, B>;
  const W x = Recorded<A>(a);
  const W y = Recorded<B>(b);
  Require(Apply("distinct", 0, {y.term(), W(0).term()}));
  if (W::kHasSign) {
    const W least(uint64_t{1} << (W::kWidth - 1));
    Require(Apply("not", 0,
                  {Apply("and", 0,
                         {Apply("=", 0, {x.term(), least.term()}),
                          Apply("=", 0, {y.term(), W(-1).term()})})}));
  }
  return W(Apply(W::kHasSign ? of_signed : of_unsigned, W::kWidth, {x.term(), y.term()}));
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator/(const A& a, const B& b) {
  return Divide("bvsdiv", "bvudiv", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator%(const A& a, const B& b) {
  return Divide("bvsrem", "bvurem", a, b);
}

template <typename A, typename B>
Common<A, B> Bitwise(const char* operation, const A& a, const B& b) {
  using W = Common<A, B>;
  return W(Apply(operation, W::kWidth, {W(Recorded<A>(a)).term(), W(Recorded<B>(b)).term()}));
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator&(const A& a, const B& b) {
  return Bitwise("bvand", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator|(const A& a, const B& b) {
  return Bitwise("bvor", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator^(const A& a, const B& b) {
  return Bitwise("bvxor", a, b);
}

template <int kBits, bool kSigned>
auto operator-(const Word<kBits, kSigned>& x) {
  return 0 - x;
}
template <int kBits, bool kSigned>
auto operator~(const Word<kBits, kSigned>& x) {
  using W = Promoted<Word<kBits, kSigned>>;
  return W(Apply("bvnot", W::kWidth, {W(x).term()}));
}

// The type of the left operand; the count lies in 0 to its width less 1. Signed words shift to the
// left modulo their width, as the language has defined it since 2020 and compilers before.
template <typename A, typename B>
Promoted<A> Shift(const char* operation, const A& a, const B& count) {
  using W = Promoted<A>;
  const Promoted<B> given = Recorded<B>(count);
  Require(Apply("bvult", 0, {given.term(), Promoted<B>(W::kWidth).term()}));
  return W(Apply(operation, W::kWidth, {W(Recorded<A>(a)).term(), W(given).term()}));
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator<<(const A& a, const B& count) {
  return Shift("bvshl", a, count);
}
template <typename A, typename B, IfOperands<A, B> = 0>
auto operator>>(const A& a, const B& count) {
  return Shift(Promoted<A>::kHasSign ? "bvashr" : "bvlshr", a, count);
}

template <typename A, typename B>
Bool Compare(const std::string& of_signed, const std::string& of_unsigned, const A& a, const B& b) {
  using W = Common<A, B>;
  return Bool(Apply(W::kHasSign ? of_signed : of_unsigned, 0,
                    {W(Recorded<A>(a)).term(), W(Recorded<B>(b)).term()}));
}
template <typename A, typename B, IfOperands<A, B> = 0>
Bool operator==(const A& a, const B& b) {
  return Compare("=", "=", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
Bool operator!=(const A& a, const B& b) {
  return Compare("distinct", "distinct", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
Bool operator<(const A& a, const B& b) {
  return Compare("bvslt", "bvult", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
Bool operator<=(const A& a, const B& b) {
  return Compare("bvsle", "bvule", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
Bool operator>(const A& a, const B& b) {
  return Compare("bvsgt", "bvugt", a, b);
}
template <typename A, typename B, IfOperands<A, B> = 0>
Bool operator>=(const A& a, const B& b) {
  return Compare("bvsge", "bvuge", a, b);
}

// The number of zeros below the lowest 1. Requires x != 0.
inline Int32 CountTrailingZeros(const UInt32& x) {
  Require(Apply("distinct", 0, {x.term(), UInt32(0).term()}));
  TermPointer count = Int32(31).term();
  for (int i = 30; i >= 0; --i) {
    const UInt32 bit = x & (uint32_t{1} << i);
    const TermPointer is_set = Apply("distinct", 0, {bit.term(), UInt32(0).term()});
    count = Apply("ite", 32, {is_set, Int32(i).term(), count});
  }
  return Int32(count);
}

}  // namespace bitfold::proofs

#endif  // BITFOLD_TESTS_PROOFS_WORD_H_
