// The blocks of a run restricted to some owned blocks: which blocks it must compute, and which points
// can reach them. Shared by the engine (the points it keeps, the blocks it computes) and the mesh stage
// (the roots it walks).
#pragma once

#include <cstdint>
#include <unordered_set>
#include <vector>

#include "common/GridHash.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

struct BlockKeyHash {
    std::size_t operator()(const BlockKey& k) const {
        return static_cast<std::size_t>(hashGridKey(k.x, k.y, k.z, 0xffffffffu));
    }
};

using BlockKeySet = std::unordered_set<BlockKey, BlockKeyHash>;

// The owned blocks and their seven neighbours on the high side: the mesh of a block's seams needs the
// cells of those neighbours, and nothing else outside the block.
inline BlockKeySet blocksToCompute(const std::vector<BlockKey>& owned) {
    BlockKeySet needed;
    for (const BlockKey& b : owned)
        for (int d = 0; d < 8; ++d) needed.insert(BlockKey{b.x + (d & 1), b.y + ((d >> 1) & 1), b.z + ((d >> 2) & 1)});
    return needed;
}

// The key of the block whose centre this is (the centres lie half a block past the grid's multiples).
inline BlockKey blockKeyOfCentre(const float centre[3], float block_res) {
    return BlockKey{gridIndex(centre[0], block_res), gridIndex(centre[1], block_res), gridIndex(centre[2], block_res)};
}

// Whether a position lies in one of the blocks or within `reach` of one (its margin and something to
// spare, so that every point the partition gives a block is kept).
inline bool reachesBlocks(const float p[3], float block_res, float reach, const BlockKeySet& blocks) {
    std::int32_t lo[3], hi[3];
    for (int k = 0; k < 3; ++k) {
        lo[k] = gridIndex(p[k] - reach, block_res);
        hi[k] = gridIndex(p[k] + reach, block_res);
    }
    for (std::int32_t x = lo[0]; x <= hi[0]; ++x)
        for (std::int32_t y = lo[1]; y <= hi[1]; ++y)
            for (std::int32_t z = lo[2]; z <= hi[2]; ++z)
                if (blocks.count(BlockKey{x, y, z}) != 0) return true;
    return false;
}

}  // namespace SurfaceReconstruction
