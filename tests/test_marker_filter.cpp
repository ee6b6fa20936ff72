// The marker filter: matching, statistics, the limits of both passes and, end to end, simulated frames
// with wrongly registered poses in a run of the engine.
#include <cstring>

#include "ScanSimulator.h"
#include "TestSupport.h"
#include "engine/MarkerFilter.h"

using namespace SurfaceReconstruction;
using testing_support::quiet;

namespace {

// Markers facing up at the given positions.
std::shared_ptr<std::vector<OptedMarker>> markersAt(const std::vector<Vec3f>& positions) {
    auto list = std::make_shared<std::vector<OptedMarker>>();
    for (std::size_t i = 0; i < positions.size(); ++i)
        list->push_back({static_cast<std::int32_t>(i), positions[i], {0.0f, 0.0f, 1.0f}});
    return list;
}

// A frame at the identity pose that saw marker `label` at `position` (labels are the application's).
struct Sighting {
    std::int32_t label;
    Vec3f position;
};
std::shared_ptr<FrameDataWithInfo> frameSeeing(const std::vector<Sighting>& sightings, std::size_t points = 10) {
    auto frame = testing_support::frameOf(std::vector<Vec3f>(points, Vec3f{0, 0, 0}));
    for (int k = 0; k < 3; ++k) frame->frame_info.rotation[4 * k] = 1.0;
    for (const Sighting& s : sightings) {
        frame->marker_ids.push_back(s.label);
        frame->marker_xyz.push_back(s.position);
        frame->marker_nor.push_back({0.0f, 0.0f, 1.0f});
    }
    return frame;
}

Vec3f shifted(const Vec3f& p, float dx, float dy = 0.0f) { return {p[0] + dx, p[1] + dy, p[2]}; }

// Runs the filter; the indices of the frames that passed, found by their point counts (frame i has
// i + 1 points).
std::set<std::size_t> passedFrames(MarkerFilter& filter, std::vector<std::shared_ptr<FrameDataWithInfo>> frames) {
    std::deque<std::shared_ptr<FrameDataWithInfo>> passed;
    std::vector<std::vector<std::int32_t>> labels_before;
    for (const auto& f : frames) labels_before.push_back(f->marker_ids);
    quiet([&] { EXPECT_EQ(filter.filterScanFrameByMarkers(frames, passed), 0) << filter.getLastErrorMsg(); });
    EXPECT_TRUE(frames.empty());
    std::set<std::size_t> indices;
    for (const auto& f : passed) {
        indices.insert(f->xyz.size() - 1);
        // The frames pass as they were: the filter writes to none of them.
        EXPECT_EQ(f->marker_ids, labels_before[f->xyz.size() - 1]);
        EXPECT_EQ(f->marker_xyz.size(), f->marker_ids.size());
    }
    return indices;
}

}  // namespace

