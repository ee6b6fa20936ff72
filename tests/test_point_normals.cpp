// Normals for points without them (estimateNormals), on shapes whose normals are known: a sphere, a bump, a
// plane; planes checked against a brute-force neighbour search and Eigen's solver.
#include <Eigen/Dense>

#include "TestSupport.h"
#include "tessaline/TessalineMesh.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

const Vec3f CENTRE = {50.0f, -20.0f, 30.0f};

// `n` points of a Fibonacci lattice on a sphere of radius `r` around CENTRE, with normals (0, 0, 0); those
// below `floor` (relative to the centre) left out.
std::shared_ptr<FrameDataWithInfo> sphere(int n, float r, float floor = -1e9f) {
    std::vector<Vec3f> xyz;
    for (int i = 0; i < n; ++i) {
        const Vec3f v = fibonacciDirection(i, n);
        if (r * v[2] >= floor) xyz.push_back({CENTRE[0] + r * v[0], CENTRE[1] + r * v[1], CENTRE[2] + r * v[2]});
    }
    return frameOf(xyz, std::vector<Vec3f>(xyz.size(), Vec3f{0, 0, 0}));
}

Vec3f outward(const Vec3f& p) {
    const float d[3] = {p[0] - CENTRE[0], p[1] - CENTRE[1], p[2] - CENTRE[2]};
    const float length = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    return {d[0] / length, d[1] / length, d[2] / length};
}

float dot(const Vec3f& a, const Vec3f& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// The least cosine between each estimated normal and `sign` times the expected one, over the points that got a
// normal.
template <class Expected>
float worstAgreement(const FrameDataWithInfo& frame, Expected expected, float sign) {
    float worst = 1.0f;
    for (std::size_t i = 0; i < frame.xyz.size(); ++i)
        if (dot(frame.nor[i], frame.nor[i]) > 0.0f)
            worst = std::min(worst, sign * dot(frame.nor[i], expected(frame.xyz[i])));
    return worst;
}

// The direction of least spread of the rows of `q` about their mean (Eigen's solver).
Eigen::Vector3d leastSpread(const Eigen::MatrixX3d& q) {
    const Eigen::MatrixX3d centred = q.rowwise() - q.colwise().mean();
    return Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(centred.transpose() * centred).eigenvectors().col(0);
}

// The plane of the rows of `q` fitted again without those more than twice the median offset off the
// first plane (normal `first`), when that drops some and keeps at least half of them (and 5).
Eigen::Vector3d fittedAgain(const Eigen::MatrixX3d& q, const Eigen::Vector3d& first) {
    const Eigen::VectorXd off = ((q.rowwise() - q.colwise().mean()) * first).cwiseAbs();
    std::vector<double> sorted(off.data(), off.data() + off.size());
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    std::vector<int> kept;
    for (int j = 0; j < off.size(); ++j)
        if (off[j] <= 2.0 * sorted[sorted.size() / 2]) kept.push_back(j);
    if (kept.size() == sorted.size() || kept.size() < std::max<std::size_t>(5, sorted.size() / 2)) return first;
    Eigen::MatrixX3d near(kept.size(), 3);
    for (std::size_t j = 0; j < kept.size(); ++j) near.row(j) = q.row(kept[j]);
    return leastSpread(near);
}

}  // namespace

