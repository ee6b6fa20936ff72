// Device part of the Portioner: the buffers of both passes, the block computation of the first pass and
// the partition of a batch. Compiled by nvcc for the CUDA backend and as C++ for the host backend.
#include <omp.h>
#include <thrust/execution_policy.h>
#include <thrust/scan.h>
#include <thrust/sort.h>
#include <thrust/system_error.h>
#include <thrust/unique.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <deque>
#include <new>
#include <stdexcept>

#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/HostMemory.h"
#include "common/PointSort.h"
#include "common/RunStop.h"
#include "fusion/PointRuns.h"
#include "portion/Portioner.h"

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

// The records of one point of a batch: one for its own block and one for each neighbour whose margin
// holds it, in that order. Counted first, then written where the counts put them, so that a batch's
// records come out in point order whatever the threads do.
struct PartitionPoint {
    const float* xyz;
    const float* nor;
    const std::int32_t* w;
    const FrameInfo* frame_info;
    const DeviceParameters* device_params;
    std::int64_t n;
    float block_res;
    float half_ext;
    const SimpleLineHashEntry* hash_entries;
    std::uint64_t hash_mask;

    // The record of a point, its entry still to be set.
    TESSA_HD static RawPointWithHash record(const float position[3], const float normal[3], std::int32_t word,
                                            std::uint8_t laser) {
        RawPointWithHash point;
        point.x = position[0];
        point.y = position[1];
        point.z = position[2];
        point.nx = normal[0];
        point.ny = normal[1];
        point.nz = normal[2];
        point.w = word;
        point.hash = -1;
        point.laser = laser;
        point.padding = 0;
        point.reserved_a = 0;
        point.reserved_b = 0;
        return point;
    }

    // The record of point i of the batch.
    TESSA_HD RawPointWithHash recordPoint(std::size_t i) const {
        const std::uint64_t frame = static_cast<std::uint64_t>(i) / device_params->MAX_FRAME_POINTS;
        return record(xyz + 3 * i, nor + 3 * i, w[i], static_cast<std::uint8_t>(frame_info[frame].laser_id & 0xFF));
    }

    // Calls record(entry) for each record of point i; false for a point that makes none. `report` prints
    // a point whose own block is missing from the table (which the first pass rules out).
    template <class Record>
    TESSA_HD bool forEachRecord(std::size_t i, Record&& record, bool report = false) const {
        const float x = xyz[3 * i], y = xyz[3 * i + 1], z = xyz[3 * i + 2];
        if (isNullPoint(x, y, z)) return false;  // an empty part of a frame slot, or a null return
        const std::uint32_t mask = static_cast<std::uint32_t>(hash_mask);
        const std::int32_t bx = gridIndex(x, block_res), by = gridIndex(y, block_res), bz = gridIndex(z, block_res);
        const std::int32_t own = findLineHashEntry(hash_entries, mask, bx, by, bz);
        if (own < 0) {
            if (report)
                TESSA_KERNEL_REPORT(
                    "processScanFrameListKernel: cur_hash_entry == nullptr, xyz(%f, %f, %f) cur_pos(%d, %d, %d) "
                    "block_res(%f) hash_mask(%d)\n",
                    x, y, z, bx, by, bz, block_res, static_cast<int>(hash_mask));
            return false;
        }
        record(own);
        // The margin first: most points lie far from every face and need no table lookup. A neighbour's
        // margin holds the point when each axis does, so the three tests of each axis are made once.
        const float half_block = block_res * 0.5f;
        const float position[3] = {x, y, z};
        const std::int32_t cell[3] = {bx, by, bz};
        bool within[3][3];  // within[axis][d + 1]: the point lies in the margin of the neighbour at d
        bool any_side = false;
        for (int axis = 0; axis < 3; ++axis) {
            for (int d = -1; d <= 1; ++d) {
                const float centre = fmaf(static_cast<float>(cell[axis] + d), block_res, half_block);
                within[axis][d + 1] = !(fabsf(position[axis] - centre) > half_ext);
            }
            any_side = any_side || within[axis][0] || within[axis][2];
        }
        if (!any_side) return true;
        for (int dx = -1; dx <= 1; ++dx) {
            if (!within[0][dx + 1]) continue;
            for (int dy = -1; dy <= 1; ++dy) {
                if (!within[1][dy + 1]) continue;
                for (int dz = -1; dz <= 1; ++dz) {
                    if (!within[2][dz + 1] || (dx == 0 && dy == 0 && dz == 0)) continue;
                    const std::int32_t e = findLineHashEntry(hash_entries, mask, bx + dx, by + dy, bz + dz);
                    if (e < 0) continue;  // no block behind this side
                    record(e);
                }
            }
        }
        return true;
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
    SimpleLineHashEntry* hash_entries;
    RawPointWithHash* raw_points;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= partition.n) return;
        const RawPointWithHash point = partition.recordPoint(i);
        std::int64_t slot = offsets[i];
        partition.forEachRecord(i, [&](std::int32_t e) {
            deviceAtomicAdd(&hash_entries[e].count, 1);
            deviceAtomicOr(&hash_entries[e].flags, point.w);
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
    SimpleLineHashEntry* hash_entries;
    BlockChangesData* changes;
    int* changes_size;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= *raw_points_size) return;
        if (i != 0 && raw_points[i - 1].hash == raw_points[i].hash) return;
        const int slot = deviceAtomicAdd(changes_size, 1);
        SimpleLineHashEntry& entry = hash_entries[raw_points[i].hash];
        changes[slot].block_id = entry.id;
        changes[slot].flags = entry.flags;
        changes[slot].points_num = entry.count;
        changes[slot].offset = static_cast<std::int32_t>(i);
        entry.count = 0;
    }
};

