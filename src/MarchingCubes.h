// The marching cubes stage: takes one block at a time, builds its cells in the octree and stores their
// field values in the FieldDataPool. It produces no triangles; the Reconstructor does.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DeviceLayer.h"
#include "Parameters.h"

namespace SurfaceReconstruction {

class HashOctree;
class SimpleLineHash;
class ThreadPool;
struct PointCloudBlock;
struct RawPointWithHash;

// Scale code of no scale: an error when it reaches the cell building.
constexpr std::int8_t SUB_SCALE_NANE = 0;
// Free device memory kept on every test of the stage.
constexpr std::size_t MC_MEMORY_MARGIN = 0x500000;

// Bins that the device array holds for a block of n bins along an edge (margins included).
inline std::uint64_t MC_MAX_BINS_HEADER(std::uint32_t n) { return 20ull * n * n; }

// One occupied bin of a block. The array is written by the device and read and rewritten by the host.
struct BinsHeader {
    float center[3];
    std::int32_t point_offset;  // first point of the bin in the block's sorted points
    std::int32_t point_count;
    std::int8_t bin_sub_scale;   // the scale code; starts at 8
    std::uint8_t bin_flags;      // OR of bits 8-15 of the points' words
    std::uint16_t word_high;     // always 0: bin_sub_scale and bin_flags read as one word
    std::uint64_t occupancy[8];  // one bit for each of the 8 x 8 x 8 sub-cells, by Morton code
};
static_assert(sizeof(BinsHeader) == 88, "BinsHeader has no hidden padding");

// One surface sheet of a cell.
struct FieldSlot {
    float normal[3];
    float value;
    std::uint32_t word;
    std::uint32_t reserved;  // always 0: records are compared and copied byte for byte
    std::uint64_t occupancy;
};
static_assert(sizeof(FieldSlot) == 32, "FieldSlot has no hidden padding");

// Store of the finished field values of a run: arrays of FIELD_POOL_BLOCK_SIZE slots at fixed
// addresses, grown under a spin lock, slot i at element i % size of array i / size.
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
    std::int32_t blockCount() const { return m_block_num.load(); }
    std::int32_t size() const { return m_size.load(); }

private:
    bool addBlock();

    bool m_inited = false;
    std::vector<FieldSlot*> m_blocks;
    std::atomic<std::int32_t> m_block_num{0};  // read without the lock by allocDataIndex
    std::atomic<std::int32_t> m_size{0};
    std::uint32_t m_lock = 0;
};

// The relation of a cell to one bin: a run of points that the cell's field takes in.
struct RelationCell2Bins_Device {
    std::int32_t offset;  // the bin's point_offset
    std::int32_t count;   // the bin's point_count
};

struct CellNode;

// The record of one cell in the field computation.
struct CellNode_Device {
    CellNode* cell;  // the octree cell; the device only carries it along
    float center[3];
    float half_size;               // 0.5 in a record not yet used
    std::uint32_t word;            // low byte the scale code of the bin that made the record, then flags
    std::int32_t relation_offset;  // first entry of the cell in the flat relation array; -1 until flattened
    std::int32_t relation_count;
    std::int32_t point_count;  // sum of the relations' counts; -1 in a record not yet used
    std::int32_t field_flag;   // -1 no usable surface; 0, 1, 2 the number of sheets
    float init_normal[3];
    std::uint32_t rules;     // CELL_* bits, and in bits 8-15 the CellRejection that left it without a sheet
    std::uint32_t reserved;  // always 0
    FieldSlot fields[2];
};
static_assert(sizeof(CellNode_Device) == 128, "CellNode_Device has no hidden padding");

// A cell with fewer points than this takes one more ring of bins into its neighbourhood.
constexpr std::int32_t SPARSE_CELL_POINTS = 16;

// What the cell building and the field computation did with a cell, in CellNode_Device::rules.
constexpr std::uint32_t CELL_WIDENED_SEARCH = 0x1;  // a sparse cell: its search took one more ring of bins
constexpr std::uint32_t CELL_ALL_POINTS = 0x2;  // a flagged cell whose flagged points gave no side: all points count
constexpr std::uint32_t CELL_CREASE = 0x4;      // its value meets a second face that crosses its plane

