// How far apart the points of a scan lie, the resolution that suits them, and each point's cell size from
// the density around it. The nearest points of each measured point are found exactly, on all cores, in a
// hashed grid of small cells over all points; a plain scan or a k-d tree answers the few lookups that the
// grid suits badly. The same grid counts the points around each of its cells for the cell sizes.
#include <omp.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <nanoflann.hpp>

#include "MeshInternal.h"

namespace SurfaceReconstruction {

namespace {

// The engine's resolution limits.
constexpr float LOWEST_RESOLUTION = 0.001f;
constexpr float HIGHEST_RESOLUTION = 100000.0f;
// Triangles a cell edge squared of surface gives, measured on scans of the Stanford bunny from 0.5 to
// 4 mm (2.85 to 2.9), rounded down.
constexpr double TRIANGLES_PER_SQUARE_EDGE = 2.8;

constexpr std::size_t NEIGHBOURS = SPACING_NEIGHBOURS + 1;  // the measured point itself comes first
constexpr double PI = 3.14159265358979323846;

// The scale codes, finest first, and each low byte's index among them: 0 and unlisted codes read as 8.
constexpr int CODES[7] = {64, 32, 16, 8, 4, 2, 1};
struct CodeIndex {
    std::uint8_t of[256] = {};
    constexpr CodeIndex() {
        for (int byte = 0; byte < 256; ++byte) of[byte] = 3;
        for (int k = 0; k < 7; ++k) of[CODES[k]] = static_cast<std::uint8_t>(k);
    }
};
constexpr CodeIndex CODE_INDEX;

// A point the engine uses: finite, with a normal of some length, and not at the origin (the engine
// skips points whose coordinates are all nearer to zero than 0.1).
bool usable(const Vec3f& p, const Vec3f& n) {
    for (int k = 0; k < 3; ++k)
        if (!std::isfinite(p[k]) || !std::isfinite(n[k])) return false;
    if (!(n[0] * n[0] + n[1] * n[1] + n[2] * n[2] > 0.0f)) return false;
    return !(std::fabs(p[0]) < 0.1f && std::fabs(p[1]) < 0.1f && std::fabs(p[2]) < 0.1f);
}

// The squared distance as the k-d tree's metric (nanoflann's L2_Simple_Adaptor) computes it, rounding for
// rounding: ((0 + dx dx) + dy dy) + dz dz with d = query - point (this file is built without contracted
// multiply-adds). The figures depend only on the k smallest of these, whatever finds them.
inline float squaredDistance(const float* q, const Vec3f& p) {
    const float dx = q[0] - p[0], dy = q[1] - p[1], dz = q[2] - p[2];
    float d = 0.0f;
    d += dx * dx;
    d += dy * dy;
    d += dz * dz;
    return d;
}

// The k-d tree takes a point only below the largest float: farther ones (an overflow) are never found.
inline bool findable(float squared) { return squared < std::numeric_limits<float>::max(); }

// The set bits of a word (the processors this is built for need not count them in one instruction).
inline std::uint32_t bitCount(std::uint64_t x) {
    x -= (x >> 1) & 0x5555555555555555ull;
    x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    return static_cast<std::uint32_t>((x * 0x0101010101010101ull) >> 56);
}

// Appends to `out` the squared distances from `q` to points[0, n) below `bound` (not above the largest
// float) and counts the zeros among them, until `enough` zeros: false when more than `room` would be
// appended. Four points at a time where the processor has SSE2, each rounded as squaredDistance rounds it.
inline bool distancesBelow(const float* q, const Vec3f* points, std::size_t n, float bound, float* out,
                           std::size_t& count, std::size_t room, std::size_t& zeros, std::size_t enough) {
    std::size_t i = 0;
#if defined(__SSE2__)
    static_assert(sizeof(Vec3f) == 3 * sizeof(float), "the points lie float after float");
    const __m128 qx = _mm_set1_ps(q[0]), qy = _mm_set1_ps(q[1]), qz = _mm_set1_ps(q[2]);
    const __m128 below = _mm_set1_ps(bound), zero = _mm_setzero_ps();
    const float* p = points[0].data();
    for (; i + 4 <= n; i += 4, p += 12) {
        // x0 y0 z0 x1 | y1 z1 x2 y2 | z2 x3 y3 z3, to x0 x1 x2 x3, y0 ..., z0 ...
        const __m128 a = _mm_loadu_ps(p), b = _mm_loadu_ps(p + 4), c = _mm_loadu_ps(p + 8);
        const __m128 x = _mm_shuffle_ps(a, _mm_shuffle_ps(b, c, _MM_SHUFFLE(1, 0, 3, 2)), _MM_SHUFFLE(3, 0, 3, 0));
        const __m128 y = _mm_shuffle_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(0, 0, 1, 1)),
                                        _mm_shuffle_ps(b, c, _MM_SHUFFLE(2, 2, 3, 3)), _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 z = _mm_shuffle_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 1, 2, 2)),
                                        _mm_shuffle_ps(c, c, _MM_SHUFFLE(3, 3, 0, 0)), _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 dx = _mm_sub_ps(qx, x), dy = _mm_sub_ps(qy, y), dz = _mm_sub_ps(qz, z);
        const __m128 d = _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        int take = _mm_movemask_ps(_mm_cmplt_ps(d, below));
        if (take == 0) continue;
        if (count + 4 > room) return false;
        zeros += bitCount(static_cast<std::uint64_t>(_mm_movemask_ps(_mm_cmpeq_ps(d, zero)) & take));
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, d);
        for (; take != 0; take &= take - 1) out[count++] = lanes[__builtin_ctz(take)];
        if (zeros >= enough) return true;
    }
#endif
    for (; i < n; ++i) {
        const float d = squaredDistance(q, points[i]);
        if (!(d < bound)) continue;
        if (count == room) return false;
        out[count++] = d;
        if (d == 0.0f && ++zeros >= enough) return true;
    }
    return true;
}

// A stretch of at most PIECE_POINTS points of one frame (or of a copy of points): the units of work, the
// same for any thread count.
constexpr std::size_t PIECE_POINTS = std::size_t(1) << 15;
struct Piece {
    const Vec3f* xyz = nullptr;
    const Vec3f* nor = nullptr;        // null: every point is usable (a copy of usable points)
    const std::int32_t* w = nullptr;   // the words of the first `words` points; the rest count as 8
    std::size_t words = 0, count = 0;  // points
    std::size_t usable = 0;            // usable points, once counted
};

// The pieces of the frames' first min(xyz, nor) points, or min(xyz, nor, w) with `with_words`.
std::vector<Piece> piecesOf(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, bool with_words) {
    std::vector<Piece> pieces;
    for (const auto& frame : frames) {
        if (!frame) continue;
        std::size_t n = std::min(frame->xyz.size(), frame->nor.size());
        if (with_words) n = std::min(n, frame->w.size());
        for (std::size_t begin = 0; begin < n; begin += PIECE_POINTS) {
            Piece piece;
            piece.xyz = frame->xyz.data() + begin;
            piece.nor = frame->nor.data() + begin;
            piece.count = std::min(PIECE_POINTS, n - begin);
            if (begin < frame->w.size()) {
                piece.w = frame->w.data() + begin;
                piece.words = std::min(piece.count, frame->w.size() - begin);
            }
            pieces.push_back(piece);
        }
    }
    return pieces;
}

std::vector<Piece> piecesOf(const std::vector<Vec3f>& points) {
    std::vector<Piece> pieces;
    for (std::size_t begin = 0; begin < points.size(); begin += PIECE_POINTS) {
        Piece piece;
        piece.xyz = points.data() + begin;
        piece.count = std::min(PIECE_POINTS, points.size() - begin);
        pieces.push_back(piece);
    }
    return pieces;
}

inline bool usableIn(const Piece& piece, std::size_t i) { return !piece.nor || usable(piece.xyz[i], piece.nor[i]); }
inline int codeIndexIn(const Piece& piece, std::size_t i) {
    return i < piece.words ? CODE_INDEX.of[piece.w[i] & 0xFF] : 3;
}

// The usable points and the points of each code (finest first), counted on all cores; each piece's usable
// points too.
struct Counts {
    std::size_t usable = 0;
    std::size_t codes[7] = {};
};
Counts countPieces(std::vector<Piece>& pieces) {
    std::vector<std::array<std::size_t, 7>> codes(pieces.size());
    const std::ptrdiff_t n = static_cast<std::ptrdiff_t>(pieces.size());
#pragma omp parallel for schedule(dynamic, 4)
    for (std::ptrdiff_t p = 0; p < n; ++p) {
        Piece& piece = pieces[p];
        std::array<std::size_t, 7> counted{};
        for (std::size_t i = 0; i < piece.count; ++i)
            if (usableIn(piece, i)) ++counted[codeIndexIn(piece, i)];
        codes[p] = counted;
        piece.usable = 0;
        for (const std::size_t c : counted) piece.usable += c;
    }
    Counts counts;
    for (const auto& counted : codes)
        for (int k = 0; k < 7; ++k) counts.codes[k] += counted[k];
    for (const std::size_t c : counts.codes) counts.usable += c;
    return counts;
}

// The finest scale code that at least a tenth of the `points` ask for.
int finestTenth(const std::size_t (&codes)[7], std::size_t points) {
    for (std::size_t k = 0, sum = 0; k < 7; ++k) {
        sum += codes[k];
        if (10 * sum >= points) return CODES[k];
    }
    return 8;
}

// Every stride-th point is measured, so that the measured ones spread over the whole scan.
std::size_t strideFor(std::size_t points, std::size_t max_measured) {
    return std::max<std::size_t>(1, points / max_measured + (points % max_measured != 0 ? 1 : 0));
}

