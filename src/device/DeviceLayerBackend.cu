// CUDA backend of the device layer: each operation is the runtime call of the same meaning. The host
// backend's operations are in DeviceLayerBackendHost.cpp; DeviceLayer.cpp puts the test seam before both.
#include <cuda_runtime.h>

#include "device/DeviceLayerBackend.h"

namespace SurfaceReconstruction {
namespace backend {

namespace {
cudaDeviceAttr toCuda(DeviceAttribute attribute) {
    switch (attribute) {
        case DeviceAttribute::ComputeMode:
            return cudaDevAttrComputeMode;
        case DeviceAttribute::ComputeCapabilityMajor:
            return cudaDevAttrComputeCapabilityMajor;
        case DeviceAttribute::ComputeCapabilityMinor:
            return cudaDevAttrComputeCapabilityMinor;
        case DeviceAttribute::MultiProcessorCount:
            return cudaDevAttrMultiProcessorCount;
        case DeviceAttribute::ClockRate:
            return cudaDevAttrClockRate;
    }
    return cudaDevAttrComputeMode;
}

cudaMemcpyKind toCuda(CopyKind kind) {
    switch (kind) {
        case CopyKind::HostToDevice:
            return cudaMemcpyHostToDevice;
        case CopyKind::DeviceToHost:
            return cudaMemcpyDeviceToHost;
        case CopyKind::DeviceToDevice:
            return cudaMemcpyDeviceToDevice;
    }
    return cudaMemcpyDefault;
}
}  // namespace

DeviceResult getCount(int* count) { return cudaGetDeviceCount(count); }
DeviceResult getAttribute(int* value, DeviceAttribute attribute, int device) {
    return cudaDeviceGetAttribute(value, toCuda(attribute), device);
}
DeviceResult setDevice(int device) { return cudaSetDevice(device); }
DeviceResult memGetInfo(std::size_t* free_bytes, std::size_t* total_bytes) {
    return cudaMemGetInfo(free_bytes, total_bytes);
}
DeviceResult malloc(void** ptr, std::size_t bytes) { return cudaMalloc(ptr, bytes); }
DeviceResult free(void* ptr) { return cudaFree(ptr); }
DeviceResult memcpy(void* dst, const void* src, std::size_t bytes, CopyKind kind) {
    return cudaMemcpy(dst, src, bytes, toCuda(kind));
}
DeviceResult memset(void* ptr, int value, std::size_t bytes) { return cudaMemset(ptr, value, bytes); }
DeviceResult synchronize() { return cudaDeviceSynchronize(); }
DeviceResult getLastError() { return cudaGetLastError(); }

bool memoryIsHostMemory() { return false; }
const char* errorName(DeviceResult result) { return cudaGetErrorName(static_cast<cudaError_t>(result)); }
const char* errorString(DeviceResult result) { return cudaGetErrorString(static_cast<cudaError_t>(result)); }

}  // namespace backend
}  // namespace SurfaceReconstruction
