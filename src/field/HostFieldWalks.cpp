// The field passes' walks on AVX2: eight points at a time through the tests, the offsets and the
// products, then each kept point's share added to the sums in walk order. Built with AVX2 and FMA and
// without contracted multiply-adds (every product and sum is rounded where the per-cell functions round
// it), and run only where the processor has both.
#include "field/HostFieldWalks.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "common/RunStop.h"
#include "common/VectorUnits.h"
#include "field/FieldComputation.h"

namespace SurfaceReconstruction {

// ---- columns ---------------------------------------------------------------------------------------

void PointColumns::assign(const RawPointWithHash* points, std::size_t n) { assignInSlices(points, n, false); }

void PointColumns::assignGivingBack(PointList& points) {
    assignInSlices(points.data(), points.size(), true);
    PointList().swap(points);
}

void PointColumns::assignInSlices(const RawPointWithHash* points, std::size_t n, bool give_back) {
    const std::size_t length = n + HOST_COLUMN_PADDING;
    for (UninitialisedArray<float>* column : {&x, &y, &z, &nx, &ny, &nz}) {
        releasePagesBeyond(*column, length);  // what a larger block took before
        column->clear();
        column->resize(length);
    }
    releasePagesBeyond(tag, length);
    tag.clear();
    tag.resize(length);
    const std::int64_t count = static_cast<std::int64_t>(n);
    const std::int64_t slice = give_back ? static_cast<std::int64_t>(HOST_COLUMN_SLICE_POINTS) : count;
    for (std::int64_t from = 0; from < count; from += slice) {
        const std::int64_t to = std::min(count, from + slice);
        // A small block is copied on one core: waking the team would cost more.
#pragma omp parallel for schedule(static) if (count > 65536)
        for (std::int64_t i = from; i < to; ++i) {
            const RawPointWithHash& p = points[i];
            x[i] = p.x;
            y[i] = p.y;
            z[i] = p.z;
            nx[i] = p.nx;
            ny[i] = p.ny;
            nz[i] = p.nz;
            tag[i] = (p.laser < 8 ? p.laser : 8u) | ((p.w & 0x100) != 0 ? 0x100u : 0u);
        }
        if (give_back) releasePagesWithin(points + from, points + to);
    }
    // The padding is read by the last points' loads and masked off: plain zeros.
    for (std::size_t i = n; i < length; ++i) {
        x[i] = y[i] = z[i] = nx[i] = ny[i] = nz[i] = 0.0f;
        tag[i] = 0;
    }
    size = n;
}

void PointColumns::release() {
    for (UninitialisedArray<float>* column : {&x, &y, &z, &nx, &ny, &nz}) UninitialisedArray<float>().swap(*column);
    UninitialisedArray<std::uint32_t>().swap(tag);
    size = 0;
}

#if defined(__x86_64__)

namespace host_walks_internal {

// ---- the exponential -------------------------------------------------------------------------------
//
// portableExpf eight at once (its table and constants, the same operations and fused steps), so that the
// weights come out as the per-cell functions make them; the range where it takes other paths (|x| >= 88,
// NaN, infinities) is left to it.
namespace {

__m256d doubles(std::uint64_t bits) { return _mm256_castsi256_pd(_mm256_set1_epi64x(static_cast<long long>(bits))); }

__attribute__((always_inline)) inline __m128 exp4(__m256d xd) {
    const __m256d inv_ln2 = doubles(EXP_INV_LN2_SCALED), shift = doubles(EXP_SHIFT);
    __m256d kd = _mm256_fmadd_pd(inv_ln2, xd, shift);
    const __m256i ki = _mm256_castpd_si256(kd);
    kd = _mm256_sub_pd(kd, shift);
    const __m256d r = _mm256_fmsub_pd(inv_ln2, xd, kd);
    const __m256i index = _mm256_and_si256(ki, _mm256_set1_epi64x(31));
    // Four loads rather than a gather instruction, which is slow on many processors.
    alignas(32) std::int64_t at[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(at), index);
    __m256i t =
        _mm256_set_epi64x(static_cast<long long>(EXP_TABLE_HOST[at[3]]), static_cast<long long>(EXP_TABLE_HOST[at[2]]),
                          static_cast<long long>(EXP_TABLE_HOST[at[1]]), static_cast<long long>(EXP_TABLE_HOST[at[0]]));
    t = _mm256_add_epi64(t, _mm256_slli_epi64(ki, 47));
    const __m256d s = _mm256_castsi256_pd(t);
    const __m256d z = _mm256_fmadd_pd(doubles(EXP_POLY[0]), r, doubles(EXP_POLY[1]));
    const __m256d r2 = _mm256_mul_pd(r, r);
    __m256d y = _mm256_fmadd_pd(doubles(EXP_POLY[2]), r, _mm256_set1_pd(1.0));
    y = _mm256_fmadd_pd(z, r2, y);
    y = _mm256_mul_pd(y, s);
    return _mm256_cvtpd_ps(y);
}

// expf of the lanes of `x` that `lanes` selects; the others are left to chance.
__attribute__((always_inline)) inline __m256 expLanes(__m256 x, int lanes) {
    const __m256 low = _mm256_castps128_ps256(exp4(_mm256_cvtps_pd(_mm256_castps256_ps128(x))));
    __m256 y = _mm256_insertf128_ps(low, exp4(_mm256_cvtps_pd(_mm256_extractf128_ps(x, 1))), 1);
    const __m256i top = _mm256_and_si256(_mm256_srli_epi32(_mm256_castps_si256(x), 20), _mm256_set1_epi32(0x7ff));
    const __m256i outside = _mm256_cmpgt_epi32(top, _mm256_set1_epi32(static_cast<int>(EXP_TOP_LIMIT - 1)));
    int rare = _mm256_movemask_ps(_mm256_castsi256_ps(outside)) & lanes;
    if (rare != 0) {
        alignas(32) float in[8], out[8];
        _mm256_store_ps(in, x);
        _mm256_store_ps(out, y);
        for (; rare != 0; rare &= rare - 1) {
            const int l = __builtin_ctz(static_cast<unsigned>(rare));
            out[l] = portableExpf(in[l]);
        }
        y = _mm256_load_ps(out);
    }
    return y;
}

}  // namespace

void exp8(const float in[8], float out[8]) { _mm256_storeu_ps(out, expLanes(_mm256_loadu_ps(in), 0xFF)); }

}  // namespace host_walks_internal

namespace {

using host_walks_internal::expLanes;

// A cell whose relations hold fewer points than this on average is walked from its gathered points.
constexpr std::int32_t GATHER_RUN_POINTS = 8;

__m256 broadcast(float v) { return _mm256_set1_ps(v); }

// Lanes 0 to lanes - 1 set.
__m256 firstLanes(int lanes) {
    return _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(lanes), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)));
}

int bitsOf(__m256 mask) { return _mm256_movemask_ps(mask); }

int lowestLane(int bits) { return __builtin_ctz(static_cast<unsigned>(bits)); }

