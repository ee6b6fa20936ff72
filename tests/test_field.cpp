// The per-cell passes of the field computation on hand-made cells.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "FieldComputation.h"
#include "TestPoints.h"

using namespace SurfaceReconstruction;

namespace {

// One cell at the origin with edge 0.5 (search radius 1.5) over the given points, all in one relation.
struct CellCase {
    std::vector<RawPointWithHash> points;
    std::vector<RelationCell2Bins_Device> relations;
    CellNode_Device cell = emptyCellNodeDevice();
    DeviceParameters params{};

    CellCase() {
        setFieldComputationEdges(params);
        cell.half_size = 0.25f;
        cell.field_flag = 0;
    }

    void add(float x, float y, float z, float nx, float ny, float nz) {
        points.push_back(testing_support::scanPoint(x, y, z, nx, ny, nz));
    }

    void run() {
        relations = {{0, static_cast<std::int32_t>(points.size())}};
        cell.relation_offset = 0;
        cell.relation_count = 1;
        cell.point_count = static_cast<std::int32_t>(points.size());
        computeInitNormal(cell, relations.data(), static_cast<int>(relations.size()), points.data(), params);
    }
};

// Points on the plane z = 0.1 x (a slight tilt) with normals close to +z.
void tiltedPlane(CellCase& c, int n, float nz_sign = 1.0f) {
    for (int i = 0; i < n; ++i) {
        const float x = -0.4f + 0.17f * static_cast<float>(i % 5), y = -0.3f + 0.19f * static_cast<float>(i / 5);
        c.add(x, y, 0.1f * x, 0.0f, 0.0f, nz_sign);
    }
}

}  // namespace

TEST(InitNormals, TooFewPointsOrABadRelationRejectTheCell) {
    for (int n : {0, 4}) {
        CellCase c;
        tiltedPlane(c, n);
        c.run();
        EXPECT_EQ(c.cell.field_flag, -1) << n << " points";
    }
    CellCase five;
    tiltedPlane(five, 5);
    five.run();
    EXPECT_EQ(five.cell.field_flag, 0);

    CellCase bad;
    tiltedPlane(bad, 6);
    bad.run();
    bad.cell.relation_offset = 1;  // equal to the relation count
    bad.cell.field_flag = 0;
    computeInitNormal(bad.cell, bad.relations.data(), 1, bad.points.data(), bad.params);
    EXPECT_EQ(bad.cell.field_flag, -1);

    CellCase rejected;
    tiltedPlane(rejected, 8);
    rejected.cell.field_flag = -1;
    rejected.cell.init_normal[0] = 7.0f;
    computeInitNormal(rejected.cell, rejected.relations.data(), 0, rejected.points.data(), rejected.params);
    EXPECT_EQ(rejected.cell.field_flag, -1);
    EXPECT_EQ(rejected.cell.init_normal[0], 7.0f);  // untouched
}

TEST(InitNormals, AgreeingPointsGiveThePlaneNormal) {
    CellCase c;
    tiltedPlane(c, 20);
    c.run();
    ASSERT_EQ(c.cell.field_flag, 0);
    // The plane z = 0.1 x has the normal (-0.1, 0, 1) / |..|, turned towards the first point's +z.
    const float len = std::sqrt(1.01f);
    EXPECT_NEAR(c.cell.init_normal[0], -0.1f / len, 1e-5f);
    EXPECT_NEAR(c.cell.init_normal[1], 0.0f, 1e-5f);
    EXPECT_NEAR(c.cell.init_normal[2], 1.0f / len, 1e-5f);
}

TEST(InitNormals, ThreeOfFiveAgreeingIsEnoughAndTheFitRunsOnThem) {
    CellCase c;
    c.add(0.0f, 0.0f, 0.0f, 0, 0, 1);
    c.add(0.3f, 0.0f, 0.0f, 0, 0, 1);
    c.add(0.0f, 0.3f, 0.0f, 0, 0, 1);
    c.add(0.2f, 0.2f, 0.9f, 1, 0, 0);  // disagreeing points, off the plane
    c.add(-0.2f, 0.1f, -0.7f, 1, 0, 0);
    c.run();
    ASSERT_EQ(c.cell.field_flag, 0);
    EXPECT_NEAR(c.cell.init_normal[2], 1.0f, 1e-6f);  // the three agreeing points span z = 0
}

