// The point sorts of the host backend (the CUDA backend's are in PointSort.cu): the host sorts of
// PointRadixSort.cpp, inside a device scope, since the points are in device memory.
#include "common/PointSort.h"

namespace SurfaceReconstruction {

void sortPointsFully(RawPointWithHash* points, std::int64_t n) {
    const DeviceScope scope;
    sortPointsFullyOnHost(points, n);
}

void sortPointsByHashStable(RawPointWithHash* points, std::int64_t n) {
    const DeviceScope scope;
    sortPointsByHashStableOnHost(points, n);
}

}  // namespace SurfaceReconstruction
