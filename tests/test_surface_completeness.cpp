// Whole runs on scenes built in code where the scan has points everywhere: sharp edges, sparse points,
// a flagged zone and block seams must give a mesh without holes, and without surface beyond the points.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "MeshIO.h"
#include "tessaline/Tessaline.h"

using namespace SurfaceReconstruction;

namespace {

using P3 = std::array<float, 3>;

struct Scene {
    tessaline_tools::WeldedMesh mesh;
    std::vector<P3> boundary;  // midpoints of the edges used by one triangle
    std::string output;        // the library's diagnostic lines
};

void addPoint(FrameDataWithInfo& frame, const P3& p, const P3& n, std::int32_t w = 8) {
    frame.xyz.push_back(p);
    frame.nor.push_back(n);
    frame.w.push_back(w);
}

Scene reconstruct(const std::shared_ptr<FrameDataWithInfo>& frame, float resolution = 0.5f) {
    Tessaline engine;
    EXPECT_EQ(engine.init(), 0);
    engine.setResolution(resolution);
    EXPECT_EQ(engine.addScanFrame_ALL(frame), 0);
    auto soup = std::make_shared<MultiMeshData>();
    Scene run;
    ::testing::internal::CaptureStdout();
    const int status = engine.process(soup);
    run.output = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, 0) << engine.getLastErrorMsg();
    run.mesh = tessaline_tools::weldMesh(*soup, resolution * 1e-4f);
    std::map<std::pair<std::uint32_t, std::uint32_t>, int> uses;
    for (const auto& t : run.mesh.triangles)
        for (int e = 0; e < 3; ++e) {
            const std::uint32_t a = t[e], b = t[(e + 1) % 3];
            uses[{std::min(a, b), std::max(a, b)}] += 1;
        }
    for (const auto& [edge, count] : uses) {
        if (count != 1) continue;
        const P3& a = run.mesh.vertices[edge.first];
        const P3& b = run.mesh.vertices[edge.second];
        run.boundary.push_back({(a[0] + b[0]) * 0.5f, (a[1] + b[1]) * 0.5f, (a[2] + b[2]) * 0.5f});
    }
    return run;
}

// A jittered square of points on the plane z = height, with normals tilted by up to `tilt`.
std::shared_ptr<FrameDataWithInfo> squarePatch(float lo, float hi, float height, float spacing, float tilt,
                                               std::int32_t (*word)(float x, float y)) {
    auto frame = std::make_shared<FrameDataWithInfo>();
    std::mt19937 random(7);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (float x = lo; x < hi; x += spacing)
        for (float y = lo; y < hi; y += spacing) {
            const float px = x + u(random) * spacing * 0.3f, py = y + u(random) * spacing * 0.3f;
            const float nx = u(random) * tilt, ny = u(random) * tilt, length = std::sqrt(1.0f + nx * nx + ny * ny);
            addPoint(*frame, {px, py, height}, {nx / length, ny / length, 1.0f / length}, word(px, py));
        }
    return frame;
}

// Boundary edges farther than `band` inside the square [lo, hi]^2: holes in the surface.
std::size_t innerBoundary(const Scene& run, float lo, float hi, float band) {
    std::size_t inner = 0;
    for (const P3& m : run.boundary)
        inner += (m[0] > lo + band && m[0] < hi - band && m[1] > lo + band && m[1] < hi - band) ? 1 : 0;
    return inner;
}

}  // namespace

