// Contouring: the dual traversal on hand-built trees, the dual cube tables checked for what they
// claim, the sheet matching and winding of one dual cube, and the sink of the triangles.
#include <deque>

#include "TestSupport.h"
#include "contour/CellSurface.h"
#include "contour/DualTraversal.h"

using namespace SurfaceReconstruction;
using testing_support::triangleNormal;

namespace {

// Trees of cells with stable addresses; a split cell gets its eight children at once.
class Forest {
public:
    CellNode* cell(float x, float y, float z, float half) {
        CellNode* c = &cells_.emplace_back();
        c->center[0] = x, c->center[1] = y, c->center[2] = z;
        c->half_size = half;
        c->cell_type = CELL_TYPE_LEAF;
        return c;
    }

    CellNode* split(CellNode* c) {
        c->cell_type = CELL_TYPE_BRANCH;
        c->children = &slots_.emplace_back();
        const float h = c->half_size * 0.5f;
        for (int k = 0; k < 8; ++k) {
            c->children->at[k] = cell(c->center[0] + CHILD_SIGN[k][0] * h, c->center[1] + CHILD_SIGN[k][1] * h,
                                      c->center[2] + CHILD_SIGN[k][2] * h, h);
            c->children->at[k]->parent = c;
        }
        c->child_count = 8;
        return c;
    }

private:
    std::deque<CellNode> cells_;
    std::deque<CellChildren> slots_;
};

using Cube = std::array<const CellNode*, 8>;

// Collects the dual cubes and checks that every one is ordered x + 2y + 4z.
struct Collect {
    std::vector<Cube> cubes;
    void operator()(const CellNode* const cells[8]) {
        for (int i = 0; i < 8; ++i)
            for (int axis = 0; axis < 3; ++axis)
                if ((i >> axis) & 1) {
                    EXPECT_LE(cells[i ^ (1 << axis)]->center[axis], cells[i]->center[axis]);
                }
        cubes.push_back({cells[0], cells[1], cells[2], cells[3], cells[4], cells[5], cells[6], cells[7]});
    }
};

template <class F>
std::vector<Cube> dualCubes(F visit) {
    Collect collect;
    DualOctreeTraversal<Collect> walk(collect);
    visit(walk);
    return collect.cubes;
}

}  // namespace

TEST(DualTraversal, CellsSideBySideGiveTheDualCubesBetweenTheirLeaves) {
    Forest forest;
    CellNode* leaf = forest.cell(0, 0, 0, 1);
    EXPECT_TRUE(dualCubes([&](auto& walk) { walk.visitCell(leaf); }).empty());  // a leaf root makes none

    CellNode* a = forest.split(forest.cell(1, 1, 1, 1));
    CellNode* b = forest.cell(3, 1, 1, 1);
    // A leaf beside a split cell fills the high-x side of the one cube between them.
    const auto one = dualCubes([&](auto& walk) { walk.visitFaceX(a, b); });
    ASSERT_EQ(one.size(), 1u);
    for (int i = 1; i < 8; i += 2) EXPECT_EQ(one[0][static_cast<std::size_t>(i)], b);
    // Two split cells: one cube inside each and one across the face.
    forest.split(b);
    EXPECT_EQ(dualCubes([&](auto& walk) {
                  walk.visitCell(a);
                  walk.visitCell(b);
                  walk.visitFaceX(a, b);
              }).size(),
              3u);
}

TEST(DualTraversal, TwoLevelsGiveEveryInnerPointAndAMissingLeafEndsOnlyItsGroups) {
    // A cell split twice: a 4 x 4 x 4 grid of leaves has 3 x 3 x 3 inner points.
    Forest forest;
    CellNode* root = forest.split(forest.cell(0, 0, 0, 2));
    for (CellNode* child : root->children->at) forest.split(child);
    const auto count = [&] { return dualCubes([&](auto& walk) { walk.visitCell(root); }).size(); };
    EXPECT_EQ(count(), 27u);
    // A corner leaf of the grid touches one dual cube, an inner one eight.
    CellNode* corner_parent = root->child(OCTANT_CHILD[0]);
    corner_parent->children->at[OCTANT_CHILD[0]] = nullptr;
    EXPECT_EQ(count(), 26u);
    corner_parent->children->at[OCTANT_CHILD[7]] = nullptr;  // the leaf at grid position (1, 1, 1)
    EXPECT_EQ(count(), 26u - 8u + 1u);                       // its 8 groups, one of which was gone already
}

