// How close two surfaces lie: each is sampled evenly, and every sample of one is measured to the other.
// A surface is a triangle mesh or the built-in part (whose field gives the distance directly).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "MeshIO.h"

namespace tessaline_tools {

using P3 = std::array<float, 3>;
using Triangle = std::array<P3, 3>;

// Squared distance from p to the triangle abc.
float pointTriangleDistance2(const P3& p, const P3& a, const P3& b, const P3& c);

// Triangles in a tree of bounding boxes: a distance query descends into the nearer box first and
// passes over every box farther than the best distance so far, so points near and far alike take about
// the logarithm of the triangle count.
class TriangleTree {
public:
    explicit TriangleTree(std::vector<Triangle> triangles);
    float distance(const P3& p) const;
    bool empty() const { return m_triangles.empty(); }

private:
    struct Node {
        float lo[3], hi[3];
        std::uint32_t a = 0, b = 0;  // a leaf: its triangles from `a`; a branch: its two children
        std::uint32_t count = 0;     // triangles of a leaf; 0 for a branch
    };
    std::uint32_t build(std::uint32_t first, std::uint32_t count, std::vector<P3>& centres);

    std::vector<Triangle> m_triangles;  // in the tree's order
    std::vector<Node> m_nodes;
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
