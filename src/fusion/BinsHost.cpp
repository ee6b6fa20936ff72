// The bins of a block's sorted points where the points lie in host memory: one walk over the points on all
// cores in place of the device's three passes over them and its shared counter, the bins in point order.
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "common/MemoryFailure.h"
#include "fusion/MarchingCubes.h"
#include "fusion/PointRuns.h"

namespace SurfaceReconstruction {

void MarchingCubes::binsOfSortedPointsOnHost(const RawPointWithHash* points, std::int64_t count,
                                             std::int64_t points_offset, std::vector<BinsHeader>& bins_header) {
    if (count <= 0) return;
    // Shares of the points, each beginning where a run begins: the first point at or after an even share
    // whose hash differs from the one before. Runs of finer bins take longer to describe: four shares a
    // thread, handed out as the threads come free, keep one from ending long after the other.
    const std::int64_t shares =
        std::max<std::int64_t>(1, std::min<std::int64_t>(4 * omp_get_max_threads(), count / 4096));
    std::vector<std::int64_t> begin(static_cast<std::size_t>(shares) + 1, count);
    begin[0] = 0;
    for (std::int64_t s = 1; s < shares; ++s) {
        std::int64_t b = std::max(begin[static_cast<std::size_t>(s) - 1], count * s / shares);
        while (b > 0 && b < count && points[b - 1].hash == points[b].hash) ++b;
        begin[static_cast<std::size_t>(s)] = b;
    }
    std::vector<std::vector<BinsHeader>> found(static_cast<std::size_t>(shares));
    TeamFailure failure;  // no room for a share's bins: thrown once the team has ended
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t s = 0; s < shares; ++s) {
        failure.run([&] {
            std::vector<BinsHeader>& bins = found[static_cast<std::size_t>(s)];
            for (std::int64_t j = begin[static_cast<std::size_t>(s)]; j < begin[static_cast<std::size_t>(s) + 1];) {
                BinsHeader bin;
                startBinOfRun(points[j].hash, static_cast<std::int32_t>(j) + static_cast<std::int32_t>(points_offset),
                              m_logic_coordinate_host, m_resolution, bin);
                j = walkBinRun(points, j, count, m_resolution, bin);
                bins.push_back(bin);
            }
        });
    }
    failure.rethrow();
    std::size_t total = bins_header.size();
    for (const std::vector<BinsHeader>& bins : found) total += bins.size();
    bins_header.reserve(total);
    for (const std::vector<BinsHeader>& bins : found) bins_header.insert(bins_header.end(), bins.begin(), bins.end());
}

}  // namespace SurfaceReconstruction
