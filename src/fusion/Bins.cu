// Device part of the marching cubes stage: its buffers, and the bins of a block on the whole-block
// path and on the chunked path. Compiled by nvcc for the CUDA backend and as C++ for the host backend.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/Morton.h"
#include "common/PointSort.h"
#include "fusion/BinCodesHost.h"
#include "fusion/MarchingCubes.h"
#include "fusion/PointRuns.h"

namespace SurfaceReconstruction {

namespace {

// Morton code of the bin of each point. A point within rounding below the low face of the margin (the
// partition and this difference round apart) goes to the first bin on that axis.
struct ComputePointsHashValueKernel {
    RawPointWithHash* points;
    std::int64_t points_size;
    const float* logic_coordinate;
    float bin_size;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= points_size) return;
        RawPointWithHash& p = points[i];
        const float position[3] = {p.x, p.y, p.z};
        p.hash = static_cast<std::int32_t>(binCodeOf(position, logic_coordinate, bin_size));
    }
};

// The bins' codes of points in host memory: eight at a time on the host's vector units where it has them.
void computeBinCodes(RawPointWithHash* points, std::int64_t n, const float* logic_coordinate_dev,
                     const float logic_coordinate[3], float bin_size, bool host_memory) {
    if (host_memory && binCodesOnVectorUnits()) {
        writeBinCodes(points, n, logic_coordinate, bin_size);
        return;
    }
    launchKernel(static_cast<std::size_t>(n), ComputePointsHashValueKernel{points, n, logic_coordinate_dev, bin_size});
}

// One bin for the first point of each run of equal hash: its centre and offset.
struct GetBinsCenterKernel {
    const RawPointWithHash* points;
    std::int64_t points_size;
    const float* logic_coordinate;
    float bin_size;
    BinsHeader* bins_header;
    int* bins_header_size;
    std::int64_t bins_capacity;
    std::int32_t points_offset;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= points_size) return;
        if (i != 0 && points[i - 1].hash == points[i].hash) return;
        const int id = deviceAtomicAdd(bins_header_size, 1);
        if (id >= bins_capacity) {
            TESSA_KERNEL_REPORT("bins_id >= MC_MAX_BINS_HEADER %d \n", id);
            return;
        }
        startBinOfRun(points[i].hash, static_cast<std::int32_t>(i) + points_offset, logic_coordinate, bin_size,
                      bins_header[id]);
    }
};

// One thread a bin walks its run: count, flags, scale and sub-cell occupancy.
struct GetBinsScaleKernel {
    const RawPointWithHash* points;
    std::int64_t points_size;
    float bin_size;
    BinsHeader* bins_header;
    std::int64_t bins_count;
    std::int32_t points_offset;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= bins_count) return;
        BinsHeader& bin = bins_header[i];
        walkBinRun(points, bin.point_offset - points_offset, points_size, bin_size, bin);
    }
};

}  // namespace

// ---- buffers ---------------------------------------------------------------------------------------

int MarchingCubes::initDevice(std::uint64_t max_points) {
    if (refuseBeforeInit()) return 1;
    if (!m_device_params || !m_portioner_params) {
        m_last_error = "[MarchingCubes] initDevice try catch error! \n";
        return 1;
    }
    const int released = deInitDevice();  // a second set-up replaces the first
    if (released != 0) return released;
    m_rule_counts = CellRuleCounts{};
    return runGuarded(
        m_last_error, {TESSALINE_DEVICE_COMPUTE, "[MarchingCubes] initDevice try catch device error! \n"},
        {1, "[MarchingCubes] initDevice try catch error! \n"}, [&]() -> int {
            const std::uint64_t n = m_portioner_params->block_with_ext_size;
            // One more than the largest block, so that the strict capacity test admits that block; a device
            // without room for it gets the fallback capacity and the chunked path.
            m_raw_points_capacity = max_points + 1;
            if (!deviceMemoryAvailable(2 * (max_points + 1) * sizeof(RawPointWithHash)))
                m_raw_points_capacity = n * n * 300;
            if (!deviceMemoryIsHostMemory()) {  // on the host backend kernels read the blocks' own arrays
                TESSA_DEVICE_CHECK(
                    deviceMalloc(&m_raw_points_hash_dev, m_raw_points_capacity * sizeof(RawPointWithHash)));
            }
            TESSA_DEVICE_CHECK(deviceMalloc(&m_raw_points_hash_size_dev, sizeof(int)));
            TESSA_DEVICE_CHECK(deviceMalloc(&m_logic_coordinate_dev, 3 * sizeof(float)));
            // A block has no more bins than points: the array starts at that and grows when a block needs more.
            m_bins_header_capacity =
                std::min<std::uint64_t>(MC_MAX_BINS_HEADER(static_cast<std::uint32_t>(n)), m_raw_points_capacity);
            TESSA_DEVICE_CHECK(deviceMalloc(&m_bins_header_dev, m_bins_header_capacity * sizeof(BinsHeader)));
            TESSA_DEVICE_CHECK(deviceMalloc(&m_bins_header_size_dev, sizeof(int)));
            TESSA_DEVICE_UPLOAD(m_device_params_dev, *m_device_params);
            TESSA_DEVICE_UPLOAD(m_portioner_params_dev, *m_portioner_params);
            return 0;
        });
}

