// What the host has left: the figures that the host backend reports as device memory and that the
// mesh stage's memory guard tests.
#pragma once

#include <cstdint>
#include <string>

namespace SurfaceReconstruction {

struct HostMemoryInfo {
    std::uint64_t total_bytes = 0;      // physical memory, or the memory cgroup's limit where lower
    std::uint64_t available_bytes = 0;  // what the process can still get without swapping: the kernel's
                                        // MemAvailable, or what its memory cgroup still allows where lower
    std::uint64_t swap_free_bytes = 0;
    std::uint64_t cgroup_left_bytes = UINT64_MAX;  // the memory cgroup's limit less its use; no limit: max
};

// Reads /proc/meminfo and the limit and use of the process's memory cgroup (version 2 memory.max and
// memory.current, or version 1 memory.limit_in_bytes and memory.usage_in_bytes); false when
// /proc/meminfo cannot be read.
bool readHostMemory(HostMemoryInfo& info);

// What the process may still use: available memory and free swap, never more than its cgroup allows.
std::uint64_t usableHostBytes(const HostMemoryInfo& info);

// Gives the free pages of the heap back to the system (glibc's malloc_trim; nothing elsewhere). Memory
// freed in many small pieces, such as the frames of a run, otherwise stays resident in the heap.
void giveFreedHeapBack();

// Where /proc and /sys are looked for; "" is the real ones. The tests point it at a tree of their own.
void setHostMemoryRoot(const std::string& root);

}  // namespace SurfaceReconstruction
