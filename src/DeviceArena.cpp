// The guarded device arena of the host backend: device memory that host code cannot touch by mistake.
// Every allocation is a mapping of its own, a page without access before and after it, and its pages
// are open to the host only while a device scope is (a kernel, a device copy or fill, a device sort);
// outside one, a read or write of device memory by host code stops the program with SIGSEGV at the
// faulting instruction. A table of the allocations checks each copy's direction and bounds, each fill's
// bounds, each free and each launch's pointer fields, as a device would fail them.
#include "DeviceArena.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>

#include "Diagnostics.h"

namespace SurfaceReconstruction {

namespace {

// cudaMalloc's alignment: the end of an allocation is placed this near the guard page behind it.
constexpr std::size_t ARENA_ALIGNMENT = 256;

struct Allocation {
    char* mapping;             // the whole mapping, guard pages included
    std::size_t mapping_size;  // bytes of the mapping
    char* pages;               // the pages that hold the data
    std::size_t pages_size;
    char* data;  // what deviceMalloc handed out
    std::size_t bytes;
};

struct Arena {
    std::mutex mutex;
    std::map<std::uintptr_t, Allocation> table;  // by the address of the mapping
    int scopes = 0;                              // device scopes open, over all threads
    std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
};

Arena& arena() {
    static Arena* instance = new Arena();  // never destroyed: frees may come from static destructors
    return *instance;
}

thread_local DeviceResult t_last_error = DEVICE_SUCCESS;

bool protect(const Allocation& a, bool open) {
    return mprotect(a.pages, a.pages_size, open ? PROT_READ | PROT_WRITE : PROT_NONE) == 0;
}

// The allocation whose mapping holds p, or null; the arena's mutex is held.
const Allocation* mappingOf(Arena& s, const void* p) {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(p);
    auto it = s.table.upper_bound(address);
    if (it == s.table.begin()) return nullptr;
    --it;
    const Allocation& a = it->second;
    return address < it->first + a.mapping_size ? &a : nullptr;
}

// [p, p + bytes) within the data of one allocation.
bool within(const Allocation* a, const void* p, std::size_t bytes) {
    if (a == nullptr) return false;
    const char* c = static_cast<const char*>(p);
    return c >= a->data && bytes <= a->bytes && static_cast<std::size_t>(c - a->data) <= a->bytes - bytes;
}

// [p, p + bytes) touches no mapping of the arena.
bool outside(Arena& s, const void* p, std::size_t bytes) {
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t last = first + bytes;
    auto it = s.table.lower_bound(first);
    if (it != s.table.end() && it->first < last) return false;
    return mappingOf(s, p) == nullptr;
}

const char* kindName(CopyKind kind) {
    switch (kind) {
        case CopyKind::HostToDevice:
            return "cudaMemcpyHostToDevice";
        case CopyKind::DeviceToHost:
            return "cudaMemcpyDeviceToHost";
        case CopyKind::DeviceToDevice:
            return "cudaMemcpyDeviceToDevice";
    }
    return "?";
}

}  // namespace

void enterDeviceScope() {
    Arena& s = arena();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.scopes++ == 0) {
        for (const auto& entry : s.table) protect(entry.second, true);
    }
}

void leaveDeviceScope() {
    Arena& s = arena();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (--s.scopes == 0) {
        for (const auto& entry : s.table) protect(entry.second, false);
    }
}

namespace guarded {

bool inDeviceMemory(const void* p, std::size_t bytes) {
    if (p == nullptr) return false;
    Arena& s = arena();
    std::lock_guard<std::mutex> lock(s.mutex);
    return within(mappingOf(s, p), p, bytes);
}

void failLaunch(const char* kernel, int field, const void* pointer) {
    deviceReport("[DeviceArena] launch of %s refused: pointer field %d (%p) is not device memory\n", kernel, field,
                 pointer);
    t_last_error = DEVICE_ERROR_ILLEGAL_ADDRESS;
}

}  // namespace guarded

