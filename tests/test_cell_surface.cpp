// Contouring of dual cubes: the tables checked for what they claim, the sheet matching, the winding,
// and whole runs of the engine on simulated closed objects.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "CellSurface.h"
#include "Tessaline_OPT.h"
#include "TestAccess.h"

using namespace SurfaceReconstruction;

namespace {

// The 48 symmetries of the cube as corner permutations (corner = x + 2y + 4z), with their orientation.
struct Symmetry {
    std::array<int, 8> corner;
    bool reflection;
};

std::vector<Symmetry> cubeSymmetries() {
    std::vector<Symmetry> result;
    const int permutations[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
    const bool odd[6] = {false, true, true, false, false, true};
    for (int p = 0; p < 6; ++p) {
        for (int flips = 0; flips < 8; ++flips) {
            Symmetry s;
            for (int k = 0; k < 8; ++k) {
                const int bits[3] = {k & 1, (k >> 1) & 1, (k >> 2) & 1};
                int image = 0;
                for (int axis = 0; axis < 3; ++axis)
                    image |= (bits[permutations[p][axis]] ^ ((flips >> axis) & 1)) << axis;
                s.corner[static_cast<std::size_t>(k)] = image;
            }
            const int flip_count = (flips & 1) + ((flips >> 1) & 1) + ((flips >> 2) & 1);
            s.reflection = odd[p] != (flip_count % 2 == 1);
            result.push_back(s);
        }
    }
    return result;
}

int imageOf(int configuration, const Symmetry& s) {
    int image = 0;
    for (int k = 0; k < 8; ++k)
        if ((configuration >> k) & 1) image |= 1 << s.corner[static_cast<std::size_t>(k)];
    return image;
}

}  // namespace

TEST(DualCubeTables, EveryRowIsASymmetryOntoTheSmallestImageOfItsClass) {
    const std::vector<Symmetry> symmetries = cubeSymmetries();
    ASSERT_EQ(symmetries.size(), 48u);
    for (int configuration = 0; configuration < 256; ++configuration) {
        const DualCubeConfiguration& row = DUAL_CUBE_CONFIGURATIONS[configuration];
        // The corner map is one of the 48 symmetries, with the right reflection flag.
        bool found = false;
        for (const Symmetry& s : symmetries) {
            bool same = true;
            for (int j = 0; j < 8; ++j) same = same && s.corner[static_cast<std::size_t>(j)] == row.corner[j];
            if (same) {
                found = true;
                EXPECT_EQ(s.reflection, row.reflected == 1) << "row " << configuration;
            }
        }
        EXPECT_TRUE(found) << "row " << configuration;
        // Bit j of the case is bit corner[j] of the configuration.
        for (int j = 0; j < 8; ++j) {
            ASSERT_EQ((row.canonical_case >> j) & 1, (configuration >> row.corner[j]) & 1) << "row " << configuration;
        }
        // The case is the smallest image of the configuration's class.
        int smallest = 255;
        for (const Symmetry& s : symmetries) smallest = std::min(smallest, imageOf(configuration, s));
        EXPECT_EQ(row.canonical_case, smallest) << "row " << configuration;
        if (row.canonical_case != 0 && row.canonical_case != 255) {
            EXPECT_NE(dualCubeCase(row.canonical_case), nullptr);
        }
    }
}

namespace {

// Eight corner cells of a unit dual cube, each with its sheets in a field store.
class DualCube : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pool.init());
        for (int k = 0; k < 8; ++k) {
            cells[k].center[0] = static_cast<float>(k & 1);
            cells[k].center[1] = static_cast<float>((k >> 1) & 1);
            cells[k].center[2] = static_cast<float>((k >> 2) & 1);
            cells[k].half_size = 0.5f;
            cells[k].cell_type = CELL_TYPE_LEAF;
        }
    }

    // Gives corner k its sheets: values with normals (0, 0, nz).
    void sheets(int k, std::initializer_list<std::pair<float, float>> value_and_nz) {
        std::int32_t index = -1;
        ASSERT_EQ(pool.allocDataIndex(index, static_cast<std::int32_t>(value_and_nz.size())), 0);
        cells[k].data_id = index;
        cells[k].field_count = static_cast<std::uint8_t>(value_and_nz.size());
        cells[k].data_state = 2;
        for (const auto& [value, nz] : value_and_nz) {
            FieldSlot& slot = *pool.slot(index++);
            slot = FieldSlot{};
            slot.value = value;
            slot.normal[2] = nz;
            slot.word = 8;
        }
    }

    std::vector<std::pair<TriangleXYZ, TriangleW>> contour() {
        std::vector<std::pair<TriangleXYZ, TriangleW>> triangles;
        auto sink = [&triangles](const TriangleXYZ& xyz, const TriangleW& w) { triangles.push_back({xyz, w}); };
        DualCubeContour<decltype(sink)> contour(pool, sink);
        const CellNode* corners[8];
        for (int k = 0; k < 8; ++k) corners[k] = &cells[k];
        contour(corners);
        return triangles;
    }

    static std::array<float, 3> normalOf(const TriangleXYZ& t) {
        const float u[3] = {t.xyz[3] - t.xyz[0], t.xyz[4] - t.xyz[1], t.xyz[5] - t.xyz[2]};
        const float v[3] = {t.xyz[6] - t.xyz[0], t.xyz[7] - t.xyz[1], t.xyz[8] - t.xyz[2]};
        return {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    }

    FieldDataPool pool;
    CellNode cells[8];
};

}  // namespace

