// The store of the finished field values of a run, shared by the marching cubes stage, which fills
// it block by block, and the mesh extraction, which reads it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/CellRecords.h"
#include "volume/BlockPool.h"

namespace SurfaceReconstruction {

// Store of the finished field values of a run: arrays of FIELD_POOL_BLOCK_SIZE slots at fixed
// addresses, slot i at element i % size of array i / size; the pool stays one slot ahead of its need.
class FieldDataPool {
public:
    static constexpr std::int32_t FIELD_POOL_BLOCK_SIZE = 500000;
    static constexpr std::size_t FIELD_POOL_RESERVED_BLOCKS = 10000;
    static constexpr int FIELD_POOL_INIT_BLOCKS = 4;

    FieldDataPool() = default;
    ~FieldDataPool() { deInit(); }
    FieldDataPool(const FieldDataPool&) = delete;
    FieldDataPool& operator=(const FieldDataPool&) = delete;

    // Reserves the block list and allocates the first blocks; false when an allocation fails, in which
    // case nothing stays allocated.
    bool init();
    void deInit();

    // Reserves `count` consecutive slots; 0, or 66049 with index -1 when no array can be added.
    int allocDataIndex(std::int32_t& index, std::int32_t count);
    FieldSlot* slot(std::int32_t index) const;

    bool isInited() const { return m_inited; }
    std::int32_t blockCount() const { return m_growth.blocks(); }
    std::int32_t size() const { return m_growth.size(); }

private:
    bool addBlock();

    bool m_inited = false;
    std::vector<FieldSlot*> m_blocks;
    BlockPoolGrowth m_growth{FIELD_POOL_BLOCK_SIZE, 1};
};

}  // namespace SurfaceReconstruction
