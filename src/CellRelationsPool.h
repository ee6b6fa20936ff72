// The records of the block in work in the marching cubes stage: one cell record and its relation list
// at one index, in blocks that never move, recycled from block to block.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "BlockPool.h"
#include "CellRecords.h"

namespace SurfaceReconstruction {

// The records of the block in work: a cell record and its relation list at one index, in blocks that
// never move, recycled from block to block.
class CellRelations_Pool {
public:
    static constexpr std::int32_t BLOCK_SIZE = 500000;
    static constexpr std::size_t RESERVED_BLOCKS = 1000;

    CellRelations_Pool() = default;
    ~CellRelations_Pool() { deInit(); }
    CellRelations_Pool(const CellRelations_Pool&) = delete;
    CellRelations_Pool& operator=(const CellRelations_Pool&) = delete;

    int init();
    int deInit();
    void reset() { m_growth.reset(); }
    // Reserves one record; the pool stays one record ahead of its need. 66049 with index -1 on failure.
    int allocDataIndex(std::int32_t& index);

    CellNode_Device& node(std::int32_t index) { return m_cell_nodes_blocks[block(index)][index % BLOCK_SIZE]; }
    std::vector<RelationCell2Bins_Device>& relations(std::int32_t index) {
        return m_relations_blocks[block(index)][index % BLOCK_SIZE];
    }
    std::int32_t size() const { return m_growth.size(); }
    std::int32_t blockCount() const { return m_growth.blocks(); }
    bool isInited() const { return m_inited; }

private:
    static std::size_t block(std::int32_t index) { return static_cast<std::size_t>(index / BLOCK_SIZE); }
    bool addBlock();

    bool m_inited = false;
    std::vector<std::vector<RelationCell2Bins_Device>*> m_relations_blocks;
    std::vector<CellNode_Device*> m_cell_nodes_blocks;
    BlockPoolGrowth m_growth{BLOCK_SIZE, 1};
};

}  // namespace SurfaceReconstruction
