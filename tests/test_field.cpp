// The per-cell passes of the field computation on hand-made cells, and the plane fit and closed-form eigen
// solver they rest on, against hand-made point sets and against Eigen's solver as an independent reference.
#include <Eigen/Dense>

#include "TestSupport.h"
#include "field/FieldComputation.h"
#include "field/PlaneFit.h"

using namespace SurfaceReconstruction;
using testing_support::scanPoint;

namespace {

enum Pass { INIT = 1, FINE = 2, VALUES = 3 };

// One cell at the origin with edge 0.5 (search radius 1.5) over the given points, all in one relation.
struct CellCase {
    std::vector<RawPointWithHash> points;
    std::vector<RelationCell2Bins_Device> relations;
    CellNode_Device cell = emptyCellNodeDevice();
    DeviceParameters params{};
    VoxelFieldCenter centres{};

    explicit CellCase(float half_size = 0.25f) {
        setFieldComputationEdges(params);
        cell.half_size = half_size;
        cell.field_flag = 0;
    }

    void add(float x, float y, float z, float nx, float ny, float nz, std::int32_t w = 8, std::uint8_t laser = 0) {
        points.push_back(scanPoint(x, y, z, nx, ny, nz, w));
        points.back().laser = laser;
    }

    // n points on the plane z = height, spread over the cell, with normals (0, 0, nz).
    void sheet(int n, float height, float nz) {
        for (int i = 0; i < n; ++i)
            add(0.3f * std::cos(1.3f * i), 0.3f * std::sin(1.3f * i) * (i % 2 ? 1.0f : 0.5f), height, 0, 0, nz);
    }

    // Points on the plane z = 0.1 x (a slight tilt) with normals +z.
    void tiltedPlane(int n) {
        for (int i = 0; i < n; ++i) {
            const float x = -0.4f + 0.17f * static_cast<float>(i % 5), y = -0.3f + 0.19f * static_cast<float>(i / 5);
            add(x, y, 0.1f * x, 0.0f, 0.0f, 1.0f);
        }
    }

    // Runs the passes from `first` to `last`.
    void run(Pass first = INIT, Pass last = INIT) {
        relations = {{0, static_cast<std::int32_t>(points.size())}};
        cell.relation_offset = 0;
        cell.relation_count = 1;
        cell.point_count = static_cast<std::int32_t>(points.size());
        if (first <= INIT && last >= INIT) computeInitNormal(cell, relations.data(), 1, points.data(), params);
        if (first <= FINE && last >= FINE) computeFineNormal(cell, relations.data(), 1, points.data(), params, centres);
        if (last >= VALUES) computeFieldData(cell, relations.data(), 1, points.data(), params, centres);
    }
};

// A cell whose initial normal is +z, ready for the fine normal pass.
CellCase sheetCase() {
    CellCase c;
    c.cell.init_normal[2] = 1.0f;
    return c;
}

// A cell whose fine normal pass is done: one sheet with normal +z, near centroid at the given height.
CellCase valueCase(float half_size, float centroid_z) {
    CellCase c(half_size);
    c.cell.field_flag = 1;
    c.cell.fields[0].normal[2] = 1.0f;
    c.cell.word = 0x208;
    c.centres.sheet[0][2] = centroid_z;
    return c;
}

}  // namespace

