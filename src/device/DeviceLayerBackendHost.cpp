// Host backend of the device layer (the CUDA one is DeviceLayerBackend.cu): one device, the host itself.
// Copies and fills are plain memory operations and complete before they return, as the CUDA runtime's
// synchronous calls do. In the guarded build memory comes from the guarded arena instead, which the host
// reaches through copies alone.
#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/HostMemory.h"
#include "device/DeviceArena.h"
#include "device/DeviceLayerBackend.h"

namespace SurfaceReconstruction {
namespace backend {

namespace {
// The host reports compute capability 9999.9999, the runtime's mark of an emulated device, so that
// device selection rates it with one core a multiprocessor.
constexpr int HOST_CAPABILITY = 9999;
constexpr int HOST_CLOCK_KHZ = 1000000;
}  // namespace

DeviceResult getCount(int* count) {
    *count = 1;
    return DEVICE_SUCCESS;
}

DeviceResult getAttribute(int* value, DeviceAttribute attribute, int device) {
    if (device != 0) return DEVICE_ERROR_INVALID_DEVICE;
    switch (attribute) {
        case DeviceAttribute::ComputeMode:
            *value = 0;
            break;
        case DeviceAttribute::ComputeCapabilityMajor:
            *value = HOST_CAPABILITY;
            break;
        case DeviceAttribute::ComputeCapabilityMinor:
            *value = HOST_CAPABILITY;
            break;
        case DeviceAttribute::MultiProcessorCount: {
            unsigned cores = std::thread::hardware_concurrency();
            *value = cores == 0 ? 1 : static_cast<int>(cores);
            break;
        }
        case DeviceAttribute::ClockRate:
            *value = HOST_CLOCK_KHZ;
            break;
    }
    return DEVICE_SUCCESS;
}

DeviceResult setDevice(int device) { return device == 0 ? DEVICE_SUCCESS : DEVICE_ERROR_INVALID_DEVICE; }

DeviceResult memGetInfo(std::size_t* free_bytes, std::size_t* total_bytes) {
    HostMemoryInfo info;
    if (!readHostMemory(info)) return DEVICE_ERROR_UNKNOWN;
    *free_bytes = static_cast<std::size_t>(info.available_bytes);
    *total_bytes = static_cast<std::size_t>(info.total_bytes);
    return DEVICE_SUCCESS;
}

#if defined(TESSALINE_GUARDED_DEVICE)
DeviceResult malloc(void** ptr, std::size_t bytes) { return arena_backend::malloc(ptr, bytes); }
DeviceResult free(void* ptr) { return arena_backend::free(ptr); }
DeviceResult memcpy(void* dst, const void* src, std::size_t bytes, CopyKind kind) {
    return arena_backend::memcpy(dst, src, bytes, kind);
}
DeviceResult memset(void* ptr, int value, std::size_t bytes) { return arena_backend::memset(ptr, value, bytes); }
DeviceResult getLastError() { return arena_backend::takeLastError(); }
bool memoryIsHostMemory() { return false; }
#else
DeviceResult malloc(void** ptr, std::size_t bytes) {
    *ptr = std::malloc(bytes == 0 ? 1 : bytes);
    if (*ptr != nullptr) return DEVICE_SUCCESS;
    noteHostMemoryRefused(bytes);  // the host's memory, not a device's
    return DEVICE_ERROR_MEMORY_ALLOCATION;
}

DeviceResult free(void* ptr) {
    std::free(ptr);
    return DEVICE_SUCCESS;
}

DeviceResult memcpy(void* dst, const void* src, std::size_t bytes, CopyKind) {
    if (bytes == 0) return DEVICE_SUCCESS;
    if (dst == nullptr || src == nullptr) return DEVICE_ERROR_INVALID_VALUE;
    std::memcpy(dst, src, bytes);
    return DEVICE_SUCCESS;
}

DeviceResult memset(void* ptr, int value, std::size_t bytes) {
    if (bytes == 0) return DEVICE_SUCCESS;
    if (ptr == nullptr) return DEVICE_ERROR_INVALID_VALUE;
    std::memset(ptr, value, bytes);
    return DEVICE_SUCCESS;
}

DeviceResult getLastError() { return DEVICE_SUCCESS; }

bool memoryIsHostMemory() { return true; }
#endif

DeviceResult synchronize() { return DEVICE_SUCCESS; }

const char* errorName(DeviceResult result) {
    switch (result) {
        case DEVICE_SUCCESS:
            return "cudaSuccess";
        case DEVICE_ERROR_INVALID_VALUE:
            return "cudaErrorInvalidValue";
        case DEVICE_ERROR_MEMORY_ALLOCATION:
            return "cudaErrorMemoryAllocation";
        case DEVICE_ERROR_NO_DEVICE:
            return "cudaErrorNoDevice";
        case DEVICE_ERROR_INVALID_DEVICE:
            return "cudaErrorInvalidDevice";
        case DEVICE_ERROR_ILLEGAL_ADDRESS:
            return "cudaErrorIllegalAddress";
        case DEVICE_ERROR_LAUNCH_FAILURE:
            return "cudaErrorLaunchFailure";
        default:
            return "cudaErrorUnknown";
    }
}

const char* errorString(DeviceResult result) {
    switch (result) {
        case DEVICE_SUCCESS:
            return "no error";
        case DEVICE_ERROR_INVALID_VALUE:
            return "invalid argument";
        case DEVICE_ERROR_MEMORY_ALLOCATION:
            return "out of memory";
        case DEVICE_ERROR_NO_DEVICE:
            return "no CUDA-capable device is detected";
        case DEVICE_ERROR_INVALID_DEVICE:
            return "invalid device ordinal";
        case DEVICE_ERROR_ILLEGAL_ADDRESS:
            return "an illegal memory access was encountered";
        case DEVICE_ERROR_LAUNCH_FAILURE:
            return "unspecified launch failure";
        default:
            return "unknown error";
    }
}

}  // namespace backend
}  // namespace SurfaceReconstruction