// The median of `values` (reordered); 0 when empty.
float median(std::vector<float>& values) {
    if (values.empty()) return 0.0f;
    const std::size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle), values.end());
    float m = values[middle];
    if (values.size() % 2 == 0)
        m = 0.5f * (m + *std::max_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle)));
    return m;
}

// A k-d tree over points in memory (nanoflann).
struct Cloud {
    const Vec3f* points;
    std::size_t count;
    std::size_t kdtree_get_point_count() const { return count; }
    float kdtree_get_pt(std::size_t i, std::size_t k) const { return points[i][k]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const {
        return false;
    }
};
using Tree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Cloud>, Cloud, 3, std::uint32_t>;

// What one measured point adds to the figures: the distance to its nearest point at another position and
// the even spacing its k-th nearest point gives (each -1 when there is none), from the squared distances
// of its `found` nearest points in any order.
struct Measured {
    float nearest = -1.0f, even = -1.0f;
};
Measured figuresOf(const float* squared, std::size_t found) {
    Measured m;
    float nearest = std::numeric_limits<float>::infinity(), last = 0.0f;
    for (std::size_t j = 0; j < found; ++j) {
        if (squared[j] > 0.0f) nearest = std::min(nearest, squared[j]);
        last = std::max(last, squared[j]);
    }
    if (nearest < std::numeric_limits<float>::infinity()) m.nearest = std::sqrt(nearest);
    if (found >= 2 && last > 0.0f) m.even = static_cast<float>(std::sqrt(last * PI / static_cast<double>(found - 1)));
    return m;
}

// The k smallest findable squared distances from `q` to `points`, by looking at every point; the count.
std::size_t scanNeighbours(const float* q, const Vec3f* points, std::size_t count, std::size_t k, float* best) {
    std::size_t found = 0;  // best[0, found) is a max-heap
    for (std::size_t i = 0; i < count; ++i) {
        const float d = squaredDistance(q, points[i]);
        if (!findable(d)) continue;
        if (found < k) {
            best[found++] = d;
            std::push_heap(best, best + found);
        } else if (d < best[0]) {
            std::pop_heap(best, best + found);
            best[found - 1] = d;
            std::push_heap(best, best + found);
        }
    }
    return found;
}

// An array left uninitialised: its pages are first touched where it is filled, on all cores.
template <class T>
std::unique_ptr<T[]> rawArray(std::size_t n) {
    return std::unique_ptr<T[]>(new T[n]);
}

// The grid: cell (i, j, k) holds the points with floor((p - origin) / edge) = (i, j, k). Cells are grouped
// in blocks of 4 x 4 x 4, blocks in groups of 4 x 4 x 4; a group is hashed to one of 2^bits slots of 64
// buckets, one a block of the group (a slot may hold several groups). A point's key is its block's bucket
// and its cell's place in the block (6 bits each). The points sorted by key lie slot by slot: the points
// of a frame, read in order, go to few slots at a time, and a lookup finds its cells in few places.
constexpr double CELL_LIMIT = 1099511627776.0;  // 2^40 edges: cell numbers are clamped here
// How far from its cell a point may lie, in edges, by the rounding of its cell number, with room.
constexpr double SLOP_EDGES = 0x1p-10;
constexpr int MAX_SLOT_BITS = 19;               // keys below 2^31: UNUSABLE is none of them
constexpr std::uint32_t UNUSABLE = UINT32_MAX;  // the key of a point that is left out

struct Grid {
    double origin[3] = {0, 0, 0};
    double per_edge = 1.0;  // 1 / edge
    int bits = 1;

    // A coordinate in edges from the origin, clamped to +-CELL_LIMIT.
    double coordinate(float x, int axis) const {
        const double t = (static_cast<double>(x) - origin[axis]) * per_edge;
        return std::min(std::max(t, -CELL_LIMIT), CELL_LIMIT);
    }
    // The cell number of a coordinate: truncated after a shift by CELL_LIMIT (a floor of what is not
    // negative), which first rounds it to 2^-12 edges. Far points (beyond CELL_LIMIT) share the outermost
    // cells: they lie farther from every other cell than their own does.
    std::int64_t cellOf(float x, int axis) const {
        const double u = (static_cast<double>(x) - origin[axis]) * per_edge + CELL_LIMIT;
        return static_cast<std::int64_t>(std::min(std::max(u, 0.0), 2 * CELL_LIMIT)) -
               static_cast<std::int64_t>(CELL_LIMIT);
    }
    static std::int64_t floorOf(double t) {
        const std::int64_t i = static_cast<std::int64_t>(t);
        return i - (t < static_cast<double>(i) ? 1 : 0);
    }
    // The slot of a group by its numbers (a cell's numbers divided by 16: an arithmetic shift, a floor).
    std::uint32_t slotOf(std::int64_t gi, std::int64_t gj, std::int64_t gk) const {
        const std::uint64_t h = static_cast<std::uint64_t>(gi) * 0x9E3779B97F4A7C15ull ^
                                static_cast<std::uint64_t>(gj) * 0xC2B2AE3D27D4EB4Full ^
                                static_cast<std::uint64_t>(gk) * 0x165667B19E3779F9ull;
        return static_cast<std::uint32_t>(((h ^ h >> 31) * 0xBF58476D1CE4E5B9ull) >> (64 - bits));
    }
    static std::uint32_t placeOf(std::int64_t i, std::int64_t j, std::int64_t k) {
        return static_cast<std::uint32_t>((i & 3) | (j & 3) << 2 | (k & 3) << 4);
    }
    // A block's bucket by its numbers (a cell's numbers divided by 4).
    std::uint32_t bucket(std::int64_t bi, std::int64_t bj, std::int64_t bk) const {
        return slotOf(bi >> 2, bj >> 2, bk >> 2) << 6 | placeOf(bi, bj, bk);
    }
    // The last group met and its slot: the points of a frame come group after group.
    struct Recent {
        std::int64_t group[3] = {INT64_MIN, 0, 0};  // a cell of the group
        std::uint32_t slot = 0;
    };
    std::uint32_t keyOf(const Vec3f& p, Recent& recent) const {
        const std::int64_t i = cellOf(p[0], 0), j = cellOf(p[1], 1), k = cellOf(p[2], 2);
        if (((i ^ recent.group[0]) | (j ^ recent.group[1]) | (k ^ recent.group[2])) >> 4 != 0) {
            recent.group[0] = i;
            recent.group[1] = j;
            recent.group[2] = k;
            recent.slot = slotOf(i >> 4, j >> 4, k >> 4);
        }
        // The block's place (bits 6-11) and the cell's (bits 0-5), from the low 4 bits of each number.
        const std::uint32_t x = static_cast<std::uint32_t>(i), y = static_cast<std::uint32_t>(j),
                            z = static_cast<std::uint32_t>(k);
        return recent.slot << 12 | (x & 3) | (x & 12) << 4 | (y & 3) << 2 | (y & 12) << 6 | (z & 3) << 4 |
               (z & 12) << 8;
    }
    std::uint32_t keyOf(const Vec3f& p) const {
        Recent recent;
        return keyOf(p, recent);
    }
};

// A cell edge of about the distance from a typical point to its 64th nearest, measured on a thin sample of
// the points (a k-d tree over it) and scaled back to all points as on a surface; a slot for about
// POINTS_PER_SLOT points. Only the speed of the lookups depends on them (measured on the simulated scans of
// 1 to 10 million points: edges of 0.7 to 1.4 such distances, 1024 to 8192 points a slot, within 10 %).
constexpr std::size_t EDGE_SAMPLE = 8192;
constexpr std::size_t EDGE_LOOKUPS = 256;
constexpr std::size_t POINTS_PER_SLOT = 2048;

// The grid from its sample (the usable points whose place among all points is a multiple of the step):
// its first point is the origin, the median distance to the 64th nearest the edge, scaled to `points`.
Grid gridFromSample(const std::vector<Vec3f>& sample, std::size_t points) {
    Grid grid;
    while (grid.bits < MAX_SLOT_BITS && (std::size_t(1) << grid.bits) < points / POINTS_PER_SLOT) ++grid.bits;
    if (sample.empty()) return grid;
    for (int a = 0; a < 3; ++a) grid.origin[a] = sample[0][a];
    double edge = 0.0;
    if (sample.size() > NEIGHBOURS) {
        const Cloud cloud{sample.data(), sample.size()};
        const Tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(16));
        std::vector<float> kth;
        std::uint32_t index[NEIGHBOURS];
        float squared[NEIGHBOURS];
        for (std::size_t i = 0; i < sample.size(); i += std::max<std::size_t>(1, sample.size() / EDGE_LOOKUPS))
            if (tree.knnSearch(sample[i].data(), NEIGHBOURS, index, squared) == NEIGHBOURS &&
                squared[NEIGHBOURS - 1] > 0.0f)
                kth.push_back(squared[NEIGHBOURS - 1]);
        if (!kth.empty())  // a sample s times thinner lies sqrt(s) times farther apart
            edge = std::sqrt(median(kth) * static_cast<double>(sample.size()) /
                             static_cast<double>(std::max(points, sample.size())));
    }
    if (!(edge > 0.0) || !std::isfinite(edge) || !std::isfinite(1.0 / edge)) {
        // No spread in the sample: cells sized to its extent (any edge keeps the lookups exact).
        double extent = 0.0;
        for (const Vec3f& p : sample)
            for (int a = 0; a < 3; ++a) extent = std::max(extent, std::fabs(double(p[a]) - grid.origin[a]));
        edge = extent > 0.0 ? extent / std::cbrt(static_cast<double>(std::max<std::size_t>(points, 1))) : 1.0;
        if (!std::isfinite(1.0 / edge)) edge = 1.0;
    }
    grid.per_edge = 1.0 / edge;
    return grid;
}