TEST(MarkerFilter, StatisticsAccumulateAndUnmatchedLabelsCountAsZero) {
    MarkerFilter filter;
    std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
    std::deque<std::shared_ptr<FrameDataWithInfo>> passed;
    EXPECT_EQ(filter.filterScanFrameByMarkers(frames, passed), 1);
    EXPECT_EQ(filter.getLastErrorMsg(), "no init!");
    ASSERT_EQ(filter.init(), 0);
    EXPECT_EQ(filter.filterScanFrameByMarkers(frames, passed), 1);
    EXPECT_EQ(filter.getLastErrorMsg(), "m_opted_markers_cloud == nullptr || m_opted_markers_kdtree == nullptr");

    const Vec3f a = {0, 0, 0}, b = {5, 0, 0};
    auto markers = markersAt({a, b});
    ASSERT_EQ(filter.setOptimizedMarkers(markers), 0);
    // Errors on a: 0.1, 0.3 and 0.7 (too large: printed, not counted); on b: 0.2. A sighting near no
    // marker keeps its label 0 and enters a's spread with a distance of 0. A marker whose normal
    // faces away is not matched.
    auto f0 = frameSeeing({{7, shifted(a, 0.1f)}, {7, shifted(b, 0.0f, 0.2f)}});
    auto f1 = frameSeeing({{9, shifted(a, 0.3f)}, {0, {50, 50, 0}}});
    auto f2 = frameSeeing({{9, shifted(a, 0.0f, 0.7f)}});
    f2->marker_nor[0] = {0, 0, -1};
    auto f3 = frameSeeing({{9, shifted(a, -0.3f)}});
    frames = {f0, f1, f2, f3};
    f3->marker_nor[0] = {0, 0, 1};
    // Counts below 10: no frame stands out.
    EXPECT_EQ(quiet([&] { ASSERT_EQ(filter.filterScanFrameByMarkers(frames, passed), 0); }),
              "filter frame by markers (4 / 4) \n");
    EXPECT_EQ(f0->marker_ids, (std::vector<std::int32_t>{7, 7}));  // passed frames keep their lists and labels
    EXPECT_EQ(f3->marker_nor[0], (Vec3f{0, 0, 1}));

    const OptedMarker& ma = (*markers)[0];
    const OptedMarker& mb = (*markers)[1];
    const float e[3] = {std::sqrt(0.1f * 0.1f), std::sqrt(0.3f * 0.3f), std::sqrt(0.3f * 0.3f)};
    EXPECT_EQ(ma.count, 3);
    EXPECT_FLOAT_EQ(ma.mean, (e[0] + e[1] + e[2]) / 3);
    EXPECT_FLOAT_EQ(ma.max, 0.3f);
    const float mean = ma.mean;
    // The unmatched sighting with label 0 adds (0 - mean)^2; f2's unmatched one (label 9) is out of range.
    const float spread =
        (e[0] - mean) * (e[0] - mean) + (e[1] - mean) * (e[1] - mean) + (e[2] - mean) * (e[2] - mean) + mean * mean;
    EXPECT_FLOAT_EQ(ma.rms, std::sqrt(spread / 3));
    EXPECT_EQ(mb.count, 1);
    EXPECT_FLOAT_EQ(mb.mean, 0.2f);
    EXPECT_FLOAT_EQ(mb.rms, 0.0f);

    // A second run on the same list starts from the first run's values: the old mean acts as a sum.
    const float mean1 = ma.mean, rms1 = ma.rms;
    frames = {frameSeeing({{0, shifted(a, 0.2f)}})};
    quiet([&] { ASSERT_EQ(filter.filterScanFrameByMarkers(frames, passed), 0); });
    EXPECT_EQ(ma.count, 4);
    const float mean2 = (mean1 + 0.2f) / 4;
    EXPECT_FLOAT_EQ(ma.mean, mean2);
    EXPECT_FLOAT_EQ(ma.rms, std::sqrt((rms1 + (0.2f - mean2) * (0.2f - mean2)) / 4));
    EXPECT_EQ(passed.size(), 5u);

    // A fresh list starts over; after deInit the filter refuses to run.
    ASSERT_EQ(filter.setOptimizedMarkers(markersAt({a})), 0);
    ASSERT_EQ(filter.deInit(), 0);
    EXPECT_EQ(filter.filterScanFrameByMarkers(frames, passed), 1);
    EXPECT_EQ(filter.getLastErrorMsg(), "no init!");
}

TEST(MarkerFilter, LimitsOfBothPassesAndTheNeighbourhood) {
    // a and b are seen in every frame with errors 0.0 and 0.2 in turn (mean 0.1, spread 0.1); c nine
    // times, d ten times.
    const Vec3f a = {0, 0, 0}, b = {5, 0, 0}, c = {0, 5, 0}, d = {5, 5, 0};
    MarkerFilter filter;
    ASSERT_EQ(filter.init(), 0);
    auto markers = markersAt({a, b, c, d});
    ASSERT_EQ(filter.setOptimizedMarkers(markers), 0);
    const std::size_t n = 1000;
    std::vector<std::vector<Sighting>> seen(n);
    for (std::size_t f = 0; f < n; ++f) {
        const float e = f % 2 ? 0.2f : 0.0f;
        seen[f] = {{0, shifted(a, e)}, {1, shifted(b, e)}};
    }
    // Exactly 0.5 away: found by the search, refused by the threshold, and the frame is rejected
    // whatever the counts.
    seen[0][0].position = shifted(a, 0.5f);
    seen[n - 1][0].position = shifted(a, 0.0f, -0.5f);
    // Between the second pass's upper limit (0.1 + 2.33 x 0.1) and the first pass's lower limit times
    // one hit: rejected only next to a rejected frame, up to 5 frames away, from either end.
    const float near_bad = 0.345f;
    for (std::size_t f : {std::size_t(5), std::size_t(6), n - 6, n - 7}) seen[f][0].position = shifted(a, near_bad);
    // Two soft hits (above 0.1 + 2.06 x 0.1, below 0.1 + 2.33 x 0.1) reject a frame; one does not.
    seen[500][0].position = shifted(a, 0.32f);
    seen[500][1].position = shifted(b, 0.32f);
    seen[700][0].position = shifted(a, 0.32f);
    // c seen 9 times, once far off: too few observations to judge. d seen 10 times, once far off.
    for (std::size_t f = 800; f < 809; ++f) seen[f].push_back({2, shifted(c, f == 804 ? 0.3f : 0.01f)});
    for (std::size_t f = 900; f < 910; ++f) seen[f].push_back({3, shifted(d, f == 904 ? 0.3f : 0.01f)});

    std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
    for (std::size_t f = 0; f < n; ++f) frames.push_back(frameSeeing(seen[f], f + 1));
    const std::set<std::size_t> passed = passedFrames(filter, frames);

    // The construction holds: the limits where the test wants them, given the final statistics.
    const OptedMarker& ma = (*markers)[0];
    EXPECT_GT(near_bad, ma.mean + 2.33 * ma.rms);
    EXPECT_LT(near_bad, ma.mean + 2.57 * ma.rms);
    EXPECT_GT(0.32f, ma.mean + 2.06 * ma.rms);
    EXPECT_LT(0.32f, ma.mean + 1.88 * ma.rms + 0.5 * (2.57 - 1.88) * ma.rms);
    EXPECT_LT(0.2f, ma.mean + 1.88 * ma.rms);  // ordinary frames never stand out
    EXPECT_EQ((*markers)[2].count, 9);
    EXPECT_EQ((*markers)[3].count, 10);

    const std::set<std::size_t> rejected = {0, 5, 500, 904, n - 6, n - 1};
    for (std::size_t f = 0; f < n; ++f) EXPECT_EQ(passed.count(f), rejected.count(f) ? 0u : 1u) << "frame " << f;
    EXPECT_EQ(filter.maxFramePoints(), static_cast<std::int32_t>(n - 1));  // frame n - 1 was rejected
}

