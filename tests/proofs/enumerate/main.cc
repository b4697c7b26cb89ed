// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// bitfold_enumerate: goes through all inputs of the rules of one float, and through pairs of
// boundaries of those of two. --help says how.

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "proofs/enumerate/engine.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/report.h"

namespace {

using bitfold::enumeration::Enumeration;
using bitfold::enumeration::Options;
using bitfold::enumeration::Result;

constexpr char kHelp[] =
    "bitfold_enumerate [--list] [--rule NAME ...] [--long] [--sample N] [--processes N] [--json]\n"
    "  --list         what there is, and about how long it takes on one core; runs nothing\n"
    "  --rule NAME    the enumerations of this rule alone, such as H1\n"
    "  --long         those that take hours, too\n"
    "  --sample N     every Nth block of inputs and the boundaries, not all\n"
    "  --processes N  that share the inputs; as many as there are cores\n"
    "  --json         JSON in place of a table\n";

// All inputs, on all cores that this process may use.
Options Cores() {
  Options options;
  cpu_set_t cores;
  const bool is_known = sched_getaffinity(0, sizeof cores, &cores) == 0;
  options.processes = is_known ? CPU_COUNT(&cores) : 1;
  return options;
}

struct Arguments {
  std::vector<std::string> rules;
  Options options = Cores();
  bool lists = false;
  bool is_long = false;
  bool is_json = false;
};

uint64_t NumberOf(const std::string& name, const std::string& text) {
  constexpr size_t kMostDigits = 9;
  const bool is_number = !text.empty() && text.size() <= kMostDigits &&
                         text.find_first_not_of("0123456789") == std::string::npos;
  const uint64_t number = is_number ? std::stoull(text) : 0;
  if (number >= 1) return number;
  throw std::invalid_argument("Need a number from 1 to 999999999 for " + name + ", got '" + text +
                              "'");
}

Arguments Parsed(const std::vector<std::string>& words) {
  Arguments arguments;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    const auto value = [&] {
      if (i + 1 == words.size()) throw std::invalid_argument("Need a value after " + word);
      return words[++i];
    };
    if (word == "--list") {
      arguments.lists = true;
    } else if (word == "--long") {
      arguments.is_long = true;
    } else if (word == "--json") {
      arguments.is_json = true;
    } else if (word == "--rule") {
      arguments.rules.push_back(value());
    } else if (word == "--sample") {
      arguments.options.sample = NumberOf("--sample", value());
    } else if (word == "--processes") {
      arguments.options.processes = static_cast<int>(NumberOf("--processes", value()));
    } else {
      throw std::invalid_argument("Need an option, got '" + word + "'\n" + kHelp);
    }
  }
  return arguments;
}

// Whether the name stands between the commas of a rule's.
bool IsOfRule(const std::string& rule, const std::string& name) {
  return (", " + rule + ", ").find(", " + name + ", ") != std::string::npos;
}

std::vector<Enumeration> Chosen(const Arguments& arguments) {
  const std::vector<Enumeration> all = bitfold::enumeration::AllEnumerations();
  std::vector<Enumeration> chosen;
  for (const Enumeration& enumeration : all) {
    const auto is_named = [&](const auto& name) { return IsOfRule(enumeration.rule, name); };
    const auto& rules = arguments.rules;
    if (!rules.empty() && std::none_of(rules.begin(), rules.end(), is_named)) continue;
    if (enumeration.is_long && !arguments.is_long && !arguments.lists) continue;
    chosen.push_back(enumeration);
  }
  for (const std::string& name : arguments.rules) {
    const auto is_of = [&](const Enumeration& e) { return IsOfRule(e.rule, name); };
    if (std::any_of(all.begin(), all.end(), is_of)) continue;
    throw std::invalid_argument("Need a rule that --list names, got '" + name + "'");
  }
  return chosen;
}

std::string Named(const Enumeration& enumeration) {
  const uint64_t inputs = enumeration.inputs.count * enumeration.settings.size();
  return enumeration.rule + ": " + enumeration.claim + "; " +
         bitfold::enumeration::Grouped(inputs) + " inputs";
}

void List(const std::vector<Enumeration>& chosen) {
  for (const Enumeration& enumeration : chosen) {
    const double seconds = bitfold::enumeration::Estimate(enumeration);
    std::printf("%8.0f s  %s%s\n", seconds, Named(enumeration).c_str(),
                enumeration.is_long ? " (--long)" : "");
    std::fflush(stdout);
  }
}

// Says how far an enumeration is: in place on a terminal, elsewhere once a minute.
class Progress {
 public:
  void operator()(double done, double seconds) {
    const bool is_terminal = isatty(STDERR_FILENO) != 0;
    if (seconds < next_) return;
    next_ = seconds + (is_terminal ? 0.5 : 60);
    const double left = done > 0 ? seconds / done - seconds : 0;
    std::fprintf(stderr, "%s  %5.1f %%, %.0f s left%s", is_terminal ? "\r\033[K" : "", 100 * done,
                 left, is_terminal ? "" : "\n");
    if (is_terminal && done >= 1) std::fputs("\r\033[K", stderr);
  }

 private:
  double next_ = 1;
};

int RunAll(const std::vector<Enumeration>& chosen, const Arguments& arguments) {
  std::vector<Result> results;
  bool is_right = true;
  if (!arguments.is_json) std::cout << bitfold::enumeration::TableHead() << std::flush;
  for (const Enumeration& enumeration : chosen) {
    Options options = arguments.options;
    options.progress = Progress();
    if (options.sample == 1) {
      const double seconds = bitfold::enumeration::Estimate(enumeration) / options.processes;
      std::fprintf(stderr, "%s, about %.0f s\n", Named(enumeration).c_str(), seconds);
    }
    results.push_back(GoThrough(enumeration, options));
    is_right &= results.back().IsRight();
    if (arguments.is_json) continue;
    std::cout << bitfold::enumeration::TableRow(results.back()) << std::flush;
  }
  if (arguments.is_json) {
    std::cout << bitfold::enumeration::Json(results);
  } else {
    std::cout << "\n";
  }
  for (const Result& result : results) {
    (arguments.is_json ? std::cerr : std::cout) << Findings(result, !arguments.is_json);
  }
  return is_right ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words == std::vector<std::string>{"--help"}) {
    std::cout << kHelp;
    return EXIT_SUCCESS;
  }
  const Arguments arguments = Parsed(words);
  const std::vector<Enumeration> chosen = Chosen(arguments);
  if (!arguments.lists) return RunAll(chosen, arguments);
  List(chosen);
  return EXIT_SUCCESS;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 2;
}
