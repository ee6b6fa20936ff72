// Tessaline's mesh library, beside the engine: what an application does around a run. Before it, the
// resolution for its points (the median spacing of the points), every point's cell size from the density
// around it, and normals for points that came without them; after it, a finished mesh from the
// engine's triangle soup: welded vertices with their words and area-weighted normals, small loose
// pieces removed, small holes filled, and its vertices coloured from the scan's coloured points.
//
// The functions are plain and stateless: they hold no locks and keep nothing between calls, so any
// thread may call them, on different meshes at once (a MeshWelder holds one weld in progress, for one thread
// at a time). Welding, normals and describeMesh run on all cores (OpenMP threads), with the same result for
// any number of threads. None throws: each returns a status, 0 on success, TESSALINE_FAILURE (1) for an
// argument it refuses and TESSALINE_OUT_OF_MEMORY (66049) when memory runs out; on a failure the output is
// left empty (weldMesh) or unchanged (the edits).
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

// A colour: red, green, blue, 0-255 each, sRGB-encoded as cameras and files give them.
using Rgb = std::array<std::uint8_t, 3>;

// A triangle mesh with shared vertices. All five lists are owned by the record.
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
    // One colour a vertex, from colourVertices. Empty when not computed; removeSmallPieces and
    // fillSmallHoles keep it in step when it is not (a vertex that hole filling adds takes the mean of its
    // hole's rim). weldMesh makes a mesh without colours.
    std::vector<Rgb> colors;
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

// weldMesh for a soup that comes in pieces (the parts of a scan meshed tile by tile): adding pieces P1, ...,
// Pn in order and finishing gives exactly weldMesh of the soup P1 + ... + Pn at the same tolerance, the same
// vertices in the same order, triangles, words, normals and degenerate count, bit for bit. A piece is only
// read, and not held once add returns: the welder holds the welded triangles and vertices so far (12 bytes a
// triangle, 16 a vertex) and its tables over the positions seen (44 to 64 bytes a position; an engine's soup
// has about half a position a triangle), never the whole soup. add works on the calling thread (on two cores
// about as fast as weldMesh on both); finish computes the normals on all cores. Nothing throws: the calls
// return statuses as the functions do.
class TESSALINE_MESH_API MeshWelder {
public:
    explicit MeshWelder(float tolerance) noexcept;
    ~MeshWelder();
    MeshWelder(MeshWelder&&) noexcept;
    MeshWelder& operator=(MeshWelder&&) noexcept;
    MeshWelder(const MeshWelder&) = delete;
    MeshWelder& operator=(const MeshWelder&) = delete;

    // Welds `piece` onto the pieces before it. 1 (nothing added) for a tolerance that weldMesh refuses, a
    // piece whose two lists differ in length, or triangles beyond weldMesh's limit over all pieces; 66049 when
    // memory runs out, after which the weld is lost: every call until finish returns 66049.
    int add(const MultiMeshData& piece);
    // The weld of all pieces added into `mesh` (replaced; left empty on a failure, whose status it returns),
    // and the triangles left out into `degenerate`. The welder is then empty, ready for another soup.
    int finish(IndexedMesh& mesh, std::size_t* degenerate = nullptr);

private:
    struct State;
    float m_tolerance;
    int m_failure = 0;  // the status that lost the weld
    std::unique_ptr<State> m_state;
};

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

// How colourVertices coloured a mesh. vertices = near + widened + nearest.
struct VertexColouring {
    std::size_t points = 0;   // coloured points it used: those with finite coordinates
    std::size_t near = 0;     // vertices coloured from the points within one cell edge of them
    std::size_t widened = 0;  // from the points within 2 or 4 cell edges, none being nearer than one
    std::size_t nearest = 0;  // from the nearest point alone, none being within 4 cell edges
};