int bitCount8(int bits) { return __builtin_popcount(static_cast<unsigned>(bits)); }

// Where a walk reads its points: the block's columns, or a cell's points gathered in walk order.
struct ColumnView {
    const float *x, *y, *z, *nx, *ny, *nz;
    const std::uint32_t* tag;
};

// The eight points from `at` on, their offsets from the centre and the squares of those.
struct EightPoints {
    __m256 x, y, z, nx, ny, nz;
    __m256 ox, oy, oz, square;

    EightPoints(const ColumnView& c, std::size_t at, const __m256 centre[3]) {
        x = _mm256_loadu_ps(c.x + at);
        y = _mm256_loadu_ps(c.y + at);
        z = _mm256_loadu_ps(c.z + at);
        nx = _mm256_loadu_ps(c.nx + at);
        ny = _mm256_loadu_ps(c.ny + at);
        nz = _mm256_loadu_ps(c.nz + at);
        ox = _mm256_sub_ps(x, centre[0]);
        oy = _mm256_sub_ps(y, centre[1]);
        oz = _mm256_sub_ps(z, centre[2]);
        // o.x * o.x + o.y * o.y, then + o.z * o.z, as squaredLength3f rounds it
        square = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(ox, ox), _mm256_mul_ps(oy, oy)), _mm256_mul_ps(oz, oz));
    }

    // a.x * n.x + a.y * n.y, then + a.z * n.z
    __m256 normalDot(const __m256 a[3]) const {
        return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(nx, a[0]), _mm256_mul_ps(ny, a[1])), _mm256_mul_ps(nz, a[2]));
    }
};

// The lanes whose points take part in a cell's sheets (pointCountsInCell), from the points' tags.
struct PointFilter {
    bool all;              // no point of the cell is filtered out
    bool flag_filter;      // only points with the flag bit count
    std::uint32_t lasers;  // bit l: laser l counts (bit 8: lasers from 8 on)

    // `counting`: the lasers whose points count in cells of the cell's edge (lasersOf).
    PointFilter(const CellNode_Device& cell, std::uint32_t counting) {
        flag_filter = (cell.word & 0x100u) != 0 && (cell.rules & CELL_ALL_POINTS) == 0;
        lasers = counting;
        all = !flag_filter && lasers == 0x1FFu;
    }

    static std::uint32_t lasersOf(const DeviceParameters& params, float edge) {
        std::uint32_t counting = 0;
        for (int l = 0; l < 8; ++l)
            if (!(edge < params.laser_min_edge[l])) counting |= 1u << l;
        if (!(edge < 0.0f)) counting |= 1u << 8;
        return counting;
    }

    __m256 lanes(const ColumnView& c, std::size_t at) const {
        if (all) return _mm256_castsi256_ps(_mm256_set1_epi32(-1));
        const __m256i tag = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c.tag + at));
        const __m256i laser = _mm256_and_si256(tag, _mm256_set1_epi32(0xF));
        const __m256i bit = _mm256_and_si256(_mm256_srlv_epi32(_mm256_set1_epi32(static_cast<int>(lasers)), laser),
                                             _mm256_set1_epi32(1));
        __m256i ok = _mm256_cmpeq_epi32(bit, _mm256_set1_epi32(1));
        if (flag_filter) {
            const __m256i flag = _mm256_and_si256(tag, _mm256_set1_epi32(0x100));
            ok = _mm256_and_si256(ok, _mm256_cmpeq_epi32(flag, _mm256_set1_epi32(0x100)));
        }
        return _mm256_castsi256_ps(ok);
    }
};

// The products that moment sums take of eight points' offsets, lane by lane: for lane l the quad
// (x x, x y, x z, y y) at first(l) and (y z, z z, x, y) at second(l), and z; single precision products, as
// accumulateCovariance forms them.
struct ProductQuads {
    alignas(32) float first_quads[32];
    alignas(32) float second_quads[32];
    alignas(32) float z[8];

    void fill(const EightPoints& p) {
        transpose(_mm256_mul_ps(p.ox, p.ox), _mm256_mul_ps(p.ox, p.oy), _mm256_mul_ps(p.ox, p.oz),
                  _mm256_mul_ps(p.oy, p.oy), first_quads);
        transpose(_mm256_mul_ps(p.oy, p.oz), _mm256_mul_ps(p.oz, p.oz), p.ox, p.oy, second_quads);
        _mm256_store_ps(z, p.oz);
    }
    // Lane l's quad lies at (l & 3) * 8 + (l >> 2) * 4.
    const float* first(int l) const { return first_quads + (l & 3) * 8 + (l >> 2) * 4; }
    const float* second(int l) const { return second_quads + (l & 3) * 8 + (l >> 2) * 4; }

    static void transpose(__m256 a, __m256 b, __m256 c, __m256 d, float* out) {
        const __m256 t0 = _mm256_unpacklo_ps(a, b), t1 = _mm256_unpackhi_ps(a, b);
        const __m256 t2 = _mm256_unpacklo_ps(c, d), t3 = _mm256_unpackhi_ps(c, d);
        _mm256_store_ps(out, _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0)));       // lanes 0 and 4
        _mm256_store_ps(out + 8, _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2)));   // lanes 1 and 5
        _mm256_store_ps(out + 16, _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0)));  // lanes 2 and 6
        _mm256_store_ps(out + 24, _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2)));  // lanes 3 and 7
    }
};

// Where lane l's quad lies in quads made by ProductQuads::transpose.
constexpr int QUAD_AT[8] = {0, 8, 16, 24, 4, 12, 20, 28};

// `sum` plus the quads of the lanes in `bits`, in lane order. Where all eight lanes are in (most chunks of
// a dense cell) the additions are written out: only the chain of sums is left to wait on.
inline __m128 addQuads(__m128 sum, const float* quads, int bits) {
    if (bits == 0xFF) {
#pragma GCC unroll 8
        for (int l = 0; l < 8; ++l) sum = _mm_add_ps(sum, _mm_load_ps(quads + QUAD_AT[l]));
        return sum;
    }
    for (; bits != 0; bits &= bits - 1) sum = _mm_add_ps(sum, _mm_load_ps(quads + QUAD_AT[lowestLane(bits)]));
    return sum;
}

// Moment sums held in registers while a walk runs: (xx, xy, xz, yy), (yz, zz, x, y) and z, each
// element its own double sum, added to in walk order.
struct Moments {
    __m256d first = _mm256_setzero_pd(), second = _mm256_setzero_pd();
    double z = 0.0;

    void add(const ProductQuads& q, int l) {
        first = _mm256_add_pd(first, _mm256_cvtps_pd(_mm_load_ps(q.first(l))));
        second = _mm256_add_pd(second, _mm256_cvtps_pd(_mm_load_ps(q.second(l))));
        z += static_cast<double>(q.z[l]);
    }

    // The lanes in `bits`, in lane order; all eight written out.
    void addLanes(const ProductQuads& q, int bits) {
        if (bits == 0xFF) {
#pragma GCC unroll 8
            for (int l = 0; l < 8; ++l) add(q, l);
            return;
        }
        for (; bits != 0; bits &= bits - 1) add(q, lowestLane(bits));
    }

