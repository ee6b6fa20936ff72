// The marching cubes stage: takes one block at a time, builds its cells in the octree and stores their
// field values in the FieldDataPool. It produces no triangles; the Reconstructor does.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/CellRecords.h"
#include "common/GridKeyTable.h"
#include "common/Morton.h"
#include "common/Parameters.h"
#include "common/PointRecords.h"
#include "common/PointSort.h"
#include "common/RunStage.h"
#include "device/DeviceLayer.h"
#include "field/FieldPasses.h"
#include "field/HostFieldWalks.h"
#include "volume/FieldDataPool.h"

namespace SurfaceReconstruction {

class HashOctree;
struct TestAccess;

// The value of the table of a block's bins: the bin of a key.
struct BinOfKey {
    std::int32_t bin = -1;
};

// Free device memory kept on every test of the stage.
constexpr std::size_t MC_MEMORY_MARGIN = 0x500000;

// Bins that the device array holds for a block of n bins along an edge (margins included).
inline std::uint64_t MC_MAX_BINS_HEADER(std::uint32_t n) { return 20ull * n * n; }

// What the cells of a block cost at most, by its points and bins: the sorted points twice, the bins, and
// a band of cells around each bin with octree node, record and relations.
constexpr std::uint64_t BLOCK_CELLS_PER_BIN = 8;
constexpr std::uint64_t BLOCK_BYTES_PER_CELL = 320;
constexpr std::uint64_t BLOCK_MEMORY_RESERVE_BYTES = 256ull << 20;
inline std::uint64_t blockWorkingSetBytes(std::uint64_t points, std::uint64_t bins) {
    return points * 2 * sizeof(RawPointWithHash) + bins * (88 + BLOCK_CELLS_PER_BIN * BLOCK_BYTES_PER_CELL);
}

enum class SearchKind : std::uint8_t { Normal, Coarse, Fine };

// Where a record's relations are searched: at which position and size, by which search. One a record,
// at the record's index.
struct PendingSearch {
    SearchKind kind;
    float pos[3];
    float size;  // normal and fine: the cell size; coarse: the half size h
    std::int32_t m;
};

// A record that moves into the record of the leaf that absorbed its cell.
struct Absorption {
    std::int32_t into;
    std::int32_t from;
};

// The working arrays of a block's cells and field passes, host memory kept from block to block: blocks
// come largest first, so after the first one they are not allocated again (fresh memory costs a page
// fault a page).
struct CellBuildBuffers {
    std::shared_ptr<CellNodeAndRelations> spare;  // the former block's flat records and relations
    UninitialisedArray<PendingSearch> pending;
    UninitialisedArray<std::int32_t> found;      // each record's relations found by its search,
    UninitialisedArray<std::int64_t> found_at;   // where they start in
    UninitialisedArray<std::uint16_t> found_by;  // which thread's list
    UninitialisedArray<std::int32_t> visit_points;
    UninitialisedArray<std::uint8_t> visit_widened;
    UninitialisedArray<CellNode*> leaves;
    UninitialisedArray<std::int64_t> offsets;
    std::vector<UninitialisedArray<RelationCell2Bins_Device>> lists;  // the relations found, one list a thread
    UninitialisedArray<VoxelFieldCenter> centres;
    std::size_t last_points = 0;  // points of the block the arrays last served
    // Relations of a block up to this many bytes keep their pages in the lists and the flat array from
    // block to block: writing them into fresh pages again cost more than the copy. Larger ones give the
    // lists' pages back as the flat copy goes, and the flat array's after the field passes.
    std::size_t kept_relation_bytes = std::size_t{64} << 20;
    bool keepsRelationPages(std::size_t relations) const {
        return relations <= kept_relation_bytes / sizeof(RelationCell2Bins_Device);
    }
    // Before a block of `points`: each array keeps the memory this block probably uses (its last use,
    // scaled by the points) and gives the rest back.
    void fitTo(std::size_t points);
    void release();
};

class MarchingCubes : public RunStage {
public:
    MarchingCubes() = default;
    ~MarchingCubes();

