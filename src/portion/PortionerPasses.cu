// The device steps of the Portioner's two passes: their buffers, the block computation of the first pass
// and the partition of a batch. Compiled by nvcc for the CUDA backend and as C++ for the host backend; the
// partition on the host's cores, where device memory is host memory, is in PortionerPassesHost.cpp.
#include <thrust/execution_policy.h>
#include <thrust/scan.h>
#include <thrust/sort.h>
#include <thrust/system_error.h>
#include <thrust/unique.h>

#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/PointSort.h"
#include "fusion/PointRuns.h"
#include "portion/PortionerPasses.h"

namespace SurfaceReconstruction {

namespace {

// Grid index of every point of the raw surface buffer; every point makes a position.
struct ComputeRawSurfaceBlockHashKernel {
    const float* xyz;
    std::int64_t n;
    float block_res;
    RawSurfaceBlockPos* out;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= n) return;
        out[i].x = gridIndex(xyz[3 * i], block_res);
        out[i].y = gridIndex(xyz[3 * i + 1], block_res);
        out[i].z = gridIndex(xyz[3 * i + 2], block_res);
    }
};

// The number of records of each point.
struct CountPartitionRecordsKernel {
    PartitionPoint partition;
    std::int64_t* counts;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= partition.n) return;
        std::int64_t count = 0;
        partition.forEachRecord(
            i, [&count](std::int32_t) { ++count; }, true);
        counts[i] = count;
    }
};

// The records of each point from its offset on, each tagged with its block's table entry; the entry
// counts them and gathers the OR of their words.
struct ProcessScanFrameListKernel {
    PartitionPoint partition;
    const std::int64_t* offsets;
    BlockSlot* hash_entries;
    RawPointWithHash* raw_points;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= partition.n) return;
        const RawPointWithHash point = partition.recordPoint(i);
        std::int64_t slot = offsets[i];
        partition.forEachRecord(i, [&](std::int32_t e) {
            deviceAtomicAdd(&hash_entries[e].value.count, 1);
            deviceAtomicOr(&hash_entries[e].value.flags, point.w);
            raw_points[slot] = point;
            raw_points[slot].hash = e;
            ++slot;
        });
    }
};

// One change for the first point of each block's run; the entry's count goes back to 0.
struct DetectBlockChangesKernel {
    const RawPointWithHash* raw_points;
    const int* raw_points_size;
    BlockSlot* hash_entries;
    BlockChangesData* changes;
    int* changes_size;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= *raw_points_size) return;
        if (i != 0 && raw_points[i - 1].hash == raw_points[i].hash) return;
        const int slot = deviceAtomicAdd(changes_size, 1);
        BlockTally& entry = hash_entries[raw_points[i].hash].value;
        changes[slot].block_id = entry.id;
        changes[slot].flags = entry.flags;
        changes[slot].points_num = entry.count;
        changes[slot].offset = static_cast<std::int32_t>(i);
        entry.count = 0;
    }
};

// Sorts a block position list on the device and removes repeats; returns the new length.
std::int64_t sortUniqueBlockPositions(RawSurfaceBlockPos* positions, std::int64_t n) {
    if (n <= 0) return 0;
    const DeviceScope scope;
    // Points that follow one another in a frame mostly lie in one block: repeats side by side go first,
    // and only the few positions left are sorted.
    RawSurfaceBlockPos* end = thrust::unique(thrust::device, positions, positions + n, RawSurfaceBlockPos_CMP_EQUAL());
    thrust::sort(thrust::device, positions, end, RawSurfaceBlockPos_CMP_LESS());
    end = thrust::unique(thrust::device, positions, end, RawSurfaceBlockPos_CMP_EQUAL());
    return end - positions;
}

// The failure handling that the block computations share: device failures and Thrust errors become
// 65797, anything else 1; what was already appended to the block list stays.
template <class Step>
int runBlockComputation(std::string& last_error, Step step) {
    return runGuarded(last_error, {TESSALINE_DEVICE_COMPUTE, "[] computeModelBlockHash_Device try catch device error!"},
                      {1, nullptr}, [&]() -> int {
                          try {
                              step();
                              return 0;
                          } catch (const thrust::system::system_error& e) {
                              diagnostic("[Portioner] thruest error: %s !", e.what());
                              return static_cast<int>(TESSALINE_DEVICE_COMPUTE);
                          }
                      });
}

}  // namespace

