// The field passes on the host's vector units: the block's points as columns (one array a field), and
// walks that take eight points at a time through the tests and the products, then add each point's
// share to the sums in walk order, so that every sum, and so every cell, comes out bit for bit as the
// walks through the relations make it. Used where the processor has AVX2 and FMA (the exponential of the
// weights is the one the C library uses there) and the C library's exponential agrees with the walks'
// own; otherwise the per-cell functions run as they are.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/CellRecords.h"
#include "common/Parameters.h"
#include "common/PointRecords.h"
#include "common/UninitialisedArray.h"

namespace SurfaceReconstruction {

// A block's points, one array a field, in the order of the block's sorted points. Each array holds
// HOST_COLUMN_PADDING more elements than points, so that a walk may read eight at a time from any point.
constexpr std::size_t HOST_COLUMN_PADDING = 8;

struct PointColumns {
    UninitialisedArray<float> x, y, z, nx, ny, nz;
    // min(laser, 8), and 0x100 where the point's word has the flag bit 8.
    UninitialisedArray<std::uint32_t> tag;
    std::size_t size = 0;

    // Fills the columns from `n` points (host memory), reusing the storage of the former block.
    void assign(const RawPointWithHash* points, std::size_t n);
    // The same from a whole list, which is left empty: each slice of points gives its pages back to the
    // system once it is copied, so that a large block's points and its columns are not both held in full.
    void assignGivingBack(PointList& points);
    void release();

private:
    void assignInSlices(const RawPointWithHash* points, std::size_t n, bool give_back);
};

// Points a slice of assignGivingBack copies before it gives their pages back (10 MiB of points).
constexpr std::size_t HOST_COLUMN_SLICE_POINTS = std::size_t{1} << 18;

// Whether the vector walks can run here: AVX2 and FMA, and an exponential that agrees with the C
// library's on a sample of the weights' range. Decided once a process.
bool hostFieldWalksAvailable();

// The three passes for cells [0, n) on the host's cores, over the block's points as columns; `centres`
// holds one element a cell, which each cell zeroes first. The same cells as the per-cell functions make.
void computeCellFieldsOnHost(CellNode_Device* cells, std::size_t n, const RelationCell2Bins_Device* relations,
                             int relation_size, const PointColumns& columns, const DeviceParameters& params,
                             VoxelFieldCenter* centres);

namespace host_walks_internal {
// The exponential of the weights, eight at a time; exposed for the tests that hold it against expf.
void exp8(const float in[8], float out[8]);
}  // namespace host_walks_internal

}  // namespace SurfaceReconstruction