TEST(PointNormals, FacedTowardTheScannerOrOrientedFromTheOutsideInOnClosedAndOpenSurfaces) {
    // A bump z = 3 exp(-(x^2 + y^2) / 40) over a 41 x 41 grid, an open sheet: its highest point faces +z.
    std::vector<Vec3f> bump;
    for (int i = -20; i <= 20; ++i)
        for (int j = -20; j <= 20; ++j)
            bump.push_back({0.5f * i, 0.5f * j, 3.0f * std::exp(-(0.25f * (i * i + j * j)) / 40.0f)});
    const auto bumpFrame = [&] { return frameOf(bump, std::vector<Vec3f>(bump.size(), Vec3f{0, 0, 0})); };
    const auto bumpNormal = [](const Vec3f& p) {
        const float g = -p[2] * 2.0f / 40.0f;  // d z / d x = x g, d z / d y = y g
        const float n[3] = {-p[0] * g, -p[1] * g, 1.0f};
        const float length = std::sqrt(n[0] * n[0] + n[1] * n[1] + 1.0f);
        return Vec3f{n[0] / length, n[1] / length, n[2] / length};
    };
    const struct {
        const char* name;
        std::shared_ptr<FrameDataWithInfo> frame;
        bool sensor;
        std::array<double, 3> at;
        std::function<Vec3f(const Vec3f&)> expected;
        float sign;
    } cases[] = {
        {"closed sphere, no scanner", sphere(4000, 10.0f), false, {}, outward, 1},
        {"sphere seen from its centre", sphere(4000, 10.0f), true, {50, -20, 30}, outward, -1},
        {"open cap (upper half sphere), no scanner", sphere(4000, 10.0f, 0.0f), false, {}, outward, 1},
        {"open bump, no scanner", bumpFrame(), false, {}, bumpNormal, 1},
        {"bump seen from above", bumpFrame(), true, {3, 4, 100}, bumpNormal, 1},
        {"bump seen from below", bumpFrame(), true, {3, 4, -100}, bumpNormal, -1},
    };
    for (const auto& c : cases) {
        const std::size_t n = c.frame->xyz.size();
        FrameNormalSource source;
        source.sensor_known = c.sensor;
        source.sensor = c.at;
        NormalEstimate estimate;
        ASSERT_EQ(estimateNormals({c.frame}, {source}, estimate), 0) << c.name;
        EXPECT_EQ(estimate.points, n) << c.name;
        EXPECT_EQ(estimate.left_out, 0u) << c.name;
        EXPECT_EQ(c.sensor ? estimate.toward_sensor : estimate.propagated, n) << c.name;
        EXPECT_EQ(estimate.pieces_from_extremes, c.sensor ? 0u : 1u) << c.name;
        ASSERT_EQ(c.frame->nor.size(), n);
        // Planes of 17 points: the curvature tilts them a little, most at the open rims.
        EXPECT_GT(worstAgreement(*c.frame, c.expected, c.sign), 0.99f) << c.name;
    }
}

// Thin closed plates of 20 x 20 and 1 to 2.5 thick, sampled every 0.25 on all six faces, as one cloud
// without a scanner: the faces lie a few neighbourhoods apart, so a step from one face straight across to
// the other is shorter than one around the rim. Every normal must face out of the plate, the lower face's
// down; the points along the rims (whose 17 nearest straddle two faces) aside.
TEST(PointNormals, ThinPlatesAreOrientedAroundTheirRimsNotAcrossTheirThickness) {
    for (const float thick : {1.0f, 1.5f, 2.5f}) {
        const float h = 0.25f, side = 20.0f;
        const int across = static_cast<int>(side / h), up = static_cast<int>(std::lround(thick / h));
        std::vector<Vec3f> xyz;
        for (int i = 0; i <= across; ++i)
            for (int j = 0; j <= across; ++j) {
                xyz.push_back({i * h, j * h, 0.0f});
                xyz.push_back({i * h, j * h, thick});
            }
        for (int i = 0; i <= across; ++i)
            for (int k = 1; k < up; ++k) {
                xyz.push_back({i * h, 0.0f, k * h});
                xyz.push_back({i * h, side, k * h});
                xyz.push_back({0.0f, i * h, k * h});
                xyz.push_back({side, i * h, k * h});
            }
        auto frame = frameOf(xyz, std::vector<Vec3f>(xyz.size(), Vec3f{0, 0, 0}));
        NormalEstimate estimate;
        ASSERT_EQ(estimateNormals({frame}, {FrameNormalSource()}, estimate), 0) << thick;
        std::size_t checked = 0;
        for (std::size_t i = 0; i < xyz.size(); ++i) {
            const Vec3f& p = xyz[i];
            const float rim = 1.0f;  // farther than this from every edge of the plate
            const bool top = p[2] == thick, bottom = p[2] == 0.0f;
            if (!(top || bottom) || p[0] < rim || p[0] > side - rim || p[1] < rim || p[1] > side - rim) continue;
            ASSERT_GT(frame->nor[i][2] * (top ? 1.0f : -1.0f), 0.99f) << thick << " at " << i;
            ++checked;
        }
        EXPECT_GT(checked, 10000u) << thick;
    }
}