TEST(InitNormals, TooFewPointsOrABadRelationRejectTheCellAndAgreeingPointsGiveThePlaneNormal) {
    for (int n : {0, 3, 4, 5, 20}) {
        CellCase c;
        c.tiltedPlane(n);
        c.run();
        EXPECT_EQ(c.cell.field_flag, n < 5 ? -1 : 0) << n << " points";
        EXPECT_EQ(cellRejection(c.cell.rules), n < 5 ? CELL_FEW_POINTS : CELL_KEPT) << n << " points";
        if (n < 20) continue;
        // The plane z = 0.1 x has the normal (-0.1, 0, 1) / |..|, turned towards the first point's +z.
        const float len = std::sqrt(1.01f);
        EXPECT_NEAR(c.cell.init_normal[0], -0.1f / len, 1e-5f);
        EXPECT_NEAR(c.cell.init_normal[1], 0.0f, 1e-5f);
        EXPECT_NEAR(c.cell.init_normal[2], 1.0f / len, 1e-5f);
    }
    CellCase bad;
    bad.tiltedPlane(6);
    bad.run();
    bad.cell.relation_offset = 1;  // equal to the relation count
    bad.cell.field_flag = 0;
    computeInitNormal(bad.cell, bad.relations.data(), 1, bad.points.data(), bad.params);
    EXPECT_EQ(bad.cell.field_flag, -1);
    // A cell rejected before is left as it is.
    bad.cell.init_normal[0] = 7.0f;
    computeInitNormal(bad.cell, bad.relations.data(), 0, bad.points.data(), bad.params);
    EXPECT_EQ(bad.cell.field_flag, -1);
    EXPECT_EQ(bad.cell.init_normal[0], 7.0f);
}

TEST(InitNormals, AMajorityOfAgreeingPointsDecidesTheCell) {
    using Points = std::vector<std::array<float, 6>>;  // position, normal
    // The first point faces away from all others: fewer than half agree with it. Reference 1 (point 5
    // of 10) and reference 2 (point 9) both face -z; equal counts favour set 1 and its orientation.
    Points second_walk = {{0, 0, 0, 1, 0, 0}};
    for (int i = 1; i < 10; ++i) second_walk.push_back({-0.4f + 0.1f * i, 0.05f * (i % 3), 0, 0, 0, -1});
    // Radius 1.5. Point 2 (reference 1) faces +x; the three others agree with the first point but lie at
    // the radius. The first walk leaves them out (1 of 5 agree), the second takes them into set 2, which
    // with 4 points is too small. Just inside the radius the first walk takes them and fits the plane.
    const auto atRadius = [](float r) {
        return Points{
            {0, 0, 0, 0, 0, 1}, {0.1f, 0, 0, 1, 0, 0}, {r, 0, 0, 0, 0, 1}, {-r, 0, 0, 0, 0, 1}, {0, r, 0, 0, 0, 1}};
    };
    const Points three_agree = {{0, 0, 0, 0, 0, 1},
                                {0.3f, 0, 0, 0, 0, 1},
                                {0, 0.3f, 0, 0, 0, 1},
                                {0.2f, 0.2f, 0.9f, 1, 0, 0},
                                {-0.2f, 0.1f, -0.7f, 1, 0, 0}};
    const Points two_agree = {{0, 0, 0, 0, 0, 1},
                              {0.3f, 0, 0, 0, 0, 1},
                              {0, 0.3f, 0, 1, 0, 0},
                              {0.2f, 0.2f, 0.1f, 0, 1, 0},
                              {-0.2f, 0.1f, 0.2f, 0, -1, 0}};
    const struct {
        const char* name;
        int flag;
        float nz;  // of the initial normal, when kept
        CellRejection rule;
        Points points;
    } rows[] = {
        {"three of five agree: the fit runs on them, which span z = 0", 0, 1.0f, CELL_KEPT, three_agree},
        {"two of five agree, and no other majority", -1, 0.0f, CELL_NO_COMMON_NORMAL, two_agree},
        {"the second walk takes the larger set and its orientation", 0, -1.0f, CELL_KEPT, second_walk},
        {"points exactly at the radius count only in the second walk", -1, 0.0f, CELL_NO_COMMON_NORMAL, atRadius(1.5f)},
        {"points just inside the radius count in the first walk", 0, 1.0f, CELL_KEPT, atRadius(1.49f)},
    };
    for (const auto& row : rows) {
        CellCase c;
        for (const auto& p : row.points) c.add(p[0], p[1], p[2], p[3], p[4], p[5]);
        c.run();
        ASSERT_EQ(c.cell.field_flag, row.flag) << row.name;
        if (row.flag == 0) {
            EXPECT_NEAR(c.cell.init_normal[2], row.nz, 1e-6f) << row.name;
        }
        EXPECT_EQ(cellRejection(c.cell.rules), row.rule) << row.name;
    }
}

