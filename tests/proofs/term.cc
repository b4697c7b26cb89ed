// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "proofs/term.h"

#include <map>
#include <optional>
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
std::optional<uint64_t> Fold(const std::string& op, int sort, const std::vector<TermPointer>& x) {
  for (const TermPointer& operand : x) {
    if (!operand->is_constant || operand->sort > 64) return std::nullopt;
  }
  if (sort > 64) return std::nullopt;
  const uint64_t a = x[0]->value;
  const uint64_t b = x.size() > 1 ? x[1]->value : 0;
  const bool of_words = x[0]->sort != 0;
  const int64_t sa = of_words ? Signed(*x[0]) : 0;
  const int64_t sb = x.size() > 1 && of_words ? Signed(*x[1]) : 0;
  if (op == "bvadd") return a + b;
  if (op == "bvsub") return a - b;
  if (op == "bvmul") return a * b;
  if (op == "bvand") return a & b;
  if (op == "bvor") return a | b;
  if (op == "bvxor") return a ^ b;
  if (op == "bvnot") return ~a;
  if (op == "bvshl") return b >= static_cast<uint64_t>(sort) ? 0 : a << b;
  if (op == "bvlshr") return b >= static_cast<uint64_t>(sort) ? 0 : a >> b;
  if (op == "bvashr") return static_cast<uint64_t>(sa >> (b > 63 ? 63 : b));
  if (op == "bvsdiv" && sb != 0 && sb != -1) return static_cast<uint64_t>(sa / sb);
  if (op == "bvsrem" && sb != 0 && sb != -1) return static_cast<uint64_t>(sa % sb);
  if (op == "bvudiv" && b != 0) return a / b;
  if (op == "bvurem" && b != 0) return a % b;
  if (op == "=") return a == b;
  if (op == "distinct") return a != b;
  if (op == "bvslt") return sa < sb;
  if (op == "bvsle") return sa <= sb;
  if (op == "bvsgt") return sa > sb;
  if (op == "bvsge") return sa >= sb;
  if (op == "bvult") return a < b;
  if (op == "bvule") return a <= b;
  if (op == "bvugt") return a > b;
  if (op == "bvuge") return a >= b;
  if (op == "not") return a == 0;
  if (op == "or") return a != 0 || b != 0;
  if (op == "and") return a != 0 && b != 0;
  if (op.rfind("(_ extract", 0) == 0) return a;  // from bit 0 on
  if (op.rfind("(_ zero_extend", 0) == 0) return a;
  if (op.rfind("(_ sign_extend", 0) == 0) return static_cast<uint64_t>(sa);
  return std::nullopt;
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
  if (const auto value = Fold(operation, sort, operands)) {
    return sort == 0 ? Truth(*value != 0) : Constant(sort, *value);
  }
  if (operation == "and" && operands[0]->is_constant) return operands[operands[0]->value ? 1 : 0];
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
