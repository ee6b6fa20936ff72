// A handheld laser-line scanner, simulated: it walks a path of poses around the built-in part, casts
// a few laser lines a frame, and reports what its camera sees, with noise, as registered scan frames
// with per-point words, a laser id and the markers on the table in the scanner's own coordinates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "tessaline/Tessaline.h"

namespace tessaline_tools {

struct ScanSimulation {
    std::size_t target_points = 600000;  // frames are made until the scan holds at least this many points
    std::uint64_t seed = 1;
    int rays_per_line = 1200;    // samples along one laser line
    double noise = 0.015;        // standard deviation of the range error, millimetres
    double marker_noise = 0.02;  // a measured marker lies anywhere within this distance of the true one
    // Frames whose pose is registered wrongly: their points and their pose carry a small rotation
    // (degrees, about the vertical through the part) and shift (millimetres, along x).
    std::vector<std::size_t> misregistered;
    double misregistration_degrees = 0.3;
    double misregistration_shift = 0.1;
};

// Flag bit of the points near a small feature of the part (they also ask for cells half the size).
constexpr std::int32_t FEATURE_FLAG = 0x100;

// `count` frames spread evenly over a scan of `target_points` points, to be misregistered (a shift along x
// and a small turn): their indices, in order.
std::vector<std::size_t> spreadMisregisteredFrames(std::size_t count, std::size_t target_points);
// The misregistration `simulate --misregister` gives: a shift of 0.3 mm and a turn of 0.1 degrees, which moves
// the markers on the table 0.19 to 0.41 mm. The markers find no more than that: a measured marker farther than
// 0.5 mm from every optimized one is matched to none, and a frame 1 mm off passes unseen.
constexpr double NOTICEABLE_MISREGISTRATION = 0.3;          // millimetres
constexpr double NOTICEABLE_MISREGISTRATION_DEGREES = 0.1;  // about the vertical through the part

// The optimized markers of the scan: positions and normals of the markers on the table.
SurfaceReconstruction::MarkerInfos simulatedMarkers();

// The frames of a simulated scan, the same for the same settings on any machine and thread count.
// `progress` (optional) is told the points made so far.
std::vector<std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo>> simulateScan(
    const ScanSimulation& settings, const std::function<void(std::size_t)>& progress = nullptr);

}  // namespace tessaline_tools
