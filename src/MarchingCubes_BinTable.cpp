// The lookup table of a block's bins: from a bin's grid key to its index, with a bitmap of the occupied
// keys in front of it, since most keys that the searches ask for hold no bin.
#include <algorithm>
#include <climits>
#include <cstdint>

#include "Atomics.h"
#include "GridHash.h"
#include "MarchingCubes.h"
#include "SimpleLineHash.h"

namespace SurfaceReconstruction {

int MarchingCubes::prepareSimpleHash(const std::vector<BinsHeader>& bins_header) {
    const std::uint64_t n = bins_header.size();
    // Sized by the block's bins, a quarter full at most; an insert takes at most one overflow slot.
    std::uint64_t buckets = 1024;
    while (buckets < 4 * n) buckets <<= 1;
    const std::uint64_t excess = n + 1024;
    const int result = m_block_loc_hash->init(buckets, excess);
    if (result != 0) {
        m_last_error = " [MarchingCubes] block_loc_hash->init failed";
        return result;
    }
    const std::int64_t count = static_cast<std::int64_t>(n);
    // Two bins with one key come from a run cut in chunks: the later bin wins, whatever the timing.
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < count; ++i) {
        std::int32_t key[3];
        gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
        SimpleLineHashEntry* entry = nullptr;
        if (m_block_loc_hash->insert(key[0], key[1], key[2], entry) != 0) continue;
        std::int32_t current = loadRelaxed(entry->id);
        while (current < i && !compareExchangeWeakRelaxed(entry->id, current, static_cast<std::int32_t>(i))) {
        }
    }
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < count; ++i) {
        const BinsHeader& bin = bins_header[static_cast<std::size_t>(i)];
        std::int32_t key[3];
        gridKey(bin.center, m_resolution, key);
        SimpleLineHashEntry* entry = nullptr;
        if (m_block_loc_hash->find(key[0], key[1], key[2], entry) == 0 && entry->id == i)
            entry->flags = bin.bin_sub_scale;
    }
    buildBinBitmap(bins_header);
    return 0;
}

void MarchingCubes::buildBinBitmap(const std::vector<BinsHeader>& bins_header) {
    m_bitmap_valid = false;
    if (bins_header.empty()) return;
    std::int32_t lo[3] = {INT32_MAX, INT32_MAX, INT32_MAX}, hi[3] = {INT32_MIN, INT32_MIN, INT32_MIN};
    for (const BinsHeader& bin : bins_header) {
        std::int32_t key[3];
        gridKey(bin.center, m_resolution, key);
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], key[k]);
            hi[k] = std::max(hi[k], key[k]);
        }
    }
    std::int64_t bits = 1;
    for (int k = 0; k < 3; ++k) {
        m_bitmap_min[k] = lo[k];
        m_bitmap_dim[k] = static_cast<std::int64_t>(hi[k]) - lo[k] + 1;
        bits *= m_bitmap_dim[k];
        if (bits > (std::int64_t{1} << 27)) return;  // bins spread far beyond the grid: the table alone answers
    }
    m_bin_bitmap.assign(static_cast<std::size_t>((bits + 63) / 64), 0);
    const std::int64_t count = static_cast<std::int64_t>(bins_header.size());
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < count; ++i) {
        std::int32_t key[3];
        gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
        const std::int64_t bit =
            ((static_cast<std::int64_t>(key[2]) - m_bitmap_min[2]) * m_bitmap_dim[1] + (key[1] - m_bitmap_min[1])) *
                m_bitmap_dim[0] +
            (key[0] - m_bitmap_min[0]);
        fetchOrRelaxed(m_bin_bitmap[static_cast<std::size_t>(bit / 64)], std::uint64_t{1} << (bit % 64));
    }
    m_bitmap_valid = true;
}

std::int32_t MarchingCubes::findBin(std::int32_t x, std::int32_t y, std::int32_t z) const {
    if (m_bitmap_valid) {
        const std::int64_t dx = static_cast<std::int64_t>(x) - m_bitmap_min[0];
        const std::int64_t dy = static_cast<std::int64_t>(y) - m_bitmap_min[1];
        const std::int64_t dz = static_cast<std::int64_t>(z) - m_bitmap_min[2];
        if (dx < 0 || dy < 0 || dz < 0 || dx >= m_bitmap_dim[0] || dy >= m_bitmap_dim[1] || dz >= m_bitmap_dim[2])
            return -1;
        const std::int64_t bit = (dz * m_bitmap_dim[1] + dy) * m_bitmap_dim[0] + dx;
        if (((m_bin_bitmap[static_cast<std::size_t>(bit / 64)] >> (bit % 64)) & 1u) == 0) return -1;
    }
    SimpleLineHashEntry* entry = nullptr;
    if (m_block_loc_hash->find(x, y, z, entry) != 0) return -1;
    return entry->id;
}

}  // namespace SurfaceReconstruction
