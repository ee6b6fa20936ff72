// The Portioner cuts the points of all frames of a run into cubic blocks of a world grid, each block
// with a margin of its neighbours' points, so that later stages hold one block at a time.
//
// Two passes over the frames: the first uploads positions and gathers the occupied block positions
// every 1000 frames; between the passes the block list is closed and a table from position to block is
// made; the second pass partitions batches of 500 frames on a pool worker while the caller fills the
// next batch. The host part lives in Portioner.cpp, the kernels and device steps in Portioner_Device.cu.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "DeviceLayer.h"
#include "Parameters.h"
#include "SimpleLineHash.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

class ThreadPool;

// Frames in a batch; frame slots in a batch buffer.
constexpr int PORTIONER_MAX_FRAME_SIZE = 500;
// Frames between two block computations of the first pass.
constexpr int PORTIONER_RAW_SURFACE_FRAMES = 1000;
// Block changes a batch buffer starts with; it grows when a batch touches more blocks.
constexpr int PORTIONER_MAX_BLOCK_CHANGES = 10000;
// Size of the table from block position to block.
constexpr std::uint64_t PORTIONER_HASH_BUCKETS = 32768;
constexpr std::uint64_t PORTIONER_HASH_EXCESS = 20000;
// Points a frame must stay away from the origin on some axis to count: closer on all three is an empty slot.
constexpr float PORTIONER_ORIGIN_SKIP = 0.1f;

// Points the raw surface buffer holds: 1000 frames of the slot size (30000 points where that is 0).
inline std::uint64_t PORTIONER_MAX_RAW_SURFACE_POINTS_SIZE(std::uint32_t max_frame_points) {
    return static_cast<std::uint64_t>(max_frame_points == 0 ? 30000u : max_frame_points) * PORTIONER_RAW_SURFACE_FRAMES;
}

// Grid index of a block.
struct RawSurfaceBlockPos {
    std::int32_t x, y, z;
};

struct RawSurfaceBlockPos_CMP_LESS {
    TESSA_HD bool operator()(const RawSurfaceBlockPos& a, const RawSurfaceBlockPos& b) const {
        if (a.x != b.x) return a.x < b.x;
        if (a.y != b.y) return a.y < b.y;
        return a.z < b.z;
    }
};

struct RawSurfaceBlockPos_CMP_EQUAL {
    TESSA_HD bool operator()(const RawSurfaceBlockPos& a, const RawSurfaceBlockPos& b) const {
        return a.x == b.x && a.y == b.y && a.z == b.z;
    }
};

// One point as it travels through the stages; one layout on host and device.
struct RawPointWithHash {
    float x, y, z;
    float nx, ny, nz;
    std::int32_t w;     // the frame's word: bits 0-7 scale wish, bits 8 and up flags
    std::int32_t hash;  // here the block's table entry; the marching cubes stage writes a Morton code into it
    std::uint8_t laser;
    std::uint8_t padding;  // always 0: records are compared and copied byte for byte
    std::uint16_t reserved_a;
    std::uint32_t reserved_b;
};
// Every byte is a named field, so a record written field by field has no undefined bytes.
static_assert(offsetof(RawPointWithHash, w) == 24 && offsetof(RawPointWithHash, hash) == 28 &&
                  offsetof(RawPointWithHash, laser) == 32 && offsetof(RawPointWithHash, padding) == 33 &&
                  offsetof(RawPointWithHash, reserved_a) == 34 && offsetof(RawPointWithHash, reserved_b) == 36 &&
                  sizeof(RawPointWithHash) == 40,
              "RawPointWithHash has no hidden padding");

