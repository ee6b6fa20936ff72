// Triangle meshes in and out: the formats the program writes (PLY, OBJ, STL) read back for pictures and
// comparisons, PLY meshes with shared vertices as reference surfaces are published, and finished meshes
// written with their vertex words, normals and colours.
#pragma once

#include <array>
#include <string>

#include "tessaline/Tessaline.h"
#include "tessaline/TessalineMesh.h"

namespace tessaline_tools {

using SurfaceReconstruction::IndexedMesh;

// A mesh file by its extension: .ply (ASCII or binary; faces of three or more vertices fanned into
// triangles), .obj (v and f lines, any of the f forms i, i/t, i//n, i/t/n, negative indices counting back;
// polygons fanned), .stl (binary or ASCII; each triangle keeps its own three vertices). Vertices are scaled
// by `scale`; words and normals are not read. With `origin` (millimetres, as the scaled vertices) given, it
// is taken off every scaled vertex in double precision before the rounding to float, as the readers of
// geo-referenced scans do. Throws std::runtime_error naming the file and the problem.
IndexedMesh readMesh(const std::string& path, float scale = 1.0f, const std::array<double, 3>* origin = nullptr);
IndexedMesh readPlyMesh(const std::string& path, float scale = 1.0f, const std::array<double, 3>* origin = nullptr);

// Writes the library's triangle soup as a binary little-endian PLY: three vertices a triangle, each with its
// 32-bit word. Throws std::runtime_error when the file cannot be written.
void writePlyMesh(const std::string& path, const SurfaceReconstruction::MultiMeshData& mesh);

// True for the extensions writeMesh knows: .ply, .obj, .stl (any case).
bool isMeshFileName(const std::string& path);

// Multiplies every vertex position by `scale` (normals stay as they are).
void scaleMesh(IndexedMesh& mesh, float scale);

// Writes by the file's extension. .ply: binary little endian; per vertex x, y, z, then nx, ny, nz when the
// mesh has normals, then when it has words `int word` (all 32 bits, read as signed) and the same word split
// into `uchar scale_code` (bits 0-7), `uchar flags` (bits 8-15) and `uchar quality` (bits 16-23), then when
// it has colours `uchar red, green, blue`; faces as `list uchar uint vertex_indices`. .obj: v lines (with
// colours "v x y z r g b", r g b from 0 to 1) and, with normals, vn lines, faces as f i//i. .stl: binary,
// facet normals from the triangles, no colours. The file appears only when complete. Throws std::runtime_error naming
// the file. With `origin` (the mesh's unit) given and not zero, it is added to every vertex in double
// precision: a PLY gets `double` x, y, z, an OBJ 15 significant digits; an STL, whose coordinates are floats,
// is refused (see keepsOrigin).
void writeMesh(const std::string& path, const IndexedMesh& mesh, const std::array<double, 3>* origin = nullptr);

// False for a file whose format cannot hold vertices far from the origin to a millimetre (.stl).
bool keepsOrigin(const std::string& path);

}  // namespace tessaline_tools