    void store(MomentSums& sums) const {
        alignas(32) double a[4], b[4];
        _mm256_store_pd(a, first);
        _mm256_store_pd(b, second);
        sums.second[0] = a[0];
        sums.second[1] = a[1];
        sums.second[2] = a[2];
        sums.second[4] = a[3];
        sums.second[5] = b[0];
        sums.second[8] = b[1];
        sums.first[0] = b[2];
        sums.first[1] = b[3];
        sums.first[2] = z;
    }
};

// The sums of one sheet in the field value walk: (sum x, sum y, sum z, weight), the same for the skirt
// test, and the occupancy mask.
struct SheetAccumulator {
    __m128 sum = _mm_setzero_ps();
    __m128 reach = _mm_setzero_ps();
    std::uint64_t mask = 0;

    void store(field_internal::SheetField& sheet) const {
        alignas(16) float a[4], b[4];
        _mm_store_ps(a, sum);
        _mm_store_ps(b, reach);
        for (int k = 0; k < 3; ++k) {
            sheet.sum[k] = a[k];
            sheet.reach_sum[k] = b[k];
        }
        sheet.weight = a[3];
        sheet.reach_weight = b[3];
        sheet.mask = mask;
    }
};

// The field value walk's steps on eight points, apart from its sums. Always inlined: they run once a chunk of
// the hottest walk, and their vectors stay in registers.

// The weight that a sheet's foot gives eight points from their offsets (fx, fy, fz) to it, on the lanes of
// `lanes` (the others are left to chance): exp(a d^2 / denom), d rounded as the per-cell function rounds it.
__attribute__((always_inline)) inline __m256 footWeight(__m256 fx, __m256 fy, __m256 fz, __m256 a, __m256 denom,
                                                        int lanes) {
    const __m256 d = _mm256_sqrt_ps(
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(fx, fx), _mm256_mul_ps(fy, fy)), _mm256_mul_ps(fz, fz)));
    return expLanes(_mm256_div_ps(_mm256_mul_ps(_mm256_mul_ps(d, a), d), denom), lanes);
}

// The points q projected onto the planes of their sheets: t = (q - m) . n, then q = q - t n.
__attribute__((always_inline)) inline void projectOntoSheets(__m256 q[3], const __m256 mean[3], const __m256 n[3]) {
    const __m256 mx = _mm256_sub_ps(q[0], mean[0]), my = _mm256_sub_ps(q[1], mean[1]),
                 mz = _mm256_sub_ps(q[2], mean[2]);
    const __m256 t =
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(mx, n[0]), _mm256_mul_ps(my, n[1])), _mm256_mul_ps(mz, n[2]));
    for (int k = 0; k < 3; ++k) q[k] = _mm256_sub_ps(q[k], _mm256_mul_ps(t, n[k]));
}

// The sub-cell of each point of a sheet inside the box [lo, hi], at its (projected) place q: bit[l] = ix + 4 iy
// + 16 iz, each index truncated toward zero. Returns the lanes of `sheet_bits` inside the box whose bit lies in
// 0..63; an index outside that sets no bit (not clamped: an upper face runs into the next bit). Only the sheets'
// lanes are looked at, and the divisions only where one is inside.
__attribute__((always_inline)) inline int subCellBits(const EightPoints& p, const __m256 q[3], const __m256 lo[3],
                                                      const __m256 hi[3], __m256 sub_cell, int sheet_bits,
                                                      std::int32_t bit[8]) {
    const __m256 position[3] = {p.x, p.y, p.z};
    __m256 inside_lanes = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    for (int k = 0; k < 3; ++k)
        inside_lanes = _mm256_and_ps(inside_lanes, _mm256_and_ps(_mm256_cmp_ps(lo[k], position[k], _CMP_LE_OQ),
                                                                 _mm256_cmp_ps(position[k], hi[k], _CMP_LE_OQ)));
    int mask_bits = bitsOf(inside_lanes) & sheet_bits;
    if (mask_bits == 0) return 0;
    __m256 index[3];
    for (int k = 0; k < 3; ++k) index[k] = _mm256_div_ps(_mm256_sub_ps(q[k], lo[k]), sub_cell);
    // Truncation where every index lies well within an int; the saturating conversion elsewhere.
    const __m256 limit = broadcast(1048576.0f);
    __m256 small = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    for (int k = 0; k < 3; ++k)
        small = _mm256_and_ps(small, _mm256_cmp_ps(_mm256_andnot_ps(broadcast(-0.0f), index[k]), limit, _CMP_LT_OQ));
    if ((bitsOf(small) & mask_bits) == mask_bits) {
        const __m256i b = _mm256_add_epi32(_mm256_cvttps_epi32(index[0]),
                                           _mm256_add_epi32(_mm256_slli_epi32(_mm256_cvttps_epi32(index[1]), 2),
                                                            _mm256_slli_epi32(_mm256_cvttps_epi32(index[2]), 4)));
        _mm256_store_si256(reinterpret_cast<__m256i*>(bit), b);
    } else {
        alignas(32) float ix[8], iy[8], iz[8];
        _mm256_store_ps(ix, index[0]);
        _mm256_store_ps(iy, index[1]);
        _mm256_store_ps(iz, index[2]);
        for (int bits = mask_bits; bits != 0; bits &= bits - 1) {
            const int l = lowestLane(bits);
            bit[l] = floatToIntSaturate(ix[l]) + 4 * floatToIntSaturate(iy[l]) + 16 * floatToIntSaturate(iz[l]);
        }
    }
    for (int bits = mask_bits; bits != 0; bits &= bits - 1) {
        const int l = lowestLane(bits);
        if (bit[l] < 0 || bit[l] >= 64) mask_bits &= ~(1 << l);
    }
    return mask_bits;
}

// The points of `face_bits` into the sums of the cell's second face, in lane order.
__attribute__((always_inline)) inline void addLanesToSecondFace(const EightPoints& p, int face_bits,
                                                                field_internal::SecondFace& second_face) {
    alignas(32) float nx[8], ny[8], nz[8], ox[8], oy[8], oz[8];
    _mm256_store_ps(nx, p.nx);
    _mm256_store_ps(ny, p.ny);
    _mm256_store_ps(nz, p.nz);
    _mm256_store_ps(ox, p.ox);
    _mm256_store_ps(oy, p.oy);
    _mm256_store_ps(oz, p.oz);
    for (; face_bits != 0; face_bits &= face_bits - 1) {
        const int l = lowestLane(face_bits);
        const float n[3] = {nx[l], ny[l], nz[l]};
        const float o[3] = {ox[l], oy[l], oz[l]};
        field_internal::addToSecondFace(second_face, n, o);
    }
}

// A cell's points gathered in walk order into columns of their own: a cell whose relations hold one or
// two points each would otherwise load eight lanes for each of them.
struct CellScratch {
    UninitialisedArray<float> x, y, z, nx, ny, nz;
    UninitialisedArray<std::uint32_t> tag;

