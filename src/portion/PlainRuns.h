// Runs of a frame's points that lie in one block and in no neighbour's margin, found eight points at a
// time on the host's vector units: each such point makes one record, for its own block, and the
// partition needs only that block's table entry, looked up once a run. The arithmetic is the partition
// rule's own, operation for operation (the division and truncation of the grid index, the fused
// multiply-add of a neighbour's centre), so a run holds exactly the points that the rule, point by point,
// would give one record each to that block.
#pragma once

#include <cstddef>
#include <cstdint>

namespace SurfaceReconstruction {

// Whether the vector test can run here (AVX2 and FMA); decided once a process.
bool plainRunsAvailable();

// How many points from `i` on (a multiple of eight, with no more than `n` - `i` of them) lie in the block
// of grid key `key` (filled in), none of them a null point and none within `half_ext` of a neighbour
// block's centre on any axis. 0 where the eight points from `i` are not all such points of one block, or
// fewer than eight are left. `xyz` holds the frame's positions, three floats a point.
std::size_t plainRunLength(const float* xyz, std::size_t i, std::size_t n, float block_res, float half_ext,
                           std::int32_t key[3]);

// Eight points as the partition rule sees them: each one's block key and, as bits, whether it lies within
// `half_ext` of the centre of the block at d = -1, 0, 1 along each axis (bit 3 axis + d + 1), whether it
// is a null point (NULL_POINT), and whether its grid index is too large for the vector test (TOO_FAR: the
// rule runs point by point for it).
struct EightBlocks {
    static constexpr std::uint32_t NULL_POINT = 1u << 9, TOO_FAR = 1u << 10;
    std::int32_t key[3][8];
    std::uint32_t bits[8];
};

// The eight points from `i` (at least eight left).
void describeEight(const float* xyz, std::size_t i, float block_res, float half_ext, EightBlocks& out);

}  // namespace SurfaceReconstruction
