// Surface sampling, point-to-mesh distances and the statistics of a comparison.
#include "SurfaceCompare.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "Part.h"

namespace tessaline_tools {

namespace {

constexpr double LARGE_TRIANGLE_CELLS = 4096;  // a triangle over more grid cells is kept apart
constexpr long MAX_SHELLS = 64;                // shells a distance query walks before it measures every triangle

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
        // A grid cell of about three mean edge lengths keeps the buckets short.
        double edge = 0;
        for (const Triangle& t : triangles) edge += std::sqrt(dot(sub(t[1], t[0]), sub(t[1], t[0])));
        const float cell = triangles.empty() ? 1.0f : static_cast<float>(std::max(3.0 * edge / triangles.size(), 1e-3));
        m_grid.reset(new TriangleGrid(std::move(triangles), cell));
    }

    float distance(const P3& p) const override { return m_grid->distance(p); }

private:
    std::unique_ptr<TriangleGrid> m_grid;
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

TriangleGrid::TriangleGrid(std::vector<Triangle> triangles, float cell)
    : m_triangles(std::move(triangles)), m_cell(cell) {
    for (int k = 0; k < 3; ++k) {
        m_lo[k] = std::numeric_limits<long>::max();
        m_hi[k] = std::numeric_limits<long>::min();
    }
    for (std::size_t t = 0; t < m_triangles.size(); ++t) {
        long lo[3], hi[3];
        const Triangle& tri = m_triangles[t];
        for (int k = 0; k < 3; ++k) {
            lo[k] = index(std::min({tri[0][k], tri[1][k], tri[2][k]}));
            hi[k] = index(std::max({tri[0][k], tri[1][k], tri[2][k]}));
            m_lo[k] = std::min(m_lo[k], lo[k]);
            m_hi[k] = std::max(m_hi[k], hi[k]);
        }
        const double span = double(hi[0] - lo[0] + 1) * double(hi[1] - lo[1] + 1) * double(hi[2] - lo[2] + 1);
        if (span > LARGE_TRIANGLE_CELLS) {
            m_large.push_back(static_cast<std::uint32_t>(t));
            continue;
        }
        for (long x = lo[0]; x <= hi[0]; ++x)
            for (long y = lo[1]; y <= hi[1]; ++y)
                for (long z = lo[2]; z <= hi[2]; ++z) m_cells[key(x, y, z)].push_back(static_cast<std::uint32_t>(t));
    }
}

long TriangleGrid::index(float v) const {
    const double i = std::floor(static_cast<double>(v) / m_cell);
    return static_cast<long>(std::max(-1e15, std::min(1e15, i)));
}

std::uint64_t TriangleGrid::key(long x, long y, long z) {
    return (static_cast<std::uint64_t>(x) * 73856093ull) ^ (static_cast<std::uint64_t>(y) * 19349663ull) ^
           (static_cast<std::uint64_t>(z) * 83492791ull);
}

float TriangleGrid::distance(const P3& p) const {
    if (m_triangles.empty()) return std::numeric_limits<float>::infinity();
    float best = std::numeric_limits<float>::infinity();
    const long c[3] = {index(p[0]), index(p[1]), index(p[2])};
    // Shell r holds the cells at Chebyshev distance r; after it, every unsearched triangle lies at
    // least r cells away. The search ends there, or where the shells have passed the whole grid.
    // Shells nearer than the grid's box are empty: the search starts at the box.
    long reach = 0, first = 0;
    for (int k = 0; k < 3; ++k) {
        reach = std::max({reach, std::labs(c[k] - m_lo[k]), std::labs(c[k] - m_hi[k])});
        first = std::max({first, m_lo[k] - c[k], c[k] - m_hi[k]});
    }
    for (std::uint32_t t : m_large) {
        const Triangle& tri = m_triangles[t];
        best = std::min(best, pointTriangleDistance2(p, tri[0], tri[1], tri[2]));
    }
    const auto visit = [&](long x, long y, long z) {
        auto found = m_cells.find(key(x, y, z));
        if (found == m_cells.end()) return;
        for (std::uint32_t t : found->second) {
            const Triangle& tri = m_triangles[t];
            best = std::min(best, pointTriangleDistance2(p, tri[0], tri[1], tri[2]));
        }
    };
    for (long r = first; r <= reach; ++r) {
        // A point far from a grid of large or scattered triangles could walk shells almost without end:
        // past a bounded walk every triangle is measured instead.
        if (r - first > MAX_SHELLS) {
            for (const Triangle& tri : m_triangles)
                best = std::min(best, pointTriangleDistance2(p, tri[0], tri[1], tri[2]));
            break;
        }
        const long x0 = std::max(c[0] - r, m_lo[0]), x1 = std::min(c[0] + r, m_hi[0]);
        const long y0 = std::max(c[1] - r, m_lo[1]), y1 = std::min(c[1] + r, m_hi[1]);
        const long z0 = std::max(c[2] - r, m_lo[2]), z1 = std::min(c[2] + r, m_hi[2]);
        for (long x = x0; x <= x1; ++x)
            for (long y = y0; y <= y1; ++y) {
                if (x == c[0] - r || x == c[0] + r || y == c[1] - r || y == c[1] + r) {
                    for (long z = z0; z <= z1; ++z) visit(x, y, z);
                } else {
                    if (c[2] - r >= m_lo[2] && c[2] - r <= m_hi[2]) visit(x, y, c[2] - r);
                    if (r > 0 && c[2] + r >= m_lo[2] && c[2] + r <= m_hi[2]) visit(x, y, c[2] + r);
                }
            }
        const float searched = static_cast<float>(r) * m_cell;
        if (best <= searched * searched) break;
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