// ---- buffers ---------------------------------------------------------------------------------------

int Portioner::initRawSurface_Device(std::uint64_t capacity) {
    return runGuarded(m_last_error, {TESSALINE_DEVICE_COMPUTE, nullptr}, {1, nullptr}, [&]() -> int {
        TESSA_DEVICE_RELEASE(m_raw_surface_xyz_dev);
        TESSA_DEVICE_RELEASE(m_raw_surface_block_dev);
        m_raw_surface_capacity = 0;
        TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_surface_xyz_dev, capacity * 3 * sizeof(float)));
        TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_surface_block_dev, capacity * sizeof(RawSurfaceBlockPos)));
        m_raw_surface_capacity = capacity;
        return 0;
    });
}

int Portioner::deInitRawSurface_Device() {
    return runGuarded(m_last_error, {TESSALINE_DEVICE_COMPUTE, nullptr}, {1, nullptr}, [&]() -> int {
        TESSA_DEVICE_RELEASE(m_raw_surface_xyz_dev);
        TESSA_DEVICE_RELEASE(m_raw_surface_block_dev);
        m_raw_surface_capacity = 0;
        return 0;
    });
}

int Portioner::initPartition_Device() {
    const int host_result = runGuarded(
        m_last_error, {TESSALINE_OUT_OF_MEMORY, "[Portioner] setRawSurfacePoints try catch error!"}, [&]() -> int {
            m_adding_frame_size = 0;
            m_computing_frame_size = 0;
            m_slot_points = maxFramePoints();
            const std::size_t slot_points = m_slot_points;
            const std::size_t slots = static_cast<std::size_t>(m_batch_slots);
            for (std::shared_ptr<HostFrameBatch>* buffer : {&m_adding_frames, &m_computing_frames}) {
                auto batch = std::make_shared<HostFrameBatch>();
                batch->xyz.assignZeroed(slots * slot_points * 3);
                batch->nor.assignZeroed(slots * slot_points * 3);
                batch->w.assignZeroed(slots * slot_points);
                batch->frame_info.assign(slots, FrameInfo{});
                batch->slot_points.assign(slots, 0);
                *buffer = std::move(batch);
            }
            return 0;
        });
    if (host_result != 0) return host_result;
    return runGuarded(
        m_last_error, {TESSALINE_PARTITION_DEVICE, "[Portioner] setRawSurfacePoints try catch device error!"},
        {TESSALINE_OUT_OF_MEMORY, "[Portioner] setRawSurfacePoints try catch error!"}, [&]() -> int {
            const std::size_t batch_points = static_cast<std::size_t>(m_batch_slots) * m_slot_points;
            TESSA_DEVICE_CHECK(deviceMalloc(&m_block_table_dev, m_hash_entry_size * sizeof(BlockSlot)));
            // Where device memory is host memory the kernels read the host batch itself.
            if (!deviceMemoryIsHostMemory()) {
                TESSA_DEVICE_CHECK(deviceMalloc(&m_computing_frames_dev.xyz, batch_points * 3 * sizeof(float)));
                TESSA_DEVICE_CHECK(deviceMalloc(&m_computing_frames_dev.nor, batch_points * 3 * sizeof(float)));
                TESSA_DEVICE_CHECK(deviceMalloc(&m_computing_frames_dev.w, batch_points * sizeof(int)));
                TESSA_DEVICE_CHECK(deviceMalloc(&m_computing_frames_dev.frame_info,
                                                static_cast<std::size_t>(m_batch_slots) * sizeof(FrameInfo)));
            }
            // Four records a slot point cover a batch unless most points sit in margins; a batch that needs
            // more grows the buffer and runs again.
            std::uint64_t raw_points = m_raw_points_capacity_request != 0
                                           ? m_raw_points_capacity_request
                                           : static_cast<std::uint64_t>(batch_points) * 4;
            if (raw_points == 0) raw_points = 1;
            TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_points_hash_dev, raw_points * sizeof(RawPointWithHash)));
            m_raw_points_capacity = raw_points;
            TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_points_hash_size_dev, sizeof(int)));
            TESSA_DEVICE_CHECK(
                deviceMalloc(&m_block_changes_data_dev, PORTIONER_MAX_BLOCK_CHANGES * sizeof(BlockChangesData)));
            m_block_changes_capacity = PORTIONER_MAX_BLOCK_CHANGES;
            TESSA_DEVICE_CHECK(deviceMalloc(&m_block_changes_size_dev, sizeof(int)));
            TESSA_DEVICE_UPLOAD(m_device_params_dev, *m_device_params);
            return 0;
        });
}

