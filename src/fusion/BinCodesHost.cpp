// Built with AVX2, and run only where the processor has it. Nothing here calls the shared inline
// functions (an out-of-line copy built for AVX2 could serve every caller): the tail of the points goes
// through the same vector steps on a copy.
#include "fusion/BinCodesHost.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <climits>
#include <cstring>

#include "common/VectorUnits.h"

namespace SurfaceReconstruction {

#if defined(__x86_64__)

bool binCodesOnVectorUnits() { return hostHasAvx2AndFma(); }

namespace {

__m256i constant(std::uint32_t value) { return _mm256_set1_epi32(static_cast<int>(value)); }

// mortonSpread of eight coordinates.
__m256i spread(__m256i v) {
    __m256i t = _mm256_or_si256(_mm256_slli_epi32(v, 16), v);
    t = _mm256_or_si256(_mm256_and_si256(t, constant(0x030000FFu)),
                        _mm256_and_si256(_mm256_slli_epi32(t, 8), constant(0x0000FF00u)));
    t = _mm256_or_si256(_mm256_and_si256(t, constant(0x0300F00Fu)),
                        _mm256_and_si256(_mm256_slli_epi32(t, 4), constant(0x300F00F0u)));
    t = _mm256_or_si256(_mm256_and_si256(t, constant(0x01041041u)),
                        _mm256_and_si256(_mm256_slli_epi32(t, 2), constant(0x08208208u)));
    return t;
}

// The bin indices of eight coordinates on one axis: 0 where the coordinate is not above the origin, else
// the quotient truncated and saturated as floatToIntSaturate does (2^31 and above INT_MAX, the truncation
// itself below). Only the low ten bits reach a code: a NaN quotient (an infinite coordinate over an
// infinite bin), which the truncation makes 0x80000000 and floatToIntSaturate 0, gives the same code.
__m256i binIndices(__m256 value, __m256 origin, __m256 bin_size) {
    const __m256 d = _mm256_sub_ps(value, origin);
    const __m256 above = _mm256_cmp_ps(d, _mm256_setzero_ps(), _CMP_GT_OQ);
    const __m256 q = _mm256_div_ps(d, bin_size);
    const __m256 large = _mm256_cmp_ps(q, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ);
    const __m256i index = _mm256_blendv_epi8(_mm256_cvttps_epi32(q), constant(INT_MAX), _mm256_castps_si256(large));
    return _mm256_and_si256(index, _mm256_castps_si256(above));
}

// The codes of eight consecutive points.
void codesOfEight(RawPointWithHash* p, const __m256 origin[3], __m256 bin_size) {
    // x, y, z (and nx) of four points a load, turned into one vector an axis.
    __m128 a0 = _mm_loadu_ps(&p[0].x), a1 = _mm_loadu_ps(&p[1].x), a2 = _mm_loadu_ps(&p[2].x),
           a3 = _mm_loadu_ps(&p[3].x);
    __m128 b0 = _mm_loadu_ps(&p[4].x), b1 = _mm_loadu_ps(&p[5].x), b2 = _mm_loadu_ps(&p[6].x),
           b3 = _mm_loadu_ps(&p[7].x);
    _MM_TRANSPOSE4_PS(a0, a1, a2, a3);
    _MM_TRANSPOSE4_PS(b0, b1, b2, b3);
    const __m256 axis[3] = {_mm256_set_m128(b0, a0), _mm256_set_m128(b1, a1), _mm256_set_m128(b2, a2)};
    __m256i code = _mm256_setzero_si256();
    for (int k = 0; k < 3; ++k)
        code = _mm256_or_si256(code, _mm256_slli_epi32(spread(binIndices(axis[k], origin[k], bin_size)), k));
    alignas(32) std::int32_t codes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(codes), code);
    for (int i = 0; i < 8; ++i) p[i].hash = codes[i];
}

}  // namespace

void writeBinCodes(RawPointWithHash* points, std::int64_t n, const float origin[3], float bin_size) {
    const __m256 o[3] = {_mm256_set1_ps(origin[0]), _mm256_set1_ps(origin[1]), _mm256_set1_ps(origin[2])};
    const __m256 bin = _mm256_set1_ps(bin_size);
    const std::int64_t groups = n / 8;
    // A small block's codes on one core: waking the team would cost more.
#pragma omp parallel for schedule(static) if (groups > 4096)
    for (std::int64_t g = 0; g < groups; ++g) codesOfEight(points + 8 * g, o, bin);
    const std::int64_t done = 8 * groups;
    if (done == n) return;
    RawPointWithHash tail[8];
    std::memset(tail, 0, sizeof(tail));
    std::memcpy(tail, points + done, static_cast<std::size_t>(n - done) * sizeof(RawPointWithHash));
    codesOfEight(tail, o, bin);
    for (std::int64_t i = done; i < n; ++i) points[i].hash = tail[i - done].hash;
}

#else

bool binCodesOnVectorUnits() { return false; }

void writeBinCodes(RawPointWithHash*, std::int64_t, const float*, float) {}

#endif

}  // namespace SurfaceReconstruction
