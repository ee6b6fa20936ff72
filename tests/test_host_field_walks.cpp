// The field passes' vector walks on the host must make every cell bit for bit as the per-cell functions
// make it: cells of every kind the passes tell apart (sizes, sheets, creases, flags, lasers, sparse and
// widened cells, short and long runs of points), and the exponential of the weights against expf.
#include <cstdint>

#include "TestSupport.h"
#include "field/FieldComputation.h"
#include "field/HostFieldWalks.h"

using namespace SurfaceReconstruction;
using testing_support::scanPoint;

namespace {

// TOP_THEN_SIDE: an edge whose first point lies on the top face (EDGE starts on the side face).
enum Surface { PLANE, WALL, EDGE, SCATTERED, FLIPPED, SURFACE_KINDS, TOP_THEN_SIDE = SURFACE_KINDS };

// Cells far apart on the x axis, each over points of its own in runs of the given lengths.
struct Scene {
    std::vector<RawPointWithHash> points;
    std::vector<RelationCell2Bins_Device> relations;
    std::vector<CellNode_Device> cells;
    DeviceParameters params{};

    Scene() {
        setFieldComputationEdges(params);
        params.laser_min_edge[3] = 0.3f;  // laser 3 counts in cells of edge 0.3 and up
        params.laser_min_edge[5] = 2.0f;
    }

    // A plain cell has no flags and no points of a laser with a smallest edge, and no points on the bounds
    // of its reach: every point of its sides can be among the first walk's points.
    void addCell(std::mt19937& rng, float edge, Surface surface, bool short_runs, bool plain = false) {
        std::uniform_real_distribution<float> u(-1.0f, 1.0f), unit(0.0f, 1.0f);
        CellNode_Device cell = emptyCellNodeDevice();
        cell.center[0] = 100.0f * static_cast<float>(cells.size());
        cell.half_size = edge * 0.5f;
        cell.point_count = 0;
        cell.field_flag = 0;
        cell.word = unit(rng) < 0.2f && !plain ? 0x108u : 0x8u;
        if (unit(rng) < 0.3f) cell.rules |= CELL_WIDENED_SEARCH;
        cell.relation_offset = static_cast<std::int32_t>(relations.size());
        const float reach = edge * static_cast<float>(fieldSearchFactor(edge, params.wide_search_edge));
        const int total = static_cast<int>(4 + 150 * unit(rng) * unit(rng));
        for (int made = 0; made < total;) {
            const int run = short_runs ? 1 + static_cast<int>(3 * unit(rng)) : 8 + static_cast<int>(60 * unit(rng));
            relations.push_back({static_cast<std::int32_t>(points.size()), run});
            for (int k = 0; k < run; ++k) {
                points.push_back(pointOf(rng, cell, edge, reach, surface, made + k));
                if (plain) points.back().laser = 0;
            }
            cell.point_count += run;
            ++cell.relation_count;
            made += run;
        }
        // Points whose squared offsets are exactly the walks' bounds on the search radius and the near
        // radius of four edges, where a strict and a loose comparison part: the centre lies on the grid,
        // so an offset along y is exact.
        const int start = static_cast<int>(points.size());
        for (const float bound : {squareWithRootAtLeast(reach), squareWithRootAtMost(reach),
                                  squareWithRootAtLeast(4.0f * edge), squareWithRootAtMost(4.0f * edge)}) {
            if (plain && (bound == squareWithRootAtLeast(reach) || bound == squareWithRootAtMost(reach))) continue;
            float offset[2];
            if (offsetWithSquare(bound, offset))
                points.push_back(scanPoint(cell.center[0], offset[0], offset[1], 0.0f, 0.0f, 1.0f, 0x108));
        }
        const int boundary = static_cast<int>(points.size()) - start;
        relations.push_back({start, boundary});
        cell.point_count += boundary;
        ++cell.relation_count;
        cells.push_back(cell);
    }

    // An offset (0, y, z) whose square, as the walks round it, is exactly `bound`.
    static bool offsetWithSquare(float bound, float out[2]) {
        for (int m = 0; m < 200; ++m) {
            const float z = 1e-4f * static_cast<float>(m);
            float y = std::sqrt(std::fabs(bound - z * z));
            for (int step = 0; step < 6; ++step) {
                const float square = (0.0f * 0.0f + y * y) + z * z;
                if (square == bound) {
                    out[0] = y;
                    out[1] = z;
                    return true;
                }
                y = std::nextafter(y, square < bound ? 1e30f : 0.0f);
            }
        }
        return false;
    }

