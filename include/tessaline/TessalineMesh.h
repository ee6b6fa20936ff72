// Tessaline's mesh library, beside the engine: what an application does around a run. Before it, the
// resolution for its points (the median spacing of the points); after it, a finished mesh from the
// engine's triangle soup: welded vertices with their words and area-weighted normals, small loose
// pieces removed, small holes filled.
//
// The functions are plain and stateless: they hold no locks and keep nothing between calls, so any
// thread may call them, on different meshes at once. Welding, normals and describeMesh run on all cores
// (OpenMP threads), with the same result for any number of threads. None throws: each returns a status,
// 0 on success, TESSALINE_FAILURE (1) for an argument it refuses and TESSALINE_OUT_OF_MEMORY (66049) when
// memory runs out; on a failure the output is left empty (weldMesh) or unchanged (the edits).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "tessaline/Tessaline.h"

#if defined(_WIN32)
#define TESSALINE_MESH_API __declspec(dllexport)
#else
#define TESSALINE_MESH_API __attribute__((visibility("default")))
#endif

namespace SurfaceReconstruction {

// A triangle mesh with shared vertices. All four lists are owned by the record.
struct IndexedMesh {
    // Vertex positions, in the unit of the run (that of the resolution).
    std::vector<Vec3f> vertices;
    // Three vertex indices a triangle. Seen from its front the corners run counter-clockwise; the engine's
    // triangles face where its field is below 0, the outside of a scanned object.
    std::vector<std::array<std::uint32_t, 3>> triangles;
    // One word a vertex: the OR of the words (TriangleW) of every triangle corner welded into it.
    // Bits 0-7 scale codes, bits 8-15 flags, bits 16-31 the quality word of the dual cube (see the README).
    // A vertex that hole filling adds has the word 0.
    std::vector<std::uint32_t> words;
    // One unit normal a vertex, the area-weighted mean of its triangles' normals, on their front side;
    // (0, 0, 0) for a vertex that no triangle uses or whose triangles have no area. Empty when not computed.
    std::vector<Vec3f> normals;
};

// What describeMesh counts.
struct MeshStatistics {
    std::size_t vertices = 0;
    std::size_t triangles = 0;
    std::size_t boundary_edges = 0;  // edges that one triangle alone uses: the rims of holes and of open sheets
    std::size_t boundary_loops = 0;  // closed chains of boundary edges, each counted once
    std::size_t pieces = 0;          // sets of triangles connected through shared vertices
    double area = 0.0;               // square units of the run
};

// Welds the engine's triangle soup into `mesh`: triangle corners closer than `tolerance` on every axis
// become one vertex (the first corner, in the soup's order, gives its position), triangles that lose a
// corner that way are left out and counted in `degenerate` (when given), and the vertex normals are
// computed. The result depends only on the soup and the tolerance. `tolerance` must be finite and above 0;
// a ten-thousandth of the resolution keeps apart every pair of vertices the engine means to be apart.
// In detail: corners at bit-identical positions are one position, numbered by their first corner; a
// position within `tolerance` on every axis of an earlier position that no earlier one has joined, in one
// of the 27 cells of a grid of `tolerance` around it, joins the earliest such; vertices are numbered in the
// order the kept triangles first use them. The soup is only read; `mesh` is replaced. A soup of
// 1,431,655,765 triangles or more (corners beyond 32-bit numbers) is refused.
TESSALINE_MESH_API int weldMesh(const MultiMeshData& soup, float tolerance, IndexedMesh& mesh,
                                std::size_t* degenerate = nullptr);

// Fills `mesh.normals` with the area-weighted vertex normals of the triangles as they are.
TESSALINE_MESH_API int computeVertexNormals(IndexedMesh& mesh);

// Removes every piece (triangles connected through shared vertices) of fewer than `min_triangles`
// triangles, then every vertex that no triangle uses; the order of what stays is kept. `removed` (when
// given) receives the number of triangles removed. Normals, when present, are kept up to date. With
// `min_triangles` at most 1 nothing can go: the call returns 0 at once, without looking at the mesh.
TESSALINE_MESH_API int removeSmallPieces(IndexedMesh& mesh, std::size_t min_triangles, std::size_t* removed = nullptr);

// Closes every hole whose boundary loop has at most `max_edges` edges ("fill small holes"). A loop of up
// to 64 edges is spanned by the triangles of least total area between its own vertices (on a flat hole,
// exactly the hole's area); a longer one by a fan around a new vertex at its centroid. The new triangles
// face the same side as their neighbours. A loop that passes a vertex twice, or that cannot be spanned
// without reusing an edge the mesh already has elsewhere or without a triangle whose corners lie in a line,
// is left open. `filled` (when given) receives the number of holes
// closed. Normals, when present, are kept up to date. With `max_edges` below 3 no hole qualifies: the call
// returns 0 at once, without looking at the mesh.
TESSALINE_MESH_API int fillSmallHoles(IndexedMesh& mesh, std::size_t max_edges, std::size_t* filled = nullptr);

// Counts vertices, triangles, boundary edges and loops, pieces and area (summed in triangle order, so the
// same for any number of threads). Triangle indices must lie below the vertex count, and the triangles
// fewer than 1,431,655,765 (1 otherwise).
TESSALINE_MESH_API int describeMesh(const IndexedMesh& mesh, MeshStatistics& statistics);

// How far apart the points of a scan lie, in the unit of the points.
struct PointSpacing {
    // The median, over the measured points, of the distance to the nearest point at another position.
    float median = 0.0f;
    // The spacing of an even sampling as dense as the points: sqrt(pi / K) times the distance to the K-th
    // nearest point (K = SPACING_NEIGHBOURS, or all other points when there are fewer), median over the
    // measured points. Unlike the nearest neighbour, it is not fooled by points that crowd along laser lines
    // with gaps between them: on an even sampling the two agree within a few percent.
    float density = 0.0f;
    // The finest scale code (low byte of a point's word) that at least a tenth of the usable points ask
    // for, counting 0 and unlisted codes as 8: the cells that matter are resolution x 8 / scale_code.
    int scale_code = 8;
    std::size_t points = 0;    // usable points: finite coordinates, a normal of non-zero length
    std::size_t measured = 0;  // points whose neighbours were looked up (at most `max_measured`)
};

constexpr int SPACING_NEIGHBOURS = 64;

// Measures the spacing of all usable points of `frames` together, as the engine fuses them: every point
// is a neighbour candidate; the neighbours are looked up from `max_measured` points spread evenly over the
// scan (all of them when there are fewer). Both figures are 0 with fewer than two distinct points.
// Deterministic. The frames are only read.
TESSALINE_MESH_API int measurePointSpacing(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                           PointSpacing& spacing, std::size_t max_measured = 20000);

// The edge of the cells the points ask for, in density spacings, that `resolutionForSpacing` chooses.
constexpr float RESOLUTION_PER_SPACING = 1.5f;

// The resolution for points this far apart: the one whose cells of `scale_code` have an edge of
// RESOLUTION_PER_SPACING density spacings (1.5 x density x scale_code / 8), kept within the engine's
// accepted 0.001 to 100000; 0 when the density spacing is not above 0 and finite.
TESSALINE_MESH_API float resolutionForSpacing(const PointSpacing& spacing);

// About how many triangles a run on these frames, at this resolution, gives where the points cover the
// surface: each point stands for density^2 of surface, and a cell of edge h (resolution x 8 / the point's
// scale code) gives about 2.8 triangles a h^2 of surface. A mesh far below this means cells too small for
// the points. 0 when the density spacing or the resolution is not above 0.
TESSALINE_MESH_API double expectedTriangles(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                            const PointSpacing& spacing, float resolution);

}  // namespace SurfaceReconstruction
