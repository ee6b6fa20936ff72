// Fuzz target: any bytes as a PLY file, read as a point cloud and as a mesh. The readers may refuse a
// file with std::runtime_error; anything else (a crash, a sanitizer report, a hang) is a finding.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "MeshIO.h"
#include "PointCloudIO.h"

namespace {
const std::string& scratchPath() {
    static const std::string path = "/tmp/tessaline_fuzz_ply_" + std::to_string(getpid()) + ".ply";
    return path;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FILE* file = std::fopen(scratchPath().c_str(), "wb");
    if (file == nullptr) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    try {
        tessaline_tools::PointCloudReadInfo info;
        const auto frame = tessaline_tools::readPlyPointCloud(scratchPath(), 1.0f, 8, info);
        if (frame->xyz.size() != frame->nor.size() || frame->xyz.size() != frame->w.size()) __builtin_trap();
    } catch (const std::runtime_error&) {
    }
    try {
        const auto mesh = tessaline_tools::readPlyMesh(scratchPath());
        for (const auto& t : mesh.triangles)
            for (int v : t)
                if (v < 0 || static_cast<std::size_t>(v) >= mesh.vertices.size()) __builtin_trap();
    } catch (const std::runtime_error&) {
    }
    return 0;
}
