// Level rectification: the bins' wished scale codes spread to their neighbours and evened out, so that
// neighbouring cells differ by at most one level.
#include <algorithm>
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
        // The codes that a pass decides on, a byte a bin: the neighbours' codes are read from here, not
        // from their large headers.
        std::vector<std::int8_t> code(bins_header.size());
        const auto takeCodes = [&] {
#pragma omp parallel for schedule(static)
            for (std::int64_t i = 0; i < n; ++i)
                code[static_cast<std::size_t>(i)] =
                    static_cast<std::int8_t>(effectiveScaleCode(bins_header[static_cast<std::size_t>(i)]));
        };
        // With the bitmap of the keys, the bricks of 4 x 4 x 4 keys that hold a bin of another code than
        // the default: a bin whose neighbourhood meets none of them keeps its code without looking.
        std::vector<std::uint64_t> wishes;
        const auto markWishes = [&] {
            if (!m_bitmap_valid) return;
            wishes.assign(m_bin_bitmap.size(), 0);  // a word a brick
#pragma omp parallel for schedule(static)
            for (std::int64_t i = 0; i < n; ++i) {
                if (code[static_cast<std::size_t>(i)] == 8) continue;
                std::int32_t key[3];
                gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
                const std::int64_t bit = binBit(key[0], key[1], key[2]);
                if (bit >= 0) storeRelaxed(wishes[static_cast<std::size_t>(bit >> 6)], std::uint64_t{1});
            }
        };
        const auto wishWithin = [&](const std::int32_t key[3], int reach) {
            if (!m_bitmap_valid) return true;
            std::int64_t from[3], to[3];
            for (int k = 0; k < 3; ++k) {
                const std::int64_t d = static_cast<std::int64_t>(key[k]) - m_bitmap_min[k];
                from[k] = std::max<std::int64_t>(0, (d - reach) >> 2);
                to[k] = std::min<std::int64_t>(m_bitmap_dim[k] - 1, (d + reach) >> 2);
            }
            for (std::int64_t z = from[2]; z <= to[2]; ++z)
                for (std::int64_t y = from[1]; y <= to[1]; ++y)
                    for (std::int64_t x = from[0]; x <= to[0]; ++x)
                        if (wishes[static_cast<std::size_t>((z * m_bitmap_dim[1] + y) * m_bitmap_dim[0] + x)] != 0)
                            return true;
            return false;
        };

        // Spreading: a bin of the default code takes the last wish of its 5 x 5 x 5 neighbourhood. All
        // bins decide on the old codes before any changes.
        // The bins that look around are few and bunched where the codes change: the loops that look are
        // handed out in chunks as the threads come free.
        const auto spreadBinLevels = [&] {
            takeCodes();
            markWishes();
#pragma omp parallel for schedule(dynamic, 2048)
            for (std::int64_t i = 0; i < n; ++i) {
                const BinsHeader& bin = bins_header[static_cast<std::size_t>(i)];
                next[static_cast<std::size_t>(i)] = bin.bin_sub_scale;
                if (code[static_cast<std::size_t>(i)] != 8) continue;
                std::int32_t key[3];
                gridKey(bin.center, m_resolution, key);
                if (!wishWithin(key, 2)) continue;
                for (int dx = -2; dx <= 2; ++dx)
                    for (int dy = -2; dy <= 2; ++dy)
                        for (int dz = -2; dz <= 2; ++dz) {
                            const std::int32_t id = findBin(key[0] + dx, key[1] + dy, key[2] + dz);
                            if (id < 0) continue;
                            const int c = code[static_cast<std::size_t>(id)];
                            if (c != 8) next[static_cast<std::size_t>(i)] = static_cast<std::int8_t>(c);
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
            takeCodes();
            markWishes();
#pragma omp parallel for schedule(dynamic, 2048)
            for (std::int64_t i = 0; i < n; ++i) {
                const BinsHeader& bin = bins_header[static_cast<std::size_t>(i)];
                next[static_cast<std::size_t>(i)] = bin.bin_sub_scale;
                const int a = code[static_cast<std::size_t>(i)];
                std::int32_t key[3];
                gridKey(bin.center, m_resolution, key);
                if (a == 8 && !wishWithin(key, 1)) continue;  // all around of the default code, as it is
                for (int nb = 0; nb < 27; ++nb) {
                    const std::int32_t id =
                        findBin(key[0] + nb % 3 - 1, key[1] + (nb % 9) / 3 - 1, key[2] + nb / 9 - 1);
                    if (id < 0) continue;
                    const int b = code[static_cast<std::size_t>(id)];
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
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < n; ++i)
            widen[static_cast<std::size_t>(i)] = came_to_four[static_cast<std::size_t>(i)] &&
                                                 bins_header[static_cast<std::size_t>(i)].bin_sub_scale == 4;
#pragma omp parallel for schedule(dynamic, 2048)
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
