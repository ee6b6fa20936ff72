// Level rectification: the bins' wished scale codes spread to their neighbours and evened out, so that
// neighbouring cells differ by at most one level.
#include <cstdint>
#include <vector>

#include "common/Atomics.h"
#include "common/ErrorLadder.h"
#include "common/GridHash.h"
#include "fusion/MarchingCubes.h"

namespace SurfaceReconstruction {

int MarchingCubes::rectifyBinLevels(std::vector<BinsHeader>& bins_header) {
    return runGuarded(m_last_error, {1, nullptr}, [&]() -> int {
        const std::int64_t n = static_cast<std::int64_t>(bins_header.size());
        std::vector<std::int8_t> next(bins_header.size());

        // Spreading: a bin of the default code takes the last wish of its 5 x 5 x 5 neighbourhood. All
        // bins decide on the old codes before any changes.
        const auto spreadBinLevels = [&] {
#pragma omp parallel for schedule(static)
            for (std::int64_t i = 0; i < n; ++i) {
                const BinsHeader& bin = bins_header[static_cast<std::size_t>(i)];
                next[static_cast<std::size_t>(i)] = bin.bin_sub_scale;
                if (effectiveScaleCode(bin) != 8) continue;
                std::int32_t key[3];
                gridKey(bin.center, m_resolution, key);
                for (int dx = -2; dx <= 2; ++dx)
                    for (int dy = -2; dy <= 2; ++dy)
                        for (int dz = -2; dz <= 2; ++dz) {
                            const std::int32_t id = findBin(key[0] + dx, key[1] + dy, key[2] + dz);
                            if (id < 0) continue;
                            const int code = effectiveScaleCode(bins_header[static_cast<std::size_t>(id)]);
                            if (code != 8) next[static_cast<std::size_t>(i)] = static_cast<std::int8_t>(code);
                        }
            }
#pragma omp parallel for schedule(static)
            for (std::int64_t i = 0; i < n; ++i)
                bins_header[static_cast<std::size_t>(i)].bin_sub_scale = next[static_cast<std::size_t>(i)];
        };
        spreadBinLevels();
        if (m_resolution <= 3.0f) spreadBinLevels();

        // Limiting: a neighbour more than one level finer pulls a bin up, one more than one level coarser
        // pulls it down; each run decides on the codes it starts from.
        std::vector<std::uint8_t> came_to_four(bins_header.size(), 0);
        for (int run = 0; run < 2; ++run) {
#pragma omp parallel for schedule(static)
            for (std::int64_t i = 0; i < n; ++i) {
                const BinsHeader& bin = bins_header[static_cast<std::size_t>(i)];
                next[static_cast<std::size_t>(i)] = bin.bin_sub_scale;
                const int a = effectiveScaleCode(bin);
                std::int32_t key[3];
                gridKey(bin.center, m_resolution, key);
                for (int nb = 0; nb < 27; ++nb) {
                    const std::int32_t id =
                        findBin(key[0] + nb % 3 - 1, key[1] + (nb % 9) / 3 - 1, key[2] + nb / 9 - 1);
                    if (id < 0) continue;
                    const int b = effectiveScaleCode(bins_header[static_cast<std::size_t>(id)]);
                    if (b == a) continue;
                    if (b > a && a >= 8 && b / a > 2) {
                        next[static_cast<std::size_t>(i)] = static_cast<std::int8_t>(b * 0.5);
                        break;
                    }
                    if (a > b && a <= 8 && b != 0 && a / b > 2) {
                        next[static_cast<std::size_t>(i)] = static_cast<std::int8_t>(a * 0.5);
                        if (next[static_cast<std::size_t>(i)] == 4) came_to_four[static_cast<std::size_t>(i)] = 1;
                        break;
                    }
                }
            }
#pragma omp parallel for schedule(static)
            for (std::int64_t i = 0; i < n; ++i)
                bins_header[static_cast<std::size_t>(i)].bin_sub_scale = next[static_cast<std::size_t>(i)];
        }

        // Widening: every bin within three of a bin that came to 4, and still has it, becomes 4.
        std::vector<std::uint8_t> widen(bins_header.size(), 0);
        for (std::int64_t i = 0; i < n; ++i)
            widen[static_cast<std::size_t>(i)] = came_to_four[static_cast<std::size_t>(i)] &&
                                                 bins_header[static_cast<std::size_t>(i)].bin_sub_scale == 4;
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < n; ++i) {
            if (!widen[static_cast<std::size_t>(i)]) continue;
            std::int32_t key[3];
            gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
            for (int dx = -3; dx <= 3; ++dx)
                for (int dy = -3; dy <= 3; ++dy)
                    for (int dz = -3; dz <= 3; ++dz) {
                        const std::int32_t id = findBin(key[0] + dx, key[1] + dy, key[2] + dz);
                        if (id >= 0)
                            storeRelaxed(bins_header[static_cast<std::size_t>(id)].bin_sub_scale, std::int8_t{4});
                    }
        }
        return 0;
    });
}

}  // namespace SurfaceReconstruction