TEST(InitNormals, TwoOfFiveAgreeingWithoutAnotherMajorityRejects) {
    CellCase c;
    c.add(0.0f, 0.0f, 0.0f, 0, 0, 1);
    c.add(0.3f, 0.0f, 0.0f, 0, 0, 1);
    c.add(0.0f, 0.3f, 0.0f, 1, 0, 0);  // reference 1: point 2
    c.add(0.2f, 0.2f, 0.1f, 0, 1, 0);
    c.add(-0.2f, 0.1f, 0.2f, 0, -1, 0);  // reference 2: point 4
    c.run();
    EXPECT_EQ(c.cell.field_flag, -1);
}

TEST(InitNormals, SecondWalkTakesTheLargerSetAndItsOrientation) {
    // The first point faces away from all others: fewer than half agree with it. Reference 1 (point 5
    // of 10) and reference 2 (point 9) both face -z; equal counts favour set 1 and its orientation.
    CellCase c;
    c.add(0.0f, 0.0f, 0.0f, 1, 0, 0);
    for (int i = 1; i < 10; ++i) c.add(-0.4f + 0.1f * i, 0.05f * static_cast<float>(i % 3), 0.0f, 0, 0, -1);
    c.run();
    ASSERT_EQ(c.cell.field_flag, 0);
    EXPECT_NEAR(c.cell.init_normal[2], -1.0f, 1e-6f);  // turned to reference 1, not reference 0
}

TEST(InitNormals, APointExactlyAtTheRadiusCountsOnlyInTheSecondWalk) {
    // Radius 1.5. Point 2 (reference 1) faces +x; the three others agree with the first point but lie
    // at the radius. The first walk leaves them out (1 of 5 agree), the second takes them into set 2,
    // which with 4 points is too small: the cell is rejected. Just inside the radius, the first walk
    // would have taken them and fitted the plane.
    for (const float r : {1.5f, 1.49f}) {
        CellCase c;
        c.add(0.0f, 0.0f, 0.0f, 0, 0, 1);
        c.add(0.1f, 0.0f, 0.0f, 1, 0, 0);
        c.add(r, 0.0f, 0.0f, 0, 0, 1);
        c.add(-r, 0.0f, 0.0f, 0, 0, 1);
        c.add(0.0f, r, 0.0f, 0, 0, 1);
        c.run();
        EXPECT_EQ(c.cell.field_flag, r == 1.5f ? -1 : 0) << "points at " << r;
    }
}

// ---- fine normals ----------------------------------------------------------------------------------

namespace {

// A cell with its initial normal +z, ready for the fine normal pass.
struct SheetCase : CellCase {
    VoxelFieldCenter centres{};

    SheetCase() { cell.init_normal[2] = 1.0f; }

    void addWithWord(float x, float y, float z, float nz, std::int32_t w, std::uint8_t laser = 0) {
        add(x, y, z, 0.0f, 0.0f, nz);
        points.back().w = w;
        points.back().laser = laser;
    }

    // n points on the plane z = height, spread over the cell, with normals (0, 0, nz).
    void sheet(int n, float height, float nz, float spread = 0.3f) {
        for (int i = 0; i < n; ++i)
            add(spread * std::cos(1.3f * i), spread * std::sin(1.3f * i) * (i % 2 ? 1.0f : 0.5f), height, 0.0f, 0.0f,
                nz);
    }

    void runFine() {
        relations = {{0, static_cast<std::int32_t>(points.size())}};
        cell.relation_offset = 0;
        cell.relation_count = 1;
        cell.point_count = static_cast<std::int32_t>(points.size());
        computeFineNormal(cell, relations.data(), 1, points.data(), params, centres);
    }
};

}  // namespace

TEST(FineNormals, FiveFrontPointsMakeASheetFourDoNot) {
    SheetCase four;
    four.sheet(4, 0.1f, 1.0f);
    four.runFine();
    EXPECT_EQ(four.cell.field_flag, 0);

    SheetCase five;
    five.sheet(5, 0.1f, 1.0f);
    five.runFine();
    ASSERT_EQ(five.cell.field_flag, 1);
    EXPECT_NEAR(five.cell.fields[0].normal[2], 1.0f, 1e-6f);
    EXPECT_NEAR(five.centres.sheet[0][2], 0.1f, 1e-6f);  // the centroid of the near points

    SheetCase rejected;
    rejected.sheet(8, 0.1f, 1.0f);
    rejected.cell.field_flag = -1;
    rejected.runFine();
    EXPECT_EQ(rejected.cell.field_flag, -1);
    EXPECT_EQ(rejected.cell.fields[0].normal[2], 0.0f);
}