int Portioner::deInitPartition_Device() {
    return runGuarded(m_last_error, {TESSALINE_PARTITION_DEVICE, "[Portioner] process try catch device error!"},
                      {1, "[Portioner] process try catch error!"}, [&]() -> int {
                          m_adding_frames.reset();
                          m_computing_frames.reset();
                          std::vector<std::vector<RawPointWithHash>>().swap(m_thread_records);
                          TESSA_DEVICE_RELEASE(m_block_table_dev);
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.xyz);
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.nor);
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.w);
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.frame_info);
                          TESSA_DEVICE_RELEASE(m_raw_points_hash_dev);
                          m_raw_points_capacity = 0;
                          TESSA_DEVICE_RELEASE(m_raw_points_hash_size_dev);
                          TESSA_DEVICE_RELEASE(m_block_changes_data_dev);
                          m_block_changes_capacity = 0;
                          TESSA_DEVICE_RELEASE(m_block_changes_size_dev);
                          TESSA_DEVICE_RELEASE(m_device_params_dev);
                          return 0;
                      });
}

int Portioner::growPartitionOutput_Device(std::uint64_t raw_points, std::uint64_t changes) {
    if (raw_points > m_raw_points_capacity) {
        TESSA_DEVICE_RELEASE(m_raw_points_hash_dev);
        m_raw_points_capacity = 0;
        TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_points_hash_dev, raw_points * sizeof(RawPointWithHash)));
        m_raw_points_capacity = raw_points;
    }
    if (changes > m_block_changes_capacity) {
        TESSA_DEVICE_RELEASE(m_block_changes_data_dev);
        m_block_changes_capacity = 0;
        TESSA_DEVICE_CHECK(deviceMalloc(&m_block_changes_data_dev, changes * sizeof(BlockChangesData)));
        m_block_changes_capacity = changes;
    }
    return 0;
}

// ---- first pass: block positions -------------------------------------------------------------------

int Portioner::computeRawSurfaceBlock_Device(float block_res) {
    return runBlockComputation(m_last_error, [&] {
        const std::int64_t n = m_raw_surface_point_size;
        launchKernel(static_cast<std::size_t>(n),
                     ComputeRawSurfaceBlockHashKernel{m_raw_surface_xyz_dev, n, block_res, m_raw_surface_block_dev});
        TESSA_DEVICE_CHECK(deviceSynchronize());
        const std::int64_t unique_hash_size = sortUniqueBlockPositions(m_raw_surface_block_dev, n);
        const std::size_t ori_size = m_raw_surface_block_vec.size();
        m_raw_surface_block_vec.resize(ori_size + static_cast<std::size_t>(unique_hash_size));
        TESSA_DEVICE_CHECK(deviceMemcpy(m_raw_surface_block_vec.data() + ori_size, m_raw_surface_block_dev,
                                        static_cast<std::size_t>(unique_hash_size) * sizeof(RawSurfaceBlockPos),
                                        CopyKind::DeviceToHost));
        ++m_block_computations;
    });
}

int Portioner::reOrganizeRawSurfaceBlock_Device() {
    const std::size_t total_block_size = m_raw_surface_block_vec.size();
    if (total_block_size > m_raw_surface_capacity) {
        m_last_error = "[Portioner] reOrganizeRawSurfaceBlock_Device: block list longer than its device buffer!";
        return 1;
    }
    return runBlockComputation(m_last_error, [&] {
        TESSA_DEVICE_CHECK(deviceMemcpy(m_raw_surface_block_dev, m_raw_surface_block_vec.data(),
                                        total_block_size * sizeof(RawSurfaceBlockPos), CopyKind::HostToDevice));
        const std::int64_t unique_hash_size =
            sortUniqueBlockPositions(m_raw_surface_block_dev, static_cast<std::int64_t>(total_block_size));
        m_raw_surface_block_vec.resize(static_cast<std::size_t>(unique_hash_size));
        TESSA_DEVICE_CHECK(deviceMemcpy(m_raw_surface_block_vec.data(), m_raw_surface_block_dev,
                                        static_cast<std::size_t>(unique_hash_size) * sizeof(RawSurfaceBlockPos),
                                        CopyKind::DeviceToHost));
    });
}

