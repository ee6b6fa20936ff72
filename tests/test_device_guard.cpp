// The guarded device arena: the four mistakes that pass silently where device memory is plain host
// memory (a host read of device memory, a host memcpy from it, a kernel given host memory, a copy with
// its direction swapped) each planted and each caught. Only the guarded build has the arena.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "device/DeviceLayer.h"

using namespace SurfaceReconstruction;

namespace {

#if defined(TESSALINE_GUARDED_DEVICE)
#define SKIP_WITHOUT_ARENA() (void)0
#else
#define SKIP_WITHOUT_ARENA() GTEST_SKIP() << "the guarded device arena is off in this build"
#endif

// Device memory holding 0, 1, 2, ... n - 1.
int* deviceCounting(std::size_t n) {
    std::vector<int> host(n);
    for (std::size_t i = 0; i < n; ++i) host[i] = static_cast<int>(i);
    int* dev = nullptr;
    TESSA_DEVICE_CHECK(deviceMalloc(&dev, n * sizeof(int)));
    TESSA_DEVICE_CHECK(deviceMemcpy(dev, host.data(), n * sizeof(int), CopyKind::HostToDevice));
    return dev;
}

// out[i] = in[i] + 1, and the records with one level of nesting that the launch must look into.
struct AddOneKernel {
    const int* in;
    int* out;
    TESSA_HD void operator()(std::size_t i) const { out[i] = in[i] + 1; }
};
struct Buffers {
    const int* in;
    std::int64_t n;
    int* out;
};
struct NestedAddOneKernel {
    float scale;
    Buffers buffers;
    TESSA_HD void operator()(std::size_t i) const { buffers.out[i] = buffers.in[i] + 1; }
};

}  // namespace

TEST(DeviceGuard, HostCodeReadsDeviceMemoryOnlyInsideADeviceScope) {
    SKIP_WITHOUT_ARENA();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    int* dev = deviceCounting(64);
    {
        const DeviceScope scope;  // what a kernel sees
        EXPECT_EQ(dev[63], 63);
    }
    // Planted: host code reads device memory, as a stage that forgot its copy would.
    EXPECT_DEATH(
        {
            volatile int value = dev[5];
            (void)value;
        },
        "");
    // Planted: a host memcpy out of device memory instead of a device copy.
    EXPECT_DEATH(
        {
            int host[64];
            std::memcpy(host, dev, sizeof(host));
            volatile int value = host[3];
            (void)value;
        },
        "");
    // A write just past the end of an allocation lands on its guard page even inside a scope.
    EXPECT_DEATH(
        {
            const DeviceScope scope;
            volatile int* past = dev + 64;
            *past = 1;
        },
        "");
    TESSA_DEVICE_CHECK(deviceFree(dev));
}

TEST(DeviceGuard, ALaunchWithAHostPointerFieldDoesNotStart) {
    SKIP_WITHOUT_ARENA();
    constexpr std::size_t n = 1000;
    int* in_dev = deviceCounting(n);
    int* out_dev = deviceCounting(n);
    std::vector<int> host_in(n, 7), host_out(n, -1);
    struct Case {
        const char* what;
        bool host_in, host_out, nested;
    };
    const Case cases[] = {
        {"input on the host", true, false, false},
        {"output on the host", false, true, false},
        {"input on the host, nested record", true, false, true},
        {"output on the host, nested record", false, true, true},
    };
    for (const Case& c : cases) {
        const int* in = c.host_in ? host_in.data() : in_dev;
        int* out = c.host_out ? host_out.data() : out_dev;
        ::testing::internal::CaptureStderr();
        bool threw = false;
        try {
            if (c.nested)
                launchKernel(n, NestedAddOneKernel{2.0f, Buffers{in, static_cast<std::int64_t>(n), out}});
            else
                launchKernel(n, AddOneKernel{in, out});
        } catch (const DeviceError&) {
            threw = true;
        }
        const std::string report = ::testing::internal::GetCapturedStderr();
        EXPECT_TRUE(threw) << c.what;
        EXPECT_NE(report.find("is not device memory"), std::string::npos) << c.what << ": " << report;
        EXPECT_NE(report.find("cudaErrorIllegalAddress"), std::string::npos) << c.what << ": " << report;
        EXPECT_EQ(deviceGetLastError(), DEVICE_SUCCESS) << c.what << ": the launch error is read once";
        // The kernel did not run: neither the host output nor the device output changed.
        EXPECT_EQ(host_out, std::vector<int>(n, -1)) << c.what;
        std::vector<int> back(n);
        TESSA_DEVICE_CHECK(deviceMemcpy(back.data(), out_dev, n * sizeof(int), CopyKind::DeviceToHost));
        for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(back[i], static_cast<int>(i)) << c.what << ", item " << i;
    }
    // The same launches with device memory throughout run.
    launchKernel(n, NestedAddOneKernel{2.0f, Buffers{in_dev, static_cast<std::int64_t>(n), out_dev}});
    std::vector<int> back(n);
    TESSA_DEVICE_CHECK(deviceMemcpy(back.data(), out_dev, n * sizeof(int), CopyKind::DeviceToHost));
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(back[i], static_cast<int>(i) + 1) << "item " << i;
    TESSA_DEVICE_CHECK(deviceFree(in_dev));
    TESSA_DEVICE_CHECK(deviceFree(out_dev));
}

