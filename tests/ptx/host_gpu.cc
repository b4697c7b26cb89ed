// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A plug-in of the runtime: a device of type GPU whose memory is the host's and whose streams do at
// once what they are given. With it the ops' GPU kernels run, their launches by the stand-in of the
// device's runtime, and copies between host and device can be counted.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tensorflow/c/experimental/stream_executor/stream_executor.h"

namespace {

std::atomic<int64_t> to_device{0};
std::atomic<int64_t> to_host{0};
std::atomic<int64_t> bytes_to_device{0};
std::atomic<int64_t> bytes_to_host{0};

void Succeed(TF_Status* status) { TF_SetStatus(status, TF_OK, ""); }

// A stream, an event or a timer: nothing but an address.
template <typename Handle>
Handle NewHandle() {
  return reinterpret_cast<Handle>(new char);
}
template <typename Handle>
void DeleteHandle(Handle handle) {
  delete reinterpret_cast<char*>(handle);
}

void Allocate(const SP_Device*, uint64_t size, int64_t, SP_DeviceMemoryBase* memory) {
  memory->struct_size = SP_DEVICE_MEMORY_BASE_STRUCT_SIZE;
  memory->opaque = std::aligned_alloc(256, (size + 255) / 256 * 256);
  memory->size = size;
  if (memory->opaque != nullptr) std::memset(memory->opaque, 0x7f, size);
}

void Deallocate(const SP_Device*, SP_DeviceMemoryBase* memory) {
  std::free(memory->opaque);
  memory->opaque = nullptr;
}

void CopyToHost(const SP_Device*, void* to, const SP_DeviceMemoryBase* from, uint64_t size,
                TF_Status* status) {
  ++to_host;
  bytes_to_host += static_cast<int64_t>(size);
  std::memcpy(to, from->opaque, size);
  Succeed(status);
}

void CopyToDevice(const SP_Device*, SP_DeviceMemoryBase* to, const void* from, uint64_t size,
                  TF_Status* status) {
  ++to_device;
  bytes_to_device += static_cast<int64_t>(size);
  std::memcpy(to->opaque, from, size);
  Succeed(status);
}

void CopyOnDevice(const SP_Device*, SP_DeviceMemoryBase* to, const SP_DeviceMemoryBase* from,
                  uint64_t size, TF_Status* status) {
  std::memmove(to->opaque, from->opaque, size);
  Succeed(status);
}

void SetMemory(SP_StreamExecutor* executor) {
  executor->allocate = Allocate;
  executor->deallocate = Deallocate;
  executor->host_memory_allocate = [](const SP_Device*, uint64_t size) {
    return std::aligned_alloc(64, (size + 63) / 64 * 64);
  };
  executor->host_memory_deallocate = [](const SP_Device*, void* memory) { std::free(memory); };
  executor->get_allocator_stats = [](const SP_Device*, SP_AllocatorStats*) -> TF_Bool { return 0; };
  executor->device_memory_usage = [](const SP_Device*, int64_t* free, int64_t* total) -> TF_Bool {
    *free = *total = int64_t{1} << 30;
    return 1;
  };
}

void SetStreamsAndEvents(SP_StreamExecutor* executor) {
  executor->create_stream = [](const SP_Device*, SP_Stream* stream, TF_Status* status) {
    *stream = NewHandle<SP_Stream>();
    Succeed(status);
  };
  executor->destroy_stream = [](const SP_Device*, SP_Stream stream) { DeleteHandle(stream); };
  executor->create_stream_dependency = [](const SP_Device*, SP_Stream, SP_Stream,
                                          TF_Status* status) { Succeed(status); };
  executor->get_stream_status = [](const SP_Device*, SP_Stream, TF_Status* s) { Succeed(s); };
  executor->create_event = [](const SP_Device*, SP_Event* event, TF_Status* status) {
    *event = NewHandle<SP_Event>();
    Succeed(status);
  };
  executor->destroy_event = [](const SP_Device*, SP_Event event) { DeleteHandle(event); };
  executor->get_event_status = [](const SP_Device*, SP_Event) { return SE_EVENT_COMPLETE; };
  executor->record_event = [](const SP_Device*, SP_Stream, SP_Event, TF_Status* s) { Succeed(s); };
  executor->wait_for_event = [](const SP_Device* const, SP_Stream, SP_Event,
                                TF_Status* const status) { Succeed(status); };
  executor->create_timer = [](const SP_Device*, SP_Timer* timer, TF_Status* status) {
    *timer = NewHandle<SP_Timer>();
    Succeed(status);
  };
  executor->destroy_timer = [](const SP_Device*, SP_Timer timer) { DeleteHandle(timer); };
  executor->start_timer = [](const SP_Device*, SP_Stream, SP_Timer, TF_Status* s) { Succeed(s); };
  executor->stop_timer = [](const SP_Device*, SP_Stream, SP_Timer, TF_Status* s) { Succeed(s); };
  executor->block_host_for_event = [](const SP_Device*, SP_Event, TF_Status* s) { Succeed(s); };
  executor->block_host_until_done = [](const SP_Device*, SP_Stream, TF_Status* s) { Succeed(s); };
  executor->synchronize_all_activity = [](const SP_Device*, TF_Status* status) { Succeed(status); };
  executor->host_callback = [](const SP_Device*, SP_Stream, SE_StatusCallbackFn callback,
                               void* argument) -> TF_Bool {
    TF_Status* status = TF_NewStatus();
    callback(argument, status);
    TF_DeleteStatus(status);
    return 1;
  };
}

void SetCopies(SP_StreamExecutor* executor) {
  executor->memcpy_dtoh = [](const SP_Device* device, SP_Stream, void* to,
                             const SP_DeviceMemoryBase* from, uint64_t size,
                             TF_Status* status) { CopyToHost(device, to, from, size, status); };
  executor->memcpy_htod = [](const SP_Device* device, SP_Stream, SP_DeviceMemoryBase* to,
                             const void* from, uint64_t size,
                             TF_Status* status) { CopyToDevice(device, to, from, size, status); };
  executor->memcpy_dtod = [](const SP_Device* device, SP_Stream, SP_DeviceMemoryBase* to,
                             const SP_DeviceMemoryBase* from, uint64_t size,
                             TF_Status* status) { CopyOnDevice(device, to, from, size, status); };
  executor->sync_memcpy_dtoh = CopyToHost;
  executor->sync_memcpy_htod = CopyToDevice;
  executor->sync_memcpy_dtod = CopyOnDevice;
  executor->mem_zero = [](const SP_Device*, SP_Stream, SP_DeviceMemoryBase* memory, uint64_t size,
                          TF_Status* status) {
    std::memset(memory->opaque, 0, size);
    Succeed(status);
  };
  executor->memset = [](const SP_Device*, SP_Stream, SP_DeviceMemoryBase* memory, uint8_t pattern,
                        uint64_t size, TF_Status* status) {
    std::memset(memory->opaque, pattern, size);
    Succeed(status);
  };
  executor->memset32 = [](const SP_Device*, SP_Stream, SP_DeviceMemoryBase* memory,
                          uint32_t pattern, uint64_t size, TF_Status* status) {
    auto* to = static_cast<char*>(memory->opaque);
    for (uint64_t i = 0; i + sizeof(pattern) <= size; i += sizeof(pattern)) {
      std::memcpy(to + i, &pattern, sizeof(pattern));
    }
    Succeed(status);
  };
}

void SetPlatformFunctions(SP_PlatformFns* functions) {
  functions->get_device_count = [](const SP_Platform*, int* count, TF_Status* status) {
    *count = 1;
    Succeed(status);
  };
  functions->create_device = [](const SP_Platform*, SE_CreateDeviceParams* params,
                                TF_Status* status) {
    params->device->struct_size = SP_DEVICE_STRUCT_SIZE;
    params->device->ordinal = params->ordinal;
    params->device->hardware_name = "host";
    params->device->device_vendor = "tests";
    params->device->pci_bus_id = "0000:00:00.0";
    Succeed(status);
  };
  functions->destroy_device = [](const SP_Platform*, SP_Device*) {};
  functions->create_device_fns = [](const SP_Platform*, SE_CreateDeviceFnsParams* params,
                                    TF_Status* status) {
    params->device_fns->struct_size = SP_DEVICE_FNS_STRUCT_SIZE;
    params->device_fns->get_numa_node = [](const SP_Device*) -> int32_t { return -1; };
    params->device_fns->get_memory_bandwidth = [](const SP_Device*) -> int64_t { return -1; };
    params->device_fns->get_gflops = [](const SP_Device*) -> double { return -1; };
    Succeed(status);
  };
  functions->destroy_device_fns = [](const SP_Platform*, SP_DeviceFns*) {};
  functions->create_stream_executor = [](const SP_Platform*, SE_CreateStreamExecutorParams* params,
                                         TF_Status* status) {
    params->stream_executor->struct_size = SP_STREAMEXECUTOR_STRUCT_SIZE;
    SetMemory(params->stream_executor);
    SetStreamsAndEvents(params->stream_executor);
    SetCopies(params->stream_executor);
    Succeed(status);
  };
  functions->destroy_stream_executor = [](const SP_Platform*, SP_StreamExecutor*) {};
  functions->create_timer_fns = [](const SP_Platform*, SP_TimerFns* timer, TF_Status* status) {
    timer->nanoseconds = [](SP_Timer) -> uint64_t { return 0; };
    Succeed(status);
  };
  functions->destroy_timer_fns = [](const SP_Platform*, SP_TimerFns*) {};
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void SE_InitPlugin(SE_PlatformRegistrationParams* params,
                                                          TF_Status* status) {
  params->major_version = SE_MAJOR;
  params->minor_version = SE_MINOR;
  params->patch_version = SE_PATCH;
  params->platform->struct_size = SP_PLATFORM_STRUCT_SIZE;
  params->platform->name = "HOST_GPU";
  params->platform->type = "GPU";
  params->platform->supports_unified_memory = 0;
  params->platform->use_bfc_allocator = 1;
  params->platform->force_memory_growth = 1;
  params->platform_fns->struct_size = SP_PLATFORM_FNS_STRUCT_SIZE;
  SetPlatformFunctions(params->platform_fns);
  params->destroy_platform = [](SP_Platform*) {};
  params->destroy_platform_fns = [](SP_PlatformFns*) {};
  Succeed(status);
}

// Copies to the device and to the host since the process began, and their bytes.
__attribute__((visibility("default"))) void host_gpu_copies(int64_t counts[4]) {
  counts[0] = to_device;
  counts[1] = bytes_to_device;
  counts[2] = to_host;
  counts[3] = bytes_to_host;
}

}  // extern "C"