// Gives every vertex of `mesh` a colour (mesh.colors) from the coloured points of the scan: `points[i]`
// has the colour `colours[i]`, in the unit of the mesh. A vertex takes the weighted mean of the points
// within h of it, h the edge of its cell: resolution x 8 / its scale code (the finest code in bits 0-7
// of its word; 8 for a word without one and for a mesh without words). A point at distance d weighs
// exp(-4 (d / h)^2), the bell the engine's field gives the points of a cell of 0.9 to 1.5 mm with fewer
// than 50 points (its table's -12 over 3 h^2). Where no point lies within h, the search widens to 2h,
// then 4h, with the bell widened alike; beyond, the vertex takes the colour of the nearest point. The
// mean is taken in linear light (the sRGB bytes decoded, averaged, encoded again and rounded to the
// nearest byte): a border between red and blue mixes to (188, 0, 188), not to a darker (128, 0, 128).
// Points whose coordinates are not finite are passed over; with no point left, mesh.colors becomes
// empty. `colouring` (when given) receives the counts. Deterministic, the same for any number of
// threads; uses the OpenMP threads. 1 (TESSALINE_FAILURE) for lists of different lengths, more than
// 2^32 - 1 points, a resolution that is not a finite number above 0, a vertex that is not finite or
// triangles naming vertices that do not exist; mesh.colors is then unchanged.
TESSALINE_MESH_API int colourVertices(IndexedMesh& mesh, const std::vector<Vec3f>& points,
                                      const std::vector<Rgb>& colours, float resolution,
                                      VertexColouring* colouring = nullptr);

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
    std::size_t points = 0;  // usable points: finite coordinates, a normal of non-zero length
    // The usable points of each scale code, finest first: 64, 32, 16, 8, 4, 2, 1 (0 and unlisted codes
    // counting as 8), as the words were when measured.
    std::size_t codes[7] = {};
    std::size_t measured = 0;  // points whose neighbours were looked up (at most `max_measured`)
};

constexpr int SPACING_NEIGHBOURS = 64;

// Measures the spacing of all usable points of `frames` together, as the engine fuses them: every point
// is a neighbour candidate; the neighbours are looked up from `max_measured` points spread evenly over the
// scan (every ceil(points / max_measured)-th usable point; all of them when there are fewer). Both figures
// are 0 with fewer than two distinct points. Exact (the 64 nearest among all points, their squared
// distances rounded as nanoflann's k-d tree rounds them), on all cores, bit for bit the same for any
// thread count. The frames are only read.
TESSALINE_MESH_API int measurePointSpacing(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                           PointSpacing& spacing, std::size_t max_measured = 20000);

// A cheaper estimate of the density spacing, for where it only feeds a warning or a first guess: the
// neighbours are looked up among an even thinning of the usable points (every s-th, s = ceil(points /
// max_candidates)), from at most `max_measured` of those, and the density spacing of the thinned points is
// scaled back by 1 / sqrt(s): a surface sampled s times more thinly has its points sqrt(s) times farther
// apart. `density` is in the unit of the points; `median` stays 0 (the nearest neighbour is not measured:
// thinning moves it away); `measured` counts the thinned points measured; `scale_code` and `points` count
// all usable points, as measurePointSpacing does. With at most `max_candidates` points (s = 1) the result
// is measurePointSpacing's, exactly. On even samplings of a surface the density lies within a few percent
// of the exact one; on laser-line scans, whose points crowd along lines, it can stray further (2 % on the
// simulated scans of 1 to 10 million points, every 5th to 50th point). Deterministic; the frames are only
// read.
TESSALINE_MESH_API int estimatePointSpacing(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                            PointSpacing& spacing, std::size_t max_candidates = 200000,
                                            std::size_t max_measured = 20000);

// The edge of the cells the points ask for, in density spacings, that `resolutionForSpacing` chooses.
constexpr float RESOLUTION_PER_SPACING = 1.5f;

// The resolution for points this far apart: the one whose cells of `scale_code` have an edge of
// RESOLUTION_PER_SPACING density spacings (1.5 x density x scale_code / 8), kept within the engine's
// accepted 0.001 to 100000; 0 when the density spacing is not above 0 and finite.
TESSALINE_MESH_API float resolutionForSpacing(const PointSpacing& spacing);

// How chooseScaleCodes sized the cells of a scan.
struct ScaleCodeChoice {
    PointSpacing spacing;     // the scan's spacing, as measurePointSpacing measures it (from 20,000 points)
    float resolution = 0.0f;  // the run's resolution, the edge of code-8 cells, the finest; 0 when not chosen
    // Usable points given each code, finest first: 64, 32, 16, 8, 4, 2, 1 (only 8 to 1 are given).
    std::size_t points[7] = {};
    std::size_t finer_wishes = 0;    // usable points whose own code asked for cells finer than code 8's
    std::size_t finer_kept = 0;      // of them, those given the finest cells of the run (code 8)
    std::size_t neighbourhoods = 0;  // places whose density was measured: the cells of the search grid
};

// chooseScaleCodes: a point's cells are at least this many times the even spacing around it, times c_max / c
// (c its own scale code, c_max the finest code that a tenth of the points ask for) ...
constexpr float CELL_PER_LOCAL_SPACING = 1.1f;
// ... and this many, for a point that asks for cells finer than code 8's: a wish for finer cells is kept only
// where the points are dense enough for it with room to spare.
constexpr float FINER_CELL_PER_LOCAL_SPACING = 2.0f;