int MarchingCubes::deInitDevice() {
    return runGuarded(m_last_error, {TESSALINE_DEVICE_COMPUTE, nullptr}, {1, nullptr}, [&]() -> int {
        TESSA_DEVICE_RELEASE(m_raw_points_hash_dev);
        m_raw_points_capacity = 0;
        m_sort_buffers.release();
        m_point_columns.release();
        m_cell_buffers.release();
        TESSA_DEVICE_RELEASE(m_raw_points_hash_size_dev);
        TESSA_DEVICE_RELEASE(m_logic_coordinate_dev);
        TESSA_DEVICE_RELEASE(m_bins_header_dev);
        m_bins_header_capacity = 0;
        TESSA_DEVICE_RELEASE(m_bins_header_size_dev);
        TESSA_DEVICE_RELEASE(m_device_params_dev);
        TESSA_DEVICE_RELEASE(m_portioner_params_dev);
        return 0;
    });
}

// ---- bins ------------------------------------------------------------------------------------------

void MarchingCubes::binsOfSortedPoints(const RawPointWithHash* points_dev, std::int64_t count,
                                       std::int64_t points_offset, std::vector<BinsHeader>& bins_header) {
    // Where the points lie in host memory and kernels round as the host does, the host walks them once.
    if (deviceMemoryIsHostMemory() && KERNELS_COMPUTE_AS_HOST) {
        binsOfSortedPointsOnHost(points_dev, count, points_offset, bins_header);
        return;
    }
    binsOfSortedPointsByKernels(points_dev, count, points_offset, bins_header);
}

void MarchingCubes::binsOfSortedPointsByKernels(const RawPointWithHash* points_dev, std::int64_t count,
                                                std::int64_t points_offset, std::vector<BinsHeader>& bins_header) {
    const float bin_size = m_resolution;
    // Count the runs first, so that the bin array never overflows: a block with more bins gets a
    // larger array and is not cut.
    TESSA_DEVICE_CHECK(deviceMemset(m_bins_header_size_dev, 0, sizeof(int)));
    launchKernel(static_cast<std::size_t>(count), CountHashRunsKernel{points_dev, count, m_bins_header_size_dev});
    int bins_header_size = 0;
    TESSA_DEVICE_CHECK(deviceMemcpy(&bins_header_size, m_bins_header_size_dev, sizeof(int), CopyKind::DeviceToHost));
    if (static_cast<std::uint64_t>(bins_header_size) > m_bins_header_capacity) {
        TESSA_DEVICE_RELEASE(m_bins_header_dev);
        m_bins_header_capacity = 0;
        TESSA_DEVICE_CHECK(
            deviceMalloc(&m_bins_header_dev, static_cast<std::size_t>(bins_header_size) * sizeof(BinsHeader)));
        m_bins_header_capacity = static_cast<std::uint64_t>(bins_header_size);
    }

    TESSA_DEVICE_CHECK(deviceMemset(m_bins_header_size_dev, 0, sizeof(int)));
    launchKernel(static_cast<std::size_t>(count),
                 GetBinsCenterKernel{points_dev, count, m_logic_coordinate_dev, bin_size, m_bins_header_dev,
                                     m_bins_header_size_dev, static_cast<std::int64_t>(m_bins_header_capacity),
                                     static_cast<std::int32_t>(points_offset)});
    TESSA_DEVICE_CHECK(deviceMemcpy(&bins_header_size, m_bins_header_size_dev, sizeof(int), CopyKind::DeviceToHost));
    launchKernel(static_cast<std::size_t>(bins_header_size),
                 GetBinsScaleKernel{points_dev, count, bin_size, m_bins_header_dev, bins_header_size,
                                    static_cast<std::int32_t>(points_offset)});
    const std::size_t old_size = bins_header.size();
    bins_header.resize(old_size + static_cast<std::size_t>(bins_header_size));
    TESSA_DEVICE_CHECK(deviceMemcpy(bins_header.data() + old_size, m_bins_header_dev,
                                    static_cast<std::size_t>(bins_header_size) * sizeof(BinsHeader),
                                    CopyKind::DeviceToHost));
    // Where device memory is host memory the bins now lie twice: the array's pages go back to the system
    // (its next use writes before it reads).
    if (deviceMemoryIsHostMemory())
        releasePagesWithin(m_bins_header_dev, m_bins_header_dev + static_cast<std::size_t>(bins_header_size));
}

