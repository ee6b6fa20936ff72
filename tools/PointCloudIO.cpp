// PLY point cloud reader: the vertex element gives positions and normals; other elements are ignored.
#include "PointCloudIO.h"

#include <cmath>
#include <stdexcept>

#include "PlyReader.h"

namespace tessaline_tools {

using SurfaceReconstruction::FrameDataWithInfo;

std::shared_ptr<FrameDataWithInfo> readPlyPointCloud(const std::string& path, float scale, int scale_code,
                                                     PointCloudReadInfo& info) {
    PlyReader ply(path);
    const PlyElement* vertex = ply.find("vertex");
    if (vertex == nullptr) throw std::runtime_error(path + ": no vertex element");
    int column[6];
    const char* names[6] = {"x", "y", "z", "nx", "ny", "nz"};
    for (int k = 0; k < 6; ++k) {
        column[k] = vertex->find(names[k]);
        if (column[k] >= 0 && vertex->properties[static_cast<std::size_t>(column[k])].list)
            throw std::runtime_error(path + ": the vertex property " + names[k] + " is a list");
    }
    if (column[0] < 0 || column[1] < 0 || column[2] < 0) throw std::runtime_error(path + ": no x, y, z properties");
    if (column[3] < 0 || column[4] < 0 || column[5] < 0) throw std::runtime_error(path + ": no normals (nx, ny, nz)");

    auto frame = std::make_shared<FrameDataWithInfo>();
    PlyRecord record;
    for (long v = 0; v < vertex->count; ++v) {
        ply.read(*vertex, record);
        double p[6];
        for (int k = 0; k < 6; ++k) p[k] = record.scalars[static_cast<std::size_t>(column[k])];
        const double length = std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]);
        bool usable = length > 0;
        for (double c : p) usable = usable && std::isfinite(c);
        if (!usable) {
            ++info.dropped;
            continue;
        }
        frame->xyz.push_back({static_cast<float>(p[0] * scale), static_cast<float>(p[1] * scale), static_cast<float>(p[2] * scale)});
        frame->nor.push_back({static_cast<float>(p[3] / length), static_cast<float>(p[4] / length), static_cast<float>(p[5] / length)});
        frame->w.push_back(scale_code);
    }
    return frame;
}

}  // namespace tessaline_tools
