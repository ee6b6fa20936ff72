// The point sorts of the host backend, whose device memory is host memory.
#include "PointSort.h"

namespace SurfaceReconstruction {

void sortPointsFully(RawPointWithHash* points, std::int64_t n) { sortPointsFullyOnHost(points, n); }

void sortPointsByHashStable(RawPointWithHash* points, std::int64_t n) { sortPointsByHashStableOnHost(points, n); }

}  // namespace SurfaceReconstruction
