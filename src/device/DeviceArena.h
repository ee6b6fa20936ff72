// The guarded device arena: the memory operations of the host backend in its guarded build.
#pragma once

#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {
namespace arena_backend {

DeviceResult malloc(void** ptr, std::size_t bytes);
DeviceResult free(void* ptr);
DeviceResult memcpy(void* dst, const void* src, std::size_t bytes, CopyKind kind);
DeviceResult memset(void* ptr, int value, std::size_t bytes);
// The error of the last launch of this thread that did not start, reset by the call.
DeviceResult takeLastError();

}  // namespace arena_backend
}  // namespace SurfaceReconstruction