    // A point of the surface around the cell, mostly within the cell's reach, some beyond it.
    static RawPointWithHash pointOf(std::mt19937& rng, const CellNode_Device& cell, float edge, float reach,
                                    Surface surface, int index) {
        std::uniform_real_distribution<float> u(-1.0f, 1.0f), unit(0.0f, 1.0f);
        const float spread = reach * (unit(rng) < 0.1f ? 1.4f : 0.7f);
        float x = spread * u(rng), y = spread * u(rng), z = 0.0f;
        float n[3] = {0.05f * u(rng), 0.05f * u(rng), 1.0f};
        switch (surface) {
            case PLANE:
                z = 0.1f * x + 0.01f * edge * u(rng);
                break;
            case WALL:  // two faces of a thin wall, facing away from each other
                z = (index % 2 ? 0.15f : -0.15f) * edge;
                n[2] = index % 2 ? 1.0f : -1.0f;
                break;
            case EDGE:  // the top face and a side face of a block meet at x = 0.3 edge
            case TOP_THEN_SIDE:
                if (index % 3 == (surface == EDGE ? 0 : 1)) {
                    x = 0.3f * edge;
                    z = -spread * unit(rng);
                    n[0] = 1.0f;
                    n[2] = 0.05f * u(rng);
                } else {
                    x = x < 0.3f * edge ? x : 0.3f * edge - std::fabs(x);
                }
                break;
            case SCATTERED:
                z = 0.3f * edge * u(rng);
                n[0] = u(rng), n[1] = u(rng), n[2] = u(rng);
                break;
            case FLIPPED:  // the first points disagree with the rest
                z = 0.05f * x;
                if (index < 3 || index % 7 == 0) n[2] = -1.0f;
                break;
            default:
                break;
        }
        const float length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        const std::int32_t w = 8 | (unit(rng) < 0.3f ? 0x100 : 0);
        RawPointWithHash p = scanPoint(cell.center[0] + x, cell.center[1] + y, cell.center[2] + z, n[0] / length,
                                       n[1] / length, n[2] / length, w);
        p.laser = static_cast<std::uint8_t>(unit(rng) * 10.0f);  // lasers 0 to 9: from 8 on none has a limit
        return p;
    }
};

}  // namespace

TEST(HostFieldWalks, MakeTheCellsThePerCellFunctionsMake) {
    if (!hostFieldWalksAvailable()) GTEST_SKIP() << "no AVX2 and FMA here: the per-cell functions run as they are";
    std::mt19937 rng(29);
    Scene scene;
    const float edges[] = {0.04f, 0.08f, 0.1f, 0.2f, 0.3f, 0.5f, 0.9f, 1.5f, 3.0f, 4.5f};
    for (int i = 0; i < 3000; ++i)
        scene.addCell(rng, edges[i % 10], static_cast<Surface>((i / 10) % SURFACE_KINDS), (i / 50) % 2 == 0);
    // Plain cells, whose side walk can take the first walk's sums: on a plane, at an edge (points across
    // the sheet), on a thin wall, on scattered normals.
    const Surface plain_surfaces[] = {PLANE, TOP_THEN_SIDE, WALL, SCATTERED};
    for (int i = 0; i < 1000; ++i)
        scene.addCell(rng, edges[i % 10], plain_surfaces[(i / 10) % 4], (i / 50) % 2 == 0, true);
    // Cells that end before the walks: rejected before, too few points, a relation past the array.
    scene.cells[7].field_flag = -1;
    scene.cells[8].point_count = 3;
    scene.cells[9].relation_offset = static_cast<std::int32_t>(scene.relations.size());
    const int relation_size = static_cast<int>(scene.relations.size());

    std::vector<CellNode_Device> expected = scene.cells;
    std::vector<VoxelFieldCenter> expected_centres(expected.size(), VoxelFieldCenter{});
    for (std::size_t i = 0; i < expected.size(); ++i) {
        computeInitNormal(expected[i], scene.relations.data(), relation_size, scene.points.data(), scene.params);
        computeFineNormal(expected[i], scene.relations.data(), relation_size, scene.points.data(), scene.params,
                          expected_centres[i]);
        computeFieldData(expected[i], scene.relations.data(), relation_size, scene.points.data(), scene.params,
                         expected_centres[i]);
    }

    PointColumns columns;
    columns.assign(scene.points.data(), scene.points.size());
    std::vector<CellNode_Device> actual = scene.cells;
    std::vector<VoxelFieldCenter> actual_centres(actual.size(), VoxelFieldCenter{});
    computeCellFieldsOnHost(actual.data(), actual.size(), scene.relations.data(), relation_size, columns, scene.params,
                            actual_centres.data());

    int two_sheets = 0, creases = 0, all_points = 0, off_centre = 0, no_common_normal = 0, kept = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(std::memcmp(&actual[i], &expected[i], sizeof(CellNode_Device)), 0)
            << "cell " << i << ": sheets " << actual[i].field_flag << " / " << expected[i].field_flag << ", value "
            << actual[i].fields[0].value << " / " << expected[i].fields[0].value;
        ASSERT_EQ(std::memcmp(&actual_centres[i], &expected_centres[i], sizeof(VoxelFieldCenter)), 0) << "cell " << i;
        two_sheets += expected[i].field_flag == 2;
        kept += expected[i].field_flag > 0;
        creases += (expected[i].rules & CELL_CREASE) != 0;
        all_points += (expected[i].rules & CELL_ALL_POINTS) != 0;
        off_centre += cellRejection(expected[i].rules) == CELL_OFF_CENTRE;
        no_common_normal += cellRejection(expected[i].rules) == CELL_NO_COMMON_NORMAL;
    }
    // The scene reaches the rules that the walks feed.
    EXPECT_GT(kept, 1000);
    EXPECT_GT(two_sheets, 50);
    EXPECT_GT(creases, 20);
    EXPECT_GT(all_points, 20);
    EXPECT_GT(off_centre, 5);
    EXPECT_GT(no_common_normal, 5);
}

