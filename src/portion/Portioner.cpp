// The Portioner's steps: block sizing, the two passes over the frames, the batch double buffer on a pool
// worker, and the block list. The passes' device steps are in PortionerPasses.cu, the host's partition in
// PortionerPassesHost.cpp.
#include "portion/Portioner.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <vector>

#include "common/ErrorLadder.h"
#include "common/HostMemory.h"
#include "common/RunStop.h"
#include "common/ThreadPool.h"

namespace SurfaceReconstruction {

void computeBlockSizing(PortionerParameters& params, float resolution, std::uint32_t requested) {
    params.block_size = requested != 0 ? requested : DEFAULT_BLOCK_SIZE;
    if (requested == 0 && static_cast<double>(resolution) < 0.2) params.block_size >>= 1;
    params.ext_size = PORTIONER_EXT_SIZE;
    params.block_with_ext_size = params.block_size + 2 * PORTIONER_EXT_SIZE;
}

Portioner::~Portioner() {
    if (m_inited) deInit();
}

float Portioner::blockRes() const { return static_cast<float>(m_portioner_params->block_size) * m_resolution; }

float Portioner::extRes() const { return static_cast<float>(m_portioner_params->ext_size) * m_resolution; }

std::uint32_t Portioner::maxFramePoints() const { return m_device_params ? m_device_params->MAX_FRAME_POINTS : 0; }

// A frame slot holds MAX_FRAME_POINTS points, so a frame of exactly that many still fits.
bool Portioner::frameFits(const FrameDataWithInfo& frame) const { return frame.xyz.size() <= maxFramePoints(); }

int Portioner::init() {
    std::size_t free_bytes = 0, total_bytes = 0;
    const bool known = deviceMemGetInfo(&free_bytes, &total_bytes) == DEVICE_SUCCESS;
    const std::uint64_t capacity = PORTIONER_RAW_SURFACE_CAPACITY(maxFramePoints(), known, free_bytes);
    const MemoryStageScope stage("[Portioner] init (the first pass's buffers)",
                                 capacity * (3 * sizeof(float) + sizeof(RawSurfaceBlockPos)));
    const int result = initRawSurface_Device(capacity);
    if (result == static_cast<int>(TESSALINE_OUT_OF_MEMORY)) {
        m_inited = false;  // the text says what the first pass's buffers wanted
        return result;
    }
    if (result != 0) {
        m_inited = false;
        m_last_error = "[Portioner] init try catch error!";
        return 1;
    }
    m_inited = true;
    return 0;
}

int Portioner::deInit() {
    if (!m_inited) return 0;
    return runGuarded(m_last_error, {1, "[Portioner] deInit try catch error!"}, [&]() -> int {
        if (m_task_future.valid()) m_task_future.wait();  // the worker owns the device buffers until then
        deInitRawSurface_Device();
        const int result = deInitPartition_Device();
        if (result != 0) return result;
        m_waiting_frames.clear();
        m_frames_without_positions = 0;
        m_inited = false;
        return 0;
    });
}

// ---- first pass --------------------------------------------------------------------------------------

int Portioner::addScanFrameWithoutModel(const std::shared_ptr<FrameDataWithInfo>& frame) {
    if (refuseBeforeInit()) return 1;
    if (m_task_failed || !frame) return 1;
    if (!frameFits(*frame)) return 1;
    const std::uint64_t pt_size = frame->xyz.size();
    if (firstPassFromFrames()) {  // read where it lies at the end of the pass
        m_waiting_frames.push_back(frame);
        ++m_frames_without_positions;
        return 0;
    }

    // The raw surface buffer never overflows: the positions gathered so far are turned into blocks first,
    // and a single frame larger than the whole buffer gets a larger one.
    if (static_cast<std::uint64_t>(m_raw_surface_point_size) + pt_size > m_raw_surface_capacity) {
        if (m_raw_surface_point_size > 0) {
            if (computeRawSurfaceBlock_Task() != 0) {
                m_last_error = "[Portioner] computeRawSurfaceBlock_Task failed!";
                return 1;
            }
            m_raw_surface_point_size = 0;
            m_raw_surface_frame_size = 0;
        }
        if (pt_size > m_raw_surface_capacity && initRawSurface_Device(pt_size) != 0) {
            m_last_error = "[Portioner] computeRawSurfaceBlock_Task failed!";
            return 1;
        }
    }

    m_waiting_frames.push_back(frame);
    float* cur_device_xyz_ptr = m_raw_surface_xyz_dev + 3 * m_raw_surface_point_size;
    TESSA_DEVICE_CHECK(
        deviceMemcpy(cur_device_xyz_ptr, frame->xyz.data(), pt_size * 3 * sizeof(float), CopyKind::HostToDevice));
    m_raw_surface_point_size += static_cast<std::int64_t>(pt_size);
    m_raw_surface_frame_size += 1;

    if (m_raw_surface_frame_size >= PORTIONER_RAW_SURFACE_FRAMES) {
        if (computeRawSurfaceBlock_Task() != 0) {
            m_last_error = "[Portioner] computeRawSurfaceBlock_Task failed!";
            return 1;
        }
        m_raw_surface_point_size = 0;
        m_raw_surface_frame_size = 0;
    }
    return 0;
}

int Portioner::computeRawSurfaceBlock_Task() { return computeRawSurfaceBlock_Device(blockRes()); }

bool Portioner::firstPassFromFrames() const { return m_straight_from_frames && deviceMemoryIsHostMemory(); }

// Points that follow one another in a frame mostly lie in one block: each frame's positions with the
// repeats side by side left out, then all of them sorted and each kept once. The set is the one the
// raw surface buffer's passes make.
void Portioner::blockPositionsOfFramesOnHost(std::size_t first_frame) {
    const float block_res = blockRes();
    const std::int64_t frames = static_cast<std::int64_t>(m_waiting_frames.size() - first_frame);
    std::vector<std::vector<RawSurfaceBlockPos>> found(static_cast<std::size_t>(frames));
    std::exception_ptr failure;
#pragma omp parallel for schedule(dynamic, 16)
    for (std::int64_t f = 0; f < frames; ++f) {
        try {
            const FrameDataWithInfo& frame = *m_waiting_frames[first_frame + static_cast<std::size_t>(f)];
            std::vector<RawSurfaceBlockPos>& positions = found[static_cast<std::size_t>(f)];
            for (const Vec3f& p : frame.xyz) {
                const RawSurfaceBlockPos at{gridIndex(p[0], block_res), gridIndex(p[1], block_res),
                                            gridIndex(p[2], block_res)};
                if (positions.empty() || !RawSurfaceBlockPos_CMP_EQUAL()(positions.back(), at)) positions.push_back(at);
            }
        } catch (...) {
#pragma omp critical(tessaline_block_positions)
            if (!failure) failure = std::current_exception();
        }
    }
    if (failure) std::rethrow_exception(failure);
    for (const std::vector<RawSurfaceBlockPos>& positions : found)
        m_raw_surface_block_vec.insert(m_raw_surface_block_vec.end(), positions.begin(), positions.end());
    std::sort(m_raw_surface_block_vec.begin(), m_raw_surface_block_vec.end(), RawSurfaceBlockPos_CMP_LESS());
    m_raw_surface_block_vec.erase(
        std::unique(m_raw_surface_block_vec.begin(), m_raw_surface_block_vec.end(), RawSurfaceBlockPos_CMP_EQUAL()),
        m_raw_surface_block_vec.end());
}

int Portioner::reOrganizeRawSurfaceBlock_Task() {
    if (firstPassFromFrames()) {
        const int result =
            runGuarded(m_last_error, {1, "[Portioner] reOrganizeRawSurfaceBlock_Task try catch error!"}, [&]() -> int {
                const std::size_t pending = std::min(m_frames_without_positions, m_waiting_frames.size());
                blockPositionsOfFramesOnHost(m_waiting_frames.size() - pending);
                m_frames_without_positions = 0;
                return 0;
            });
        if (result != 0) return result;
        m_raw_surface_frame_size = 0;
        m_raw_surface_point_size = 0;
        return deInitRawSurface_Device();
    }
    int result = computeRawSurfaceBlock_Task();
    if (result != 0) return result;
    result = reOrganizeRawSurfaceBlock_Device();
    if (result != 0) return result;
    m_raw_surface_frame_size = 0;
    m_raw_surface_point_size = 0;
    return deInitRawSurface_Device();
}

// ---- between the passes ----------------------------------------------------------------------------

int Portioner::preProcessForAddScanFrame() {
    return runGuarded(
        m_last_error, {TESSALINE_DEVICE_COMPUTE, "[Portioner] setRawSurfacePoints try catch device error!"},
        {TESSALINE_DEVICE_COMPUTE, "[Portioner] setRawSurfacePoints try catch error!"}, [&]() -> int {
            const float block_res = blockRes();
            const float half = block_res * 0.5f;
            m_point_cloud_blocks.reserve(m_raw_surface_block_vec.size());

            // The table grows with the block list: a wide scan has many blocks and their seam neighbours.
            std::uint64_t buckets = PORTIONER_HASH_BUCKETS;
            while (buckets < 2 * m_raw_surface_block_vec.size()) buckets <<= 1;
            const std::uint64_t excess = std::max<std::uint64_t>(PORTIONER_HASH_EXCESS, m_raw_surface_block_vec.size());
            GridKeyTable<BlockTally> table;
            int result = table.init(buckets, excess);
            if (result == static_cast<int>(TESSALINE_OUT_OF_MEMORY))
                m_last_error = memoryFailureText((buckets + excess) * sizeof(BlockSlot));
            if (result != 0) return result;
            m_hash_entry_size = table.slotCount();
            m_hash_mask = table.mask();

            for (const RawSurfaceBlockPos& pos : m_raw_surface_block_vec) {
                BlockSlot* entry = table.findOrInsert(pos.x, pos.y, pos.z);
                if (entry == nullptr) return 1;
                entry->value.id = static_cast<std::int32_t>(m_point_cloud_blocks.size());
                auto block = std::make_shared<PointCloudBlock>();
                block->center[0] = static_cast<float>(pos.x) * block_res + half;
                block->center[1] = static_cast<float>(pos.y) * block_res + half;
                block->center[2] = static_cast<float>(pos.z) * block_res + half;
                block->half_size = half;
                // Keyed as the run picks the blocks it computes.
                const bool computed = m_computed_blocks.empty() ||
                                      m_computed_blocks.count(blockKeyOfCentre(block->center, block_res)) != 0;
                entry->value.skipped = computed ? 0 : 1;
                m_point_cloud_blocks.push_back(std::move(block));
            }

            // Frame slots for the batches that can occur: a run of fewer frames than a batch needs fewer.
            const std::size_t frames = m_model_set ? PORTIONER_MAX_FRAME_SIZE : m_waiting_frames.size();
            m_batch_slots =
                static_cast<int>(std::min<std::size_t>(PORTIONER_MAX_FRAME_SIZE, std::max<std::size_t>(frames, 1)));
            result = initPartition_Device();
            if (result != 0) return result;

            reserveBlockPoints(table.slots(), m_hash_entry_size, m_hash_mask, block_res, extRes());
            TESSA_DEVICE_CHECK(deviceMemcpy(m_block_table_dev, table.slots(), m_hash_entry_size * sizeof(BlockSlot),
                                            CopyKind::HostToDevice));
            return 0;
        });
}

// ---- second pass -----------------------------------------------------------------------------------

void Portioner::clearAddingSlots() {
    HostFrameBatch& batch = *m_adding_frames;
    const std::size_t slot_points = m_slot_points;
    for (std::size_t slot = 0; slot < batch.slot_points.size(); ++slot) {
        const std::size_t used = batch.slot_points[slot];
        if (used == 0) continue;
        const std::size_t start = slot * slot_points;
        std::fill(batch.xyz.begin() + 3 * start, batch.xyz.begin() + 3 * (start + used), 0.0f);
        std::fill(batch.nor.begin() + 3 * start, batch.nor.begin() + 3 * (start + used), 0.0f);
        std::fill(batch.w.begin() + start, batch.w.begin() + start + used, 0);
        batch.frame_info[slot] = FrameInfo{};
        batch.slot_points[slot] = 0;
    }
}

int Portioner::waitForBatch() {
    if (!m_task_future.valid()) return 0;
    if (m_task_future.get() != 0) {
        m_task_failed = true;
        return 1;
    }
    return 0;
}

int Portioner::processScanFrameList_Task() { return processScanFrameList_Device(blockRes(), extRes()); }

int Portioner::addScanFrameWithModel(const std::shared_ptr<FrameDataWithInfo>& frame) {
    if (refuseBeforeInit()) return 1;
    if (m_task_failed || !frame || !m_adding_frames) return 1;
    const std::size_t pt_size = frame->xyz.size();
    if (pt_size > m_slot_points || m_adding_frame_size >= m_batch_slots) return 1;

    HostFrameBatch& batch = *m_adding_frames;
    const std::size_t slot = static_cast<std::size_t>(m_adding_frame_size);
    const std::size_t start = slot * m_slot_points;
    if (pt_size > 0) {
        std::memcpy(batch.xyz.data() + 3 * start, frame->xyz.data(), pt_size * 3 * sizeof(float));
        std::memcpy(batch.nor.data() + 3 * start, frame->nor.data(), pt_size * 3 * sizeof(float));
        std::memcpy(batch.w.data() + start, frame->w.data(), pt_size * sizeof(std::int32_t));
    }
    batch.frame_info[slot] = frame->frame_info;
    // A laser id outside 0 to 7 is read as 0, in the batch's copy: the application's frame is left as it is.
    std::int32_t& laser_id = batch.frame_info[slot].laser_id;
    if (laser_id < 0 || laser_id >= 8) laser_id = 0;
    batch.slot_points[slot] = static_cast<std::uint32_t>(pt_size);
    ++m_adding_frame_size;
    if (m_adding_frame_size < PORTIONER_MAX_FRAME_SIZE) return 0;

    // A full batch: hand it to a worker while this thread fills the other buffer.
    if (waitForBatch() != 0) return 1;
    std::swap(m_adding_frames, m_computing_frames);
    clearAddingSlots();
    m_computing_frame_size = m_adding_frame_size;
    m_adding_frame_size = 0;

    std::shared_ptr<ThreadPool> pool = m_thread_pool.lock();
    if (pool) {
        try {
            m_task_future = pool->commit([this] { return processScanFrameList_Task(); });
            ++m_batches_on_worker;
            return 0;
        } catch (const ThreadPoolStopped&) {
            // A stopped pool takes no work: the batch runs here instead.
        }
    }
    if (processScanFrameList_Task() != 0) {
        m_task_failed = true;
        return 1;
    }
    return 0;
}

int Portioner::finishScanFrames() {
    if (refuseBeforeInit()) return 1;
    if (m_task_failed) return 1;
    if (waitForBatch() != 0) return 1;
    std::swap(m_adding_frames, m_computing_frames);
    m_computing_frame_size = m_adding_frame_size;
    m_adding_frame_size = 0;
    const int result = processScanFrameList_Task();
    if (result != 0) return result;
    return deInitPartition_Device();
}

void Portioner::addSeamNeighbourBlocks() {
    // A surface that runs along a block face, on the side of a block of its own, needs the cells of the
    // block across the face too: the dual cubes between the two blocks' cells carry it. That block may
    // hold no point of its own, so every neighbour of an occupied block takes part; those whose margins
    // receive no point are dropped once the points are partitioned.
    std::vector<RawSurfaceBlockPos> with_neighbours;
    with_neighbours.reserve(m_raw_surface_block_vec.size() * 27);
    for (const RawSurfaceBlockPos& pos : m_raw_surface_block_vec)
        for (int dx = -1; dx <= 1; ++dx)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dz = -1; dz <= 1; ++dz) with_neighbours.push_back({pos.x + dx, pos.y + dy, pos.z + dz});
    std::sort(with_neighbours.begin(), with_neighbours.end(), RawSurfaceBlockPos_CMP_LESS());
    with_neighbours.erase(std::unique(with_neighbours.begin(), with_neighbours.end(), RawSurfaceBlockPos_CMP_EQUAL()),
                          with_neighbours.end());
    m_raw_surface_block_vec.swap(with_neighbours);
}

