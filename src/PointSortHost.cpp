// The point sorts on host memory: a parallel least-significant-digit radix sort of (hash, index)
// pairs, one byte a pass (passes whose byte is the same everywhere are left out), then the records are
// gathered in that order. The full order then sorts each run of equal hash, which is short: the points
// of one bin.
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "PointSort.h"

namespace SurfaceReconstruction {

namespace {

// The records in the order of their hash, equal hashes in input order.
void radixByHash(RawPointWithHash* points, std::int64_t n, std::vector<RawPointWithHash>& sorted) {
    std::vector<std::uint64_t> pairs(static_cast<std::size_t>(n)), other(static_cast<std::size_t>(n));
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i)
        pairs[static_cast<std::size_t>(i)] =
            (static_cast<std::uint64_t>(static_cast<std::uint32_t>(points[i].hash)) << 32) |
            static_cast<std::uint64_t>(i);
    const int threads = omp_get_max_threads();
    std::vector<std::int64_t> counts(static_cast<std::size_t>(threads) * 256);
    for (int pass = 0; pass < 4; ++pass) {
        const int shift = 32 + 8 * pass;
        std::fill(counts.begin(), counts.end(), 0);
        bool varies = false;
#pragma omp parallel num_threads(threads)
        {
            const int t = omp_get_thread_num(), team = omp_get_num_threads();
            const std::int64_t begin = n * t / team, end = n * (t + 1) / team;
            std::int64_t* mine = counts.data() + static_cast<std::size_t>(t) * 256;
            for (std::int64_t i = begin; i < end; ++i) ++mine[(pairs[static_cast<std::size_t>(i)] >> shift) & 255];
#pragma omp barrier
#pragma omp single
            {
                // Offsets digit by digit, thread by thread: the scatter keeps the order of equal digits.
                std::int64_t total = 0;
                int nonzero = 0;
                for (int d = 0; d < 256; ++d) {
                    bool used = false;
                    for (int u = 0; u < team; ++u) {
                        std::int64_t& c = counts[static_cast<std::size_t>(u) * 256 + static_cast<std::size_t>(d)];
                        used = used || c != 0;
                        const std::int64_t here = c;
                        c = total;
                        total += here;
                    }
                    nonzero += used ? 1 : 0;
                }
                varies = nonzero > 1;
            }
            if (varies) {
                for (std::int64_t i = begin; i < end; ++i) {
                    const std::uint64_t p = pairs[static_cast<std::size_t>(i)];
                    other[static_cast<std::size_t>(mine[(p >> shift) & 255]++)] = p;
                }
            }
        }
        if (varies) pairs.swap(other);
    }
    std::vector<std::uint64_t>().swap(other);
    sorted.resize(static_cast<std::size_t>(n));
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i)
        sorted[static_cast<std::size_t>(i)] = points[pairs[static_cast<std::size_t>(i)] & 0xFFFFFFFFull];
}

}  // namespace

void sortPointsFullyOnHost(RawPointWithHash* points, std::int64_t n) {
    if (n <= 1) return;
    std::vector<RawPointWithHash> sorted;
    radixByHash(points, n, sorted);
    // Each run of equal hash in the full order; runs begin where the hash changes.
    const RawPointWithHash_CMP_LESS less;
#pragma omp parallel for schedule(dynamic, 4096)
    for (std::int64_t i = 0; i < n; ++i) {
        if (i > 0 && sorted[static_cast<std::size_t>(i - 1)].hash == sorted[static_cast<std::size_t>(i)].hash) continue;
        std::int64_t end = i + 1;
        while (end < n && sorted[static_cast<std::size_t>(end)].hash == sorted[static_cast<std::size_t>(i)].hash) ++end;
        if (end - i > 1) std::sort(sorted.begin() + i, sorted.begin() + end, less);
    }
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) points[i] = sorted[static_cast<std::size_t>(i)];
}

void sortPointsByHashStableOnHost(RawPointWithHash* points, std::int64_t n) {
    if (n <= 1) return;
    std::vector<RawPointWithHash> sorted;
    radixByHash(points, n, sorted);
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) points[i] = sorted[static_cast<std::size_t>(i)];
}

}  // namespace SurfaceReconstruction