TEST_F(DualCube, AFlatSheetGivesTwoTrianglesFacingTheNegativeSide) {
    // The surface z = 0.5; values positive below it (the normal +z points to the negative side).
    for (int k = 0; k < 8; ++k) sheets(k, {{((k >> 2) & 1) ? -0.5f : 0.5f, 1.0f}});
    const auto triangles = contour();
    ASSERT_EQ(triangles.size(), 2u);
    for (const auto& [xyz, w] : triangles) {
        for (int v = 0; v < 3; ++v) EXPECT_FLOAT_EQ(xyz.xyz[3 * v + 2], 0.5f);
        EXPECT_GT(normalOf(xyz)[2], 0.0f);
        EXPECT_EQ(w.w[0] & 0xff, 8u);
    }
}

TEST_F(DualCube, ReflectedRowsKeepTheWinding) {
    // Configuration 5 (corners 0 and 2 negative) takes case 3 through a reflection; configuration 3
    // (corners 0 and 1) through the identity. Both must face the negative side (low y and low x).
    for (int configuration : {3, 5}) {
        for (int k = 0; k < 8; ++k) sheets(k, {{((configuration >> k) & 1) ? -0.5f : 0.5f, 1.0f}});
        const auto triangles = contour();
        ASSERT_EQ(triangles.size(), 2u) << configuration;
        for (const auto& t : triangles) {
            const auto n = normalOf(t.first);
            // Negative corners at x = 0 (configuration 5) or y = 0 (configuration 3): the normal points there.
            EXPECT_LT(configuration == 5 ? n[0] : n[1], 0.0f) << configuration;
        }
        EXPECT_EQ(DUAL_CUBE_CONFIGURATIONS[configuration].reflected, configuration == 5 ? 1 : 0);
    }
}

TEST_F(DualCube, ACornerWithoutFieldEndsTheCube) {
    for (int k = 0; k < 7; ++k) sheets(k, {{((k >> 2) & 1) ? -0.5f : 0.5f, 1.0f}});
    EXPECT_TRUE(contour().empty());
}

TEST_F(DualCube, TwoSheetsGiveTwoContourings) {
    // A thin wall: the front sheet (normal +z) and the back sheet (normal -z) at every corner.
    for (int k = 0; k < 8; ++k) {
        const bool high = ((k >> 2) & 1) != 0;
        sheets(k, {{high ? -0.5f : 0.5f, 1.0f}, {high ? 0.3f : -0.3f, -1.0f}});
    }
    const auto triangles = contour();
    ASSERT_EQ(triangles.size(), 4u);
    EXPECT_GT(normalOf(triangles[0].first)[2], 0.0f);  // the first contouring: slot 0 of corner 0
    EXPECT_LT(normalOf(triangles[2].first)[2], 0.0f);  // the second: slot 1
}