int Portioner::computeModelBlockHash_Device(const std::vector<Vec3f>& model_xyz, float block_res,
                                            std::vector<RawSurfaceBlockPos>& out) {
    return runBlockComputation(m_last_error, [&] {
        const std::int64_t points_size = static_cast<std::int64_t>(model_xyz.size());
        const std::size_t n = static_cast<std::size_t>(points_size);
        ScopedDeviceBuffer<RawSurfaceBlockPos> raw_surface_block_dev;
        ScopedDeviceBuffer<float> points_data_xyz_dev;
        TESSA_DEVICE_CHECK(deviceMalloc(&raw_surface_block_dev.ptr(), n * sizeof(RawSurfaceBlockPos)));
        TESSA_DEVICE_CHECK(deviceMalloc(&points_data_xyz_dev.ptr(), n * 3 * sizeof(float)));
        TESSA_DEVICE_CHECK(
            deviceMemcpy(points_data_xyz_dev.ptr(), model_xyz.data(), n * 3 * sizeof(float), CopyKind::HostToDevice));
        launchKernel(n, ComputeRawSurfaceBlockHashKernel{points_data_xyz_dev.ptr(), points_size, block_res,
                                                         raw_surface_block_dev.ptr()});
        TESSA_DEVICE_CHECK(deviceSynchronize());
        const std::int64_t unique_hash_size = sortUniqueBlockPositions(raw_surface_block_dev.ptr(), points_size);
        out.resize(static_cast<std::size_t>(unique_hash_size));
        TESSA_DEVICE_CHECK(deviceMemcpy(out.data(), raw_surface_block_dev.ptr(),
                                        static_cast<std::size_t>(unique_hash_size) * sizeof(RawSurfaceBlockPos),
                                        CopyKind::DeviceToHost));
        TESSA_DEVICE_RELEASE(points_data_xyz_dev.ptr());
        TESSA_DEVICE_RELEASE(raw_surface_block_dev.ptr());
    });
}

// ---- second pass: partition of a batch -------------------------------------------------------------