// Every step-th of all `raw` points, where usable, makes the grid's sample.
std::size_t gridSampleStep(std::size_t raw) { return std::max<std::size_t>(1, raw / EDGE_SAMPLE); }

Grid gridFor(const std::vector<Piece>& pieces, std::size_t raw, std::size_t points) {
    const std::size_t step = gridSampleStep(raw);
    std::vector<Vec3f> sample;
    std::size_t next = 0, passed = 0;
    for (const Piece& piece : pieces) {
        for (; next < passed + piece.count; next += step)
            if (usableIn(piece, next - passed)) sample.push_back(piece.xyz[next - passed]);
        passed += piece.count;
    }
    return gridFromSample(sample, points);
}

// The points sorted by key: slot by slot, in a slot block by block, in a block cell by cell. The cells of
// bucket b that hold points are the set bits of blocks[b].cells; the one of rank r (counted from bit 0)
// holds points[start[blocks[b].first + r], start[blocks[b].first + r + 1]).
struct Block {
    std::uint64_t cells = 0;
    std::uint32_t first = 0;
};
struct Bucketed {
    Grid grid;
    std::unique_ptr<Vec3f[]> points;
    std::size_t count = 0;
    std::vector<Block> blocks;
    std::vector<std::uint32_t> start;
};

// The lookups' limits; beyond them a lookup is left to the fallback.
constexpr double START_REACH = 1.0;            // cell edges searched around the point at first
constexpr double MAX_REACH = 16.0;             // at most so many cell edges
constexpr std::size_t MAX_BLOCKS = 1024;       // ... in at most so many blocks
constexpr std::size_t MAX_CANDIDATES = 16384;  // ... with at most so many points
constexpr std::size_t SEEN_SLOTS = 2048;       // a power of two above MAX_BLOCKS
constexpr double GUESS_MARGIN = 2.0;           // the next lookup's guess, in squared k-th distances

// Per thread: the candidates of one lookup, the cells of each bucket it has searched (stamped with the
// lookup's number) and its lists of blocks and cells; a guess at the next lookup's k-th squared distance.
struct Scratch {
    struct Seen {
        std::uint64_t tag = 0;  // stamp << 32 | bucket
        std::uint64_t cells = 0;
    };
    struct Visit {
        std::uint32_t bucket;
        std::uint64_t cells;  // those of the box
    };
    std::vector<float> candidates;
    std::vector<Seen> seen;
    std::vector<Visit> visits;
    std::vector<std::uint32_t> cells;
    std::uint64_t stamp = 0;
    float guess = std::numeric_limits<float>::max();
    Scratch() : candidates(MAX_CANDIDATES), seen(SEEN_SLOTS) {
        visits.reserve(MAX_BLOCKS);
        cells.reserve(64 * MAX_BLOCKS);
    }
    std::uint64_t& searched(std::uint32_t bucket) {
        const std::uint64_t tag = stamp << 32 | bucket;
        for (std::size_t slot = (bucket * 0x9E3779B1u) & (SEEN_SLOTS - 1);; slot = (slot + 1) & (SEEN_SLOTS - 1)) {
            Seen& s = seen[slot];
            if (s.tag == tag) return s.cells;
            if (s.tag >> 32 != stamp) {
                s.tag = tag;
                s.cells = 0;
                return s.cells;
            }
        }
    }
};

// The places in a block whose cell numbers lie in [from, to] on each axis (numbers relative to the block's
// first cell), as a mask of 64 bits.
inline std::uint64_t boxCells(const std::int64_t (&from)[3], const std::int64_t (&to)[3]) {
    std::uint64_t row = 0, plane = 0, cells = 0;
    for (std::int64_t i = std::max<std::int64_t>(from[0], 0); i <= std::min<std::int64_t>(to[0], 3); ++i)
        row |= std::uint64_t(1) << i;
    for (std::int64_t j = std::max<std::int64_t>(from[1], 0); j <= std::min<std::int64_t>(to[1], 3); ++j)
        plane |= row << (4 * j);
    for (std::int64_t k = std::max<std::int64_t>(from[2], 0); k <= std::min<std::int64_t>(to[2], 3); ++k)
        cells |= plane << (16 * k);
    return cells;
}

// The k nearest points of `q` (itself one of the points) in the grid: first the cells within START_REACH
// edges of q, then those within the k-th best distance found (twice the reach at most), until the k-th best
// squared distance lies within the searched box. On success the candidates hold the k smallest findable
// squared distances first and k is returned; 0 when the grid cannot tell within its limits.
std::size_t gridNeighbours(const Bucketed& b, const float* q, std::size_t k, Scratch& scratch) {
    const Grid& grid = b.grid;
    double t[3], largest = 0.0;
    for (int a = 0; a < 3; ++a) {
        t[a] = grid.coordinate(q[a], a);
        largest = std::max(largest, std::fabs(t[a]));
    }
    if (!(largest < CELL_LIMIT / 2)) return 0;
    // How far a point may lie outside its cell (the rounding of its cell number, and that of q's
    // coordinates), in edges.
    const double slop = SLOP_EDGES + (largest + MAX_REACH + 8) * 0x1p-48;
    float* found = scratch.candidates.data();
    std::size_t count = 0, zeros = 0;
    ++scratch.stamp;
    // Only points nearer than the k-th best so far can join the k nearest (an equal one changes nothing).
    // At first a guess from the lookup before (nearby: the lookups go in the order of their buckets); when
    // fewer than k points come within it, the search starts again without it.
    float bound = scratch.guess;
    for (double radius = START_REACH;;) {
        if (radius > MAX_REACH) return 0;
        std::int64_t from[3], to[3], block_from[3], block_to[3];
        std::size_t blocks = 1;
        for (int a = 0; a < 3; ++a) {
            from[a] = Grid::floorOf(t[a] - radius);
            to[a] = Grid::floorOf(t[a] + radius);
            block_from[a] = from[a] >> 2;
            block_to[a] = to[a] >> 2;
            blocks *= static_cast<std::size_t>(block_to[a] - block_from[a] + 1);
        }
        if (blocks > MAX_BLOCKS) return 0;
        // The blocks of the box, the cells to search, their points: each list asked of memory ahead of its
        // use, so that the waits overlap.
        auto& visits = scratch.visits;
        visits.clear();
        for (std::int64_t bk = block_from[2]; bk <= block_to[2]; ++bk)
            for (std::int64_t bj = block_from[1]; bj <= block_to[1]; ++bj)
                for (std::int64_t bi = block_from[0]; bi <= block_to[0]; ++bi) {
                    const std::uint32_t bucket = grid.bucket(bi, bj, bk);
                    const std::int64_t in_from[3] = {from[0] - 4 * bi, from[1] - 4 * bj, from[2] - 4 * bk};
                    const std::int64_t in_to[3] = {to[0] - 4 * bi, to[1] - 4 * bj, to[2] - 4 * bk};
                    visits.push_back({bucket, boxCells(in_from, in_to)});
                    __builtin_prefetch(&b.blocks[bucket]);
                }
        auto& cells_to_search = scratch.cells;
        cells_to_search.clear();
        for (const auto& visit : visits) {
            const Block& block = b.blocks[visit.bucket];
            std::uint64_t cells = block.cells & visit.cells;
            if (cells == 0) continue;
            std::uint64_t& searched = scratch.searched(visit.bucket);
            cells &= ~searched;  // searched in a round before, or the same place of another block
            searched |= cells;
            for (; cells != 0; cells &= cells - 1) {
                const std::uint64_t below = (cells & (~cells + 1)) - 1;
                const std::uint32_t cell = block.first + bitCount(block.cells & below);
                cells_to_search.push_back(cell);
                __builtin_prefetch(&b.start[cell]);
            }
        }
        for (const std::uint32_t cell : cells_to_search) __builtin_prefetch(&b.points[b.start[cell]]);
        for (const std::uint32_t cell : cells_to_search) {
            const std::uint32_t begin = b.start[cell];
            if (!distancesBelow(q, &b.points[begin], b.start[cell + 1] - begin, bound, found, count, MAX_CANDIDATES,
                                zeros, k))
                return 0;
            if (zeros >= k) {  // k points on q itself: nothing can come nearer
                std::partition(found, found + count, [](float x) { return x == 0.0f; });
                scratch.guess = std::numeric_limits<float>::max();
                return k;
            }
        }
        double reach = radius;  // from q to the nearest face of the box, in edges, then in the points' unit
        for (int a = 0; a < 3; ++a)
            reach = std::min({reach, t[a] - static_cast<double>(from[a]), static_cast<double>(to[a] + 1) - t[a]});
        reach = (reach - slop) / grid.per_edge;
        // Every point outside the box lies at least `reach` from q: its squared distance, rounded in float
        // (a few parts in 10^7 at most), is no smaller than a squared distance within this.
        const double within = reach > 0.0 ? reach * reach * (1.0 - 0x1p-20) : 0.0;
        if (count < k) {
            if (bound == std::numeric_limits<float>::max()) {
                radius *= 2.0;
            } else if (bound <= within) {
                // Fewer than k points within the guess, all of them searched: the guess was too small.
                bound = std::numeric_limits<float>::max();
                count = zeros = 0;
                ++scratch.stamp;
            } else {
                radius = std::min(
                    std::max(std::sqrt(static_cast<double>(bound)) * grid.per_edge * (1.0 + 0x1p-10) + 2 * slop,
                             radius + 0.5),
                    2.0 * radius);
            }
            continue;
        }
        std::nth_element(found, found + (k - 1), found + count);
        count = k;
        bound = found[k - 1];
        const double kth = bound;
        if (kth == 0.0 || (within >= 1e-30 && kth <= within)) {
            scratch.guess = kth > 0.0 && kth * GUESS_MARGIN < std::numeric_limits<float>::max()
                                ? static_cast<float>(kth * GUESS_MARGIN)
                                : std::numeric_limits<float>::max();
            return k;
        }
        // The k-th best bounds the reach needed (points of other groups in the same slot may lie far off).
        radius =
            std::min(std::max(std::sqrt(kth) * grid.per_edge * (1.0 + 0x1p-10) + 2 * slop, radius + 0.5), 2.0 * radius);
    }
}

