// Runs of equal `hash` in a sorted point array: counted before the array of run records is sized, and
// described as bins.
#pragma once

#include <cmath>
#include <cstdint>

#include "common/CellRecords.h"
#include "common/Morton.h"
#include "common/PointRecords.h"
#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {

// Adds 1 to `count` for the first point of each run of equal hash.
struct CountHashRunsKernel {
    const RawPointWithHash* points;
    std::int64_t n;
    int* count;

    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= n) return;
        if (i != 0 && points[i - 1].hash == points[i].hash) return;
        deviceAtomicAdd(count, 1);
    }
};

// The bin of the run whose first point has `hash` and lies at `offset` in the block: its centre from
// the Morton code, its offset, and the rest zero until its run is walked.
TESSA_HD inline void startBinOfRun(std::int32_t hash, std::int32_t offset, const float* logic_coordinate,
                                   float bin_size, BinsHeader& bin) {
    std::uint32_t c[3];
    mortonDecode(static_cast<std::uint32_t>(hash), c[0], c[1], c[2]);
    for (int k = 0; k < 3; ++k)
        bin.center[k] = fmaf(0.5f, bin_size, fmaf(static_cast<float>(c[k]), bin_size, logic_coordinate[k]));
    bin.point_offset = offset;
    bin.point_count = 0;
    bin.bin_sub_scale = 0;
    bin.bin_flags = 0;
    bin.word_high = 0;
    for (int w = 0; w < 8; ++w) bin.occupancy[w] = 0;
}

// The wished scale: the default 8 gives way to any other wish, a wish is never replaced by 8, and among
// other wishes the largest wins; a code of 0 is replaced by whatever comes next.
TESSA_HD inline std::int8_t combineScale(std::int8_t s, std::int8_t p) {
    if (s == 0 || (s == 8 && p != 8) || (s != 8 && p != 8 && p > s)) return p;
    return s;
}

// Walks the run of the bin from points[j] on (j its first point among the `points_size`): its count,
// flags, wished scale and sub-cell occupancy. Returns where the run ends.
TESSA_HD inline std::int64_t walkBinRun(const RawPointWithHash* points, std::int64_t j, std::int64_t points_size,
                                        float bin_size, BinsHeader& bin) {
    const float half = bin_size * 0.5f;
    const float corner[3] = {bin.center[0] - half, bin.center[1] - half, bin.center[2] - half};
    const float inv = 1.0f / (bin_size * 0.125f);
    // The bin's sums in locals, written once at the end: stores through the header a point would each
    // wait on the one before.
    std::int32_t count = 0;
    std::int8_t scale = 8;
    std::uint32_t flags = 0, high = 0;
    std::uint64_t occupancy[8];
    for (int k = 0; k < 8; ++k) occupancy[k] = bin.occupancy[k];
    const std::int32_t h = points[j].hash;
    for (; j < points_size && points[j].hash == h; ++j) {
        const RawPointWithHash& p = points[j];
        count += 1;
        flags |= (p.w >> 8) & 255;
        high |= (static_cast<std::uint32_t>(p.w) >> 16) & 0xFFFFu;
        scale = combineScale(scale, static_cast<std::int8_t>(p.w & 255));
        const float position[3] = {p.x, p.y, p.z};
        // The sub-cell on each axis, truncated and held to 0..7 (a NaN to 0), its three bits spread into
        // the code as mortonEncode places them.
        std::uint32_t code = 0;
        for (int k = 0; k < 3; ++k) {
            const float v = (position[k] - corner[k]) * inv;
            const std::uint32_t cell = v >= 7.0f ? 7u : (v > 0.0f ? static_cast<std::uint32_t>(v) : 0u);
            code |= ((cell & 1u) | ((cell & 2u) << 2) | ((cell & 4u) << 4)) << k;
        }
        occupancy[code / 64] |= 1ull << (code % 64);
    }
    bin.point_count = count;
    bin.bin_sub_scale = scale;
    bin.bin_flags = static_cast<std::uint8_t>(flags);
    bin.word_high = static_cast<std::uint16_t>(high);
    for (int k = 0; k < 8; ++k) bin.occupancy[k] = occupancy[k];
    return j;
}

}  // namespace SurfaceReconstruction
