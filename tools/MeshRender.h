// A picture of a mesh: shaded views from four directions side by side, written as PNG.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SurfaceCompare.h"

namespace tessaline_tools {

struct Image {
    int width = 0, height = 0;
    std::vector<std::uint8_t> rgb;  // row by row, top row first
};

// Four views in a 2 x 2 grid, each `view_size` pixels square: from the front left above, from the
// back right above, from straight above and from the front. Front faces grey-blue, back faces
// orange (so that inside-out or open parts show).
Image renderViews(const std::vector<Triangle>& triangles, int view_size);

// Writes `image` through libpng to a .png file (see OutputFile.h). Throws std::runtime_error naming the
// file, also for another extension.
void writePng(const std::string& path, const Image& image);
bool isPngFileName(const std::string& path);

}  // namespace tessaline_tools