TEST(PointNormals, AmbiguousPointsAreLeftOutAndKeptNormalsOrientTheirNeighbours) {
    // A sphere whose upper half comes with normals pointing inward, the lower half without; three isolated
    // points and a line of 40 points far from it: no plane, left out.
    auto upper = sphere(4000, 10.0f, 0.0f), lower = sphere(4000, 10.0f);
    for (std::size_t i = 0; i < upper->xyz.size(); ++i)
        for (int k = 0; k < 3; ++k) upper->nor[i][k] = -outward(upper->xyz[i])[k];
    const std::vector<Vec3f> kept = upper->nor;
    lower->xyz.erase(
        std::remove_if(lower->xyz.begin(), lower->xyz.end(), [](const Vec3f& p) { return p[2] >= CENTRE[2]; }),
        lower->xyz.end());
    const std::size_t lower_points = lower->xyz.size();
    for (int i = 0; i < 3; ++i) lower->xyz.push_back({500.0f + 100.0f * i, 0.0f, 0.0f});
    for (int i = 0; i < 40; ++i) lower->xyz.push_back({-300.0f, 0.3f * i, 0.0f});
    lower->xyz.push_back({NAN, 0.0f, 0.0f});
    lower->nor.assign(lower->xyz.size(), Vec3f{0, 0, 0});
    FrameNormalSource keep, make;
    keep.estimate = false;
    NormalEstimate estimate;
    ASSERT_EQ(estimateNormals({upper, lower}, {keep, make}, estimate), 0);
    EXPECT_EQ(upper->nor, kept);  // a kept frame is not touched
    EXPECT_EQ(estimate.points, lower_points + 44);
    EXPECT_EQ(estimate.too_few_neighbours, 4u);  // the isolated points and the one not finite
    EXPECT_EQ(estimate.no_clear_plane, 40u);     // the line
    EXPECT_EQ(estimate.left_out, 44u);
    EXPECT_EQ(estimate.propagated, lower_points);
    EXPECT_EQ(estimate.pieces_from_extremes, 0u);  // the sphere's piece holds kept points
    for (std::size_t i = 0; i < lower->xyz.size(); ++i) {
        if (i >= lower_points) {
            EXPECT_EQ(lower->nor[i], (Vec3f{0, 0, 0})) << i;
            continue;
        }
        ASSERT_LT(dot(lower->nor[i], outward(lower->xyz[i])), -0.99f) << i;  // inward, as the kept half
    }

    // Refused: sources that do not match the frames, options out of range; the frames stay as they were.
    const std::vector<Vec3f> before = lower->nor;
    NormalOptions few;
    few.neighbours = 4;
    EXPECT_EQ(estimateNormals({upper, lower}, {make}, estimate), TESSALINE_FAILURE);
    EXPECT_EQ(estimateNormals({upper, lower}, {keep, make}, estimate, few), TESSALINE_FAILURE);
    EXPECT_EQ(lower->nor, before);
}

// Noisy points on a wavy sheet, dense in one corner and sparse elsewhere: every plane matches the least
// eigenvector (Eigen) of the covariance of the 17 nearest points found by brute force, fitted again without
// the points more than twice the median offset off the first plane, and the normals come out bit for
// bit the same on 1, 2 and 3 threads.
// The normals of `frame` (copied) with these options on `threads` threads.
std::vector<Vec3f> normalsOf(const FrameDataWithInfo& frame, const FrameNormalSource& source,
                             const NormalOptions& options, int threads, NormalEstimate& estimate) {
    auto copy = std::make_shared<FrameDataWithInfo>(frame);
    withThreads(threads, [&] { EXPECT_EQ(estimateNormals({copy}, {source}, estimate, options), 0); });
    return copy->nor;
}

bool sameBytes(const std::vector<Vec3f>& a, const std::vector<Vec3f>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(Vec3f)) == 0;
}