#if !defined(TESSA_KERNEL_LAUNCH_CUDA)
// Where device memory is host memory a batch goes onto the ends of its blocks' lists in one pass over its
// points, each block's records in point order: the order that the counts, records, stable sort by block
// and runs give elsewhere. Each thread makes the records of its share of the points into its own list
// (kept for the next batch) and counts them by table entry; the shares' places in each block's list
// follow from those counts, and every thread then writes its records into place.
void partitionBatchOnHost(const PartitionPoint& partition, SimpleLineHashEntry* entries, std::int64_t entry_count,
                          std::vector<std::shared_ptr<PointCloudBlock>>& blocks,
                          std::vector<std::vector<RawPointWithHash>>& thread_records) {
    const std::int64_t n = partition.n;
    const int team = std::max(1, omp_get_max_threads());
    if (thread_records.size() < static_cast<std::size_t>(team)) thread_records.resize(static_cast<std::size_t>(team));
    const std::size_t table = static_cast<std::size_t>(entry_count);
    std::vector<std::int64_t> places(static_cast<std::size_t>(team) * table, 0);
    std::vector<std::int32_t> words(static_cast<std::size_t>(team) * table, 0);  // OR of the records' words
    std::vector<RawPointWithHash*> lists(table, nullptr);
    bool failed = false;
#pragma omp parallel num_threads(team)
    {
        const int t = omp_get_thread_num(), threads = omp_get_num_threads();
        std::vector<RawPointWithHash>& records = thread_records[static_cast<std::size_t>(t)];
        std::int64_t* mine = places.data() + static_cast<std::size_t>(t) * table;
        std::int32_t* my_words = words.data() + static_cast<std::size_t>(t) * table;
        records.clear();
        try {
            for (std::int64_t i = n * t / threads; i < n * (t + 1) / threads; ++i) {
                RawPointWithHash point = partition.recordPoint(static_cast<std::size_t>(i));
                partition.forEachRecord(
                    static_cast<std::size_t>(i),
                    [&](std::int32_t e) {
                        point.hash = e;
                        records.push_back(point);
                        ++mine[e];
                        my_words[e] |= point.w;
                    },
                    true);
            }
        } catch (...) {
#pragma omp atomic write
            failed = true;
        }
#pragma omp barrier
#pragma omp for schedule(dynamic, 1024)
        for (std::int64_t e = 0; e < entry_count; ++e) {
            // The entry's shares, thread by thread, after what its block's list already holds.
            std::int64_t total = 0;
            std::int32_t word = 0;
            for (int u = 0; u < threads; ++u) {
                total += places[static_cast<std::size_t>(u) * table + static_cast<std::size_t>(e)];
                word |= words[static_cast<std::size_t>(u) * table + static_cast<std::size_t>(e)];
            }
            if (total == 0) continue;
            SimpleLineHashEntry& entry = entries[e];
            entry.flags |= word;
            PointCloudBlock& block = *blocks[static_cast<std::size_t>(entry.id)];
            PointList& list = *block.points;
            std::int64_t at = static_cast<std::int64_t>(list.size());
            try {
                list.resize(list.size() + static_cast<std::size_t>(total));
            } catch (...) {
#pragma omp atomic write
                failed = true;
                continue;
            }
            block.flags |= entry.flags;
            lists[static_cast<std::size_t>(e)] = list.data();
            for (int u = 0; u < threads; ++u) {
                std::int64_t& share = places[static_cast<std::size_t>(u) * table + static_cast<std::size_t>(e)];
                const std::int64_t here = share;
                share = at;
                at += here;
            }
        }
        if (!failed) {
            for (const RawPointWithHash& record : records)
                lists[static_cast<std::size_t>(record.hash)][mine[record.hash]++] = record;
        }
    }
    if (failed) throw std::bad_alloc();
}
#endif

