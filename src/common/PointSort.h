// The sorts of scan points in device memory: the full order of a block's points (by `hash`, then every
// other field, so that the order does not depend on how threads wrote them), and the stable grouping of
// a batch's records by block. The CUDA backend sorts with Thrust (PointSort.cu); the host backend
// (PointSortHost.cpp) with a parallel radix sort on the 32-bit `hash` (PointRadixSort.cpp), the ties of the
// full order settled within each run of equal hash.
#pragma once

#include <cstdint>
#include <vector>

#include "common/PointRecords.h"

namespace SurfaceReconstruction {

// Sorts `points` (device memory) by RawPointWithHash_CMP_LESS.
void sortPointsFully(RawPointWithHash* points, std::int64_t n);

// Sorts `points` (device memory) by `hash` as unsigned, keeping the order of equal hashes.
void sortPointsByHashStable(RawPointWithHash* points, std::int64_t n);

// Working arrays of the host sorts, kept from one block to the next: blocks come largest first, so after
// the first block they are not allocated again (fresh memory costs a page fault a page).
struct PointSortBuffers {
    UninitialisedArray<std::uint64_t> pairs, other;  // (hash, index) pairs of the radix sort
    PointList sorted;                                // the sorted copy
    // Those of each thread for the pieces of a larger array, kept too. They hold a piece at most, and keep
    // their pages from one piece to the next.
    std::vector<PointSortBuffers> pieces;
    bool of_a_piece = false;
    void release() {
        UninitialisedArray<std::uint64_t>().swap(pairs);
        UninitialisedArray<std::uint64_t>().swap(other);
        PointList().swap(sorted);
        std::vector<PointSortBuffers>().swap(pieces);
    }
};

// Points the host sort of a block's array takes at a time: 7 MiB of working arrays.
constexpr std::int64_t SORT_PIECE_POINTS = std::int64_t{1} << 17;

// The same two sorts on host memory, with either backend.
void sortPointsFullyOnHost(RawPointWithHash* points, std::int64_t n);
// The same for a whole array on the host. Up to `piece_points` points the sorted copy replaces the array
// and `buffers` keeps the old storage; a larger array is sorted where it lies, a piece at a time through
// working arrays of each thread's own, so that the sort never holds a second copy of a large block.
void sortPointsFullyOnHost(PointList& points, PointSortBuffers& buffers, std::int64_t piece_points = SORT_PIECE_POINTS);
void sortPointsByHashStableOnHost(RawPointWithHash* points, std::int64_t n);

}  // namespace SurfaceReconstruction