void Portioner::dropEmptyBlocks() {
    m_point_cloud_blocks.erase(std::remove_if(m_point_cloud_blocks.begin(), m_point_cloud_blocks.end(),
                                              [](const std::shared_ptr<PointCloudBlock>& block) {
                                                  return !block || !block->points || block->points->empty();
                                              }),
                               m_point_cloud_blocks.end());
}

void Portioner::sortBlocksBySize() {
    // The list is in position order here; a stable sort keeps that order among blocks of equal size.
    std::stable_sort(m_point_cloud_blocks.begin(), m_point_cloud_blocks.end(),
                     [](const std::shared_ptr<PointCloudBlock>& a, const std::shared_ptr<PointCloudBlock>& b) {
                         return a->points->size() > b->points->size();
                     });
}

int Portioner::processWithoutModel() {
    if (refuseBeforeInit()) return 1;
    if (m_task_failed) return 1;
    if (m_model_set) {
        m_last_error = "[Portioner] processWithoutModel: the blocks already come from a model!";
        return 1;
    }
    // A failure for want of memory keeps the memory status and the text that says what was wanted.
    int result = reOrganizeRawSurfaceBlock_Task();
    if (result == static_cast<int>(TESSALINE_OUT_OF_MEMORY)) return result;
    if (result != 0) {
        m_last_error = "[Portioner] reOrganizeRawSurfaceBlock_Task failed!";
        return 1;
    }
    stopPoint();  // the steps of the second pass are the run's safe points
    result = runGuarded(m_last_error, {1, "[Portioner] addSeamNeighbourBlocks try catch error!"}, [&]() -> int {
        addSeamNeighbourBlocks();
        return 0;
    });
    if (result != 0) return result;
    result = preProcessForAddScanFrame();
    if (result != 0) {
        if (result != static_cast<int>(TESSALINE_OUT_OF_MEMORY))
            m_last_error = "[Portioner] preProcessForAddScanFrame failed!";
        return result;
    }
    stopPoint();
    // Device memory is host memory: the frames need no copy into batches on their way to the blocks.
    // Should the counts not fit the lists (which they always do), the batches take them as they come.
    int direct_result = 1;
    if (m_straight_from_frames && deviceMemoryIsHostMemory() && !m_frame_shares.empty())
        direct_result = runGuarded(m_last_error, {1, "[Portioner] processScanFrameList_Device try catch error!"},
                                   [&]() -> int { return partitionWaitingFramesOnHost(blockRes(), extRes()); });
    if (direct_result == static_cast<int>(TESSALINE_OUT_OF_MEMORY)) return direct_result;
    const bool direct = direct_result == 0;
    m_share_counts.clear();
    m_frame_shares.clear();
    if (direct) {
        m_waiting_frames.clear();  // each was let go as its points went onto the lists
        giveFreedHeapBack();
        result = deInitPartition_Device();
        if (result != 0) return result;
    } else {
        while (!m_waiting_frames.empty()) {
            if (addScanFrameWithModel(m_waiting_frames.front()) != 0) {
                m_last_error = "[Portioner] processWithoutModel -> addScanFrameWithModel failed!";
                return 1;
            }
            m_waiting_frames.pop_front();  // the frame's memory can go once nobody else holds it
        }
        result = finishScanFrames();
        if (result != 0) return result;
        giveFreedHeapBack();
    }
    if (m_point_cloud_blocks.empty()) return 1;
    dropEmptyBlocks();  // possibly all of them: points that the partition skips leave a run without blocks
    sortBlocksBySize();
    return 0;
}

