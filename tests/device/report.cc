// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "report.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace bitfold::device_test {

namespace {

void Require(bool ok) {
  if (ok) return;
  std::perror("redirecting standard output");
  std::abort();
}

std::vector<std::string> SortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace

StdoutSilence::StdoutSilence() {
  std::fflush(nullptr);
  saved_ = dup(STDOUT_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY);
  Require(saved_ >= 0 && nowhere >= 0 && dup2(nowhere, STDOUT_FILENO) >= 0);
  close(nowhere);
}

StdoutSilence::~StdoutSilence() {
  std::fflush(nullptr);
  Require(dup2(saved_, STDOUT_FILENO) >= 0);
  close(saved_);
}

bool Report::IsWanted(const std::string& name) const {
  const auto begins = [&name](const std::string& group) { return name.rfind(group, 0) == 0; };
  return groups_.empty() || std::any_of(groups_.begin(), groups_.end(), begins);
}

void Report::Group(const std::string& name, const std::function<void()>& body) {
  if (!IsWanted(name)) return;
  told_ = 0;
  comparisons_ = 0;
  failures_ = 0;
  elements_ = 0;
  body();
  std::printf("%-6s  %-58s %6" PRId64 " comparisons %10" PRIu64 " elements\n",
              failures_ == 0 ? "passed" : "FAILED", name.c_str(), comparisons_, elements_);
  std::fflush(stdout);
}

void Report::CompareLines(const std::string& got, const std::string& expected,
                          const std::string& what) {
  const std::vector<std::string> have = SortedLines(got);
  const std::vector<std::string> want = SortedLines(expected);
  const size_t shared = std::min(have.size(), want.size());
  size_t i = 0;
  while (i < shared && have[i] == want[i]) ++i;
  const bool passed = i == have.size() && i == want.size();
  if (!passed) {
    Tell(std::to_string(have.size()) + " lines, expected " + std::to_string(want.size()) +
         "; the first that differs, sorted: \"" + (i < have.size() ? have[i] : "") +
         "\", expected \"" + (i < want.size() ? want[i] : "") + "\", " + what);
  }
  Count(passed, want.size());
}

void Report::Check(bool passed, const std::string& what) {
  if (!passed) Tell(what);
  Count(passed, 1);
}

int Report::Finish() const {
  std::printf("%" PRId64 " passed, %" PRId64 " failed\n", passed_, failed_);
  return failed_ == 0 ? 0 : 1;
}

void Report::Tell(const std::string& what) {
  if (IsTold()) return;
  ++told_;
  std::printf("  mismatch: %s\n", what.c_str());
}

void Report::Count(bool passed, size_t elements) {
  ++comparisons_;
  failures_ += passed ? 0 : 1;
  elements_ += elements;
  passed_ += passed ? 1 : 0;
  failed_ += passed ? 0 : 1;
  if (stops_ && !passed) std::_Exit(1);
}

}  // namespace bitfold::device_test
