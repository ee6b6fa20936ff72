// Runs of equal `hash` in a sorted point array: counted before the array of run records is sized.
#pragma once

#include <cstdint>

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

}  // namespace SurfaceReconstruction
