// Built with AVX2 and FMA and without contracted multiply-adds, and run only where the processor has both.
#include "portion/PlainRuns.h"

#include "common/VectorUnits.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace SurfaceReconstruction {

#if defined(__x86_64__)

bool plainRunsAvailable() { return hostHasAvx2AndFma(); }

namespace {

// The positions of eight points (x, y, z after one another) as three vectors of x, y and z: six loads of
// four and five shuffles, where a gather instruction a coordinate is slow on many processors.
void loadEightPositions(const float* p, __m256 position[3]) {
    __m256 m03 = _mm256_castps128_ps256(_mm_loadu_ps(p));
    __m256 m14 = _mm256_castps128_ps256(_mm_loadu_ps(p + 4));
    __m256 m25 = _mm256_castps128_ps256(_mm_loadu_ps(p + 8));
    m03 = _mm256_insertf128_ps(m03, _mm_loadu_ps(p + 12), 1);  // x0 y0 z0 x1 | x4 y4 z4 x5
    m14 = _mm256_insertf128_ps(m14, _mm_loadu_ps(p + 16), 1);  // y1 z1 x2 y2 | y5 z5 x6 y6
    m25 = _mm256_insertf128_ps(m25, _mm_loadu_ps(p + 20), 1);  // z2 x3 y3 z3 | z6 x7 y7 z7
    const __m256 xy = _mm256_shuffle_ps(m14, m25, _MM_SHUFFLE(2, 1, 3, 2));
    const __m256 yz = _mm256_shuffle_ps(m03, m14, _MM_SHUFFLE(1, 0, 2, 1));
    position[0] = _mm256_shuffle_ps(m03, xy, _MM_SHUFFLE(2, 0, 3, 0));
    position[1] = _mm256_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0));
    position[2] = _mm256_shuffle_ps(yz, m25, _MM_SHUFFLE(3, 0, 3, 1));
}

// The grid index of eight values as gridIndex makes it (q = value / cell, less one below zero, truncated),
// and in `fits` the lanes whose q lies well within an int (NaN outside), where truncation is what the
// saturating conversion gives.
__m256i gridIndices(__m256 value, __m256 cell, __m256& fits) {
    __m256 q = _mm256_div_ps(value, cell);
    q = _mm256_blendv_ps(q, _mm256_sub_ps(q, _mm256_set1_ps(1.0f)), _mm256_cmp_ps(q, _mm256_setzero_ps(), _CMP_LT_OQ));
    fits = _mm256_cmp_ps(_mm256_andnot_ps(_mm256_set1_ps(-0.0f), q), _mm256_set1_ps(1073741824.0f), _CMP_LT_OQ);
    return _mm256_cvttps_epi32(q);
}

// The lanes whose position lies within `half_ext` of the centre of the neighbour at `d` along one axis:
// !(|position - centre| > half_ext), the centre fmaf(index + d, block_res, half_block).
__m256 nearNeighbour(__m256 position, __m256i index, int d, __m256 block_res, __m256 half_block, __m256 half_ext) {
    const __m256 centre =
        _mm256_fmadd_ps(_mm256_cvtepi32_ps(_mm256_add_epi32(index, _mm256_set1_epi32(d))), block_res, half_block);
    const __m256 distance = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), _mm256_sub_ps(position, centre));
    return _mm256_cmp_ps(distance, half_ext, _CMP_NGT_UQ);
}

}  // namespace

std::size_t plainRunLength(const float* xyz, std::size_t i, std::size_t n, float block_res, float half_ext,
                           std::int32_t key[3]) {
    const __m256 res = _mm256_set1_ps(block_res), half_block = _mm256_set1_ps(block_res * 0.5f),
                 ext = _mm256_set1_ps(half_ext), zero = _mm256_setzero_ps();
    std::size_t at = i;
    __m256i own[3] = {_mm256_setzero_si256(), _mm256_setzero_si256(), _mm256_setzero_si256()};
    for (; at + 8 <= n; at += 8) {
        __m256 position[3];
        loadEightPositions(xyz + 3 * at, position);
        // A null point (all three zero) makes no record at all.
        __m256 bad = _mm256_and_ps(
            _mm256_and_ps(_mm256_cmp_ps(position[0], zero, _CMP_EQ_OQ), _mm256_cmp_ps(position[1], zero, _CMP_EQ_OQ)),
            _mm256_cmp_ps(position[2], zero, _CMP_EQ_OQ));
        __m256i index[3];
        for (int k = 0; k < 3; ++k) {
            __m256 fits;
            index[k] = gridIndices(position[k], res, fits);
            bad = _mm256_or_ps(bad, _mm256_xor_ps(fits, _mm256_castsi256_ps(_mm256_set1_epi32(-1))));
            bad = _mm256_or_ps(bad, nearNeighbour(position[k], index[k], -1, res, half_block, ext));
            bad = _mm256_or_ps(bad, nearNeighbour(position[k], index[k], 1, res, half_block, ext));
        }
        if (_mm256_movemask_ps(bad) != 0) break;
        if (at == i)
            for (int k = 0; k < 3; ++k) own[k] = _mm256_set1_epi32(_mm256_cvtsi256_si32(index[k]));
        __m256i same = _mm256_set1_epi32(-1);
        for (int k = 0; k < 3; ++k) same = _mm256_and_si256(same, _mm256_cmpeq_epi32(index[k], own[k]));
        if (_mm256_movemask_epi8(same) != -1) break;
    }
    if (at == i) return 0;
    for (int k = 0; k < 3; ++k) key[k] = _mm256_cvtsi256_si32(own[k]);
    return at - i;
}

void describeEight(const float* xyz, std::size_t i, float block_res, float half_ext, EightBlocks& out) {
    const __m256 res = _mm256_set1_ps(block_res), half_block = _mm256_set1_ps(block_res * 0.5f),
                 ext = _mm256_set1_ps(half_ext), zero = _mm256_setzero_ps();
    __m256 position[3];
    loadEightPositions(xyz + 3 * i, position);
    const __m256 null = _mm256_and_ps(
        _mm256_and_ps(_mm256_cmp_ps(position[0], zero, _CMP_EQ_OQ), _mm256_cmp_ps(position[1], zero, _CMP_EQ_OQ)),
        _mm256_cmp_ps(position[2], zero, _CMP_EQ_OQ));
    __m256i bits = _mm256_and_si256(_mm256_castps_si256(null), _mm256_set1_epi32(EightBlocks::NULL_POINT));
    for (int k = 0; k < 3; ++k) {
        __m256 fits;
        const __m256i index = gridIndices(position[k], res, fits);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out.key[k]), index);
        bits = _mm256_or_si256(bits,
                               _mm256_andnot_si256(_mm256_castps_si256(fits), _mm256_set1_epi32(EightBlocks::TOO_FAR)));
        for (int d = -1; d <= 1; ++d) {
            const __m256 near = nearNeighbour(position[k], index, d, res, half_block, ext);
            bits = _mm256_or_si256(
                bits, _mm256_and_si256(_mm256_castps_si256(near), _mm256_set1_epi32(1 << (3 * k + d + 1))));
        }
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out.bits), bits);
}

#else

bool plainRunsAvailable() { return false; }

void describeEight(const float*, std::size_t, float, float, EightBlocks&) {}

std::size_t plainRunLength(const float*, std::size_t, std::size_t, float, float, std::int32_t*) { return 0; }

#endif

}  // namespace SurfaceReconstruction