namespace arena_backend {

DeviceResult malloc(void** ptr, std::size_t bytes) {
    *ptr = nullptr;
    if (bytes == 0) return DEVICE_SUCCESS;  // the runtime hands out no memory and no error
    Arena& s = arena();
    const std::size_t rounded = (bytes + ARENA_ALIGNMENT - 1) / ARENA_ALIGNMENT * ARENA_ALIGNMENT;
    if (rounded < bytes) return DEVICE_ERROR_MEMORY_ALLOCATION;
    const std::size_t pages_size = (rounded + s.page - 1) / s.page * s.page;
    const std::size_t mapping_size = pages_size + 2 * s.page;
    void* mapping = mmap(nullptr, mapping_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) return DEVICE_ERROR_MEMORY_ALLOCATION;
    Allocation a;
    a.mapping = static_cast<char*>(mapping);
    a.mapping_size = mapping_size;
    a.pages = a.mapping + s.page;
    a.pages_size = pages_size;
    a.data = a.pages + (pages_size - rounded);  // its end as near the guard page as the alignment allows
    a.bytes = bytes;
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.scopes > 0 && !protect(a, true)) {
        munmap(mapping, mapping_size);
        return DEVICE_ERROR_MEMORY_ALLOCATION;
    }
    s.table.emplace(reinterpret_cast<std::uintptr_t>(a.mapping), a);
    *ptr = a.data;
    return DEVICE_SUCCESS;
}

DeviceResult free(void* ptr) {
    if (ptr == nullptr) return DEVICE_SUCCESS;
    Arena& s = arena();
    std::lock_guard<std::mutex> lock(s.mutex);
    const Allocation* a = mappingOf(s, ptr);
    if (a == nullptr || a->data != ptr) {
        deviceReport("[DeviceArena] cudaFree(%p): not an allocation of the device\n", ptr);
        return DEVICE_ERROR_INVALID_VALUE;
    }
    char* mapping = a->mapping;
    const std::size_t size = a->mapping_size;
    s.table.erase(reinterpret_cast<std::uintptr_t>(mapping));
    munmap(mapping, size);
    return DEVICE_SUCCESS;
}

DeviceResult memcpy(void* dst, const void* src, std::size_t bytes, CopyKind kind) {
    if (bytes == 0) return DEVICE_SUCCESS;
    if (dst == nullptr || src == nullptr) return DEVICE_ERROR_INVALID_VALUE;
    Arena& s = arena();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        const bool dst_device = kind != CopyKind::DeviceToHost;
        const bool src_device = kind != CopyKind::HostToDevice;
        const bool dst_ok = dst_device ? within(mappingOf(s, dst), dst, bytes) : outside(s, dst, bytes);
        const bool src_ok = src_device ? within(mappingOf(s, src), src, bytes) : outside(s, src, bytes);
        if (!dst_ok || !src_ok) {
            deviceReport("[DeviceArena] cudaMemcpy(%p, %p, %zu, %s): %s is not %s memory of that size\n", dst, src,
                         bytes, kindName(kind), dst_ok ? "the source" : "the destination",
                         (dst_ok ? src_device : dst_device) ? "device" : "host");
            return DEVICE_ERROR_INVALID_VALUE;
        }
    }
    const DeviceScope scope;
    std::memcpy(dst, src, bytes);
    return DEVICE_SUCCESS;
}

DeviceResult memset(void* ptr, int value, std::size_t bytes) {
    if (bytes == 0) return DEVICE_SUCCESS;
    Arena& s = arena();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!within(mappingOf(s, ptr), ptr, bytes)) {
            deviceReport("[DeviceArena] cudaMemset(%p, %d, %zu): not device memory of that size\n", ptr, value, bytes);
            return DEVICE_ERROR_INVALID_VALUE;
        }
    }
    const DeviceScope scope;
    std::memset(ptr, value, bytes);
    return DEVICE_SUCCESS;
}

DeviceResult takeLastError() {
    const DeviceResult result = t_last_error;
    t_last_error = DEVICE_SUCCESS;
    return result;
}

}  // namespace arena_backend

}  // namespace SurfaceReconstruction
