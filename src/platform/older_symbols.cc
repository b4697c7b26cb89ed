// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Lets a library that is built on a recent system load on one as old as the runtime's own wheels
// ask for. Each entry names what would otherwise ask for more, and since when.

#include <cstdlib>  // says which C and C++ libraries these are

#include "platform/forward.h"

#ifdef BITFOLD_HAS_FORWARDS

// ---- C, 2.34: what libpthread and libdl had before, under these versions, is in libc now --------

BITFOLD_FORWARD("dladdr", "GLIBC_2.2.5");
BITFOLD_FORWARD("dlclose", "GLIBC_2.2.5");
BITFOLD_FORWARD("dlopen", "GLIBC_2.2.5");
BITFOLD_FORWARD("dlsym", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_create", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_join", "GLIBC_2.2.5");

// ---- C, 2.29: it no longer reports errors by way of a function of the program -------------------

// Both forms call the same code. Here all arguments are whole numbers, for which powers of two are
// exact in every version of that code.
BITFOLD_FORWARD("exp2", "GLIBC_2.2.5");

// ---- C++ of g++ 11 and 12 -----------------------------------------------------------------------

BITFOLD_FORWARD("_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE", "GLIBCXX_3.4.11");
// std::__throw_bad_array_new_length(): what the language's own check throws by.
BITFOLD_FORWARD_TO("_ZSt28__throw_bad_array_new_lengthv", "__cxa_throw_bad_array_new_length",
                   "CXXABI_1.3.8");
// exception_ptr::_M_release(): all that the destructor, ~exception_ptr(), does.
BITFOLD_FORWARD_TO("_ZNSt15__exception_ptr13exception_ptr10_M_releaseEv",
                   "_ZNSt15__exception_ptr13exception_ptrD1Ev", "CXXABI_1.3.3");

// exception_ptr(const exception_ptr&). Its version keeps it apart from those that the compiler
// makes of the header, which call the function below.
__asm__(
    ".symver bitfold_copy_exception, "
    "_ZNSt15__exception_ptr13exception_ptrC1ERKS0_@CXXABI_1.3.3");

extern "C" {

void bitfold_copy_exception(void** to, void* const* from) noexcept;

// exception_ptr::_M_addref(), which counts a holder: a copy does, and is never destroyed.
void bitfold_add_holder(void* const* pointer) noexcept
    __asm__("_ZNSt15__exception_ptr13exception_ptr9_M_addrefEv");
void bitfold_add_holder(void* const* pointer) noexcept {
  void* copy = nullptr;
  bitfold_copy_exception(&copy, pointer);
}

// C, 2.32. Never true, so reference counts are atomic: the runtime has threads in any case.
extern char bitfold_is_single_threaded __asm__("__libc_single_threaded");
char bitfold_is_single_threaded = 0;

}  // extern "C"

#endif  // BITFOLD_HAS_FORWARDS