TEST(FineNormals, AWallSeenFromBothSidesGivesTwoSheets) {
    SheetCase c;
    c.sheet(6, 0.05f, 1.0f);
    c.sheet(6, -0.05f, -1.0f);
    c.runFine();
    ASSERT_EQ(c.cell.field_flag, 2);
    EXPECT_NEAR(c.cell.fields[0].normal[2], 1.0f, 1e-6f);  // slot 0 the front
    EXPECT_NEAR(c.cell.fields[1].normal[2], -1.0f, 1e-6f);
    EXPECT_NEAR(c.centres.sheet[0][2], 0.05f, 1e-6f);
    EXPECT_NEAR(c.centres.sheet[1][2], -0.05f, 1e-6f);
    EXPECT_EQ(c.cell.init_normal[2], -1.0f);  // negated for the back sheet
}

TEST(FineNormals, ALoneBackSheetLandsInSlotZero) {
    SheetCase c;
    c.sheet(7, 0.0f, -1.0f);
    c.runFine();
    ASSERT_EQ(c.cell.field_flag, 1);
    EXPECT_NEAR(c.cell.fields[0].normal[2], -1.0f, 1e-6f);
}

TEST(FineNormals, FarPointsOfASmallCellGiveNoCentroidAndNoSheet) {
    // Edge 0.1: search factor 7 (reach 0.7), near radius 0.4. Points at 0.5 count for the fit only.
    SheetCase c;
    c.cell.half_size = 0.05f;
    for (int i = 0; i < 6; ++i) c.add(0.5f * std::cos(1.0f * i), 0.5f * std::sin(1.0f * i), 0.0f, 0, 0, 1);
    c.runFine();
    EXPECT_EQ(c.cell.field_flag, 0);
}

TEST(FineNormals, AFitAcrossTheInitialNormalIsDropped) {
    // Points on the plane x = 0 whose normals say +z: the fitted normal is x, across the initial normal.
    SheetCase c;
    for (int i = 0; i < 8; ++i) c.add(0.0f, 0.05f * i - 0.2f, 0.03f * (i % 3) - 0.03f, 0, 0, 1);
    c.runFine();
    EXPECT_EQ(c.cell.field_flag, 0);
    EXPECT_EQ(c.centres.sheet[0][0], 0.0f);
    EXPECT_EQ(c.centres.sheet[0][2], 0.0f);
}

TEST(FineNormals, WordBitEightAndLaserLimitsFilterPoints) {
    {
        // The cell wants bit 8: with enough flagged points the others do not count, not even in the
        // centroid (flagged points at z = 0, the others at z = 0.2).
        SheetCase c;
        c.cell.word = 0x108;
        for (int i = 0; i < 6; ++i) c.addWithWord(0.1f * i, 0.05f * i * i, 0.0f, 1.0f, 0x108);
        for (int i = 0; i < 6; ++i) c.addWithWord(-0.1f * i, 0.07f * i, 0.2f, 1.0f, 0x008);
        c.runFine();
        ASSERT_EQ(c.cell.field_flag, 1);
        EXPECT_EQ(c.centres.sheet[0][2], 0.0f);
        EXPECT_EQ(c.cell.rules & CELL_ALL_POINTS, 0u);
    }
    {
        // Four flagged points give no side: at the border of a flagged zone the cell takes all nine
        // rather than leave a pinhole.
        SheetCase c;
        c.cell.word = 0x108;
        for (int i = 0; i < 4; ++i) c.addWithWord(0.1f * i, 0.05f * i * i, 0.0f, 1.0f, 0x108);
        for (int i = 0; i < 5; ++i) c.addWithWord(-0.1f * i, 0.07f * i, 0.2f, 1.0f, 0x008);
        c.runFine();
        ASSERT_EQ(c.cell.field_flag, 1);
        EXPECT_NE(c.cell.rules & CELL_ALL_POINTS, 0u);
        EXPECT_NEAR(c.centres.sheet[0][2], 0.2f * 5 / 9, 1e-6f);
    }
    {
        // Laser 2 only counts in cells of edge 1 or more; this cell's edge is 0.5.
        SheetCase c;
        c.params.laser_min_edge[2] = 1.0f;
        for (int i = 0; i < 6; ++i) c.addWithWord(0.1f * i, 0.05f * i * i, 0.0f, 1.0f, 8, 2);
        c.runFine();
        EXPECT_EQ(c.cell.field_flag, 0);
    }
}