    int init();
    int setHashOctree(const std::shared_ptr<HashOctree>& octree);
    int setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool);
    // Sizes the device buffers for the largest block of the run.
    int initDevice(std::uint64_t max_points);
    // One block's cells and fields; memory that runs out leaves the block out with status 66049.
    int process(const std::shared_ptr<PointCloudBlock>& block);
    int deInitDevice();
    int deInit();

    // What the field computation's rules decided for the cells of the run so far.
    const CellRuleCounts& cellRuleCounts() const { return m_rule_counts; }

private:
    int processBlock(const std::shared_ptr<PointCloudBlock>& block);
    friend struct TestAccess;  // the tests reach the steps of a block below

    // Sorts the block's points by the Morton code of their bin and describes each bin; the order of
    // the bins is that of their points.
    int generateBins(const std::shared_ptr<PointCloudBlock>& block, const float logic_coordinate[3],
                     std::vector<BinsHeader>& bins_header);
    // The lower corner of the block's bin grid, margins included.
    void logicCoordinate(const PointCloudBlock& block, float out[3]) const;

    // The table from a bin's grid key to its index.
    int prepareSimpleHash(const std::vector<BinsHeader>& bins_header);
    // Spreads the bins' wished scale codes and keeps neighbours within a factor of two, in place.
    int rectifyBinLevels(std::vector<BinsHeader>& bins_header);
    // The cells of a block's bins with their relation lists, flattened.
    class CellBuild;  // its steps and their shared state (CellBuild.cpp)
    int buildOctreeAndRelations(const PointCloudBlock& block, const std::vector<BinsHeader>& bins_header,
                                std::shared_ptr<CellNodeAndRelations>& cell_node_and_relations);
    // Index of the bin with this grid key, or -1.
    std::int32_t findBin(std::int32_t x, std::int32_t y, std::int32_t z) const {
        if (!m_bitmap_valid) return findBinInTable(x, y, z);
        const std::int64_t bit = binBit(x, y, z);
        if (bit < 0) return -1;
        const std::uint64_t word = m_bin_bitmap[static_cast<std::size_t>(bit >> 6)];
        const std::uint64_t below = std::uint64_t{1} << (bit & 63);
        if ((word & below) == 0) return -1;
        return m_rank_to_bin[static_cast<std::size_t>(m_bitmap_rank[static_cast<std::size_t>(bit >> 6)] +
                                                      bitCount64(word & (below - 1)))];
    }
    std::int32_t findBinInTable(std::int32_t x, std::int32_t y, std::int32_t z) const;

    // The three passes of the field computation over a block's cells (field/FieldPasses.h): on the device
    // when its memory holds the arrays and the block's points are still there, on the host otherwise.
    int computeFields(const std::shared_ptr<PointCloudBlock>& block, CellNodeAndRelations& cells);
    // What the passes read and keep, lent from the stage's members.
    FieldPassViews fieldViews() {
        return {*m_device_params,       m_device_params_dev, m_block_points_dev,
                m_cell_buffers.centres, m_point_columns,     m_last_error};
    }
    // Moves the sheets of every leaf into the field store and leaves each leaf with its slots or none.
    // Gives the number of sheets stored.
    std::int64_t saveFieldData(const CellNodeAndRelations& cells);

    // The four steps behind generateBins: the whole block on the device, or in chunks.
    int computePointsHash_Device(PointCloudBlock& block, const float logic_coordinate[3]);
    int getBinsCenter_Device(PointCloudBlock& block, std::vector<BinsHeader>& bins_header);
    int computePointsHash_Chunked(PointCloudBlock& block, const float logic_coordinate[3]);
    int getBinsCenter_Chunked(PointCloudBlock& block, const float logic_coordinate[3],
                              std::vector<BinsHeader>& bins_header);

