// Surface sampling, point-to-mesh distances and the statistics of a comparison.
#include "SurfaceCompare.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "Part.h"

namespace tessaline_tools {

namespace {

constexpr std::uint32_t LEAF_TRIANGLES = 4;

P3 sub(const P3& a, const P3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
float dot(const P3& a, const P3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

class MeshSurface : public Surface {
public:
    MeshSurface(std::vector<Triangle> triangles, std::size_t sample_count) {
        // Samples by area: a fixed stream of random numbers picks triangles by cumulative area and a
        // point in each, so the same mesh always gives the same samples.
        std::vector<double> cumulative(triangles.size());
        double total = 0;
        for (std::size_t t = 0; t < triangles.size(); ++t) {
            const P3 u = sub(triangles[t][1], triangles[t][0]), v = sub(triangles[t][2], triangles[t][0]);
            const double cx = double(u[1]) * v[2] - double(u[2]) * v[1], cy = double(u[2]) * v[0] - double(u[0]) * v[2],
                         cz = double(u[0]) * v[1] - double(u[1]) * v[0];
            total += 0.5 * std::sqrt(cx * cx + cy * cy + cz * cz);
            cumulative[t] = total;
        }
        m_area = total;
        if (total > 0) {
            std::mt19937_64 random(12345);
            const auto uniform = [&random]() {
                return static_cast<double>(random() >> 11) * (1.0 / 9007199254740992.0);
            };
            m_samples.reserve(sample_count);
            for (std::size_t i = 0; i < sample_count; ++i) {
                const double pick = uniform() * total;
                const std::size_t t = std::min<std::size_t>(
                    static_cast<std::size_t>(std::upper_bound(cumulative.begin(), cumulative.end(), pick) -
                                             cumulative.begin()),
                    triangles.size() - 1);
                double a = uniform(), b = uniform();
                if (a + b > 1) {
                    a = 1 - a;
                    b = 1 - b;
                }
                const Triangle& tri = triangles[t];
                P3 p;
                for (int k = 0; k < 3; ++k)
                    p[k] = static_cast<float>(tri[0][k] + a * (tri[1][k] - tri[0][k]) + b * (tri[2][k] - tri[0][k]));
                m_samples.push_back(p);
            }
        }
        m_tree.reset(new TriangleTree(std::move(triangles)));
    }

    float distance(const P3& p) const override { return m_tree->distance(p); }

private:
    std::unique_ptr<TriangleTree> m_tree;
};

class PartSurface : public Surface {
public:
    explicit PartSurface(double spacing) { m_samples = Part::surfaceSamples(spacing); }
    float distance(const P3& p) const override {
        return static_cast<float>(std::fabs(Part::distance({p[0], p[1], p[2]})));
    }
};

DistanceStats statsOf(std::vector<float> d) {
    DistanceStats s;
    if (d.empty()) return s;
    std::sort(d.begin(), d.end());
    double sum = 0;
    for (float v : d) sum += v;
    s.median = d[d.size() / 2];
    s.p95 = d[std::min(d.size() - 1, d.size() * 95 / 100)];
    s.max = d.back();
    s.mean = sum / static_cast<double>(d.size());
    return s;
}

std::vector<float> distances(const std::vector<P3>& points, const Surface& to) {
    std::vector<float> d(points.size());
#pragma omp parallel for schedule(dynamic, 4096)
    for (long i = 0; i < static_cast<long>(points.size()); ++i)
        d[static_cast<std::size_t>(i)] = to.distance(points[static_cast<std::size_t>(i)]);
    return d;
}

double shareWithin(const std::vector<float>& d, double threshold) {
    if (d.empty()) return 0;
    std::size_t n = 0;
    for (float v : d) n += v <= threshold ? 1 : 0;
    return static_cast<double>(n) / static_cast<double>(d.size());
}

}  // namespace

float pointTriangleDistance2(const P3& p, const P3& a, const P3& b, const P3& c) {
    // The closest point by the regions of the triangle (vertices, edges, face).
    const P3 ab = sub(b, a), ac = sub(c, a), ap = sub(p, a);
    const float d1 = dot(ab, ap), d2 = dot(ac, ap);
    const auto dist2 = [&](const P3& q) {
        const P3 d = sub(p, q);
        return dot(d, d);
    };
    if (d1 <= 0 && d2 <= 0) return dist2(a);
    const P3 bp = sub(p, b);
    const float d3 = dot(ab, bp), d4 = dot(ac, bp);
    if (d3 >= 0 && d4 <= d3) return dist2(b);
    const float vc = d1 * d4 - d3 * d2;
    if (vc <= 0 && d1 >= 0 && d3 <= 0) {
        const float v = d1 / (d1 - d3);
        return dist2({a[0] + v * ab[0], a[1] + v * ab[1], a[2] + v * ab[2]});
    }
    const P3 cp = sub(p, c);
    const float d5 = dot(ab, cp), d6 = dot(ac, cp);
    if (d6 >= 0 && d5 <= d6) return dist2(c);
    const float vb = d5 * d2 - d1 * d6;
    if (vb <= 0 && d2 >= 0 && d6 <= 0) {
        const float w = d2 / (d2 - d6);
        return dist2({a[0] + w * ac[0], a[1] + w * ac[1], a[2] + w * ac[2]});
    }
    const float va = d3 * d6 - d5 * d4;
    if (va <= 0 && (d4 - d3) >= 0 && (d5 - d6) >= 0) {
        const float w = (d4 - d3) / ((d4 - d3) + (d5 - d6));
        return dist2({b[0] + w * (c[0] - b[0]), b[1] + w * (c[1] - b[1]), b[2] + w * (c[2] - b[2])});
    }
    const float denom = 1.0f / (va + vb + vc);
    const float v = vb * denom, w = vc * denom;
    return dist2({a[0] + ab[0] * v + ac[0] * w, a[1] + ab[1] * v + ac[1] * w, a[2] + ab[2] * v + ac[2] * w});
}

TriangleTree::TriangleTree(std::vector<Triangle> triangles) : m_triangles(std::move(triangles)) {
    if (m_triangles.empty()) return;
    std::vector<P3> centres(m_triangles.size());
    for (std::size_t t = 0; t < m_triangles.size(); ++t)
        for (int k = 0; k < 3; ++k)
            centres[t][k] = (m_triangles[t][0][k] + m_triangles[t][1][k] + m_triangles[t][2][k]) / 3.0f;
    m_nodes.reserve(2 * m_triangles.size() / LEAF_TRIANGLES + 1);
    build(0, static_cast<std::uint32_t>(m_triangles.size()), centres);
}

std::uint32_t TriangleTree::build(std::uint32_t first, std::uint32_t count, std::vector<P3>& centres) {
    const std::uint32_t index = static_cast<std::uint32_t>(m_nodes.size());
    m_nodes.emplace_back();
    Node node;
    for (int k = 0; k < 3; ++k) {
        node.lo[k] = std::numeric_limits<float>::infinity();
        node.hi[k] = -std::numeric_limits<float>::infinity();
    }
    float centre_lo[3] = {node.lo[0], node.lo[1], node.lo[2]}, centre_hi[3] = {node.hi[0], node.hi[1], node.hi[2]};
    for (std::uint32_t t = first; t < first + count; ++t)
        for (int k = 0; k < 3; ++k) {
            for (const P3& corner : m_triangles[t]) {
                node.lo[k] = std::min(node.lo[k], corner[k]);
                node.hi[k] = std::max(node.hi[k], corner[k]);
            }
            centre_lo[k] = std::min(centre_lo[k], centres[t][k]);
            centre_hi[k] = std::max(centre_hi[k], centres[t][k]);
        }
    if (count <= LEAF_TRIANGLES) {
        node.a = first;
        node.count = count;
        m_nodes[index] = node;
        return index;
    }
    // Halves by the median centre along the axis where the centres spread most.
    int axis = 0;
    for (int k = 1; k < 3; ++k)
        if (centre_hi[k] - centre_lo[k] > centre_hi[axis] - centre_lo[axis]) axis = k;
    std::vector<std::uint32_t> order(count);
    for (std::uint32_t i = 0; i < count; ++i) order[i] = first + i;
    const std::uint32_t half = count / 2;
    std::nth_element(order.begin(), order.begin() + half, order.end(), [&](std::uint32_t a, std::uint32_t b) {
        return centres[a][axis] < centres[b][axis] || (centres[a][axis] == centres[b][axis] && a < b);
    });
    std::vector<Triangle> triangles(count);
    std::vector<P3> moved(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        triangles[i] = m_triangles[order[i]];
        moved[i] = centres[order[i]];
    }
    std::copy(triangles.begin(), triangles.end(), m_triangles.begin() + first);
    std::copy(moved.begin(), moved.end(), centres.begin() + first);
    node.a = build(first, half, centres);
    node.b = build(first + half, count - half, centres);
    m_nodes[index] = node;
    return index;
}

float TriangleTree::distance(const P3& p) const {
    if (m_triangles.empty()) return std::numeric_limits<float>::infinity();
    const auto boxDistance2 = [&p](const Node& n) {
        float d2 = 0.0f;
        for (int k = 0; k < 3; ++k) {
            const float d = std::max({n.lo[k] - p[k], 0.0f, p[k] - n.hi[k]});
            d2 += d * d;
        }
        return d2;
    };
    float best = std::numeric_limits<float>::infinity();
    // Depth-first, the nearer child on top; the tree is balanced, so its depth is about log2 of the leaves.
    std::uint32_t stack[2 * 64];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const Node& node = m_nodes[stack[--depth]];
        if (boxDistance2(node) > best) continue;  // nothing in it comes nearer
        if (node.count > 0) {
            for (std::uint32_t t = node.a; t < node.a + node.count; ++t) {
                const Triangle& tri = m_triangles[t];
                best = std::min(best, pointTriangleDistance2(p, tri[0], tri[1], tri[2]));
            }
            continue;
        }
        const bool a_nearer = boxDistance2(m_nodes[node.a]) <= boxDistance2(m_nodes[node.b]);
        stack[depth++] = a_nearer ? node.b : node.a;
        stack[depth++] = a_nearer ? node.a : node.b;
    }
    return std::sqrt(best);
}

std::unique_ptr<Surface> meshSurface(std::vector<Triangle> triangles, std::size_t sample_count) {
    return std::unique_ptr<Surface>(new MeshSurface(std::move(triangles), sample_count));
}

std::unique_ptr<Surface> meshSurface(const IndexedMesh& mesh, std::size_t sample_count) {
    std::vector<Triangle> triangles;
    triangles.reserve(mesh.triangles.size());
    for (const auto& t : mesh.triangles)
        triangles.push_back({mesh.vertices[static_cast<std::size_t>(t[0])],
                             mesh.vertices[static_cast<std::size_t>(t[1])],
                             mesh.vertices[static_cast<std::size_t>(t[2])]});
    return meshSurface(std::move(triangles), sample_count);
}

std::unique_ptr<Surface> meshSurface(const SurfaceReconstruction::MultiMeshData& soup, std::size_t sample_count) {
    std::vector<Triangle> triangles;
    triangles.reserve(soup.xyz.size());
    for (const auto& t : soup.xyz)
        triangles.push_back(
            {P3{t.xyz[0], t.xyz[1], t.xyz[2]}, P3{t.xyz[3], t.xyz[4], t.xyz[5]}, P3{t.xyz[6], t.xyz[7], t.xyz[8]}});
    return meshSurface(std::move(triangles), sample_count);
}

std::unique_ptr<Surface> partSurface(double spacing) { return std::unique_ptr<Surface>(new PartSurface(spacing)); }

Comparison compareSurfaces(const Surface& mesh, const Surface& reference, const std::vector<double>& thresholds,
                           double coverage_threshold) {
    Comparison result;
    const std::vector<float> forward = distances(mesh.samples(), reference);
    const std::vector<float> backward = distances(reference.samples(), mesh);
    result.to_reference = statsOf(forward);
    result.from_reference = statsOf(backward);
    result.chamfer = 0.5 * (result.to_reference.mean + result.from_reference.mean);
    result.thresholds = thresholds;
    for (double t : thresholds) {
        const double precision = shareWithin(forward, t), recall = shareWithin(backward, t);
        result.precision.push_back(precision);
        result.recall.push_back(recall);
        result.fscore.push_back(precision + recall > 0 ? 2 * precision * recall / (precision + recall) : 0.0);
    }
    result.coverage_threshold = coverage_threshold;
    result.coverage = shareWithin(backward, coverage_threshold);
    result.far_area = mesh.area() * (1.0 - shareWithin(forward, result.far_threshold));
    return result;
}

}  // namespace tessaline_tools