// Fallback lookups that a plain scan of all points answers sooner than a k-d tree is built; below
// SCAN_ONLY_POINTS points only scans.
constexpr double SCAN_BUDGET = 67108864.0;  // point distances
constexpr std::size_t SCAN_ONLY_POINTS = 4096;

// The density around every point, measured once for each cell of the grid. The grid's cells are sorted by
// key, and a key stands for one cell of each group hashed to its slot: a cell of the grid may hold points of
// several groups, far apart. Here a cell is one cell of space: the grid's cells that hold points of several
// groups are split, their points sorted by cell, into runs of one cell each.
struct LocalSpacing {
    // Each point's cell, in the order of the pieces' points; UNUSABLE for a point left out.
    std::unique_ptr<std::uint32_t[]> cell_of;
    std::vector<std::uint32_t> first_run;  // of each cell of the grid: its first cell of space, then one past
    std::vector<std::uint32_t> run_start;  // of each cell of space: its first point, then one past the last
    std::vector<float> spacing;            // of each cell of space: the even spacing around it
};

// The cell numbers of a point.
struct CellNumbers {
    std::int64_t n[3];
    bool operator==(const CellNumbers& o) const { return n[0] == o.n[0] && n[1] == o.n[1] && n[2] == o.n[2]; }
    bool operator<(const CellNumbers& o) const {
        return n[0] != o.n[0] ? n[0] < o.n[0] : (n[1] != o.n[1] ? n[1] < o.n[1] : n[2] < o.n[2]);
    }
};
inline CellNumbers numbersOf(const Grid& grid, const Vec3f& p) {
    return {{grid.cellOf(p[0], 0), grid.cellOf(p[1], 1), grid.cellOf(p[2], 2)}};
}

// The cells of space: every cell of the grid whose points lie in more than one cell of space is sorted by
// cell (stably: each cell keeps its points in their order) and cut into runs. On all cores; the result
// depends on the points alone.
void splitCells(Bucketed& b, LocalSpacing& local) {
    const std::size_t cells = b.start.size() - 1;
    local.first_run.assign(cells + 1, 0);
    const std::ptrdiff_t cell_count = static_cast<std::ptrdiff_t>(cells);
#pragma omp parallel
    {
        std::vector<std::pair<CellNumbers, std::uint32_t>> order;
        std::vector<Vec3f> moved;
#pragma omp for schedule(dynamic, 256)
        for (std::ptrdiff_t c = 0; c < cell_count; ++c) {
            const std::uint32_t begin = b.start[c], end = b.start[c + 1];
            const CellNumbers first = numbersOf(b.grid, b.points[begin]);
            std::uint32_t x = begin + 1;
            while (x < end && numbersOf(b.grid, b.points[x]) == first) ++x;
            if (x == end) {
                local.first_run[c + 1] = 1;
                continue;
            }
            order.clear();
            for (std::uint32_t y = begin; y < end; ++y) order.push_back({numbersOf(b.grid, b.points[y]), y});
            std::sort(order.begin(), order.end());  // the point's place breaks ties: stable
            moved.clear();
            std::uint32_t runs = 1;
            for (std::size_t y = 0; y < order.size(); ++y) {
                moved.push_back(b.points[order[y].second]);
                if (y > 0 && !(order[y].first == order[y - 1].first)) ++runs;
            }
            std::copy(moved.begin(), moved.end(), b.points.get() + begin);
            local.first_run[c + 1] = runs;
        }
    }
    for (std::size_t c = 0; c < cells; ++c) local.first_run[c + 1] += local.first_run[c];
    local.run_start.assign(local.first_run[cells] + 1, 0);
    local.run_start.back() = b.start[cells];
#pragma omp parallel for schedule(dynamic, 256)
    for (std::ptrdiff_t c = 0; c < cell_count; ++c) {
        std::uint32_t run = local.first_run[c];
        local.run_start[run] = b.start[c];
        for (std::uint32_t x = b.start[c] + 1; x < b.start[c + 1]; ++x)
            if (!(numbersOf(b.grid, b.points[x]) == numbersOf(b.grid, b.points[x - 1]))) local.run_start[++run] = x;
    }
}

// The cell of the grid that the cell numbers (i, j, k) fall in, or -1 where it holds no point; its points
// may lie in other cells of space too.
std::int64_t gridCellAt(const Bucketed& b, std::int64_t i, std::int64_t j, std::int64_t k) {
    const Block& block = b.blocks[b.grid.bucket(i >> 2, j >> 2, k >> 2)];
    const std::uint32_t place = Grid::placeOf(i, j, k);
    if (((block.cells >> place) & 1) == 0) return -1;
    return block.first + bitCount(block.cells & ((std::uint64_t(1) << place) - 1));
}

// Calls visit(cell) for every cell of the grid that holds points and whose numbers lie within [from, to] on
// each axis, block by block (one hashed lookup a block); in the same order on every call.
template <class Visit>
void forCellsInBox(const Bucketed& b, const std::int64_t (&from)[3], const std::int64_t (&to)[3], Visit&& visit) {
    for (std::int64_t bk = from[2] >> 2; bk <= to[2] >> 2; ++bk)
        for (std::int64_t bj = from[1] >> 2; bj <= to[1] >> 2; ++bj)
            for (std::int64_t bi = from[0] >> 2; bi <= to[0] >> 2; ++bi) {
                const Block& block = b.blocks[b.grid.bucket(bi, bj, bk)];
                const std::int64_t in_from[3] = {from[0] - 4 * bi, from[1] - 4 * bj, from[2] - 4 * bk};
                const std::int64_t in_to[3] = {to[0] - 4 * bi, to[1] - 4 * bj, to[2] - 4 * bk};
                for (std::uint64_t cells = block.cells & boxCells(in_from, in_to); cells != 0; cells &= cells - 1) {
                    const std::uint64_t below = (cells & (~cells + 1)) - 1;
                    visit(block.first + bitCount(block.cells & below));
                }
            }
}

// The cell of space with the numbers `at`, or -1 where no point lies.
std::int64_t runAt(const Bucketed& b, const LocalSpacing& local, const CellNumbers& at) {
    const std::int64_t cell = gridCellAt(b, at.n[0], at.n[1], at.n[2]);
    if (cell < 0) return -1;
    for (std::uint32_t run = local.first_run[cell]; run < local.first_run[cell + 1]; ++run)
        if (numbersOf(b.grid, b.points[local.run_start[run]]) == at) return run;
    return -1;
}

// Counts the points of points[0, n) within `bound` (squared) of q and adds their offsets from q to `sum`,
// point after point. Four distances at a time where the processor has SSE2, each rounded as squaredDistance
// rounds it; the sums are taken in the points' order either way, so the figures are the same.
inline void sumWithin(const float* q, const Vec3f* points, std::size_t n, float bound, double (&sum)[3],
                      std::size_t& inside) {
    const auto take = [&](const Vec3f& p) {
        for (int a = 0; a < 3; ++a) sum[a] += static_cast<double>(p[a]) - q[a];
        ++inside;
    };
    std::size_t i = 0;
#if defined(__SSE2__)
    const __m128 qx = _mm_set1_ps(q[0]), qy = _mm_set1_ps(q[1]), qz = _mm_set1_ps(q[2]);
    const __m128 within = _mm_set1_ps(bound);
    const float* p = points[0].data();
    for (; i + 4 <= n; i += 4, p += 12) {
        const __m128 a = _mm_loadu_ps(p), b = _mm_loadu_ps(p + 4), c = _mm_loadu_ps(p + 8);
        const __m128 x = _mm_shuffle_ps(a, _mm_shuffle_ps(b, c, _MM_SHUFFLE(1, 0, 3, 2)), _MM_SHUFFLE(3, 0, 3, 0));
        const __m128 y = _mm_shuffle_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(0, 0, 1, 1)),
                                        _mm_shuffle_ps(b, c, _MM_SHUFFLE(2, 2, 3, 3)), _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 z = _mm_shuffle_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 1, 2, 2)),
                                        _mm_shuffle_ps(c, c, _MM_SHUFFLE(3, 3, 0, 0)), _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 dx = _mm_sub_ps(qx, x), dy = _mm_sub_ps(qy, y), dz = _mm_sub_ps(qz, z);
        const __m128 d = _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        for (int lanes = _mm_movemask_ps(_mm_cmple_ps(d, within)); lanes != 0; lanes &= lanes - 1)
            take(points[i + static_cast<std::size_t>(__builtin_ctz(lanes))]);
    }
#endif
    for (; i < n; ++i)
        if (squaredDistance(q, points[i]) <= bound) take(points[i]);
}

// The ball around a point in which its density is measured: first one edge of the grid (about the distance
// from a point as dense as the scan's median to its 64th nearest), doubled until it holds BALL_POINTS other
// points or reaches BALL_EDGES edges.
constexpr std::size_t BALL_POINTS = 32;
constexpr double BALL_EDGES = 4.0;