// Orders by `hash` as unsigned, then by every other field's bits, so that the points of a block come
// out in one order whatever order the threads wrote them in.
struct RawPointWithHash_CMP_LESS {
    TESSA_HD static std::uint32_t bits(float value) {
        union {
            float f;
            std::uint32_t u;
        } cast{value};
        return cast.u;
    }
    TESSA_HD bool operator()(const RawPointWithHash& a, const RawPointWithHash& b) const {
        if (a.hash != b.hash) return static_cast<std::uint32_t>(a.hash) < static_cast<std::uint32_t>(b.hash);
        const float fa[6] = {a.x, a.y, a.z, a.nx, a.ny, a.nz};
        const float fb[6] = {b.x, b.y, b.z, b.nx, b.ny, b.nz};
        for (int i = 0; i < 6; ++i) {
            const std::uint32_t ua = bits(fa[i]), ub = bits(fb[i]);
            if (ua != ub) return ua < ub;
        }
        if (a.w != b.w) return a.w < b.w;
        return a.laser < b.laser;
    }
};

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
struct HostFrameBatch {
    std::vector<float> xyz;
    std::vector<float> nor;
    std::vector<std::int32_t> w;
    std::vector<FrameInfo> frame_info;
    std::vector<std::uint32_t> slot_points;
};

// One block of the world grid with its own points and the points of its margin.
struct PointCloudBlock {
    std::atomic<std::int32_t> state{0};
    float center[3] = {0.0f, 0.0f, 0.0f};
    float half_size = 0.5f;
    std::int32_t flags = 0;  // OR of w over all the block's points
    std::shared_ptr<std::vector<RawPointWithHash>> points = std::make_shared<std::vector<RawPointWithHash>>();
};

class Portioner {
public:
    Portioner() = default;
    ~Portioner();
    Portioner(const Portioner&) = delete;
    Portioner& operator=(const Portioner&) = delete;

    int setDeviceParams(const std::shared_ptr<DeviceParameters>& params);
    int setPortionerParams(const std::shared_ptr<PortionerParameters>& params);
    int setThreadPool(const std::weak_ptr<ThreadPool>& pool);
    int setResolution(float resolution);

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

    // Points of the first, largest block; 0 without blocks.
    int getMaxBlockPointsSize();
    int getPointCloudBlockCount();
    // Hands out block `index` and empties its slot.
    int takePointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index);
    // Hands out block `index` and leaves it in the list.
    int getPointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index);

    std::string getLastError() const { return m_last_error; }
    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }
    std::size_t waitingFrameCount() const { return m_waiting_frames.size(); }
    const std::vector<RawSurfaceBlockPos>& rawSurfaceBlocks() const { return m_raw_surface_block_vec; }
    std::uint64_t rawSurfaceCapacity() const { return m_raw_surface_capacity; }
    std::uint64_t rawPointsCapacity() const { return m_raw_points_capacity; }
    int batchesOnWorker() const { return m_batches_on_worker; }
    int blockComputations() const { return m_block_computations; }
    int partitionReruns() const { return m_partition_reruns; }

    // Device steps, public for the tests of each step.
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
    int processScanFrameList_Device(float block_res, float ext_res);
    // Starting capacity of the partition output; tests set it low to force the growth path.
    void setRawPointsCapacityForTest(std::uint64_t capacity) { m_raw_points_capacity_request = capacity; }

private:
    float blockRes() const;
    float extRes() const;
    std::uint32_t maxFramePoints() const;
    bool frameFits(const FrameDataWithInfo& frame) const;
    int preProcessForAddScanFrame();
    int finishScanFrames();
    int processScanFrameList_Task();
    int waitForBatch();
    void addSeamNeighbourBlocks();
    void dropEmptyBlocks();
    void sortBlocksBySize();
    void clearAddingSlots();
    int growPartitionOutput_Device(std::uint64_t raw_points, std::uint64_t changes);

    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::shared_ptr<DeviceParameters> m_device_params;
    DeviceParameters* m_device_params_dev = nullptr;
    std::shared_ptr<PortionerParameters> m_portioner_params;
    bool m_task_failed = false;
    std::weak_ptr<ThreadPool> m_thread_pool;
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
    std::vector<std::shared_ptr<PointCloudBlock>> m_point_cloud_blocks;
    std::size_t m_hash_entry_size = 0;
    std::size_t m_hash_mask = 0;
    SimpleLineHashEntry* m_simple_line_hash_dev = nullptr;
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
    int m_partition_reruns = 0;
};

}  // namespace SurfaceReconstruction