int Portioner::processScanFrameList_Device(float block_res, float ext_res) {
    return runGuarded(
        m_last_error, {1, "[Portioner] processScanFrameList_Device try catch device error!"},
        {1, "[Portioner] processScanFrameList_Device try catch error!"}, [&]() -> int {
            const std::int64_t max_point_size = static_cast<std::int64_t>(m_slot_points) * m_computing_frame_size;
            const std::size_t points = static_cast<std::size_t>(max_point_size);
            const HostFrameBatch& batch = *m_computing_frames;
            RawPointCloudBuff frames_dev{const_cast<float*>(batch.xyz.data()), const_cast<float*>(batch.nor.data()),
                                         const_cast<std::int32_t*>(batch.w.data()),
                                         const_cast<FrameInfo*>(batch.frame_info.data())};
            if (!deviceMemoryIsHostMemory()) {
                TESSA_DEVICE_CHECK(deviceMemcpy(m_computing_frames_dev.xyz, batch.xyz.data(),
                                                points * sizeof(float) * 3, CopyKind::HostToDevice));
                TESSA_DEVICE_CHECK(deviceMemcpy(m_computing_frames_dev.nor, batch.nor.data(),
                                                points * sizeof(float) * 3, CopyKind::HostToDevice));
                TESSA_DEVICE_CHECK(deviceMemcpy(m_computing_frames_dev.w, batch.w.data(), points * sizeof(int),
                                                CopyKind::HostToDevice));
                TESSA_DEVICE_CHECK(deviceMemcpy(m_computing_frames_dev.frame_info, batch.frame_info.data(),
                                                static_cast<std::size_t>(m_computing_frame_size) * sizeof(FrameInfo),
                                                CopyKind::HostToDevice));
                frames_dev = m_computing_frames_dev;
            }

            const float half_ext = block_res * 0.5f + ext_res;
            const PartitionPoint partition{frames_dev.xyz,      frames_dev.nor, frames_dev.w, frames_dev.frame_info,
                                           m_device_params_dev, max_point_size, block_res,    half_ext,
                                           m_block_table_dev,   m_hash_mask};
#if !defined(TESSA_KERNEL_LAUNCH_CUDA)
            if (deviceMemoryIsHostMemory()) {
                partitionBatchOnHost(partition, m_block_table_dev, static_cast<std::int64_t>(m_hash_entry_size),
                                     m_point_cloud_blocks, m_thread_records);
                return 0;
            }
#endif
            // Count the records first: the output buffer is made big enough before anything is written.
            ScopedDeviceBuffer<std::int64_t> offsets_dev;
            TESSA_DEVICE_CHECK(deviceMalloc(&offsets_dev.ptr(), (points + 1) * sizeof(std::int64_t)));
            TESSA_DEVICE_CHECK(deviceMemset(offsets_dev.ptr() + points, 0, sizeof(std::int64_t)));
            launchKernel(points, CountPartitionRecordsKernel{partition, offsets_dev.ptr()});
            {
                const DeviceScope scope;
                thrust::exclusive_scan(thrust::device, offsets_dev.ptr(), offsets_dev.ptr() + points + 1,
                                       offsets_dev.ptr());
            }
            std::int64_t records = 0;
            TESSA_DEVICE_CHECK(
                deviceMemcpy(&records, offsets_dev.ptr() + points, sizeof(std::int64_t), CopyKind::DeviceToHost));
            if (records > INT32_MAX) throw std::runtime_error("a batch of more records than an int holds");
            if (static_cast<std::uint64_t>(records) > m_raw_points_capacity) {
                growPartitionOutput_Device(static_cast<std::uint64_t>(records), 0);
                ++m_partition_growths;
            }
            const int raw_points_hash_size = static_cast<int>(records);
            launchKernel(points, ProcessScanFrameListKernel{partition, offsets_dev.ptr(), m_block_table_dev,
                                                            m_raw_points_hash_dev});
            TESSA_DEVICE_RELEASE(offsets_dev.ptr());
            TESSA_DEVICE_CHECK(
                deviceMemcpy(m_raw_points_hash_size_dev, &raw_points_hash_size, sizeof(int), CopyKind::HostToDevice));
            TESSA_DEVICE_CHECK(deviceMemset(m_block_changes_size_dev, 0, sizeof(int)));
            // Grouped by block, each block's records in point order.
            sortPointsByHashStable(m_raw_points_hash_dev, raw_points_hash_size);

            launchKernel(static_cast<std::size_t>(raw_points_hash_size),
                         CountHashRunsKernel{m_raw_points_hash_dev, raw_points_hash_size, m_block_changes_size_dev});
            int changes_size = 0;
            TESSA_DEVICE_CHECK(
                deviceMemcpy(&changes_size, m_block_changes_size_dev, sizeof(int), CopyKind::DeviceToHost));
            growPartitionOutput_Device(0, static_cast<std::uint64_t>(changes_size));
            TESSA_DEVICE_CHECK(deviceMemset(m_block_changes_size_dev, 0, sizeof(int)));

            launchKernel(static_cast<std::size_t>(raw_points_hash_size),
                         DetectBlockChangesKernel{m_raw_points_hash_dev, m_raw_points_hash_size_dev, m_block_table_dev,
                                                  m_block_changes_data_dev, m_block_changes_size_dev});
            TESSA_DEVICE_CHECK(
                deviceMemcpy(&changes_size, m_block_changes_size_dev, sizeof(int), CopyKind::DeviceToHost));
            std::vector<BlockChangesData> changes_data(static_cast<std::size_t>(changes_size));
            TESSA_DEVICE_CHECK(deviceMemcpy(changes_data.data(), m_block_changes_data_dev,
                                            changes_data.size() * sizeof(BlockChangesData), CopyKind::DeviceToHost));

            for (const BlockChangesData& change : changes_data) {
                PointCloudBlock& block = *m_point_cloud_blocks[static_cast<std::size_t>(change.block_id)];
                block.flags |= change.flags;
                PointList& list = *block.points;
                const std::size_t ori_size = list.size();
                list.resize(ori_size + static_cast<std::size_t>(change.points_num));
                TESSA_DEVICE_CHECK(deviceMemcpy(list.data() + ori_size, m_raw_points_hash_dev + change.offset,
                                                static_cast<std::size_t>(change.points_num) * sizeof(RawPointWithHash),
                                                CopyKind::DeviceToHost));
            }
            return 0;
        });
}

}  // namespace SurfaceReconstruction
