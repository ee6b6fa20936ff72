// How close two surfaces lie: each is sampled evenly, and every sample of one is measured to the other.
// A surface is a triangle mesh or the built-in part (whose field gives the distance directly).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "MeshIO.h"

namespace tessaline_tools {

using P3 = std::array<float, 3>;
using Triangle = std::array<P3, 3>;

// Squared distance from p to the triangle abc.
float pointTriangleDistance2(const P3& p, const P3& a, const P3& b, const P3& c);

// Triangles bucketed by the cells of a uniform grid that their bounding boxes touch; the search grows
// shell by shell, so far points get their exact distance too.
class TriangleGrid {
public:
    TriangleGrid(std::vector<Triangle> triangles, float cell);
    float distance(const P3& p) const;
    bool empty() const { return m_triangles.empty(); }

private:
    long index(float v) const;
    static std::uint64_t key(long x, long y, long z);

    std::vector<Triangle> m_triangles;
    float m_cell;
    long m_lo[3] = {0, 0, 0}, m_hi[3] = {0, 0, 0};
    std::unordered_map<std::uint64_t, std::vector<std::uint32_t>> m_cells;
    std::vector<std::uint32_t> m_large;  // triangles over too many cells to list in each: searched by every query
};

// A surface to compare: samples spread evenly over it, and the distance of any point to it.
class Surface {
public:
    virtual ~Surface() = default;
    virtual float distance(const P3& p) const = 0;
    const std::vector<P3>& samples() const { return m_samples; }
    // The area the samples stand for, in square units; 0 where it is not known.
    double area() const { return m_area; }

protected:
    std::vector<P3> m_samples;
    double m_area = 0;
};

// A triangle mesh: `sample_count` points spread by area (deterministic).
std::unique_ptr<Surface> meshSurface(std::vector<Triangle> triangles, std::size_t sample_count);
std::unique_ptr<Surface> meshSurface(const IndexedMesh& mesh, std::size_t sample_count);
std::unique_ptr<Surface> meshSurface(const SurfaceReconstruction::MultiMeshData& soup, std::size_t sample_count);
// The built-in part, its reachable surface sampled about every `spacing` millimetres.
std::unique_ptr<Surface> partSurface(double spacing);

struct DistanceStats {
    double median = 0, p95 = 0, max = 0, mean = 0;
};

struct Comparison {
    DistanceStats to_reference;    // from the samples of the mesh to the reference
    DistanceStats from_reference;  // from the samples of the reference to the mesh
    double chamfer = 0;            // mean of both ways' mean distances
    std::vector<double> thresholds, fscore, precision, recall;
    double coverage_threshold = 0;
    double coverage = 0;  // share of the reference within coverage_threshold of the mesh
    double far_threshold = 0.25;
    double far_area = 0;  // area of the mesh farther than far_threshold from the reference
};

// `thresholds` for the F-scores; the reference counts as covered where the mesh lies within
// `coverage_threshold`.
Comparison compareSurfaces(const Surface& mesh, const Surface& reference, const std::vector<double>& thresholds,
                           double coverage_threshold);

}  // namespace tessaline_tools