// ---- field values ----------------------------------------------------------------------------------

namespace {

// A cell whose fine normal pass is done: one sheet with normal +z, near centroid at the given height.
struct ValueCase : SheetCase {
    ValueCase(float half_size, float centroid_z) {
        cell.half_size = half_size;
        cell.field_flag = 1;
        cell.fields[0].normal[2] = 1.0f;
        cell.word = 0x208;
        centres.sheet[0][2] = centroid_z;
    }
    void runValues() {
        relations = {{0, static_cast<std::int32_t>(points.size())}};
        cell.relation_offset = 0;
        cell.relation_count = 1;
        cell.point_count = static_cast<std::int32_t>(points.size());
        computeFieldData(cell, relations.data(), 1, points.data(), params, centres);
    }
};

}  // namespace

TEST(FieldValues, APlaneAtAKnownOffsetGivesThatOffset) {
    // Points on z = 0.07 around a cell of edge 0.5 at the origin: the value is +0.07 (the centroid lies
    // on the side the normal points to from the centre).
    ValueCase c(0.25f, 0.07f);
    for (int i = 0; i < 30; ++i)
        c.add(0.6f * std::cos(0.7f * i) * (i % 3) / 2.0f, 0.5f * std::sin(0.9f * i), 0.07f, 0, 0, 1);
    c.runValues();
    EXPECT_NEAR(c.cell.fields[0].value, 0.07f, 1e-6f);
    EXPECT_EQ(c.cell.fields[0].word, 0x208u);
    EXPECT_NE(c.cell.fields[0].occupancy, 0u);
    EXPECT_EQ(c.cell.fields[1].value, 0.0f);  // one sheet: slot 1 untouched
}

TEST(FieldValues, SmallCellsProjectTheirPointsOntoThePlane) {
    // Edge 0.1: the points scatter around z = -0.02 but the projection puts them on the plane through
    // the centroid, so the value is that plane's distance whatever the scatter.
    ValueCase c(0.05f, -0.02f);
    for (int i = 0; i < 12; ++i)
        c.add(0.03f * (i % 4) - 0.05f, 0.02f * (i % 3), -0.02f + 0.01f * ((i % 5) - 2), 0, 0, 1);
    c.runValues();
    EXPECT_NEAR(c.cell.fields[0].value, -0.02f, 1e-6f);
}

TEST(FieldValues, RejectedAndEmptyCellsKeepTheirSlots) {
    for (int flag : {-1, 0}) {
        ValueCase c(0.25f, 0.0f);
        c.cell.field_flag = flag;
        c.add(0.0f, 0.0f, 0.1f, 0, 0, 1);
        c.runValues();
        EXPECT_EQ(c.cell.fields[0].value, 0.0f);
        EXPECT_EQ(c.cell.fields[0].occupancy, 0u);
        EXPECT_EQ(c.cell.fields[0].word, 0u);
    }
}

TEST(FieldValues, ASheetWithoutAgreeingPointsIsNaN) {
    ValueCase c(0.25f, 0.0f);
    for (int i = 0; i < 6; ++i) c.add(0.05f * i, 0.0f, 0.0f, 1, 0, 0);  // across the sheet's normal
    c.runValues();
    EXPECT_TRUE(std::isnan(c.cell.fields[0].value));
}

// ---- sharp edges and sparse cells -------------------------------------------------------------------

namespace {

// A cell of edge 0.5 at the origin run through all three passes.
struct ThreePassCase : CellCase {
    VoxelFieldCenter centres{};

    void runAll() {
        run();
        computeFineNormal(cell, relations.data(), 1, points.data(), params, centres);
        computeFieldData(cell, relations.data(), 1, points.data(), params, centres);
    }
};

}  // namespace