// The rule that left a cell without a sheet, in bits 8-15 of CellNode_Device::rules.
enum CellRejection : std::uint32_t {
    CELL_KEPT = 0,
    CELL_FEW_POINTS = 1,        // fewer than 5 points in reach
    CELL_NO_RELATIONS = 2,      // no relation list
    CELL_NO_COMMON_NORMAL = 3,  // no 5 points agreeing with any of the three reference normals
    CELL_NO_SIDE = 4,           // no side with more than 4 points, one of them near
    CELL_FIT_ACROSS = 5,        // every side's fit lay across its reference normal
    CELL_OFF_CENTRE = 6,        // a sparse cell whose points' centroid lies beyond one edge of it
    CELL_REJECTION_COUNT = 7,
};

// How many cells of a run each rule of the field computation decided; a region that stays open shows
// here why.
struct CellRuleCounts {
    std::uint64_t cells = 0;  // leaves with a record
    std::uint64_t with_sheet = 0;
    std::uint64_t rejected[CELL_REJECTION_COUNT] = {};
    std::uint64_t widened = 0;
    std::uint64_t all_points = 0;
    std::uint64_t creases = 0;
};

TESSA_HD inline CellRejection cellRejection(std::uint32_t rules) {
    return static_cast<CellRejection>((rules >> 8) & 0xFFu);
}
TESSA_HD inline void setCellRejection(std::uint32_t& rules, CellRejection why) {
    rules = (rules & ~0xFF00u) | (static_cast<std::uint32_t>(why) << 8);
}

// Two points, one a sheet: working array of the field computation.
struct VoxelFieldCenter {
    float sheet[2][3];
};

// A record of a fresh pool block.
CellNode_Device emptyCellNodeDevice();

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
    void reset() { m_size = 0; }
    // Reserves one record; the pool stays one record ahead of its need. 66049 with index -1 on failure.
    int allocDataIndex(std::int32_t& index);

    CellNode_Device& node(std::int32_t index) { return m_cell_nodes_blocks[block(index)][index % BLOCK_SIZE]; }
    std::vector<RelationCell2Bins_Device>& relations(std::int32_t index) {
        return m_relations_blocks[block(index)][index % BLOCK_SIZE];
    }
    std::int32_t size() const { return m_size.load(); }
    std::int32_t blockCount() const { return m_block_num; }
    bool isInited() const { return m_inited; }

private:
    static std::size_t block(std::int32_t index) { return static_cast<std::size_t>(index / BLOCK_SIZE); }
    bool addBlock();

    bool m_inited = false;
    std::vector<std::vector<RelationCell2Bins_Device>*> m_relations_blocks;
    std::vector<CellNode_Device*> m_cell_nodes_blocks;
    std::int32_t m_block_num = 0;
    std::atomic<std::int32_t> m_size{0};
    std::uint32_t m_lock = 0;
};

// The flattened cells of a block and their relations: the input of the field computation.
struct CellNodeAndRelations {
    std::atomic<std::int32_t> cell_node_size{0};
    std::vector<CellNode_Device> cell_nodes;
    std::atomic<std::int32_t> relation_size{0};
    std::vector<RelationCell2Bins_Device> relations;
};

class MarchingCubes {
public:
    MarchingCubes() = default;
    ~MarchingCubes();
    MarchingCubes(const MarchingCubes&) = delete;
    MarchingCubes& operator=(const MarchingCubes&) = delete;

    int setDeviceParams(const std::shared_ptr<DeviceParameters>& params);
    int setPortionerParams(const std::shared_ptr<PortionerParameters>& params);
    int setThreadPool(const std::weak_ptr<ThreadPool>& pool);
    int setResolution(float resolution);

