// The host driver of the field computation, for blocks whose cells do not fit in device memory: the
// passes over host memory on the host's cores. Kept apart from the kernels' file (FieldPasses.cu), so that
// it is built as host code whatever the kernels are built as (the fused multiply-add job builds them
// differently).
#include <algorithm>
#include <new>

#include "common/MemoryFailure.h"
#include "field/FieldComputation.h"
#include "field/FieldPasses.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

// The host driver: the same passes over host memory, all three for a cell in one iteration (each writes
// only its own cell), the cells handed out in small chunks to balance the cores. Where the processor has
// the vector walks, they take the block's points as columns; they make the same cells.
int computeFieldOnHost(const PointCloudBlock& block, CellNodeAndRelations& cells, FieldPassViews views,
                       bool points_may_go) {
    const int n = static_cast<int>(cells.cell_nodes.size());
    const int relation_size = static_cast<int>(cells.relations.size());
    const RelationCell2Bins_Device* relations = cells.relations.data();
    const RawPointWithHash* points = block.points->data();
    const DeviceParameters* params = &views.params;
    CellNode_Device* nodes = cells.cell_nodes.data();
    UninitialisedArray<VoxelFieldCenter>& centre_array = views.centres;
    try {
        centre_array.clear();
        centre_array.resize(static_cast<std::size_t>(n));
    } catch (const std::bad_alloc&) {
        views.last_error = memoryFailureText(static_cast<std::uint64_t>(n) * sizeof(VoxelFieldCenter));
        return TESSALINE_OUT_OF_MEMORY;
    }
    VoxelFieldCenter* centres = centre_array.data();
    if (hostFieldWalksAvailable()) {
        bool columns = true;
        try {
            if (points_may_go) {
                views.columns.assignGivingBack(*block.points);
                views.block_points_dev = nullptr;
            } else {
                views.columns.assign(points, block.points->size());
            }
        } catch (const std::bad_alloc&) {
            columns = false;  // the per-cell functions below need no columns
        }
        if (columns) {
            computeCellFieldsOnHost(nodes, static_cast<std::size_t>(n), relations, relation_size, views.columns,
                                    *params, centres);
            return 0;
        }
    }
    launchCellKernelOnHost(static_cast<std::size_t>(n), [&](std::size_t i) {
        centres[i] = VoxelFieldCenter{};
        computeInitNormal(nodes[i], relations, relation_size, points, *params);
        computeFineNormal(nodes[i], relations, relation_size, points, *params, centres[i]);
        computeFieldData(nodes[i], relations, relation_size, points, *params, centres[i]);
    });
    return 0;
}

}  // namespace SurfaceReconstruction
