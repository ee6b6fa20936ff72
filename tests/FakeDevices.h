// A scripted device runtime for tests: devices with chosen attributes and memory figures, and
// allocations and frees that fail on demand. Memory itself comes from the real backend, so copies,
// fills and launches on it behave as on the device the build runs on.
#pragma once

#include <vector>

#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {
namespace testing_support {

struct FakeDevice {
    int compute_mode = 0;
    int major = 7;
    int minor = 5;
    int multiprocessors = 40;
    int clock_khz = 1500000;
};

// Installs itself as the runtime seam for its lifetime.
class FakeDevices {
public:
    std::vector<FakeDevice> devices;
    DeviceResult count_result = DEVICE_SUCCESS;
    DeviceResult attribute_result = DEVICE_SUCCESS;  // every attribute query answers this
    bool mem_info_fails = false;
    std::size_t total_bytes = 8ull << 30;
    std::size_t free_bytes = 6ull << 30;
    int set_device_calls = 0;
    int last_set_device = -1;
    int malloc_calls = 0;
    int free_calls = 0;
    int fail_malloc_at = -1;  // 0-based number of the cudaMalloc that fails
    int fail_free_at = -1;
    int launch_checks = 0;    // calls of cudaGetLastError, one after each launch
    int fail_launch_at = -1;  // 0-based number of the check that reports a launch that did not start

    explicit FakeDevices(std::vector<FakeDevice> list = {FakeDevice{}}) : devices(std::move(list)) {
        seam.get_count = [this](int* count) -> DeviceResult {
            if (count_result != DEVICE_SUCCESS) return count_result;
            *count = static_cast<int>(devices.size());
            return DEVICE_SUCCESS;
        };
        seam.get_attribute = [this](int* value, DeviceAttribute attribute, int device) -> DeviceResult {
            if (attribute_result != DEVICE_SUCCESS) return attribute_result;
            const FakeDevice& d = devices.at(static_cast<std::size_t>(device));
            const int values[] = {d.compute_mode, d.major, d.minor, d.multiprocessors, d.clock_khz};  // enum order
            *value = values[static_cast<int>(attribute)];
            return DEVICE_SUCCESS;
        };
        seam.set_device = [this](int device) -> DeviceResult {
            ++set_device_calls;
            last_set_device = device;
            return DEVICE_SUCCESS;
        };
        seam.mem_get_info = [this](std::size_t* free_out, std::size_t* total_out) -> DeviceResult {
            if (mem_info_fails) return DEVICE_ERROR_UNKNOWN;
            *free_out = free_bytes;
            *total_out = total_bytes;
            return DEVICE_SUCCESS;
        };
        seam.malloc_result = [this](std::size_t) -> DeviceResult {
            return malloc_calls++ == fail_malloc_at ? DEVICE_ERROR_MEMORY_ALLOCATION : DEVICE_SUCCESS;
        };
        seam.free_result = [this](void*) -> DeviceResult {
            return free_calls++ == fail_free_at ? DEVICE_ERROR_INVALID_VALUE : DEVICE_SUCCESS;
        };
        seam.last_error = [this]() -> DeviceResult {
            return launch_checks++ == fail_launch_at ? DEVICE_ERROR_LAUNCH_FAILURE : DEVICE_SUCCESS;
        };
        installDeviceRuntimeSeam(&seam);
    }
    ~FakeDevices() { installDeviceRuntimeSeam(nullptr); }
    FakeDevices(const FakeDevices&) = delete;
    FakeDevices& operator=(const FakeDevices&) = delete;

private:
    DeviceRuntimeSeam seam;
};

}  // namespace testing_support
}  // namespace SurfaceReconstruction
