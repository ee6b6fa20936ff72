// The per-cell functions of the field computation, shared by the device kernels and their host twins:
// one logical thread a cell, writing only to its own cell.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/CellRecords.h"
#include "common/Parameters.h"
#include "common/PointRecords.h"
#include "device/DeviceLayer.h"
#include "field/PlaneFit.h"

namespace SurfaceReconstruction {
// Each translation unit has its own copy of these functions: kernel files may be built with other
// floating-point options than the host's (contracted multiply-adds on a device), and one shared inline
// definition would hand one unit's arithmetic to the other.
namespace {

#if !defined(TESSA_KERNEL_LAUNCH_CUDA)
// Runs `kernel(i)` for every cell i in [0, n) on the host's cores, in small chunks handed out as the
// threads come free: cells differ by orders of magnitude in their points, and equal shares of the cells
// leave one core idle while the other walks the dense ones.
template <class Kernel>
void launchCellKernelOnHost(std::size_t n, const Kernel& kernel) {
    const std::int64_t count = static_cast<std::int64_t>(n);
#pragma omp parallel for schedule(dynamic, 32)
    for (std::int64_t i = 0; i < count; ++i) kernel(static_cast<std::size_t>(i));
}
#endif

// The multiple of a cell's edge that bounds its neighbourhood.
TESSA_HD inline int fieldSearchFactor(float edge, float wide_search_edge) {
    if (edge >= wide_search_edge) return 3;
    return edge > 0.05f ? 7 : 11;
}

TESSA_HD inline float dot3f(const float a[3], const float b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// A walk compares the length sqrtf(s) of a point's offset with a limit for every point. The root is
// correctly rounded and does not fall as s grows, so each such comparison is one of s with a bound
// found once a cell; these give the bounds, and the comparisons come out as with the root, NaN included.

// The largest s whose root is at most `limit`: sqrtf(s) <= limit exactly when s <= the result.
TESSA_HD inline float squareWithRootAtMost(float limit) {
    if (!(limit == limit)) return limit;  // no s compares with a NaN
    if (limit < 0.0f) return -1.0f;       // no length is below a negative limit
    if (limit > 3.0e38f) return limit;    // beyond every finite root: every finite s, and an infinite one
    float t = static_cast<float>(static_cast<double>(limit) * static_cast<double>(limit));
    if (t > 3.4028234663852886e38f) t = 3.4028234663852886e38f;
    while (t > 0.0f && sqrtf(t) > limit) t = nextafterf(t, 0.0f);
    while (t < 3.4028234663852886e38f && !(sqrtf(nextafterf(t, 3.4028234663852886e38f)) > limit))
        t = nextafterf(t, 3.4028234663852886e38f);
    return t;
}

// The smallest s whose root is at least `limit`: sqrtf(s) < limit exactly when s < the result.
TESSA_HD inline float squareWithRootAtLeast(float limit) {
    if (!(limit == limit)) return limit;
    if (limit <= 0.0f) return 0.0f;            // every length is at least a limit of 0 or below
    if (limit > 3.0e38f) return limit * 2.0f;  // infinite: only an infinite s has such a root
    float t = static_cast<float>(static_cast<double>(limit) * static_cast<double>(limit));
    if (t > 3.4028234663852886e38f) t = 3.4028234663852886e38f;
    while (t > 0.0f && !(sqrtf(nextafterf(t, 0.0f)) < limit)) t = nextafterf(t, 0.0f);
    while (t < 3.4028234663852886e38f && sqrtf(t) < limit) t = nextafterf(t, 3.4028234663852886e38f);
    if (sqrtf(t) < limit) t = t * 2.0f;  // even the largest finite s falls short: only an infinite one
    return t;
}

TESSA_HD inline float squaredLength3f(const float o[3]) { return o[0] * o[0] + o[1] * o[1] + o[2] * o[2]; }

// Calls visit(point) for every point the cell's relations reach, in relation order; a relation list
// that would run past the relation array stops at its end.
template <class Visit>
TESSA_HD inline void walkCellPoints(const CellNode_Device& cell, const RelationCell2Bins_Device* relations,
                                    int relation_size, const RawPointWithHash* points, Visit&& visit) {
    for (int r = 0; r < cell.relation_count && cell.relation_offset + r < relation_size; ++r) {
        const RelationCell2Bins_Device& relation = relations[cell.relation_offset + r];
        for (int j = 0; j < relation.count; ++j) visit(points[relation.offset + j]);
    }
}

namespace field_internal {

// What the walks of the passes gather. A walk visits the cell's points in relation order and adds each
// point's share in that order, so that every sum comes out the same whichever walk made it.

// First walk of the initial normal: the points that agree with the first point's normal, strictly
// inside the radius, and the normals of points point_count / 2 and point_count - 1 of the walk.
struct InitFirstSums {
    MomentSums set0;
    int count0;
    float reference1[3];
    float reference2[3];
};

// Second walk: the points within the radius, the radius included, that agree with references 1 and 2.
struct InitSecondSums {
    MomentSums set1, set2;
    int count1, count2;
};

// One side of a cell in the fine normal pass: its moments over all points within reach, and the sum of
// the positions of its points within the near radius.
struct SheetSums {
    MomentSums moments;
    int count;
    float position_sum[3];
    int near_count;
};

// Whether a point takes part in a cell's sheets: the flag filter (while the cell uses it) and the
// laser's smallest edge.
TESSA_HD inline bool pointCountsInCell(const CellNode_Device& cell, const DeviceParameters& params, float edge,
                                       std::int32_t w, std::uint8_t laser) {
    const bool flag_filter = (cell.word & 0x100u) != 0 && (cell.rules & CELL_ALL_POINTS) == 0;
    if (flag_filter && (w & 0x100) == 0) return false;
    const float min_edge = laser < 8 ? params.laser_min_edge[laser] : 0.0f;
    return !(edge < min_edge);
}

struct SheetField {
    float sum[3];
    float weight;
    std::uint64_t mask;
    // For the skirt test of a sparse cell: the points in reach that agree with the sheet, flagged or not
    // (the border of a flagged zone is no edge of the scan).
    float reach_sum[3];
    float reach_weight;
};

// The points of a one-sheet cell whose normals lie across the sheet (between -0.5 and 0.15 with its
// normal) and agree with the first of them: a second face, as next to a sharp edge.
struct SecondFace {
    MomentSums moments;
    int count;
    float reference[3];
    float normal_sum[3];
};

TESSA_HD inline void addToSecondFace(SecondFace& face, const float n[3], const float o[3]) {
    if (face.count == 0) {
        for (int k = 0; k < 3; ++k) face.reference[k] = n[k];
    }
    if (dot3f(n, face.reference) <= 0.35f) return;
    accumulateCovariance(o, face.moments);
    for (int k = 0; k < 3; ++k) face.normal_sum[k] += n[k];
    ++face.count;
}

}  // namespace field_internal

// The weight of a point at distance d from a sheet's foot point: a bell whose width is measured in cell
// edges and narrows as the cell holds more points; 1 for cells outside the Gaussian range. What depends
// on the cell alone is settled once a cell.
struct NeighbourWeight {
    bool gaussian;
    float a;      // the negative coefficient of the table
    float denom;  // edge * (edge * 3)
};

namespace field_internal {

// What the field value walk of a cell needs, settled once a cell.
struct FieldWalkSetup {
    float edge;
    float reach_square;  // squareWithRootAtMost(radius)
    float lo[3];         // the lower corner of the sample box
    float hi[3];         // its upper corner
    float sub_cell;
    bool project;
    float foot[2][3];  // each sheet's point nearest to the centre
    NeighbourWeight weight;
    bool skirt_test;   // a sparse cell: gather the unfiltered centroid of each sheet
    bool second_face;  // a one-sheet cell: gather the points across its sheet
};

}  // namespace field_internal

TESSA_HD inline float neighbourWeight(const NeighbourWeight& nw, float d) {
    return nw.gaussian ? portableExpf(((d * nw.a) * d) / nw.denom) : 1.0f;
}

// The walks over a cell's points through its relations, one record a point: the device's, and the
// reference for any other walk.
struct RelationWalks {
    const RelationCell2Bins_Device* relations;
    int relation_size;
    const RawPointWithHash* points;

    // The plane fit of the passes' sides; other walks may remember a fit of the same sums.
    TESSA_HD void fitPlane(const MomentSums& sums, int count, const float reference[3], float normal[3]) const {
        fitPlaneNormal(sums, count, reference, normal);
    }

    // The root bounds of the walks' comparisons; other walks may remember them for the cells of one size.
    TESSA_HD float squareAtMost(float limit) const { return squareWithRootAtMost(limit); }
    TESSA_HD float squareAtLeast(float limit) const { return squareWithRootAtLeast(limit); }

    TESSA_HD void firstNormal(const CellNode_Device& cell, float out[3]) const {
        const RawPointWithHash& first = points[relations[cell.relation_offset].offset];
        out[0] = first.nx;
        out[1] = first.ny;
        out[2] = first.nz;
    }

    TESSA_HD void initFirst(const CellNode_Device& cell, const float reference0[3], float inside_square,
                            field_internal::InitFirstSums& sums) const {
        int g = 0;
        walkCellPoints(cell, relations, relation_size, points, [&](const RawPointWithHash& p) {
            ++g;
            const float o[3] = {p.x - cell.center[0], p.y - cell.center[1], p.z - cell.center[2]};
            const float n[3] = {p.nx, p.ny, p.nz};
            if (dot3f(n, reference0) > 0.35f && squaredLength3f(o) < inside_square) {
                accumulateCovariance(o, sums.set0);
                ++sums.count0;
            }
            if (g == cell.point_count / 2) {
                for (int k = 0; k < 3; ++k) sums.reference1[k] = n[k];
            }
            if (g == cell.point_count - 1) {
                for (int k = 0; k < 3; ++k) sums.reference2[k] = n[k];
            }
        });
    }

    TESSA_HD void initSecond(const CellNode_Device& cell, float reach_square, const float reference1[3],
                             const float reference2[3], field_internal::InitSecondSums& sums) const {
        walkCellPoints(cell, relations, relation_size, points, [&](const RawPointWithHash& p) {
            const float o[3] = {p.x - cell.center[0], p.y - cell.center[1], p.z - cell.center[2]};
            if (squaredLength3f(o) > reach_square) return;
            const float n[3] = {p.nx, p.ny, p.nz};
            if (dot3f(n, reference1) > 0.35f) {
                accumulateCovariance(o, sums.set1);
                ++sums.count1;
            }
            if (dot3f(n, reference2) > 0.35f) {
                accumulateCovariance(o, sums.set2);
                ++sums.count2;
            }
        });
    }

    TESSA_HD void sides(const CellNode_Device& cell, const DeviceParameters& params, float edge, float reach_square,
                        float near_square, field_internal::SheetSums& front, field_internal::SheetSums& back) const {
        walkCellPoints(cell, relations, relation_size, points, [&](const RawPointWithHash& p) {
            if (!field_internal::pointCountsInCell(cell, params, edge, p.w, p.laser)) return;
            const float o[3] = {p.x - cell.center[0], p.y - cell.center[1], p.z - cell.center[2]};
            const float square = squaredLength3f(o);
            if (square > reach_square) return;
            const float n[3] = {p.nx, p.ny, p.nz};
            const float dot = dot3f(cell.init_normal, n);
            field_internal::SheetSums* side = dot > 0.15f ? &front : (dot < -0.15f ? &back : nullptr);
            if (side == nullptr) return;
            if (square < near_square) {
                side->position_sum[0] += p.x;
                side->position_sum[1] += p.y;
                side->position_sum[2] += p.z;
                ++side->near_count;
            }
            accumulateCovariance(o, side->moments);
            ++side->count;
        });
    }

    TESSA_HD void fieldSheets(const CellNode_Device& cell, const DeviceParameters& params,
                              const VoxelFieldCenter& centres, const field_internal::FieldWalkSetup& setup,
                              field_internal::SheetField sheets[2], field_internal::SecondFace& second_face) const {
        walkCellPoints(cell, relations, relation_size, points, [&](const RawPointWithHash& p) {
            const bool counts = field_internal::pointCountsInCell(cell, params, setup.edge, p.w, p.laser);
            if (!counts && !setup.skirt_test) return;
            const float position[3] = {p.x, p.y, p.z};
            const float o[3] = {p.x - cell.center[0], p.y - cell.center[1], p.z - cell.center[2]};
            if (squaredLength3f(o) > setup.reach_square) return;
            const float n[3] = {p.nx, p.ny, p.nz};
            int s;
            const float dot0 = dot3f(n, cell.fields[0].normal);
            if (dot0 > 0.15f) {
                s = 0;
            } else if (cell.field_flag >= 2 && dot3f(n, cell.fields[1].normal) > 0.15f) {
                s = 1;
            } else {
                if (counts && setup.second_face && dot0 > -0.5f) field_internal::addToSecondFace(second_face, n, o);
                return;
            }
            float w = 1.0f;  // the distance to the foot point counts only in a Gaussian weight
            if (setup.weight.gaussian) {
                const float f[3] = {p.x - setup.foot[s][0], p.y - setup.foot[s][1], p.z - setup.foot[s][2]};
                w = neighbourWeight(setup.weight, sqrtf(f[0] * f[0] + f[1] * f[1] + f[2] * f[2]));
            }
            field_internal::SheetField& sheet = sheets[s];
            if (setup.skirt_test) {
                for (int k = 0; k < 3; ++k) sheet.reach_sum[k] += o[k] * w;
                sheet.reach_weight += w;
                if (!counts) return;
            }
            bool inside = true;
            for (int k = 0; k < 3; ++k) inside = inside && setup.lo[k] <= position[k] && position[k] <= setup.hi[k];
            const float* normal = cell.fields[s].normal;
            float q[3] = {p.x, p.y, p.z};
            if (setup.project) {
                const float m[3] = {p.x - centres.sheet[s][0], p.y - centres.sheet[s][1], p.z - centres.sheet[s][2]};
                const float t = dot3f(m, normal);
                for (int k = 0; k < 3; ++k) q[k] = position[k] - t * normal[k];
            }
            for (int k = 0; k < 3; ++k) sheet.sum[k] += (q[k] - cell.center[k]) * w;
            sheet.weight += w;
            if (inside) {
                const int ix = floatToIntSaturate((q[0] - setup.lo[0]) / setup.sub_cell);
                const int iy = floatToIntSaturate((q[1] - setup.lo[1]) / setup.sub_cell);
                const int iz = floatToIntSaturate((q[2] - setup.lo[2]) / setup.sub_cell);
                const int bit = ix + 4 * iy + 16 * iz;  // not clamped: an upper face runs into the next bit
                if (bit >= 0 && bit < 64) sheet.mask |= std::uint64_t{1} << bit;  // outside 0..63: no bit
            }
        });
    }
};

// One rough normal of the cell from a local plane fit, or field_flag -1 when the cell has no usable
// surface. A cell whose points disagree with its first point gets a second try from two other points.
template <class Walks>
TESSA_HD inline void computeInitNormalWith(CellNode_Device& cell, int relation_size, const DeviceParameters& params,
                                           const Walks& walks) {
    if (cell.field_flag < 0) {
        cell.field_flag = -1;
        return;
    }
    if (cell.point_count < 5 || cell.relation_offset < 0 || cell.relation_offset >= relation_size) {
        cell.field_flag = -1;
        setCellRejection(cell.rules, cell.point_count < 5 ? CELL_FEW_POINTS : CELL_NO_RELATIONS);
        return;
    }
    const float edge = cell.half_size + cell.half_size;
    const float radius = edge * static_cast<float>(fieldSearchFactor(edge, params.wide_search_edge));
    float reference0[3];
    walks.firstNormal(cell, reference0);
    field_internal::InitFirstSums first = {};
    walks.initFirst(cell, reference0, walks.squareAtLeast(radius), first);
    if (static_cast<float>(first.count0) / static_cast<float>(cell.point_count) >= 0.5f) {
        walks.fitPlane(first.set0, first.count0, reference0, cell.init_normal);
        return;
    }

    field_internal::InitSecondSums second = {};
    walks.initSecond(cell, walks.squareAtMost(radius), first.reference1, first.reference2, second);
    const MomentSums* sets[3] = {&first.set0, &second.set1, &second.set2};
    const int counts[3] = {first.count0, second.count1, second.count2};
    const float* references[3] = {reference0, first.reference1, first.reference2};
    int chosen = 0;
    if (counts[1] >= counts[0] && counts[1] >= counts[2]) {
        chosen = 1;
    } else if (counts[2] >= counts[1] && counts[2] >= counts[0]) {
        chosen = 2;
    }
    if (counts[chosen] < 5) {
        cell.field_flag = -1;
        setCellRejection(cell.rules, CELL_NO_COMMON_NORMAL);
        return;
    }
    walks.fitPlane(*sets[chosen], counts[chosen], references[chosen], cell.init_normal);
}

TESSA_HD inline void computeInitNormal(CellNode_Device& cell, const RelationCell2Bins_Device* relations,
                                       int relation_size, const RawPointWithHash* points,
                                       const DeviceParameters& params) {
    computeInitNormalWith(cell, relation_size, params, RelationWalks{relations, relation_size, points});
}

namespace field_internal {

TESSA_HD inline bool sideUsable(const SheetSums& side) { return side.count > 4 && side.near_count > 0; }

// Fits the side and, when the fit agrees with the reference, stores the sheet at the next free slot.
template <class Walks>
TESSA_HD inline void storeSheet(CellNode_Device& cell, const SheetSums& side, const float reference[3],
                                VoxelFieldCenter& centres, const Walks& walks) {
    if (!sideUsable(side)) return;
    float normal[3];
    walks.fitPlane(side.moments, side.count, reference, normal);
    if (dot3f(normal, reference) <= 0.2f) {
        setCellRejection(cell.rules, CELL_FIT_ACROSS);
        return;
    }
    const int slot = cell.field_flag;
    for (int k = 0; k < 3; ++k) {
        cell.fields[slot].normal[k] = normal[k];
        centres.sheet[slot][k] = side.position_sum[k] / static_cast<float>(side.near_count);
    }
    cell.field_flag = slot + 1;
}

}  // namespace field_internal

// The front and back sheets of a cell: points whose normals lie with the initial normal form the
// front, those against it the back; each side with enough points, near ones among them, and a fit that
// agrees with its reference becomes a sheet, filling the slots from 0. field_flag ends at 0, 1 or 2.
// A flagged cell takes only flagged points, unless they give no side enough points: at the border of
// a flagged zone that would leave a pinhole, so such a cell takes all its points.
template <class Walks>
TESSA_HD inline void computeFineNormalWith(CellNode_Device& cell, const DeviceParameters& params,
                                           VoxelFieldCenter& centres, const Walks& walks) {
    if (cell.field_flag < 0) return;
    const float edge = cell.half_size + cell.half_size;
    const float radius = edge * static_cast<float>(fieldSearchFactor(edge, params.wide_search_edge));
    const float reach_square = walks.squareAtMost(radius);
    const float near_square = walks.squareAtLeast(edge * 4.0f);
    field_internal::SheetSums front = {}, back = {};
    walks.sides(cell, params, edge, reach_square, near_square, front, back);
    if ((cell.word & 0x100u) != 0 && !field_internal::sideUsable(front) && !field_internal::sideUsable(back)) {
        cell.rules |= CELL_ALL_POINTS;
        front = {};
        back = {};
        walks.sides(cell, params, edge, reach_square, near_square, front, back);
    }
    if (!field_internal::sideUsable(front) && !field_internal::sideUsable(back)) {
        setCellRejection(cell.rules, CELL_NO_SIDE);
        return;
    }

    field_internal::storeSheet(cell, front, cell.init_normal, centres, walks);
    if (field_internal::sideUsable(back)) {
        for (int k = 0; k < 3; ++k) cell.init_normal[k] = -cell.init_normal[k];
        field_internal::storeSheet(cell, back, cell.init_normal, centres, walks);
    }
    if (cell.field_flag > 0) setCellRejection(cell.rules, CELL_KEPT);
}

TESSA_HD inline void computeFineNormal(CellNode_Device& cell, const RelationCell2Bins_Device* relations,
                                       int relation_size, const RawPointWithHash* points,
                                       const DeviceParameters& params, VoxelFieldCenter& centres) {
    computeFineNormalWith(cell, params, centres, RelationWalks{relations, relation_size, points});
}

TESSA_HD inline NeighbourWeight neighbourWeightOf(float edge, int point_count, float gauss_weight_edge) {
    NeighbourWeight nw{false, 0.0f, 1.0f};
    if (edge < gauss_weight_edge || edge >= 3.99f) return nw;
    const float table[5][7] = {{-3, -6, -8, -12, -10, -8, -6},
                               {-4, -7, -9, -15, -11, -9, -7},
                               {-5, -8, -10, -18, -12, -10, -8},
                               {-6, -10, -12, -23, -14, -11, -9},
                               {-7, -12, -14, -30, -16, -12, -10}};
    int row = point_count / 50;
    row = row < 0 ? 0 : (row > 2 ? 2 : row);
    int column;
    if (edge >= 2.99f) {
        column = 0;
    } else if (edge >= 1.99f) {
        column = 1;
    } else if (edge >= 1.49f) {
        column = 2;
    } else if (static_cast<double>(edge) >= 0.89) {
        column = 3;
    } else if (edge >= 0.49f) {
        column = 4;
    } else if (static_cast<double>(edge) >= 0.39) {
        column = 5;
    } else if (static_cast<double>(edge) >= 0.29) {
        column = 6;
    } else {
        return nw;
    }
    nw.gaussian = true;
    nw.a = table[row][column];
    nw.denom = edge * (edge * 3.0f);
    return nw;
}

TESSA_HD inline float computeNeighbourWeight(float d, float edge, int point_count, float gauss_weight_edge) {
    return neighbourWeight(neighbourWeightOf(edge, point_count, gauss_weight_edge), d);
}

namespace field_internal {

// At a sharp edge a cell fits one of the two faces only, and its plane runs on past the edge. When a
// second face crosses the sheet's plane within the cell's reach, the value at the centre becomes the
// signed distance to the solid the two faces bound: the smaller of the two planes' distances at a convex
// edge (each face lies behind the other's plane), the larger at a concave one.
TESSA_HD inline void meetSecondFace(CellNode_Device& cell, const SecondFace& face, const float sheet_mean[3]) {
    if (face.count < 5) return;
    float mean_normal[3] = {face.normal_sum[0], face.normal_sum[1], face.normal_sum[2]};
    const float length = sqrtf(dot3f(mean_normal, mean_normal));
    if (!(length > 0.0f)) return;
    for (int k = 0; k < 3; ++k) mean_normal[k] /= length;
    float normal[3];
    fitPlaneNormal(face.moments, face.count, mean_normal, normal);
    // The points must lie on a plane that their own normals agree with, across the sheet.
    if (dot3f(normal, mean_normal) <= 0.7f) return;
    const float* sheet_normal = cell.fields[0].normal;
    if (fabsf(dot3f(normal, sheet_normal)) >= 0.9f) return;
    float face_mean[3];
    for (int k = 0; k < 3; ++k)
        face_mean[k] = static_cast<float>(face.moments.first[k] / static_cast<double>(face.count));
    const float d_sheet = cell.fields[0].value;
    const float d_face = dot3f(face_mean, normal);
    const float between[3] = {sheet_mean[0] - face_mean[0], sheet_mean[1] - face_mean[1], sheet_mean[2] - face_mean[2]};
    const bool convex = dot3f(normal, between) - dot3f(sheet_normal, between) < 0.0f;
    cell.fields[0].value = convex ? fminf(d_sheet, d_face) : fmaxf(d_sheet, d_face);
    cell.rules |= CELL_CREASE;
}

// A sparse cell, whose search took one more ring of bins, keeps a sheet only if the centroid of the
// sheet's points lies within one cell edge of the cell along the plane: beyond the edge of a scan the
// wider search would otherwise grow the surface out past the last points. A cell at a sharp edge is
// bounded by its second face and keeps its sheet.
TESSA_HD inline void dropSheetsOffTheCell(CellNode_Device& cell, const SheetField sheets[2]) {
    const float h = cell.half_size;
    const float edge = h + h;
    int kept = 0;
    for (int s = 0; s < cell.field_flag && s < 2; ++s) {
        const float* normal = cell.fields[s].normal;
        float mean[3];
        for (int k = 0; k < 3; ++k) mean[k] = sheets[s].reach_sum[k] / sheets[s].reach_weight;
        const float along = dot3f(mean, normal);
        float outside = 0.0f;  // squared distance of the in-plane centroid from the centre
        for (int k = 0; k < 3; ++k) {
            const float u = mean[k] - along * normal[k];
            outside += u * u;
        }
        if (!(outside <= edge * edge)) continue;
        if (kept != s) cell.fields[kept] = cell.fields[s];
        ++kept;
    }
    if (kept == cell.field_flag) return;
    for (int s = kept; s < 2; ++s) cell.fields[s] = FieldSlot{};
    cell.field_flag = kept;
    if (kept == 0) setCellRejection(cell.rules, CELL_OFF_CENTRE);
}

}  // namespace field_internal

// The field value of each sheet: the signed distance along its normal from the cell centre to the
// weighted centroid of its points (negative on the side the normal points to), with the sheet's word
// and sub-cell occupancy. A sheet without points gets 0/0, a NaN that the mesh stage filters.
template <class Walks>
TESSA_HD inline void computeFieldDataWith(CellNode_Device& cell, const DeviceParameters& params,
                                          const VoxelFieldCenter& centres, const Walks& walks) {
    const int sheets_found = cell.field_flag;
    if (sheets_found < 1) return;
    const float h = cell.half_size;
    const float edge = h + h;
    field_internal::FieldWalkSetup setup{};
    setup.edge = edge;
    setup.weight = neighbourWeightOf(edge, cell.point_count, params.gauss_weight_edge);
    for (int s = 0; s < sheets_found && s < 2; ++s) {
        const float* n = cell.fields[s].normal;
        const float m[3] = {centres.sheet[s][0] - cell.center[0], centres.sheet[s][1] - cell.center[1],
                            centres.sheet[s][2] - cell.center[2]};
        const float t = dot3f(m, n);
        for (int k = 0; k < 3; ++k) setup.foot[s][k] = cell.center[k] + t * n[k];
    }
    int k = fieldSearchFactor(edge, params.wide_search_edge);
    float box_edge = edge;
    float half_box = h;
    setup.project = edge <= params.fine_box_edge;
    if (setup.project) {
        box_edge = edge * (static_cast<float>(k) * 0.5f + 0.5f);
        half_box = box_edge * 0.5f;
        k = 4;
    }
    setup.reach_square = walks.squareAtMost(edge * static_cast<float>(k));
    for (int axis = 0; axis < 3; ++axis) {
        setup.lo[axis] = cell.center[axis] - half_box;
        setup.hi[axis] = cell.center[axis] + half_box;
    }
    setup.sub_cell = box_edge * 0.25f;
    setup.skirt_test = (cell.rules & CELL_WIDENED_SEARCH) != 0;
    setup.second_face = sheets_found == 1;
    field_internal::SheetField sheets[2] = {};
    field_internal::SecondFace second_face = {};
    walks.fieldSheets(cell, params, centres, setup, sheets, second_face);

    float mean[2][3];
    for (int s = 0; s < sheets_found && s < 2; ++s) {
        for (int axis = 0; axis < 3; ++axis) mean[s][axis] = sheets[s].sum[axis] / sheets[s].weight;
        cell.fields[s].value = dot3f(mean[s], cell.fields[s].normal);
        cell.fields[s].word = cell.word;
        cell.fields[s].occupancy = sheets[s].mask;
    }
    if (sheets_found == 1 && cell.fields[0].value == cell.fields[0].value)  // not for a NaN value
        field_internal::meetSecondFace(cell, second_face, mean[0]);
    if ((cell.rules & CELL_WIDENED_SEARCH) != 0 && (cell.rules & CELL_CREASE) == 0)
        field_internal::dropSheetsOffTheCell(cell, sheets);
}

TESSA_HD inline void computeFieldData(CellNode_Device& cell, const RelationCell2Bins_Device* relations,
                                      int relation_size, const RawPointWithHash* points, const DeviceParameters& params,
                                      const VoxelFieldCenter& centres) {
    computeFieldDataWith(cell, params, centres, RelationWalks{relations, relation_size, points});
}

}  // namespace
}  // namespace SurfaceReconstruction