// The frames still to be partitioned in shares of about equal points, each a run of consecutive frames:
// share s holds frames [first[s], first[s + 1]).
std::vector<std::size_t> frameShares(const std::deque<std::shared_ptr<FrameDataWithInfo>>& frames, int shares) {
    std::uint64_t total = 0;
    for (const auto& frame : frames) total += frame->xyz.size();
    std::vector<std::size_t> first(static_cast<std::size_t>(shares) + 1, frames.size());
    first[0] = 0;
    std::uint64_t seen = 0;
    int s = 1;
    for (std::size_t f = 0; f < frames.size() && s < shares; ++f) {
        seen += frames[f]->xyz.size();
        while (s < shares && seen * static_cast<std::uint64_t>(shares) >= total * static_cast<std::uint64_t>(s))
            first[static_cast<std::size_t>(s++)] = f + 1;
    }
    return first;
}

// The partition of one frame as the batches run it: its positions, nothing else read.
PartitionPoint framePartition(const FrameDataWithInfo& frame, const SimpleLineHashEntry* entries, std::uint64_t mask,
                              float block_res, float half_ext) {
    return PartitionPoint{reinterpret_cast<const float*>(frame.xyz.data()), nullptr,   nullptr,  nullptr, nullptr,
                          static_cast<std::int64_t>(frame.xyz.size()),      block_res, half_ext, entries, mask};
}

// The records each table entry will receive from each share of the frames still to be partitioned,
// counted on the host's cores with the partition's own rule: counts[s * entry_count + e].
void countBlockRecords(const std::deque<std::shared_ptr<FrameDataWithInfo>>& frames,
                       const std::vector<std::size_t>& shares, const SimpleLineHashEntry* entries,
                       std::uint64_t entry_count, std::uint64_t mask, float block_res, float half_ext,
                       std::vector<std::int64_t>& counts) {
    const std::size_t table = static_cast<std::size_t>(entry_count);
    const std::int64_t share_count = static_cast<std::int64_t>(shares.size()) - 1;
    counts.assign(static_cast<std::size_t>(share_count) * table, 0);
    const std::atomic<bool>* stop = runStopFlag();
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t s = 0; s < share_count; ++s) {
        std::int64_t* mine = counts.data() + static_cast<std::size_t>(s) * table;
        for (std::size_t f = shares[static_cast<std::size_t>(s)];
             f < shares[static_cast<std::size_t>(s) + 1] && !stopAsked(stop); ++f) {
            const FrameDataWithInfo& frame = *frames[f];
            const PartitionPoint partition = framePartition(frame, entries, mask, block_res, half_ext);
            for (std::size_t i = 0; i < frame.xyz.size(); ++i)
                partition.forEachRecord(i, [mine](std::int32_t e) { ++mine[e]; });
        }
    }
    stopPoint();  // the counts of a stopped run are incomplete: it ends here
}

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

// ---- block lists -----------------------------------------------------------------------------------

void Portioner::reserveBlockPoints(const SimpleLineHashEntry* entries, std::uint64_t entry_count, std::uint64_t mask,
                                   float block_res, float ext_res) {
    m_share_counts.clear();
    m_frame_shares.clear();
    if (m_waiting_frames.empty()) return;
    try {
        m_frame_shares = frameShares(m_waiting_frames, std::max(1, omp_get_max_threads()));
        countBlockRecords(m_waiting_frames, m_frame_shares, entries, entry_count, mask, block_res,
                          block_res * 0.5f + ext_res, m_share_counts);
        const std::size_t table = static_cast<std::size_t>(entry_count);
        for (std::size_t e = 0; e < table; ++e) {
            std::int64_t total = 0;
            for (std::size_t s = 0; s + 1 < m_frame_shares.size(); ++s) total += m_share_counts[s * table + e];
            if (total == 0 || entries[e].id < 0) continue;
            const std::size_t block = static_cast<std::size_t>(entries[e].id);
            if (block < m_point_cloud_blocks.size())
                m_point_cloud_blocks[block]->points->reserve(static_cast<std::size_t>(total));
        }
    } catch (const std::bad_alloc&) {
        // Without the room made ahead the lists grow as the batches come: slower, nothing lost.
        m_share_counts.clear();
        m_frame_shares.clear();
    }
}

