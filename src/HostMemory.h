// What the host has left: the figures that the host backend reports as device memory and that the
// mesh stage's memory guard tests.
#pragma once

#include <cstdint>

namespace SurfaceReconstruction {

struct HostMemoryInfo {
    std::uint64_t total_bytes = 0;      // physical memory
    std::uint64_t available_bytes = 0;  // memory the kernel can hand out without swapping
    std::uint64_t swap_free_bytes = 0;
};

// Reads /proc/meminfo; false when it cannot be read.
bool readHostMemory(HostMemoryInfo& info);

}  // namespace SurfaceReconstruction