int MarchingCubes::computePointsHash_Device(PointCloudBlock& block, const float logic_coordinate[3]) {
    return runGuarded(m_last_error, {TESSALINE_DEVICE_COMPUTE, nullptr}, {1, nullptr}, [&]() -> int {
        PointList& points = *block.points;
        const std::int64_t n = static_cast<std::int64_t>(points.size());
        // Where device memory is host memory the block's own array is sorted in place; otherwise a copy
        // goes to the device and the sorted points come back for a fall back to the host.
        const bool shared = deviceMemoryIsHostMemory();
        RawPointWithHash* points_dev = shared ? points.data() : m_raw_points_hash_dev;
        if (!shared) {
            TESSA_DEVICE_CHECK(deviceMemcpy(m_raw_points_hash_dev, points.data(),
                                            points.size() * sizeof(RawPointWithHash), CopyKind::HostToDevice));
        }
        TESSA_DEVICE_CHECK(
            deviceMemcpy(m_logic_coordinate_dev, logic_coordinate, 3 * sizeof(float), CopyKind::HostToDevice));
        computeBinCodes(points_dev, n, m_logic_coordinate_dev, logic_coordinate, m_resolution, shared);
        TESSA_DEVICE_CHECK(deviceSynchronize());
        // The full order settles equal codes too, so the block's points come out the same every run.
        if (shared) {
            sortPointsFullyOnHost(points, m_sort_buffers);  // the block's array is replaced by its sorted copy
            points_dev = points.data();
        } else {
            sortPointsFully(points_dev, n);
        }
        if (!shared) {
            TESSA_DEVICE_CHECK(deviceMemcpy(points.data(), m_raw_points_hash_dev,
                                            points.size() * sizeof(RawPointWithHash), CopyKind::DeviceToHost));
        }
        m_block_points_dev = points_dev;
        return 0;
    });
}

int MarchingCubes::getBinsCenter_Device(PointCloudBlock& block, std::vector<BinsHeader>& bins_header) {
    return runGuarded(
        m_last_error, {TESSALINE_DEVICE_COMPUTE, "[MarchingCubes] getBinsCenter_Device try catch device error! \n"},
        {1, "[MarchingCubes] getBinsCenter_Device try catch error! \n"}, [&]() -> int {
            binsOfSortedPoints(m_block_points_dev, static_cast<std::int64_t>(block.points->size()), 0, bins_header);
            return 0;
        });
}

int MarchingCubes::computePointsHash_Chunked(PointCloudBlock& block, const float logic_coordinate[3]) {
    PointList& points = *block.points;
    const std::int64_t n = static_cast<std::int64_t>(points.size());
    TESSA_DEVICE_CHECK(
        deviceMemcpy(m_logic_coordinate_dev, logic_coordinate, 3 * sizeof(float), CopyKind::HostToDevice));
    const bool shared = deviceMemoryIsHostMemory();
    for (std::int64_t done = 0; done < n;) {
        const std::int64_t c = std::min<std::int64_t>(n - done, static_cast<std::int64_t>(m_raw_points_capacity));
        const std::size_t bytes = static_cast<std::size_t>(c) * sizeof(RawPointWithHash);
        RawPointWithHash* chunk_dev = shared ? points.data() + done : m_raw_points_hash_dev;
        if (!shared) {
            TESSA_DEVICE_CHECK(
                deviceMemcpy(m_raw_points_hash_dev, points.data() + done, bytes, CopyKind::HostToDevice));
        }
        computeBinCodes(chunk_dev, c, m_logic_coordinate_dev, logic_coordinate, m_resolution, shared);
        if (!shared) {
            TESSA_DEVICE_CHECK(
                deviceMemcpy(points.data() + done, m_raw_points_hash_dev, bytes, CopyKind::DeviceToHost));
        }
        done += c;
    }
    sortPointsFullyOnHost(points, m_sort_buffers);
    return 0;
}

int MarchingCubes::getBinsCenter_Chunked(PointCloudBlock& block, const float logic_coordinate[3],
                                         std::vector<BinsHeader>& bins_header) {
    const PointList& points = *block.points;
    const std::int64_t n = static_cast<std::int64_t>(points.size());
    TESSA_DEVICE_CHECK(
        deviceMemcpy(m_logic_coordinate_dev, logic_coordinate, 3 * sizeof(float), CopyKind::HostToDevice));
    for (std::int64_t done = 0; done < n;) {
        std::int64_t c = std::min<std::int64_t>(n - done, static_cast<std::int64_t>(m_raw_points_capacity));
        // Leave the run at the end of the chunk to the next chunk; a run longer than the buffer is cut.
        const RawPointWithHash* chunk = points.data() + done;
        std::int64_t e = c - 1;
        while (e >= 0 && chunk[e].hash == chunk[c - 1].hash) --e;
        if (e >= 1) c = e + 1;
        const RawPointWithHash* chunk_dev = chunk;
        if (!deviceMemoryIsHostMemory()) {
            TESSA_DEVICE_CHECK(deviceMemcpy(m_raw_points_hash_dev, chunk,
                                            static_cast<std::size_t>(c) * sizeof(RawPointWithHash),
                                            CopyKind::HostToDevice));
            chunk_dev = m_raw_points_hash_dev;
        }
        binsOfSortedPoints(chunk_dev, c, done, bins_header);
        done += c;
    }
    return 0;
}

}  // namespace SurfaceReconstruction
