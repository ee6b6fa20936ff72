// The device driver of the field computation: the three passes over the cells of a block, launched on
// the device; their host twin (FieldPassesHost.cpp) runs them on the host's cores when device memory runs
// short. Both drivers run the same per-cell functions (FieldComputation.h), each translation unit its own
// copy. Compiled by nvcc for the CUDA backend and as C++ for the host backend.
#include <cstdio>
#include <vector>

#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "field/FieldComputation.h"
#include "field/FieldPasses.h"

namespace SurfaceReconstruction {

namespace {

// The three passes of the field computation, one logical thread a cell.
struct computeInitNormalKernel {
    int cell_node_size;
    CellNode_Device* cell_nodes;
    int relation_size;
    const RelationCell2Bins_Device* relations;
    const RawPointWithHash* points;
    const DeviceParameters* params;
    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= cell_node_size) return;
        computeInitNormal(cell_nodes[i], relations, relation_size, points, *params);
    }
};

struct computeFineNormalKernel {
    int cell_node_size;
    CellNode_Device* cell_nodes;
    int relation_size;
    const RelationCell2Bins_Device* relations;
    const RawPointWithHash* points;
    const DeviceParameters* params;
    VoxelFieldCenter* centres;
    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= cell_node_size) return;
        computeFineNormal(cell_nodes[i], relations, relation_size, points, *params, centres[i]);
    }
};

struct computeFineFiledDatalKernel {
    int cell_node_size;
    CellNode_Device* cell_nodes;
    int relation_size;
    const RelationCell2Bins_Device* relations;
    const RawPointWithHash* points;
    const DeviceParameters* params;
    const VoxelFieldCenter* centres;
    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= cell_node_size) return;
        computeFieldData(cell_nodes[i], relations, relation_size, points, *params, centres[i]);
    }
};

#if !defined(TESSA_KERNEL_LAUNCH_CUDA)
// On the host the three passes of a cell run one after the other in one item: each pass writes only its
// own cell, so the order across cells does not matter, and the second and third walks find the cell's
// neighbourhood still in the cache.
struct computeCellFieldKernel {
    int cell_node_size;
    CellNode_Device* cell_nodes;
    int relation_size;
    const RelationCell2Bins_Device* relations;
    const RawPointWithHash* points;
    const DeviceParameters* params;
    VoxelFieldCenter* centres;
    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<std::int64_t>(i) >= cell_node_size) return;
        computeInitNormal(cell_nodes[i], relations, relation_size, points, *params);
        computeFineNormal(cell_nodes[i], relations, relation_size, points, *params, centres[i]);
        computeFieldData(cell_nodes[i], relations, relation_size, points, *params, centres[i]);
    }
};
#endif

// The three launches back to back on the default stream, checked once at the end.
int launchFieldPasses(int cell_node_size, CellNode_Device* cell_nodes_dev, int relation_size,
                      RelationCell2Bins_Device* relations_dev, const RawPointWithHash* raw_points_dev,
                      const DeviceParameters* params_dev, VoxelFieldCenter* voxel_field_centers_dev) {
    const std::size_t n = static_cast<std::size_t>(cell_node_size);
#if defined(TESSA_KERNEL_LAUNCH_CUDA)
    launchKernel(n, computeInitNormalKernel{cell_node_size, cell_nodes_dev, relation_size, relations_dev,
                                            raw_points_dev, params_dev});
    launchKernel(n, computeFineNormalKernel{cell_node_size, cell_nodes_dev, relation_size, relations_dev,
                                            raw_points_dev, params_dev, voxel_field_centers_dev});
    launchKernel(n, computeFineFiledDatalKernel{cell_node_size, cell_nodes_dev, relation_size, relations_dev,
                                                raw_points_dev, params_dev, voxel_field_centers_dev});
#else
    const computeCellFieldKernel kernel{cell_node_size, cell_nodes_dev, relation_size,          relations_dev,
                                        raw_points_dev, params_dev,     voxel_field_centers_dev};
#if defined(TESSALINE_GUARDED_DEVICE)
    if (guarded::kernelPointersInDeviceMemory(kernel))
#endif
    {
        const DeviceScope scope;
        if (n > 0) launchCellKernelOnHost(n, kernel);
    }
#endif
    deviceSynchronize();
    const DeviceResult error = deviceGetLastError();
    if (error != DEVICE_SUCCESS) {
        diagnostic("[error]: processMarchingCubeTask failed! %s \n", deviceErrorString(error));
        return 1;
    }
    return 0;
}

}  // namespace

int computeFieldOnDevice(CellNodeAndRelations& cells, FieldPassViews views) {
    return runGuarded(
        views.last_error, {TESSALINE_DEVICE_COMPUTE, "cuda runtime error!"}, {1, "computeFiledData failed!"},
        [&]() -> int {
            const int cell_node_size = cells.cell_node_size.load();
            const int relation_size = cells.relation_size.load();
            if (deviceMemoryIsHostMemory()) {
                // Device memory is host memory: the passes work on the block's own arrays, without copies
                // of the cells and relations there and back.
                std::vector<VoxelFieldCenter> centres(static_cast<std::size_t>(cell_node_size));
                if (launchFieldPasses(cell_node_size, cells.cell_nodes.data(), relation_size, cells.relations.data(),
                                      views.block_points_dev, views.params_dev, centres.data()) != 0) {
                    throw DeviceError();
                }
                return 0;
            }
            ScopedDeviceBuffer<CellNode_Device> cell_nodes_dev;
            ScopedDeviceBuffer<RelationCell2Bins_Device> relations_dev;
            ScopedDeviceBuffer<VoxelFieldCenter> voxel_field_centers_dev;
            const std::size_t cell_bytes = static_cast<std::size_t>(cell_node_size) * sizeof(CellNode_Device);
            const std::size_t relation_bytes =
                static_cast<std::size_t>(relation_size) * sizeof(RelationCell2Bins_Device);
            const std::size_t centre_bytes = static_cast<std::size_t>(cell_node_size) * sizeof(VoxelFieldCenter);
            TESSA_DEVICE_CHECK(deviceMalloc(&cell_nodes_dev.ptr(), cell_bytes));
            TESSA_DEVICE_CHECK(deviceMalloc(&relations_dev.ptr(), relation_bytes));
            TESSA_DEVICE_CHECK(deviceMalloc(&voxel_field_centers_dev.ptr(), centre_bytes));
            TESSA_DEVICE_CHECK(
                deviceMemcpy(cell_nodes_dev.ptr(), cells.cell_nodes.data(), cell_bytes, CopyKind::HostToDevice));
            TESSA_DEVICE_CHECK(
                deviceMemcpy(relations_dev.ptr(), cells.relations.data(), relation_bytes, CopyKind::HostToDevice));
            TESSA_DEVICE_CHECK(deviceMemset(voxel_field_centers_dev.ptr(), 0, centre_bytes));
            if (launchFieldPasses(cell_node_size, cell_nodes_dev.ptr(), relation_size, relations_dev.ptr(),
                                  views.block_points_dev, views.params_dev, voxel_field_centers_dev.ptr()) != 0) {
                throw DeviceError();
            }
            TESSA_DEVICE_CHECK(
                deviceMemcpy(cells.cell_nodes.data(), cell_nodes_dev.ptr(), cell_bytes, CopyKind::DeviceToHost));
            TESSA_DEVICE_RELEASE(cell_nodes_dev.ptr());
            TESSA_DEVICE_RELEASE(relations_dev.ptr());
            TESSA_DEVICE_RELEASE(voxel_field_centers_dev.ptr());
            return 0;
        });
}

}  // namespace SurfaceReconstruction