TEST(DualTraversal, MixedLevelsMeetWithoutGaps) {
    // Of the eight children of a root, only the one at octant 7 is split again. Leaves of both sizes meet
    // around the root's centre, the fine cell's centre, the centres of its three faces inside the root
    // and the midpoints of its three edges inside the root: 1 + 1 + 3 + 3 points.
    Forest forest;
    CellNode* root = forest.split(forest.cell(0, 0, 0, 2));
    forest.split(root->child(OCTANT_CHILD[7]));
    EXPECT_EQ(dualCubes([&](auto& walk) { walk.visitCell(root); }).size(), 8u);
}

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
    for (int p = 0; p < 6; ++p)
        for (int flips = 0; flips < 8; ++flips) {
            Symmetry s;
            for (int k = 0; k < 8; ++k) {
                const int bits[3] = {k & 1, (k >> 1) & 1, (k >> 2) & 1};
                int image = 0;
                for (int axis = 0; axis < 3; ++axis)
                    image |= (bits[permutations[p][axis]] ^ ((flips >> axis) & 1)) << axis;
                s.corner[static_cast<std::size_t>(k)] = image;
            }
            s.reflection = odd[p] != (__builtin_popcount(flips) % 2 == 1);
            result.push_back(s);
        }
    return result;
}

}  // namespace