TEST(FineNormals, EachSideOfFivePointsMakesASheetFrontFirst) {
    struct Row {
        int front, back;            // points on z = 0.05 facing +z, on z = -0.05 facing -z
        std::vector<float> sheets;  // the normal's z of each slot, front first
    };
    const Row rows[] = {{4, 0, {}}, {5, 0, {1.0f}}, {0, 7, {-1.0f}}, {6, 6, {1.0f, -1.0f}}};
    for (const Row& row : rows) {
        CellCase c = sheetCase();
        c.sheet(row.front, 0.05f, 1.0f);
        c.sheet(row.back, -0.05f, -1.0f);
        c.run(FINE, FINE);
        const std::string name = std::to_string(row.front) + " front, " + std::to_string(row.back) + " back";
        ASSERT_EQ(c.cell.field_flag, static_cast<int>(row.sheets.size())) << name;
        for (std::size_t s = 0; s < row.sheets.size(); ++s) {
            EXPECT_NEAR(c.cell.fields[s].normal[2], row.sheets[s], 1e-6f) << name;
            EXPECT_NEAR(c.centres.sheet[s][2], 0.05f * row.sheets[s], 1e-6f) << name;  // the near points' centroid
        }
        EXPECT_EQ(c.cell.init_normal[2], row.back >= 5 ? -1.0f : 1.0f) << name;  // negated for a back sheet
    }
    CellCase rejected = sheetCase();
    rejected.sheet(8, 0.1f, 1.0f);
    rejected.cell.field_flag = -1;
    rejected.run(FINE, FINE);
    EXPECT_EQ(rejected.cell.field_flag, -1);
    EXPECT_EQ(rejected.cell.fields[0].normal[2], 0.0f);
}

TEST(FineNormals, FarPointsOrAFitAcrossTheInitialNormalGiveNoSheet) {
    // Edge 0.1: search factor 7 (reach 0.7), near radius 0.4. Points at 0.5 count for the fit only.
    CellCase far = sheetCase();
    far.cell.half_size = 0.05f;
    for (int i = 0; i < 6; ++i) far.add(0.5f * std::cos(1.0f * i), 0.5f * std::sin(1.0f * i), 0.0f, 0, 0, 1);
    // Points on the plane x = 0 whose normals say +z: the fitted normal is x, across the initial normal.
    CellCase across = sheetCase();
    for (int i = 0; i < 8; ++i) across.add(0.0f, 0.05f * i - 0.2f, 0.03f * (i % 3) - 0.03f, 0, 0, 1);
    for (CellCase* c : {&far, &across}) {
        c->run(FINE, FINE);
        EXPECT_EQ(c->cell.field_flag, 0);
        EXPECT_EQ(c->centres.sheet[0][0], 0.0f);
        EXPECT_EQ(c->centres.sheet[0][2], 0.0f);
    }
}

