// Scan frames from PLY point clouds: one file a frame, with positions and normals.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tessaline/Tessaline.h"

namespace tessaline_tools {

struct PointCloudReadInfo {
    std::size_t dropped = 0;  // points with a NaN or infinite coordinate, or no usable normal, left out
};

// A PLY point cloud (ASCII, binary little or big endian; properties in any order, of any PLY number
// type) as one frame: x, y, z scaled by `scale`, normals nx, ny, nz normalised, every word
// `scale_code`. Throws std::runtime_error naming the file and the problem: missing, not PLY, no
// normals, truncated data.
std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> readPlyPointCloud(const std::string& path, float scale,
                                                                            int scale_code, PointCloudReadInfo& info);

}  // namespace tessaline_tools