TEST_F(DualCube, AMarkedFirstSlotBlocksTheSecondAttempt) {
    // Corner 0 has two sheets; corner 5 has one sheet that agrees with the first reference. The second
    // attempt meets corner 5's first slot, already marked by the first attempt, and fails.
    for (int k = 0; k < 8; ++k) {
        const bool high = ((k >> 2) & 1) != 0;
        if (k == 0 || k == 5) continue;
        sheets(k, {{high ? -0.5f : 0.5f, 1.0f}, {high ? 0.3f : -0.3f, -1.0f}});
    }
    sheets(0, {{0.5f, 1.0f}, {-0.3f, -1.0f}});
    sheets(5, {{-0.5f, 0.2f}});  // 0.2 > 0.1 with +z, and -0.2 with -z
    const auto triangles = contour();
    EXPECT_EQ(triangles.size(), 2u);
}

TEST_F(DualCube, ACornerWithNoAgreeingSheetTakesItsBestAboveTheFallbackBound) {
    // Near a sharp edge neighbouring corners fit different faces. Corner 6's sheets lie across the
    // reference (+z): the better one serves while its dot product stays above -0.2.
    const auto withCorner6 = [this](std::initializer_list<std::pair<float, float>> corner6) {
        for (int k = 0; k < 8; ++k) {
            if (k == 6) continue;
            sheets(k, {{((k >> 2) & 1) ? -0.5f : 0.5f, 1.0f}});
        }
        sheets(6, corner6);
        return contour();
    };
    EXPECT_EQ(withCorner6({{-0.5f, 0.05f}}).size(), 2u);
    EXPECT_EQ(withCorner6({{-0.5f, -0.19f}}).size(), 2u);
    EXPECT_TRUE(withCorner6({{-0.5f, -0.2f}}).empty());
    EXPECT_TRUE(withCorner6({{-0.5f, -0.9f}}).empty());
    // Of two sheets across the reference the better one is taken: its value is the one contoured.
    const auto two = withCorner6({{0.5f, -0.15f}, {-0.5f, 0.05f}});
    ASSERT_EQ(two.size(), 2u);
    for (const auto& [xyz, w] : two)
        for (int v = 0; v < 3; ++v) EXPECT_FLOAT_EQ(xyz.xyz[3 * v + 2], 0.5f);
}

TEST_F(DualCube, AValueOfZeroIsNotNegativeAndDegenerateTrianglesAreDropped) {
    // Corner 0 at exactly 0, its neighbours negative: vertices fall on corner 0 and collapse.
    for (int k = 0; k < 8; ++k) sheets(k, {{k == 0 ? 0.0f : -1.0f, 1.0f}});
    const auto triangles = contour();
    EXPECT_TRUE(triangles.empty());
}

TEST(TriangleSinkTest, NaNTrianglesAreDroppedAndLengthsStayEqual) {
    std::atomic<unsigned char> is_ok{1};
    std::vector<MultiMeshData> parts(static_cast<std::size_t>(omp_get_max_threads()));
    TriangleSink sink{&is_ok, &parts};
    TriangleXYZ good{};
    TriangleXYZ bad{};
    bad.xyz[7] = std::nanf("");
    TriangleXYZ infinite{};
    infinite.xyz[0] = INFINITY;
    sink(good, TriangleW{});
    sink(bad, TriangleW{});
    sink(infinite, TriangleW{});  // infinite values pass
    MultiMeshData& part = parts[static_cast<std::size_t>(omp_get_thread_num())];
    EXPECT_EQ(part.xyz.size(), 2u);
    EXPECT_EQ(part.w.size(), 2u);
    is_ok = 0;
    sink(good, TriangleW{});
    EXPECT_EQ(part.xyz.size(), 2u);
}

// ---- whole runs ------------------------------------------------------------------------------------

