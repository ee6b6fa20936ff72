// The growth protocol of the pools whose elements live in blocks at fixed addresses (octree cells, cell
// records of a block, field slots): a reservation is one fetch-add on the pool's size, free of locks
// while the blocks hold it; past their end the pool grows under its lock, a block at a time, and a
// reservation that cannot be met is given back.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/SpinLock.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

class BlockPoolGrowth {
public:
    // `ahead` spare elements stay beyond every reservation.
    BlockPoolGrowth(std::int64_t block_size, std::int32_t ahead) : m_block_size(block_size), m_ahead(ahead) {}

    void setBlockSize(std::int64_t block_size) { m_block_size = block_size; }

    // Reserves `count` consecutive elements and gives the first index: 0, or 66049 with index -1 when
    // `grow` fails. `grow` runs under the pool's lock, adds one block (calling blockAdded) and returns
    // false when it cannot.
    template <class Grow>
    int reserve(std::int32_t count, std::int32_t& index, Grow&& grow) {
        index = m_size.fetch_add(count);
        if (fits(index, count)) return 0;
        SpinGuard guard(m_lock);
        while (!fits(index, count)) {  // another thread may have grown the pool meanwhile
            if (!grow()) {
                m_size.fetch_sub(count);
                index = -1;
                return TESSALINE_OUT_OF_MEMORY;
            }
        }
        return 0;
    }

    void blockAdded() { m_blocks.fetch_add(1, std::memory_order_release); }
    std::int32_t size() const { return m_size.load(); }
    std::int32_t blocks() const { return m_blocks.load(std::memory_order_acquire); }
    // Reservations start again from 0; the blocks stay.
    void reset() { m_size = 0; }
    // Gives back every reservation from `size` on; the blocks stay. Only while no one reserves.
    void truncate(std::int32_t size) {
        if (size >= 0 && size < m_size.load()) m_size = size;
    }
    // No reservation and no block.
    void clear() {
        m_size = 0;
        m_blocks = 0;
    }

private:
    bool fits(std::int32_t index, std::int32_t count) const {
        return static_cast<std::int64_t>(index) + count + m_ahead <= static_cast<std::int64_t>(blocks()) * m_block_size;
    }

    std::int64_t m_block_size;
    std::int32_t m_ahead;
    std::atomic<std::int32_t> m_size{0};
    std::atomic<std::int32_t> m_blocks{0};
    std::uint32_t m_lock = 0;
};

}  // namespace SurfaceReconstruction
