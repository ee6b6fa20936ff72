// The exponential, sine, cosine and arc tangent of the field computation, written with additions,
// multiplications, divisions, square roots and explicit fused multiply-adds only, so that a device and the
// host round every step alike and give the same bits (a device's own expf, sinf and atan2 are not the C
// library's). Kernels are compiled without contracted multiply-adds for the same reason.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {
namespace {

TESSA_HD inline std::uint32_t floatBitsOf(float x) {
    std::uint32_t bits;
    std::memcpy(&bits, &x, sizeof(bits));
    return bits;
}

TESSA_HD inline double doubleOfBits(std::uint64_t bits) {
    double x;
    std::memcpy(&x, &bits, sizeof(x));
    return x;
}

TESSA_HD inline std::uint64_t bitsOfDouble(double x) {
    std::uint64_t bits;
    std::memcpy(&bits, &x, sizeof(bits));
    return bits;
}

// 2^(i/32), i = 0..31, as bits of doubles (one list for host and device code).
#define TESSA_EXP_TABLE_BITS                                                                                \
    0x3ff0000000000000, 0x3fefd9b0d3158574, 0x3fefb5586cf9890f, 0x3fef9301d0125b51, 0x3fef72b83c7d517b,     \
        0x3fef54873168b9aa, 0x3fef387a6e756238, 0x3fef1e9df51fdee1, 0x3fef06fe0a31b715, 0x3feef1a7373aa9cb, \
        0x3feedea64c123422, 0x3feece086061892d, 0x3feebfdad5362a27, 0x3feeb42b569d4f82, 0x3feeab07dd485429, \
        0x3feea47eb03a5585, 0x3feea09e667f3bcd, 0x3fee9f75e8ec5f74, 0x3feea11473eb0187, 0x3feea589994cce13, \
        0x3feeace5422aa0db, 0x3feeb737b0cdc5e5, 0x3feec49182a3f090, 0x3feed503b23e255d, 0x3feee89f995ad3ad, \
        0x3feeff76f2fb5e47, 0x3fef199bdd85529c, 0x3fef3720dcef9069, 0x3fef5818dcfba487, 0x3fef7c97337b9b5f, \
        0x3fefa4afa2a490da, 0x3fefd0765b6e4540

#if defined(__CUDACC__)
__device__ __constant__ std::uint64_t EXP_TABLE_DEVICE[32] = {TESSA_EXP_TABLE_BITS};
#endif
alignas(32) constexpr std::uint64_t EXP_TABLE_HOST[32] = {TESSA_EXP_TABLE_BITS};
// The exponential's other constants, as bits of doubles: 32 / ln 2; 1.5 * 2^52, whose addition rounds to an
// integer; the cubic's coefficients, highest first; and the top 12 bits of 88.0f without the sign, from
// which on the answers take the special paths.
constexpr std::uint64_t EXP_INV_LN2_SCALED = 0x40471547652b82feull;
constexpr std::uint64_t EXP_SHIFT = 0x4338000000000000ull;
constexpr std::uint64_t EXP_POLY[3] = {0x3ebc6af84b912394ull, 0x3f2ebfce50fac4f3ull, 0x3f962e42ff0c52d6ull};
constexpr std::uint32_t EXP_TOP_LIMIT = 0x42b;

TESSA_HD inline std::uint64_t expTable(std::uint64_t i) {
#if defined(__CUDA_ARCH__)
    return EXP_TABLE_DEVICE[i];
#else
    return EXP_TABLE_HOST[i];
#endif
}

// expf: exp(x) = 2^(k/32) * 2^(r/32) with k the nearest integer to x * 32 / ln 2, a table of 2^(i/32) and
// a cubic in r in double precision, rounded once to float; the constants, the order of the operations and
// the fused steps are those of the C library's expf on processors with FMA (the host's vector walks compute
// eight at once the same way), and so are its answers beyond +-88: infinity, 0, NaN.
TESSA_HD inline float portableExpf(float x) {
    const std::uint32_t top = (floatBitsOf(x) >> 20) & 0x7ff;
    if (top >= EXP_TOP_LIMIT) {  // |x| >= 88, infinities, NaN
        if (floatBitsOf(x) == 0xff800000u) return 0.0f;
        if (top >= 0x7f8) return x + x;
        if (x > 0x1.62e42ep6f) return INFINITY;
        if (x < -0x1.9fe368p6f) return 0.0f;
    }
    const double inv_ln2 = doubleOfBits(EXP_INV_LN2_SCALED), shift = doubleOfBits(EXP_SHIFT);
    const double xd = static_cast<double>(x);
    double kd = fma(inv_ln2, xd, shift);
    const std::uint64_t ki = bitsOfDouble(kd);
    kd -= shift;
    const double r = fma(inv_ln2, xd, -kd);
    const double s = doubleOfBits(expTable(ki & 31) + (ki << 47));
    const double z = fma(doubleOfBits(EXP_POLY[0]), r, doubleOfBits(EXP_POLY[1]));
    const double r2 = r * r;
    double y = fma(doubleOfBits(EXP_POLY[2]), r, 1.0);
    y = fma(z, r2, y);
    return static_cast<float>(y * s);
}

// cos and sin of t in [-pi / 3, pi / 3] in double: their Taylor series to the 20th and 21st power (the
// terms left out are below 1e-20), in u = t^2 from the highest term down; the coefficients 1 / n! are the
// doubles nearest to them.
TESSA_HD inline void portableCosSin(double t, double& c, double& s) {
    const double u = t * t;
    c = 0x1.e542ba4020225p-62;
    c = -0x1.6827863b97d97p-53 + u * c;
    c = 0x1.ae7f3e733b81fp-45 + u * c;
    c = -0x1.93974a8c07c9dp-37 + u * c;
    c = 0x1.1eed8eff8d898p-29 + u * c;
    c = -0x1.27e4fb7789f5cp-22 + u * c;
    c = 0x1.a01a01a01a01ap-16 + u * c;
    c = -0x1.6c16c16c16c17p-10 + u * c;
    c = 0x1.5555555555555p-5 + u * c;
    c = -0.5 + u * c;
    c = 1.0 + u * c;
    double r = 0x1.71b8ef6dcf572p-66;
    r = -0x1.2f49b46814157p-57 + u * r;
    r = 0x1.952c77030ad4ap-49 + u * r;
    r = -0x1.ae7f3e733b81fp-41 + u * r;
    r = 0x1.6124613a86d09p-33 + u * r;
    r = -0x1.ae64567f544e4p-26 + u * r;
    r = 0x1.71de3a556c734p-19 + u * r;
    r = -0x1.a01a01a01a01ap-13 + u * r;
    r = 0x1.1111111111111p-7 + u * r;
    r = -0x1.5555555555555p-3 + u * r;
    s = t + t * (u * r);
}

// atan2(y, x) in double, with the C library's signs: odd in y (-0 and -pi below the negative x axis), +-0 for
// y = +-0 and x >= +0, +-pi for y = +-0 and x <= -0.
TESSA_HD inline double portableAtan2(double y, double x) {
    const double pi = 3.141592653589793116, half_pi = 1.570796326794896558, quarter_pi = 0.7853981633974482790;
    const double ax = fabs(x), ay = fabs(y);
    double a;
    if (ay == 0.0 && ax == 0.0) {
        a = 0.0;
    } else {
        double t = ay <= ax ? ay / ax : ax / ay;  // in [0, 1]
        double base = 0.0;
        if (t > 0.41421356237309503) {  // tan(pi / 8): atan(t) = pi / 4 + atan((t - 1) / (t + 1))
            t = (t - 1.0) / (t + 1.0);
            base = quarter_pi;
        }
        // atan(t) = 2 atan(t / (1 + sqrt(1 + t^2))): |t| below 0.2, where the series gains two digits a term.
        const double u = t / (1.0 + sqrt(1.0 + t * t));
        // atan(u) = u + u^3 (-1/3 + u^2 (1/5 - ...)) to the 25th power (terms left out below 1e-19).
        const double u2 = u * u;
        double p = 0x1.47ae147ae147bp-5;
        p = -0x1.642c8590b2164p-5 + u2 * p;
        p = 0x1.8618618618618p-5 + u2 * p;
        p = -0x1.af286bca1af28p-5 + u2 * p;
        p = 0x1.e1e1e1e1e1e1ep-5 + u2 * p;
        p = -0x1.1111111111111p-4 + u2 * p;
        p = 0x1.3b13b13b13b14p-4 + u2 * p;
        p = -0x1.745d1745d1746p-4 + u2 * p;
        p = 0x1.c71c71c71c71cp-4 + u2 * p;
        p = -0x1.2492492492492p-3 + u2 * p;
        p = 0x1.999999999999ap-3 + u2 * p;
        p = -0x1.5555555555555p-2 + u2 * p;
        a = base + 2.0 * (u + u * (u2 * p));
        if (ay > ax) a = half_pi - a;
    }
    a = (bitsOfDouble(x) >> 63) != 0 ? pi - a : a;
    return (bitsOfDouble(y) >> 63) != 0 ? -a : a;
}

}  // namespace
}  // namespace SurfaceReconstruction
