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
                                    int relation_size, const RawPointWithHash* points, Visit&& visit) {
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

namespace field_internal {

// One side of a cell in the fine normal pass: its moments over all points within reach, and the sum of
// the positions of its points within the near radius.
struct SheetSums {
    MomentSums moments;
    int count;
    float position_sum[3];
    int near_count;
};

// Fits the side and, when the fit agrees with the reference, stores the sheet at the next free slot.
TESSA_HD inline void storeSheet(CellNode_Device& cell, const SheetSums& side, const float reference[3],
                                VoxelFieldCenter& centres) {
    if (side.count <= 4 || side.near_count <= 0) return;
    float normal[3];
    fitPlaneNormal(side.moments, side.count, reference, normal);
    if (dot3f(normal, reference) <= 0.2f) return;
    const int slot = cell.field_flag;
    for (int k = 0; k < 3; ++k) {
        cell.fields[slot].normal[k] = normal[k];
        centres.sheet[slot][k] = side.position_sum[k] / static_cast<float>(side.near_count);
    }
    cell.field_flag = slot + 1;
}

struct FineNormalWalk {
    const CellNode_Device* cell;
    const DeviceParameters* params;
    float edge;
    float radius;
    float near_radius;
    SheetSums* front;
    SheetSums* back;
    TESSA_HD void operator()(const RawPointWithHash& p) const {
        if ((cell->word & 0x100u) != 0 && (p.w & 0x100) == 0) return;
        const float min_edge = p.laser < 8 ? params->laser_min_edge[p.laser] : 0.0f;
        if (edge < min_edge) return;
        const float o[3] = {p.x - cell->center[0], p.y - cell->center[1], p.z - cell->center[2]};
        const float d = sqrtf(o[0] * o[0] + o[1] * o[1] + o[2] * o[2]);
        if (d > radius) return;
        const float n[3] = {p.nx, p.ny, p.nz};
        const float dot = dot3f(cell->init_normal, n);
        SheetSums* side = dot > 0.15f ? front : (dot < -0.15f ? back : nullptr);
        if (side == nullptr) return;
        if (d < near_radius) {
            side->position_sum[0] += p.x;
            side->position_sum[1] += p.y;
            side->position_sum[2] += p.z;
            ++side->near_count;
        }
        accumulateCovariance(o, side->moments);
        ++side->count;
    }
};

}  // namespace field_internal

// The front and back sheets of a cell: points whose normals lie with the initial normal form the
// front, those against it the back; each side with enough points, near ones among them, and a fit that
// agrees with its reference becomes a sheet, filling the slots from 0. field_flag ends at 0, 1 or 2.
TESSA_HD inline void computeFineNormal(CellNode_Device& cell, const RelationCell2Bins_Device* relations, int relation_size,
                                       const RawPointWithHash* points, const DeviceParameters& params,
                                       VoxelFieldCenter& centres) {
    if (cell.field_flag < 0) return;
    const float edge = cell.half_size + cell.half_size;
    const float radius = edge * static_cast<float>(fieldSearchFactor(edge, params.wide_search_edge));
    const float near_radius = edge * 4.0f;
    field_internal::SheetSums front = {}, back = {};
    const field_internal::FineNormalWalk walk{&cell, &params, edge, radius, near_radius, &front, &back};
    walkCellPoints(cell, relations, relation_size, points, walk);

    field_internal::storeSheet(cell, front, cell.init_normal, centres);
    if (back.count > 4 && back.near_count > 0) {
        for (int k = 0; k < 3; ++k) cell.init_normal[k] = -cell.init_normal[k];
        field_internal::storeSheet(cell, back, cell.init_normal, centres);
    }
}

}  // namespace SurfaceReconstruction
