// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "proofs/enumerate/report.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace bitfold::enumeration {
namespace {

std::string Seconds(double seconds) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(1) << seconds;
  return text.str();
}

// Texts here have no quotation marks, backslashes or control characters.
std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

void WriteForms(const std::vector<FormResult>& forms, std::ostream& out) {
  const char* separator = "";
  for (const FormResult& form : forms) {
    out << separator << "{\"name\": " << Quoted(form.name) << ", \"inputs\": " << form.inputs
        << ", \"differences\": " << form.differences << ", \"first\": " << Quoted(form.first)
        << "}";
    separator = ", ";
  }
}

}  // namespace

std::string Grouped(uint64_t number) {
  std::string digits = std::to_string(number);
  for (auto at = static_cast<int64_t>(digits.size()) - 3; at > 0; at -= 3) {
    digits.insert(static_cast<size_t>(at), ",");
  }
  return digits;
}

std::string TableHead() {
  return "| Rule | Claim | Forms | Inputs | Differences | Seconds | of one core | Controls found "
         "|\n"
         "|---|---|---|---|---|---|---|---|\n";
}

std::string TableRow(const Result& result) {
  std::ostringstream row;
  row << "| " << result.rule << " | " << result.claim << " | ";
  uint64_t differences = 0;
  const char* separator = "";
  for (const FormResult& form : result.forms) {
    row << separator << form.name;
    if (form.inputs != result.inputs) row << " (" << Grouped(form.inputs) << ")";
    separator = "; ";
    differences += form.differences;
  }
  const auto found = std::count_if(result.controls.begin(), result.controls.end(),
                                   [](const FormResult& form) { return form.differences > 0; });
  row << " | " << Grouped(result.inputs) << ": " << result.inputs_name;
  if (result.settings > 1) row << ", " << result.settings << " settings";
  row << " | " << differences << " | " << Seconds(result.seconds) << " | "
      << Seconds(result.processor_seconds) << " | " << found << " of " << result.controls.size()
      << " |\n";
  return row.str();
}

std::string Findings(const Result& result, bool with_controls) {
  std::string lines;
  for (const FormResult& form : result.forms) {
    if (form.inputs == 0) lines += "FAILED " + result.rule + ": " + form.name + " had no input\n";
    if (form.differences == 0) continue;
    lines += "FAILED " + result.rule + ": " + form.name + " differs at " +
             Grouped(form.differences) + " inputs, first " + form.first + "\n";
  }
  for (const FormResult& control : result.controls) {
    if (control.differences == 0) {
      lines += "FAILED " + result.rule + ": control '" + control.name + "' was not found\n";
    } else if (with_controls) {
      lines += result.rule + ": control '" + control.name + "': " + control.first + "\n";
    }
  }
  return lines;
}

std::string Json(const std::vector<Result>& results) {
  std::ostringstream out;
  const char* separator = "[\n";
  for (const Result& result : results) {
    out << separator << "{\"rule\": " << Quoted(result.rule)
        << ", \"claim\": " << Quoted(result.claim) << ", \"of\": " << Quoted(result.inputs_name)
        << ", \"settings\": " << result.settings << ", \"inputs\": " << result.inputs
        << ", \"seconds\": " << result.seconds
        << ", \"processor_seconds\": " << result.processor_seconds << ", \"forms\": [";
    WriteForms(result.forms, out);
    out << "], \"controls\": [";
    WriteForms(result.controls, out);
    out << "]}";
    separator = ",\n";
  }
  out << (results.empty() ? "[" : "") << "\n]\n";
  return out.str();
}

}  // namespace bitfold::enumeration
