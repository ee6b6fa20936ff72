// The point sorts on host memory: a parallel least-significant-digit radix sort of (hash, index)
// pairs, eleven bits a pass (passes whose digit is the same everywhere are left out). The stable sort
// then gathers the records in that order; the full order sorts each run of equal hash, which is short
// (the points of one bin), by their position bits first, and gathers its records in that order.
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <numeric>
#include <utility>
#include <vector>

#include "common/MemoryFailure.h"
#include "common/PointSort.h"
#include "common/RunStop.h"

namespace SurfaceReconstruction {

namespace {

// The (hash, index) pairs of the records in the order of their hash, equal hashes in input order, in
// `buffers.pairs`.
void radixPairsByHash(const RawPointWithHash* points, std::int64_t n, PointSortBuffers& buffers) {
    // Every element of the arrays is written before it is read: they are sized, not cleared.
    UninitialisedArray<std::uint64_t>& pairs = buffers.pairs;
    UninitialisedArray<std::uint64_t>& other = buffers.other;
    if (!buffers.of_a_piece) {  // what a larger block took before
        releasePagesBeyond(pairs, static_cast<std::size_t>(n));
        releasePagesBeyond(other, static_cast<std::size_t>(n));
        releasePagesBeyond(buffers.sorted, static_cast<std::size_t>(n));
    }
    pairs.clear();
    pairs.resize(static_cast<std::size_t>(n));
    other.clear();
    other.resize(static_cast<std::size_t>(n));
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i)
        pairs[static_cast<std::size_t>(i)] =
            (static_cast<std::uint64_t>(static_cast<std::uint32_t>(points[i].hash)) << 32) |
            static_cast<std::uint64_t>(i);
    const int threads = omp_get_max_threads();
    constexpr int DIGIT_BITS = 11;
    constexpr int DIGITS = 1 << DIGIT_BITS;
    std::vector<std::int64_t> counts(static_cast<std::size_t>(threads) * DIGITS);
    for (int shift = 32; shift < 64; shift += DIGIT_BITS) {
        if (!omp_in_parallel()) stopPoint();  // a large block's sort takes seconds: each pass is a safe point
        std::fill(counts.begin(), counts.end(), 0);
        bool varies = false;
#pragma omp parallel num_threads(threads)
        {
            const int t = omp_get_thread_num(), team = omp_get_num_threads();
            const std::int64_t begin = n * t / team, end = n * (t + 1) / team;
            std::int64_t* mine = counts.data() + static_cast<std::size_t>(t) * DIGITS;
            for (std::int64_t i = begin; i < end; ++i)
                ++mine[(pairs[static_cast<std::size_t>(i)] >> shift) & (DIGITS - 1)];
#pragma omp barrier
#pragma omp single
            {
                // Offsets digit by digit, thread by thread: the scatter keeps the order of equal digits.
                std::int64_t total = 0;
                int nonzero = 0;
                for (int d = 0; d < DIGITS; ++d) {
                    bool used = false;
                    for (int u = 0; u < team; ++u) {
                        std::int64_t& c = counts[static_cast<std::size_t>(u) * DIGITS + static_cast<std::size_t>(d)];
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
                    other[static_cast<std::size_t>(mine[(p >> shift) & (DIGITS - 1)]++)] = p;
                }
            }
        }
        if (varies) pairs.swap(other);
    }
}

// The records in the order of their hash, equal hashes in input order, into `buffers.sorted`.
void radixByHash(const RawPointWithHash* points, std::int64_t n, PointSortBuffers& buffers) {
    radixPairsByHash(points, n, buffers);
    const UninitialisedArray<std::uint64_t>& pairs = buffers.pairs;
    PointList& sorted = buffers.sorted;
    sorted.clear();
    sorted.resize(static_cast<std::size_t>(n));
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i)
        sorted[static_cast<std::size_t>(i)] = points[pairs[static_cast<std::size_t>(i)] & 0xFFFFFFFFull];
}

// Runs of at least this many points are sorted by a radix sort of their x bits where those span at most
// 24 bits (a bin's points away from x = 0): cheaper than comparisons, whose outcome the processor cannot
// guess.
constexpr std::int64_t RADIX_RUN = 48;

// The (x bits - least x bits, index) pairs of the run's records in the full order into `by_x`: a
// least-significant-digit radix sort by x bits, eight bits a pass, keeps records of equal x bits in the
// run's order, and those are then sorted field by field. False, and nothing sorted, where the x bits span
// more than 24 bits.
bool sortRunByX(const RawPointWithHash* points, const std::uint64_t* pairs, std::int64_t count,
                std::vector<std::uint64_t>& by_x, std::vector<std::uint64_t>& other) {
    std::uint32_t low = UINT32_MAX, high = 0;
    for (std::int64_t i = 0; i < count; ++i) {
        const std::uint32_t x = RawPointWithHash_CMP_LESS::bits(points[pairs[i] & 0xFFFFFFFFull].x);
        low = std::min(low, x);
        high = std::max(high, x);
    }
    const std::uint32_t span = high - low;
    if (span >= (1u << 24)) return false;
    const int passes = span < (1u << 8) ? 1 : (span < (1u << 16) ? 2 : 3);
    by_x.resize(static_cast<std::size_t>(count));
    other.resize(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
        const std::uint64_t index = pairs[i] & 0xFFFFFFFFull;
        by_x[static_cast<std::size_t>(i)] =
            (static_cast<std::uint64_t>(RawPointWithHash_CMP_LESS::bits(points[index].x) - low) << 32) | index;
    }
    for (int pass = 0; pass < passes; ++pass) {
        const int shift = 32 + 8 * pass;
        std::int32_t counts[256] = {};
        for (const std::uint64_t key : by_x) ++counts[(key >> shift) & 255];
        std::int32_t total = 0;
        for (std::int32_t& c : counts) {
            const std::int32_t here = c;
            c = total;
            total += here;
        }
        for (const std::uint64_t key : by_x) other[static_cast<std::size_t>(counts[(key >> shift) & 255]++)] = key;
        by_x.swap(other);
    }
    // Records of equal x bits, side by side now, in the full order.
    const RawPointWithHash_CMP_LESS less;
    for (std::int64_t i = 0; i < count;) {
        std::int64_t end = i + 1;
        while (end < count && (by_x[static_cast<std::size_t>(end)] >> 32) == (by_x[static_cast<std::size_t>(i)] >> 32))
            ++end;
        if (end - i > 1)
            std::sort(by_x.begin() + i, by_x.begin() + end, [&](std::uint64_t a, std::uint64_t b) {
                return less(points[a & 0xFFFFFFFFull], points[b & 0xFFFFFFFFull]);
            });
        i = end;
    }
    return true;
}

// Writes the `count` records that `pairs` names, all of one hash, to `out` in the full order. The points'
// x and y bits, as one integer, settle nearly every comparison; only points that share them are compared
// field by field. Points equal in the full order are equal in every byte, so the order of the sort does
// not show.
void writeRunSorted(const RawPointWithHash* points, const std::uint64_t* pairs, std::int64_t count,
                    RawPointWithHash* out, std::vector<std::pair<std::uint64_t, std::uint32_t>>& keys,
                    std::vector<std::uint64_t>& by_x, std::vector<std::uint64_t>& other) {
    if (count == 1) {
        *out = points[pairs[0] & 0xFFFFFFFFull];
        return;
    }
    const RawPointWithHash_CMP_LESS less;
    if (count >= RADIX_RUN && sortRunByX(points, pairs, count, by_x, other)) {
        for (std::int64_t i = 0; i < count; ++i) out[i] = points[by_x[static_cast<std::size_t>(i)] & 0xFFFFFFFFull];
        return;
    }
    keys.resize(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
        const std::uint32_t index = static_cast<std::uint32_t>(pairs[i] & 0xFFFFFFFFull);
        keys[static_cast<std::size_t>(i)] = {
            (static_cast<std::uint64_t>(RawPointWithHash_CMP_LESS::bits(points[index].x)) << 32) |
                RawPointWithHash_CMP_LESS::bits(points[index].y),
            index};
    }
    std::sort(keys.begin(), keys.end(), [&](const auto& a, const auto& b) {
        if (a.first != b.first) return a.first < b.first;
        return less(points[a.second], points[b.second]);
    });
    for (std::int64_t i = 0; i < count; ++i) out[i] = points[keys[static_cast<std::size_t>(i)].second];
}

// The full order into `buffers.sorted`: the radix sort of the pairs by hash, then each run of equal hash
// sorted by its keys and written from the input straight to its place (no copy in the hash order first).
void sortFully(const RawPointWithHash* points, std::int64_t n, PointSortBuffers& buffers) {
    radixPairsByHash(points, n, buffers);
    const std::uint64_t* pairs = buffers.pairs.data();
    PointList& sorted = buffers.sorted;
    sorted.clear();
    sorted.resize(static_cast<std::size_t>(n));
    // Runs begin where the hash (the pairs' upper half) changes. Within a team of its own (a piece of a
    // large block) the sort leaves the stop to the team's thread, after the team.
    const bool outside_team = !omp_in_parallel();
    if (outside_team) stopPoint();
    const std::atomic<bool>* stop = runStopFlag();
    TeamFailure failure;  // no room for a run's keys: thrown once the team has ended
#pragma omp parallel
    {
        std::vector<std::pair<std::uint64_t, std::uint32_t>> keys;
        std::vector<std::uint64_t> by_x, other;
#pragma omp for schedule(dynamic, 4096)
        for (std::int64_t i = 0; i < n; ++i) {
            if (i > 0 && (pairs[i - 1] >> 32) == (pairs[i] >> 32)) continue;
            if (stopAsked(stop) || failure.failed()) continue;  // the run stops after the loop
            std::int64_t end = i + 1;
            while (end < n && (pairs[end] >> 32) == (pairs[i] >> 32)) ++end;
            // The records of about the next run are asked for now: they lie anywhere in the input, and
            // their reads then overlap this run's sort.
            for (std::int64_t j = end; j < n && j < end + (end - i); ++j)
                __builtin_prefetch(points + (pairs[j] & 0xFFFFFFFFull));
            failure.run([&] { writeRunSorted(points, pairs + i, end - i, sorted.data() + i, keys, by_x, other); });
        }
    }
    failure.rethrow();
    if (outside_team) stopPoint();
}

// A piece of the array in the full order through the buffers, copied back into its place.
void sortPieceThroughBuffers(RawPointWithHash* points, std::int64_t n, PointSortBuffers& buffers) {
    if (n <= 1) return;
    sortFully(points, n, buffers);
    std::copy(buffers.sorted.begin(), buffers.sorted.begin() + n, points);
}

// Ranges of fewer points are put into groups on one core.
constexpr std::int64_t PART_POINTS = 65536;

// A range of the array still to be put in the full order.
struct PointRange {
    RawPointWithHash* points;
    std::int64_t count;
};

// Moves the points of a range for which `low` holds before the others, on all cores, and returns how many
// there are. Each thread parts its own stripe where it lies; then the points on the wrong side of where
// the two parts meet trade places, the k-th misplaced point of the front with the k-th of the back. The
// order within each part follows the threads; the full sort of the pieces settles it.
template <class Low>
std::int64_t partInTwo(RawPointWithHash* points, std::int64_t n, Low low) {
    const int threads = omp_get_max_threads();
    std::vector<std::int64_t> low_count(static_cast<std::size_t>(threads), 0);
    int team = 1;  // the stripes: as many as the team has threads, which may be fewer than asked
#pragma omp parallel num_threads(threads)
    {
        const int t = omp_get_thread_num(), size = omp_get_num_threads();
#pragma omp single
        team = size;
        RawPointWithHash* begin = points + n * t / size;
        RawPointWithHash* end = points + n * (t + 1) / size;
        low_count[static_cast<std::size_t>(t)] = std::partition(begin, end, low) - begin;
    }
    // The segments out of place: the back points in front of the meeting place, the front points after it.
    const std::int64_t meet = std::accumulate(low_count.begin(), low_count.begin() + team, std::int64_t{0});
    struct Segment {
        std::int64_t from, to;
    };
    std::vector<Segment> backs, fronts;  // in address order
    for (int t = 0; t < team; ++t) {
        const std::int64_t begin = n * t / team, end = n * (t + 1) / team;
        const std::int64_t split = begin + low_count[static_cast<std::size_t>(t)];
        if (split < meet) backs.push_back({split, std::min(end, meet)});     // back points before the meeting
        if (split > meet) fronts.push_back({std::max(begin, meet), split});  // front points after it
    }
    std::int64_t misplaced = 0;
    for (const Segment& b : backs) misplaced += b.to - b.from;
    // The k-th point of a list of segments.
    const auto place = [](const std::vector<Segment>& list, std::int64_t k) {
        std::size_t i = 0;
        while (k >= list[i].to - list[i].from) {
            k -= list[i].to - list[i].from;
            ++i;
        }
        return std::pair<std::size_t, std::int64_t>(i, list[i].from + k);
    };
#pragma omp parallel num_threads(threads) if (misplaced > 65536)
    {
        const int t = omp_get_thread_num(), size = omp_get_num_threads();
        std::int64_t k = misplaced * t / size;
        const std::int64_t k_end = misplaced * (t + 1) / size;
        if (k < k_end) {
            auto [bi, b] = place(backs, k);
            auto [fi, f] = place(fronts, k);
            while (k < k_end) {
                const std::int64_t step = std::min({k_end - k, backs[bi].to - b, fronts[fi].to - f});
                std::swap_ranges(points + b, points + b + step, points + f);
                k += step;
                b += step;
                f += step;
                if (k < k_end && b == backs[bi].to) b = backs[++bi].from;
                if (k < k_end && f == fronts[fi].to) f = fronts[++fi].from;
            }
        }
    }
    return meet;
}

// Moves the points of a range into groups (each point swapped into its group's next place, as an
// in-place radix sort does): a group holds the points of consecutive values of the 16 highest bits in
// which their hashes differ, up to `piece` points together, or those of one value alone where they are
// more. That puts the groups in the order of their hashes; a group goes to `pieces`, or to `larger` where
// it holds more than a piece. Without two differing hashes the range is one piece, however large. With
// more than one core the range is first parted in two by groups, each part about half of its points, as
// often as there are cores to give each part one; the parts then take their groups' places each on a
// core of its own.
void cutIntoPieces(const PointRange& range, std::int64_t piece, std::vector<PointRange>& pieces,
                   std::vector<PointRange>& larger) {
    RawPointWithHash* points = range.points;
    const std::int64_t n = range.count;
    const std::uint32_t first = static_cast<std::uint32_t>(points[0].hash);
    std::uint32_t differ = 0;
#pragma omp parallel for schedule(static) reduction(| : differ)
    for (std::int64_t i = 0; i < n; ++i) differ |= static_cast<std::uint32_t>(points[i].hash) ^ first;
    if (differ == 0) {
        pieces.push_back(range);
        return;
    }
    // The points' fine groups, by the 16 highest bits in which their hashes differ, counted on all cores;
    // then groups of consecutive fine groups of up to `piece` points together (a fine group of more on its
    // own), each group a piece already, or a range cut again.
    constexpr int FINE_BITS = 16;
    constexpr std::uint32_t FINE = 1u << FINE_BITS;
    const int top = 31 - __builtin_clz(differ);
    const int shift = top >= FINE_BITS - 1 ? top - (FINE_BITS - 1) : 0;
    const auto fine = [shift](const RawPointWithHash& p) {
        return (static_cast<std::uint32_t>(p.hash) >> shift) & (FINE - 1);
    };
    std::vector<std::int64_t> fine_count(FINE, 0);
    // Each thread's counts, allocated before the team: nothing within it can fail. A block's points have
    // 32-bit places, so a thread's count fits 32 bits.
    std::vector<std::uint32_t> counts(static_cast<std::size_t>(omp_get_max_threads()) * FINE, 0);
#pragma omp parallel
    {
        std::uint32_t* mine = counts.data() + static_cast<std::size_t>(omp_get_thread_num()) * FINE;
#pragma omp for schedule(static) nowait
        for (std::int64_t i = 0; i < n; ++i) ++mine[fine(points[i])];
#pragma omp critical
        for (std::uint32_t f = 0; f < FINE; ++f) fine_count[f] += mine[f];
    }
    std::vector<std::uint16_t> group_of(FINE);
    std::vector<std::int64_t> start{0};
    std::int64_t held = 0;  // the points of the group being filled
    for (std::uint32_t f = 0; f < FINE; ++f) {
        if (held > 0 && held + fine_count[f] > piece) {
            start.push_back(start.back() + held);
            held = 0;
        }
        group_of[f] = static_cast<std::uint16_t>(start.size() - 1);
        held += fine_count[f];
    }
    start.push_back(start.back() + held);
    const std::uint32_t GROUPS = static_cast<std::uint32_t>(start.size() - 1);
    const auto group = [&](const RawPointWithHash& p) { return static_cast<std::uint32_t>(group_of[fine(p)]); };
    // Parts of whole groups [first, last): the part with the most points is cut at the group boundary
    // nearest its middle while there are more cores than parts.
    std::vector<std::pair<std::uint32_t, std::uint32_t>> parts{{0, GROUPS}};
    const int threads = omp_get_max_threads();
    while (static_cast<int>(parts.size()) < threads && n >= PART_POINTS) {
        std::size_t largest = 0;
        for (std::size_t i = 1; i < parts.size(); ++i)
            if (start[parts[i].second] - start[parts[i].first] >
                start[parts[largest].second] - start[parts[largest].first])
                largest = i;
        const auto [first, last] = parts[largest];
        const std::int64_t middle = (start[first] + start[last]) / 2;
        std::uint32_t cut = first + 1;
        for (std::uint32_t g = first + 2; g < last; ++g)
            if (std::llabs(start[g] - middle) < std::llabs(start[cut] - middle)) cut = g;
        if (cut >= last || start[cut] == start[first] || start[cut] == start[last] ||
            start[last] - start[first] < PART_POINTS)
            break;  // one group holds the part's points
        partInTwo(points + start[first], start[last] - start[first],
                  [&](const RawPointWithHash& p) { return group(p) < cut; });
        parts[largest] = {first, cut};
        parts.insert(parts.begin() + static_cast<std::ptrdiff_t>(largest) + 1, {cut, last});
    }
    // Each group's next place moves through the group front to back: a few points ahead of it are
    // fetched early, which hides most of the wait for memory on the part's thread.
    constexpr std::int64_t AHEAD = 6;
    std::vector<std::int64_t> next(start.begin(), start.end() - 1);
    const std::int64_t part_count = static_cast<std::int64_t>(parts.size());
#pragma omp parallel for schedule(dynamic, 1) if (part_count > 1)
    for (std::int64_t part = 0; part < part_count; ++part) {
        for (std::uint32_t g = parts[static_cast<std::size_t>(part)].first;
             g < parts[static_cast<std::size_t>(part)].second; ++g) {
            while (next[g] < start[g + 1]) {
                RawPointWithHash moving = points[next[g]];
                for (std::uint32_t to = group(moving); to != g; to = group(moving)) {
                    const std::int64_t place = next[to]++;
                    if (place + AHEAD < start[to + 1]) __builtin_prefetch(points + place + AHEAD, 1);
                    std::swap(moving, points[place]);
                }
                points[next[g]++] = moving;
            }
        }
    }
    for (std::uint32_t g = 0; g < GROUPS; ++g) {
        const PointRange part{points + start[g], start[g + 1] - start[g]};
        if (part.count > piece) {
            larger.push_back(part);  // one fine group: its hashes differ only below `shift`
        } else if (part.count > 0) {
            pieces.push_back(part);
        }
    }
}

// The full order of an array larger than a piece, where it lies: cut into pieces of consecutive hash
// groups, each piece then sorted through a thread's own buffers of its size, the pieces on all cores.
// The buffers hold a piece a thread, not a copy of the array.
void sortWherePointsLie(RawPointWithHash* points, std::int64_t n, std::int64_t piece, PointSortBuffers& owner) {
    std::vector<PointRange> pieces, larger{{points, n}};
    while (!larger.empty()) {
        const PointRange range = larger.back();
        larger.pop_back();
        cutIntoPieces(range, piece, pieces, larger);
    }
    const std::int64_t count = static_cast<std::int64_t>(pieces.size());
    // No exception leaves the team: the first one (no room for a piece's buffers, a stop asked within a
    // piece's passes) is kept and thrown once the team has ended.
    TeamFailure failure;
    const std::atomic<bool>* stop = runStopFlag();
    const int threads = omp_get_max_threads();
    if (owner.pieces.size() < static_cast<std::size_t>(threads)) owner.pieces.resize(static_cast<std::size_t>(threads));
    for (PointSortBuffers& buffers : owner.pieces) buffers.of_a_piece = true;
#pragma omp parallel num_threads(threads)
    {
        // Inside this team the sort of a piece runs on its thread alone.
        PointSortBuffers& buffers = owner.pieces[static_cast<std::size_t>(omp_get_thread_num())];
#pragma omp for schedule(dynamic, 1)
        for (std::int64_t i = 0; i < count; ++i) {
            if (stopAsked(stop) || failure.failed()) continue;  // the run stops after the team
            failure.run([&] {
                sortPieceThroughBuffers(pieces[static_cast<std::size_t>(i)].points,
                                        pieces[static_cast<std::size_t>(i)].count, buffers);
            });
        }
    }
    failure.rethrow();
    stopPoint();
}

}  // namespace

void sortPointsFullyOnHost(RawPointWithHash* points, std::int64_t n) {
    if (n <= 1) return;
    PointSortBuffers buffers;
    sortFully(points, n, buffers);
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) points[i] = buffers.sorted[static_cast<std::size_t>(i)];
}

void sortPointsFullyOnHost(PointList& points, PointSortBuffers& buffers, std::int64_t piece_points) {
    const std::int64_t n = static_cast<std::int64_t>(points.size());
    if (n <= 1) return;
    if (n > piece_points) {
        sortWherePointsLie(points.data(), n, piece_points, buffers);
        return;
    }
    sortFully(points.data(), n, buffers);
    // The sorted array takes the place of the old one, whose storage holds the next sorted copy.
    points.swap(buffers.sorted);
}

void sortPointsByHashStableOnHost(RawPointWithHash* points, std::int64_t n) {
    if (n <= 1) return;
    PointSortBuffers buffers;
    radixByHash(points, n, buffers);
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) points[i] = buffers.sorted[static_cast<std::size_t>(i)];
}

}  // namespace SurfaceReconstruction
