// The Portioner cuts the points of all frames of a run into cubic blocks of a world grid, each block
// with a margin of its neighbours' points, so that later stages hold one block at a time.
//
// Two passes over the frames: the first uploads positions and gathers the occupied block positions
// every 1000 frames; between the passes the block list is closed and a table from position to block is
// made; the second pass partitions batches of 500 frames on a pool worker while the caller fills the
// next batch. The stage's steps live in Portioner.cpp, the kernels and device steps of the passes in
// PortionerPasses.cu, and their host twin (the partition on the host's cores) in PortionerPassesHost.cpp.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/BlockSelection.h"
#include "common/GridKeyTable.h"
#include "common/MemoryFailure.h"
#include "common/Parameters.h"
#include "common/PointRecords.h"
#include "common/RunStage.h"
#include "device/DeviceLayer.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

struct TestAccess;

// Frames in a batch; frame slots in a batch buffer.
constexpr int PORTIONER_MAX_FRAME_SIZE = 500;
// Frames between two block computations of the first pass.
constexpr int PORTIONER_RAW_SURFACE_FRAMES = 1000;
// Block changes a batch buffer starts with; it grows when a batch touches more blocks.
constexpr int PORTIONER_MAX_BLOCK_CHANGES = 10000;
// Bytes of frames let go in the host's second pass between two calls that give the freed heap back.
constexpr std::uint64_t PORTIONER_FRAME_BYTES_TRIMMED = std::uint64_t{32} << 20;
// Size of the table from block position to block.
constexpr std::uint64_t PORTIONER_HASH_BUCKETS = 32768;
constexpr std::uint64_t PORTIONER_HASH_EXCESS = 20000;
// A point exactly at the origin is no point: the empty rest of a frame slot, or a scanner's null return.
// Any other point counts, however near the origin it lies.
TESSA_HD inline bool isNullPoint(float x, float y, float z) { return x == 0.0f && y == 0.0f && z == 0.0f; }

// Points the raw surface buffer holds: 1000 frames of the slot size (30000 points where that is 0).
inline std::uint64_t PORTIONER_MAX_RAW_SURFACE_POINTS_SIZE(std::uint32_t max_frame_points) {
    return static_cast<std::uint64_t>(max_frame_points == 0 ? 30000u : max_frame_points) * PORTIONER_RAW_SURFACE_FRAMES;
}

// Points of the raw surface buffer on a device with `free_bytes` free (`known` false where the figure
// could not be read): at most the quarter of free memory, so that the partition and the marching cubes
// stage keep the rest, and never below one frame slot; where the figure is unknown, the full size.
// Fewer points only make the block computation run more often: the block list is the same.
inline std::uint64_t PORTIONER_RAW_SURFACE_CAPACITY(std::uint32_t max_frame_points, bool known,
                                                    std::uint64_t free_bytes) {
    const std::uint64_t full = PORTIONER_MAX_RAW_SURFACE_POINTS_SIZE(max_frame_points);
    if (!known) return full;
    const std::uint64_t slot = max_frame_points == 0 ? 30000u : max_frame_points;
    const std::uint64_t point_bytes = 3 * sizeof(float) + 3 * sizeof(std::int32_t);  // xyz and block position
    const std::uint64_t fits = free_bytes / 4 / point_bytes;
    return fits < slot ? slot : (fits < full ? fits : full);
}

// The value of the table from block position to block: the block, and the tallies of the batch in work.
struct BlockTally {
    std::int32_t id = -1;    // index into the block list; -1 while nothing is set
    std::int32_t flags = 0;  // OR of the words of the points tagged with this slot
    std::int32_t count = 0;  // points of the batch in progress tagged with this slot
    // 1: a block the run does not compute (a run of chosen blocks); its points are listed only for the blocks
    // around it whose margins hold them.
    std::int32_t skipped = 0;
};
using BlockSlot = GridKeySlot<BlockTally>;