TEST(SurfaceCompleteness, TheEdgesOfABoxAreClosedAndStaySharp) {
    // A 20 mm cube scanned on all six faces: twelve 90-degree edges. Each cell near an edge fits one
    // face; without the fallback matching and the edge values the mesh had a slit along every edge.
    const float lo = 10.3f, hi = 30.3f;
    auto frame = std::make_shared<FrameDataWithInfo>();
    const int n = 100;  // points 0.2 apart
    for (int axis = 0; axis < 3; ++axis)
        for (int side = 0; side < 2; ++side)
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) {
                    P3 p, normal = {0.0f, 0.0f, 0.0f};
                    p[axis] = side ? hi : lo;
                    normal[axis] = side ? 1.0f : -1.0f;
                    p[(axis + 1) % 3] = lo + (i + 0.5f) * (hi - lo) / n;
                    p[(axis + 2) % 3] = lo + (j + 0.5f) * (hi - lo) / n;
                    addPoint(*frame, p, normal);
                }
    const Scene run = reconstruct(frame);
    ASSERT_GT(run.mesh.triangles.size(), 10000u);

    const auto nearBound = [&](float v, float reach) { return std::fabs(v - lo) < reach || std::fabs(v - hi) < reach; };
    const auto faceCount = [&](const P3& p, float reach) {
        return int(nearBound(p[0], reach)) + int(nearBound(p[1], reach)) + int(nearBound(p[2], reach));
    };
    // What stays open lies at the corners, where three faces meet.
    for (const P3& m : run.boundary) EXPECT_EQ(faceCount(m, 1.5f), 3) << m[0] << " " << m[1] << " " << m[2];
    EXPECT_LE(run.boundary.size(), 24u);

    // Along the edges, away from the corners, the mesh keeps to the box: no bulge, no rounding.
    std::size_t along_edges = 0;
    float worst = 0.0f;
    for (const P3& v : run.mesh.vertices) {
        if (faceCount(v, 1.0f) != 2 || faceCount(v, 2.0f) == 3) continue;
        float outside = 0.0f, inside = -1e9f;
        for (int k = 0; k < 3; ++k) {
            const float q = std::fabs(v[k] - (lo + hi) * 0.5f) - (hi - lo) * 0.5f;
            outside += std::max(q, 0.0f) * std::max(q, 0.0f);
            inside = std::max(inside, q);
        }
        worst = std::max(worst, std::fabs(std::sqrt(outside) + std::min(inside, 0.0f)));
        ++along_edges;
    }
    EXPECT_GT(along_edges, 500u);
    EXPECT_LT(worst, 0.08f);
}

TEST(SurfaceCompleteness, ASparsePlaneHasNoPinholesAndNoSkirt) {
    // 2.8 points a square millimetre, about 0.7 a bin of 0.5 mm: the cells of the outer layer of the
    // band around the surface find too few points in their own neighbourhood and take one more ring.
    const auto frame = squarePatch(5.0f, 45.0f, 20.2f, 0.6f, 0.05f, [](float, float) { return 8; });
    const Scene run = reconstruct(frame);
    ASSERT_GT(run.mesh.triangles.size(), 10000u);
    EXPECT_EQ(innerBoundary(run, 5.0f, 45.0f, 1.0f), 0u);
    // The wider search must not carry the surface past the last points: by at most half a cell.
    float beyond = 0.0f;
    for (const P3& v : run.mesh.vertices)
        beyond = std::max({beyond, 4.82f - v[0], v[0] - 44.98f, 4.82f - v[1], v[1] - 44.98f});
    EXPECT_LT(beyond, 0.3f);
}

TEST(SurfaceCompleteness, AFlaggedZoneHasNoPinholesAtItsBorder) {
    // A disc of points asking for finer cells and carrying the flag bit 0x100: flagged cells take only
    // flagged points, which at the disc's border leaves some without a side.
    const auto frame = squarePatch(5.0f, 35.0f, 20.2f, 0.3f, 0.03f, [](float x, float y) {
        return std::hypot(x - 20.0f, y - 20.0f) < 5.0f ? 0x110 : 8;
    });
    const Scene run = reconstruct(frame);
    ASSERT_GT(run.mesh.triangles.size(), 5000u);
    EXPECT_EQ(innerBoundary(run, 5.0f, 35.0f, 1.0f), 0u);
}