    bool m_on_host = false;
    std::shared_ptr<GridKeyTable<BinOfKey>> m_bin_table;  // the bins by key where the bitmap cannot hold them
    std::shared_ptr<HashOctree> m_hash_octree;
    std::shared_ptr<FieldDataPool> m_field_data_pool;
    RawPointWithHash* m_raw_points_hash_dev = nullptr;
    RawPointWithHash* m_block_points_dev = nullptr;  // the sorted points of the block in work, where kernels read them
    PointSortBuffers m_sort_buffers;                 // host memory, kept from block to block
    PointColumns m_point_columns;                    // the block's points for the host's vector walks
    CellBuildBuffers m_cell_buffers;
    int* m_raw_points_hash_size_dev = nullptr;
    std::uint64_t m_raw_points_capacity = 0;
    float* m_logic_coordinate_dev = nullptr;
    BinsHeader* m_bins_header_dev = nullptr;
    std::uint64_t m_bins_header_capacity = 0;
    int* m_bins_header_size_dev = nullptr;
    DeviceParameters* m_device_params_dev = nullptr;
    PortionerParameters* m_portioner_params_dev = nullptr;
    std::size_t m_last_bin_count = 0;
    std::shared_ptr<CellNodeAndRelations> m_last_cells;
    bool m_keep_last_cells = false;
    // Occupied bin keys over the bounding box of the block's bins, the count of occupied keys before
    // each word, and the bin of each occupied key in that order; a hash table where the box is too big.
    UninitialisedArray<std::uint64_t> m_bin_bitmap;  // zeroed on all cores before each block
    std::vector<std::int32_t> m_bitmap_rank;
    std::vector<std::int32_t> m_rank_to_bin;
    std::int32_t m_bitmap_min[3] = {0, 0, 0};
    std::int64_t m_bitmap_dim[3] = {0, 0, 0};  // bricks along each axis
    bool m_bitmap_valid = false;

    // The bitmap table of the bins; false (and no table) when their box is too big for it.
    bool buildBinBitmap(const std::vector<BinsHeader>& bins_header);
    // The bit of a key in the bitmap (bricks of 4 x 4 x 4 keys, one a word), or -1 outside its box.
    std::int64_t binBit(std::int32_t x, std::int32_t y, std::int32_t z) const {
        const std::int64_t dx = static_cast<std::int64_t>(x) - m_bitmap_min[0];
        const std::int64_t dy = static_cast<std::int64_t>(y) - m_bitmap_min[1];
        const std::int64_t dz = static_cast<std::int64_t>(z) - m_bitmap_min[2];
        if (dx < 0 || dy < 0 || dz < 0) return -1;
        const std::int64_t bx = dx >> 2, by = dy >> 2, bz = dz >> 2;
        if (bx >= m_bitmap_dim[0] || by >= m_bitmap_dim[1] || bz >= m_bitmap_dim[2]) return -1;
        const std::int64_t brick = (bz * m_bitmap_dim[1] + by) * m_bitmap_dim[0] + bx;
        return brick * 64 + ((dz & 3) << 4) + ((dy & 3) << 2) + (dx & 3);
    }

    CellRuleCounts m_rule_counts;

    // Bins of `count` points at `points` (block index `points_offset` onwards), appended to `bins_header`.
    void binsOfSortedPoints(const RawPointWithHash* points_dev, std::int64_t count, std::int64_t points_offset,
                            std::vector<BinsHeader>& bins_header);
    // By the kernels: the runs counted, a bin for each run's first point, then each bin's run walked.
    void binsOfSortedPointsByKernels(const RawPointWithHash* points_dev, std::int64_t count, std::int64_t points_offset,
                                     std::vector<BinsHeader>& bins_header);
    // On the host where the points lie in host memory, the bins in point order (BinsHost.cpp).
    void binsOfSortedPointsOnHost(const RawPointWithHash* points, std::int64_t count, std::int64_t points_offset,
                                  std::vector<BinsHeader>& bins_header);
    float m_logic_coordinate_host[3] = {0.0f, 0.0f, 0.0f};  // the block's, as the kernels read it
};

}  // namespace SurfaceReconstruction
