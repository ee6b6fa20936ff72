// The scan as the program reads it: the engine's frames, and beside each what its file said that the
// engine's record does not hold: whether the points came with normals, where the scanner stood, and the
// points' colours; and the origin that geo-referenced points are held relative to.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tessaline/Tessaline.h"

namespace tessaline_tools {

using Frames = std::vector<std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo>>;
using Colour = std::array<std::uint8_t, 3>;  // red, green, blue
using Origin = std::array<double, 3>;        // millimetres

struct FrameExtras {
    std::string source;   // the file the frame came from
    bool normals = true;  // false: the file had none; the frame's normals are (0, 0, 0) until estimated
    bool sensor = false;  // `sensor_position` is known: from a pose, a scan's header or a scan list
    // Where the scanner stood: millimetres, in the coordinates of the points (the origin taken off).
    std::array<double, 3> sensor_position = {0.0, 0.0, 0.0};
    std::vector<Colour> colours;  // empty, or one a point of the frame
};

struct ScanInput {
    Frames frames;
    std::vector<FrameExtras> extras;  // one a frame, in the same order
    // Every point of every frame lies at its coordinates plus the origin. Geo-referenced coordinates
    // (LAS: UTM, hundreds of kilometres) are too large for a float to hold to a millimetre: the readers
    // take this whole number of metres off in double precision before the rounding, the same for all
    // frames of a run, and the mesh is written with it added back. Zero for other inputs.
    Origin origin = {0.0, 0.0, 0.0};

    void add(std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> frame, FrameExtras frame_extras) {
        frames.push_back(std::move(frame));
        extras.push_back(std::move(frame_extras));
    }
    bool missingNormals() const {
        for (const FrameExtras& e : extras)
            if (!e.normals) return true;
        return false;
    }
    bool hasOrigin() const { return origin[0] != 0.0 || origin[1] != 0.0 || origin[2] != 0.0; }
    bool coloured() const {
        for (const FrameExtras& e : extras)
            if (!e.colours.empty()) return true;
        return false;
    }
};

}  // namespace tessaline_tools
