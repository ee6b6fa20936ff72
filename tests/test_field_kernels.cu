// The passes of the field computation run through the launch helper on device memory must give what
// the host calls give: bit for bit on the host backend, where one compiler builds both.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "field/FieldComputation.h"

using namespace SurfaceReconstruction;

// A named namespace: nvcc's generated launch stubs cannot tell a file's unnamed namespace from the one
// of the per-cell functions' header once SurfaceReconstruction is used.
namespace field_kernels_test {

// Initial and fine normals of each cell, as the device runs them.
struct NormalsKernel {
    CellNode_Device* cells;
    int cell_count;
    const RelationCell2Bins_Device* relations;
    int relation_size;
    const RawPointWithHash* points;
    const DeviceParameters* params;
    VoxelFieldCenter* centres;
    TESSA_HD void operator()(std::size_t i) const {
        if (static_cast<int>(i) >= cell_count) return;
        computeInitNormal(cells[i], relations, relation_size, points, *params);
        computeFineNormal(cells[i], relations, relation_size, points, *params, centres[i]);
    }
};

template <class T>
T* upload(const std::vector<T>& host) {
    T* dev = nullptr;
    TESSA_DEVICE_CHECK(deviceMalloc(&dev, host.size() * sizeof(T) + 1));
    TESSA_DEVICE_CHECK(deviceMemcpy(dev, host.data(), host.size() * sizeof(T), CopyKind::HostToDevice));
    return dev;
}

}  // namespace field_kernels_test

using namespace field_kernels_test;

TEST(FieldKernels, NormalsOnTheDevicePathMatchTheHostPath) {
    // Random cells over a noisy wavy surface, some with few points, some facing both ways.
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<RawPointWithHash> points;
    std::vector<RelationCell2Bins_Device> relations;
    std::vector<CellNode_Device> cells;
    for (int c = 0; c < 500; ++c) {
        CellNode_Device cell = emptyCellNodeDevice();
        cell.center[0] = static_cast<float>(c);
        cell.half_size = (c % 3 == 0) ? 0.05f : 0.25f;
        cell.point_count = 0;
        cell.field_flag = 0;
        cell.relation_offset = static_cast<std::int32_t>(relations.size());
        const int runs = 1 + c % 3;
        for (int r = 0; r < runs; ++r) {
            const int n = (c * 7 + r) % 9;
            relations.push_back({static_cast<std::int32_t>(points.size()), n});
            for (int k = 0; k < n; ++k) {
                RawPointWithHash p{};
                p.x = cell.center[0] + u(rng);
                p.y = u(rng);
                p.z = 0.2f * std::sin(3.0f * p.y) + 0.02f * u(rng);
                const float flip = (k + c) % 4 == 0 ? -1.0f : 1.0f;
                p.nx = 0.1f * u(rng);
                p.ny = 0.1f * u(rng);
                p.nz = flip;
                points.push_back(p);
            }
            cell.point_count += n;
        }
        cell.relation_count = runs;
        cells.push_back(cell);
    }
    DeviceParameters params{};
    setFieldComputationEdges(params);

    std::vector<CellNode_Device> on_host = cells;
    std::vector<VoxelFieldCenter> host_centres(cells.size(), VoxelFieldCenter{});
    for (std::size_t i = 0; i < on_host.size(); ++i) {
        computeInitNormal(on_host[i], relations.data(), static_cast<int>(relations.size()), points.data(), params);
        computeFineNormal(on_host[i], relations.data(), static_cast<int>(relations.size()), points.data(), params,
                          host_centres[i]);
    }

    CellNode_Device* cells_dev = upload(cells);
    RelationCell2Bins_Device* relations_dev = upload(relations);
    RawPointWithHash* points_dev = upload(points);
    DeviceParameters* params_dev = upload(std::vector<DeviceParameters>{params});
    VoxelFieldCenter* centres_dev = upload(std::vector<VoxelFieldCenter>(cells.size(), VoxelFieldCenter{}));
    launchKernel(cells.size(), NormalsKernel{cells_dev, static_cast<int>(cells.size()), relations_dev,
                                             static_cast<int>(relations.size()), points_dev, params_dev, centres_dev});
    TESSA_DEVICE_CHECK(deviceSynchronize());
    std::vector<CellNode_Device> on_device(cells.size());
    TESSA_DEVICE_CHECK(
        deviceMemcpy(on_device.data(), cells_dev, cells.size() * sizeof(CellNode_Device), CopyKind::DeviceToHost));
    for (void* p : {static_cast<void*>(cells_dev), static_cast<void*>(relations_dev), static_cast<void*>(points_dev),
                    static_cast<void*>(params_dev), static_cast<void*>(centres_dev)})
        TESSA_DEVICE_CHECK(deviceFree(p));

    int usable = 0, rejected = 0, sheets = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        ASSERT_EQ(on_device[i].field_flag, on_host[i].field_flag) << "cell " << i;
        if (on_host[i].field_flag < 0) {
            ++rejected;
            continue;
        }
        ++usable;
#if defined(TESSALINE_CUDA)
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(on_device[i].init_normal[k], on_host[i].init_normal[k], 1e-4f) << "cell " << i;
        for (int s = 0; s < on_host[i].field_flag; ++s)
            for (int k = 0; k < 3; ++k)
                EXPECT_NEAR(on_device[i].fields[s].normal[k], on_host[i].fields[s].normal[k], 1e-4f) << "cell " << i;
#else
        EXPECT_EQ(std::memcmp(&on_device[i], &on_host[i], sizeof(CellNode_Device)), 0) << "cell " << i;
#endif
        sheets += on_host[i].field_flag;
    }
    EXPECT_GT(usable, 100);
    EXPECT_GT(rejected, 50);
    EXPECT_GT(sheets, 100);
}
