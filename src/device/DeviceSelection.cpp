// Device selection. The queries report through checkDeviceCall and never throw: a failed query leaves
// the variable at its former value and the selection goes on.
#include "device/DeviceSelection.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "common/Diagnostics.h"
#include "device/DeviceLayer.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

namespace {
struct SMtoCores {
    int sm;  // major * 16 + minor
    int cores;
};

constexpr SMtoCores SM_TO_CORES[] = {
    {0x30, 192}, {0x32, 192}, {0x35, 192}, {0x37, 192}, {0x50, 128}, {0x52, 128}, {0x53, 128},
    {0x60, 64},  {0x61, 128}, {0x62, 128}, {0x70, 64},  {0x72, 64},  {0x75, 64},  {0x80, 64},
};

// A query checked and reported under its own text; a failed one leaves its variable as it was.
#define TESSA_QUERY(call) ::SurfaceReconstruction::checkDeviceCall((call), #call, __FILE__, __LINE__)

void readCapability(int device, int& compute_mode, int& major, int& minor) {
    TESSA_QUERY(deviceGetAttribute(&compute_mode, DeviceAttribute::ComputeMode, device));
    TESSA_QUERY(deviceGetAttribute(&major, DeviceAttribute::ComputeCapabilityMajor, device));
    TESSA_QUERY(deviceGetAttribute(&minor, DeviceAttribute::ComputeCapabilityMinor, device));
}
}  // namespace

int MapSMtoCores(int major, int minor) {
    const int key = major * 16 + minor;
    for (const SMtoCores& row : SM_TO_CORES) {
        if (row.sm == key) return row.cores;
    }
    const int fallback = SM_TO_CORES[sizeof(SM_TO_CORES) / sizeof(SM_TO_CORES[0]) - 1].cores;
    diagnostic("MapSMtoCores for SM %d.%d is undefined.  Default to use %d Cores/SM\n", major, minor, fallback);
    return fallback;
}

int gpuGetMaxGflopsDeviceId(std::string& error) {
    int device_count = 0;
    TESSA_QUERY(deviceGetCount(&device_count));
    if (device_count == 0) {
        error = "gpuGetMaxGflopsDeviceId() CUDA error: no devices supporting CUDA.";
        return -1;
    }

    int best_device = 0;
    std::uint64_t best_perf = 0;
    int prohibited = 0;
    for (int device = 0; device < device_count; ++device) {
        int compute_mode = -1, major = 0, minor = 0;
        readCapability(device, compute_mode, major, minor);
        if (compute_mode == DEVICE_COMPUTE_MODE_PROHIBITED) {
            ++prohibited;
            continue;
        }
        const int cores = (major == 9999 && minor == 9999) ? 1 : MapSMtoCores(major, minor);
        int multiprocessors = 0, clock_rate = 0;
        TESSA_QUERY(deviceGetAttribute(&multiprocessors, DeviceAttribute::MultiProcessorCount, device));
        TESSA_QUERY(deviceGetAttribute(&clock_rate, DeviceAttribute::ClockRate, device));
        const std::uint64_t perf = static_cast<std::uint64_t>(multiprocessors) *
                                   static_cast<std::uint64_t>(clock_rate) * static_cast<std::uint64_t>(cores);
        if (perf > best_perf) {
            best_perf = perf;
            best_device = device;
        }
    }
    if (prohibited == device_count) {
        error = "gpuGetMaxGflopsDeviceId() CUDA error: all devices have compute mode prohibited.";
        return -1;
    }
    return best_device;
}

bool gpuDeviceInit(int device, std::string& error) {
    int device_count = 0;
    TESSA_QUERY(deviceGetCount(&device_count));
    if (device_count == 0) {
        error = "gpuDeviceInit() CUDA error: no devices supporting CUDA.";
        return false;
    }
    if (device > device_count - 1) {
        error = "gpuDeviceInit() CUDA error: invalid devID.";
        return false;
    }
    int compute_mode = -1, major = 0, minor = 0;
    readCapability(device, compute_mode, major, minor);
    if (compute_mode == DEVICE_COMPUTE_MODE_PROHIBITED) {
        error = "Error: device is running in <Compute Mode Prohibited>, no threads can use cudaSetDevice().";
        return false;
    }
    if (major < 1) {
        error = "gpuDeviceInit(): GPU device does not support CUDA.";
        return false;
    }
    TESSA_QUERY(deviceSet(device));
    return true;
}

int InitGPUCUDA(std::string& message) {
    constexpr int TRIES = 3;
    for (int attempt = 0; attempt < TRIES; ++attempt) {
        std::string error;
        const int device = gpuGetMaxGflopsDeviceId(error);
        if (device >= 0 && gpuDeviceInit(device, error)) {
            message = "sucess";
            return TESSALINE_OK;
        }
        message = error;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return TESSALINE_NO_DEVICE;
}

}  // namespace SurfaceReconstruction