TEST(DeviceGuard, CopiesAndFillsAreCheckedForDirectionAndBounds) {
    SKIP_WITHOUT_ARENA();
    constexpr std::size_t n = 100;
    int* dev = deviceCounting(n);
    int* other = deviceCounting(n);
    std::vector<int> host(n, -1);
    const std::size_t bytes = n * sizeof(int);
    struct Case {
        const char* what;
        void* dst;
        const void* src;
        std::size_t bytes;
        CopyKind kind;
    };
    const Case refused[] = {
        // Planted: the direction swapped, each way.
        {"device to host given as host to device", host.data(), dev, bytes, CopyKind::HostToDevice},
        {"host to device given as device to host", dev, host.data(), bytes, CopyKind::DeviceToHost},
        {"host source of a device to device copy", dev, host.data(), bytes, CopyKind::DeviceToDevice},
        // One byte beyond an allocation, at either end of the copy.
        {"upload past the end", dev + 1, host.data(), bytes, CopyKind::HostToDevice},
        {"download past the end", host.data(), dev + 1, bytes, CopyKind::DeviceToHost},
        {"device copy past the end", other, dev + 1, bytes, CopyKind::DeviceToDevice},
    };
    for (const Case& c : refused) {
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(deviceMemcpy(c.dst, c.src, c.bytes, c.kind), DEVICE_ERROR_INVALID_VALUE) << c.what;
        EXPECT_NE(::testing::internal::GetCapturedStderr().find("[DeviceArena] cudaMemcpy"), std::string::npos)
            << c.what;
    }
    EXPECT_EQ(host, std::vector<int>(n, -1)) << "a refused copy wrote to the host";
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(deviceMemset(host.data(), 0, bytes), DEVICE_ERROR_INVALID_VALUE) << "fill of host memory";
    EXPECT_EQ(deviceMemset(dev + 1, 0, bytes), DEVICE_ERROR_INVALID_VALUE) << "fill past the end";
    EXPECT_EQ(deviceFree(host.data()), DEVICE_ERROR_INVALID_VALUE) << "free of host memory";
    EXPECT_EQ(deviceFree(dev + 1), DEVICE_ERROR_INVALID_VALUE) << "free inside an allocation";
    ::testing::internal::GetCapturedStderr();

    // The right copies pass: a whole allocation each way and device to device.
    EXPECT_EQ(deviceMemcpy(other, dev, bytes, CopyKind::DeviceToDevice), DEVICE_SUCCESS);
    EXPECT_EQ(deviceMemcpy(host.data(), other, bytes, CopyKind::DeviceToHost), DEVICE_SUCCESS);
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(host[i], static_cast<int>(i));

    // A zero-byte allocation is null, as the runtime's is; freeing null is no error.
    void* empty = reinterpret_cast<void*>(&host);
    EXPECT_EQ(deviceMalloc(&empty, 0), DEVICE_SUCCESS);
    EXPECT_EQ(empty, nullptr);
    EXPECT_EQ(deviceFree(nullptr), DEVICE_SUCCESS);
    TESSA_DEVICE_CHECK(deviceFree(dev));
    TESSA_DEVICE_CHECK(deviceFree(other));
}