TEST(HostFieldWalks, ColumnsThatTakeTheListHoldWhatAssignGives) {
    if (!hostFieldWalksAvailable()) GTEST_SKIP() << "no AVX2 and FMA here: no columns are made";
    // A list of more than one slice gives its pages back slice by slice as the columns fill: the columns
    // must be those that a plain copy makes, and the list is left empty.
    std::mt19937 rng(41);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    PointList list(HOST_COLUMN_SLICE_POINTS * 2 + 123);
    for (RawPointWithHash& p : list) {
        p = RawPointWithHash{};
        p.x = unit(rng), p.y = unit(rng), p.z = unit(rng), p.nx = unit(rng), p.ny = unit(rng), p.nz = unit(rng);
        p.w = static_cast<std::int32_t>(rng() & 0x1FF);
        p.laser = static_cast<std::uint8_t>(rng() % 12);
    }
    PointColumns copied, taken;
    copied.assign(list.data(), list.size());
    taken.assignGivingBack(list);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(taken.size, copied.size);
    const auto same = [](const auto& a, const auto& b) {
        return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0;
    };
    EXPECT_TRUE(same(taken.x, copied.x) && same(taken.y, copied.y) && same(taken.z, copied.z));
    EXPECT_TRUE(same(taken.nx, copied.nx) && same(taken.ny, copied.ny) && same(taken.nz, copied.nz));
    EXPECT_TRUE(same(taken.tag, copied.tag));
}

TEST(HostFieldWalks, ExponentialAgreesWithExpf) {
    if (!hostFieldWalksAvailable()) GTEST_SKIP() << "no AVX2 and FMA here";
    // Every 97th float of the weights' range [-104, 0], then the ends and the values past them.
    std::vector<float> inputs;
    for (std::uint32_t u = 0x80000000u; u <= 0xC2D00000u; u += 97) {
        float f;
        std::memcpy(&f, &u, sizeof f);
        inputs.push_back(f);
    }
    for (float f : {0.0f, -0.0f, 1e-30f, -1e-45f, -87.99f, -88.0f, -88.01f, -103.9f, -104.0f, -200.0f, 3.0f, 88.5f,
                    -INFINITY, INFINITY, NAN})
        inputs.push_back(f);
    while (inputs.size() % 8 != 0) inputs.push_back(-1.0f);
    std::size_t differing = 0;
    for (std::size_t i = 0; i < inputs.size(); i += 8) {
        float out[8];
        host_walks_internal::exp8(&inputs[i], out);
        for (int l = 0; l < 8; ++l) {
            const float expected = expf(inputs[i + l]);
            if (std::memcmp(&expected, &out[l], sizeof(float)) != 0 && !(std::isnan(expected) && std::isnan(out[l])))
                ++differing;
        }
    }
    EXPECT_EQ(differing, 0u) << "of " << inputs.size();
    EXPECT_GT(inputs.size(), 10000000u);
}