// Where the processor has AVX2 the default runs the search and the fits on its wider vectors; without them
// (vector_units false) the same bits must come out.
TEST(PointNormals, PlanesMatchABruteForceFitAndEveryThreadCountAndBuildGivesTheSameNormals) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::normal_distribution<float> noise(0.0f, 0.01f);
    auto frame = std::make_shared<FrameDataWithInfo>();
    for (int i = 0; i < 6000; ++i) {
        float x = 20.0f * unit(random), y = 20.0f * unit(random);
        if (i % 2 == 0) x *= 0.5f, y *= 0.5f;  // half of them crowd into a quarter
        frame->xyz.push_back({x, y, std::sin(0.4f * x) + 0.5f * std::cos(0.3f * y) + noise(random)});
    }
    frame->nor.assign(frame->xyz.size(), Vec3f{0, 0, 0});
    std::vector<std::vector<Vec3f>> normals;
    float reach = 0.0f;
    for (int t : {1, 2, 3}) {
        auto copy = std::make_shared<FrameDataWithInfo>(*frame);
        NormalEstimate estimate;
        withThreads(t, [&] { ASSERT_EQ(estimateNormals({copy}, {FrameNormalSource()}, estimate), 0); });
        EXPECT_LT(estimate.left_out, 10u);
        normals.push_back(copy->nor);
        reach = estimate.reach;
    }
    EXPECT_EQ(std::memcmp(normals[0].data(), normals[1].data(), normals[0].size() * sizeof(Vec3f)), 0);
    EXPECT_EQ(std::memcmp(normals[0].data(), normals[2].data(), normals[0].size() * sizeof(Vec3f)), 0);
    {
        // A pile of one point repeated ahead of the rest: a point searched after it finds its neighbours
        // beyond the pile, and gets the plane's normal.
        auto piled = std::make_shared<FrameDataWithInfo>();
        for (int i = 0; i < 30; ++i) piled->xyz.push_back(frame->xyz[0]);
        for (int i = 1; i < 60; ++i)
            for (int j = 0; j < 60; ++j) piled->xyz.push_back({0.3f * i, 0.3f * j, 0.0f});
        piled->nor.assign(piled->xyz.size(), Vec3f{0, 0, 0});
        NormalEstimate estimate;
        ASSERT_EQ(estimateNormals({piled}, {FrameNormalSource()}, estimate), 0);
        EXPECT_NEAR(std::fabs(piled->nor.back()[2]), 1.0f, 1e-5f);
    }
    {
        NormalOptions plain;
        plain.vector_units = false;
        NormalEstimate estimate;
        EXPECT_TRUE(sameBytes(normalsOf(*frame, FrameNormalSource(), plain, 2, estimate), normals[0]));
    }

    // Each checked normal against a fit of its neighbours within the reach found by brute force: with the
    // default reach all 16 count; with a short one, points in the sparser part are fitted to fewer, so that
    // the planes fitted side by side have different numbers of neighbours.
    const auto& p = frame->xyz;
    const auto checkAgainstBruteForce = [&](const std::vector<Vec3f>& normal, float reach, std::size_t& fewer) {
        std::size_t checked = 0;
        for (std::size_t i = 0; i < p.size(); i += 7) {
            if (dot(normal[i], normal[i]) == 0.0f) continue;
            std::vector<std::pair<float, std::size_t>> order;
            for (std::size_t j = 0; j < p.size(); ++j) {
                const float d[3] = {p[j][0] - p[i][0], p[j][1] - p[i][1], p[j][2] - p[i][2]};
                order.push_back({d[0] * d[0] + d[1] * d[1] + d[2] * d[2], j});
            }
            std::partial_sort(order.begin(), order.begin() + 18, order.end());
            int within = 0;
            bool near_the_reach = false;
            for (int j = 0; j < 17; ++j) {
                within += order[j].first <= reach * reach ? 1 : 0;
                near_the_reach = near_the_reach || std::fabs(order[j].first / (reach * reach) - 1.0f) < 1e-4f;
            }
            if (near_the_reach || order[16].first == order[17].first) continue;
            EXPECT_GE(2 * (within - 1), 16) << "point " << i << " has a normal from too few neighbours";
            Eigen::MatrixX3d q(within, 3);
            for (int j = 0; j < within; ++j)
                for (int k = 0; k < 3; ++k) q(j, k) = p[order[j].second][k];
            const Eigen::Vector3d expected = fittedAgain(q, leastSpread(q));
            const double agreement =
                std::fabs(expected[0] * normal[i][0] + expected[1] * normal[i][1] + expected[2] * normal[i][2]);
            EXPECT_GT(agreement, 1.0 - 1e-5) << "point " << i << ", " << within << " neighbours";
            fewer += within < 17 ? 1 : 0;
            ++checked;
        }
        return checked;
    };
    std::size_t fewer = 0;
    EXPECT_GT(checkAgainstBruteForce(normals[0], reach, fewer), 800u);
    NormalOptions short_reach;
    short_reach.reach = 1.6f;
    NormalEstimate estimate;
    const std::vector<Vec3f> near_only = normalsOf(*frame, FrameNormalSource(), short_reach, 2, estimate);
    fewer = 0;
    EXPECT_GT(checkAgainstBruteForce(near_only, estimate.reach, fewer), 600u);
    EXPECT_GT(fewer, 100u);
    short_reach.vector_units = false;
    EXPECT_TRUE(sameBytes(normalsOf(*frame, FrameNormalSource(), short_reach, 1, estimate), near_only));
    // The fewest and the most neighbours a plane may be fitted to: the two builds agree there too.
    for (int neighbours : {5, 64}) {
        NormalOptions wide, plain;
        wide.neighbours = plain.neighbours = neighbours;
        plain.vector_units = false;
        const std::vector<Vec3f> made = normalsOf(*frame, FrameNormalSource(), wide, 2, estimate);
        EXPECT_LT(estimate.left_out, 60u) << neighbours << " neighbours";
        EXPECT_TRUE(sameBytes(normalsOf(*frame, FrameNormalSource(), plain, 2, estimate), made)) << neighbours;
    }
}