TEST(MarkerFilter, NoMarkersOrNoFramesChangeNothing) {
    MarkerFilter filter;
    ASSERT_EQ(filter.init(), 0);
    auto empty = markersAt({});
    ASSERT_EQ(filter.setOptimizedMarkers(empty), 0);
    std::vector<std::shared_ptr<FrameDataWithInfo>> frames = {frameSeeing({{0, {0, 0, 0}}, {3, {1, 1, 0}}}, 1),
                                                              frameSeeing({{-2, {0, 0, 0}}}, 2)};
    EXPECT_EQ(passedFrames(filter, frames), (std::set<std::size_t>{0, 1}));
    std::vector<std::shared_ptr<FrameDataWithInfo>> none;
    std::deque<std::shared_ptr<FrameDataWithInfo>> passed;
    EXPECT_EQ(quiet([&] { EXPECT_EQ(filter.filterScanFrameByMarkers(none, passed), 0); }),
              "filter frame by markers (0 / 0) \n");
}

// The engine runs the filter when the application has set markers: the frames with wrong poses are left out,
// named in one line, the statistics reach the application's list, and the mesh is the one of the other frames
// alone. Without markers every frame takes part.
TEST(MarkersInTheRun, FramesWithWrongPosesAreLeftOutNamedAndMeasured) {
    using testing_support::runSession;
    const std::vector<std::size_t> wrong = {4, 5, 19};
    const auto frames = testing_support::simulatedScan(60000, 300, wrong);
    ASSERT_GT(frames.size(), 25u);
    MarkerInfos truth = tessaline_tools::simulatedMarkers();
    std::shared_ptr<std::vector<OptedMarker>> errors;
    const auto marked = runSession(frames, 0.5f, [&](Tessaline& engine) {
        ASSERT_EQ(engine.setOptimizedMarkers(truth), 0);
        ASSERT_EQ(engine.getOptimizedMarkerErrors(errors), 0);  // the list the run fills in
    });
    ASSERT_EQ(marked.status, 0) << marked.error;
    const std::string n = std::to_string(frames.size()), kept = std::to_string(frames.size() - wrong.size());
    EXPECT_TRUE(testing_support::contains(marked.output, "filter frame by markers (" + kept + " / " + n + ") \n"));
    EXPECT_TRUE(testing_support::contains(marked.output, std::string(FRAMES_LEFT_OUT_BY_MARKERS) + " (3): 4 5 19 \n"));

    // Every observation is matched (the wrong poses move the markers less than 0.5 mm) and counted. A marker's
    // errors lie within the simulated noise, 0.02 mm (0.015 on average), unless a frame with a wrong pose saw
    // it: then its largest is that frame's, 0.1 mm or more.
    ASSERT_TRUE(errors);
    ASSERT_EQ(errors->size(), truth.ids.size());
    std::vector<std::int32_t> seen(truth.ids.size(), 0);
    std::vector<bool> seen_wrongly(truth.ids.size(), false);
    for (std::size_t f = 0; f < frames.size(); ++f)
        for (const std::int32_t m : frames[f]->marker_ids) {
            ++seen[static_cast<std::size_t>(m)];
            if (std::find(wrong.begin(), wrong.end(), f) != wrong.end())
                seen_wrongly[static_cast<std::size_t>(m)] = true;
        }
    std::size_t clean = 0;
    for (std::size_t m = 0; m < errors->size(); ++m) {
        const OptedMarker& e = (*errors)[m];
        EXPECT_EQ(e.count, seen[m]) << m;
        if (e.count == 0) continue;
        if (seen_wrongly[m]) {
            EXPECT_GT(e.max, 0.1f) << m;
        } else {
            ++clean;
            EXPECT_LE(e.max, 0.0201f) << m;
            EXPECT_GT(e.mean, 0.01f) << m;
            EXPECT_LT(e.mean, 0.02f) << m;
            EXPECT_GT(e.rms, 0.0f) << m;
        }
    }
    EXPECT_GT(clean, 0u);

    testing_support::Frames others;
    for (std::size_t f = 0; f < frames.size(); ++f)
        if (std::find(wrong.begin(), wrong.end(), f) == wrong.end()) others.push_back(frames[f]);
    const auto alone = runSession(others);
    ASSERT_EQ(alone.status, 0) << alone.error;
    EXPECT_TRUE(testing_support::sameMesh(*marked.mesh, *alone.mesh));

    const auto unmarked = runSession(frames);
    ASSERT_EQ(unmarked.status, 0) << unmarked.error;
    EXPECT_TRUE(testing_support::contains(unmarked.output, "filter frame by markers (" + n + " / " + n + ") \n"));
    EXPECT_EQ(unmarked.output.find(FRAMES_LEFT_OUT_BY_MARKERS), std::string::npos);
    EXPECT_FALSE(testing_support::sameMesh(*marked.mesh, *unmarked.mesh));
}

