// Distances from points to a triangle mesh, through a uniform grid of the triangles' bounding boxes.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <unordered_map>
#include <vector>

namespace SurfaceReconstruction {
namespace testing_support {

using P3 = std::array<float, 3>;

inline P3 sub(const P3& a, const P3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
inline float dot(const P3& a, const P3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Squared distance from p to the triangle abc: the closest point by the regions of the triangle.
inline float pointTriangleDistance2(const P3& p, const P3& a, const P3& b, const P3& c) {
    const P3 ab = sub(b, a), ac = sub(c, a), ap = sub(p, a);
    const float d1 = dot(ab, ap), d2 = dot(ac, ap);
    const auto dist2 = [&](const P3& q) { const P3 d = sub(p, q); return dot(d, d); };
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

// Triangles bucketed by the grid cells their bounding boxes touch; distances beyond one cell are not
// searched and come back as `cell`.
class TriangleGrid {
public:
    TriangleGrid(std::vector<std::array<P3, 3>> triangles, float cell) : m_triangles(std::move(triangles)), m_cell(cell) {
        for (std::size_t t = 0; t < m_triangles.size(); ++t) {
            long lo[3], hi[3];
            for (int k = 0; k < 3; ++k) {
                const auto& tri = m_triangles[t];
                lo[k] = index(std::min({tri[0][k], tri[1][k], tri[2][k]}));
                hi[k] = index(std::max({tri[0][k], tri[1][k], tri[2][k]}));
            }
            for (long x = lo[0]; x <= hi[0]; ++x)
                for (long y = lo[1]; y <= hi[1]; ++y)
                    for (long z = lo[2]; z <= hi[2]; ++z) m_cells[key(x, y, z)].push_back(t);
        }
    }

    float distance(const P3& p) const {
        float best = m_cell * m_cell;
        const long c[3] = {index(p[0]), index(p[1]), index(p[2])};
        for (long dx = -1; dx <= 1; ++dx)
            for (long dy = -1; dy <= 1; ++dy)
                for (long dz = -1; dz <= 1; ++dz) {
                    auto found = m_cells.find(key(c[0] + dx, c[1] + dy, c[2] + dz));
                    if (found == m_cells.end()) continue;
                    for (std::size_t t : found->second) {
                        const auto& tri = m_triangles[t];
                        best = std::min(best, pointTriangleDistance2(p, tri[0], tri[1], tri[2]));
                    }
                }
        return std::sqrt(best);
    }

private:
    long index(float v) const { return static_cast<long>(std::floor(v / m_cell)); }
    static long long key(long x, long y, long z) { return (x * 73856093LL) ^ (y * 19349663LL) ^ (z * 83492791LL); }

    std::vector<std::array<P3, 3>> m_triangles;
    float m_cell;
    std::unordered_map<long long, std::vector<std::size_t>> m_cells;
};

}  // namespace testing_support
}  // namespace SurfaceReconstruction