int Portioner::partitionWaitingFramesOnHost(float block_res, float ext_res) {
    const SimpleLineHashEntry* entries = m_simple_line_hash_dev;
    const std::size_t table = static_cast<std::size_t>(m_hash_entry_size);
    const std::size_t share_count = m_frame_shares.size() - 1;
    const float half_ext = block_res * 0.5f + ext_res;
    // Each share's records of an entry go after those of the shares before it: the lists hold their
    // records in frame and point order, as batch after batch puts them.
    std::vector<PointList*> lists(table, nullptr);
    std::vector<std::int64_t> places(m_share_counts.size()), totals(table, 0);
    for (std::size_t e = 0; e < table; ++e) {
        std::int64_t& total = totals[e];
        for (std::size_t s = 0; s < share_count; ++s) {
            places[s * table + e] = total;
            total += m_share_counts[s * table + e];
        }
        if (total == 0) continue;
        const std::int32_t id = entries[e].id;
        if (id < 0 || static_cast<std::size_t>(id) >= m_point_cloud_blocks.size()) return 1;  // counted, but no block
        PointList& list = *m_point_cloud_blocks[static_cast<std::size_t>(id)]->points;
        if (!list.empty() || list.capacity() < static_cast<std::size_t>(total)) return 1;
        lists[e] = &list;
    }
    // Every list has its room: from here on nothing is allocated and nothing fails.
    for (std::size_t e = 0; e < table; ++e)
        if (lists[e] != nullptr) lists[e]->resize(static_cast<std::size_t>(totals[e]));
    std::vector<std::int32_t> words(m_share_counts.size(), 0);  // OR of the records' words
    const std::int64_t shares = static_cast<std::int64_t>(share_count);
    const std::atomic<bool>* stop = runStopFlag();
    // Each frame is let go once its points are on the lists, and the heap gives what the frames held back
    // to the system every PORTIONER_FRAME_BYTES_TRIMMED bytes: as the lists fill, the frames leave, and
    // the pass holds about the larger of the two instead of both (where nobody else holds the frames).
    std::atomic<std::uint64_t> let_go{0};
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t s = 0; s < shares; ++s) {
        std::int64_t* place = places.data() + static_cast<std::size_t>(s) * table;
        std::int32_t* word = words.data() + static_cast<std::size_t>(s) * table;
        for (std::size_t f = m_frame_shares[static_cast<std::size_t>(s)];
             f < m_frame_shares[static_cast<std::size_t>(s) + 1] && !stopAsked(stop); ++f) {
            const FrameDataWithInfo& frame = *m_waiting_frames[f];
            const PartitionPoint partition = framePartition(frame, entries, m_hash_mask, block_res, half_ext);
            // A laser id outside 0 to 7 is read as 0, as the batch's copy of the frame's information has it.
            const std::int32_t laser_id = frame.frame_info.laser_id;
            const std::uint8_t laser = static_cast<std::uint8_t>(laser_id < 0 || laser_id >= 8 ? 0 : laser_id);
            for (std::size_t i = 0; i < frame.xyz.size(); ++i) {
                RawPointWithHash point =
                    PartitionPoint::record(frame.xyz[i].data(), frame.nor[i].data(), frame.w[i], laser);
                partition.forEachRecord(i, [&](std::int32_t e) {
                    point.hash = e;
                    (*lists[static_cast<std::size_t>(e)])[static_cast<std::size_t>(place[e]++)] = point;
                    word[e] |= point.w;
                });
            }
            const std::uint64_t bytes = frame.xyz.size() * (sizeof(Vec3f) * 2 + sizeof(std::int32_t));
            m_waiting_frames[f].reset();
            const std::uint64_t before = let_go.fetch_add(bytes);
            if ((before + bytes) / PORTIONER_FRAME_BYTES_TRIMMED != before / PORTIONER_FRAME_BYTES_TRIMMED)
                giveFreedHeapBack();
        }
    }
    stopPoint();
    for (std::size_t e = 0; e < table; ++e) {
        if (lists[e] == nullptr) continue;
        std::int32_t word = 0;
        for (std::size_t s = 0; s < share_count; ++s) word |= words[s * table + e];
        m_point_cloud_blocks[static_cast<std::size_t>(entries[e].id)]->flags |= word;
    }
    return 0;
}

// ---- buffers ---------------------------------------------------------------------------------------

int Portioner::initRawSurface_Device(std::uint64_t capacity) {
    return runGuarded(m_last_error, {TESSALINE_DEVICE_COMPUTE, nullptr}, {1, nullptr}, [&]() -> int {
        TESSA_DEVICE_RELEASE(m_raw_surface_xyz_dev, "cudaFree(m_raw_surface_xyz_dev)");
        TESSA_DEVICE_RELEASE(m_raw_surface_block_dev, "cudaFree(m_raw_surface_block_dev)");
        m_raw_surface_capacity = 0;
        TESSA_DEVICE_CHECK(
            deviceMalloc(&m_raw_surface_xyz_dev, capacity * 3 * sizeof(float)),
            "cudaMalloc(&m_raw_surface_xyz_dev , PORTIONER_MAX_RAW_SURFACE_POINTS_SIZE(MAX_FRAME_POINTS) "
            "* 3 * sizeof(float))");
        TESSA_DEVICE_CHECK(
            deviceMalloc(&m_raw_surface_block_dev, capacity * sizeof(RawSurfaceBlockPos)),
            "cudaMalloc(&m_raw_surface_block_dev, PORTIONER_MAX_RAW_SURFACE_POINTS_SIZE(MAX_FRAME_POINTS) "
            "* sizeof(RawSurfaceBlockPos))");
        m_raw_surface_capacity = capacity;
        return 0;
    });
}