    // Gathers the points of `cell` from `columns`; returns how many.
    std::size_t gather(const CellNode_Device& cell, const RelationCell2Bins_Device* relations, int relation_size,
                       const PointColumns& columns) {
        // The cell's point count is what its relations hold: room for that first, more where a list says so.
        roomFor(cell.point_count > 0 ? static_cast<std::size_t>(cell.point_count) : 0);
        const int runs = std::min(cell.relation_count, relation_size - cell.relation_offset);
        const RelationCell2Bins_Device* run = relations + cell.relation_offset;
        std::size_t m = 0;
        for (int r = 0; r < runs;) {
            r = copyRuns(run, r, runs, columns, m);
            if (r < runs) roomFor(m + static_cast<std::size_t>(run[r].count));
        }
        return m;
    }

    // Copies runs from `r` on after the `m` points gathered, up to the first that has no room; returns
    // where it stopped. Eight points a copy, whatever the run holds: the columns and the scratch have room
    // past their ends, the lanes past a run are overwritten by the next one, and the walks mask those past
    // the last. The places first, then the normals and tags: the pointers of either pass stay in registers.
    __attribute__((noinline)) int copyRuns(const RelationCell2Bins_Device* run, int r, int runs,
                                           const PointColumns& columns, std::size_t& gathered) {
        const std::size_t room = x.size() - HOST_COLUMN_PADDING;
        std::size_t m = gathered;
        int stop = r;
        for (; stop < runs; ++stop) {
            const std::int32_t count = run[stop].count;
            if (count <= 0) continue;
            if (m + static_cast<std::size_t>(count) > room) break;
            m += static_cast<std::size_t>(count);
        }
        copyColumns<3>(run, r, stop, gathered, {columns.x.data(), columns.y.data(), columns.z.data()},
                       {x.data(), y.data(), z.data()});
        copyColumns<4>(run, r, stop, gathered,
                       {columns.nx.data(), columns.ny.data(), columns.nz.data(),
                        reinterpret_cast<const float*>(columns.tag.data())},
                       {nx.data(), ny.data(), nz.data(), reinterpret_cast<float*>(tag.data())});
        gathered = m;
        return stop;
    }

    template <int N>
    static void copyColumns(const RelationCell2Bins_Device* run, int r, int stop, std::size_t m,
                            const std::array<const float*, N> from, const std::array<float*, N> to) {
        for (; r < stop; ++r) {
            const std::int32_t count = run[r].count;
            if (count <= 0) continue;
            const std::size_t at = static_cast<std::size_t>(run[r].offset);
            for (std::size_t j = 0; j < static_cast<std::size_t>(count); j += 8)
                for (int c = 0; c < N; ++c) _mm256_storeu_ps(to[c] + m + j, _mm256_loadu_ps(from[c] + at + j));
            m += static_cast<std::size_t>(count);
        }
    }

    ColumnView view() const { return {x.data(), y.data(), z.data(), nx.data(), ny.data(), nz.data(), tag.data()}; }

    // Room for n points and the padding, keeping the points gathered. x, whose size says the room, grows
    // last: a growth that runs out of memory part way leaves x short, and the next call grows them all.
    void roomFor(std::size_t n) {
        if (x.size() >= n + HOST_COLUMN_PADDING) return;
        const std::size_t length = n + HOST_COLUMN_PADDING + n / 2;
        tag.resize(length);
        for (UninitialisedArray<float>* column : {&nz, &ny, &nx, &z, &y, &x}) column->resize(length);
    }
};

bool sameBits(float a, float b) {
    std::uint32_t u, v;
    std::memcpy(&u, &a, sizeof u);
    std::memcpy(&v, &b, sizeof v);
    return u == v;
}

// The last few results of one of the root bounds (squareWithRootAtMost or AtLeast), by their limits.
struct RootBoundCache {
    static constexpr int SIZE = 4;
    float (*bound)(float);
    float limits[SIZE] = {};
    float squares[SIZE] = {};
    int filled = 0, next = 0;

    float operator()(float limit) {
        for (int i = 0; i < filled; ++i)
            if (sameBits(limits[i], limit)) return squares[i];
        const float square = bound(limit);
        limits[next] = limit;
        squares[next] = square;
        next = (next + 1) % SIZE;
        filled = filled < SIZE ? filled + 1 : SIZE;
        return square;
    }
};

// What the walks of one cell hand on to its later walks. The first walk of the initial normal also sums
// what the side walk sums for its front, over its own set of points (those near the centre among them):
// where the side walk's front is that same set, point for point, and its back is empty, the side walk
// takes the sums as they are, the same points added in the same order. The first walk sees whether every
// point that the side walk would put on a side is in its set, and the box of its set's normals; when the
// initial normal's dot product with every normal of that box exceeds the side's bound by more than the
// product's rounding, every point of the set lies in front, and the side walk is not made at all;
// otherwise a walk checks it point by point. A plane fit of sums fitted before takes the vector of that fit.
struct CellCarry {
    const DeviceParameters* params = nullptr;
    bool bounds_known = false;
    float bounds_edge;  // the cell edge of the bounds below
    float near_square;  // the side walk's near radius and reach, as it takes them
    float reach_square;
    // What depends on a cell's edge alone, kept for the edges met last: cells of one size share it.
    RootBoundCache at_most{squareWithRootAtMost}, at_least{squareWithRootAtLeast};
    bool lasers_known = false;
    float lasers_edge;
    std::uint32_t lasers = 0;  // PointFilter::lasersOf(params, lasers_edge)
    bool first_set = false;    // the first walk's set is described below
    bool sides_in_set;         // every point the side walk could put on a side is in the set
    std::uint32_t rules;       // the cell's rules in the first walk (the side walk's filter follows them)
    float reference0[3];
    float inside_square;
    MomentSums set0;
    int count0;
    float position[3];  // the sum of the near points' positions
    int near_count;
    float normal_low[3], normal_high[3];  // the box of the set's normals
    bool fitted = false;                  // the last fit is described below
    MomentSums fit_sums;
    int fit_count;
    float fit_normal[3];                              // planeNormalOf(fit_sums, fit_count)
    std::vector<std::pair<std::size_t, int>> chunks;  // the field value walk's chunks of the cell

    void startCell() {
        first_set = false;
        fitted = false;
    }
    // The side walk's bounds for cells of this edge.
    void boundsFor(float edge) {
        if (bounds_known && sameBits(edge, bounds_edge)) return;
        near_square = at_least(edge * 4.0f);
        reach_square = at_most(edge * static_cast<float>(fieldSearchFactor(edge, params->wide_search_edge)));
        bounds_edge = edge;
        bounds_known = true;
    }
    std::uint32_t lasersFor(float edge) {
        if (!lasers_known || !sameBits(edge, lasers_edge)) {
            lasers = PointFilter::lasersOf(*params, edge);
            lasers_edge = edge;
            lasers_known = true;
        }
        return lasers;
    }
    // Whether the dot product of `toward` with every normal of the set's box is above 0.15 as the walks
    // round it: the least exact product over the box, less a bound on the rounding of three products and
    // two sums of terms no larger than those of the box.
    bool setAbove(const float toward[3]) const {
        if (count0 == 0) return true;
        double least = 0.0, size = 1.0;
        for (int k = 0; k < 3; ++k) {
            const double t = toward[k], low = normal_low[k], high = normal_high[k];
            least += t >= 0.0 ? t * low : t * high;
            size += std::fabs(t) * std::max(std::fabs(low), std::fabs(high));
        }
        return least - 1e-6 * size > static_cast<double>(0.15f);
    }
};