// One block's share of a batch.
struct BlockChangesData {
    std::int32_t block_id;    // index into the block list
    std::int32_t flags;       // OR of w over the block's points so far
    std::int32_t offset;      // first point of the block in the sorted batch
    std::int32_t points_num;  // the block's points in this batch
};

// Frame slots of a batch on the device: frame k starts at point k * MAX_FRAME_POINTS.
struct RawPointCloudBuff {
    float* xyz = nullptr;
    float* nor = nullptr;
    std::int32_t* w = nullptr;
    FrameInfo* frame_info = nullptr;
};

// The same slots on the host, with the point count of each filled slot, so that refilling the buffer
// clears only what the former batch wrote.
// Zeroed storage whose pages the system maps only when written: a frame slot sized for the largest frame
// costs memory only for the points a frame puts in it, and the empty rest reads as null points.
template <class T>
class ZeroedArray {
public:
    ZeroedArray() = default;
    ~ZeroedArray() { std::free(m_data); }
    ZeroedArray(const ZeroedArray&) = delete;
    ZeroedArray& operator=(const ZeroedArray&) = delete;
    // Throws OutOfMemory where the storage cannot be had.
    void assignZeroed(std::size_t n) {
        std::free(m_data);
        m_data = nullptr;
        m_size = 0;
        if (n == 0) return;
        m_data = static_cast<T*>(std::calloc(n, sizeof(T)));
        if (m_data == nullptr) throw OutOfMemory(static_cast<std::uint64_t>(n) * sizeof(T));
        m_size = n;
    }
    T* data() { return m_data; }
    const T* data() const { return m_data; }
    T* begin() { return m_data; }
    std::size_t size() const { return m_size; }

private:
    T* m_data = nullptr;
    std::size_t m_size = 0;
};

struct HostFrameBatch {
    ZeroedArray<float> xyz;
    ZeroedArray<float> nor;
    ZeroedArray<std::int32_t> w;
    std::vector<FrameInfo> frame_info;
    std::vector<std::uint32_t> slot_points;
};

class Portioner : public RunStage {
public:
    Portioner() = default;
    ~Portioner();

    int init();
    int deInit();

    // First pass, one call a frame; 1 when the frame is not taken.
    int addScanFrameWithoutModel(const std::shared_ptr<FrameDataWithInfo>& frame);
    // Everything from the end of the first pass to the block list sorted by size, largest first.
    int processWithoutModel();

    // The model path: the blocks come from a point list known before the frames, which then go straight
    // to addScanFrameWithModel; processWithModel ends the run.
    int setSimplifiedModel(const std::vector<Vec3f>& model);
    int addScanFrameWithModel(const std::shared_ptr<FrameDataWithInfo>& frame);
    int processWithModel();

    // A run of chosen blocks lists points only for these blocks (keys on the grid of blocks); empty: for all.
    void setComputedBlocks(BlockKeySet blocks) { m_computed_blocks = std::move(blocks); }

    // Points of the first, largest block; 0 without blocks.
    int getMaxBlockPointsSize();
    int getPointCloudBlockCount();
    // Hands out block `index` and empties its slot.
    int takePointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index);
    // Hands out block `index` and leaves it in the list.
    int getPointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index);

