// Scan frames as PLY files: one file a frame, with positions, normals and optionally the per-point
// word, the frame's pose and laser, and the markers the frame saw.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ScanInput.h"
#include "tessaline/Tessaline.h"

namespace tessaline_tools {

struct PointCloudReadInfo {
    std::size_t dropped = 0;       // points with a NaN or infinite coordinate, or no usable normal, left out
    bool words_from_file = false;  // the file had a `w` property
    long faces = 0;                // records of a face element: the file is a mesh, its vertices read as points
};

// A PLY point cloud (ASCII, binary little or big endian; properties in any order, of any PLY number
// type) as one frame: x, y, z scaled by `scale`, normals nx, ny, nz (or PCL's normal_x, normal_y,
// normal_z) normalised, the word from a `w` property or else `scale_code`. A `pose` element (r0..r8
// column-major, tx, ty, tz, laser_id) and a `marker` element (id, x, y, z, nx, ny, nz) fill the frame's
// record and marker lists. With `extras` given, a file without normals is read too (its normals are
// (0, 0, 0) and extras->normals false), the pose's translation is where the scanner stood, and colours
// (red, green, blue: integers, or floats from 0 to 1) go to extras->colours; without, a file without
// normals is refused. Throws std::runtime_error naming the file and the problem: missing, not PLY, no
// normals, truncated data.
std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> readPlyPointCloud(const std::string& path, float scale,
                                                                            int scale_code, PointCloudReadInfo& info,
                                                                            FrameExtras* extras = nullptr);

// Says whether to keep a point that readPlyPointCloud keeps, given it and its place among those; it may move
// the point (by a run's origin).
using PointFilter = std::function<bool(SurfaceReconstruction::Vec3f& point, std::size_t index)>;
// readPlyPointCloud, keeping only the points `keep` takes (in order, called on the calling thread), the file
// read a piece at a time: memory for the kept points and one piece, however large the file.
std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> readPlyPointCloudWithin(const std::string& path, float scale,
                                                                                  int scale_code,
                                                                                  PointCloudReadInfo& info,
                                                                                  FrameExtras* extras,
                                                                                  const PointFilter& keep);

// Writes `frame` in the layout that readPlyPointCloud reads back exactly (binary little endian).
void writePlyPointCloud(const std::string& path, const SurfaceReconstruction::FrameDataWithInfo& frame);

// Writes the points of all `frames`, frame after frame, as one binary little-endian PLY point list with
// float x, y, z, nx, ny, nz (no words, poses or markers): the input other reconstruction programs read.
// The file appears only when complete. Throws std::runtime_error naming the file.
void writePlyPoints(const std::string& path,
                    const std::vector<std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo>>& frames);

// The optimized markers of a scan as text, the file optimized-markers.txt beside simulated frames: one
// marker a line, "id x y z nx ny nz", world coordinates; blank lines and lines starting with '#' are passed
// over. Positions are scaled by `scale`, normals kept. Throws std::runtime_error naming the file and, for a
// bad line, its number.
SurfaceReconstruction::MarkerInfos readOptimizedMarkers(const std::string& path, float scale);
// Writes `markers` in that layout (millimetres, 6 decimals); the file appears only when complete.
void writeOptimizedMarkers(const std::string& path, const SurfaceReconstruction::MarkerInfos& markers);

}  // namespace tessaline_tools
