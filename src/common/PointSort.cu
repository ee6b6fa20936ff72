// The point sorts on a CUDA device: Thrust (radix sorts where the key allows, merge sorts otherwise). The
// host backend's twin, PointSortHost.cpp, runs the host sorts of PointRadixSort.cpp instead.
#include <thrust/execution_policy.h>
#include <thrust/sort.h>

#include "common/PointSort.h"

namespace SurfaceReconstruction {

namespace {
struct ByHash {
    __host__ __device__ bool operator()(const RawPointWithHash& a, const RawPointWithHash& b) const {
        return static_cast<std::uint32_t>(a.hash) < static_cast<std::uint32_t>(b.hash);
    }
};
}  // namespace

void sortPointsFully(RawPointWithHash* points, std::int64_t n) {
    if (n > 1) thrust::sort(thrust::device, points, points + n, RawPointWithHash_CMP_LESS());
}

void sortPointsByHashStable(RawPointWithHash* points, std::int64_t n) {
    if (n > 1) thrust::stable_sort(thrust::device, points, points + n, ByHash());
}

}  // namespace SurfaceReconstruction
