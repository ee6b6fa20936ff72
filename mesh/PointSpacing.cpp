// How far apart the points of a scan lie, and the resolution that suits them.
#include <cmath>
#include <nanoflann.hpp>

#include "MeshInternal.h"

namespace SurfaceReconstruction {

namespace {

// The engine's resolution limits.
constexpr float LOWEST_RESOLUTION = 0.001f;
constexpr float HIGHEST_RESOLUTION = 100000.0f;
// Triangles a cell edge squared of surface gives, measured on scans of the Stanford bunny from 0.5 to
// 4 mm (2.85 to 2.9), rounded down.
constexpr double TRIANGLES_PER_SQUARE_EDGE = 2.8;

// A point's scale code, with 0 and unlisted codes read as 8 (one cell a resolution).
int scaleCode(std::int32_t word) {
    const int code = word & 0xFF;
    return code == 1 || code == 2 || code == 4 || code == 16 || code == 32 || code == 64 ? code : 8;
}

// A point the engine uses: finite, with a normal of some length, and not at the origin (the engine
// skips points whose coordinates are all nearer to zero than 0.1).
bool usable(const Vec3f& p, const Vec3f& n) {
    for (int k = 0; k < 3; ++k)
        if (!std::isfinite(p[k]) || !std::isfinite(n[k])) return false;
    if (!(n[0] * n[0] + n[1] * n[1] + n[2] * n[2] > 0.0f)) return false;
    return !(std::fabs(p[0]) < 0.1f && std::fabs(p[1]) < 0.1f && std::fabs(p[2]) < 0.1f);
}

struct Cloud {
    std::vector<Vec3f> points;
    std::size_t kdtree_get_point_count() const { return points.size(); }
    float kdtree_get_pt(std::size_t i, std::size_t k) const { return points[i][k]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const {
        return false;
    }
};

using Tree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Cloud>, Cloud, 3, std::uint32_t>;

constexpr std::size_t NEIGHBOURS = SPACING_NEIGHBOURS + 1;  // the measured point itself comes first
constexpr double PI = 3.14159265358979323846;

// The median of `values` (reordered); 0 when empty.
float median(std::vector<float>& values) {
    if (values.empty()) return 0.0f;
    const std::size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle), values.end());
    float m = values[middle];
    if (values.size() % 2 == 0)
        m = 0.5f * (m + *std::max_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle)));
    return m;
}

int measure(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, PointSpacing& spacing,
            std::size_t max_measured) {
    spacing = PointSpacing();
    if (max_measured == 0) return 1;
    Cloud cloud;
    std::size_t codes[7] = {};  // points asking for 64, 32, 16, 8, 4, 2, 1: finest first
    for (const auto& frame : frames) {
        if (!frame) continue;
        const std::size_t n = std::min(frame->xyz.size(), frame->nor.size());
        for (std::size_t i = 0; i < n; ++i) {
            if (!usable(frame->xyz[i], frame->nor[i])) continue;
            cloud.points.push_back(frame->xyz[i]);
            int finest_first = 0;
            for (int code = 64; code > scaleCode(i < frame->w.size() ? frame->w[i] : 8); code >>= 1) ++finest_first;
            ++codes[finest_first];
        }
    }
    for (std::size_t k = 0, sum = 0; k < 7; ++k) {
        sum += codes[k];
        if (10 * sum >= cloud.points.size()) {
            spacing.scale_code = 64 >> k;
            break;
        }
    }
    if (cloud.points.size() > UINT32_MAX) return 1;
    spacing.points = cloud.points.size();
    if (cloud.points.size() < 2) return 0;
    const Tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(16));
    // Every stride-th point, so that the measured ones spread over the whole scan.
    const std::size_t stride = (cloud.points.size() + max_measured - 1) / max_measured;
    const std::size_t k = std::min(NEIGHBOURS, cloud.points.size());
    std::vector<float> nearest, even;
    std::vector<std::uint32_t> index(k);
    std::vector<float> squared(k);
    for (std::size_t i = 0; i < cloud.points.size(); i += stride) {
        ++spacing.measured;
        const std::size_t found = tree.knnSearch(cloud.points[i].data(), k, index.data(), squared.data());
        // The point itself is among the results (at distance 0, maybe not first among duplicates).
        for (std::size_t j = 0; j < found; ++j) {
            if (squared[j] > 0.0f) {
                nearest.push_back(std::sqrt(squared[j]));
                break;
            }
        }
        if (found >= 2 && squared[found - 1] > 0.0f)
            even.push_back(static_cast<float>(std::sqrt(squared[found - 1] * PI / static_cast<double>(found - 1))));
    }
    spacing.median = median(nearest);
    spacing.density = spacing.median > 0.0f ? median(even) : 0.0f;
    return 0;
}

}  // namespace

int measurePointSpacing(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, PointSpacing& spacing,
                        std::size_t max_measured) {
    const int status = mesh_internal::guarded([&] { return measure(frames, spacing, max_measured); });
    if (status != 0) spacing = PointSpacing();
    return status;
}

float resolutionForSpacing(const PointSpacing& spacing) {
    if (!(spacing.density > 0.0f) || !std::isfinite(spacing.density)) return 0.0f;
    const float resolution = RESOLUTION_PER_SPACING * spacing.density * static_cast<float>(spacing.scale_code) / 8.0f;
    return std::min(std::max(resolution, LOWEST_RESOLUTION), HIGHEST_RESOLUTION);
}

double expectedTriangles(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, const PointSpacing& spacing,
                         float resolution) {
    const double area = static_cast<double>(spacing.density) * spacing.density;  // surface a point stands for
    if (!(area > 0.0) || !(resolution > 0.0f)) return 0.0;
    // Summed over the points: the surface each stands for over the square of its cell's edge.
    double cells = 0.0;
    for (const auto& frame : frames) {
        if (!frame) continue;
        const std::size_t n = std::min({frame->xyz.size(), frame->nor.size(), frame->w.size()});
        for (std::size_t i = 0; i < n; ++i) {
            if (!usable(frame->xyz[i], frame->nor[i])) continue;
            const double edge = static_cast<double>(resolution) * 8.0 / scaleCode(frame->w[i]);
            cells += area / (edge * edge);
        }
    }
    return TRIANGLES_PER_SQUARE_EDGE * cells;
}

}  // namespace SurfaceReconstruction
