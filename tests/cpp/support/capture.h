// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What a call writes to file descriptor 1, whoever formats it.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_CAPTURE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_CAPTURE_H_

#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace bitfold::testing {

// Redirects descriptor 1 into a temporary file for the life of the object. One at a time.
class StdoutCapture {
 public:
  StdoutCapture() {
    std::fflush(nullptr);
    Check(ftruncate(File(), 0) == 0 && lseek(File(), 0, SEEK_SET) == 0);
    saved_ = dup(STDOUT_FILENO);
    Check(saved_ >= 0 && dup2(File(), STDOUT_FILENO) >= 0);
  }
  ~StdoutCapture() {
    if (saved_ >= 0) Restore();
  }
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  // Ends the capture and returns the text.
  std::string Take() {
    Restore();
    std::string text;
    char block[65536];
    Check(lseek(File(), 0, SEEK_SET) == 0);
    for (ssize_t n; (n = read(File(), block, sizeof(block))) > 0;) {
      text.append(block, static_cast<size_t>(n));
    }
    return text;
  }

 private:
  static int File() {
    static std::FILE* const file = std::tmpfile();
    Check(file != nullptr);
    return fileno(file);
  }

  static void Check(bool ok) {
    if (ok) return;
    std::perror("capturing standard output");
    std::abort();
  }

  void Restore() {
    std::fflush(nullptr);
    Check(dup2(saved_, STDOUT_FILENO) >= 0);
    close(saved_);
    saved_ = -1;
  }

  int saved_ = -1;
};

template <typename Call>
std::string PrintedBy(Call&& call) {
  StdoutCapture capture;
  std::forward<Call>(call)();
  return capture.Take();
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_CAPTURE_H_
