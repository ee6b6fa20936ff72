// The pool of cell records and relation lists of the block in work.
#include "CellRelationsPool.h"

#include <algorithm>
#include <new>

#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

bool CellRelations_Pool::addBlock() {
    CellNode_Device* nodes = new (std::nothrow) CellNode_Device[BLOCK_SIZE];
    if (nodes == nullptr) return false;
    auto* relations = new (std::nothrow) std::vector<RelationCell2Bins_Device>[BLOCK_SIZE];
    if (relations == nullptr) {
        delete[] nodes;
        return false;
    }
    std::fill(nodes, nodes + BLOCK_SIZE, emptyCellNodeDevice());
    m_cell_nodes_blocks.push_back(nodes);
    m_relations_blocks.push_back(relations);
    m_growth.blockAdded();
    return true;
}

int CellRelations_Pool::init() {
    deInit();
    m_cell_nodes_blocks.reserve(RESERVED_BLOCKS);
    m_relations_blocks.reserve(RESERVED_BLOCKS);
    for (int i = 0; i < 2; ++i) {
        if (!addBlock()) {
            deInit();
            return TESSALINE_OUT_OF_MEMORY;
        }
    }
    m_inited = true;
    return 0;
}

int CellRelations_Pool::deInit() {
    for (CellNode_Device* nodes : m_cell_nodes_blocks) delete[] nodes;
    for (std::vector<RelationCell2Bins_Device>* relations : m_relations_blocks) delete[] relations;
    m_cell_nodes_blocks.clear();
    m_relations_blocks.clear();
    m_growth.clear();
    m_inited = false;
    return 0;
}

int CellRelations_Pool::allocDataIndex(std::int32_t& index) {
    return m_growth.reserve(1, index, [this] { return m_cell_nodes_blocks.size() < RESERVED_BLOCKS && addBlock(); });
}

}  // namespace SurfaceReconstruction
