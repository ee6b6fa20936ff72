// The dual traversal of an octree: every group of eight leaves that meet around a point, whatever their
// sizes, in the order x + 2y + 4z of their positions, handed to a contouring callable. Neighbouring
// groups share their corner cells, so a surface passes between levels without any stitching.
#pragma once

#include "common/OctreeRecords.h"

namespace SurfaceReconstruction {

// Octant o = x + 2y + 4z (0 low, 1 high on each axis) to the index in CellNode::children.
inline constexpr int OCTANT_CHILD[8] = {5, 4, 6, 7, 1, 0, 2, 3};

// `DualCube` is called with `const CellNode* const cells[8]` for every dual cube.
template <class DualCube>
class DualOctreeTraversal {
public:
    explicit DualOctreeTraversal(DualCube& dual_cube) : m_dual_cube(dual_cube) {}

    void visitCell(const CellNode* cell) {
        if (!split(cell)) return;
        const CellNode* k[8];
        for (int o = 0; o < 8; ++o) k[o] = at(cell, o);
        for (int o = 0; o < 8; ++o) visitCell(k[o]);
        visitBetweenChildren(k);
    }

    // The second half of visitCell for a split cell: what lies between its children (in octant order),
    // after the children themselves.
    void visitBetweenChildren(const CellNode* const k[8]) {
        visitFaceX(k[0], k[1]);
        visitFaceX(k[2], k[3]);
        visitFaceX(k[4], k[5]);
        visitFaceX(k[6], k[7]);
        visitFaceY(k[0], k[2]);
        visitFaceY(k[1], k[3]);
        visitFaceY(k[4], k[6]);
        visitFaceY(k[5], k[7]);
        visitFaceZ(k[0], k[4]);
        visitFaceZ(k[1], k[5]);
        visitFaceZ(k[2], k[6]);
        visitFaceZ(k[3], k[7]);
        visitEdgeZ(k[0], k[1], k[2], k[3]);
        visitEdgeZ(k[4], k[5], k[6], k[7]);
        visitEdgeX(k[0], k[2], k[4], k[6]);
        visitEdgeX(k[1], k[3], k[5], k[7]);
        visitEdgeY(k[0], k[1], k[4], k[5]);
        visitEdgeY(k[2], k[3], k[6], k[7]);
        visitVertex(k[0], k[1], k[2], k[3], k[4], k[5], k[6], k[7]);
    }

    // a on the low x side of the face, b on the high.
    void visitFaceX(const CellNode* a, const CellNode* b) {
        if (!a || !b || (!split(a) && !split(b))) return;
        visitFaceX(at(a, 1), at(b, 0));
        visitFaceX(at(a, 3), at(b, 2));
        visitFaceX(at(a, 5), at(b, 4));
        visitFaceX(at(a, 7), at(b, 6));
        visitEdgeZ(at(a, 1), at(b, 0), at(a, 3), at(b, 2));
        visitEdgeZ(at(a, 5), at(b, 4), at(a, 7), at(b, 6));
        visitEdgeY(at(a, 1), at(b, 0), at(a, 5), at(b, 4));
        visitEdgeY(at(a, 3), at(b, 2), at(a, 7), at(b, 6));
        visitVertex(at(a, 1), at(b, 0), at(a, 3), at(b, 2), at(a, 5), at(b, 4), at(a, 7), at(b, 6));
    }

    void visitFaceY(const CellNode* a, const CellNode* b) {
        if (!a || !b || (!split(a) && !split(b))) return;
        visitFaceY(at(a, 2), at(b, 0));
        visitFaceY(at(a, 3), at(b, 1));
        visitFaceY(at(a, 6), at(b, 4));
        visitFaceY(at(a, 7), at(b, 5));
        visitEdgeZ(at(a, 2), at(a, 3), at(b, 0), at(b, 1));
        visitEdgeZ(at(a, 6), at(a, 7), at(b, 4), at(b, 5));
        visitEdgeX(at(a, 3), at(b, 1), at(a, 7), at(b, 5));
        visitEdgeX(at(a, 2), at(b, 0), at(a, 6), at(b, 4));
        visitVertex(at(a, 2), at(a, 3), at(b, 0), at(b, 1), at(a, 6), at(a, 7), at(b, 4), at(b, 5));
    }