TEST(FineNormals, WordBitEightAndLaserLimitsFilterPoints) {
    {
        // The cell wants bit 8: with enough flagged points the others do not count, not even in the
        // centroid (flagged points at z = 0, the others at z = 0.2).
        CellCase c = sheetCase();
        c.cell.word = 0x108;
        for (int i = 0; i < 6; ++i) c.add(0.1f * i, 0.05f * i * i, 0.0f, 0, 0, 1, 0x108);
        for (int i = 0; i < 6; ++i) c.add(-0.1f * i, 0.07f * i, 0.2f, 0, 0, 1, 0x008);
        c.run(FINE, FINE);
        ASSERT_EQ(c.cell.field_flag, 1);
        EXPECT_EQ(c.centres.sheet[0][2], 0.0f);
        EXPECT_EQ(c.cell.rules & CELL_ALL_POINTS, 0u);
    }
    {
        // Four flagged points give no side: at the border of a flagged zone the cell takes all nine
        // rather than leave a pinhole.
        CellCase c = sheetCase();
        c.cell.word = 0x108;
        for (int i = 0; i < 4; ++i) c.add(0.1f * i, 0.05f * i * i, 0.0f, 0, 0, 1, 0x108);
        for (int i = 0; i < 5; ++i) c.add(-0.1f * i, 0.07f * i, 0.2f, 0, 0, 1, 0x008);
        c.run(FINE, FINE);
        ASSERT_EQ(c.cell.field_flag, 1);
        EXPECT_NE(c.cell.rules & CELL_ALL_POINTS, 0u);
        EXPECT_NEAR(c.centres.sheet[0][2], 0.2f * 5 / 9, 1e-6f);
    }
    {
        // Laser 2 only counts in cells of edge 1 or more; this cell's edge is 0.5.
        CellCase c = sheetCase();
        c.params.laser_min_edge[2] = 1.0f;
        for (int i = 0; i < 6; ++i) c.add(0.1f * i, 0.05f * i * i, 0.0f, 0, 0, 1, 8, 2);
        c.run(FINE, FINE);
        EXPECT_EQ(c.cell.field_flag, 0);
    }
}

TEST(FieldValues, APlaneAtAKnownOffsetGivesThatOffsetAndSmallCellsProjectTheirPoints) {
    // Points on z = 0.07 around a cell of edge 0.5 at the origin: the value is +0.07 (the centroid lies
    // on the side the normal points to from the centre). In a cell of edge 0.1 the points scatter around
    // z = -0.02, but the projection puts them on the plane through the centroid: that plane's distance.
    for (const bool small : {false, true}) {
        const float height = small ? -0.02f : 0.07f;
        CellCase c = valueCase(small ? 0.05f : 0.25f, height);
        for (int i = 0; i < (small ? 12 : 30); ++i) {
            if (small) c.add(0.03f * (i % 4) - 0.05f, 0.02f * (i % 3), height + 0.01f * ((i % 5) - 2), 0, 0, 1);
            if (!small) c.add(0.6f * std::cos(0.7f * i) * (i % 3) / 2.0f, 0.5f * std::sin(0.9f * i), height, 0, 0, 1);
        }
        c.run(VALUES, VALUES);
        EXPECT_NEAR(c.cell.fields[0].value, height, 1e-6f) << small;
        EXPECT_EQ(c.cell.fields[0].word, 0x208u);
        EXPECT_NE(c.cell.fields[0].occupancy, 0u);
        EXPECT_EQ(c.cell.fields[1].value, 0.0f);  // one sheet: slot 1 untouched
    }
}

TEST(FieldValues, RejectedAndEmptyCellsKeepTheirSlotsAndASheetWithoutAgreeingPointsIsNaN) {
    for (int flag : {-1, 0}) {
        CellCase c = valueCase(0.25f, 0.0f);
        c.cell.field_flag = flag;
        c.add(0.0f, 0.0f, 0.1f, 0, 0, 1);
        c.run(VALUES, VALUES);
        EXPECT_EQ(c.cell.fields[0].value, 0.0f) << flag;
        EXPECT_EQ(c.cell.fields[0].occupancy, 0u) << flag;
        EXPECT_EQ(c.cell.fields[0].word, 0u) << flag;
    }
    CellCase c = valueCase(0.25f, 0.0f);
    for (int i = 0; i < 6; ++i) c.add(0.05f * i, 0.0f, 0.0f, 1, 0, 0);  // across the sheet's normal
    c.run(VALUES, VALUES);
    EXPECT_TRUE(std::isnan(c.cell.fields[0].value));
}

