// The scan as the program reads it: the engine's frames, and beside each what its file said that the
// engine's record does not hold: whether the points came with normals, where the scanner stood, and the
// points' colours.
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

struct FrameExtras {
    std::string source;   // the file the frame came from
    bool normals = true;  // false: the file had none; the frame's normals are (0, 0, 0) until estimated
    bool sensor = false;  // `sensor_position` is known: from a pose, a scan's header or a scan list
    std::array<double, 3> sensor_position = {0.0, 0.0, 0.0};  // where the scanner stood, millimetres
    std::vector<Colour> colours;                              // empty, or one a point of the frame
};

struct ScanInput {
    Frames frames;
    std::vector<FrameExtras> extras;  // one a frame, in the same order

    void add(std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> frame, FrameExtras frame_extras) {
        frames.push_back(std::move(frame));
        extras.push_back(std::move(frame_extras));
    }
    bool missingNormals() const {
        for (const FrameExtras& e : extras)
            if (!e.normals) return true;
        return false;
    }
    bool coloured() const {
        for (const FrameExtras& e : extras)
            if (!e.colours.empty()) return true;
        return false;
    }
};

}  // namespace tessaline_tools
