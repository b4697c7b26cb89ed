// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the compiled device sources call of their runtime, in its place: so the launchers that ship,
// compiled as they ship, run the translation of the text that is embedded beside them. A text that
// was not translated, or another than that, ends the process.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>

#include "device.h"

namespace {

using bitfold::ptx::Kernel;
using bitfold::ptx::Module;
using bitfold::ptx::Size3;

struct Registered {
  const Module* module;
  const Kernel* kernel;
};

// By the address of the function that stands for the kernel on the host.
std::map<const void*, Registered>& Kernels() {
  static std::map<const void*, Registered> kernels;
  return kernels;
}

// A launch's shape on its way to the function that makes it.
struct Configuration {
  Size3 grid;
  Size3 block;
  size_t shared_bytes;
  void* stream;
};
thread_local Configuration configuration;
thread_local int last_error = 0;

[[noreturn]] void Refuse(const char* what, std::string_view name) {
  std::fprintf(stderr, "stand-in runtime: %s%.*s\n", what, static_cast<int>(name.size()),
               name.data());
  std::abort();
}

// The assembly text of an image of several forms. It begins with its version and ends with a zero.
std::string_view TextOf(const unsigned char* image) {
  uint16_t header = 0;
  uint64_t size = 0;
  std::memcpy(&header, image + 6, sizeof(header));
  std::memcpy(&size, image + 8, sizeof(size));
  const std::string_view all(reinterpret_cast<const char*>(image), header + size);
  const size_t begin = all.find(".version ");
  if (begin == std::string_view::npos) Refuse("an image without a text that can be read", "");
  return all.substr(begin, all.find('\0', begin) - begin);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,google-*): the runtime's.
extern "C" {

void** __cudaRegisterFatBinary(const void* wrapper) {
  struct {
    int magic;
    int version;
    const unsigned char* image;
    void* unused;
  } fields;
  std::memcpy(&fields, wrapper, sizeof(fields));
  const Module* module = bitfold::ptx::FindModule(TextOf(fields.image));
  if (module == nullptr) Refuse("a text that was not translated; build again", "");
  return new void*(const_cast<Module*>(module));
}

void __cudaRegisterFatBinaryEnd(void** /*handle*/) {}

void __cudaUnregisterFatBinary(void** handle) { delete handle; }

void __cudaRegisterFunction(void** handle, const void* host, char* /*device*/, const char* symbol,
                            int /*threads*/, void* /*tid*/, void* /*bid*/, void* /*block*/,
                            void* /*grid*/, int* /*warps*/) {
  const auto* module = static_cast<const Module*>(*handle);
  const Kernel* kernel = bitfold::ptx::FindKernel(*module, symbol);
  if (kernel == nullptr) Refuse("a kernel that was not translated: ", symbol);
  Kernels()[host] = {module, kernel};
}

unsigned __cudaPushCallConfiguration(Size3 grid, Size3 block, size_t shared_bytes, void* stream) {
  configuration = {grid, block, shared_bytes, stream};
  return 0;
}

int __cudaPopCallConfiguration(Size3* grid, Size3* block, size_t* shared_bytes, void** stream) {
  *grid = configuration.grid;
  *block = configuration.block;
  *shared_bytes = configuration.shared_bytes;
  *stream = configuration.stream;
  return 0;
}

int cudaLaunchKernel(const void* host, Size3 grid, Size3 block, void** arguments,
                     size_t shared_bytes, void* stream) {
  const auto found = Kernels().find(host);
  if (found == Kernels().end()) Refuse("a kernel that was not registered", "");
  if (shared_bytes != 0) Refuse("a launch with dynamic shared memory", "");
  const int error = bitfold::ptx::Launch(*found->second.module, *found->second.kernel, grid, block,
                                         arguments, stream);
  if (error != 0) last_error = error;
  return error;
}

int cudaPeekAtLastError() { return last_error; }

int cudaGetLastError() { return std::exchange(last_error, 0); }

const char* cudaGetErrorString(int code) {
  if (code == 0) return "no error";
  return code == 9 ? "invalid configuration argument" : "unrecognized error code";
}

int cudaGetDevice(int* device) {
  *device = 0;
  return 0;
}

int cudaSetDevice(int /*device*/) { return 0; }

int cudaDeviceSynchronize() { return 0; }

int cudaMemsetAsync(void* memory, int byte, size_t bytes, void* /*stream*/) {
  std::memset(memory, byte, bytes);
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,google-*)
