// The plane fit of the field computation: moment sums of a set of offsets, their covariance, and the
// closed-form eigen solver of a symmetric 3 x 3 matrix. Plain functions on fixed-size arrays, with no
// allocation, recursion or data-dependent loop, so that kernels and their host twins call the same code.
//
// The numeric mix is fixed: offsets and their products in single precision, sums and solver in double,
// but one third, the root of three and the sine and cosine of the root formula are single precision
// values widened to double; the arc tangent, sine and cosine are the portable ones, the same bits on a
// device as on the host.
#pragma once

#include <cmath>

#include "device/DeviceLayer.h"
#include "field/PortableMath.h"

namespace SurfaceReconstruction {
// Each translation unit has its own copy of these functions: kernel files may be built with other
// floating-point options than the host's (contracted multiply-adds on a device), and one shared inline
// definition would hand one unit's arithmetic to the other.
namespace {

constexpr double EIGEN_EPSILON = 2.220446049250313e-16;           // zero and equality test
constexpr double EIGEN_SMALLEST_SCALE = 2.2250738585072014e-308;  // smallest normal double
constexpr double EIGEN_ONE_THIRD = 0.3333333432674408;            // 1/3 in single precision
constexpr double EIGEN_ROOT_THREE = 1.7320507764816284;           // sqrt(3) in single precision
constexpr double EIGEN_COLLINEAR = 9.999999747378752e-06;         // 1e-5 in single precision

// Running sums of one plane fit; the count is held by the caller.
struct MomentSums {
    double second[9];  // row-major sums of o_i * o_j; the walk adds the upper triangle (0, 1, 2, 4, 5, 8) only
    double first[3];   // sums of o_i
};

TESSA_HD inline void accumulateCovariance(const float offset[3], MomentSums& sums) {
    const float x = offset[0], y = offset[1], z = offset[2];
    const float xx = x * x, xy = x * y, xz = x * z, yy = y * y, yz = y * z, zz = z * z;
    sums.second[0] += xx;
    sums.second[1] += xy;
    sums.second[2] += xz;
    sums.second[4] += yy;
    sums.second[5] += yz;
    sums.second[8] += zz;
    sums.first[0] += x;
    sums.first[1] += y;
    sums.first[2] += z;
}

TESSA_HD inline void cross3(const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

TESSA_HD inline double squaredNorm3(const double v[3]) { return v[0] * v[0] + v[1] * v[1] + v[2] * v[2]; }

TESSA_HD inline void normalise3(double v[3]) {
    const double length = sqrt(squaredNorm3(v));
    v[0] /= length;
    v[1] /= length;
    v[2] /= length;
}

// A unit vector orthogonal to the unit vector v.
TESSA_HD inline void orthogonalUnit(const double v[3], double out[3]) {
    const double f = fabs(v[2]) * EIGEN_COLLINEAR;
    if (fabs(v[0]) <= f && fabs(v[1]) <= f) {
        out[0] = 0.0;
        out[1] = -v[2];
        out[2] = v[1];
    } else {
        out[0] = -v[1];
        out[1] = v[0];
        out[2] = 0.0;
    }
    normalise3(out);
}

// Eigenvalues of a symmetric matrix with entries of at most 1 in size, ascending.
TESSA_HD inline void computeSymmetricRoots3(const double m[9], double roots[3]) {
    const double m00 = m[0], m01 = m[1], m02 = m[2], m11 = m[4], m12 = m[5], m22 = m[8];
    const double c0 = m00 * m11 * m22 + 2.0 * m01 * m02 * m12 - m00 * m12 * m12 - m11 * m02 * m02 - m22 * m01 * m01;
    const double c1 = m00 * m11 - m01 * m01 + m00 * m22 - m02 * m02 + m11 * m22 - m12 * m12;
    const double c2 = m00 + m11 + m22;

    bool quadratic = fabs(c0) < EIGEN_EPSILON;  // one root is zero
    if (!quadratic) {
        const double t = c2 * EIGEN_ONE_THIRD;
        double a = (c1 - c2 * t) * EIGEN_ONE_THIRD;
        if (a > 0.0) a = 0.0;
        const double b = 0.5 * (c0 + t * (2.0 * t * t - c1));
        double q = b * b + a * a * a;
        if (q > 0.0) q = 0.0;
        const double rho = sqrt(-a);
        const float theta = static_cast<float>(portableAtan2(sqrt(-q), b) * EIGEN_ONE_THIRD);
        double cos_wide, sin_wide;
        portableCosSin(static_cast<double>(theta), cos_wide, sin_wide);
        const double cos_theta = static_cast<double>(static_cast<float>(cos_wide));
        const double sin_theta = static_cast<double>(static_cast<float>(sin_wide));
        double r0 = t + 2.0 * rho * cos_theta;
        double r1 = t - rho * (cos_theta + EIGEN_ROOT_THREE * sin_theta);
        double r2 = t - rho * (cos_theta - EIGEN_ROOT_THREE * sin_theta);
        double swap;
        if (r0 >= r1) {
            swap = r0;
            r0 = r1;
            r1 = swap;
        }
        if (r1 >= r2) {
            swap = r1;
            r1 = r2;
            r2 = swap;
            if (r0 >= r1) {
                swap = r0;
                r0 = r1;
                r1 = swap;
            }
        }
        roots[0] = r0;
        roots[1] = r1;
        roots[2] = r2;
        quadratic = r0 <= 0.0;
    }
    if (quadratic) {
        double d = c2 * c2 - 4.0 * c1;
        if (d < 0.0) d = 0.0;
        const double root = sqrt(d);
        roots[0] = 0.0;
        roots[1] = (c2 - root) * 0.5;
        roots[2] = (c2 + root) * 0.5;
    }
}

// The best-conditioned direction of the eigenvalue l of m: the longest cross product of two rows of
// m - l I, not normalised, and its squared length in `weight`.
TESSA_HD inline void bestCrossOf(const double m[9], double l, double out[3], double& weight) {
    const double r0[3] = {m[0] - l, m[1], m[2]};
    const double r1[3] = {m[3], m[4] - l, m[5]};
    const double r2[3] = {m[6], m[7], m[8] - l};
    double a[3], b[3], c[3];
    cross3(r0, r1, a);
    cross3(r0, r2, b);
    cross3(r1, r2, c);
    const double la = squaredNorm3(a), lb = squaredNorm3(b), lc = squaredNorm3(c);
    const double* best = c;
    weight = lc;
    if (la >= lb && la >= lc) {
        best = a;
        weight = la;
    } else if (lb >= la && lb >= lc) {
        best = b;
        weight = lb;
    }
    for (int k = 0; k < 3; ++k) out[k] = best[k];
}

// v divided by the root of its squared length `weight`.
TESSA_HD inline void unitOf(const double v[3], double weight, double out[3]) {
    const double length = sqrt(weight);
    out[0] = v[0] / length;
    out[1] = v[1] / length;
    out[2] = v[2] / length;
}

// The best-conditioned eigenvector of the eigenvalue l of m, normalised; its squared length before
// comes back in `weight`.
TESSA_HD inline void eigenVectorOf(const double m[9], double l, double out[3], double& weight) {
    double v[3];
    bestCrossOf(m, l, v, weight);
    unitOf(v, weight, out);
}

// The symmetric matrix scaled by its largest entry (upper triangle read, lower one mirrored) and its
// eigenvalues, ascending; `scale` is the divisor.
TESSA_HD inline void scaledRoots3(const double matrix[9], double m[9], double roots[3], double& scale) {
    constexpr int UPPER[6] = {0, 1, 2, 4, 5, 8};
    double s = -1.7976931348623157e308;
    for (int i : UPPER) s = fabs(matrix[i]) > s ? fabs(matrix[i]) : s;
    if (!(s > EIGEN_SMALLEST_SCALE)) s = 1.0;
    for (int i : UPPER) m[i] = matrix[i] / s;
    m[3] = m[1];
    m[6] = m[2];
    m[7] = m[5];
    computeSymmetricRoots3(m, roots);
    scale = s;
}

// In the case of three distinct eigenvalues: of the three vectors, which has the weakest cross product,
// which the strongest, and which lies between.
TESSA_HD inline void rankWeights(const double w[3], int& lowest, int& middle, int& highest) {
    lowest = w[1] <= w[2] ? 1 : 2;
    highest = w[1] > w[2] ? 1 : 2;
    if (w[0] <= w[lowest]) lowest = 0;
    if (w[0] > w[highest]) highest = 0;
    middle = 3 - lowest - highest;
}

// Eigenvectors (unit, vectors[k] of values[k]) and eigenvalues (ascending) of a symmetric matrix, of
// which the upper triangle is read (the lower one holds the same values).
TESSA_HD inline void solveSymmetricEigen3(const double matrix[9], double vectors[3][3], double values[3]) {
    double m[9], s;
    scaledRoots3(matrix, m, values, s);
    const double l0 = values[0], l1 = values[1], l2 = values[2];

    if (l2 - l0 <= EIGEN_EPSILON) {
        for (int k = 0; k < 3; ++k)
            for (int j = 0; j < 3; ++j) vectors[k][j] = k == j ? 1.0 : 0.0;
    } else if (l1 - l0 <= EIGEN_EPSILON) {
        double w;
        eigenVectorOf(m, l2, vectors[2], w);
        orthogonalUnit(vectors[2], vectors[1]);
        cross3(vectors[1], vectors[2], vectors[0]);
    } else if (l2 - l1 <= EIGEN_EPSILON) {
        double w;
        eigenVectorOf(m, l0, vectors[0], w);
        orthogonalUnit(vectors[0], vectors[1]);
        cross3(vectors[0], vectors[1], vectors[2]);
    } else {
        double w[3];
        eigenVectorOf(m, l2, vectors[2], w[2]);
        eigenVectorOf(m, l1, vectors[1], w[1]);
        eigenVectorOf(m, l0, vectors[0], w[0]);
        // The weakest vector is rebuilt from the other two, then the middle one from the result.
        int lowest, middle, highest;
        rankWeights(w, lowest, middle, highest);
        cross3(vectors[(lowest + 1) % 3], vectors[(lowest + 2) % 3], vectors[lowest]);
        normalise3(vectors[lowest]);
        cross3(vectors[(middle + 1) % 3], vectors[(middle + 2) % 3], vectors[middle]);
        normalise3(vectors[middle]);
    }
    for (int k = 0; k < 3; ++k) values[k] *= s;
}

// The eigenvector of the smallest eigenvalue alone, as solveSymmetricEigen3 makes it: the work on the
// other vectors is left out where it cannot change this one.
TESSA_HD inline void smallestEigenVector3(const double matrix[9], double out[3]) {
    double m[9], values[3], s;
    scaledRoots3(matrix, m, values, s);
    const double l0 = values[0], l1 = values[1], l2 = values[2];
    double w[3];
    if (l2 - l0 <= EIGEN_EPSILON) {
        out[0] = 1.0;
        out[1] = 0.0;
        out[2] = 0.0;
    } else if (l1 - l0 <= EIGEN_EPSILON) {
        double u2[3], u1[3];
        eigenVectorOf(m, l2, u2, w[2]);
        orthogonalUnit(u2, u1);
        cross3(u1, u2, out);
    } else if (l2 - l1 <= EIGEN_EPSILON) {
        eigenVectorOf(m, l0, out, w[0]);
    } else {
        double v[3][3];
        bestCrossOf(m, l2, v[2], w[2]);
        bestCrossOf(m, l1, v[1], w[1]);
        bestCrossOf(m, l0, v[0], w[0]);
        int lowest, middle, highest;
        rankWeights(w, lowest, middle, highest);
        if (highest == 0) {  // never rebuilt
            unitOf(v[0], w[0], out);
            return;
        }
        double u[3][3];
        unitOf(v[1], w[1], u[1]);
        unitOf(v[2], w[2], u[2]);
        if (middle == 0) {  // rebuilt after the weakest one
            unitOf(v[0], w[0], u[0]);
            cross3(u[(lowest + 1) % 3], u[(lowest + 2) % 3], u[lowest]);
            normalise3(u[lowest]);
        }
        cross3(u[1], u[2], out);
        normalise3(out);
    }
}

// The unit normal of the plane fitted to `count` offsets, as it comes from the solver (either way round).
TESSA_HD inline void planeNormalOf(const MomentSums& sums, int count, float normal[3]) {
    const double n = static_cast<double>(count);
    double mean[3];
    for (int i = 0; i < 3; ++i) mean[i] = sums.first[i] / n;
    // The upper triangle that the walk summed; the lower one mirrors it.
    double covariance[9];
    for (int i = 0; i < 3; ++i)
        for (int j = i; j < 3; ++j) covariance[3 * i + j] = sums.second[3 * i + j] / n - mean[i] * mean[j];
    covariance[3] = covariance[1];
    covariance[6] = covariance[2];
    covariance[7] = covariance[5];
    double vector[3];
    smallestEigenVector3(covariance, vector);
    for (int k = 0; k < 3; ++k) normal[k] = static_cast<float>(vector[k]);
}

// `normal` turned so that its dot product with `reference` is not negative.
TESSA_HD inline void turnToward(const float reference[3], float normal[3]) {
    const float dot = normal[0] * reference[0] + normal[1] * reference[1] + normal[2] * reference[2];
    if (dot < 0.0f) {
        for (int k = 0; k < 3; ++k) normal[k] = -normal[k];
    }
}

// The unit normal of the plane fitted to `count` offsets, turned so that its dot product with
// `reference` is not negative.
TESSA_HD inline void fitPlaneNormal(const MomentSums& sums, int count, const float reference[3], float normal[3]) {
    planeNormalOf(sums, count, normal);
    turnToward(reference, normal);
}

}  // namespace
}  // namespace SurfaceReconstruction