// The resolution chooseScaleCodes takes for points this far apart (`scale_code` read as c_max): the edge of
// the cells that a point asking for c_max gets where it lies as densely as the even spacing, given code 8:
// FINER_CELL_PER_LOCAL_SPACING x density when c_max asks for cells finer than code 8's, else
// resolutionForSpacing's RESOLUTION_PER_SPACING x density; kept within 0.001 to 100000, 0 when the density
// spacing is not above 0 and finite.
TESSALINE_MESH_API float autoResolutionForSpacing(const PointSpacing& spacing);

// For `--resolution auto`: sets the scale code (low byte of the word) of every usable point of `frames`
// from the density of the points around it, and chooses the resolution of the run. The density is measured once
// for each cell of a grid about as wide as the distance from a point as dense as the scan's median to its 64th
// nearest (measurePointSpacing's grid), around the cell's first point: the spacing of an even sampling as dense
// as the points within a ball around it (one edge of the grid, doubled until it holds 32 other points, at most 4
// edges), the surface they cover taken from how far their mean lies from the point (all of the ball's disc
// inside a surface, half at the border of the scan), so that the border of a scan is not taken for a sparse
// place. A point takes the largest spacing s among its cell and the 26 around it. Its cells should then be at
// least M x s x c_max / c wide, c its own code (0 and unlisted codes count as 8), c_max the finest code that at
// least a tenth of the points ask for, M CELL_PER_LOCAL_SPACING, or FINER_CELL_PER_LOCAL_SPACING where c asks
// for cells finer than code 8's: sparse points get larger cells, dense ones finer, and a wish for finer cells is
// kept where the points are dense enough for it and coarsened where they are not. The resolution (the edge of
// code-8 cells) is autoResolutionForSpacing's: the finest cells, those of points as dense as the scan's median
// that ask for c_max. Each point gets the finest of the codes 8, 4, 2, 1 whose cells are at least as wide as it
// should have: points as dense as the median that ask for c_max get code 8, and cells 8 times the resolution
// are the coarsest.
// Only 8 and coarser are given: the engine's rectification of levels, which spreads a wish to the bins of code 8
// around it, would otherwise bring bins of codes 4 and 16 side by side, and there the surface tears. The flags
// (bits 8-31) are kept, and the words of the points that a run leaves out (not finite, a normal of length 0, at
// the origin) are not touched. Deterministic, the same for any number of threads; uses the OpenMP threads. 1
// (TESSALINE_FAILURE) for a frame whose normals or words are not one a point, or more than 2^32 - 1 usable
// points; 66049 when memory runs out; the frames are then unchanged. With fewer than two distinct points
// `resolution` stays 0 and the words are not touched.
TESSALINE_MESH_API int chooseScaleCodes(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                        ScaleCodeChoice& choice);

// chooseScaleCodes in pieces, for a scan meshed tile by tile (tessaline.distributed): the figures over the
// whole scan from what each file gives, then each point's code from the points around it alone. Used as
// below they give every point the code chooseScaleCodes gives it over all frames, in their order.
struct ScaleCodeGrid {  // the grid whose cells the density is measured in
    double origin[3] = {0.0, 0.0, 0.0};
    double per_edge = 1.0;  // 1 / its edge
};

// The points of one frame that chooseScaleCodes sees (the first min(xyz, nor, w)), returned, and its usable
// ones by code into `codes` (finest first, as ScaleCodeChoice::points).
TESSALINE_MESH_API std::size_t spacingPointsOf(const FrameDataWithInfo& frame, std::size_t (&codes)[7]);
// The grid's sample is every step-th of all `points_seen` points (where usable); the measured points every
// stride-th usable point.
TESSALINE_MESH_API std::size_t spacingGridStep(std::size_t points_seen);
TESSALINE_MESH_API std::size_t spacingMeasureStride(std::size_t usable, std::size_t max_measured = 20000);
// Appends one frame's share of both samples: `seen_first` and `usable_first` are the places of its first point
// among all points seen and all usable points of the scan.
TESSALINE_MESH_API void spacingSamplesOf(const FrameDataWithInfo& frame, std::size_t seen_first,
                                         std::size_t usable_first, std::size_t grid_step, std::size_t stride,
                                         std::vector<Vec3f>& grid_sample, std::vector<Vec3f>& measured);