TEST(FieldValues, AtASharpEdgeTheValueIsTheDistanceToTheSolid) {
    struct Row {
        const char* name;
        float top_x, top_z, dir;  // a face z = top_z over x from top_x in direction dir, normal +z
        int side_points;          // on the face x = top_x, normal +x
        float spacing, side_z0, side_step, value;
        bool crease;
    };
    const Row rows[] = {
        // The cell fits the top, but its centre lies outside the side face: the distance to the solid is
        // -0.2 there, not the top plane's +0.1.
        {"convex", -0.2f, 0.1f, -1.0f, 12, 0.1f, 0.05f, -0.1f, -0.2f, true},
        // The floor meets a wall rising from it (the solid on the wall's low side): the centre lies inside
        // the wall's solid, 0.2 from its face, while the floor plane alone says -0.1.
        {"concave", 0.2f, -0.1f, 1.0f, 12, 0.1f, -0.05f, 0.1f, 0.2f, true},
        // Four points across are no face: the plane's own value stays.
        {"four points across", -0.2f, 0.1f, -1.0f, 4, 0.3f, 0.05f, -0.1f, 0.1f, false},
    };
    for (const Row& row : rows) {
        CellCase c;
        for (int i = 0; i < 60; ++i)
            c.add(row.top_x + row.dir * 0.02f * i, -0.7f + 0.05f * (i % 29), row.top_z, 0, 0, 1);
        for (int i = 0; i < row.side_points; ++i)
            c.add(row.top_x, -0.6f + row.spacing * i, row.side_z0 + row.side_step * (i % 5), 1, 0, 0);
        c.run(INIT, VALUES);
        ASSERT_EQ(c.cell.field_flag, 1) << row.name;
        EXPECT_NEAR(c.cell.fields[0].normal[2], 1.0f, 1e-4f) << row.name;
        EXPECT_EQ((c.cell.rules & CELL_CREASE) != 0, row.crease) << row.name;
        EXPECT_NEAR(c.cell.fields[0].value, row.value, 1e-5f) << row.name;
    }
}

TEST(FieldValues, ASparseCellKeepsItsSheetOnlyWhenItsPointsSurroundIt) {
    // Points of the plane z = 0.05 beyond x = 0.6 only: the cell lies past the edge of the scan. Found
    // through the wider search of a sparse cell the sheet is dropped; with the normal search kept.
    for (const bool widened : {true, false}) {
        CellCase c;
        if (widened) c.cell.rules = CELL_WIDENED_SEARCH;
        for (int i = 0; i < 20; ++i) c.add(0.6f + 0.04f * i, -0.5f + 0.05f * i, 0.05f, 0, 0, 1);
        c.run(INIT, VALUES);
        EXPECT_EQ(c.cell.field_flag, widened ? 0 : 1);
        EXPECT_EQ(cellRejection(c.cell.rules), widened ? CELL_OFF_CENTRE : CELL_KEPT);
    }
    // The same cell with the points around it keeps the sheet, widened or not.
    CellCase around;
    around.cell.rules = CELL_WIDENED_SEARCH;
    for (int i = 0; i < 20; ++i) around.add(-0.8f + 0.08f * i, 0.3f * std::sin(1.7f * i), 0.05f, 0, 0, 1);
    around.run(INIT, VALUES);
    ASSERT_EQ(around.cell.field_flag, 1);
    EXPECT_NEAR(around.cell.fields[0].value, 0.05f, 1e-5f);
}

namespace {

void fit(const std::vector<std::array<float, 3>>& points, const float reference[3], float normal[3]) {
    MomentSums sums{};
    for (const auto& p : points) accumulateCovariance(p.data(), sums);
    fitPlaneNormal(sums, static_cast<int>(points.size()), reference, normal);
}

}  // namespace

