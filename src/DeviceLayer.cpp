// Checked runtime calls and the test seam in front of the backend.
#include "DeviceLayer.h"

#include <atomic>
#include <cstdio>

#include "DeviceLayerBackend.h"
#include "Diagnostics.h"

namespace SurfaceReconstruction {

namespace {
std::atomic<const DeviceRuntimeSeam*> g_seam{nullptr};

const DeviceRuntimeSeam* seam() { return g_seam.load(std::memory_order_acquire); }
}  // namespace

void installDeviceRuntimeSeam(const DeviceRuntimeSeam* runtime_seam) {
    g_seam.store(runtime_seam, std::memory_order_release);
}

bool checkDeviceCall(DeviceResult result, const char* expression, const char* file, int line) {
    if (result == DEVICE_SUCCESS) return true;
    deviceReport("CUDA error at %s:%d code=%d(%s) \"%s\" \n", file, line, result, deviceErrorName(result), expression);
    return false;
}

DeviceResult deviceGetCount(int* count) {
    const DeviceRuntimeSeam* s = seam();
    return s && s->get_count ? s->get_count(count) : backend::getCount(count);
}

DeviceResult deviceGetAttribute(int* value, DeviceAttribute attribute, int device) {
    const DeviceRuntimeSeam* s = seam();
    return s && s->get_attribute ? s->get_attribute(value, attribute, device)
                                 : backend::getAttribute(value, attribute, device);
}

DeviceResult deviceSet(int device) {
    const DeviceRuntimeSeam* s = seam();
    return s && s->set_device ? s->set_device(device) : backend::setDevice(device);
}

DeviceResult deviceMemGetInfo(std::size_t* free_bytes, std::size_t* total_bytes) {
    const DeviceRuntimeSeam* s = seam();
    return s && s->mem_get_info ? s->mem_get_info(free_bytes, total_bytes)
                                : backend::memGetInfo(free_bytes, total_bytes);
}

DeviceResult deviceMalloc(void** ptr, std::size_t bytes) {
    const DeviceRuntimeSeam* s = seam();
    if (s && s->malloc_result) {
        const DeviceResult injected = s->malloc_result(bytes);
        if (injected != DEVICE_SUCCESS) return injected;
    }
    return backend::malloc(ptr, bytes);
}

DeviceResult deviceFree(void* ptr) {
    const DeviceRuntimeSeam* s = seam();
    if (s && s->free_result) {
        const DeviceResult injected = s->free_result(ptr);
        if (injected != DEVICE_SUCCESS) return injected;
    }
    return backend::free(ptr);
}

DeviceResult deviceMemcpy(void* dst, const void* src, std::size_t bytes, CopyKind kind) {
    return backend::memcpy(dst, src, bytes, kind);
}

DeviceResult deviceMemset(void* ptr, int value, std::size_t bytes) { return backend::memset(ptr, value, bytes); }

DeviceResult deviceSynchronize() { return backend::synchronize(); }

DeviceResult deviceGetLastError() {
    const DeviceRuntimeSeam* s = seam();
    if (s && s->last_error) {
        const DeviceResult injected = s->last_error();
        if (injected != DEVICE_SUCCESS) return injected;
    }
    return backend::getLastError();
}

bool deviceMemoryIsHostMemory() { return backend::memoryIsHostMemory(); }

const char* deviceErrorName(DeviceResult result) { return backend::errorName(result); }

const char* deviceErrorString(DeviceResult result) { return backend::errorString(result); }

bool deviceMemoryAvailable(std::size_t bytes) {
    std::size_t free_bytes = 0, total_bytes = 0;
    if (deviceMemGetInfo(&free_bytes, &total_bytes) != DEVICE_SUCCESS) return false;
    return free_bytes >= bytes + DEVICE_MEMORY_SLACK;
}

}  // namespace SurfaceReconstruction