// The grid from its sample, in the scan's order, and the count of all points seen.
TESSALINE_MESH_API int spacingGridFromSample(const std::vector<Vec3f>& sample, std::size_t points_seen,
                                             ScaleCodeGrid& grid);
// The k smallest squared distances (ascending, padded with +inf) from each query to the usable points of
// `frames`, k a query, rounded as measurePointSpacing rounds them: the k smallest of the union of two sets
// of points are the k smallest of their two lists.
TESSALINE_MESH_API int nearestSquaredDistances(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                               const std::vector<Vec3f>& queries, std::size_t k,
                                               std::vector<float>& squared);
// The spacing and resolution from the measured points' k nearest over the whole scan (k = min(65, usable
// points)) and the usable points' codes: `choice.spacing` and `choice.resolution` as chooseScaleCodes sets them.
TESSALINE_MESH_API int scaleCodeChoiceFromNeighbours(const std::vector<float>& squared, std::size_t k,
                                                     const std::size_t (&codes)[7], ScaleCodeChoice& choice);
// Sets the codes of the usable points of `frames` from these points alone, on `grid`, at `resolution` and
// with c_max `finest_tenth`. A point's code is chooseScaleCodes' when the frames hold, in the scan's order,
// every usable point of the scan within 7 edges of the grid of it on each axis (its cell and the 26 around
// it, the balls of up to 4 edges around their first points). 1 for a resolution or grid not above 0.
TESSALINE_MESH_API int chooseScaleCodesWithin(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                              const ScaleCodeGrid& grid, float resolution, int finest_tenth);

// About how many triangles a run on these frames, at this resolution, gives where the points cover the
// surface: each point stands for density^2 of surface, and a cell of edge h (resolution x 8 / the point's
// scale code) gives about 2.8 triangles a h^2 of surface. A mesh far below this means cells too small for
// the points. 0 when the density spacing or the resolution is not above 0. Counted on all cores, the same
// for any thread count.
TESSALINE_MESH_API double expectedTriangles(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                            const PointSpacing& spacing, float resolution);
// The same from the points of each code that `spacing` counted, without a pass over the points: equal to
// the above where the words have not changed since the spacing was measured or estimated.
TESSALINE_MESH_API double expectedTriangles(const PointSpacing& spacing, float resolution);

// What estimateNormals knows of one frame.
struct FrameNormalSource {
    // The frame's normals are to be made (those it holds are ignored); false: it keeps its own, which then
    // orient the estimated points nearby.
    bool estimate = true;
    // Where the scanner stood when it took the frame is known: `sensor`, in the unit of the points.
    bool sensor_known = false;
    std::array<double, 3> sensor = {0.0, 0.0, 0.0};
};

// How estimateNormals went. points = toward_sensor + propagated + left_out.
struct NormalEstimate {
    std::size_t points = 0;         // points of the frames whose normals were to be made
    std::size_t toward_sensor = 0;  // given a normal facing their frame's scanner
    std::size_t propagated = 0;     // given a normal oriented over the neighbour graph, from the outside in
    // Given the normal (0, 0, 0), which the engine leaves out of a run (they still served as neighbours):
    std::size_t left_out = 0;
    std::size_t too_few_neighbours = 0;  // of them: fewer than half the neighbours within reach, or not finite
    std::size_t no_clear_plane = 0;      // of them: the smallest spread across their neighbours is not clear
    // Connected pieces of the neighbour graph that held no point of known side and were oriented from their
    // own extreme point; a small piece far from the rest may come out facing inward.
    std::size_t pieces_from_extremes = 0;
    int neighbours = 0;  // the neighbours a plane was fitted to
    float reach = 0.0f;  // neighbours farther than this did not count (unit of the points)
};

// How estimateNormals fits and orients; the defaults suit laser scans and sampled surfaces.
struct NormalOptions {
    int neighbours = 16;  // the plane of a point is fitted to it and its nearest neighbours, 5 to 64
    // A point is left out when the smallest spread of its neighbours (the least eigenvalue of their covariance)
    // exceeds this share of the middle one: a corner, a line, a blob.
    float clear_plane = 0.5f;
    // Neighbours beyond this many times the median distance to the `neighbours`-th nearest point (over
    // the scan) do not count: an isolated point is left out rather than fitted to a far surface.
    float reach = 4.0f;
    // The search and the fits on the processor's wider vectors where it has them (AVX2): the same normals, bit
    // for bit, sooner. False: as the compiler builds the rest of the library.
    bool vector_units = true;
};

