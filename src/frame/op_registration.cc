// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/op_registration.h"

#include <dlfcn.h>
#include <link.h>

#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "bitfold/image_threads.h"
#include "frame/log.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_def.pb.h"

namespace bitfold {
namespace {

// Exported by each copy and by nothing else: the C library has the single steps, too.
constexpr char kMarker[] = "bitfold_set_image_threads";

// The file that holds an address; empty where none does.
std::string FileOf(const void* address) {
  Dl_info info;
  return dladdr(address, &info) != 0 && info.dli_fname != nullptr ? info.dli_fname : "";
}

// The files whose code is in the process.
std::vector<std::string> LoadedFiles() {
  std::vector<std::string> files;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* out) {
        if (info->dlpi_name[0] == '/') {
          static_cast<std::vector<std::string>*>(out)->emplace_back(info->dlpi_name);
        }
        return 0;
      },
      &files);
  return files;
}

// The file of another copy of the library; empty where there is none. A file that is linked with a
// copy finds that copy's marker.
std::string OtherCopy() {
  const auto* own = reinterpret_cast<const void*>(&bitfold_set_image_threads);
  for (const std::string& file : LoadedFiles()) {
    void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) continue;
    const void* marker = dlsym(handle, kMarker);
    dlclose(handle);
    if (marker != nullptr && marker != own) return FileOf(marker);
  }
  return {};
}

// Has the runtime's loader, which collects what is registered, report an error. Any other loader
// would have the runtime end the process for it.
void Refuse(const std::string& other) {
  const auto* own = reinterpret_cast<const void*>(&bitfold_set_image_threads);
  const std::string text = absl::StrCat("cannot register the ops of ", FileOf(own),
                                        ": this process has loaded another copy of the library, ",
                                        other, ", whose ops go on working. Load one of them.");
  tensorflow::OpRegistry* registry = tensorflow::OpRegistry::Global();
  const auto ignore = [](const absl::Status& status, const tensorflow::OpDef&) { return status; };
  if (registry->SetWatcher(ignore).ok()) {  // so it has none, and nobody collects
    registry->SetWatcher(nullptr).IgnoreError();
    return LogError(absl::StrCat("bitfold ", text));
  }
  registry->Register([text](tensorflow::OpRegistrationData*) {
    return absl::FailedPreconditionError(absl::StrCat("bitfold ", text));
  });
}

bool IsFirstCopy() {
  const std::string other = OtherCopy();
  if (!other.empty()) Refuse(other);
  return other.empty();
}

}  // namespace

bool RegisterInFirstCopy(void (*registers)()) {
  static const bool is_first = IsFirstCopy();
  if (is_first) registers();
  return is_first;
}

}  // namespace bitfold
