// The lookup table of a block's bins, from a bin's grid key to its index. Over the bounding box of the
// block's bins it is a bitmap of the occupied keys with the count of set bits before each word: a key's
// bin is found by one bit test and one population count, without hashing. A word holds a brick of
// 4 x 4 x 4 keys, so that the keys a neighbourhood search asks for lie in a few words. Bins spread far
// beyond a block's grid (which the partition never produces) fall back to a hash table.
#include <algorithm>
#include <climits>
#include <cstdint>

#include "common/Atomics.h"
#include "common/GridHash.h"
#include "common/MemoryFailure.h"
#include "common/Morton.h"
#include "fusion/MarchingCubes.h"

namespace SurfaceReconstruction {

namespace {
// Bits the bitmap may have: a block of 512 bins with its margins needs 536^3, about 154 million.
constexpr std::int64_t BIN_BITMAP_MAX_BITS = std::int64_t{1} << 28;

}  // namespace

int MarchingCubes::prepareSimpleHash(const std::vector<BinsHeader>& bins_header) {
    m_bitmap_valid = false;
    if (buildBinBitmap(bins_header)) return 0;
    const std::uint64_t n = bins_header.size();
    // Sized by the block's bins, a quarter full at most; an insert takes at most one overflow slot.
    std::uint64_t buckets = 1024;
    while (buckets < 4 * n) buckets <<= 1;
    const std::uint64_t excess = n + 1024;
    const int result = m_bin_table->init(buckets, excess);
    if (result != 0) {
        m_last_error = memoryFailureText((buckets + excess) * sizeof(GridKeySlot<BinOfKey>));
        return result;
    }
    const std::int64_t count = static_cast<std::int64_t>(n);
    // Two bins with one key come from a run cut in chunks: the later bin wins, whatever the timing.
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < count; ++i) {
        std::int32_t key[3];
        gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
        GridKeySlot<BinOfKey>* entry = m_bin_table->findOrInsert(key[0], key[1], key[2]);
        if (entry == nullptr) continue;
        std::int32_t current = loadRelaxed(entry->value.bin);
        while (current < i && !compareExchangeWeakRelaxed(entry->value.bin, current, static_cast<std::int32_t>(i))) {
        }
    }
    return 0;
}

bool MarchingCubes::buildBinBitmap(const std::vector<BinsHeader>& bins_header) {
    const std::int64_t count = static_cast<std::int64_t>(bins_header.size());
    if (count == 0) return false;
    std::int32_t lo0 = INT32_MAX, lo1 = INT32_MAX, lo2 = INT32_MAX, hi0 = INT32_MIN, hi1 = INT32_MIN, hi2 = INT32_MIN;
#pragma omp parallel for schedule(static) reduction(min : lo0, lo1, lo2) reduction(max : hi0, hi1, hi2)
    for (std::int64_t i = 0; i < count; ++i) {
        std::int32_t key[3];
        gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
        lo0 = std::min(lo0, key[0]);
        lo1 = std::min(lo1, key[1]);
        lo2 = std::min(lo2, key[2]);
        hi0 = std::max(hi0, key[0]);
        hi1 = std::max(hi1, key[1]);
        hi2 = std::max(hi2, key[2]);
    }
    const std::int32_t lo[3] = {lo0, lo1, lo2}, hi[3] = {hi0, hi1, hi2};
    std::int64_t bits = 64;
    for (int k = 0; k < 3; ++k) {
        m_bitmap_min[k] = lo[k];
        m_bitmap_dim[k] = ((static_cast<std::int64_t>(hi[k]) - lo[k]) >> 2) + 1;  // bricks along the axis
        bits *= m_bitmap_dim[k];
        if (bits > BIN_BITMAP_MAX_BITS) return false;
    }
    const std::int64_t words = bits / 64;
    m_bin_bitmap.resize(static_cast<std::size_t>(words));
#pragma omp parallel for schedule(static)
    for (std::int64_t w = 0; w < words; ++w) m_bin_bitmap[static_cast<std::size_t>(w)] = 0;
    const auto bitOf = [this](const std::int32_t key[3]) { return binBit(key[0], key[1], key[2]); };
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < count; ++i) {
        std::int32_t key[3];
        gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
        const std::int64_t bit = bitOf(key);
        fetchOrRelaxed(m_bin_bitmap[static_cast<std::size_t>(bit / 64)], std::uint64_t{1} << (bit % 64));
    }
    // The rank of a set bit is the index of its key among the occupied ones.
    m_bitmap_rank.resize(static_cast<std::size_t>(words));
    std::int32_t occupied = 0;
    for (std::int64_t w = 0; w < words; ++w) {
        m_bitmap_rank[static_cast<std::size_t>(w)] = occupied;
        occupied += bitCount64(m_bin_bitmap[static_cast<std::size_t>(w)]);
    }
    // Two bins with one key come from a run cut in chunks: the later bin wins, whatever the timing.
    m_rank_to_bin.assign(static_cast<std::size_t>(occupied), -1);
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < count; ++i) {
        std::int32_t key[3];
        gridKey(bins_header[static_cast<std::size_t>(i)].center, m_resolution, key);
        const std::int64_t bit = bitOf(key);
        const std::uint64_t word = m_bin_bitmap[static_cast<std::size_t>(bit / 64)];
        const std::int32_t rank = m_bitmap_rank[static_cast<std::size_t>(bit / 64)] +
                                  bitCount64(word & ((std::uint64_t{1} << (bit % 64)) - 1));
        std::int32_t& slot = m_rank_to_bin[static_cast<std::size_t>(rank)];
        std::int32_t current = loadRelaxed(slot);
        while (current < i && !compareExchangeWeakRelaxed(slot, current, static_cast<std::int32_t>(i))) {
        }
    }
    m_bitmap_valid = true;
    return true;
}

std::int32_t MarchingCubes::findBinInTable(std::int32_t x, std::int32_t y, std::int32_t z) const {
    const GridKeySlot<BinOfKey>* entry = m_bin_table->find(x, y, z);
    return entry == nullptr ? -1 : entry->value.bin;
}

}  // namespace SurfaceReconstruction
