// Frames measured against the optimized markers: each marker a frame saw is matched to an optimized
// one, the distances give per-marker statistics, and frames whose distances stand out are rejected
// together with the neighbours that stand out too.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <nanoflann.hpp>
#include <string>
#include <vector>

#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

// A marker as a point of the search cloud: position, normal, its index as label.
struct PointXYZLNormal {
    float x = 0, y = 0, z = 0;
    float normal_x = 0, normal_y = 0, normal_z = 0;
    std::uint32_t label = 0;
    float curvature = 0;
};

struct PointXYZLNormalCloud {
    std::vector<PointXYZLNormal> points;
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    // What the k-d tree reads: positions only.
    std::size_t kdtree_get_point_count() const { return points.size(); }
    float kdtree_get_pt(std::size_t i, std::size_t dim) const {
        return dim == 0 ? points[i].x : (dim == 1 ? points[i].y : points[i].z);
    }
    template <class BBox>
    bool kdtree_get_bbox(BBox&) const {
        return false;
    }
};

// Squared Euclidean distance over x, y, z.
using MarkerKdTree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, PointXYZLNormalCloud>,
                                                         PointXYZLNormalCloud, 3>;

// An error at or above this is not accepted and marks the frame.
constexpr float marker_max_dist_threshold = 0.5f;
constexpr double MARKER_SEARCH_RADIUS = 0.5;
constexpr std::int32_t MARKER_MIN_OBSERVATIONS = 10;
constexpr double FIRST_PASS_UPPER = 2.57, FIRST_PASS_LOWER = 2.06;
constexpr double SECOND_PASS_UPPER = 2.33, SECOND_PASS_LOWER = 1.88;
constexpr int MARKER_NEIGHBOURHOOD = 5;
constexpr int MARKER_SOFT_HITS = 2;

class MarkerFilter {
public:
    int init();
    int deInit();
    int setOptimizedMarkers(const std::shared_ptr<std::vector<OptedMarker>>& markers);
    // Measures every frame against the markers, updates the markers' statistics, and moves the frames
    // that pass to `passed` in order; rejected frames are dropped. `frames` is empty afterwards.
    int filterScanFrameByMarkers(std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                                 std::deque<std::shared_ptr<FrameDataWithInfo>>& passed);
    // The marker a measured one belongs to: the nearest within the search radius whose normal agrees.
    bool findMarker(const Vec3f& position, const Vec3f& normal, std::int32_t& id) const;

    std::string getLastErrorMsg() const { return m_last_error; }
    std::int32_t maxFramePoints() const { return m_max_frame_points; }
    // The frames the last filter run dropped, by their place in the `frames` it was given, ascending.
    const std::vector<std::size_t>& rejectedFrames() const { return m_rejected; }

private:
    // Whether a frame with these marker labels stands out: an error of the threshold or more, one above `upper` rms
    // over the mean, or MARKER_SOFT_HITS above `lower`.
    bool standsOut(const std::vector<std::int32_t>& labels, const std::vector<float>& dist, double upper,
                   double lower) const;

    bool m_inited = false;
    std::string m_last_error = "no error!";
    std::int32_t m_max_frame_points = 0;
    std::vector<std::size_t> m_rejected;
    std::shared_ptr<std::vector<OptedMarker>> m_opted_markers;
    std::shared_ptr<PointXYZLNormalCloud> m_opted_markers_cloud;
    std::shared_ptr<MarkerKdTree> m_opted_markers_kdtree;
};

}  // namespace SurfaceReconstruction
