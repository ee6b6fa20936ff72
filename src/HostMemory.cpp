// Host memory figures from /proc/meminfo.
#include "HostMemory.h"

#include <cstdio>
#include <cstring>

namespace SurfaceReconstruction {

bool readHostMemory(HostMemoryInfo& info) {
    std::FILE* file = std::fopen("/proc/meminfo", "r");
    if (file == nullptr) return false;
    info = HostMemoryInfo{};
    bool have_total = false, have_available = false;
    char line[256];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        char key[64];
        unsigned long long kib = 0;
        if (std::sscanf(line, "%63[^:]: %llu", key, &kib) != 2) continue;
        if (std::strcmp(key, "MemTotal") == 0) {
            info.total_bytes = kib * 1024ull;
            have_total = true;
        } else if (std::strcmp(key, "MemAvailable") == 0) {
            info.available_bytes = kib * 1024ull;
            have_available = true;
        } else if (std::strcmp(key, "SwapFree") == 0) {
            info.swap_free_bytes = kib * 1024ull;
        }
    }
    std::fclose(file);
    return have_total && have_available;
}

}  // namespace SurfaceReconstruction