namespace {

// A scan of a sphere of radius `radius` around `centre`, seen from six directions, in frames.
std::vector<std::shared_ptr<FrameDataWithInfo>> sphereScan(const float centre[3], float radius, float spacing) {
    std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
    const int n = static_cast<int>(4.0f * 3.14159265f * radius * radius / (spacing * spacing));
    const double golden = 3.14159265358979 * (3.0 - std::sqrt(5.0));
    for (int f = 0; f < 6; ++f) frames.push_back(std::make_shared<FrameDataWithInfo>());
    for (int i = 0; i < n; ++i) {
        const double z = 1.0 - 2.0 * (i + 0.5) / n, r = std::sqrt(1.0 - z * z), a = golden * i;
        const Vec3f normal = {static_cast<float>(r * std::cos(a)), static_cast<float>(r * std::sin(a)),
                              static_cast<float>(z)};
        FrameDataWithInfo& frame = *frames[static_cast<std::size_t>(i % 6)];
        frame.xyz.push_back(
            {centre[0] + radius * normal[0], centre[1] + radius * normal[1], centre[2] + radius * normal[2]});
        frame.nor.push_back(normal);
        frame.w.push_back(8);
    }
    return frames;
}

std::shared_ptr<MultiMeshData> run(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, float resolution) {
    Tessaline_OPT engine;
    EXPECT_EQ(engine.init(), 0);
    engine.setResolution(resolution);
    for (const auto& f : frames) EXPECT_EQ(engine.addScanFrame(std::make_shared<FrameDataWithInfo>(*f)), 0);
    auto mesh = std::make_shared<MultiMeshData>();
    ::testing::internal::CaptureStdout();
    const int status = engine.process(mesh);
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, 0) << engine.getLastErrorMsg();
    EXPECT_EQ(engine.deInit(), 0);
    return mesh;
}

}  // namespace

TEST(MeshRuns, ASphereBecomesAClosedOutwardSurfaceOnTheSphere) {
    // Across the corner of four root blocks of 256 mm, so that seams between roots are crossed.
    const float centre[3] = {256.0f, 256.0f, 30.0f};
    const float radius = 12.0f;
    const auto mesh = run(sphereScan(centre, radius, 0.25f), 0.5f);
    ASSERT_GT(mesh->xyz.size(), 1000u);
    ASSERT_EQ(mesh->xyz.size(), mesh->w.size());
    std::vector<float> deviation;
    std::size_t outward = 0;
    for (const TriangleXYZ& t : mesh->xyz) {
        float c[3] = {0, 0, 0};
        for (int v = 0; v < 3; ++v) {
            float d2 = 0;
            for (int axis = 0; axis < 3; ++axis) {
                const float d = t.xyz[3 * v + axis] - centre[axis];
                d2 += d * d;
                c[axis] += d / 3.0f;
            }
            deviation.push_back(std::fabs(std::sqrt(d2) - radius));
        }
        const float u[3] = {t.xyz[3] - t.xyz[0], t.xyz[4] - t.xyz[1], t.xyz[5] - t.xyz[2]};
        const float v[3] = {t.xyz[6] - t.xyz[0], t.xyz[7] - t.xyz[1], t.xyz[8] - t.xyz[2]};
        const float n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
        outward += (n[0] * c[0] + n[1] * c[1] + n[2] * c[2]) > 0.0f ? 1 : 0;
    }
    std::sort(deviation.begin(), deviation.end());
    const float median = deviation[deviation.size() / 2], p95 = deviation[deviation.size() * 95 / 100];
    std::printf(
        "sphere mesh: %zu triangles, vertex distance to the sphere median %.4f, 95%% %.4f, largest %.4f, "
        "outward %.4f\n",
        mesh->xyz.size(), median, p95, deviation.back(), static_cast<double>(outward) / mesh->xyz.size());
    // Cells of edge 0.5 on a sphere of radius 12: 0.004 median and 0.0055 largest seen.
    EXPECT_LT(median, 0.01f);
    EXPECT_LT(deviation.back(), 0.02f);
    EXPECT_EQ(outward, mesh->xyz.size());

    // Closed: with vertices welded on a fine grid, every edge is shared by exactly two triangles.
    std::map<std::array<long long, 6>, int> edges;
    const auto key = [](const float* p) {
        return std::array<long long, 3>{std::llround(p[0] * 1e3), std::llround(p[1] * 1e3), std::llround(p[2] * 1e3)};
    };
    for (const TriangleXYZ& t : mesh->xyz) {
        for (int e = 0; e < 3; ++e) {
            auto a = key(&t.xyz[3 * e]), b = key(&t.xyz[3 * ((e + 1) % 3)]);
            if (b < a) std::swap(a, b);
            edges[{a[0], a[1], a[2], b[0], b[1], b[2]}] += 1;
        }
    }
    std::size_t open = 0;
    for (const auto& entry : edges) open += entry.second != 2 ? 1 : 0;
    std::printf("sphere mesh: %zu edges, %zu not shared by exactly two triangles\n", edges.size(), open);
    EXPECT_EQ(open, 0u);
}

