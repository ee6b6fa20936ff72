// Triangle meshes in and out: PLY meshes with shared vertices (as reference surfaces are published),
// the library's triangle soup welded and written as PLY, OBJ or STL.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tessaline/Tessaline.h"

namespace tessaline_tools {

struct IndexedMesh {
    std::vector<std::array<float, 3>> vertices;
    std::vector<std::array<int, 3>> triangles;
};

// A PLY mesh (ASCII or binary): vertices x, y, z scaled by `scale`; faces of three or more vertices
// fanned into triangles. Throws std::runtime_error naming the file and the problem.
IndexedMesh readPlyMesh(const std::string& path, float scale = 1.0f);

// Writes `mesh` as a binary little-endian PLY: three vertices a triangle, each with its 32-bit word.
// Throws std::runtime_error when the file cannot be written.
void writePlyMesh(const std::string& path, const SurfaceReconstruction::MultiMeshData& mesh);

// A triangle soup welded into shared vertices: vertices closer than the tolerance on every axis (on a
// grid of that size) become one, and triangles that lose a corner that way are dropped.
struct WeldedMesh {
    std::vector<std::array<float, 3>> vertices;
    std::vector<std::uint32_t> words;  // the word of the first triangle corner that made the vertex
    std::vector<std::array<std::uint32_t, 3>> triangles;
    std::size_t dropped = 0;  // degenerate triangles left out
};

// `scale` multiplies every coordinate on the way (for writing in another unit).
WeldedMesh weldMesh(const SurfaceReconstruction::MultiMeshData& soup, float tolerance, float scale = 1.0f);
// Edges used by exactly one triangle: the rim of an open surface.
std::size_t countBoundaryEdges(const WeldedMesh& mesh);

// Writes by the file's extension: .ply (binary, with the word of each vertex), .obj or .stl (binary).
// The file appears only when complete. Throws std::runtime_error naming the file.
void writeWeldedMesh(const std::string& path, const WeldedMesh& mesh);

}  // namespace tessaline_tools