// The walks of one cell: through its relations over the block's columns, or (Gathered) over the cell's
// own gathered columns, `gathered` points from 0 on.
template <bool Gathered>
struct ColumnWalks {
    const RelationCell2Bins_Device* relations;
    int relation_size;
    ColumnView columns;
    std::size_t gathered;
    CellCarry* carry;

    // Calls chunk(at, lanes) for the cell's points eight at a time, in walk order.
    template <class Chunk>
    void forEachEight(const CellNode_Device& cell, Chunk&& chunk) const {
        if (Gathered) {
            for (std::size_t at = 0; at < gathered; at += 8)
                chunk(at, gathered - at < 8 ? static_cast<int>(gathered - at) : 8);
            return;
        }
        for (int r = 0; r < cell.relation_count && cell.relation_offset + r < relation_size; ++r) {
            const RelationCell2Bins_Device relation = relations[cell.relation_offset + r];
            for (int j = 0; j < relation.count; j += 8) {
                const int lanes = relation.count - j < 8 ? relation.count - j : 8;
                chunk(static_cast<std::size_t>(relation.offset) + static_cast<std::size_t>(j), lanes);
            }
        }
    }

    // Calls check(at, lanes) as forEachEight would until it gives false; whether none did.
    template <class Check>
    bool allEight(const CellNode_Device& cell, Check&& check) const {
        if (Gathered) {
            for (std::size_t at = 0; at < gathered; at += 8)
                if (!check(at, gathered - at < 8 ? static_cast<int>(gathered - at) : 8)) return false;
            return true;
        }
        for (int r = 0; r < cell.relation_count && cell.relation_offset + r < relation_size; ++r) {
            const RelationCell2Bins_Device relation = relations[cell.relation_offset + r];
            for (int j = 0; j < relation.count; j += 8) {
                const int lanes = relation.count - j < 8 ? relation.count - j : 8;
                if (!check(static_cast<std::size_t>(relation.offset) + static_cast<std::size_t>(j), lanes))
                    return false;
            }
        }
        return true;
    }

    void fitPlane(const MomentSums& sums, int count, const float reference[3], float normal[3]) const {
        if (!(carry->fitted && count == carry->fit_count && std::memcmp(&sums, &carry->fit_sums, sizeof sums) == 0)) {
            planeNormalOf(sums, count, carry->fit_normal);
            carry->fit_sums = sums;
            carry->fit_count = count;
            carry->fitted = true;
        }
        for (int k = 0; k < 3; ++k) normal[k] = carry->fit_normal[k];
        turnToward(reference, normal);
    }

    float squareAtMost(float limit) const { return carry->at_most(limit); }
    float squareAtLeast(float limit) const { return carry->at_least(limit); }

    void normalOf(std::size_t i, float out[3]) const {
        out[0] = columns.nx[i];
        out[1] = columns.ny[i];
        out[2] = columns.nz[i];
    }

    void firstNormal(const CellNode_Device& cell, float out[3]) const {
        normalOf(Gathered ? 0 : static_cast<std::size_t>(relations[cell.relation_offset].offset), out);
    }

    void initFirst(const CellNode_Device& cell, const float reference0[3], float inside_square,
                   field_internal::InitFirstSums& sums) const {
        const __m256 centre[3] = {broadcast(cell.center[0]), broadcast(cell.center[1]), broadcast(cell.center[2])};
        const __m256 reference[3] = {broadcast(reference0[0]), broadcast(reference0[1]), broadcast(reference0[2])};
        const __m256 agree = broadcast(0.35f), inside = broadcast(inside_square);
        const int half = cell.point_count / 2, last = cell.point_count - 1;
        // What the side walk would take: its filter, reach and near radius.
        const float edge = cell.half_size + cell.half_size;
        carry->boundsFor(edge);
        const PointFilter filter(cell, carry->lasersFor(edge));
        const __m256 near = broadcast(carry->near_square), reach = broadcast(carry->reach_square);
        const __m256 infinite = broadcast(INFINITY), minus_infinite = broadcast(-INFINITY);
        __m256 low[3] = {infinite, infinite, infinite}, high[3] = {minus_infinite, minus_infinite, minus_infinite};
        bool sides_in_set = true;
        Moments set;
        int count = 0, g = 0;  // g: the points walked before the chunk
        __m128 position = _mm_setzero_ps();
        int near_count = 0;
        ProductQuads products;
        alignas(32) float position_quads[32];
        forEachEight(cell, [&](std::size_t at, int lanes) {
            const EightPoints p(columns, at, centre);
            const __m256 walked = firstLanes(lanes);
            const __m256 kept = _mm256_and_ps(_mm256_and_ps(_mm256_cmp_ps(p.normalDot(reference), agree, _CMP_GT_OQ),
                                                            _mm256_cmp_ps(p.square, inside, _CMP_LT_OQ)),
                                              walked);
            // The walk numbers g + 1 to g + lanes: the references' points may be among them.
            if (half > g && half <= g + lanes) normalOf(at + static_cast<std::size_t>(half - g - 1), sums.reference1);
            if (last > g && last <= g + lanes) normalOf(at + static_cast<std::size_t>(last - g - 1), sums.reference2);
            g += lanes;
            int bits = bitsOf(kept);
            // The points the side walk could put on a side: they count in the cell and lie within its reach.
            const __m256 sided = _mm256_and_ps(_mm256_and_ps(filter.lanes(columns, at), walked),
                                               _mm256_cmp_ps(p.square, reach, _CMP_NGT_UQ));
            sides_in_set = sides_in_set && bitsOf(sided) == bits;
            if (bits == 0) return;
            const __m256 n[3] = {p.nx, p.ny, p.nz};
            for (int k = 0; k < 3; ++k) {
                low[k] = _mm256_min_ps(low[k], _mm256_blendv_ps(infinite, n[k], kept));
                high[k] = _mm256_max_ps(high[k], _mm256_blendv_ps(minus_infinite, n[k], kept));
            }
            products.fill(p);
            set.addLanes(products, bits);
            count += bitCount8(bits);
            const int near_bits = bitsOf(_mm256_cmp_ps(p.square, near, _CMP_LT_OQ)) & bits;
            if (near_bits == 0) return;
            ProductQuads::transpose(p.x, p.y, p.z, _mm256_setzero_ps(), position_quads);
            position = addQuads(position, position_quads, near_bits);
            near_count += bitCount8(near_bits);
        });
        set.store(sums.set0);
        sums.count0 = count;
        CellCarry& c = *carry;
        c.first_set = true;
        c.sides_in_set = sides_in_set;
        c.rules = cell.rules;
        for (int k = 0; k < 3; ++k) {
            c.reference0[k] = reference0[k];
            alignas(32) float l[8], h[8];
            _mm256_store_ps(l, low[k]);
            _mm256_store_ps(h, high[k]);
            c.normal_low[k] = *std::min_element(l, l + 8);
            c.normal_high[k] = *std::max_element(h, h + 8);
        }
        c.inside_square = inside_square;
        c.set0 = sums.set0;
        c.count0 = count;
        alignas(16) float sum[4];
        _mm_store_ps(sum, position);
        for (int k = 0; k < 3; ++k) c.position[k] = sum[k];
        c.near_count = near_count;
    }