int Portioner::deInitRawSurface_Device() {
    return runGuarded(m_last_error, {TESSALINE_DEVICE_COMPUTE, nullptr}, {1, nullptr}, [&]() -> int {
        TESSA_DEVICE_RELEASE(m_raw_surface_xyz_dev, "cudaFree(m_raw_surface_xyz_dev)");
        TESSA_DEVICE_RELEASE(m_raw_surface_block_dev, "cudaFree(m_raw_surface_block_dev)");
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
            TESSA_DEVICE_CHECK(deviceMalloc(&m_simple_line_hash_dev, m_hash_entry_size * sizeof(SimpleLineHashEntry)),
                               "cudaMalloc(&m_simple_line_hash_dev, m_hash_entry_size * sizeof(SimpleLineHashEntry))");
            // Where device memory is host memory the kernels read the host batch itself.
            if (!deviceMemoryIsHostMemory()) {
                TESSA_DEVICE_CHECK(
                    deviceMalloc(&m_computing_frames_dev.xyz, batch_points * 3 * sizeof(float)),
                    "cudaMalloc(&m_computing_frames_dev.xyz, PORTIONER_MAX_FRAME_SIZE * MAX_FRAME_POINTS * 3 * "
                    "sizeof(float))");
                TESSA_DEVICE_CHECK(
                    deviceMalloc(&m_computing_frames_dev.nor, batch_points * 3 * sizeof(float)),
                    "cudaMalloc(&m_computing_frames_dev.nor, PORTIONER_MAX_FRAME_SIZE * MAX_FRAME_POINTS * 3 * "
                    "sizeof(float))");
                TESSA_DEVICE_CHECK(
                    deviceMalloc(&m_computing_frames_dev.w, batch_points * sizeof(int)),
                    "cudaMalloc(&m_computing_frames_dev.w, PORTIONER_MAX_FRAME_SIZE * MAX_FRAME_POINTS * "
                    "sizeof(int))");
                TESSA_DEVICE_CHECK(deviceMalloc(&m_computing_frames_dev.frame_info,
                                                static_cast<std::size_t>(m_batch_slots) * sizeof(FrameInfo)),
                                   "cudaMalloc(&m_computing_frames_dev.frame_info , PORTIONER_MAX_FRAME_SIZE * "
                                   "sizeof(SurfaceReconstruction::FrameInfo))");
            }
            // Four records a slot point cover a batch unless most points sit in margins; a batch that needs
            // more grows the buffer and runs again.
            std::uint64_t raw_points = m_raw_points_capacity_request != 0
                                           ? m_raw_points_capacity_request
                                           : static_cast<std::uint64_t>(batch_points) * 4;
            if (raw_points == 0) raw_points = 1;
            TESSA_DEVICE_CHECK(
                deviceMalloc(&m_raw_points_hash_dev, raw_points * sizeof(RawPointWithHash)),
                "cudaMalloc(&m_raw_points_hash_dev, MAX_FRAME_POINTS * 2000 * sizeof(RawPointWithHash))");
            m_raw_points_capacity = raw_points;
            TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_points_hash_size_dev, sizeof(int)),
                               "cudaMalloc(&m_raw_points_hash_size_dev, sizeof(int))");
            TESSA_DEVICE_CHECK(
                deviceMalloc(&m_block_changes_data_dev, PORTIONER_MAX_BLOCK_CHANGES * sizeof(BlockChangesData)),
                "cudaMalloc(&m_block_changes_data_dev, PORTIONER_MAX_BLOCK_CHANGES * sizeof(BlockChangesData))");
            m_block_changes_capacity = PORTIONER_MAX_BLOCK_CHANGES;
            TESSA_DEVICE_CHECK(deviceMalloc(&m_block_changes_size_dev, sizeof(int)),
                               "cudaMalloc(&m_block_changes_size_dev, sizeof(int))");
            TESSA_DEVICE_UPLOAD(m_device_params_dev, *m_device_params,
                                "cudaMalloc(&m_device_params_dev, sizeof(DeviceParameters))",
                                "cudaMemcpy(m_device_params_dev, m_device_params.get() , sizeof(DeviceParameters), "
                                "cudaMemcpyHostToDevice)");
            return 0;
        });
}