TEST(DualCubeTables, EveryRowIsASymmetryOntoTheSmallestImageOfItsClass) {
    const std::vector<Symmetry> symmetries = cubeSymmetries();
    ASSERT_EQ(symmetries.size(), 48u);
    for (int configuration = 0; configuration < 256; ++configuration) {
        const DualCubeConfiguration& row = DUAL_CUBE_CONFIGURATIONS[configuration];
        // The corner map is one of the 48 symmetries, with the right reflection flag.
        bool found = false;
        int smallest = 255;
        for (const Symmetry& s : symmetries) {
            if (std::equal(s.corner.begin(), s.corner.end(), row.corner)) {
                found = true;
                EXPECT_EQ(s.reflection, row.reflected == 1) << "row " << configuration;
            }
            int image = 0;
            for (int k = 0; k < 8; ++k)
                if ((configuration >> k) & 1) image |= 1 << s.corner[static_cast<std::size_t>(k)];
            smallest = std::min(smallest, image);
        }
        EXPECT_TRUE(found) << "row " << configuration;
        // Bit j of the case is bit corner[j] of the configuration, and the case is the smallest image of
        // the configuration's class.
        for (int j = 0; j < 8; ++j)
            ASSERT_EQ((row.canonical_case >> j) & 1, (configuration >> row.corner[j]) & 1) << "row " << configuration;
        EXPECT_EQ(row.canonical_case, smallest) << "row " << configuration;
        if (row.canonical_case != 0 && row.canonical_case != 255) {
            EXPECT_NE(dualCubeCase(row.canonical_case), nullptr) << "row " << configuration;
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

    // One sheet with normal +z at every corner but `skip`: -0.5 at the corners of `negative`, else 0.5.
    void configuration(int negative, int skip = -1) {
        for (int k = 0; k < 8; ++k)
            if (k != skip) sheets(k, {{((negative >> k) & 1) ? -0.5f : 0.5f, 1.0f}});
    }

    // A thin wall: the front sheet (normal +z) and the back sheet (normal -z).
    void wall(int k) {
        const bool high = ((k >> 2) & 1) != 0;
        sheets(k, {{high ? -0.5f : 0.5f, 1.0f}, {high ? 0.3f : -0.3f, -1.0f}});
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

    FieldDataPool pool;
    CellNode cells[8];
};

}  // namespace

TEST_F(DualCube, AFlatSheetGivesTwoTrianglesFacingTheNegativeSide) {
    configuration(0xF0);  // the surface z = 0.5; values positive below it (+z points to the negative side)
    const auto triangles = contour();
    ASSERT_EQ(triangles.size(), 2u);
    for (const auto& [xyz, w] : triangles) {
        for (int v = 0; v < 3; ++v) EXPECT_FLOAT_EQ(xyz.xyz[3 * v + 2], 0.5f);
        EXPECT_GT(triangleNormal(xyz)[2], 0.0f);
        EXPECT_EQ(w.w[0] & 0xff, 8u);
    }
}

TEST_F(DualCube, ACornerWithoutFieldEndsTheCube) {
    configuration(0xF0, 7);
    EXPECT_TRUE(contour().empty());
}

TEST_F(DualCube, ReflectedRowsKeepTheWinding) {
    // Configuration 5 (corners 0 and 2 negative) takes case 3 through a reflection; configuration 3
    // (corners 0 and 1) through the identity. Both must face the negative side: low x, low y.
    for (int negative : {3, 5}) {
        configuration(negative);
        const auto triangles = contour();
        ASSERT_EQ(triangles.size(), 2u) << negative;
        for (const auto& t : triangles) EXPECT_LT(triangleNormal(t.first)[negative == 5 ? 0 : 1], 0.0f) << negative;
        EXPECT_EQ(DUAL_CUBE_CONFIGURATIONS[negative].reflected, negative == 5 ? 1 : 0);
    }
}

TEST_F(DualCube, TwoSheetsGiveTwoContourings) {
    for (int k = 0; k < 8; ++k) wall(k);
    const auto triangles = contour();
    ASSERT_EQ(triangles.size(), 4u);
    EXPECT_GT(triangleNormal(triangles[0].first)[2], 0.0f);  // the first contouring: slot 0 of corner 0
    EXPECT_LT(triangleNormal(triangles[2].first)[2], 0.0f);  // the second: slot 1
}

TEST_F(DualCube, AMarkedFirstSlotBlocksTheSecondAttempt) {
    // Corner 5 has one sheet that agrees with the first reference. The second attempt meets its first
    // slot, already marked by the first attempt, and fails.
    for (int k = 0; k < 8; ++k) wall(k);
    sheets(5, {{-0.5f, 0.2f}});  // 0.2 > 0.1 with +z, and -0.2 with -z
    EXPECT_EQ(contour().size(), 2u);
}

TEST_F(DualCube, ACornerWithNoAgreeingSheetTakesItsBestAboveTheFallbackBound) {
    // Near a sharp edge neighbouring corners fit different faces. Corner 6's sheets lie across the
    // reference (+z): the better one serves while its dot product stays above -0.2.
    const auto withCorner6 = [this](std::initializer_list<std::pair<float, float>> corner6) {
        configuration(0xF0, 6);
        sheets(6, corner6);
        return contour();
    };
    for (const auto& [nz, triangles] : {std::pair<float, std::size_t>{0.05f, 2}, {-0.19f, 2}, {-0.2f, 0}, {-0.9f, 0}})
        EXPECT_EQ(withCorner6({{-0.5f, nz}}).size(), triangles) << "corner 6 normal z " << nz;
    // Of two sheets across the reference the better one is taken: its value is the one contoured.
    const auto two = withCorner6({{0.5f, -0.15f}, {-0.5f, 0.05f}});
    ASSERT_EQ(two.size(), 2u);
    for (const auto& [xyz, w] : two)
        for (int v = 0; v < 3; ++v) EXPECT_FLOAT_EQ(xyz.xyz[3 * v + 2], 0.5f);
}

TEST_F(DualCube, AValueOfZeroIsNotNegativeAndDegenerateTrianglesAreDropped) {
    // Corner 0 at exactly 0, its neighbours negative: vertices fall on corner 0 and collapse.
    for (int k = 0; k < 8; ++k) sheets(k, {{k == 0 ? 0.0f : -1.0f, 1.0f}});
    EXPECT_TRUE(contour().empty());
}

// The edge from corner 0 (0.18) to corner 4 (-0.9) seen from every configuration that crosses it: the
// tables hand the edge's corners over in either order, and the vertex must not depend on it (cubes that
// share an edge would otherwise give it in two last bits: 0.16666669 and 0.16666663 here).
TEST_F(DualCube, AVertexOnAnEdgeHasTheSameBitsWhateverTheCorners) {
    std::set<float> heights;
    for (int negative = 0; negative < 256; ++negative) {
        if ((negative & 1) != 0 || (negative & 16) == 0) continue;
        for (int k = 0; k < 8; ++k)
            sheets(k, {{k == 0 ? 0.18f : k == 4 ? -0.9f : ((negative >> k) & 1) ? -0.5f : 0.5f, 1.0f}});
        for (const auto& [xyz, w] : contour())
            for (int v = 0; v < 3; ++v)
                if (xyz.xyz[3 * v] == 0.0f && xyz.xyz[3 * v + 1] == 0.0f) heights.insert(xyz.xyz[3 * v + 2]);
    }
    ASSERT_EQ(heights.size(), 1u);
    EXPECT_NEAR(*heights.begin(), 0.18 / 1.08, 1e-6);
}

TEST(TriangleSinkTest, NaNTrianglesAreDroppedAndLengthsStayEqual) {
    std::atomic<unsigned char> is_ok{1};
    std::vector<MultiMeshData> parts(static_cast<std::size_t>(omp_get_max_threads()));
    std::vector<MultiMeshData*> filling;
    for (MultiMeshData& part : parts) filling.push_back(&part);
    TriangleSink sink{&is_ok, &filling};
    TriangleXYZ good{}, bad{}, infinite{};
    bad.xyz[7] = std::nanf("");
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