// A sharp edge: a top face (z = 0, x <= 0) and a side face (x = 0, z < 0) sampled on a grid. A plane of the
// 17 nearest points tilts toward the other face beside the edge; fitted again without the far points, the
// normals of the points one to two spacings from the edge are those of their own face.
TEST(PointNormals, BesideASharpEdgeTheNormalIsThatOfTheNearFace) {
    constexpr float STEP = 0.25f;
    auto frame = std::make_shared<FrameDataWithInfo>();
    for (int j = -20; j <= 20; ++j)
        for (int i = 0; i <= 40; ++i) {
            frame->xyz.push_back({-STEP * i, STEP * j, 0.0f});             // top, the edge included
            if (i > 0) frame->xyz.push_back({0.0f, STEP * j, -STEP * i});  // side
        }
    frame->nor.assign(frame->xyz.size(), Vec3f{0, 0, 0});
    FrameNormalSource source;
    source.sensor_known = true;
    source.sensor = {40.0, 0.0, 40.0};
    NormalEstimate estimate;
    // A lattice: most neighbours tie in distance with others, and the ties are broken the same way in both
    // builds.
    NormalOptions plain;
    plain.vector_units = false;
    const std::vector<Vec3f> without = normalsOf(*frame, source, plain, 2, estimate);
    ASSERT_EQ(estimateNormals({frame}, {source}, estimate), 0);
    EXPECT_TRUE(sameBytes(frame->nor, without));
    int checked = 0, tilted_without = 0;
    for (std::size_t i = 0; i < frame->xyz.size(); ++i) {
        const Vec3f& p = frame->xyz[i];
        const bool top = p[2] == 0.0f;
        const float from_edge = top ? -p[0] : -p[2];
        if (from_edge < 0.9f * STEP || from_edge > 2.1f * STEP || std::fabs(p[1]) > 3.0f) continue;
        const Vec3f face = top ? Vec3f{0, 0, 1} : Vec3f{1, 0, 0};
        EXPECT_GT(dot(frame->nor[i], face), std::cos(3.0f * float(M_PI) / 180.0f))
            << p[0] << " " << p[1] << " " << p[2];
        ++checked;
        // The first plane alone (brute force), for contrast: one spacing from the edge it leans by more.
        std::vector<std::pair<float, std::size_t>> order;
        for (std::size_t j = 0; j < frame->xyz.size(); ++j) {
            const Vec3f& o = frame->xyz[j];
            order.push_back(
                {(o[0] - p[0]) * (o[0] - p[0]) + (o[1] - p[1]) * (o[1] - p[1]) + (o[2] - p[2]) * (o[2] - p[2]), j});
        }
        std::partial_sort(order.begin(), order.begin() + 17, order.end());
        Eigen::MatrixX3d q(17, 3);
        for (int j = 0; j < 17; ++j)
            for (int k = 0; k < 3; ++k) q(j, k) = frame->xyz[order[j].second][k];
        const Eigen::Vector3d first = leastSpread(q);
        if (std::fabs(first[0] * face[0] + first[2] * face[2]) < std::cos(3.0 * M_PI / 180.0)) ++tilted_without;
    }
    EXPECT_GT(checked, 40);
    EXPECT_GE(tilted_without, checked / 2);  // those one spacing from the edge
}