    // Whether the side walk's front is the first walk's set, point for point, and its back is empty.
    bool sidesAreFirstSet(const CellNode_Device& cell, float edge) const {
        const __m256 centre[3] = {broadcast(cell.center[0]), broadcast(cell.center[1]), broadcast(cell.center[2])};
        const __m256 reference[3] = {broadcast(carry->reference0[0]), broadcast(carry->reference0[1]),
                                     broadcast(carry->reference0[2])};
        const __m256 toward[3] = {broadcast(cell.init_normal[0]), broadcast(cell.init_normal[1]),
                                  broadcast(cell.init_normal[2])};
        const __m256 agree = broadcast(0.35f), inside = broadcast(carry->inside_square);
        const __m256 reach = broadcast(carry->reach_square), above = broadcast(0.15f), below = broadcast(-0.15f);
        const PointFilter filter(cell, carry->lasersFor(edge));
        return allEight(cell, [&](std::size_t at, int lanes) {
            const EightPoints p(columns, at, centre);
            const __m256 walked = firstLanes(lanes);
            const __m256 kept = _mm256_and_ps(_mm256_and_ps(_mm256_cmp_ps(p.normalDot(reference), agree, _CMP_GT_OQ),
                                                            _mm256_cmp_ps(p.square, inside, _CMP_LT_OQ)),
                                              walked);
            const __m256 within = _mm256_and_ps(_mm256_and_ps(filter.lanes(columns, at), walked),
                                                _mm256_cmp_ps(p.square, reach, _CMP_NGT_UQ));
            const __m256 dot = p.normalDot(toward);
            const int front_bits = bitsOf(_mm256_and_ps(_mm256_cmp_ps(dot, above, _CMP_GT_OQ), within));
            const int back_bits = bitsOf(_mm256_and_ps(_mm256_cmp_ps(dot, below, _CMP_LT_OQ), within));
            return front_bits == bitsOf(kept) && back_bits == 0;
        });
    }

    void initSecond(const CellNode_Device& cell, float reach_square, const float reference1[3],
                    const float reference2[3], field_internal::InitSecondSums& sums) const {
        // Most of the first walk's points disagreed with the first point: its set seldom makes the sides.
        carry->first_set = false;
        const __m256 centre[3] = {broadcast(cell.center[0]), broadcast(cell.center[1]), broadcast(cell.center[2])};
        const __m256 first[3] = {broadcast(reference1[0]), broadcast(reference1[1]), broadcast(reference1[2])};
        const __m256 second[3] = {broadcast(reference2[0]), broadcast(reference2[1]), broadcast(reference2[2])};
        const __m256 agree = broadcast(0.35f), reach = broadcast(reach_square);
        Moments set1, set2;
        int count1 = 0, count2 = 0;
        ProductQuads products;
        forEachEight(cell, [&](std::size_t at, int lanes) {
            const EightPoints p(columns, at, centre);
            // not beyond the reach: a NaN square, which no comparison puts beyond it, counts as within
            const __m256 within = _mm256_and_ps(_mm256_cmp_ps(p.square, reach, _CMP_NGT_UQ), firstLanes(lanes));
            int bits1 = bitsOf(_mm256_and_ps(_mm256_cmp_ps(p.normalDot(first), agree, _CMP_GT_OQ), within));
            int bits2 = bitsOf(_mm256_and_ps(_mm256_cmp_ps(p.normalDot(second), agree, _CMP_GT_OQ), within));
            if ((bits1 | bits2) == 0) return;
            products.fill(p);
            set1.addLanes(products, bits1);
            count1 += bitCount8(bits1);
            set2.addLanes(products, bits2);
            count2 += bitCount8(bits2);
        });
        set1.store(sums.set1);
        set2.store(sums.set2);
        sums.count1 = count1;
        sums.count2 = count2;
    }

    // (The filter's lasers come from the carry, which holds the parameters.)
    void sides(const CellNode_Device& cell, const DeviceParameters&, float edge, float reach_square, float near_square,
               field_internal::SheetSums& front, field_internal::SheetSums& back) const {
        const CellCarry& c = *carry;
        if (c.first_set && c.rules == cell.rules && near_square == c.near_square && reach_square == c.reach_square &&
            ((c.sides_in_set && c.setAbove(cell.init_normal)) || sidesAreFirstSet(cell, edge))) {
            front.moments = carry->set0;
            front.count = carry->count0;
            front.near_count = carry->near_count;
            for (int k = 0; k < 3; ++k) front.position_sum[k] = carry->position[k];
            Moments().store(back.moments);
            back.count = 0;
            back.near_count = 0;
            for (int k = 0; k < 3; ++k) back.position_sum[k] = 0.0f;
            return;
        }
        const __m256 centre[3] = {broadcast(cell.center[0]), broadcast(cell.center[1]), broadcast(cell.center[2])};
        const __m256 toward[3] = {broadcast(cell.init_normal[0]), broadcast(cell.init_normal[1]),
                                  broadcast(cell.init_normal[2])};
        const __m256 reach = broadcast(reach_square), near = broadcast(near_square);
        const __m256 above = broadcast(0.15f), below = broadcast(-0.15f);
        const PointFilter filter(cell, carry->lasersFor(edge));
        // Each side's sums in locals of their own (an array indexed by side would live in memory).
        // The positions as (x, y, z, 0) quads, each lane of the sum the per-cell function's sum of that axis.
        Moments moments_front, moments_back;
        __m128 position_front = _mm_setzero_ps(), position_back = _mm_setzero_ps();
        int count_front = 0, count_back = 0, near_front = 0, near_back = 0;
        alignas(32) float position_quads[32];
        ProductQuads products;
        const auto addSide = [&](int bits, int near_bits, Moments& moments, __m128& position, int& count,
                                 int& near_count) {
            moments.addLanes(products, bits);
            count += bitCount8(bits);
            position = addQuads(position, position_quads, bits & near_bits);
            near_count += bitCount8(bits & near_bits);
        };
        forEachEight(cell, [&](std::size_t at, int lanes) {
            const EightPoints p(columns, at, centre);
            const __m256 within = _mm256_and_ps(_mm256_and_ps(filter.lanes(columns, at), firstLanes(lanes)),
                                                _mm256_cmp_ps(p.square, reach, _CMP_NGT_UQ));
            const __m256 dot = p.normalDot(toward);
            const int front_bits = bitsOf(_mm256_and_ps(_mm256_cmp_ps(dot, above, _CMP_GT_OQ), within));
            const int back_bits = bitsOf(_mm256_and_ps(_mm256_cmp_ps(dot, below, _CMP_LT_OQ), within));
            if ((front_bits | back_bits) == 0) return;
            const int near_bits = bitsOf(_mm256_cmp_ps(p.square, near, _CMP_LT_OQ));
            if (((front_bits | back_bits) & near_bits) != 0)
                ProductQuads::transpose(p.x, p.y, p.z, _mm256_setzero_ps(), position_quads);
            products.fill(p);
            addSide(front_bits, near_bits, moments_front, position_front, count_front, near_front);
            if (back_bits != 0) addSide(back_bits, near_bits, moments_back, position_back, count_back, near_back);
        });
        moments_front.store(front.moments);
        moments_back.store(back.moments);
        front.count = count_front;
        back.count = count_back;
        front.near_count = near_front;
        back.near_count = near_back;
        alignas(16) float sum_front[4], sum_back[4];
        _mm_store_ps(sum_front, position_front);
        _mm_store_ps(sum_back, position_back);
        for (int k = 0; k < 3; ++k) {
            front.position_sum[k] = sum_front[k];
            back.position_sum[k] = sum_back[k];
        }
    }

