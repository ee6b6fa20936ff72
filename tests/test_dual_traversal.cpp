// The dual traversal on hand-built trees: how many dual cubes, and their corners in x + 2y + 4z order.
#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "DualTraversal.h"

using namespace SurfaceReconstruction;

namespace {

// Trees of cells with stable addresses; a split cell gets its eight children at once.
class Forest {
public:
    CellNode* cell(float x, float y, float z, float half) {
        cells_.emplace_back();
        CellNode* c = &cells_.back();
        c->center[0] = x;
        c->center[1] = y;
        c->center[2] = z;
        c->half_size = half;
        c->cell_type = CELL_TYPE_LEAF;
        return c;
    }

    void split(CellNode* c) {
        c->cell_type = CELL_TYPE_BRANCH;
        const float h = c->half_size * 0.5f;
        for (int k = 0; k < 8; ++k) {
            CellNode* child = cell(c->center[0] + CHILD_SIGN[k][0] * h, c->center[1] + CHILD_SIGN[k][1] * h,
                                   c->center[2] + CHILD_SIGN[k][2] * h, h);
            child->parent = c;
            c->children[k] = child;
        }
        c->child_count = 8;
    }

private:
    std::deque<CellNode> cells_;
};

// Collects the dual cubes and checks that every one is ordered x + 2y + 4z.
struct Collect {
    std::vector<std::array<const CellNode*, 8>> cubes;
    void operator()(const CellNode* const cells[8]) {
        std::array<const CellNode*, 8> cube;
        for (int i = 0; i < 8; ++i) cube[static_cast<std::size_t>(i)] = cells[i];
        for (int i = 0; i < 8; ++i) {
            for (int axis = 0; axis < 3; ++axis) {
                if ((i >> axis) & 1) {
                    EXPECT_LE(cells[i ^ (1 << axis)]->center[axis], cells[i]->center[axis]);
                }
            }
        }
        cubes.push_back(cube);
    }
};

}  // namespace

TEST(DualTraversal, ALeafRootMakesNoDualCube) {
    Forest forest;
    Collect collect;
    DualOctreeTraversal<Collect> walk(collect);
    walk.visitCell(forest.cell(0, 0, 0, 1));
    EXPECT_TRUE(collect.cubes.empty());
}

TEST(DualTraversal, TwoSplitCellsSideBySideGiveThreeDualCubes) {
    Forest forest;
    CellNode* a = forest.cell(1, 1, 1, 1);
    CellNode* b = forest.cell(3, 1, 1, 1);
    forest.split(a);
    forest.split(b);
    Collect collect;
    DualOctreeTraversal<Collect> walk(collect);
    walk.visitCell(a);
    walk.visitCell(b);
    walk.visitFaceX(a, b);
    EXPECT_EQ(collect.cubes.size(), 3u);
}

TEST(DualTraversal, ALeafBesideASplitCellFillsOneSide) {
    Forest forest;
    CellNode* a = forest.cell(1, 1, 1, 1);
    CellNode* b = forest.cell(3, 1, 1, 1);
    forest.split(a);
    Collect collect;
    DualOctreeTraversal<Collect> walk(collect);
    walk.visitFaceX(a, b);
    ASSERT_EQ(collect.cubes.size(), 1u);
    for (int i = 1; i < 8; i += 2) EXPECT_EQ(collect.cubes[0][static_cast<std::size_t>(i)], b);  // the high-x corners
}

TEST(DualTraversal, TwoLevelsGiveEveryInnerPointAndAMissingLeafEndsOnlyItsGroups) {
    // A cell split twice: a 4 x 4 x 4 grid of leaves has 3 x 3 x 3 inner points.
    Forest forest;
    CellNode* root = forest.cell(0, 0, 0, 2);
    forest.split(root);
    for (CellNode* child : root->children) forest.split(child);
    {
        Collect collect;
        DualOctreeTraversal<Collect> walk(collect);
        walk.visitCell(root);
        EXPECT_EQ(collect.cubes.size(), 27u);
    }
    // A corner leaf of the grid touches one dual cube, an inner one eight.
    CellNode* corner_parent = root->children[OCTANT_CHILD[0]];
    corner_parent->children[OCTANT_CHILD[0]] = nullptr;
    {
        Collect collect;
        DualOctreeTraversal<Collect> walk(collect);
        walk.visitCell(root);
        EXPECT_EQ(collect.cubes.size(), 26u);
    }
    corner_parent->children[OCTANT_CHILD[7]] = nullptr;  // the leaf at grid position (1, 1, 1)
    {
        Collect collect;
        DualOctreeTraversal<Collect> walk(collect);
        walk.visitCell(root);
        EXPECT_EQ(collect.cubes.size(), 26u - 8u + 1u);  // its 8 groups, one of which was gone already
    }
}

TEST(DualTraversal, MixedLevelsMeetWithoutGaps) {
    // Of the eight children of a root, only the one at octant 7 is split again. Leaves of both sizes meet
    // around the root's centre, the fine cell's centre, the centres of its three faces inside the root
    // and the midpoints of its three edges inside the root: 1 + 1 + 3 + 3 points.
    Forest forest;
    CellNode* root = forest.cell(0, 0, 0, 2);
    forest.split(root);
    forest.split(root->children[OCTANT_CHILD[7]]);
    Collect collect;
    DualOctreeTraversal<Collect> walk(collect);
    walk.visitCell(root);
    EXPECT_EQ(collect.cubes.size(), 8u);
}