// Makes the normals of the frames whose source says `estimate` (one source a frame; the frames' normal
// lists are replaced, one unit normal a point). For each point, a plane is fitted to it and its nearest
// neighbours among all finite points of all frames (least-squares: the normal is the direction of least
// spread). Where the frame's scanner position is known the normal is turned toward it. Elsewhere the
// normals are oriented over a minimum spanning tree of patches: the points of each small cell of the scan
// that lie on one smooth piece of surface (normals within some 45 degrees, the points in each other's
// planes) form a patch, turned to agree with its first point, and the patches of one cell and of
// neighbouring cells are joined by edges weighted by how far their normals are from parallel and how far
// each lies off the other's plane, so that the orientation does not jump across a thin wall. The tree is
// walked from the patches of known side in its connected piece (kept normals, normals faced toward a
// scanner), or, in a piece without any, from its extreme point whose normal lies closest to its axis (the
// point of largest x faces +x, of smallest x -x, and so on).
// A point whose plane is ambiguous (see NormalOptions) or that is not finite is given (0, 0, 0) and counted.
// Deterministic, the same for any number of threads; uses the OpenMP threads. `estimate` receives the counts.
// 1 (TESSALINE_FAILURE) for sources that do not match the frames (one a frame, a frame to estimate that is
// null, a scanner position not finite), options out of range, or more points than it indexes (2^32 - 1); the
// frames are then unchanged.
TESSALINE_MESH_API int estimateNormals(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                       const std::vector<FrameNormalSource>& sources, NormalEstimate& estimate,
                                       const NormalOptions& options = NormalOptions());

// estimateNormals in pieces, for a scan meshed tile by tile (tessaline.distributed): what it measures over
// the whole scan from samples each file gives, then the normals of a part of the scan from its points and
// those around it. Used as below they give every point the normal estimateNormals gives it over all frames.
struct NormalGrid {  // the cells the search sorts the points into, and the reach of a neighbour
    std::array<double, 3> origin = {0.0, 0.0, 0.0};  // the smallest coordinates of all finite points
    double first_edge = 1.0;  // the cells of the first sort, from the guess (the reach is measured in these)
    double edge = 1.0;        // the cells of the search: first_edge, or those of the second sort
    double reach = 0.0;       // neighbours farther off do not count (NormalOptions::reach x the k-th distance)
};
// The guess is made from every step-th of the scan's `finite_points` finite points (in the frames' order).
TESSALINE_MESH_API std::size_t normalGuessStep(std::size_t finite_points);
// The guess at the k-th distance from that sample, and the edge of the first sort's cells for it and the
// extent of the scan (its largest side).
TESSALINE_MESH_API double normalGuessFromSample(const std::vector<Vec3f>& sample, std::size_t finite_points, int k);
TESSALINE_MESH_API double normalCellEdge(double wish, double extent);
// The reach is measured on every step-th point in the order of the first sort (by cell, then the frames').
TESSALINE_MESH_API std::size_t normalReachStep(std::size_t finite_points);
// The cells of points (their codes, whose order is the sort's) on cells of `edge` from `origin`.
TESSALINE_MESH_API void normalCellCodes(const std::vector<Vec3f>& points, const std::array<double, 3>& origin,
                                        double edge, std::vector<std::uint64_t>& codes);
// For each query, the `count` smallest squared distances (ascending, +inf padded) to `points` that lie in the
// cells (of `edge` from `origin`) the reach's search looks at: the k + 1 smallest over all files are the ones
// it finds.
TESSALINE_MESH_API int normalReachDistances(const std::vector<Vec3f>& points, const std::vector<Vec3f>& queries,
                                            const std::array<double, 3>& origin, double edge, int count,
                                            std::vector<float>& squared);
// The k-th distances of the measured points (negative: fewer than k + 1 found) to the grid's second edge
// (first_edge when not sorted again) and reach; `grid.origin` and `grid.first_edge` are given, `extent` the
// scan's largest side.
TESSALINE_MESH_API void normalGridFromDistances(std::vector<double> kth, double extent, const NormalOptions& options,
                                                NormalGrid& grid);
// The normals of the frames whose source says `estimate`, as estimateNormals makes them over the whole scan,
// for every point with all finite points of the scan within `grid.reach` of it among the frames (given in
// the scan's order). Only for sources that know their scanner: 1 (TESSALINE_FAILURE) where one does not.
TESSALINE_MESH_API int estimateNormalsWithin(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                             const std::vector<FrameNormalSource>& sources, const NormalGrid& grid,
                                             NormalEstimate& estimate, const NormalOptions& options = NormalOptions());

}  // namespace SurfaceReconstruction