// ---- the model path --------------------------------------------------------------------------------

int Portioner::setSimplifiedModel(const std::vector<Vec3f>& model) {
    if (refuseBeforeInit()) return 1;
    if (m_model_set || !m_raw_surface_block_vec.empty() || m_raw_surface_point_size > 0 || !m_waiting_frames.empty()) {
        m_last_error = "[Portioner] setSimplifiedModel: the run has already begun!";
        return 1;
    }
    int result = computeModelBlockHash_Device(model, blockRes(), m_raw_surface_block_vec);
    if (result != 0) return result;
    result = deInitRawSurface_Device();  // the first pass falls away
    if (result != 0) return result;
    m_model_set = true;
    result = preProcessForAddScanFrame();
    if (result != 0) {
        m_last_error = "[Portioner] preProcessForAddScanFrame failed!";
        return result;
    }
    return 0;
}

int Portioner::processWithModel() {
    if (refuseBeforeInit()) return 1;
    if (!m_model_set) {
        m_last_error = "[Portioner] processWithModel: no model was set!";
        return 1;
    }
    const int result = finishScanFrames();
    if (result != 0) return result;
    if (m_point_cloud_blocks.empty()) return 1;
    sortBlocksBySize();
    return 0;
}

// ---- the block list --------------------------------------------------------------------------------

int Portioner::getMaxBlockPointsSize() {
    if (refuseBeforeInit()) return 1;
    if (m_point_cloud_blocks.empty() || !m_point_cloud_blocks.front()) return 0;
    return static_cast<int>(m_point_cloud_blocks.front()->points->size());
}

int Portioner::getPointCloudBlockCount() {
    if (refuseBeforeInit()) return 1;
    return static_cast<int>(m_point_cloud_blocks.size());
}

int Portioner::takePointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index) {
    const int result = getPointCloudBlock(block, index);
    if (result == 0) m_point_cloud_blocks[static_cast<std::size_t>(index)].reset();
    return result;
}

int Portioner::getPointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index) {
    if (refuseBeforeInit()) return 1;
    if (static_cast<std::uint64_t>(static_cast<std::int64_t>(index)) >= m_point_cloud_blocks.size()) {
        m_last_error = "no cur block id!";
        return 1;
    }
    block = m_point_cloud_blocks[static_cast<std::size_t>(index)];
    return 0;
}

}  // namespace SurfaceReconstruction