TEST(SurfaceCompleteness, PlatesNearABlockSeamKeepTheirTriangles) {
    // The plane 0 of each axis is a block seam at any block size. A plate within half a cell of it, on
    // either side, is contoured as one far from it, although the block on its other side holds none of
    // its points. One scan holds a plate across each axis, 768 mm apart (a whole number of blocks).
    const auto plates = [](float offset) {
        auto frame = std::make_shared<FrameDataWithInfo>();
        for (int axis = 0; axis < 3; ++axis)
            for (int i = 0; i < 120; ++i)
                for (int j = 0; j < 120; ++j) {
                    P3 p, normal = {0.0f, 0.0f, 0.0f};
                    p[axis] = offset;
                    normal[axis] = 1.0f;
                    p[(axis + 1) % 3] = 10.123f + 0.5f * i + 768.0f * axis;
                    p[(axis + 2) % 3] = 10.217f + 0.5f * j;
                    addPoint(*frame, p, normal);
                }
        return frame;
    };
    const auto trianglesOfEachPlate = [](const Scene& run, float offset) {
        std::array<std::size_t, 3> count = {0, 0, 0};
        for (const auto& t : run.mesh.triangles) {
            P3 c = {0.0f, 0.0f, 0.0f};
            for (int v = 0; v < 3; ++v)
                for (int k = 0; k < 3; ++k) c[k] += run.mesh.vertices[t[v]][k] / 3.0f;
            for (int axis = 0; axis < 3; ++axis) {
                const float along = c[(axis + 1) % 3] - 768.0f * axis, across = c[(axis + 2) % 3];
                const bool on_plate = along > 0.0f && along < 100.0f && across > 0.0f && across < 100.0f;
                count[axis] += on_plate && std::fabs(c[axis] - offset) < 1.0f ? 1 : 0;
            }
        }
        return count;
    };
    const auto away = trianglesOfEachPlate(reconstruct(plates(40.3f)), 40.3f);
    for (int axis = 0; axis < 3; ++axis) ASSERT_GT(away[axis], 25000u) << "axis " << axis;
    for (const float offset : {0.0f, 0.1f, -0.1f, -0.24f}) {
        const auto near = trianglesOfEachPlate(reconstruct(plates(offset)), offset);
        for (int axis = 0; axis < 3; ++axis)
            EXPECT_GE(near[axis], away[axis] * 98 / 100) << "axis " << axis << ", plates at " << offset;
    }
}

TEST(SurfaceCompleteness, TheRunLineCountsTheCellsOfEachRule) {
    // A plane with a flagged disc and a step: the line names how many cells each rule decided, and the
    // counts add up.
    const auto frame = squarePatch(5.0f, 35.0f, 20.2f, 0.3f, 0.03f, [](float x, float y) {
        return std::hypot(x - 20.0f, y - 20.0f) < 5.0f ? 0x110 : 8;
    });
    for (int i = 0; i < 100; ++i)
        for (int j = 0; j < 5; ++j) addPoint(*frame, {35.0f, 5.0f + 0.3f * i, 20.1f - 0.3f * j}, {1.0f, 0.0f, 0.0f});
    const Scene run = reconstruct(frame);
    const std::size_t at = run.output.find("[MarchingCubes] cells ");
    ASSERT_NE(at, std::string::npos) << run.output;
    unsigned long long cells = 0, kept = 0, few = 0, relations = 0, common = 0, side = 0, across = 0, off = 0,
                       widened = 0, all_points = 0, edges = 0;
    const int read =
        std::sscanf(run.output.c_str() + at,
                    "[MarchingCubes] cells %llu, %llu with a surface; without one: %llu with fewer than 5 "
                    "points, %llu without relations, %llu without a common normal, %llu without a side of 5 "
                    "points, %llu with fits across their normals, %llu sparse and off their points; %llu "
                    "sparse cells widened, %llu flagged cells on all their points, %llu at a sharp edge",
                    &cells, &kept, &few, &relations, &common, &side, &across, &off, &widened, &all_points, &edges);
    ASSERT_EQ(read, 11) << run.output.substr(at, 400);
    EXPECT_EQ(cells, kept + few + relations + common + side + across + off);
    EXPECT_GT(kept, cells / 2);
    EXPECT_GT(all_points, 0u);  // the disc's border
    EXPECT_GT(edges, 0u);       // the plate's edge at x = 35
    EXPECT_GT(widened, 0u);     // the outer layer of the band of cells
}
