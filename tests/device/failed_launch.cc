// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A launch that fails: it prints a line on standard error and ends the process with the error's
// code, so another process of this program makes it.

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "bitfold/device_convolution.h"
#include "device/launchers.h"
#include "device_runtime.h"
#include "groups.h"

namespace bitfold::device_test {

namespace {

// What a command prints on standard error; *status is its exit status, or -1.
std::string ErrorsOf(const std::string& command, int* status) {
  *status = -1;
  std::FILE* pipe = popen((command + " 2>&1 >/dev/null").c_str(), "r");
  if (pipe == nullptr) return "";
  std::string text;
  char block[4096];
  for (size_t n; (n = std::fread(block, 1, sizeof(block), pipe)) > 0;) text.append(block, n);
  const int result = pclose(pipe);
  if (WIFEXITED(result)) *status = WEXITSTATUS(result);
  return text;
}

}  // namespace

void LaunchInvalidGrid() {
  // More rows of blocks than a grid has. The unfolding, which succeeds, reads one element.
  const Buffer<float> input(std::vector<float>{1.0f});
  const Buffer<float> columns(size_t{1});
  const Buffer<int8_t> mult_shift(std::vector<int8_t>{0});
  ConvolutionCall<float> call{};
  call.input = input.data();
  call.batch = 1;
  call.in_channels = 1;
  call.out_channels = 16 * 65536;
  call.rows = call.columns = {1, 1, 1, 1, Padding::kValid};
  call.filters = 1;
  call.datapath = {24, mult_shift.data(), false};
  LaunchImages<float>(Stream(), call, nullptr, columns.data());
}

void CheckFailedLaunch(const std::string& program, Report* report) {
  report->Group("a failed launch ends the process", [&] {
    int status = 0;
    const std::string text = ErrorsOf("'" + program + "' --invalid-grid", &status);
    // Which error it is differs between runtimes.
    const std::string line = "GPUassert: " + ErrorText(status) + " src/HConv2D 250\n";
    report->Check(status > 0 && text == line,
                  "exit status " + std::to_string(status) + ", printed \"" + text + "\"");
  });
}

}  // namespace bitfold::device_test