    int init();
    int setHashOctree(const std::shared_ptr<HashOctree>& octree);
    int setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool);
    // Sizes the device buffers for the largest block of the run.
    int initDevice(std::uint64_t max_points);
    int process(const std::shared_ptr<PointCloudBlock>& block);
    int deInitDevice();
    int deInit();

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
    int buildOctreeAndRelations(const PointCloudBlock& block, const std::vector<BinsHeader>& bins_header,
                                std::shared_ptr<CellNodeAndRelations>& cell_node_and_relations);
    // Index of the bin with this grid key, or -1.
    std::int32_t findBin(std::int32_t x, std::int32_t y, std::int32_t z) const;

    // The three passes of the field computation over a block's cells: on the device when its memory
    // holds the arrays and the block's points are still there, on the host otherwise.
    int computeFiledData(const std::shared_ptr<PointCloudBlock>& block, const std::vector<BinsHeader>& bins_header,
                         CellNodeAndRelations& cells);
    int computeFiledData_Device(CellNodeAndRelations& cells);
    int processMarchingCubeTask(int cell_node_size, CellNode_Device* cell_nodes_dev, int relation_size,
                                RelationCell2Bins_Device* relations_dev, RawPointWithHash* raw_points_dev,
                                VoxelFieldCenter* voxel_field_centers_dev);
    int processMarchingCubeTaskOnHost(const PointCloudBlock& block, CellNodeAndRelations& cells);
    // Moves the sheets of every leaf into the field store and leaves each leaf with its slots or none.
    void saveFieldData(const CellNodeAndRelations& cells);

    std::string getLastError() const { return m_last_error; }
    bool isInited() const { return m_inited; }
    // What the field computation's rules decided for the cells of the run so far.
    const CellRuleCounts& cellRuleCounts() const { return m_rule_counts; }
    float resolution() const { return m_resolution; }
    std::uint64_t rawPointsCapacity() const { return m_raw_points_capacity; }
    bool onHost() const { return m_on_host; }
    std::size_t lastBinCount() const { return m_last_bin_count; }
    const std::shared_ptr<CellNodeAndRelations>& lastCells() const { return m_last_cells; }
    void keepLastCells(bool keep) { m_keep_last_cells = keep; }

    // The four steps behind generateBins, public for the tests of each path.
    int computePointsHash_Device(PointCloudBlock& block, const float logic_coordinate[3]);
    int getBinsCenter_Device(PointCloudBlock& block, std::vector<BinsHeader>& bins_header);
    int computePointsHash_Chunked(PointCloudBlock& block, const float logic_coordinate[3]);
    int getBinsCenter_Chunked(PointCloudBlock& block, const float logic_coordinate[3],
                              std::vector<BinsHeader>& bins_header);

private:
    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::shared_ptr<DeviceParameters> m_device_params;
    std::shared_ptr<PortionerParameters> m_portioner_params;
    std::weak_ptr<ThreadPool> m_thread_pool;
    bool m_on_host = false;
    std::shared_ptr<SimpleLineHash> m_block_loc_hash;
    std::shared_ptr<HashOctree> m_hash_octree;
    std::shared_ptr<FieldDataPool> m_field_data_pool;
    RawPointWithHash* m_raw_points_hash_dev = nullptr;
    int* m_raw_points_hash_size_dev = nullptr;
    std::uint64_t m_raw_points_capacity = 0;
    float* m_logic_coordinate_dev = nullptr;
    BinsHeader* m_bins_header_dev = nullptr;
    std::uint64_t m_bins_header_capacity = 0;
    int* m_bins_header_size_dev = nullptr;
    DeviceParameters* m_device_params_dev = nullptr;
    PortionerParameters* m_portioner_params_dev = nullptr;
    std::size_t m_last_bin_count = 0;
    std::shared_ptr<CellRelations_Pool> m_tmp_cell_relations_pool;
    std::shared_ptr<CellNodeAndRelations> m_last_cells;
    bool m_keep_last_cells = false;
    // Occupied bin keys over the bounding box of the block's bins: most searched keys hold no bin, and
    // the bitmap answers those without touching the table.
    std::vector<std::uint64_t> m_bin_bitmap;
    std::int32_t m_bitmap_min[3] = {0, 0, 0};
    std::int64_t m_bitmap_dim[3] = {0, 0, 0};
    bool m_bitmap_valid = false;

    void buildBinBitmap(const std::vector<BinsHeader>& bins_header);

    CellRuleCounts m_rule_counts;

    // Bins of `count` points at `points` (block index `points_offset` onwards), appended to `bins_header`.
    void binsOfSortedPoints(std::int64_t count, std::int64_t points_offset, std::vector<BinsHeader>& bins_header);
};

}  // namespace SurfaceReconstruction