TEST(MeshRuns, SameFramesSameMeshForAnyThreadCount) {
    const float centre[3] = {40.0f, 20.0f, 30.0f};
    const auto frames = sphereScan(centre, 6.0f, 0.3f);
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    const auto one = run(frames, 0.5f);
    omp_set_num_threads(std::max(2, threads));
    const auto many = run(frames, 0.5f);
    omp_set_num_threads(threads);
    ASSERT_GT(one->xyz.size(), 100u);
    ASSERT_EQ(one->xyz.size(), many->xyz.size());
    EXPECT_EQ(std::memcmp(one->xyz.data(), many->xyz.data(), one->xyz.size() * sizeof(TriangleXYZ)), 0);
    EXPECT_EQ(std::memcmp(one->w.data(), many->w.data(), one->w.size() * sizeof(TriangleW)), 0);
}

TEST(MeshRuns, ASecondRunAfterDeInitAndInitGivesTheSameMesh) {
    const float centre[3] = {10.0f, 10.0f, 10.0f};
    const auto frames = sphereScan(centre, 5.0f, 0.3f);
    Tessaline_OPT engine;
    std::shared_ptr<MultiMeshData> meshes[2];
    for (auto& mesh : meshes) {
        ASSERT_EQ(engine.init(), 0);
        engine.setResolution(0.5f);
        for (const auto& f : frames) ASSERT_EQ(engine.addScanFrame(std::make_shared<FrameDataWithInfo>(*f)), 0);
        mesh = std::make_shared<MultiMeshData>();
        ::testing::internal::CaptureStdout();
        ASSERT_EQ(engine.process(mesh), 0);
        ::testing::internal::GetCapturedStdout();
        ASSERT_EQ(engine.deInit(), 0);
        EXPECT_EQ(TestAccess::reconstructor(engine), nullptr);  // octree and store went with it
    }
    ASSERT_GT(meshes[0]->xyz.size(), 100u);
    ASSERT_EQ(meshes[0]->xyz.size(), meshes[1]->xyz.size());
    EXPECT_EQ(std::memcmp(meshes[0]->xyz.data(), meshes[1]->xyz.data(), meshes[0]->xyz.size() * sizeof(TriangleXYZ)),
              0);
}

TEST(MeshRuns, AThinWallSeenFromBothSidesGivesTwoSurfaces) {
    // A plate 0.3 thick, thinner than a cell, scanned from above (normals +z) and below (normals -z).
    auto top = std::make_shared<FrameDataWithInfo>();
    auto bottom = std::make_shared<FrameDataWithInfo>();
    for (float x = 2.0f; x < 18.0f; x += 0.2f) {
        for (float y = 2.0f; y < 18.0f; y += 0.2f) {
            top->xyz.push_back({x, y, 10.15f});
            top->nor.push_back({0.0f, 0.0f, 1.0f});
            top->w.push_back(8);
            bottom->xyz.push_back({x + 0.1f, y + 0.1f, 9.85f});
            bottom->nor.push_back({0.0f, 0.0f, -1.0f});
            bottom->w.push_back(8);
        }
    }
    const auto mesh = run({top, bottom}, 0.5f);
    std::size_t up = 0, down = 0, interior = 0;
    for (const TriangleXYZ& t : mesh->xyz) {
        const float cx = (t.xyz[0] + t.xyz[3] + t.xyz[6]) / 3.0f, cy = (t.xyz[1] + t.xyz[4] + t.xyz[7]) / 3.0f;
        if (cx < 4.0f || cx > 16.0f || cy < 4.0f || cy > 16.0f) continue;  // away from the plate's rim
        ++interior;
        const float u[3] = {t.xyz[3] - t.xyz[0], t.xyz[4] - t.xyz[1], t.xyz[5] - t.xyz[2]};
        const float v[3] = {t.xyz[6] - t.xyz[0], t.xyz[7] - t.xyz[1], t.xyz[8] - t.xyz[2]};
        const float nz = u[0] * v[1] - u[1] * v[0];
        const float z = (t.xyz[2] + t.xyz[5] + t.xyz[8]) / 3.0f;
        if (nz > 0 && std::fabs(z - 10.15f) < 0.05f) ++up;
        if (nz < 0 && std::fabs(z - 9.85f) < 0.05f) ++down;
    }
    ASSERT_GT(interior, 100u);
    EXPECT_EQ(up + down, interior);  // every triangle belongs to one of the two faces
    EXPECT_GT(up, interior / 3);
    EXPECT_GT(down, interior / 3);
}