    void fieldSheets(const CellNode_Device& cell, const DeviceParameters&, const VoxelFieldCenter& centres,
                     const field_internal::FieldWalkSetup& setup, field_internal::SheetField sheets[2],
                     field_internal::SecondFace& second_face) const {
        // Made apart for one or two sheets, with or without the skirt sums: the tests of the others fall away.
        const bool two = cell.field_flag >= 2;
        if (two && setup.skirt_test) return fieldSheetsAs<true, true>(cell, centres, setup, sheets, second_face);
        if (two) return fieldSheetsAs<true, false>(cell, centres, setup, sheets, second_face);
        if (setup.skirt_test) return fieldSheetsAs<false, true>(cell, centres, setup, sheets, second_face);
        fieldSheetsAs<false, false>(cell, centres, setup, sheets, second_face);
    }

    template <bool Two, bool Skirt>
    void fieldSheetsAs(const CellNode_Device& cell, const VoxelFieldCenter& centres,
                       const field_internal::FieldWalkSetup& setup, field_internal::SheetField sheets[2],
                       field_internal::SecondFace& second_face) const {
        const __m256 centre[3] = {broadcast(cell.center[0]), broadcast(cell.center[1]), broadcast(cell.center[2])};
        __m256 normal[2][3], foot[2][3], mean[2][3];
        for (int s = 0; s < 2; ++s)
            for (int k = 0; k < 3; ++k) {
                normal[s][k] = broadcast(cell.fields[s].normal[k]);
                foot[s][k] = broadcast(setup.foot[s][k]);
                mean[s][k] = broadcast(centres.sheet[s][k]);
            }
        const __m256 lo[3] = {broadcast(setup.lo[0]), broadcast(setup.lo[1]), broadcast(setup.lo[2])};
        const __m256 hi[3] = {broadcast(setup.hi[0]), broadcast(setup.hi[1]), broadcast(setup.hi[2])};
        const __m256 reach = broadcast(setup.reach_square), sub_cell = broadcast(setup.sub_cell);
        const __m256 agree = broadcast(0.15f), across = broadcast(-0.5f);
        const __m256 a = broadcast(setup.weight.a), denom = broadcast(setup.weight.denom);
        const PointFilter filter(cell, carry->lasersFor(setup.edge));
        // Each sheet's sums in registers of their own: (sum x, sum y, sum z, weight) and the same of the skirt
        // test, one addition of four lanes a point, each lane the sum the per-cell function makes.
        SheetAccumulator sheet0, sheet1;
        alignas(32) float sum_quads[32], reach_quads[32];
        alignas(32) std::int32_t bit[8];
        // The skirt sums take every lane of the sheet, the others only the points that count in the cell.
        const auto addSheet = [&](SheetAccumulator& sheet, int bits, int count_bits, int mask_bits) {
            if (Skirt) {
                sheet.reach = addQuads(sheet.reach, reach_quads, bits);
                bits &= count_bits;
            }
            sheet.sum = addQuads(sheet.sum, sum_quads, bits);
            for (int inside = bits & mask_bits; inside != 0; inside &= inside - 1)
                sheet.mask |= std::uint64_t{1} << bit[lowestLane(inside)];
        };
        // The weight of the points from `at` on as one sheet's foot gives it (the lanes past `lanes` are left
        // to chance).
        const auto weightOf = [&](std::size_t at, int lanes) {
            return footWeight(_mm256_sub_ps(_mm256_loadu_ps(columns.x + at), foot[0][0]),
                              _mm256_sub_ps(_mm256_loadu_ps(columns.y + at), foot[0][1]),
                              _mm256_sub_ps(_mm256_loadu_ps(columns.z + at), foot[0][2]), a, denom, (1 << lanes) - 1);
        };
        const auto chunkAt = [&](std::size_t at, int lanes, __m256 weight_ahead) __attribute__((always_inline)) {
            const EightPoints p(columns, at, centre);
            const __m256 counts = filter.lanes(columns, at);
            __m256 considered = firstLanes(lanes);
            if (!Skirt) considered = _mm256_and_ps(considered, counts);
            considered = _mm256_and_ps(considered, _mm256_cmp_ps(p.square, reach, _CMP_NGT_UQ));
            const __m256 dot0 = p.normalDot(normal[0]);
            const __m256 in_sheet0 = _mm256_and_ps(_mm256_cmp_ps(dot0, agree, _CMP_GT_OQ), considered);
            __m256 in_sheet1 = _mm256_setzero_ps();
            if (Two)
                in_sheet1 = _mm256_andnot_ps(
                    in_sheet0, _mm256_and_ps(_mm256_cmp_ps(p.normalDot(normal[1]), agree, _CMP_GT_OQ), considered));
            const int bits0 = bitsOf(in_sheet0), bits1 = bitsOf(in_sheet1);
            int face_bits = 0;
            if (setup.second_face)
                face_bits = bitsOf(_mm256_andnot_ps(in_sheet0, _mm256_and_ps(_mm256_and_ps(considered, counts),
                                                                             _mm256_cmp_ps(dot0, across, _CMP_GT_OQ))));
            if ((bits0 | bits1 | face_bits) == 0) return;
            const int count_bits = bitsOf(counts);
            if ((bits0 | bits1) != 0) {
                // Each lane takes its sheet's foot point, mean point and normal.
                __m256 n_s[3], foot_s[3], mean_s[3];
                for (int k = 0; k < 3; ++k) {
                    n_s[k] = Two ? _mm256_blendv_ps(normal[0][k], normal[1][k], in_sheet1) : normal[0][k];
                    foot_s[k] = Two ? _mm256_blendv_ps(foot[0][k], foot[1][k], in_sheet1) : foot[0][k];
                    mean_s[k] = Two ? _mm256_blendv_ps(mean[0][k], mean[1][k], in_sheet1) : mean[0][k];
                }
                __m256 weight = weight_ahead;  // one sheet: the weight came ahead
                if (Two && setup.weight.gaussian)
                    weight = footWeight(_mm256_sub_ps(p.x, foot_s[0]), _mm256_sub_ps(p.y, foot_s[1]),
                                        _mm256_sub_ps(p.z, foot_s[2]), a, denom, bits0 | bits1);
                if (Skirt)
                    ProductQuads::transpose(_mm256_mul_ps(p.ox, weight), _mm256_mul_ps(p.oy, weight),
                                            _mm256_mul_ps(p.oz, weight), weight, reach_quads);
                __m256 q[3] = {p.x, p.y, p.z};
                if (setup.project) projectOntoSheets(q, mean_s, n_s);
                ProductQuads::transpose(_mm256_mul_ps(_mm256_sub_ps(q[0], centre[0]), weight),
                                        _mm256_mul_ps(_mm256_sub_ps(q[1], centre[1]), weight),
                                        _mm256_mul_ps(_mm256_sub_ps(q[2], centre[2]), weight), weight, sum_quads);
                const int mask_bits = subCellBits(p, q, lo, hi, sub_cell, bits0 | bits1, bit);
                addSheet(sheet0, bits0, count_bits, mask_bits);
                if (bits1 != 0) addSheet(sheet1, bits1, count_bits, mask_bits);
            }
            if (face_bits != 0) addLanesToSecondFace(p, face_bits, second_face);
        };
        // One sheet: each chunk's weights are worked out while the chunk before is summed (their roots,
        // divisions and exponentials take long, and depend on nothing summed), the cell's chunks listed first.
        if (Two || !setup.weight.gaussian) {
            forEachEight(cell, [&](std::size_t at, int lanes) { chunkAt(at, lanes, broadcast(1.0f)); });
        } else {
            std::vector<std::pair<std::size_t, int>>& chunks = carry->chunks;
            chunks.clear();
            forEachEight(cell, [&](std::size_t at, int lanes) { chunks.emplace_back(at, lanes); });
            __m256 next = chunks.empty() ? broadcast(1.0f) : weightOf(chunks[0].first, chunks[0].second);
            for (std::size_t c = 0; c < chunks.size(); ++c) {
                const __m256 weight = next;
                if (c + 1 < chunks.size()) next = weightOf(chunks[c + 1].first, chunks[c + 1].second);
                chunkAt(chunks[c].first, chunks[c].second, weight);
            }
        }
        sheet0.store(sheets[0]);
        sheet1.store(sheets[1]);
    }
};