TEST(FieldValues, AtASharpEdgeTheValueIsTheDistanceToTheSolid) {
    {
        // Convex: the top face z = 0.1 over x <= -0.2 (normal +z) meets the side face x = -0.2 (normal
        // +x). The cell fits the top, but its centre lies outside the side face: the distance to the
        // solid is -0.2 there, not the top plane's +0.1.
        ThreePassCase c;
        for (int i = 0; i < 60; ++i) c.add(-0.2f - 0.02f * i, -0.7f + 0.05f * (i % 29), 0.1f, 0, 0, 1);
        for (int i = 0; i < 12; ++i) c.add(-0.2f, -0.6f + 0.1f * i, 0.1f - 0.05f - 0.1f * (i % 5), 1, 0, 0);
        c.runAll();
        ASSERT_EQ(c.cell.field_flag, 1);
        EXPECT_NEAR(c.cell.fields[0].normal[2], 1.0f, 1e-4f);
        EXPECT_NE(c.cell.rules & CELL_CREASE, 0u);
        EXPECT_NEAR(c.cell.fields[0].value, -0.2f, 1e-5f);
    }
    {
        // Concave: the floor z = -0.1 over x >= 0.2 (normal +z) meets a wall x = 0.2 rising from it
        // (normal +x, the solid on its low side). The centre lies inside the wall's solid, 0.2 from its
        // face, while the floor plane alone says -0.1.
        ThreePassCase c;
        for (int i = 0; i < 60; ++i) c.add(0.2f + 0.02f * i, -0.7f + 0.05f * (i % 29), -0.1f, 0, 0, 1);
        for (int i = 0; i < 12; ++i) c.add(0.2f, -0.6f + 0.1f * i, -0.05f + 0.1f * (i % 5), 1, 0, 0);
        c.runAll();
        ASSERT_EQ(c.cell.field_flag, 1);
        EXPECT_NE(c.cell.rules & CELL_CREASE, 0u);
        EXPECT_NEAR(c.cell.fields[0].value, 0.2f, 1e-5f);
    }
    {
        // Four points across are no face: the plane's own value stays.
        ThreePassCase c;
        for (int i = 0; i < 60; ++i) c.add(-0.2f - 0.02f * i, -0.7f + 0.05f * (i % 29), 0.1f, 0, 0, 1);
        for (int i = 0; i < 4; ++i) c.add(-0.2f, -0.6f + 0.3f * i, 0.05f - 0.1f * i, 1, 0, 0);
        c.runAll();
        ASSERT_EQ(c.cell.field_flag, 1);
        EXPECT_EQ(c.cell.rules & CELL_CREASE, 0u);
        EXPECT_NEAR(c.cell.fields[0].value, 0.1f, 1e-5f);
    }
}

TEST(FieldValues, ASparseCellKeepsItsSheetOnlyWhenItsPointsSurroundIt) {
    // Points of the plane z = 0.05 beyond x = 0.6 only: the cell lies past the edge of the scan. Found
    // through the wider search of a sparse cell the sheet is dropped; with the normal search kept.
    for (const bool widened : {true, false}) {
        ThreePassCase c;
        if (widened) c.cell.rules = CELL_WIDENED_SEARCH;
        for (int i = 0; i < 20; ++i) c.add(0.6f + 0.04f * i, -0.5f + 0.05f * i, 0.05f, 0, 0, 1);
        c.runAll();
        EXPECT_EQ(c.cell.field_flag, widened ? 0 : 1);
        EXPECT_EQ(cellRejection(c.cell.rules), widened ? CELL_OFF_CENTRE : CELL_KEPT);
    }
    // The same cell with the points around it keeps the sheet, widened or not.
    ThreePassCase around;
    around.cell.rules = CELL_WIDENED_SEARCH;
    for (int i = 0; i < 20; ++i) around.add(-0.8f + 0.08f * i, 0.3f * std::sin(1.7f * i), 0.05f, 0, 0, 1);
    around.runAll();
    ASSERT_EQ(around.cell.field_flag, 1);
    EXPECT_NEAR(around.cell.fields[0].value, 0.05f, 1e-5f);
}

TEST(InitNormals, EachRejectionNamesItsRule) {
    CellCase few;
    tiltedPlane(few, 3);
    few.run();
    EXPECT_EQ(cellRejection(few.cell.rules), CELL_FEW_POINTS);

    CellCase scattered;  // the case of TwoOfFiveAgreeingWithoutAnotherMajorityRejects
    scattered.add(0.0f, 0.0f, 0.0f, 0, 0, 1);
    scattered.add(0.3f, 0.0f, 0.0f, 0, 0, 1);
    scattered.add(0.0f, 0.3f, 0.0f, 1, 0, 0);
    scattered.add(0.2f, 0.2f, 0.1f, 0, 1, 0);
    scattered.add(-0.2f, 0.1f, 0.2f, 0, -1, 0);
    scattered.run();
    EXPECT_EQ(cellRejection(scattered.cell.rules), CELL_NO_COMMON_NORMAL);
}
