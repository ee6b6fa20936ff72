// The device access layer: the only place that knows whether kernels run on a CUDA device or on the
// host. Everything above it is written once: checked runtime calls, one report format, one exception
// type, guarded release, the launch helper and the few primitives whose host twin must keep device
// semantics (atomics, saturating float-to-int conversion).
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "common/Diagnostics.h"

#if defined(__CUDACC__)
#define TESSA_HD __host__ __device__
#define TESSA_KERNEL_LAUNCH_CUDA 1
// The most threads a block of a kernel has: the compiler keeps registers and stack within what lets
// blocks of that size launch.
#define TESSA_LAUNCH_BOUNDS(threads) __launch_bounds__(threads)
#else
#define TESSA_HD
#define TESSA_LAUNCH_BOUNDS(threads)
#endif

// A line from inside a kernel: the device's printf on a device, the library's diagnostic line on the host.
#if defined(__CUDA_ARCH__)
#define TESSA_KERNEL_REPORT(...) printf(__VA_ARGS__)
#else
#define TESSA_KERNEL_REPORT(...) ::SurfaceReconstruction::diagnostic(__VA_ARGS__)
#endif

#if defined(TESSALINE_GUARDED_DEVICE) && defined(TESSALINE_CUDA)
#error "the guarded device arena is a mode of the host backend"
#endif

