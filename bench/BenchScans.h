// Scans made for the benchmark besides the part simulation: a wide floor, small patches spread over a
// large volume, and a part scan with some very large frames. Each is the same on every run.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "Reconstruction.h"
#include "SurfaceCompare.h"

namespace bench {

// A 10 m x 10 m floor at z = 0: a jittered grid of 2000 x 1500 points (5 mm x 6.7 mm apart), scanned
// back and forth in 150 strips of 10 rows, one frame of 20,000 points a strip. Millimetres.
tessaline_tools::Frames floorScan();
// Its true surface: the square as two triangles.
std::vector<tessaline_tools::Triangle> floorSurface();

// 200 flat square patches, 20 mm a side, tilted up to 30 degrees, spread over 5 m x 5 m at heights of
// 0 to 1 m; each a jittered grid of 125 x 120 points, one frame of 15,000 points a patch.
tessaline_tools::Frames patchesScan();
// Their true surface: two triangles a patch.
std::vector<tessaline_tools::Triangle> patchesSurface();

// `frames` with the points of the first frames of laser `laser` gathered, in order, into `count` frames
// of exactly `size` points each (a gathered frame takes the pose and markers of its first source frame and
// stands where that frame stood; what is left of the last source frame stays a frame of its own). The
// other frames are not touched. Throws std::runtime_error when the laser's frames hold too few points.
tessaline_tools::Frames gatherFrames(const tessaline_tools::Frames& frames, int laser, int count, std::size_t size);

}  // namespace bench
