// The per-cell functions of the field computation, shared by the device kernels and their host twins:
// one logical thread a cell, writing only to its own cell.
#pragma once

#include <cstdint>

#include "DeviceLayer.h"
#include "MarchingCubes.h"
#include "Parameters.h"
#include "PlaneFit.h"
#include "Portioner.h"

namespace SurfaceReconstruction {

// The multiple of a cell's edge that bounds its neighbourhood.
TESSA_HD inline int fieldSearchFactor(float edge, float wide_search_edge) {
    if (edge >= wide_search_edge) return 3;
    return edge > 0.05f ? 7 : 11;
}

TESSA_HD inline float dot3f(const float a[3], const float b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Calls visit(point) for every point the cell's relations reach, in relation order; a relation list
// that would run past the relation array stops at its end.
template <class Visit>
TESSA_HD inline void walkCellPoints(const CellNode_Device& cell, const RelationCell2Bins_Device* relations,
                                    int relation_size, const RawPointWithHash* points, Visit& visit) {
    for (int r = 0; r < cell.relation_count && cell.relation_offset + r < relation_size; ++r) {
        const RelationCell2Bins_Device& relation = relations[cell.relation_offset + r];
        for (int j = 0; j < relation.count; ++j) visit(points[relation.offset + j]);
    }
}

namespace field_internal {

// First walk of the initial normal: the points that agree with the first point's normal, strictly
// inside the radius, and the references of points point_count / 2 and point_count - 1.
struct InitNormalFirstWalk {
    const CellNode_Device* cell;
    float radius;
    float (*reference)[3];
    MomentSums* set0;
    int* count0;
    int g;
    TESSA_HD void operator()(const RawPointWithHash& p) {
        ++g;
        const float o[3] = {p.x - cell->center[0], p.y - cell->center[1], p.z - cell->center[2]};
        const float d = sqrtf(o[0] * o[0] + o[1] * o[1] + o[2] * o[2]);
        const float n[3] = {p.nx, p.ny, p.nz};
        if (dot3f(n, reference[0]) > 0.35f && d < radius) {
            accumulateCovariance(o, *set0);
            ++*count0;
        }
        if (g == cell->point_count / 2) {
            for (int k = 0; k < 3; ++k) reference[1][k] = n[k];
        }
        if (g == cell->point_count - 1) {
            for (int k = 0; k < 3; ++k) reference[2][k] = n[k];
        }
    }
};

// Second walk: the points within the radius, the radius included, that agree with references 1 and 2.
struct InitNormalSecondWalk {
    const CellNode_Device* cell;
    float radius;
    const float (*reference)[3];
    MomentSums* sets;
    int* counts;
    TESSA_HD void operator()(const RawPointWithHash& p) {
        const float o[3] = {p.x - cell->center[0], p.y - cell->center[1], p.z - cell->center[2]};
        const float d = sqrtf(o[0] * o[0] + o[1] * o[1] + o[2] * o[2]);
        if (d > radius) return;
        const float n[3] = {p.nx, p.ny, p.nz};
        for (int k = 1; k <= 2; ++k) {
            if (dot3f(n, reference[k]) > 0.35f) {
                accumulateCovariance(o, sets[k]);
                ++counts[k];
            }
        }
    }
};

}  // namespace field_internal

// One rough normal of the cell from a local plane fit, or field_flag -1 when the cell has no usable
// surface. A cell whose points disagree with its first point gets a second try from two other points.
TESSA_HD inline void computeInitNormal(CellNode_Device& cell, const RelationCell2Bins_Device* relations, int relation_size,
                                       const RawPointWithHash* points, const DeviceParameters& params) {
    if (cell.field_flag < 0 || cell.point_count < 5 || cell.relation_offset < 0 || cell.relation_offset >= relation_size) {
        cell.field_flag = -1;
        return;
    }
    const float edge = cell.half_size + cell.half_size;
    const float radius = edge * static_cast<float>(fieldSearchFactor(edge, params.wide_search_edge));
    const RawPointWithHash& first = points[relations[cell.relation_offset].offset];
    float reference[3][3] = {{first.nx, first.ny, first.nz}, {0.0f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.0f}};
    MomentSums sets[3] = {};
    int counts[3] = {0, 0, 0};

    field_internal::InitNormalFirstWalk first_walk{&cell, radius, reference, &sets[0], &counts[0], 0};
    walkCellPoints(cell, relations, relation_size, points, first_walk);
    if (static_cast<float>(counts[0]) / static_cast<float>(cell.point_count) >= 0.5f) {
        fitPlaneNormal(sets[0], counts[0], reference[0], cell.init_normal);
        return;
    }

    field_internal::InitNormalSecondWalk second_walk{&cell, radius, reference, sets, counts};
    walkCellPoints(cell, relations, relation_size, points, second_walk);
    int chosen = 0;
    if (counts[1] >= counts[0] && counts[1] >= counts[2]) {
        chosen = 1;
    } else if (counts[2] >= counts[1] && counts[2] >= counts[0]) {
        chosen = 2;
    }
    if (counts[chosen] < 5) {
        cell.field_flag = -1;
        return;
    }
    fitPlaneNormal(sets[chosen], counts[chosen], reference[chosen], cell.init_normal);
}

}  // namespace SurfaceReconstruction