    void visitFaceZ(const CellNode* a, const CellNode* b) {
        if (!a || !b || (!split(a) && !split(b))) return;
        visitFaceZ(at(a, 4), at(b, 0));
        visitFaceZ(at(a, 5), at(b, 1));
        visitFaceZ(at(a, 6), at(b, 2));
        visitFaceZ(at(a, 7), at(b, 3));
        visitEdgeY(at(a, 4), at(a, 5), at(b, 0), at(b, 1));
        visitEdgeY(at(a, 6), at(a, 7), at(b, 2), at(b, 3));
        visitEdgeX(at(a, 4), at(a, 6), at(b, 0), at(b, 2));
        visitEdgeX(at(a, 5), at(a, 7), at(b, 1), at(b, 3));
        visitVertex(at(a, 4), at(a, 5), at(a, 6), at(a, 7), at(b, 0), at(b, 1), at(b, 2), at(b, 3));
    }

    // Four cells around an edge parallel to z, numbered x + 2y.
    void visitEdgeZ(const CellNode* c0, const CellNode* c1, const CellNode* c2, const CellNode* c3) {
        if (!all(c0, c1, c2, c3) || !any(c0, c1, c2, c3)) return;
        visitEdgeZ(at(c0, 3), at(c1, 2), at(c2, 1), at(c3, 0));
        visitEdgeZ(at(c0, 7), at(c1, 6), at(c2, 5), at(c3, 4));
        visitVertex(at(c0, 3), at(c1, 2), at(c2, 1), at(c3, 0), at(c0, 7), at(c1, 6), at(c2, 5), at(c3, 4));
    }

    // Four cells around an edge parallel to y, numbered x + 2z.
    void visitEdgeY(const CellNode* c0, const CellNode* c1, const CellNode* c2, const CellNode* c3) {
        if (!all(c0, c1, c2, c3) || !any(c0, c1, c2, c3)) return;
        visitEdgeY(at(c0, 5), at(c1, 4), at(c2, 1), at(c3, 0));
        visitEdgeY(at(c0, 7), at(c1, 6), at(c2, 3), at(c3, 2));
        visitVertex(at(c0, 5), at(c1, 4), at(c0, 7), at(c1, 6), at(c2, 1), at(c3, 0), at(c2, 3), at(c3, 2));
    }

    // Four cells around an edge parallel to x, numbered y + 2z.
    void visitEdgeX(const CellNode* c0, const CellNode* c1, const CellNode* c2, const CellNode* c3) {
        if (!all(c0, c1, c2, c3) || !any(c0, c1, c2, c3)) return;
        visitEdgeX(at(c0, 6), at(c1, 4), at(c2, 2), at(c3, 0));
        visitEdgeX(at(c0, 7), at(c1, 5), at(c2, 3), at(c3, 1));
        visitVertex(at(c0, 6), at(c0, 7), at(c1, 4), at(c1, 5), at(c2, 2), at(c2, 3), at(c3, 0), at(c3, 1));
    }

    // Eight cells around a point, numbered x + 2y + 4z: a dual cube once none of them is split.
    void visitVertex(const CellNode* c0, const CellNode* c1, const CellNode* c2, const CellNode* c3, const CellNode* c4,
                     const CellNode* c5, const CellNode* c6, const CellNode* c7) {
        const CellNode* const cells[8] = {c0, c1, c2, c3, c4, c5, c6, c7};
        bool any_split = false;
        for (const CellNode* c : cells) {
            if (c == nullptr) return;
            any_split = any_split || split(c);
        }
        if (!any_split) {
            m_dual_cube(cells);
            return;
        }
        // Each split cell gives way to its child next to the common point.
        visitVertex(at(c0, 7), at(c1, 6), at(c2, 5), at(c3, 4), at(c4, 3), at(c5, 2), at(c6, 1), at(c7, 0));
    }

    static bool split(const CellNode* c) { return c != nullptr && c->cell_type == CELL_TYPE_BRANCH; }
    // The child in octant o of a split cell, the cell itself otherwise.
    static const CellNode* at(const CellNode* c, int o) { return split(c) ? c->child(OCTANT_CHILD[o]) : c; }

private:
    static bool all(const CellNode* a, const CellNode* b, const CellNode* c, const CellNode* d) {
        return a && b && c && d;
    }
    static bool any(const CellNode* a, const CellNode* b, const CellNode* c, const CellNode* d) {
        return split(a) || split(b) || split(c) || split(d);
    }

    DualCube& m_dual_cube;
};

}  // namespace SurfaceReconstruction
