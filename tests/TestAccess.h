// The tests' way into the internals of the engine and its stages. The classes grant it to this struct
// alone, so that their public parts stay what a caller may use.
#pragma once

#include <memory>
#include <vector>

#include "engine/Tessaline_OPT.h"
#include "fusion/MarchingCubes.h"
#include "portion/Portioner.h"

namespace SurfaceReconstruction {

struct TestAccess {
    // ---- the engine
    static float resolution(const Tessaline_OPT& e) { return e.m_resolution; }
    static std::int32_t maxFramePoints(const Tessaline_OPT& e) { return e.m_max_frame_points; }
    static const std::vector<std::shared_ptr<FrameDataWithInfo>>& heldFrames(const Tessaline_OPT& e) {
        return e.m_held_frames;
    }
    static const std::shared_ptr<DeviceParameters>& deviceParams(const Tessaline_OPT& e) { return e.m_device_params; }
    static const std::shared_ptr<PortionerParameters>& portionerParams(const Tessaline_OPT& e) {
        return e.m_portioner_params;
    }
    static const std::shared_ptr<Portioner>& portioner(const Tessaline_OPT& e) { return e.m_portioner; }
    static const std::shared_ptr<Reconstructor>& reconstructor(const Tessaline_OPT& e) { return e.m_reconstructor; }
    static const std::shared_ptr<ThreadPool>& threadPool(const Tessaline_OPT& e) { return e.m_thread_pool; }
    static const std::function<void(ProcessStepInfo&)>& stepCallback(const Tessaline_OPT& e) {
        return e.m_step_callback;
    }
    static int filterScanFrameByMarkers(Tessaline_OPT& e) { return e.filterScanFrameByMarkers(); }

    // ---- the Portioner
    static std::size_t waitingFrameCount(const Portioner& p) { return p.m_waiting_frames.size(); }
    static const std::vector<RawSurfaceBlockPos>& rawSurfaceBlocks(const Portioner& p) {
        return p.m_raw_surface_block_vec;
    }
    static std::uint64_t rawSurfaceCapacity(const Portioner& p) { return p.m_raw_surface_capacity; }
    static int blockComputations(const Portioner& p) { return p.m_block_computations; }
    static int partitionGrowths(const Portioner& p) { return p.m_partition_growths; }
    static void takeBatches(Portioner& p) { p.m_straight_from_frames = false; }
    static void setRawPointsCapacityForTest(Portioner& p, std::uint64_t capacity) {
        p.m_raw_points_capacity_request = capacity;
    }

    // ---- the marching cubes stage
    static void logicCoordinate(const MarchingCubes& m, const PointCloudBlock& block, float out[3]) {
        m.logicCoordinate(block, out);
    }
    static int generateBins(MarchingCubes& m, const std::shared_ptr<PointCloudBlock>& block, const float logic[3],
                            std::vector<BinsHeader>& bins) {
        return m.generateBins(block, logic, bins);
    }
    static void binsByKernels(MarchingCubes& m, const RawPointWithHash* points_dev, std::int64_t count,
                              std::vector<BinsHeader>& bins) {
        m.binsOfSortedPointsByKernels(points_dev, count, 0, bins);
    }
    static void binsOnHost(MarchingCubes& m, const PointList& points, std::vector<BinsHeader>& bins) {
        m.binsOfSortedPointsOnHost(points.data(), static_cast<std::int64_t>(points.size()), 0, bins);
    }
    static int prepareSimpleHash(MarchingCubes& m, const std::vector<BinsHeader>& bins) {
        return m.prepareSimpleHash(bins);
    }
    static int rectifyBinLevels(MarchingCubes& m, std::vector<BinsHeader>& bins) { return m.rectifyBinLevels(bins); }
    static int buildOctreeAndRelations(MarchingCubes& m, const PointCloudBlock& block,
                                       const std::vector<BinsHeader>& bins,
                                       std::shared_ptr<CellNodeAndRelations>& cells) {
        return m.buildOctreeAndRelations(block, bins, cells);
    }
    static int computeFiledData_Device(MarchingCubes& m, CellNodeAndRelations& cells) {
        return computeFieldOnDevice(cells, m.fieldViews());
    }
    static int processMarchingCubeTaskOnHost(MarchingCubes& m, const PointCloudBlock& block,
                                             CellNodeAndRelations& cells) {
        return computeFieldOnHost(block, cells, m.fieldViews());
    }
    static bool onHost(const MarchingCubes& m) { return m.m_on_host; }
    static void keepLastCells(MarchingCubes& m, bool keep) { m.m_keep_last_cells = keep; }
    static void keepRelationPagesUpTo(MarchingCubes& m, std::size_t bytes) {
        m.m_cell_buffers.kept_relation_bytes = bytes;
    }
    static const std::shared_ptr<CellNodeAndRelations>& lastCells(const MarchingCubes& m) { return m.m_last_cells; }
};

}  // namespace SurfaceReconstruction