// The even spacing around q, one of the points: that of the points within a ball around it, the surface
// they cover taken as the share of the ball's disc that they reach. That share comes from how far their
// mean lies from q: about all of the disc inside a surface, half at the border of the scan (a disc cut
// through its centre, whose points' mean lies 4 / (3 pi) = 0.42 radii off), a quarter at a corner; straight
// between those, 0.25 at least. Without it, a point at the border, whose neighbours lie on one side, would
// be taken for one half as dense, and the border would get cells too coarse for it. +inf when no other point
// lies within BALL_EDGES edges. Each point's distance is rounded as squaredDistance rounds it, and the sums
// are taken in a fixed order: the same on any machine and thread count.
template <class ForCells>
float spacingAroundIn(const Grid& grid, ForCells&& forCells, const float* q) {
    double t[3];
    for (int a = 0; a < 3; ++a) t[a] = grid.coordinate(q[a], a);
    for (double edges = 1.0;; edges *= 2.0) {
        const double radius = edges / grid.per_edge;
        const float bound = static_cast<float>(radius * radius);
        std::int64_t from[3], to[3];
        for (int a = 0; a < 3; ++a) {  // widened by what the rounding of cell numbers may shift a point
            from[a] = Grid::floorOf(t[a] - edges - SLOP_EDGES);
            to[a] = Grid::floorOf(t[a] + edges + SLOP_EDGES);
        }
        double sum[3] = {0.0, 0.0, 0.0};
        std::size_t inside = 0;
        // Points of other groups in the same cells of the grid lie far outside the ball.
        forCells(from, to, [&](const Vec3f* points, std::size_t n) { sumWithin(q, points, n, bound, sum, inside); });
        const std::size_t others = inside > 0 ? inside - 1 : 0;
        if (others < BALL_POINTS && edges < BALL_EDGES) continue;
        if (others == 0) return std::numeric_limits<float>::infinity();
        const double offset = std::sqrt(sum[0] * sum[0] + sum[1] * sum[1] + sum[2] * sum[2]) / inside;
        const double share = std::min(1.0, std::max(0.25, 1.0 - (0.5 / (4.0 / (3.0 * PI))) * offset / radius));
        return static_cast<float>(std::sqrt(PI * radius * radius * share / static_cast<double>(others)));
    }
}

float spacingAround(const Bucketed& b, const float* q) {
    const auto cells = [&b](const std::int64_t(&from)[3], const std::int64_t(&to)[3], auto&& visit) {
        forCellsInBox(b, from, to,
                      [&](std::uint32_t cell) { visit(&b.points[b.start[cell]], b.start[cell + 1] - b.start[cell]); });
    };
    return spacingAroundIn(b.grid, cells, q);
}

// Each cell of space's figure: the spacing around its first point, then the largest of its own and those of
// the 26 cells around it: a point near a sparse stretch gets cells that its sparse neighbours also fill, and
// a patch of denser points amid sparse ones does not make cells too small for the sparse points between.
void measureRuns(const Bucketed& b, LocalSpacing& local) {
    const std::size_t runs = local.run_start.size() - 1;
    std::vector<float> own(runs);
    std::vector<CellNumbers> numbers(runs);
    const std::ptrdiff_t run_count = static_cast<std::ptrdiff_t>(runs);
#pragma omp parallel for schedule(dynamic, 64)
    for (std::ptrdiff_t r = 0; r < run_count; ++r) {
        const Vec3f& first = b.points[local.run_start[r]];
        own[r] = spacingAround(b, first.data());
        numbers[r] = numbersOf(b.grid, first);
    }
    local.spacing.resize(runs);
#pragma omp parallel for schedule(dynamic, 256)
    for (std::ptrdiff_t r = 0; r < run_count; ++r) {
        const CellNumbers& at = numbers[r];
        const std::int64_t from[3] = {at.n[0] - 1, at.n[1] - 1, at.n[2] - 1};
        const std::int64_t to[3] = {at.n[0] + 1, at.n[1] + 1, at.n[2] + 1};
        float largest = own[r];
        forCellsInBox(b, from, to, [&](std::uint32_t cell) {
            for (std::uint32_t other = local.first_run[cell]; other < local.first_run[cell + 1]; ++other) {
                const CellNumbers& there = numbers[other];
                if (std::abs(there.n[0] - at.n[0]) <= 1 && std::abs(there.n[1] - at.n[1]) <= 1 &&
                    std::abs(there.n[2] - at.n[2]) <= 1)
                    largest = std::max(largest, own[other]);
            }
        });
        local.spacing[r] = largest;
    }
}

