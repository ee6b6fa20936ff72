// The partition rule that the Portioner's device steps (PortionerPasses.cu) and their host twin
// (PortionerPassesHost.cpp) share: which blocks' lists receive the records of a point of a batch.
#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/GridHash.h"
#include "common/GridKeyTable.h"
#include "common/PointRecords.h"
#include "portion/Portioner.h"

namespace SurfaceReconstruction {

// The records of one point of a batch: one for its own block and one for each neighbour whose margin
// holds it, in that order. Counted first, then written where the counts put them, so that a batch's
// records come out in point order whatever the threads do. One definition serves kernel and host files
// alike: its arithmetic holds no multiply-add that a compiler could contract, so every unit rounds it the
// same.
struct PartitionPoint {
    const float* xyz;
    const float* nor;
    const std::int32_t* w;
    const FrameInfo* frame_info;
    const DeviceParameters* device_params;
    std::int64_t n;
    float block_res;
    float half_ext;
    const BlockSlot* hash_entries;
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
        const std::int32_t own = findGridKeySlot(hash_entries, mask, bx, by, bz);
        if (own < 0) {
            if (report)
                TESSA_KERNEL_REPORT(
                    "processScanFrameListKernel: cur_hash_entry == nullptr, xyz(%f, %f, %f) cur_pos(%d, %d, %d) "
                    "block_res(%f) hash_mask(%d)\n",
                    x, y, z, bx, by, bz, block_res, static_cast<int>(hash_mask));
            return false;
        }
        // A block the run does not compute takes no records; the blocks whose margins hold the point do.
        if (hash_entries[own].value.skipped == 0) record(own);
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
                    const std::int32_t e = findGridKeySlot(hash_entries, mask, bx + dx, by + dy, bz + dz);
                    if (e < 0 || hash_entries[e].value.skipped != 0) continue;  // no block behind this side
                    record(e);
                }
            }
        }
        return true;
    }
};

#if !defined(TESSALINE_CUDA)
// Where device memory is host memory a batch goes onto the ends of its blocks' lists in one pass over its
// points, each block's records in point order: the order that the counts, records, stable sort by block
// and runs give elsewhere. Each thread makes the records of its share of the points into its own list
// (kept for the next batch) and counts them by table entry; the shares' places in each block's list
// follow from those counts, and every thread then writes its records into place.
void partitionBatchOnHost(const PartitionPoint& partition, BlockSlot* entries, std::int64_t entry_count,
                          std::vector<std::shared_ptr<PointCloudBlock>>& blocks,
                          std::vector<std::vector<RawPointWithHash>>& thread_records);
#endif

}  // namespace SurfaceReconstruction
