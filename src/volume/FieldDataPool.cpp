// The store of the finished field values of a run.
#include "volume/FieldDataPool.h"

#include <new>

namespace SurfaceReconstruction {

bool FieldDataPool::addBlock() {
    FieldSlot* block = new (std::nothrow) FieldSlot[FIELD_POOL_BLOCK_SIZE];
    if (block == nullptr) return false;
    m_blocks.push_back(block);
    m_growth.blockAdded();
    return true;
}

bool FieldDataPool::init() {
    deInit();
    m_blocks.reserve(FIELD_POOL_RESERVED_BLOCKS);
    for (int i = 0; i < FIELD_POOL_INIT_BLOCKS; ++i) {
        if (!addBlock()) {
            deInit();  // nothing of a failed start stays allocated
            return false;
        }
    }
    m_inited = true;
    return true;
}

void FieldDataPool::deInit() {
    for (FieldSlot* block : m_blocks) delete[] block;
    m_blocks.clear();
    m_growth.clear();
    m_inited = false;
}

int FieldDataPool::allocDataIndex(std::int32_t& index, std::int32_t count) {
    return m_growth.reserve(count, index,
                            [this] { return m_blocks.size() < FIELD_POOL_RESERVED_BLOCKS && addBlock(); });
}

FieldSlot* FieldDataPool::slot(std::int32_t index) const {
    if (index < 0 || index / FIELD_POOL_BLOCK_SIZE >= m_growth.blocks()) return nullptr;
    return &m_blocks[static_cast<std::size_t>(index / FIELD_POOL_BLOCK_SIZE)][index % FIELD_POOL_BLOCK_SIZE];
}

}  // namespace SurfaceReconstruction