// The figures of `max_measured` points spread evenly over the usable points of `pieces`: every stride-th
// is measured against all of them. `spacing.points` and `spacing.scale_code` count all usable points.
// With `local`, also the spacing around every point: its cell's, the sparsest of the cells around it.
int measureExact(std::vector<Piece>& pieces, PointSpacing& spacing, std::size_t max_measured,
                 LocalSpacing* local = nullptr) {
    spacing = PointSpacing();
    if (max_measured == 0) return 1;
    std::vector<std::size_t> first_raw(pieces.size() + 1, 0);
    for (std::size_t p = 0; p < pieces.size(); ++p) first_raw[p + 1] = first_raw[p] + pieces[p].count;
    const std::size_t raw = first_raw.back();
    const bool scan_only = raw <= SCAN_ONLY_POINTS;
    Bucketed b;
    b.grid = gridFor(pieces, raw, scan_only ? 0 : raw);
    const Grid& grid = b.grid;
    const std::size_t slots = std::size_t(1) << grid.bits;
    const std::size_t threads = static_cast<std::size_t>(std::max(1, omp_get_max_threads()));

    // Each point's key, and the usable points and their codes. Contiguous ranges of about as many points,
    // one a thread: each counts its points into its own slots, then places them after those of the ranges
    // before, so that a slot keeps its points in their order.
    const std::size_t ranges = std::max<std::size_t>(1, std::min(pieces.size(), threads));
    std::vector<std::size_t> first_piece(ranges + 1, pieces.size());
    for (std::size_t r = 0, p = 0; r < ranges; ++r) {
        while (p < pieces.size() && first_raw[p] < raw / ranges * r) ++p;
        first_piece[r] = p;
    }
    std::vector<std::vector<std::uint32_t>> counts(ranges, std::vector<std::uint32_t>(slots, 0));
    std::vector<std::array<std::size_t, 7>> codes(ranges);
    std::unique_ptr<std::uint32_t[]> keys = rawArray<std::uint32_t>(raw);
    const std::ptrdiff_t range_count = static_cast<std::ptrdiff_t>(ranges);
#pragma omp parallel for schedule(static, 1)
    for (std::ptrdiff_t r = 0; r < range_count; ++r) {
        std::uint32_t* count = counts[r].data();
        std::array<std::size_t, 7> coded{};
        Grid::Recent recent;
        for (std::size_t p = first_piece[r]; p < first_piece[r + 1]; ++p) {
            Piece& piece = pieces[p];
            std::uint32_t* key = keys.get() + first_raw[p];
            std::size_t usable_points = 0;
            for (std::size_t i = 0; i < piece.count; ++i) {
                if (!usableIn(piece, i)) {
                    key[i] = UNUSABLE;
                    continue;
                }
                ++usable_points;
                ++coded[codeIndexIn(piece, i)];
                key[i] = grid.keyOf(piece.xyz[i], recent);
                ++count[key[i] >> 12];
            }
            piece.usable = usable_points;
        }
        codes[r] = coded;
    }
    std::size_t code_counts[7] = {}, points = 0;
    for (std::size_t r = 0; r < ranges; ++r)
        for (int k = 0; k < 7; ++k) code_counts[k] += codes[r][k];
    for (const std::size_t c : code_counts) points += c;
    spacing.scale_code = finestTenth(code_counts, points);
    if (points > UINT32_MAX) return 1;
    spacing.points = points;
    std::copy(std::begin(code_counts), std::end(code_counts), spacing.codes);
    if (points < 2) return 0;

    // Where each range's points of each slot go; where each range's usable points begin.
    std::vector<std::uint32_t> slot_start(slots + 1);
    std::uint32_t placed = 0;
    for (std::size_t slot = 0; slot < slots; ++slot) {
        slot_start[slot] = placed;
        for (std::size_t r = 0; r < ranges; ++r) {
            const std::uint32_t c = counts[r][slot];
            counts[r][slot] = placed;
            placed += c;
        }
    }
    slot_start[slots] = placed;
    std::vector<std::size_t> first_usable(ranges + 1, 0);
    for (std::size_t r = 0; r < ranges; ++r) {
        first_usable[r + 1] = first_usable[r];
        for (std::size_t p = first_piece[r]; p < first_piece[r + 1]; ++p) first_usable[r + 1] += pieces[p].usable;
    }
    // The points into their slots, each with its block and place in the slot; the measured points, every
    // stride-th usable one.
    const std::size_t stride = strideFor(points, max_measured);
    const std::size_t measured = (points - 1) / stride + 1;
    std::vector<Vec3f> queries(measured);
    b.count = points;
    b.points = rawArray<Vec3f>(points);
    std::unique_ptr<std::uint16_t[]> places = rawArray<std::uint16_t>(points);
#pragma omp parallel for schedule(static, 1)
    for (std::ptrdiff_t r = 0; r < range_count; ++r) {
        std::uint32_t* cursor = counts[r].data();
        std::size_t u = first_usable[r];
        std::size_t next_query = (u + stride - 1) / stride * stride;
        for (std::size_t p = first_piece[r]; p < first_piece[r + 1]; ++p) {
            const Piece& piece = pieces[p];
            const std::uint32_t* key = keys.get() + first_raw[p];
            for (std::size_t i = 0; i < piece.count; ++i) {
                if (key[i] == UNUSABLE) continue;
                const std::uint32_t at = cursor[key[i] >> 12]++;
                b.points[at] = piece.xyz[i];
                places[at] = static_cast<std::uint16_t>(key[i] & 4095);
                if (u++ == next_query) {
                    queries[next_query / stride] = piece.xyz[i];
                    next_query += stride;
                }
            }
        }
    }
    if (!local) keys.reset();  // else they become the points' cells
    counts = {};

    // Each slot's points sorted by block and place (a counting sort), and the cells that hold points. First
    // the cells of each slot, so that each slot knows where its cells' starts go.
    const std::ptrdiff_t slot_count = static_cast<std::ptrdiff_t>(slots);
    std::vector<std::uint32_t> first_cell(slots + 1, 0);
#pragma omp parallel for schedule(dynamic, 64)
    for (std::ptrdiff_t slot = 0; slot < slot_count; ++slot) {
        std::uint64_t cells[64] = {};
        for (std::uint32_t i = slot_start[slot]; i < slot_start[slot + 1]; ++i)
            cells[places[i] >> 6] |= std::uint64_t(1) << (places[i] & 63);
        std::uint32_t n = 0;
        for (const std::uint64_t c : cells) n += bitCount(c);
        first_cell[slot + 1] = n;
    }
    for (std::size_t slot = 0; slot < slots; ++slot) first_cell[slot + 1] += first_cell[slot];
    const std::uint32_t occupied = first_cell[slots];
    b.blocks.resize(slots * 64);
    b.start.resize(static_cast<std::size_t>(occupied) + 1);
    b.start[occupied] = placed;
    // Per thread: counts, cursors and ends of the 4096 places of a slot, the places used; a buffer for a
    // slot's points, up to SORT_BUFFER of them (a larger slot is sorted in place, by cycles).
    std::uint32_t largest = 0;
    for (std::size_t slot = 0; slot < slots; ++slot)
        largest = std::max(largest, slot_start[slot + 1] - slot_start[slot]);
    const std::uint32_t sort_buffer = std::min<std::uint32_t>(largest, 1u << 16);
    std::vector<std::vector<std::uint32_t>> sorting(threads, std::vector<std::uint32_t>(4 * 4096, 0));
    std::vector<std::unique_ptr<Vec3f[]>> buffers(threads);
    for (auto& buffer : buffers) buffer = rawArray<Vec3f>(sort_buffer);
#pragma omp parallel for schedule(dynamic, 16)
    for (std::ptrdiff_t slot = 0; slot < slot_count; ++slot) {
        const std::uint32_t begin = slot_start[slot], end = slot_start[slot + 1];
        Block* block = b.blocks.data() + slot * 64;
        std::uint32_t cell = first_cell[slot];
        if (begin == end) {
            for (int k = 0; k < 64; ++k) block[k].first = cell;
            continue;
        }
        const std::size_t thread = static_cast<std::size_t>(omp_get_thread_num());
        std::uint32_t* count = sorting[thread].data();
        std::uint32_t *next = count + 4096, *last = next + 4096, *used = last + 4096;
        for (std::uint32_t i = begin; i < end; ++i) {
            ++count[places[i]];
            block[places[i] >> 6].cells |= std::uint64_t(1) << (places[i] & 63);
        }
        std::uint32_t at = begin, bins = 0;
        for (int k = 0; k < 64; ++k) {
            block[k].first = cell;
            for (std::uint64_t c = block[k].cells; c != 0; c &= c - 1) {
                const std::uint32_t bin = static_cast<std::uint32_t>(k << 6 | __builtin_ctzll(c));
                b.start[cell++] = at;
                next[bin] = at;
                at += count[bin];
                last[bin] = at;
                count[bin] = 0;
                used[bins++] = bin;
            }
        }
        if (end - begin <= sort_buffer) {
            Vec3f* buffer = buffers[thread].get();
            for (std::uint32_t i = begin; i < end; ++i) buffer[next[places[i]]++ - begin] = b.points[i];
            std::copy(buffer, buffer + (end - begin), b.points.get() + begin);
            continue;
        }
        for (std::uint32_t u = 0; u < bins; ++u) {
            const std::uint32_t bin = used[u];
            while (next[bin] < last[bin]) {
                const std::uint16_t other = places[next[bin]];
                if (other == bin) {
                    ++next[bin];
                    continue;
                }
                const std::uint32_t to = next[other]++;
                std::swap(b.points[next[bin]], b.points[to]);
                std::swap(places[next[bin]], places[to]);
            }
        }
    }
    places.reset();
    buffers.clear();
    if (local) {
        // The cells of space, each point's among them (from its key: the rank of its place among the occupied
        // places of its block, then its run there), and their figures.
        splitCells(b, *local);
        local->cell_of = std::move(keys);
        std::uint32_t* cell_of = local->cell_of.get();
        const std::ptrdiff_t piece_count = static_cast<std::ptrdiff_t>(pieces.size());
#pragma omp parallel for schedule(dynamic, 4)
        for (std::ptrdiff_t p = 0; p < piece_count; ++p) {
            const Piece& piece = pieces[p];
            std::uint32_t* cell = cell_of + first_raw[p];
            for (std::size_t i = 0; i < piece.count; ++i) {
                const std::uint32_t key = cell[i];
                if (key == UNUSABLE) continue;
                const Block& block = b.blocks[key >> 6];
                const std::uint32_t in_grid =
                    block.first + bitCount(block.cells & ((std::uint64_t(1) << (key & 63)) - 1));
                cell[i] = local->first_run[in_grid];
                if (local->first_run[in_grid + 1] - cell[i] > 1)
                    cell[i] = static_cast<std::uint32_t>(runAt(b, *local, numbersOf(grid, piece.xyz[i])));
            }
        }
        measureRuns(b, *local);
    }

    // Every measured point's nearest points: the grid first, in the order of the points' buckets, so that
    // lookups one after the other share the points they read; then the points it could not answer.
    const std::size_t k = std::min(NEIGHBOURS, points);
    std::vector<Measured> results(measured);
    std::vector<std::uint8_t> unanswered(measured, 1);
    const std::ptrdiff_t query_count = static_cast<std::ptrdiff_t>(measured);
    if (!scan_only) {
        std::vector<std::pair<std::uint32_t, std::uint32_t>> order(measured);
        for (std::size_t i = 0; i < measured; ++i)
            order[i] = {grid.keyOf(queries[i]) >> 6, static_cast<std::uint32_t>(i)};
        std::sort(order.begin(), order.end());
        std::vector<Scratch> scratch(threads);
#pragma omp parallel for schedule(dynamic, 16)
        for (std::ptrdiff_t j = 0; j < query_count; ++j) {
            const std::uint32_t i = order[j].second;
            Scratch& mine = scratch[static_cast<std::size_t>(omp_get_thread_num())];
            const std::size_t found = gridNeighbours(b, queries[i].data(), k, mine);
            if (found > 0) {
                results[i] = figuresOf(mine.candidates.data(), found);
                unanswered[i] = 0;
            }
        }
    }
    std::vector<std::uint32_t> rest;
    for (std::size_t i = 0; i < measured; ++i)
        if (unanswered[i]) rest.push_back(static_cast<std::uint32_t>(i));
    const std::ptrdiff_t rest_count = static_cast<std::ptrdiff_t>(rest.size());
    if (scan_only || static_cast<double>(rest.size()) * static_cast<double>(points) <= SCAN_BUDGET) {
        std::vector<std::vector<float>> best(threads, std::vector<float>(k));
#pragma omp parallel for schedule(dynamic, 1)
        for (std::ptrdiff_t j = 0; j < rest_count; ++j) {
            float* mine = best[static_cast<std::size_t>(omp_get_thread_num())].data();
            const std::size_t found = scanNeighbours(queries[rest[j]].data(), b.points.get(), b.count, k, mine);
            results[rest[j]] = figuresOf(mine, found);
        }
    } else {
        // A k-d tree over the usable points in their own order, as the spacing was measured before the grid.
        b = Bucketed();
        std::vector<Vec3f> all;
        all.reserve(points);
        for (const Piece& piece : pieces)
            for (std::size_t i = 0; i < piece.count; ++i)
                if (usableIn(piece, i)) all.push_back(piece.xyz[i]);
        const Cloud cloud{all.data(), all.size()};
        const Tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(16));
        std::vector<std::vector<float>> squared(threads, std::vector<float>(k));
        std::vector<std::vector<std::uint32_t>> index(threads, std::vector<std::uint32_t>(k));
#pragma omp parallel for schedule(dynamic, 4)
        for (std::ptrdiff_t j = 0; j < rest_count; ++j) {
            const std::size_t t = static_cast<std::size_t>(omp_get_thread_num());
            const std::size_t found = tree.knnSearch(queries[rest[j]].data(), k, index[t].data(), squared[t].data());
            results[rest[j]] = figuresOf(squared[t].data(), found);
        }
    }

    std::vector<float> nearest, even;
    for (const Measured& m : results) {
        if (m.nearest >= 0.0f) nearest.push_back(m.nearest);
        if (m.even >= 0.0f) even.push_back(m.even);
    }
    spacing.measured = measured;
    spacing.median = median(nearest);
    spacing.density = spacing.median > 0.0f ? median(even) : 0.0f;
    return 0;
}

int measure(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, PointSpacing& spacing,
            std::size_t max_measured) {
    std::vector<Piece> pieces = piecesOf(frames, false);
    return measureExact(pieces, spacing, max_measured);
}

// The log2 of each code of CODES.
constexpr int CODE_LEVELS[7] = {6, 5, 4, 3, 2, 1, 0};
// Below every level a cell can have: a cell whose spacing is not known (+inf) gets the coarsest code.
constexpr int NO_LEVEL = -1000;

