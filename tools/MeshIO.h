// Triangle meshes in and out: PLY files of the library's triangle soup, and ASCII PLY meshes with
// shared vertices (as reference surfaces are published).
#pragma once

#include <array>
#include <string>
#include <vector>

#include "tessaline/Tessaline.h"

namespace tessaline_tools {

struct IndexedMesh {
    std::vector<std::array<float, 3>> vertices;
    std::vector<std::array<int, 3>> triangles;
};

// An ASCII PLY mesh: the first three vertex properties as x, y, z, scaled by `scale`; faces of three
// or more vertices fanned into triangles. Throws std::runtime_error on a file it cannot read.
IndexedMesh readPlyMesh(const std::string& path, float scale = 1.0f);

// Writes `mesh` as a binary little-endian PLY: three vertices a triangle, each with its 32-bit word.
// Throws std::runtime_error when the file cannot be written.
void writePlyMesh(const std::string& path, const SurfaceReconstruction::MultiMeshData& mesh);

}  // namespace tessaline_tools
