// The operations each backend provides (DeviceLayerBackend.cu for CUDA, DeviceLayerBackendHost.cpp for the
// host); DeviceLayer.cpp puts the test seam in front of them.
#pragma once

#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {
namespace backend {

DeviceResult getCount(int* count);
DeviceResult getAttribute(int* value, DeviceAttribute attribute, int device);
DeviceResult setDevice(int device);
DeviceResult memGetInfo(std::size_t* free_bytes, std::size_t* total_bytes);
DeviceResult malloc(void** ptr, std::size_t bytes);
DeviceResult free(void* ptr);
DeviceResult memcpy(void* dst, const void* src, std::size_t bytes, CopyKind kind);
DeviceResult memset(void* ptr, int value, std::size_t bytes);
DeviceResult synchronize();
bool memoryIsHostMemory();
DeviceResult getLastError();
const char* errorName(DeviceResult result);
const char* errorString(DeviceResult result);

// The host backend's allocation of `bytes` was refused by the host's memory: the failed call that
// follows on this thread is a memory failure, not a device's.
void noteHostMemoryRefused(std::size_t bytes);

}  // namespace backend
}  // namespace SurfaceReconstruction