// A cell's levels: log2 of the finest code whose cell is at least M x s x c_max / 8 wide, M the multiple for a
// point of code 8 or coarser and the one for a point that asks for finer cells; in double, from the float
// figures: the same on every machine. {code 8 or coarser, finer}
std::array<int, 2> levelsOf(double s, float resolution, double c_max) {
    std::array<int, 2> levels;
    const double multiples[2] = {CELL_PER_LOCAL_SPACING, FINER_CELL_PER_LOCAL_SPACING};
    for (int wish = 0; wish < 2; ++wish) {
        const double fits = 8.0 * resolution / (multiples[wish] * s * c_max / 8.0);
        levels[wish] =
            std::isfinite(s) && fits > 0.0 ? static_cast<int>(std::max(std::floor(std::log2(fits)), -64.0)) : NO_LEVEL;
    }
    return levels;
}

// The log2 of the code a point of its own code `own` (an index of CODES) gets in a cell of these levels: a
// point of code c adds log2(c / 8); 8 the finest, 1 the coarsest.
int codeLevelOf(const std::array<int, 2>& levels, int own) {
    return std::min(3, std::max(0, levels[own < 3 ? 1 : 0] + CODE_LEVELS[own] - 3));
}

int chooseCodes(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, ScaleCodeChoice& choice) {
    choice = ScaleCodeChoice();
    for (const auto& frame : frames)
        if (frame && (frame->nor.size() != frame->xyz.size() || frame->w.size() != frame->xyz.size())) return 1;
    std::vector<Piece> pieces = piecesOf(frames, true);
    // The words to write, piece by piece: piecesOf cuts every frame at the same points.
    std::vector<std::int32_t*> words;
    for (const auto& frame : frames)
        if (frame)
            for (std::size_t begin = 0; begin < frame->xyz.size(); begin += PIECE_POINTS)
                words.push_back(frame->w.data() + begin);
    LocalSpacing local;
    const int status = measureExact(pieces, choice.spacing, 20000, &local);
    if (status != 0) return status;
    // The finest cells, code 8, are those that points asking for c_max get where they lie as densely as the
    // scan's median.
    const float resolution = autoResolutionForSpacing(choice.spacing);
    if (!(resolution > 0.0f) || !local.cell_of) return 0;

    // Each cell's levels (levelsOf).
    const double c_max = static_cast<double>(choice.spacing.scale_code);
    const std::size_t cells = local.spacing.size();
    std::vector<std::array<int, 2>> levels(cells);  // {code 8 or coarser, finer}
    const std::ptrdiff_t cell_count = static_cast<std::ptrdiff_t>(cells);
#pragma omp parallel for schedule(static)
    for (std::ptrdiff_t c = 0; c < cell_count; ++c)
        levels[static_cast<std::size_t>(c)] = levelsOf(local.spacing[static_cast<std::size_t>(c)], resolution, c_max);
    std::vector<std::size_t> first_raw(pieces.size() + 1, 0);
    for (std::size_t p = 0; p < pieces.size(); ++p) first_raw[p + 1] = first_raw[p] + pieces[p].count;
    struct Tally {
        std::size_t codes[7] = {};
        std::size_t finer = 0, kept = 0;
    };
    std::vector<Tally> tallies(pieces.size());
    const std::ptrdiff_t piece_count = static_cast<std::ptrdiff_t>(pieces.size());
#pragma omp parallel for schedule(dynamic, 4)
    for (std::ptrdiff_t p = 0; p < piece_count; ++p) {
        const Piece& piece = pieces[static_cast<std::size_t>(p)];
        const std::uint32_t* cell_of = local.cell_of.get() + first_raw[static_cast<std::size_t>(p)];
        std::int32_t* w = words[static_cast<std::size_t>(p)];
        Tally tally;
        for (std::size_t i = 0; i < piece.count; ++i) {
            if (cell_of[i] == UNUSABLE) continue;
            const int own = codeIndexIn(piece, i);
            const int code_level = codeLevelOf(levels[cell_of[i]], own);
            ++tally.codes[6 - code_level];
            if (own < 3) {
                ++tally.finer;
                if (code_level == 3) ++tally.kept;
            }
            w[i] = static_cast<std::int32_t>((static_cast<std::uint32_t>(w[i]) & ~0xFFu) | (1u << code_level));
        }
        tallies[static_cast<std::size_t>(p)] = tally;
    }
    for (const Tally& tally : tallies) {
        for (int k = 0; k < 7; ++k) choice.points[k] += tally.codes[k];
        choice.finer_wishes += tally.finer;
        choice.finer_kept += tally.kept;
    }
    choice.resolution = resolution;
    choice.neighbourhoods = cells;
    return 0;
}

int estimate(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, PointSpacing& spacing,
             std::size_t max_candidates, std::size_t max_measured) {
    spacing = PointSpacing();
    if (max_measured == 0 || max_candidates == 0) return 1;
    std::vector<Piece> pieces = piecesOf(frames, false);
    const Counts counts = countPieces(pieces);
    const std::size_t step = strideFor(counts.usable, max_candidates);
    if (step == 1) return measureExact(pieces, spacing, max_measured);
    if (counts.usable > UINT32_MAX) return 1;
    // Every step-th usable point, each piece's share into its place.
    std::vector<std::size_t> first_usable(pieces.size() + 1, 0);
    for (std::size_t p = 0; p < pieces.size(); ++p) first_usable[p + 1] = first_usable[p] + pieces[p].usable;
    std::vector<Vec3f> thinned((counts.usable - 1) / step + 1);
    const std::ptrdiff_t n = static_cast<std::ptrdiff_t>(pieces.size());
#pragma omp parallel for schedule(dynamic, 4)
    for (std::ptrdiff_t p = 0; p < n; ++p) {
        const Piece& piece = pieces[p];
        std::size_t u = first_usable[p];
        std::size_t next = (u + step - 1) / step * step;
        if (piece.usable == piece.count) {  // every point usable: the sampled ones are found without a walk
            for (; next < first_usable[p + 1]; next += step) thinned[next / step] = piece.xyz[next - u];
            continue;
        }
        for (std::size_t i = 0; i < piece.count && next < first_usable[p + 1]; ++i) {
            if (!usableIn(piece, i)) continue;
            if (u++ == next) {
                thinned[next / step] = piece.xyz[i];
                next += step;
            }
        }
    }
    std::vector<Piece> thinned_pieces = piecesOf(thinned);
    const int status = measureExact(thinned_pieces, spacing, max_measured);
    if (status != 0) return status;
    spacing.median = 0.0f;  // not measured: the thinning moves the nearest point away
    spacing.density = static_cast<float>(spacing.density / std::sqrt(static_cast<double>(step)));
    spacing.scale_code = finestTenth(counts.codes, counts.usable);
    spacing.points = counts.usable;
    std::copy(std::begin(counts.codes), std::end(counts.codes), spacing.codes);
    return 0;
}

}  // namespace

int measurePointSpacing(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, PointSpacing& spacing,
                        std::size_t max_measured) {
    const int status = mesh_internal::guarded([&] { return measure(frames, spacing, max_measured); });
    if (status != 0) spacing = PointSpacing();
    return status;
}

int estimatePointSpacing(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, PointSpacing& spacing,
                         std::size_t max_candidates, std::size_t max_measured) {
    const int status = mesh_internal::guarded([&] { return estimate(frames, spacing, max_candidates, max_measured); });
    if (status != 0) spacing = PointSpacing();
    return status;
}

int chooseScaleCodes(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, ScaleCodeChoice& choice) {
    const int status = mesh_internal::guarded([&] { return chooseCodes(frames, choice); });
    if (status != 0) choice = ScaleCodeChoice();
    return status;
}

float autoResolutionForSpacing(const PointSpacing& spacing) {
    PointSpacing finest = spacing;
    finest.scale_code = 8;
    if (spacing.scale_code <= 8) return resolutionForSpacing(finest);
    // Points asking for finer cells than code 8's, as dense as the median, have them at this multiple: a
    // smaller one (resolutionForSpacing's) gave cells too small for the sparser places near the wished-for
    // features and left slivers at their sharp edges.
    if (!(spacing.density > 0.0f) || !std::isfinite(spacing.density)) return 0.0f;
    const float resolution = FINER_CELL_PER_LOCAL_SPACING * spacing.density;
    return std::min(std::max(resolution, LOWEST_RESOLUTION), HIGHEST_RESOLUTION);
}

float resolutionForSpacing(const PointSpacing& spacing) {
    if (!(spacing.density > 0.0f) || !std::isfinite(spacing.density)) return 0.0f;
    const float resolution = RESOLUTION_PER_SPACING * spacing.density * static_cast<float>(spacing.scale_code) / 8.0f;
    return std::min(std::max(resolution, LOWEST_RESOLUTION), HIGHEST_RESOLUTION);
}

std::size_t spacingPointsOf(const FrameDataWithInfo& frame, std::size_t (&codes)[7]) {
    const std::size_t n = std::min({frame.xyz.size(), frame.nor.size(), frame.w.size()});
    for (int k = 0; k < 7; ++k) codes[k] = 0;
    for (std::size_t i = 0; i < n; ++i)
        if (usable(frame.xyz[i], frame.nor[i])) ++codes[CODE_INDEX.of[frame.w[i] & 0xFF]];
    return n;
}

std::size_t spacingGridStep(std::size_t raw) { return gridSampleStep(raw); }

std::size_t spacingMeasureStride(std::size_t usable, std::size_t max_measured) {
    return strideFor(usable, std::max<std::size_t>(1, max_measured));
}

void spacingSamplesOf(const FrameDataWithInfo& frame, std::size_t raw_first, std::size_t usable_first,
                      std::size_t grid_step, std::size_t stride, std::vector<Vec3f>& grid_sample,
                      std::vector<Vec3f>& measured) {
    const std::size_t n = std::min({frame.xyz.size(), frame.nor.size(), frame.w.size()});
    std::size_t u = usable_first;
    for (std::size_t i = 0; i < n; ++i) {
        if (!usable(frame.xyz[i], frame.nor[i])) continue;
        if ((raw_first + i) % grid_step == 0) grid_sample.push_back(frame.xyz[i]);
        if (u++ % stride == 0) measured.push_back(frame.xyz[i]);
    }
}