private:
    friend struct TestAccess;  // the tests reach the steps and counters below

    // Device steps of the passes.
    int initRawSurface_Device(std::uint64_t capacity);
    int deInitRawSurface_Device();
    int initPartition_Device();
    int deInitPartition_Device();
    int computeRawSurfaceBlock_Task();
    int computeRawSurfaceBlock_Device(float block_res);
    int reOrganizeRawSurfaceBlock_Task();
    int reOrganizeRawSurfaceBlock_Device();
    int computeModelBlockHash_Device(const std::vector<Vec3f>& model_xyz, float block_res,
                                     std::vector<RawSurfaceBlockPos>& out);
    // Where device memory is host memory: the first pass reads the waiting frames where they lie (no copy
    // into the raw surface buffer), their block positions taken at the end of the pass on all cores.
    bool firstPassFromFrames() const;
    void blockPositionsOfFramesOnHost(std::size_t first_frame);
    int processScanFrameList_Device(float block_res, float ext_res);

    float blockRes() const;
    float extRes() const;
    std::uint32_t maxFramePoints() const;
    bool frameFits(const FrameDataWithInfo& frame) const;
    int preProcessForAddScanFrame();
    // Makes room in each block's list for all the records the waiting frames will give it, so that the
    // list is allocated once, at its size, instead of growing batch by batch.
    void reserveBlockPoints(const BlockSlot* entries, std::uint64_t entry_count, std::uint64_t mask, float block_res,
                            float ext_res);
    // Where device memory is host memory and the room was made: the second pass straight from the
    // waiting frames onto their blocks' lists, share by share of frames on the host's cores, each record
    // at the place its count gives (the order of the batches). 1 where the counts do not fit the lists.
    int partitionWaitingFramesOnHost(float block_res, float ext_res);
    int finishScanFrames();
    int processScanFrameList_Task();
    int waitForBatch();
    void addSeamNeighbourBlocks();
    void dropEmptyBlocks();
    void sortBlocksBySize();
    void clearAddingSlots();
    int growPartitionOutput_Device(std::uint64_t raw_points, std::uint64_t changes);

    DeviceParameters* m_device_params_dev = nullptr;
    bool m_task_failed = false;
    std::future<int> m_task_future;
    std::deque<std::shared_ptr<FrameDataWithInfo>> m_waiting_frames;
    int m_adding_frame_size = 0;
    std::shared_ptr<HostFrameBatch> m_adding_frames;
    int m_computing_frame_size = 0;
    std::shared_ptr<HostFrameBatch> m_computing_frames;
    std::int64_t m_raw_surface_frame_size = 0;
    std::int64_t m_raw_surface_point_size = 0;
    float* m_raw_surface_xyz_dev = nullptr;
    RawSurfaceBlockPos* m_raw_surface_block_dev = nullptr;
    std::uint64_t m_raw_surface_capacity = 0;
    std::vector<RawSurfaceBlockPos> m_raw_surface_block_vec;
    std::size_t m_frames_without_positions = 0;  // the last waiting frames, read where they lie
    BlockKeySet m_computed_blocks;               // empty: every block is computed
    std::vector<std::shared_ptr<PointCloudBlock>> m_point_cloud_blocks;
    // Host backend: each worker thread's records of the batch in work, kept from batch to batch.
    std::vector<std::vector<RawPointWithHash>> m_thread_records;
    bool m_straight_from_frames = true;        // the host's second pass without batches, where it can
    std::vector<std::size_t> m_frame_shares;   // the waiting frames in shares: share s from frame [s] to [s + 1]
    std::vector<std::int64_t> m_share_counts;  // the records of each share by table entry, share after share
    std::size_t m_hash_entry_size = 0;
    std::size_t m_hash_mask = 0;
    BlockSlot* m_block_table_dev = nullptr;  // the table from block position to block, where kernels read it
    RawPointCloudBuff m_computing_frames_dev;
    std::uint32_t m_slot_points = 0;  // MAX_FRAME_POINTS when the partition buffers were made
    int m_batch_slots = 0;            // frame slots of each batch buffer
    RawPointWithHash* m_raw_points_hash_dev = nullptr;
    std::uint64_t m_raw_points_capacity = 0;
    std::uint64_t m_raw_points_capacity_request = 0;
    int* m_raw_points_hash_size_dev = nullptr;
    BlockChangesData* m_block_changes_data_dev = nullptr;
    std::uint64_t m_block_changes_capacity = 0;
    int* m_block_changes_size_dev = nullptr;
    bool m_model_set = false;
    int m_batches_on_worker = 0;
    int m_block_computations = 0;
    int m_partition_growths = 0;  // batches that needed a larger output buffer
};

}  // namespace SurfaceReconstruction