// The walks compare squared offsets with bounds instead of roots with radii: every comparison must come
// out as the root's would, at the bounds themselves, at their neighbouring floats and at random lengths.
TEST(RadiusBounds, SquaredComparisonsDecideAsTheRootComparisonsDo) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> exponent(-20.0f, 20.0f);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float max = std::numeric_limits<float>::max();
    const float tiny = std::numeric_limits<float>::denorm_min();
    std::vector<float> limits = {0.0f, -0.0f, -1.0f, 1.0f, 0.1f, 0.7f, 1.4f, 2.5e19f, 1.0e30f, max, inf, nan, tiny};
    for (int i = 0; i < 3000; ++i) limits.push_back(std::pow(2.0f, exponent(rng)) * (1.0f + unit(rng)));
    int compared = 0;
    for (const float limit : limits) {
        const float at_most = squareWithRootAtMost(limit);
        const float at_least = squareWithRootAtLeast(limit);
        std::vector<float> squares = {0.0f, max, inf, nan, limit * limit};
        for (const float bound : {at_most, at_least}) {
            if (!(bound == bound)) continue;
            float below = bound, above = bound;
            for (int step = 0; step < 3; ++step) {
                squares.push_back(below);
                squares.push_back(above);
                below = std::nextafter(below, -inf);
                above = std::nextafter(above, inf);
            }
        }
        for (int i = 0; i < 20; ++i) squares.push_back(limit * limit * 2.0f * unit(rng));
        for (const float square : squares) {
            if (square < 0.0f) continue;  // a sum of squares is never negative
            const float root = std::sqrt(square);
            ASSERT_EQ(root > limit, square > at_most) << "limit " << limit << " square " << square;
            ASSERT_EQ(root < limit, square < at_least) << "limit " << limit << " square " << square;
            ++compared;
        }
    }
    EXPECT_GT(compared, 3000 * 20);
}

TEST(PlaneFit, DegenerateAndFlatSetsGiveTheAxisTheReferenceAsksFor) {
    std::vector<std::array<float, 3>> flat;
    for (int i = -3; i <= 3; ++i)
        for (int j = -2; j <= 2; ++j) flat.push_back({0.3f * i + 0.05f * j, 0.2f * j, 0.0f});
    const std::vector<std::array<float, 3>> same(5, {1.5f, -2.0f, 0.25f});
    const std::vector<std::array<float, 3>> isotropic = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0},
                                                         {0, -1, 0}, {0, 0, 1},  {0, 0, -1}};
    const struct {
        const char* name;
        const std::vector<std::array<float, 3>>& points;
        std::array<float, 3> reference, normal;
        float tolerance;
    } rows[] = {
        {"a flat set, reference up", flat, {0.1f, 0.2f, 1.0f}, {0, 0, 1}, 1e-6f},
        {"a flat set, reference down", flat, {0.0f, 0.0f, -2.0f}, {0, 0, -1}, 1e-6f},
        {"equal points give the first axis", same, {0.5f, 0.5f, 0.5f}, {1, 0, 0}, 0.0f},
        {"equal points, reference behind", same, {-0.1f, 0.0f, 0.0f}, {-1, 0, 0}, 0.0f},
        // A dot product of exactly zero leaves the solver's sign.
        {"equal points, orthogonal reference", same, {0.0f, 1.0f, 1.0f}, {1, 0, 0}, 0.0f},
        {"an isotropic set gives the first axis", isotropic, {1, 0, 0}, {1, 0, 0}, 0.0f},
    };
    for (const auto& row : rows) {
        float normal[3];
        fit(row.points, row.reference.data(), normal);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(normal[k], row.normal[k], row.tolerance) << row.name << ", axis " << k;
    }
}

