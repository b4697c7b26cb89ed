// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What words do: they promote and compute as the language's integers do. What the language leaves
// undefined (a signed overflow, a shift by too much, a division by zero) is recorded as an
// obligation: it must be proven never to come.

#ifndef BITFOLD_TESTS_PROOFS_WORD_OPERATORS_H_
#define BITFOLD_TESTS_PROOFS_WORD_OPERATORS_H_

#include <cstdint>
#include <string>
#include <type_traits>

#include "proofs/path.h"
#include "proofs/term.h"
#include "proofs/word.h"

namespace bitfold::proofs {

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

#endif  // BITFOLD_TESTS_PROOFS_WORD_OPERATORS_H_