int Portioner::deInitPartition_Device() {
    return runGuarded(m_last_error, {TESSALINE_PARTITION_DEVICE, "[Portioner] process try catch device error!"},
                      {1, "[Portioner] process try catch error!"}, [&]() -> int {
                          m_adding_frames.reset();
                          m_computing_frames.reset();
                          std::vector<std::vector<RawPointWithHash>>().swap(m_thread_records);
                          TESSA_DEVICE_RELEASE(m_simple_line_hash_dev, "cudaFree(m_simple_line_hash_dev)");
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.xyz, "cudaFree(m_computing_frames_dev.xyz)");
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.nor, "cudaFree(m_computing_frames_dev.nor)");
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.w, "cudaFree(m_computing_frames_dev.w)");
                          TESSA_DEVICE_RELEASE(m_computing_frames_dev.frame_info,
                                               "cudaFree(m_computing_frames_dev.frame_info)");
                          TESSA_DEVICE_RELEASE(m_raw_points_hash_dev, "cudaFree(m_raw_points_hash_dev)");
                          m_raw_points_capacity = 0;
                          TESSA_DEVICE_RELEASE(m_raw_points_hash_size_dev, "cudaFree(m_raw_points_hash_size_dev)");
                          TESSA_DEVICE_RELEASE(m_block_changes_data_dev, "cudaFree(m_block_changes_data_dev)");
                          m_block_changes_capacity = 0;
                          TESSA_DEVICE_RELEASE(m_block_changes_size_dev, "cudaFree(m_block_changes_size_dev)");
                          TESSA_DEVICE_RELEASE(m_device_params_dev, "cudaFree(m_device_params_dev)");
                          return 0;
                      });
}

int Portioner::growPartitionOutput_Device(std::uint64_t raw_points, std::uint64_t changes) {
    if (raw_points > m_raw_points_capacity) {
        TESSA_DEVICE_RELEASE(m_raw_points_hash_dev, "cudaFree(m_raw_points_hash_dev)");
        m_raw_points_capacity = 0;
        TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_points_hash_dev, raw_points * sizeof(RawPointWithHash)),
                           "cudaMalloc(&m_raw_points_hash_dev, raw_points_hash_size * sizeof(RawPointWithHash))");
        m_raw_points_capacity = raw_points;
    }
    if (changes > m_block_changes_capacity) {
        TESSA_DEVICE_RELEASE(m_block_changes_data_dev, "cudaFree(m_block_changes_data_dev)");
        m_block_changes_capacity = 0;
        TESSA_DEVICE_CHECK(deviceMalloc(&m_block_changes_data_dev, changes * sizeof(BlockChangesData)),
                           "cudaMalloc(&m_block_changes_data_dev, changes_size * sizeof(BlockChangesData))");
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
        TESSA_DEVICE_CHECK(deviceSynchronize(), "cudaDeviceSynchronize()");
        const std::int64_t unique_hash_size = sortUniqueBlockPositions(m_raw_surface_block_dev, n);
        const std::size_t ori_size = m_raw_surface_block_vec.size();
        m_raw_surface_block_vec.resize(ori_size + static_cast<std::size_t>(unique_hash_size));
        TESSA_DEVICE_CHECK(deviceMemcpy(m_raw_surface_block_vec.data() + ori_size, m_raw_surface_block_dev,
                                        static_cast<std::size_t>(unique_hash_size) * sizeof(RawSurfaceBlockPos),
                                        CopyKind::DeviceToHost),
                           "cudaMemcpy(m_raw_surface_block_vec.data() + ori_size, m_raw_surface_block_dev , "
                           "unique_hash_size * sizeof(RawSurfaceBlockPos), cudaMemcpyDeviceToHost)");
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
                                        total_block_size * sizeof(RawSurfaceBlockPos), CopyKind::HostToDevice),
                           "cudaMemcpy(m_raw_surface_block_dev, m_raw_surface_block_vec.data(), total_block_size * "
                           "sizeof(RawSurfaceBlockPos), cudaMemcpyHostToDevice)");
        const std::int64_t unique_hash_size =
            sortUniqueBlockPositions(m_raw_surface_block_dev, static_cast<std::int64_t>(total_block_size));
        m_raw_surface_block_vec.resize(static_cast<std::size_t>(unique_hash_size));
        TESSA_DEVICE_CHECK(deviceMemcpy(m_raw_surface_block_vec.data(), m_raw_surface_block_dev,
                                        static_cast<std::size_t>(unique_hash_size) * sizeof(RawSurfaceBlockPos),
                                        CopyKind::DeviceToHost),
                           "cudaMemcpy(m_raw_surface_block_vec.data(), m_raw_surface_block_dev , unique_hash_size * "
                           "sizeof(RawSurfaceBlockPos), cudaMemcpyDeviceToHost)");
    });
}