int spacingGridFromSample(const std::vector<Vec3f>& sample, std::size_t raw, ScaleCodeGrid& grid) {
    return mesh_internal::guarded([&] {
        // As measureExact sizes it: a scan of few points is only scanned and its grid sized to the sample.
        const Grid g = gridFromSample(sample, raw <= SCAN_ONLY_POINTS ? 0 : raw);
        for (int a = 0; a < 3; ++a) grid.origin[a] = g.origin[a];
        grid.per_edge = g.per_edge;
        return 0;
    });
}

int nearestSquaredDistances(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames,
                            const std::vector<Vec3f>& queries, std::size_t k, std::vector<float>& squared) {
    return mesh_internal::guarded([&] {
        if (k == 0) return 1;
        std::vector<Vec3f> points;
        for (const auto& frame : frames) {
            if (!frame) continue;
            const std::size_t n = std::min({frame->xyz.size(), frame->nor.size(), frame->w.size()});
            for (std::size_t i = 0; i < n; ++i)
                if (usable(frame->xyz[i], frame->nor[i])) points.push_back(frame->xyz[i]);
        }
        squared.assign(queries.size() * k, std::numeric_limits<float>::infinity());
        if (points.empty()) return 0;
        const std::ptrdiff_t count = static_cast<std::ptrdiff_t>(queries.size());
        const Cloud cloud{points.data(), points.size()};
        const Tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(16));
#pragma omp parallel
        {
            std::vector<float> best(k);
            std::vector<std::uint32_t> index(k);
#pragma omp for schedule(dynamic, 16)
            for (std::ptrdiff_t q = 0; q < count; ++q) {
                const std::size_t found = tree.knnSearch(queries[q].data(), k, index.data(), best.data());
                std::sort(best.begin(), best.begin() + static_cast<std::ptrdiff_t>(found));
                std::copy(best.begin(), best.begin() + static_cast<std::ptrdiff_t>(found),
                          squared.begin() + static_cast<std::ptrdiff_t>(q * k));
            }
        }
        return 0;
    });
}

int scaleCodeChoiceFromNeighbours(const std::vector<float>& squared, std::size_t k, const std::size_t (&codes)[7],
                                  ScaleCodeChoice& choice) {
    choice = ScaleCodeChoice();
    if (k == 0 || squared.size() % k != 0) return 1;
    std::size_t points = 0;
    for (const std::size_t c : codes) points += c;
    choice.spacing.scale_code = finestTenth(codes, points);
    choice.spacing.points = points;
    std::copy(std::begin(codes), std::end(codes), choice.spacing.codes);
    if (points < 2) return 0;
    std::vector<float> nearest, even;
    for (std::size_t q = 0; q < squared.size() / k; ++q) {
        std::size_t found = 0;
        while (found < k && squared[q * k + found] < std::numeric_limits<float>::infinity()) ++found;
        const Measured m = figuresOf(&squared[q * k], found);
        if (m.nearest >= 0.0f) nearest.push_back(m.nearest);
        if (m.even >= 0.0f) even.push_back(m.even);
    }
    choice.spacing.measured = squared.size() / k;
    choice.spacing.median = median(nearest);
    choice.spacing.density = choice.spacing.median > 0.0f ? median(even) : 0.0f;
    choice.resolution = autoResolutionForSpacing(choice.spacing);
    return 0;
}

int chooseScaleCodesWithin(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, const ScaleCodeGrid& at,
                           float resolution, int c_max) {
    return mesh_internal::guarded([&] {
        if (!(resolution > 0.0f) || !(at.per_edge > 0.0)) return 1;
        Grid grid;
        for (int a = 0; a < 3; ++a) grid.origin[a] = at.origin[a];
        grid.per_edge = at.per_edge;
        // The usable points in their order, then sorted by cell (stably): the cells of space, each point's
        // run in the order of the whole scan, as measureExact has them.
        std::vector<Vec3f> points;
        std::vector<std::int32_t*> words;
        std::vector<int> own;
        for (const auto& frame : frames) {
            if (!frame) continue;
            const std::size_t n = std::min({frame->xyz.size(), frame->nor.size(), frame->w.size()});
            for (std::size_t i = 0; i < n; ++i) {
                if (!usable(frame->xyz[i], frame->nor[i])) continue;
                points.push_back(frame->xyz[i]);
                words.push_back(&frame->w[i]);
                own.push_back(CODE_INDEX.of[frame->w[i] & 0xFF]);
            }
        }
        if (points.size() > UINT32_MAX) return 1;
        std::vector<std::pair<CellNumbers, std::uint32_t>> order(points.size());
        for (std::size_t i = 0; i < points.size(); ++i)
            order[i] = {numbersOf(grid, points[i]), static_cast<std::uint32_t>(i)};
        std::sort(order.begin(), order.end());
        std::vector<Vec3f> sorted(points.size());
        std::vector<CellNumbers> cells;        // of each run
        std::vector<std::uint32_t> run_start;  // of each run, then one past the last
        std::vector<std::uint32_t> run_of(points.size());
        for (std::size_t y = 0; y < order.size(); ++y) {
            sorted[y] = points[order[y].second];
            if (y == 0 || !(order[y].first == order[y - 1].first)) {
                cells.push_back(order[y].first);
                run_start.push_back(static_cast<std::uint32_t>(y));
            }
            run_of[order[y].second] = static_cast<std::uint32_t>(cells.size() - 1);
        }
        run_start.push_back(static_cast<std::uint32_t>(order.size()));
        const auto runAtNumbers = [&](const CellNumbers& c) -> std::int64_t {
            const auto it = std::lower_bound(cells.begin(), cells.end(), c);
            return it != cells.end() && *it == c ? it - cells.begin() : -1;
        };
        // The cells within [from, to] in the order forCellsInBox visits them: block by block (z, y, x), in a
        // block by place (z, y, x).
        const auto forCells = [&](const std::int64_t(&from)[3], const std::int64_t(&to)[3], auto&& visit) {
            for (std::int64_t bk = from[2] >> 2; bk <= to[2] >> 2; ++bk)
                for (std::int64_t bj = from[1] >> 2; bj <= to[1] >> 2; ++bj)
                    for (std::int64_t bi = from[0] >> 2; bi <= to[0] >> 2; ++bi)
                        for (std::int64_t k = 4 * bk; k < 4 * bk + 4; ++k)
                            for (std::int64_t j = 4 * bj; j < 4 * bj + 4; ++j)
                                for (std::int64_t i = 4 * bi; i < 4 * bi + 4; ++i) {
                                    if (i < from[0] || i > to[0] || j < from[1] || j > to[1] || k < from[2] ||
                                        k > to[2])
                                        continue;
                                    const std::int64_t run = runAtNumbers({{i, j, k}});
                                    if (run >= 0) visit(&sorted[run_start[run]], run_start[run + 1] - run_start[run]);
                                }
        };
        const std::ptrdiff_t runs = static_cast<std::ptrdiff_t>(cells.size());
        std::vector<float> around(cells.size()), spacing(cells.size());
#pragma omp parallel for schedule(dynamic, 64)
        for (std::ptrdiff_t r = 0; r < runs; ++r)
            around[r] = spacingAroundIn(grid, forCells, sorted[run_start[r]].data());
#pragma omp parallel for schedule(dynamic, 256)
        for (std::ptrdiff_t r = 0; r < runs; ++r) {
            float largest = around[r];
            for (std::int64_t dk = -1; dk <= 1; ++dk)
                for (std::int64_t dj = -1; dj <= 1; ++dj)
                    for (std::int64_t di = -1; di <= 1; ++di) {
                        const CellNumbers& c = cells[r];
                        const std::int64_t other = runAtNumbers({{c.n[0] + di, c.n[1] + dj, c.n[2] + dk}});
                        if (other >= 0) largest = std::max(largest, around[other]);
                    }
            spacing[r] = largest;
        }
        const double code_max = static_cast<double>(c_max);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const int code_level = codeLevelOf(levelsOf(spacing[run_of[i]], resolution, code_max), own[i]);
            *words[i] =
                static_cast<std::int32_t>((static_cast<std::uint32_t>(*words[i]) & ~0xFFu) | (1u << code_level));
        }
        return 0;
    });
}

double expectedTriangles(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, const PointSpacing& spacing,
                         float resolution) {
    if (!(spacing.density > 0.0f) || !(resolution > 0.0f)) return 0.0;  // nothing to count for
    PointSpacing counted = spacing;
    const int status = mesh_internal::guarded([&] {
        std::vector<Piece> pieces = piecesOf(frames, true);
        const Counts counts = countPieces(pieces);
        std::copy(std::begin(counts.codes), std::end(counts.codes), counted.codes);
        return 0;
    });
    return status == 0 ? expectedTriangles(counted, resolution) : 0.0;
}

double expectedTriangles(const PointSpacing& spacing, float resolution) {
    const double area = static_cast<double>(spacing.density) * spacing.density;  // surface a point stands for
    if (!(area > 0.0) || !(resolution > 0.0f)) return 0.0;
    // The surface each point stands for over the square of its cell's edge, summed by scale code: the
    // counts are whole numbers, the same on any thread count.
    double cells = 0.0;
    for (int k = 0; k < 7; ++k) {
        const double edge = static_cast<double>(resolution) * 8.0 / CODES[k];
        cells += static_cast<double>(spacing.codes[k]) * (area / (edge * edge));
    }
    return TRIANGLES_PER_SQUARE_EDGE * cells;
}

}  // namespace SurfaceReconstruction