namespace SurfaceReconstruction {

// Result of a runtime call: the CUDA runtime's numbering (0 is success) on both backends.
using DeviceResult = int;

enum : DeviceResult {
    DEVICE_SUCCESS = 0,
    DEVICE_ERROR_INVALID_VALUE = 1,
    DEVICE_ERROR_MEMORY_ALLOCATION = 2,
    DEVICE_ERROR_NO_DEVICE = 100,
    DEVICE_ERROR_INVALID_DEVICE = 101,
    DEVICE_ERROR_ILLEGAL_ADDRESS = 700,
    DEVICE_ERROR_LAUNCH_FAILURE = 719,
    DEVICE_ERROR_UNKNOWN = 999,
};

enum class DeviceAttribute {
    ComputeMode,
    ComputeCapabilityMajor,
    ComputeCapabilityMinor,
    MultiProcessorCount,
    ClockRate
};
enum class CopyKind { HostToDevice, DeviceToHost, DeviceToDevice };

// Compute mode in which no thread may make the device current.
constexpr int DEVICE_COMPUTE_MODE_PROHIBITED = 2;

// Thrown after a failed runtime call has been reported; the details are in the report alone.
class DeviceError : public std::exception {
public:
    const char* what() const noexcept override { return "Device Error"; }
};

// True on success. Otherwise prints "CUDA error at file:line code=N(name) "expression"" on standard
// error, the expression being the call as its source writes it (TESSA_DEVICE_CHECK), and returns false;
// an allocation that the host backend could not have from the host's memory is no device failure and
// prints nothing (the stage's memory failure says it).
bool checkDeviceCall(DeviceResult result, const char* expression, const char* file, int line);

// Throws what a failed call means: host memory that the host backend could not have as OutOfMemory with
// the size asked for, anything else DeviceError.
[[noreturn]] void throwDeviceFailure(DeviceResult result);

// Runtime operations; synchronous on both backends.
DeviceResult deviceGetCount(int* count);
DeviceResult deviceGetAttribute(int* value, DeviceAttribute attribute, int device);
DeviceResult deviceSet(int device);
DeviceResult deviceMemGetInfo(std::size_t* free_bytes, std::size_t* total_bytes);
DeviceResult deviceMalloc(void** ptr, std::size_t bytes);
DeviceResult deviceFree(void* ptr);
DeviceResult deviceMemcpy(void* dst, const void* src, std::size_t bytes, CopyKind kind);
DeviceResult deviceMemset(void* ptr, int value, std::size_t bytes);
DeviceResult deviceSynchronize();
DeviceResult deviceGetLastError();
const char* deviceErrorName(DeviceResult result);
const char* deviceErrorString(DeviceResult result);

template <class T>
DeviceResult deviceMalloc(T** ptr, std::size_t bytes) {
    void* raw = nullptr;
    DeviceResult result = deviceMalloc(&raw, bytes);
    *ptr = static_cast<T*>(raw);
    return result;
}

// True where device memory is the host's own (the host backend): data already in host memory reach a
// kernel without a copy.
bool deviceMemoryIsHostMemory();

// True where host code may stand in for kernels: the host backend, unless its kernels are built with fused
// multiply-adds (a CUDA device rounds as the host does, but its memory is not the host's).
#if defined(TESSALINE_CUDA) || defined(TESSALINE_FUSED_KERNELS)
constexpr bool KERNELS_COMPUTE_AS_HOST = false;
#else
constexpr bool KERNELS_COMPUTE_AS_HOST = true;
#endif

// Free memory kept back on every test of device memory.
constexpr std::size_t DEVICE_MEMORY_SLACK = 5242880;

// A request counts as satisfiable when the free size is at least `bytes` plus the slack; when the
// free size cannot be read it does not.
bool deviceMemoryAvailable(std::size_t bytes);

// Test seam: a hook that is set replaces the backend's query of the same name, to play devices,
// attributes, compute modes and memory figures on any machine. Memory itself always comes from the
// backend: `malloc_result` and `free_result` are asked before the backend's call, and a result other
// than success is the call's result, the backend not called (an injected failure); `last_error` is
// asked the same way before the backend's error of the last launch. Only tests install a seam.
struct DeviceRuntimeSeam {
    std::function<DeviceResult(int*)> get_count;
    std::function<DeviceResult(int*, DeviceAttribute, int)> get_attribute;
    std::function<DeviceResult(int)> set_device;
    std::function<DeviceResult(std::size_t*, std::size_t*)> mem_get_info;
    std::function<DeviceResult(std::size_t)> malloc_result;
    std::function<DeviceResult(void*)> free_result;
    std::function<DeviceResult()> last_error;
};

// Installs `seam` (nullptr removes it). Not thread-safe: install before the calls it is to catch.
void installDeviceRuntimeSeam(const DeviceRuntimeSeam* seam);

// The standard call pattern: check, report with the call's own text (the macro's argument as written, so
// the report always names the call that failed), throw DeviceError.
#define TESSA_DEVICE_CHECK(call) TESSA_DEVICE_CHECK_TEXT(call, #call)

// The same with the text made by the caller: for macros that build the call from their own arguments and
// name it from those arguments' text.
#define TESSA_DEVICE_CHECK_TEXT(call, text)                                                       \
    do {                                                                                          \
        const ::SurfaceReconstruction::DeviceResult tessa_result_ = (call);                       \
        if (!::SurfaceReconstruction::checkDeviceCall(tessa_result_, (text), __FILE__, __LINE__)) \
            ::SurfaceReconstruction::throwDeviceFailure(tessa_result_);                           \
    } while (0)

// Guarded, repeatable release: a null pointer makes no call; the pointer is nulled only after the
// free succeeded, so a later attempt starts again at the first member still held.
#define TESSA_DEVICE_RELEASE(ptr)                                                                      \
    do {                                                                                               \
        if ((ptr) != nullptr) {                                                                        \
            TESSA_DEVICE_CHECK_TEXT(::SurfaceReconstruction::deviceFree(ptr), "deviceFree(" #ptr ")"); \
            (ptr) = nullptr;                                                                           \
        }                                                                                              \
    } while (0)

// A device copy of one host record: allocation and upload, each checked and named by its call.
#define TESSA_DEVICE_UPLOAD(dev, host)                                                                              \
    do {                                                                                                            \
        TESSA_DEVICE_CHECK_TEXT(::SurfaceReconstruction::deviceMalloc(&(dev), sizeof(host)),                        \
                                "deviceMalloc(&" #dev ", sizeof(" #host "))");                                      \
        TESSA_DEVICE_CHECK_TEXT(::SurfaceReconstruction::deviceMemcpy(                                              \
                                    (dev), &(host), sizeof(host), ::SurfaceReconstruction::CopyKind::HostToDevice), \
                                "deviceMemcpy(" #dev ", &" #host ", sizeof(" #host "), CopyKind::HostToDevice)");   \
    } while (0)

// A temporary device buffer of one operation, freed on every path; TESSA_DEVICE_RELEASE(buffer.ptr())
// frees it with the checked call on the normal path.
template <class T>
class ScopedDeviceBuffer {
public:
    ScopedDeviceBuffer() = default;
    ~ScopedDeviceBuffer() {
        if (m_ptr != nullptr) deviceFree(m_ptr);
    }
    ScopedDeviceBuffer(const ScopedDeviceBuffer&) = delete;
    ScopedDeviceBuffer& operator=(const ScopedDeviceBuffer&) = delete;
    T*& ptr() { return m_ptr; }

private:
    T* m_ptr = nullptr;
};

// ---- device scopes -------------------------------------------------------------------------------

// Marks code that stands for the device: a kernel, a device copy or fill, a device sort. In the guarded
// build device memory is open to the host only while such a scope is; elsewhere the scope is empty.
// Scopes nest and may be held by several threads at once: memory closes when the last one ends.
#if defined(TESSALINE_GUARDED_DEVICE)
void enterDeviceScope();
void leaveDeviceScope();
class DeviceScope {
public:
    DeviceScope() { enterDeviceScope(); }
    ~DeviceScope() { leaveDeviceScope(); }
    DeviceScope(const DeviceScope&) = delete;
    DeviceScope& operator=(const DeviceScope&) = delete;
};
#else
class DeviceScope {
public:
    DeviceScope() {}
    DeviceScope(const DeviceScope&) = delete;
    DeviceScope& operator=(const DeviceScope&) = delete;
};
#endif

#if defined(TESSALINE_GUARDED_DEVICE)
// The guarded arena's table of allocations.
namespace guarded {

// True when [p, p + bytes) lies within one device allocation; a pointer one past the end counts with
// bytes 0.
bool inDeviceMemory(const void* p, std::size_t bytes);

// A launch that cannot start: the report on standard error, the error kept for deviceGetLastError.
void failLaunch(const char* kernel, int field, const void* pointer);

// Reads the fields of a kernel record, a plain aggregate, without naming them: the number of fields is
// the most initialisers the record takes, and a structured binding of that size hands them out.
struct AnyField {
    template <class T>
    operator T() const;
};

template <class T, class Sequence, class = void>
struct TakesInitialisers : std::false_type {};
template <class T, std::size_t... I>
struct TakesInitialisers<T, std::index_sequence<I...>, std::void_t<decltype(T{(void(I), AnyField{})...})>>
    : std::true_type {};

template <class T, std::size_t N = 0>
constexpr std::size_t fieldCount() {
    if constexpr (N < 16 && TakesInitialisers<T, std::make_index_sequence<N + 1>>::value)
        return fieldCount<T, N + 1>();
    else
        return N;
}

template <class F, class... Fields>
void visitFields(F& f, const Fields&... fields) {
    (f(fields), ...);
}

#define TESSA_GUARDED_FIELDS(N, ...)        \
    else if constexpr (count == N) {        \
        const auto& [__VA_ARGS__] = record; \
        visitFields(f, __VA_ARGS__);        \
    }

template <class Record, class F>
void forEachField(const Record& record, F& f) {
    constexpr std::size_t count = fieldCount<Record>();
    static_assert(count > 0 && count < 16, "a kernel record is a plain struct of at most 15 public fields");
    if constexpr (count == 0) {
    }
    TESSA_GUARDED_FIELDS(1, a)
    TESSA_GUARDED_FIELDS(2, a, b)
    TESSA_GUARDED_FIELDS(3, a, b, c)
    TESSA_GUARDED_FIELDS(4, a, b, c, d)
    TESSA_GUARDED_FIELDS(5, a, b, c, d, e)
    TESSA_GUARDED_FIELDS(6, a, b, c, d, e, g)
    TESSA_GUARDED_FIELDS(7, a, b, c, d, e, g, h)
    TESSA_GUARDED_FIELDS(8, a, b, c, d, e, g, h, i)
    TESSA_GUARDED_FIELDS(9, a, b, c, d, e, g, h, i, j)
    TESSA_GUARDED_FIELDS(10, a, b, c, d, e, g, h, i, j, k)
    TESSA_GUARDED_FIELDS(11, a, b, c, d, e, g, h, i, j, k, l)
    TESSA_GUARDED_FIELDS(12, a, b, c, d, e, g, h, i, j, k, l, m)
    TESSA_GUARDED_FIELDS(13, a, b, c, d, e, g, h, i, j, k, l, m, o)
    TESSA_GUARDED_FIELDS(14, a, b, c, d, e, g, h, i, j, k, l, m, o, p)
    TESSA_GUARDED_FIELDS(15, a, b, c, d, e, g, h, i, j, k, l, m, o, p, q)
}
#undef TESSA_GUARDED_FIELDS

// Every pointer of a kernel record, nested records included, must point into device memory.
struct PointerCheck {
    const char* kernel;
    int field = 0;
    bool ok = true;
    template <class Field>
    void operator()(const Field& value) {
        if constexpr (std::is_pointer_v<Field>) {
            if (ok && !inDeviceMemory(value, 0)) {
                failLaunch(kernel, field, value);
                ok = false;
            }
            ++field;
        } else if constexpr (std::is_class_v<Field> && std::is_aggregate_v<Field>) {
            forEachField(value, *this);
        } else {
            ++field;
        }
    }
};

template <class Kernel>
bool kernelPointersInDeviceMemory(const Kernel& kernel) {
    static_assert(std::is_class_v<Kernel> && std::is_aggregate_v<Kernel>,
                  "a kernel is a plain struct whose fields the launch can check");
    PointerCheck check{typeid(Kernel).name()};
    forEachField(kernel, check);
    return check.ok;
}

}  // namespace guarded
#endif

// ---- kernel launch -------------------------------------------------------------------------------

constexpr unsigned KERNEL_THREADS_PER_BLOCK = 384;

#if defined(TESSA_KERNEL_LAUNCH_CUDA)
template <class Kernel>
__global__ void TESSA_LAUNCH_BOUNDS(KERNEL_THREADS_PER_BLOCK) runKernelItems(std::size_t n, Kernel kernel) {
    std::size_t i = static_cast<std::size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (i < n) kernel(i);
}
#endif

// Runs `kernel(i)` for every i in [0, n): one logical thread an item, (n + 383) / 384 blocks of 384
// threads on the device, an OpenMP loop on the host. A launch that does not start (too many blocks,
// too few resources, a kernel the device has no code for; in the guarded build a pointer field outside
// device memory) is reported and throws DeviceError; faults while the kernel runs show at the next
// checked call. Pass kernels by value: they are copied to the device.
template <class Kernel>
void launchKernel(std::size_t n, const Kernel& kernel) {
    if (n == 0) return;  // a grid of 0 blocks does nothing
#if defined(TESSA_KERNEL_LAUNCH_CUDA)
    const std::size_t blocks = (n + KERNEL_THREADS_PER_BLOCK - 1) / KERNEL_THREADS_PER_BLOCK;
    runKernelItems<<<static_cast<unsigned>(blocks), KERNEL_THREADS_PER_BLOCK>>>(n, kernel);
#else
#if defined(TESSALINE_GUARDED_DEVICE)
    if (guarded::kernelPointersInDeviceMemory(kernel))
#endif
    {
        const DeviceScope scope;
        const std::int64_t count = static_cast<std::int64_t>(n);
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < count; ++i) kernel(static_cast<std::size_t>(i));
    }
#endif
    TESSA_DEVICE_CHECK(deviceGetLastError());
}

// Runs `kernel(i)` for every i in [0, n) on the host's cores, with either backend: the twin of
// launchKernel for data that lives in host memory, as in the fallbacks when device memory runs short.
template <class Kernel>
void runOnHost(std::size_t n, const Kernel& kernel) {
    const std::int64_t count = static_cast<std::int64_t>(n);
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < count; ++i) kernel(static_cast<std::size_t>(i));
}

// ---- primitives with device semantics on both sides ----------------------------------------------

// Atomic add on a counter shared by the threads of one launch; returns the old value.
TESSA_HD inline int deviceAtomicAdd(int* address, int value) {
#if defined(__CUDA_ARCH__)
    return atomicAdd(address, value);
#else
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);
#endif
}

TESSA_HD inline int deviceAtomicOr(int* address, int value) {
#if defined(__CUDA_ARCH__)
    return atomicOr(address, value);
#else
    return __atomic_fetch_or(address, value, __ATOMIC_RELAXED);
#endif
}

// Float to int, truncating toward zero, as the device converts: out-of-range values saturate and NaN
// gives 0 (a plain C++ cast is undefined there).
TESSA_HD inline int floatToIntSaturate(float value) {
#if defined(__CUDA_ARCH__)
    return __float2int_rz(value);
#else
    if (value != value) return 0;
    if (value >= 2147483648.0f) return INT_MAX;
    if (value <= -2147483648.0f) return INT_MIN;
    return static_cast<int>(value);
#endif
}

}  // namespace SurfaceReconstruction