TEST(PlaneFit, CollinearSetsAndAxesGiveAUnitVectorOrthogonalToThem) {
    std::vector<std::array<float, 3>> points;
    const float dir[3] = {0.6f, 0.0f, 0.8f}, reference[3] = {0, 1, 0};
    for (int i = -4; i <= 4; ++i) points.push_back({dir[0] * i, dir[1] * i, dir[2] * i});
    float normal[3];
    fit(points, reference, normal);
    EXPECT_NEAR(normal[0] * dir[0] + normal[1] * dir[1] + normal[2] * dir[2], 0.0f, 1e-5f);
    EXPECT_NEAR(normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2], 1.0f, 1e-5f);
    // The helper behind it, on both sides of the switch of its form near the z axis and on the axis.
    const double vectors[][3] = {{0, 0, 1}, {0, 0, -1}, {1e-6, -1e-6, 1.0}, {2e-5, 0.0, 1.0}, {0.3, -0.4, 0}};
    for (const auto& v : vectors) {
        double out[3];
        orthogonalUnit(v, out);
        EXPECT_NEAR(out[0] * v[0] + out[1] * v[1] + out[2] * v[2], 0.0, 1e-12) << v[0] << " " << v[1];
        EXPECT_NEAR(out[0] * out[0] + out[1] * out[1] + out[2] * out[2], 1.0, 1e-12) << v[0] << " " << v[1];
    }
}

// The solver serves covariance matrices: symmetric and positive semi-definite.
TEST(EigenSolver, AgreesWithAnIterativeReferenceOnRandomCovariances) {
    std::mt19937 rng(17);
    std::uniform_real_distribution<double> entry(-3.0, 3.0);
    std::uniform_real_distribution<double> scale_exp(-6.0, 6.0);
    int compared_vectors = 0;
    double worst = 0.0;
    for (int trial = -2; trial < 2000; ++trial) {  // first the zero matrix and one of rank one
        const double scale = trial < 0 ? 1.0 : std::pow(10.0, scale_exp(rng));
        Eigen::Matrix3d reference = Eigen::Matrix3d::Zero();
        if (trial == -1) reference << 4, 2, 0, 2, 1, 0, 0, 0, 0;
        for (int sample = 0; trial >= 0 && sample < 3 + trial % 5; ++sample) {
            const Eigen::Vector3d v(entry(rng), entry(rng), entry(rng) * (trial % 3 == 0 ? 0.01 : 1.0));
            reference += v * v.transpose() * scale;
        }
        double matrix[9];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) matrix[3 * i + j] = reference(i, j);
        double vectors[3][3], values[3];
        solveSymmetricEigen3(matrix, vectors, values);

        const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(reference);
        const Eigen::Vector3d expected = solver.eigenvalues();
        const double norm = reference.cwiseAbs().maxCoeff();
        // The root formula runs its angle in single precision: values agree to 5e-5 of the largest entry (1.5e-5 seen).
        for (int k = 0; k < 3; ++k) {
            worst = std::max(worst, std::fabs(values[k] - expected(k)) / norm);
            ASSERT_NEAR(values[k], expected(k), 5e-5 * norm + 1e-12) << "trial " << trial;
        }
        ASSERT_LE(values[0], values[1]);
        ASSERT_LE(values[1], values[2]);

        // The vectors of the smallest and the largest value, where each is well separated from the next.
        for (const int k : {0, 2}) {
            if (expected(k == 0 ? 1 : 2) - expected(k == 0 ? 0 : 1) <= 1e-2 * norm) continue;
            const Eigen::Vector3d v(vectors[k][0], vectors[k][1], vectors[k][2]);
            EXPECT_NEAR(v.norm(), 1.0, 1e-9);
            EXPECT_GT(std::fabs(v.dot(solver.eigenvectors().col(k))), 1.0 - 1e-6) << "trial " << trial;
            compared_vectors += k == 0;
        }
    }
    EXPECT_GT(compared_vectors, 1000);
    std::printf("largest eigenvalue deviation: %.3g of the largest entry\n", worst);
}