int Portioner::computeModelBlockHash_Device(const std::vector<Vec3f>& model_xyz, float block_res,
                                            std::vector<RawSurfaceBlockPos>& out) {
    return runBlockComputation(m_last_error, [&] {
        const std::int64_t points_size = static_cast<std::int64_t>(model_xyz.size());
        const std::size_t n = static_cast<std::size_t>(points_size);
        ScopedDeviceBuffer<RawSurfaceBlockPos> raw_surface_block_dev;
        ScopedDeviceBuffer<float> points_data_xyz_dev;
        TESSA_DEVICE_CHECK(deviceMalloc(&raw_surface_block_dev.ptr(), n * sizeof(RawSurfaceBlockPos)),
                           "cudaMalloc(&raw_surface_block_dev, points_size * sizeof(RawSurfaceBlockPos))");
        TESSA_DEVICE_CHECK(deviceMalloc(&points_data_xyz_dev.ptr(), n * 3 * sizeof(float)),
                           "cudaMalloc(&points_data_xyz_dev, points_size * 3 * sizeof(float))");
        TESSA_DEVICE_CHECK(
            deviceMemcpy(points_data_xyz_dev.ptr(), model_xyz.data(), n * 3 * sizeof(float), CopyKind::HostToDevice),
            "cudaMemcpy(points_data_xyz_dev, points_data_xyz , points_size * 3 * sizeof(float), "
            "cudaMemcpyHostToDevice)");
        launchKernel(n, ComputeRawSurfaceBlockHashKernel{points_data_xyz_dev.ptr(), points_size, block_res,
                                                         raw_surface_block_dev.ptr()});
        TESSA_DEVICE_CHECK(deviceSynchronize(), "cudaDeviceSynchronize()");
        const std::int64_t unique_hash_size = sortUniqueBlockPositions(raw_surface_block_dev.ptr(), points_size);
        out.resize(static_cast<std::size_t>(unique_hash_size));
        TESSA_DEVICE_CHECK(deviceMemcpy(out.data(), raw_surface_block_dev.ptr(),
                                        static_cast<std::size_t>(unique_hash_size) * sizeof(RawSurfaceBlockPos),
                                        CopyKind::DeviceToHost),
                           "cudaMemcpy(raw_surface_block_vec.data(), raw_surface_block_dev , unique_hash_size * "
                           "sizeof(RawSurfaceBlockPos), cudaMemcpyDeviceToHost)");
        points_data_xyz_dev.release("cudaFree(points_data_xyz_dev)");
        raw_surface_block_dev.release("cudaFree(raw_surface_block_dev)");
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
                                                points * sizeof(float) * 3, CopyKind::HostToDevice),
                                   "cudaMemcpy(m_computing_frames_dev.xyz, m_computing_frames->xyz , max_point_size * "
                                   "sizeof(float) * 3, cudaMemcpyHostToDevice)");
                TESSA_DEVICE_CHECK(deviceMemcpy(m_computing_frames_dev.nor, batch.nor.data(),
                                                points * sizeof(float) * 3, CopyKind::HostToDevice),
                                   "cudaMemcpy(m_computing_frames_dev.nor, m_computing_frames->nor , max_point_size * "
                                   "sizeof(float) * 3, cudaMemcpyHostToDevice)");
                TESSA_DEVICE_CHECK(
                    deviceMemcpy(m_computing_frames_dev.w, batch.w.data(), points * sizeof(int),
                                 CopyKind::HostToDevice),
                    "cudaMemcpy(m_computing_frames_dev.w, m_computing_frames->w , max_point_size * sizeof(int), "
                    "cudaMemcpyHostToDevice)");
                TESSA_DEVICE_CHECK(
                    deviceMemcpy(m_computing_frames_dev.frame_info, batch.frame_info.data(),
                                 static_cast<std::size_t>(m_computing_frame_size) * sizeof(FrameInfo),
                                 CopyKind::HostToDevice),
                    "cudaMemcpy(m_computing_frames_dev.frame_info, m_computing_frames->frame_info , "
                    "m_computing_frame_size * sizeof(SurfaceReconstruction::FrameInfo), cudaMemcpyHostToDevice)");
                frames_dev = m_computing_frames_dev;
            }

            const float half_ext = block_res * 0.5f + ext_res;
            const PartitionPoint partition{frames_dev.xyz,         frames_dev.nor, frames_dev.w, frames_dev.frame_info,
                                           m_device_params_dev,    max_point_size, block_res,    half_ext,
                                           m_simple_line_hash_dev, m_hash_mask};
#if !defined(TESSA_KERNEL_LAUNCH_CUDA)
            if (deviceMemoryIsHostMemory()) {
                partitionBatchOnHost(partition, m_simple_line_hash_dev, static_cast<std::int64_t>(m_hash_entry_size),
                                     m_point_cloud_blocks, m_thread_records);
                return 0;
            }