TEST(MarkerFilter, ManyFramesMeasureAlikeOnAnyTeam) {
    // Frames measured on all cores: every marker's sums, the frames that pass and the lines printed for
    // errors beyond the limit come out the same, bit for bit and in frame order, whatever the team.
    const Vec3f a = {0, 0, 0}, b = {5, 0, 0}, c = {0, 5, 0};
    const auto frames = [&] {
        std::vector<std::shared_ptr<FrameDataWithInfo>> list;
        for (std::size_t f = 0; f < 300; ++f) {
            const float e = 0.001f * static_cast<float>((f * 37) % 101);  // errors that round differently
            std::vector<Sighting> seen = {{1, shifted(a, e)}, {2, shifted(b, 0.0f, -e)}, {3, shifted(c, e, e)}};
            if (f % 97 == 5) seen.push_back({4, shifted(c, 0.0f, 0.5f)});  // exactly at the limit: printed
            list.push_back(frameSeeing(seen, f + 1));
        }
        return list;
    };
    const int threads = omp_get_max_threads();
    std::vector<OptedMarker> first;
    std::set<std::size_t> first_passed;
    std::string first_text;
    for (const int team : {1, 3}) {
        omp_set_num_threads(team);
        MarkerFilter filter;
        ASSERT_EQ(filter.init(), 0);
        auto markers = markersAt({a, b, c});
        ASSERT_EQ(filter.setOptimizedMarkers(markers), 0);
        std::vector<std::shared_ptr<FrameDataWithInfo>> list = frames();
        std::deque<std::shared_ptr<FrameDataWithInfo>> kept;
        const std::string text = quiet([&] { EXPECT_EQ(filter.filterScanFrameByMarkers(list, kept), 0); });
        std::set<std::size_t> passed;
        for (const auto& f : kept) passed.insert(f->xyz.size() - 1);
        EXPECT_NE(text.find("dist >= marker_max_dist_threshold"), std::string::npos);
        if (team == 1) {
            first = *markers;
            first_passed = passed;
            first_text = text;
            EXPECT_LT(passed.size(), 300u);  // the frames with a sighting beyond the limit stand out
            continue;
        }
        ASSERT_EQ(markers->size(), first.size());
        for (std::size_t m = 0; m < first.size(); ++m) {
            EXPECT_EQ(std::memcmp(&(*markers)[m], &first[m], sizeof(OptedMarker)), 0) << "marker " << m;
            EXPECT_GT((*markers)[m].count, 0);
        }
        EXPECT_EQ(passed, first_passed);
        EXPECT_EQ(text, first_text);
    }
    omp_set_num_threads(threads);
}