// The plane fit takes the smallest value's vector alone, which must be the full solver's bit for bit: over
// random covariances and the degenerate ones (equal values, rank one and two, zero).
TEST(EigenSolver, TheSmallestVectorAloneIsTheFullSolversFirst) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> entry(-3.0, 3.0);
    std::vector<std::array<double, 9>> matrices = {{},
                                                   {4, 2, 0, 2, 1, 0, 0, 0, 0},
                                                   {1, 0, 0, 0, 1, 0, 0, 0, 1},
                                                   {2, 0, 0, 0, 2, 0, 0, 0, 5},
                                                   {1, 0, 0, 0, 3, 0, 0, 0, 3}};
    for (int trial = 0; trial < 20000; ++trial) {
        Eigen::Matrix3d m = Eigen::Matrix3d::Zero();
        for (int sample = 0; sample < 1 + trial % 6; ++sample) {
            const Eigen::Vector3d v(entry(rng), entry(rng), entry(rng) * (trial % 4 == 0 ? 1e-4 : 1.0));
            m += v * v.transpose();
        }
        std::array<double, 9> matrix;
        for (int i = 0; i < 9; ++i) matrix[static_cast<std::size_t>(i)] = m(i / 3, i % 3);
        matrices.push_back(matrix);
    }
    for (const std::array<double, 9>& matrix : matrices) {
        double vectors[3][3], values[3], alone[3];
        solveSymmetricEigen3(matrix.data(), vectors, values);
        smallestEigenVector3(matrix.data(), alone);
        ASSERT_EQ(std::memcmp(alone, vectors[0], sizeof alone), 0) << matrix[0] << " " << matrix[1] << " " << matrix[4];
    }
}

// The field's own exponential, sine, cosine and arc tangent, which a device and the host compute alike: each
// within a unit or so in the last place of the C library's double-precision answer, over the ranges the
// field uses and across the special cases (signs of zero, the quadrants, the exponential's limits).
TEST(PortableMath, AgreesWithTheLibrarysDoublePrecisionAnswers) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> exponent(-110.0f, 90.0f);
    for (int i = 0; i < 200000; ++i) {
        const float x = i < 100000 ? exponent(random) : -static_cast<float>(i - 100000) * 1e-3f;
        const double reference = std::exp(static_cast<double>(x));
        const float value = portableExpf(x);
        if (reference > 3.4e38) {
            EXPECT_TRUE(std::isinf(value)) << x;
        } else if (reference < 1.1754943508222875e-38) {  // subnormal floats: a few of the least subnormal
            EXPECT_NEAR(value, reference, 4e-45) << x;
        } else {
            EXPECT_NEAR(value, reference, 0.51 * std::ldexp(1.0, std::ilogb(reference) - 23)) << x;
        }
    }
    EXPECT_EQ(portableExpf(-INFINITY), 0.0f);
    EXPECT_TRUE(std::isinf(portableExpf(INFINITY)));
    EXPECT_TRUE(std::isnan(portableExpf(NAN)));
    EXPECT_EQ(portableExpf(0.0f), 1.0f);

    const double third = 3.14159265358979323846 / 3.0;
    for (int i = -1000; i <= 1000; ++i) {
        const double t = third * i / 1000.0;
        double c, s;
        portableCosSin(t, c, s);
        EXPECT_NEAR(c, std::cos(t), 2.3e-16) << t;
        EXPECT_NEAR(s, std::sin(t), 2.3e-16) << t;
    }

    std::uniform_real_distribution<double> coordinate(-2.0, 2.0);
    for (int i = 0; i < 100000; ++i) {
        const double y = coordinate(random), x = coordinate(random);
        const double reference = std::atan2(y, x);
        EXPECT_NEAR(portableAtan2(y, x), reference, 4.5e-16 * std::max(1.0, std::fabs(reference))) << y << " " << x;
    }
    for (const double y : {0.0, -0.0, 1e-300, -1e-300, 1.0})
        for (const double x : {0.0, -0.0, 1.0, -1.0, 1e-300, -1e-300, 1e300}) {
            const double reference = std::atan2(y, x);
            EXPECT_NEAR(portableAtan2(y, x), reference, 1e-15) << y << " " << x;
            EXPECT_EQ(std::signbit(portableAtan2(y, x)), std::signbit(reference)) << y << " " << x;
        }
}