template <class Walks>
void computeCellField(CellNode_Device& cell, const DeviceParameters& params, VoxelFieldCenter& centres,
                      const Walks& walks) {
    walks.carry->startCell();
    computeInitNormalWith(cell, walks.relation_size, params, walks);
    computeFineNormalWith(cell, params, centres, walks);
    computeFieldDataWith(cell, params, centres, walks);
}

bool expAgreesWithScalar() {
    // The weights' arguments lie in [-104, 0]; a spread of them, and the ends of the range.
    alignas(32) float in[8], out[8];
    std::uint32_t bits = 0x80000000u;        // -0
    const std::uint32_t last = 0xC2D00000u;  // -104
    const std::uint32_t step = (last - bits) / 262144 + 1;
    for (std::uint32_t u = bits; u <= last; u += 8 * step) {
        for (int l = 0; l < 8; ++l) {
            const std::uint32_t v = u + static_cast<std::uint32_t>(l) * step;
            std::memcpy(&in[l], &v, sizeof(float));
        }
        host_walks_internal::exp8(in, out);
        for (int l = 0; l < 8; ++l) {
            const float expected = portableExpf(in[l]);
            if (std::memcmp(&expected, &out[l], sizeof(float)) != 0) return false;
        }
    }
    return true;
}

}  // namespace

bool hostFieldWalksAvailable() {
    static std::once_flag once;
    static bool available = false;
    std::call_once(once, [] { available = hostHasAvx2AndFma() && expAgreesWithScalar(); });
    return available;
}

void computeCellFieldsOnHost(CellNode_Device* cells, std::size_t n, const RelationCell2Bins_Device* relations,
                             int relation_size, const PointColumns& columns, const DeviceParameters& params,
                             VoxelFieldCenter* centres) {
    const ColumnView block_view{columns.x.data(),  columns.y.data(),  columns.z.data(),  columns.nx.data(),
                                columns.ny.data(), columns.nz.data(), columns.tag.data()};
    const std::int64_t count = static_cast<std::int64_t>(n);
    const std::atomic<bool>* stop = runStopFlag();
#pragma omp parallel
    {
        CellScratch scratch;
        CellCarry carry;
        carry.params = &params;
        // Cells differ by orders of magnitude in their points: small chunks, handed out as the cores come free.
#pragma omp for schedule(dynamic, 32)
        for (std::int64_t i = 0; i < count; ++i) {
            centres[i] = VoxelFieldCenter{};  // each cell's sheets start from none
            if (stopAsked(stop)) continue;    // the run stops after the loop
            CellNode_Device& cell = cells[i];
            // Runs of a few points each are gathered first: the four walks then read whole chunks.
            // (A cell that the initial normal rejects before any walk is not gathered.)
            const bool walked = cell.field_flag >= 0 && cell.point_count >= 5 && cell.relation_offset >= 0 &&
                                cell.relation_offset < relation_size;
            bool gathered = false;
            std::size_t points = 0;
            if (walked && cell.point_count < GATHER_RUN_POINTS * cell.relation_count) {
                try {
                    points = scratch.gather(cell, relations, relation_size, columns);
                    gathered = true;
                } catch (const std::bad_alloc&) {
                    // no room to gather: the walks read the block's columns as they are
                }
            }
            if (gathered) {
                computeCellField(cell, params, centres[i],
                                 ColumnWalks<true>{relations, relation_size, scratch.view(), points, &carry});
            } else {
                computeCellField(cell, params, centres[i],
                                 ColumnWalks<false>{relations, relation_size, block_view, 0, &carry});
            }
        }
    }
    stopPoint();
}

#else

// Other processors have no AVX2: the per-cell functions run as they are, and the walks are never asked for.
bool hostFieldWalksAvailable() { return false; }

void computeCellFieldsOnHost(CellNode_Device*, std::size_t, const RelationCell2Bins_Device*, int, const PointColumns&,
                             const DeviceParameters&, VoxelFieldCenter*) {}

namespace host_walks_internal {
void exp8(const float in[8], float out[8]) {
    for (int l = 0; l < 8; ++l) out[l] = portableExpf(in[l]);
}
}  // namespace host_walks_internal

#endif

}  // namespace SurfaceReconstruction