#endif
            // Count the records first: the output buffer is made big enough before anything is written.
            ScopedDeviceBuffer<std::int64_t> offsets_dev;
            TESSA_DEVICE_CHECK(deviceMalloc(&offsets_dev.ptr(), (points + 1) * sizeof(std::int64_t)),
                               "cudaMalloc(&offsets_dev, (max_point_size + 1) * sizeof(std::int64_t))");
            TESSA_DEVICE_CHECK(deviceMemset(offsets_dev.ptr() + points, 0, sizeof(std::int64_t)),
                               "cudaMemset(offsets_dev + max_point_size, 0, sizeof(std::int64_t))");
            launchKernel(points, CountPartitionRecordsKernel{partition, offsets_dev.ptr()});
            {
                const DeviceScope scope;
                thrust::exclusive_scan(thrust::device, offsets_dev.ptr(), offsets_dev.ptr() + points + 1,
                                       offsets_dev.ptr());
            }
            std::int64_t records = 0;
            TESSA_DEVICE_CHECK(
                deviceMemcpy(&records, offsets_dev.ptr() + points, sizeof(std::int64_t), CopyKind::DeviceToHost),
                "cudaMemcpy(&records, offsets_dev + max_point_size, sizeof(std::int64_t), "
                "cudaMemcpyDeviceToHost)");
            if (records > INT32_MAX) throw std::runtime_error("a batch of more records than an int holds");
            if (static_cast<std::uint64_t>(records) > m_raw_points_capacity) {
                growPartitionOutput_Device(static_cast<std::uint64_t>(records), 0);
                ++m_partition_growths;
            }
            const int raw_points_hash_size = static_cast<int>(records);
            launchKernel(points, ProcessScanFrameListKernel{partition, offsets_dev.ptr(), m_simple_line_hash_dev,
                                                            m_raw_points_hash_dev});
            offsets_dev.release("cudaFree(offsets_dev)");
            TESSA_DEVICE_CHECK(
                deviceMemcpy(m_raw_points_hash_size_dev, &raw_points_hash_size, sizeof(int), CopyKind::HostToDevice),
                "cudaMemcpy(m_raw_points_hash_size_dev, &raw_points_hash_size, sizeof(int), "
                "cudaMemcpyHostToDevice)");
            TESSA_DEVICE_CHECK(deviceMemset(m_block_changes_size_dev, 0, sizeof(int)),
                               "cudaMemset(m_block_changes_size_dev, 0, sizeof(int))");
            // Grouped by block, each block's records in point order.
            sortPointsByHashStable(m_raw_points_hash_dev, raw_points_hash_size);

            launchKernel(static_cast<std::size_t>(raw_points_hash_size),
                         CountHashRunsKernel{m_raw_points_hash_dev, raw_points_hash_size, m_block_changes_size_dev});
            int changes_size = 0;
            TESSA_DEVICE_CHECK(
                deviceMemcpy(&changes_size, m_block_changes_size_dev, sizeof(int), CopyKind::DeviceToHost),
                "cudaMemcpy(&changes_size, m_block_changes_size_dev , sizeof(int), cudaMemcpyDeviceToHost)");
            growPartitionOutput_Device(0, static_cast<std::uint64_t>(changes_size));
            TESSA_DEVICE_CHECK(deviceMemset(m_block_changes_size_dev, 0, sizeof(int)),
                               "cudaMemset(m_block_changes_size_dev, 0, sizeof(int))");

            launchKernel(
                static_cast<std::size_t>(raw_points_hash_size),
                DetectBlockChangesKernel{m_raw_points_hash_dev, m_raw_points_hash_size_dev, m_simple_line_hash_dev,
                                         m_block_changes_data_dev, m_block_changes_size_dev});
            TESSA_DEVICE_CHECK(
                deviceMemcpy(&changes_size, m_block_changes_size_dev, sizeof(int), CopyKind::DeviceToHost),
                "cudaMemcpy(&changes_size, m_block_changes_size_dev , sizeof(int), cudaMemcpyDeviceToHost)");
            std::vector<BlockChangesData> changes_data(static_cast<std::size_t>(changes_size));
            TESSA_DEVICE_CHECK(deviceMemcpy(changes_data.data(), m_block_changes_data_dev,
                                            changes_data.size() * sizeof(BlockChangesData), CopyKind::DeviceToHost),
                               "cudaMemcpy(changes_data.data(), m_block_changes_data_dev , changes_size * "
                               "sizeof(BlockChangesData), cudaMemcpyDeviceToHost)");

            for (const BlockChangesData& change : changes_data) {
                PointCloudBlock& block = *m_point_cloud_blocks[static_cast<std::size_t>(change.block_id)];
                block.flags |= change.flags;
                PointList& list = *block.points;
                const std::size_t ori_size = list.size();
                list.resize(ori_size + static_cast<std::size_t>(change.points_num));
                TESSA_DEVICE_CHECK(deviceMemcpy(list.data() + ori_size, m_raw_points_hash_dev + change.offset,
                                                static_cast<std::size_t>(change.points_num) * sizeof(RawPointWithHash),
                                                CopyKind::DeviceToHost),
                                   "cudaMemcpy(ori_points_ptr, cur_device_ptr , changes_data[idx].points_num * "
                                   "sizeof(RawPointWithHash), cudaMemcpyDeviceToHost)");
            }
            return 0;
        });
}

}  // namespace SurfaceReconstruction
