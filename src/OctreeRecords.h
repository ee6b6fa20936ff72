// The cell of the octree, as the marching cubes stage builds it and the mesh extraction walks it.
#pragma once

#include <cstdint>

namespace SurfaceReconstruction {

struct CellNode;

// The eight child slots of a cell, made with its first child: most cells of a run are leaves, and eight
// empty pointers in each would be most of their memory.
struct CellChildren {
    CellNode* at[8] = {};
};

// One cell of an octree. Cells and their child slots live at fixed addresses for the whole run, so
// parents, children and later stages hold raw pointers to them.
struct CellNode {
    std::uint32_t lock = 0;  // guards the creation of children and the attachment of data
    float center[3] = {0.0f, 0.0f, 0.0f};
    float half_size = 0.5f;
    std::uint8_t cell_type = 0;    // 0 not in a tree, 1 branch, 3 leaf; only ever moves upward
    std::uint8_t data_state = 0;   // 0 nothing, 1 relation record, 2 field records
    std::uint8_t field_count = 0;  // field records at data_id when data_state is 2
    std::uint8_t child_count = 0;  // live children; cleared when a leaf has absorbed its subtree
    std::int32_t data_id = -1;
    CellNode* parent = nullptr;
    CellChildren* children = nullptr;  // null until the first child is made

    // Child k, or null; for readers that no descent runs beside.
    CellNode* child(int k) const { return children != nullptr ? children->at[k] : nullptr; }
};
static_assert(sizeof(CellNode) <= 48, "CellNode keeps its eight child pointers apart");

constexpr std::uint8_t CELL_TYPE_BRANCH = 1;
constexpr std::uint8_t CELL_TYPE_LEAF = 3;

// Child numbering: z at or above the centre gives 0-3, below 4-7; within a ring the x/y quadrants.
// Index (x below) * 4 + (y below) * 2 + (z below) into this table.
inline constexpr int CHILD_INDEX_TABLE[8] = {3, 7, 0, 4, 2, 6, 1, 5};
// Sign of each axis of child k, from the numbering above.
inline constexpr int CHILD_SIGN[8][3] = {{1, -1, 1},  {-1, -1, 1},  {-1, 1, 1},  {1, 1, 1},
                                         {1, -1, -1}, {-1, -1, -1}, {-1, 1, -1}, {1, 1, -1}};

inline int childIndex(const float point[3], const float center[3]) {
    const int a = point[0] < center[0] ? 1 : 0;
    const int b = point[1] < center[1] ? 1 : 0;
    const int c = point[2] < center[2] ? 1 : 0;
    return CHILD_INDEX_TABLE[a * 4 + b * 2 + c];
}

}  // namespace SurfaceReconstruction
