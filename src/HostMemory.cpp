// Host memory figures from /proc/meminfo and the process's memory cgroup.
#include "HostMemory.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace SurfaceReconstruction {

namespace {

std::mutex g_root_lock;
std::string g_root;  // prefix of /proc and /sys

std::string root() {
    std::lock_guard<std::mutex> lock(g_root_lock);
    return g_root;
}

// A number of bytes from a cgroup file; false for "max", a missing file or no number.
bool readBytes(const std::string& path, std::uint64_t& value) {
    std::ifstream file(path);
    std::string word;
    if (!(file >> word) || word.empty() || word.find_first_not_of("0123456789") != std::string::npos) return false;
    try {
        value = std::stoull(word);
    } catch (...) {
        return false;
    }
    return true;
}

// Limit less use of the memory cgroup whose files lie in `dir` (with the names given), when it has a
// limit below 2^60 (version 1 writes a huge number for none).
bool cgroupLeft(const std::string& dir, const char* limit_name, const char* usage_name, std::uint64_t& left,
                std::uint64_t& limit) {
    std::uint64_t usage = 0;
    if (!readBytes(dir + "/" + limit_name, limit) || limit >= (1ull << 60)) return false;
    if (!readBytes(dir + "/" + usage_name, usage)) usage = 0;
    left = limit > usage ? limit - usage : 0;
    return true;
}

// The memory cgroup of this process: its limit less its use, when one of its files is found.
bool readCgroup(const std::string& prefix, std::uint64_t& left, std::uint64_t& limit) {
    std::string v2_path, v1_path;
    std::ifstream cgroups(prefix + "/proc/self/cgroup");
    std::string line;
    while (std::getline(cgroups, line)) {
        const std::size_t a = line.find(':'), b = a == std::string::npos ? a : line.find(':', a + 1);
        if (b == std::string::npos) continue;
        const std::string controllers = line.substr(a + 1, b - a - 1), path = line.substr(b + 1);
        if (line.compare(0, a, "0") == 0 && controllers.empty()) v2_path = path;
        if (("," + controllers + ",").find(",memory,") != std::string::npos) v1_path = path;
    }
    // The process's own group where the files are visible, else the root of the mount (inside a
    // container the group's path names the host's view).
    const std::string v2 = prefix + "/sys/fs/cgroup", v1 = prefix + "/sys/fs/cgroup/memory";
    for (const std::string& dir : {v2 + v2_path, v2})
        if (cgroupLeft(dir, "memory.max", "memory.current", left, limit)) return true;
    for (const std::string& dir : {v1 + v1_path, v1})
        if (cgroupLeft(dir, "memory.limit_in_bytes", "memory.usage_in_bytes", left, limit)) return true;
    return false;
}

}  // namespace

void setHostMemoryRoot(const std::string& new_root) {
    std::lock_guard<std::mutex> lock(g_root_lock);
    g_root = new_root;
}

bool readHostMemory(HostMemoryInfo& info) {
    const std::string prefix = root();
    std::FILE* file = std::fopen((prefix + "/proc/meminfo").c_str(), "r");
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
    std::uint64_t left = 0, limit = 0;
    if (readCgroup(prefix, left, limit)) {
        info.cgroup_left_bytes = left;
        info.available_bytes = std::min(info.available_bytes, left);
        info.total_bytes = std::min(info.total_bytes, limit);
    }
    return have_total && have_available;
}

void giveFreedHeapBack() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

std::uint64_t usableHostBytes(const HostMemoryInfo& info) {
    return std::min(info.available_bytes + info.swap_free_bytes, info.cgroup_left_bytes);
}

}  // namespace SurfaceReconstruction
