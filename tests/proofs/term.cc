// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "proofs/term.h"

#include <map>
#include <sstream>
#include <stdexcept>
#include <unordered_map>
#include <utility>

namespace bitfold::proofs {
namespace {

uint64_t Masked(int bits, uint64_t value) {
  return bits == 64 ? value : value & ((uint64_t{1} << bits) - 1);
}

TermPointer Make(Term term) {
  // Equal terms are one: what a rule computes twice is written once.
  using Key = std::pair<std::string, std::vector<const Term*>>;
  static auto* const known = new std::map<std::pair<Key, std::pair<int, uint64_t>>, TermPointer>;
  Key key{term.operation, {}};
  for (const TermPointer& operand : term.operands) key.second.push_back(operand.get());
  const auto [at, is_new] = known->try_emplace({key, {term.sort, term.value}});
  if (is_new) at->second = std::make_shared<const Term>(std::move(term));
  return at->second;
}

int64_t Signed(const Term& term) {
  const int unused = 64 - term.sort;
  return static_cast<int64_t>(term.value << unused) >> unused;
}

// The value of an operation on constants where paths need one, else nothing.
bool Fold(const std::string& op, int sort, const std::vector<TermPointer>& x, uint64_t* value) {
  for (const TermPointer& operand : x) {
    if (!operand->is_constant || operand->sort > 64) return false;
  }
  if (sort > 64) return false;
  const uint64_t a = x[0]->value;
  const uint64_t b = x.size() > 1 ? x[1]->value : 0;
  const bool of_words = x[0]->sort != 0;
  const int64_t sa = of_words ? Signed(*x[0]) : 0;
  const int64_t sb = x.size() > 1 && of_words ? Signed(*x[1]) : 0;
  if (op == "bvadd")
    *value = a + b;
  else if (op == "bvsub")
    *value = a - b;
  else if (op == "bvmul")
    *value = a * b;
  else if (op == "bvand")
    *value = a & b;
  else if (op == "bvor")
    *value = a | b;
  else if (op == "bvxor")
    *value = a ^ b;
  else if (op == "bvnot")
    *value = ~a;
  else if (op == "bvshl")
    *value = b >= static_cast<uint64_t>(sort) ? 0 : a << b;
  else if (op == "bvlshr")
    *value = b >= static_cast<uint64_t>(sort) ? 0 : a >> b;
  else if (op == "bvashr")
    *value = static_cast<uint64_t>(sa >> (b > 63 ? 63 : b));
  else if (op == "bvsdiv" && sb != 0 && sb != -1)
    *value = static_cast<uint64_t>(sa / sb);
  else if (op == "bvsrem" && sb != 0 && sb != -1)
    *value = static_cast<uint64_t>(sa % sb);
  else if (op == "bvudiv" && b != 0)
    *value = a / b;
  else if (op == "bvurem" && b != 0)
    *value = a % b;
  else if (op == "=")
    *value = a == b;
  else if (op == "distinct")
    *value = a != b;
  else if (op == "bvslt")
    *value = sa < sb;
  else if (op == "bvsle")
    *value = sa <= sb;
  else if (op == "bvsgt")
    *value = sa > sb;
  else if (op == "bvsge")
    *value = sa >= sb;
  else if (op == "bvult")
    *value = a < b;
  else if (op == "bvule")
    *value = a <= b;
  else if (op == "bvugt")
    *value = a > b;
  else if (op == "bvuge")
    *value = a >= b;
  else if (op == "not")
    *value = a == 0;
  else if (op == "or")
    *value = a != 0 || b != 0;
  else if (op == "and")
    *value = a != 0 && b != 0;
  else if (op.rfind("(_ extract", 0) == 0)
    *value = a;  // from bit 0 on
  else if (op.rfind("(_ zero_extend", 0) == 0)
    *value = a;
  else if (op.rfind("(_ sign_extend", 0) == 0)
    *value = static_cast<uint64_t>(sa);
  else
    return false;
  return true;
}

// How often each term stands in another, for those that are worth a name.
void CountUses(const Term* term, std::unordered_map<const Term*, int>* uses,
               std::vector<const Term*>* order) {
  if (++(*uses)[term] > 1) return;
  for (const TermPointer& operand : term->operands) CountUses(operand.get(), uses, order);
  order->push_back(term);
}

}  // namespace

TermPointer Constant(int bits, uint64_t value) {
  value = Masked(bits, value);
  const std::string text = "(_ bv" + std::to_string(value) + " " + std::to_string(bits) + ")";
  return Make({text, {}, bits, true, value});
}

TermPointer Truth(bool value) { return Make({value ? "true" : "false", {}, 0, true, value}); }

TermPointer Parameter(const std::string& name, int bits) {
  return Make({name, {}, bits, false, 0});
}

TermPointer Apply(const std::string& operation, int sort, std::vector<TermPointer> operands) {
  uint64_t value;
  if (Fold(operation, sort, operands, &value)) {
    return sort == 0 ? Truth(value != 0) : Constant(sort, value);
  }
  if (operation == "and" && operands[0]->is_constant)
    return operands[0]->value ? operands[1] : operands[0];
  if (operation == "ite" && operands[0]->is_constant) return operands[operands[0]->value ? 1 : 2];
  return Make({operation, std::move(operands), sort, false, 0});
}

std::string ToText(const TermPointer& term) {
  std::unordered_map<const Term*, int> uses;
  std::vector<const Term*> order;
  CountUses(term.get(), &uses, &order);
  std::unordered_map<const Term*, std::string> text;
  std::ostringstream out;
  size_t names = 0;
  for (const Term* t : order) {
    std::string own = t->operation;
    if (!t->operands.empty()) {
      own.insert(own.begin(), '(');
      for (const TermPointer& operand : t->operands) own += " " + text[operand.get()];
      own += ")";
    }
    if (uses[t] > 1 && !t->operands.empty()) {
      std::string name = "t";
      name += std::to_string(names++);
      out << "(let ((" << name << " " << own << ")) ";
      own = name;
    }
    text[t] = own;
  }
  out << text[term.get()] << std::string(names, ')');
  return out.str();
}

}  // namespace bitfold::proofs
