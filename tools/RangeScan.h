// Reading registered range scans (a .conf file of poses and ASCII PLY range images, as the Stanford
// scanning repository publishes them) into scan frames of the library.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tessaline/Tessaline.h"

namespace tessaline_tools {

struct RangeScanOptions {
    float scale = 1000.0f;  // metres to millimetres: the library's fixed edges are millimetre-sized
    int scale_code = 8;     // low byte of every point's word: one cell a bin
};

// One frame of one range image: points and grid normals in world coordinates, p = R(conj(q)) p_local + t.
// Throws std::runtime_error with the file name on a file that cannot be read.
std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> readRangeImage(const std::string& ply_path, const double t[3],
                                                                         const double q[4],
                                                                         const RangeScanOptions& options);

// Every `bmesh` line of the .conf file, in file order, read from the .conf file's folder.
std::vector<std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo>> readRangeScanSet(
    const std::string& conf_path, const RangeScanOptions& options = RangeScanOptions());

}  // namespace tessaline_tools
