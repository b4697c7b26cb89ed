// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_PLATFORM_FORWARD_H_
#define BITFOLD_SRC_PLATFORM_FORWARD_H_

// The linker takes a symbol's newest version, which older systems lack. BITFOLD_FORWARD defines the
// symbol in the library instead, for its own code and for archives that are linked into it, as a
// jump to a version of it, or of another, that has been there for long. It leaves no frame, so the
// callee sees its caller: dlsym asks who that is. Like all that cmake/exports.map does not name,
// the definition stays within the library.
// clang-format off
#define BITFOLD_FORWARD_TO(name, target, version)                     \
  __asm__(".symver bitfold_forward_" name ", " target "@" version "\n" \
          ".pushsection .text\n"                                      \
          ".hidden " name "\n"                                        \
          ".globl " name "\n"                                         \
          ".type " name ", @function\n"                               \
          name ": jmp *bitfold_forward_" name "@GOTPCREL(%rip)\n"     \
          ".size " name ", . - " name "\n"                            \
          ".popsection")
// clang-format on
#define BITFOLD_FORWARD(name, version) BITFOLD_FORWARD_TO(name, name, version)

// Which versions are old depends on the system. The runtime has wheels for others, too, on which
// the library is what the linker makes of it.
#if defined(__linux__) && defined(__x86_64__) && defined(__LP64__) && defined(__GLIBC__) && \
    defined(__GLIBCXX__)
#define BITFOLD_HAS_FORWARDS
#endif

#endif  // BITFOLD_SRC_PLATFORM_FORWARD_H_
