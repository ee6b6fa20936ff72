// Marker filter: matching, statistics and the two passes over the frames.
#include "engine/MarkerFilter.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <utility>

#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/MemoryFailure.h"

namespace SurfaceReconstruction {

int MarkerFilter::init() {
    m_opted_markers = std::make_shared<std::vector<OptedMarker>>();
    m_inited = true;
    return 0;
}

int MarkerFilter::deInit() {
    m_opted_markers.reset();  // cloud and tree stay until they are replaced
    m_inited = false;
    return 0;
}

int MarkerFilter::setOptimizedMarkers(const std::shared_ptr<std::vector<OptedMarker>>& markers) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    if (!markers) {
        m_last_error = "[MarkerFilter] setOptimizedMarkers markers == nullptr";
        return 1;
    }
    return runGuarded(m_last_error, {1, "[MarkerFilter] setOptimizedMarkers try catch error!"}, [&]() -> int {
        auto cloud = std::make_shared<PointXYZLNormalCloud>();
        cloud->points.resize(markers->size());
        for (std::size_t i = 0; i < markers->size(); ++i) {
            const OptedMarker& m = (*markers)[i];
            PointXYZLNormal& p = cloud->points[i];
            p.x = m.xyz[0];
            p.y = m.xyz[1];
            p.z = m.xyz[2];
            p.normal_x = m.nor[0];
            p.normal_y = m.nor[1];
            p.normal_z = m.nor[2];
            p.label = static_cast<std::uint32_t>(i);
            p.curvature = 0.0f;
        }
        cloud->width = static_cast<std::uint32_t>(cloud->points.size());
        cloud->height = 1;
        // The tree keeps a reference to its cloud: the new pair replaces the old one together.
        auto tree = std::make_shared<MarkerKdTree>(3, *cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
        m_opted_markers_kdtree = std::move(tree);
        m_opted_markers_cloud = std::move(cloud);
        m_opted_markers = markers;
        return 0;
    });
}

bool MarkerFilter::findMarker(const Vec3f& position, const Vec3f& normal, std::int32_t& id) const {
    id = -1;
    if (!m_opted_markers_kdtree || !m_opted_markers_cloud) return false;
    std::vector<std::pair<std::uint32_t, float>> hits;
    // The tree works on squared distances and keeps those strictly below its bound; the bound is the
    // next float above 0.25 so that a marker exactly 0.5 away is found (and then refused by the
    // error threshold, marking its frame). Hits nearest first, equal distances by index.
    const float bound = std::nextafter(static_cast<float>(MARKER_SEARCH_RADIUS * MARKER_SEARCH_RADIUS), 1.0f);
    m_opted_markers_kdtree->radiusSearch(position.data(), bound, hits, nanoflann::SearchParams(32, 0.0f, true));
    std::sort(hits.begin(), hits.end(),
              [](const std::pair<std::uint32_t, float>& a, const std::pair<std::uint32_t, float>& b) {
                  return a.second < b.second || (a.second == b.second && a.first < b.first);
              });
    for (const auto& hit : hits) {
        const PointXYZLNormal& p = m_opted_markers_cloud->points[hit.first];
        if (p.normal_x * normal[0] + p.normal_y * normal[1] + p.normal_z * normal[2] > 0.0f) {
            id = static_cast<std::int32_t>(p.label);
            return true;
        }
    }
    return false;
}

bool MarkerFilter::standsOut(const std::vector<std::int32_t>& labels, const std::vector<float>& dist, double upper,
                             double lower) const {
    const std::vector<OptedMarker>& markers = *m_opted_markers;
    const std::int64_t m = static_cast<std::int64_t>(markers.size());
    int hits = 0;
    for (std::size_t j = 0; j < dist.size(); ++j) {
        const std::int32_t i = labels[j];
        if (i < 0 || i >= m) continue;
        if (dist[j] >= marker_max_dist_threshold) return true;
        const OptedMarker& marker = markers[static_cast<std::size_t>(i)];
        if (marker.count < MARKER_MIN_OBSERVATIONS) continue;
        const double d = dist[j];
        if (d > static_cast<double>(marker.rms) * upper + static_cast<double>(marker.mean)) return true;
        if (d > static_cast<double>(marker.rms) * lower + static_cast<double>(marker.mean)) {
            if (++hits >= MARKER_SOFT_HITS) return true;
        }
    }
    return false;
}

int MarkerFilter::filterScanFrameByMarkers(std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                           std::deque<std::shared_ptr<FrameDataWithInfo>>& passed) {
    m_rejected.clear();
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    if (!m_opted_markers_cloud || !m_opted_markers_kdtree || !m_opted_markers) {
        m_last_error = "m_opted_markers_cloud == nullptr || m_opted_markers_kdtree == nullptr";
        return 1;
    }
    return runGuarded(m_last_error, {1, "[MarkerFilter] filterScanFrameByMarkers try catch error!"}, [&]() -> int {
        const std::size_t n = frames.size();
        std::vector<OptedMarker>& markers = *m_opted_markers;
        const std::int64_t m = static_cast<std::int64_t>(markers.size());
        std::vector<std::vector<float>> dist(n);
        // The labels found for the observations, in a list of the filter's own: the frames are read only.
        std::vector<std::vector<std::int32_t>> labels(n);

        // Measuring: each observation's marker and distance on all cores, then the sums frame by frame in
        // order, as one thread would add them.
        std::vector<std::vector<unsigned char>> matched(n);
        TeamFailure failure;
        const std::int64_t frame_count = static_cast<std::int64_t>(n);
#pragma omp parallel for schedule(dynamic, 16)
        for (std::int64_t fi = 0; fi < frame_count; ++fi) {
            const std::size_t f = static_cast<std::size_t>(fi);
            if (!frames[f]) continue;
            failure.run([&] {
                const FrameDataWithInfo& frame = *frames[f];
                dist[f].assign(frame.marker_ids.size(), 0.0f);
                labels[f] = frame.marker_ids;
                matched[f].assign(frame.marker_ids.size(), 0);
                float rotation[9], translation[3];
                for (int k = 0; k < 9; ++k) rotation[k] = static_cast<float>(frame.frame_info.rotation[k]);
                for (int k = 0; k < 3; ++k) translation[k] = static_cast<float>(frame.frame_info.translation[k]);
                // An observation without its position or normal cannot be matched; it keeps its label.
                const std::size_t measurable =
                    std::min({frame.marker_ids.size(), frame.marker_xyz.size(), frame.marker_nor.size()});
                for (std::size_t j = 0; j < measurable; ++j) {
                    const Vec3f& x = frame.marker_xyz[j];
                    const Vec3f& v = frame.marker_nor[j];
                    Vec3f p, q;
                    for (int r = 0; r < 3; ++r) {  // column-major: row r, column c at 3c + r
                        p[r] = rotation[r] * x[0] + rotation[3 + r] * x[1] + rotation[6 + r] * x[2] + translation[r];
                        q[r] = rotation[r] * v[0] + rotation[3 + r] * v[1] + rotation[6 + r] * v[2];
                    }
                    std::int32_t id = -1;
                    if (!findMarker(p, q, id)) continue;
                    labels[f][j] = id;
                    matched[f][j] = 1;
                    const OptedMarker& marker = markers[static_cast<std::size_t>(id)];
                    const float dx = p[0] - marker.xyz[0], dy = p[1] - marker.xyz[1], dz = p[2] - marker.xyz[2];
                    dist[f][j] = std::sqrt(dx * dx + dy * dy + dz * dz);
                }
            });
        }
        failure.rethrow();
        for (std::size_t f = 0; f < n; ++f) {
            for (std::size_t j = 0; j < matched[f].size(); ++j) {
                if (!matched[f][j]) continue;
                OptedMarker& marker = markers[static_cast<std::size_t>(labels[f][j])];
                const float e = dist[f][j];
                if (e >= marker_max_dist_threshold) {
                    diagnostic("filterScanFrameByMarkers: dist >= marker_max_dist_threshold (%f) \n", e);
                    continue;
                }
                marker.mean += e;  // a running sum until the statistics below
                if (e > marker.max) marker.max = e;
                marker.count += 1;
            }
        }

        // Statistics: mean, then the spread about it (by label alone).
        for (OptedMarker& marker : markers)
            if (marker.count > 0) marker.mean = marker.mean / static_cast<float>(marker.count);
        for (std::size_t f = 0; f < n; ++f) {
            if (!frames[f]) continue;
            for (std::size_t j = 0; j < dist[f].size(); ++j) {
                const std::int32_t i = labels[f][j];
                if (i < 0 || i >= m || !(dist[f][j] < marker_max_dist_threshold)) continue;
                OptedMarker& marker = markers[static_cast<std::size_t>(i)];
                const float d = dist[f][j] - marker.mean;
                marker.rms += d * d;
            }
        }
        for (OptedMarker& marker : markers)
            if (marker.count > 0) marker.rms = std::sqrt(marker.rms / static_cast<float>(marker.count));

        // First pass: frames that stand out. Second pass, tighter: their neighbours. A flag is a byte of
        // its own; in the second pass several frames can reach the same neighbour, so it is set atomically.
        std::vector<unsigned char> bad1(n, 0);
        const long count = static_cast<long>(n);
#pragma omp parallel for schedule(static)
        for (long f = 0; f < count; ++f) {
            if (frames[static_cast<std::size_t>(f)] &&
                standsOut(labels[static_cast<std::size_t>(f)], dist[static_cast<std::size_t>(f)], FIRST_PASS_UPPER,
                          FIRST_PASS_LOWER))
                bad1[static_cast<std::size_t>(f)] = 1;
        }
        std::vector<unsigned char> bad2 = bad1;
#pragma omp parallel for schedule(static)
        for (long f = 0; f < count; ++f) {
            if (!bad1[static_cast<std::size_t>(f)]) continue;
            for (long k = std::max(0L, f - MARKER_NEIGHBOURHOOD); k <= std::min(count - 1, f + MARKER_NEIGHBOURHOOD);
                 ++k) {
                const std::size_t kk = static_cast<std::size_t>(k);
                if (frames[kk] && standsOut(labels[kk], dist[kk], SECOND_PASS_UPPER, SECOND_PASS_LOWER)) {
#pragma omp atomic write
                    bad2[kk] = 1;
                }
            }
        }

        // Result: passing frames go on as they are (the application's, never changed); rejected ones are dropped.
        std::int32_t largest = 0;
        for (std::size_t f = 0; f < n; ++f) {
            if (frames[f] && bad2[f]) m_rejected.push_back(f);
            if (frames[f] && !bad2[f]) {
                const FrameDataWithInfo& frame = *frames[f];
                passed.push_back(frames[f]);
                largest =
                    std::max(largest, static_cast<std::int32_t>(std::min<std::size_t>(frame.xyz.size(), INT32_MAX)));
            }
            frames[f].reset();
        }
        m_max_frame_points = largest;
        std::vector<std::shared_ptr<FrameDataWithInfo>>().swap(frames);
        diagnostic("filter frame by markers (%d / %d) \n", static_cast<int>(passed.size()), static_cast<int>(n));
        return 0;
    });
}

}  // namespace SurfaceReconstruction
