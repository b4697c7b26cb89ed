// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Preloaded, lets one allocation or the start of one thread fail while armed: the k-th `operator
// new` or pthread_create that the watched library calls, or the k-th block that the runtime's
// allocator asks for. `malloc` never fails: the runtime would not survive it.

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

enum Kind { kNone = 0, kNew = 1, kThread = 2, kAligned = 3 };

struct Range {
  uintptr_t begin = 0;
  uintptr_t end = 0;
};

Range watched;
std::atomic<int> armed{kNone};
std::atomic<int64_t> fails_at{0};
std::atomic<int64_t> occasions{0};

bool IsWatched(const void* caller) {
  const auto address = reinterpret_cast<uintptr_t>(caller);
  return watched.begin <= address && address < watched.end;
}

// Counts an occasion; whether it is the one to fail.
bool Fails(Kind kind) { return armed == kind && ++occasions == fails_at; }

void* Allocate(std::size_t size, std::size_t alignment, const void* caller) {
  if (armed == kNew && IsWatched(caller) && Fails(kNew)) return nullptr;
  if (alignment == 0) return std::malloc(size == 0 ? 1 : size);
  void* block = nullptr;
  static const auto real =
      reinterpret_cast<int (*)(void**, size_t, size_t)>(dlsym(RTLD_NEXT, "posix_memalign"));
  return real(&block, alignment < sizeof(void*) ? sizeof(void*) : alignment, size) == 0 ? block
                                                                                        : nullptr;
}

void* AllocateOrThrow(std::size_t size, std::size_t alignment, const void* caller) {
  void* block = Allocate(size, alignment, caller);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

int SetRange(dl_phdr_info* info, size_t, void* path) {
  if (std::strcmp(info->dlpi_name, static_cast<const char*>(path)) != 0) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
    watched.begin = info->dlpi_addr + segment.p_vaddr;
    watched.end = watched.begin + segment.p_memsz;
  }
  return 1;
}

}  // namespace

extern "C" {

// Watches the loaded library of a path; 1 where it is found.
int FaultsWatch(const char* path) { return dl_iterate_phdr(SetRange, const_cast<char*>(path)); }

// Lets the k-th occasion from now on fail; 0 counts them only.
void FaultsArm(int kind, int64_t k) {
  occasions = 0;
  fails_at = k;
  armed = kind;
}

// Ends that, and returns how many occasions there were.
int64_t FaultsDisarm() {
  armed = kNone;
  return occasions;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) {
  static const auto real =
      reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (armed == kThread && IsWatched(__builtin_return_address(0)) && Fails(kThread)) return EAGAIN;
  return real(thread, attributes, entry, argument);
}

// What the runtime's allocator of host memory asks for.
int posix_memalign(void** block, size_t alignment, size_t size) {
  static const auto real =
      reinterpret_cast<int (*)(void**, size_t, size_t)>(dlsym(RTLD_NEXT, "posix_memalign"));
  return Fails(kAligned) ? ENOMEM : real(block, alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
  static const auto real =
      reinterpret_cast<void* (*)(size_t, size_t)>(dlsym(RTLD_NEXT, "aligned_alloc"));
  return Fails(kAligned) ? nullptr : real(alignment, size);
}

}  // extern "C"

void* operator new(std::size_t size) {
  return AllocateOrThrow(size, 0, __builtin_return_address(0));
}
void* operator new[](std::size_t size) {
  return AllocateOrThrow(size, 0, __builtin_return_address(0));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, 0, __builtin_return_address(0));
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, 0, __builtin_return_address(0));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return AllocateOrThrow(size, static_cast<std::size_t>(alignment), __builtin_return_address(0));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return AllocateOrThrow(size, static_cast<std::size_t>(alignment), __builtin_return_address(0));
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
