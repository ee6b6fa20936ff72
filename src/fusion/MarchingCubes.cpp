// MarchingCubes: life cycle of the stage and the steps of one block, from its bins to its fields in the
// field store.
#include "fusion/MarchingCubes.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <parallel/algorithm>

#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/HostMemory.h"
#include "common/MemoryFailure.h"
#include "common/RunStop.h"
#include "common/SpinLock.h"
#include "common/TimeProfiler.h"
#include "tessaline/Tessaline.h"
#include "volume/HashOctree.h"

namespace SurfaceReconstruction {

// ---- MarchingCubes ---------------------------------------------------------------------------------

MarchingCubes::~MarchingCubes() {
    if (m_inited) deInit();
}

int MarchingCubes::init() {
    m_inited = false;
    return runGuarded(m_last_error, {1, nullptr}, [&]() -> int {
        m_bin_table = std::make_shared<GridKeyTable<BinOfKey>>();  // sized for each block when it is used
        m_inited = true;
        return 0;
    });
}

int MarchingCubes::setHashOctree(const std::shared_ptr<HashOctree>& octree) {
    if (refuseBeforeInit()) return 1;
    m_hash_octree = octree;
    return 0;
}

int MarchingCubes::setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool) {
    if (refuseBeforeInit()) return 1;
    m_field_data_pool = pool;
    return 0;
}

int MarchingCubes::process(const std::shared_ptr<PointCloudBlock>& block) {
    return runGuarded(m_last_error, {TESSALINE_DEVICE_COMPUTE, "[MarchingCubes] process try catch device error!"},
                      {1, "[MarchingCubes] process try catch error!"}, [&]() -> int { return processBlock(block); });
}

int MarchingCubes::processBlock(const std::shared_ptr<PointCloudBlock>& block) {
    if (refuseBeforeInit()) return 1;
    if (!m_hash_octree) {
        m_last_error = "[MarchingCubes] process error , m_hash_octree == nullptr !";
        return 1;
    }
    if (!block || !block->points) return 1;
    m_on_host = false;  // a memory fallback holds for one block only
    // A block whose points all keep the default scale takes the short chain, the others the full one.
    const bool full_chain = (block->flags & 0xFF) != 8;

    m_cell_buffers.fitTo(block->points->size());
    TimeProfiler profiler;
    profiler.time_start("mc-step1");
    float logic_coordinate[3];
    logicCoordinate(*block, logic_coordinate);
    std::vector<BinsHeader> bins_header;
    int result = generateBins(block, logic_coordinate, bins_header);
    if (result != 0) return result;
    m_last_bin_count = bins_header.size();
    if (bins_header.empty()) return 0;
    // The block's cells must fit in what the process may still use, beside the reserve that the mesh
    // stage keeps; a block that asks for more is left out rather than taking the process down.
    const std::uint64_t wanted = blockWorkingSetBytes(block->points->size(), bins_header.size());
    wantMemory(wanted);
    HostMemoryInfo memory;
    if (readHostMemory(memory)) {
        const std::uint64_t usable = usableHostBytes(memory);
        if (wanted + BLOCK_MEMORY_RESERVE_BYTES > usable) {
            char text[320];
            std::snprintf(text, sizeof(text),
                          "[MarchingCubes] the block's cells want about %llu MiB, the process may use %llu MiB "
                          "beside a reserve of %llu MiB; %s",
                          static_cast<unsigned long long>(wanted >> 20), static_cast<unsigned long long>(usable >> 20),
                          static_cast<unsigned long long>(BLOCK_MEMORY_RESERVE_BYTES >> 20), MEMORY_ADVICE);
            m_last_error = text;
            return TESSALINE_OUT_OF_MEMORY;
        }
    }
    profiler.time_stop("mc-step1", true);
    if (full_chain) diagnostic("mc-bin_header_size: %d \n", static_cast<int>(bins_header.size()));

    // A block that ends without a sheet, or fails, keeps none of its cells: its tree goes back to the
    // pool, so that the cells in memory follow the surface, not the area scanned.
    const std::int32_t cell_mark = m_hash_octree->cellPool()->cellCount();
    const std::int32_t children_mark = m_hash_octree->cellPool()->childrenCount();
    struct DropUnused {
        MarchingCubes& stage;
        const PointCloudBlock& block;
        std::int32_t mark, children_mark;
        bool keep = false;
        ~DropUnused() {
            if (!keep && !stage.m_keep_last_cells)
                stage.m_hash_octree->dropTreeSince(mark, children_mark, block.center);
        }
    } drop_unused{*this, *block, cell_mark, children_mark};

    stopPoint();
    profiler.time_start("mc-step2");
    if (full_chain) profiler.time_start("mc-step2-1");
    result = prepareSimpleHash(bins_header);
    if (result == static_cast<int>(TESSALINE_OUT_OF_MEMORY)) return result;  // its text says what was wanted
    if (result != 0) {
        m_last_error = " [MarchingCubes] prepareSimpleHash failed";
        return 1;
    }
    if (full_chain) {
        profiler.time_stop("mc-step2-1", true);
        profiler.time_start("mc-step2-2");
        if (rectifyBinLevels(bins_header) != 0) {
            m_last_error = " [MarchingCubes] rectifyBinLevels - block_loc_hash->deInit failed";
            return 1;
        }
        profiler.time_stop("mc-step2-2", true);
        profiler.time_start("mc-step2-3");
    }
    std::shared_ptr<CellNodeAndRelations> cells;
    result = buildOctreeAndRelations(*block, bins_header, cells);
    if (result != 0) return result;
    if (full_chain) {
        profiler.time_stop("mc-step2-3", true);
        diagnostic("cell_node_size: %d , relation_size: %d \n", cells->cell_node_size.load(),
                   cells->relation_size.load());
    }
    profiler.time_stop("mc-step2", true);

    stopPoint();
    profiler.time_start("mc-step3");
    result = computeFields(block, *cells);
    if (result != 0) return result;
    // The relations (unless few) and the sheets' centres, which only the field passes read, give their pages
    // back now (the arrays stay for the next block), so that the next block's cells and searches do not find
    // them still held. The point columns stay: the next block, no larger, writes them again.
    if (!m_keep_last_cells && !m_cell_buffers.keepsRelationPages(cells->relations.size()))
        releasePagesBeyond(cells->relations, 0);
    releasePagesBeyond(m_cell_buffers.centres, 0);
    profiler.time_stop("mc-step3", true);

    stopPoint();
    profiler.time_start("mc-step4");
    drop_unused.keep = saveFieldData(*cells) > 0;
    profiler.time_stop("mc-step4", true);
    if (m_keep_last_cells) {
        m_last_cells = cells;
    } else {
        m_cell_buffers.spare = std::move(cells);  // its arrays serve the next block
    }
    return 0;
}

void MarchingCubes::logicCoordinate(const PointCloudBlock& block, float out[3]) const {
    const float r = m_resolution;
    const float block_edge = static_cast<float>(m_portioner_params->block_size) * r;
    const float margin = static_cast<float>(m_portioner_params->ext_size) * r;
    for (int k = 0; k < 3; ++k) out[k] = block.center[k] - block_edge * 0.5f - margin;
}

// The whole block on the device where its buffer holds the block, in chunks through that buffer otherwise.
int MarchingCubes::generateBins(const std::shared_ptr<PointCloudBlock>& block, const float logic_coordinate[3],
                                std::vector<BinsHeader>& bins_header) {
    bins_header.clear();
    for (int k = 0; k < 3; ++k) m_logic_coordinate_host[k] = logic_coordinate[k];
    const std::uint64_t n = block->points->size();
    bool done = false;
    if (n < m_raw_points_capacity && !m_on_host) {
        done =
            computePointsHash_Device(*block, logic_coordinate) == 0 && getBinsCenter_Device(*block, bins_header) == 0;
    }
    if (!done) {
        diagnostic("[warining]: memory lacked, generateBins on Host\n");
        m_on_host = true;
        bins_header.clear();
        int result = computePointsHash_Chunked(*block, logic_coordinate);
        if (result != 0) return result;
        result = getBinsCenter_Chunked(*block, logic_coordinate, bins_header);
        if (result != 0) return result;
    }
    // Bin ids come from an atomic counter; the order of their points is the one that does not change
    // (the offsets differ, so the order is total and a parallel sort gives it too).
    const auto by_offset = [](const BinsHeader& a, const BinsHeader& b) { return a.point_offset < b.point_offset; };
    if (!std::is_sorted(bins_header.begin(), bins_header.end(), by_offset))
        __gnu_parallel::sort(bins_header.begin(), bins_header.end(), by_offset);
    return 0;
}

// The device computes the block when its memory holds the cells, relations and centres and the block's
// points are still there; otherwise the host does, with the same arithmetic.
int MarchingCubes::computeFields(const std::shared_ptr<PointCloudBlock>& block, CellNodeAndRelations& cells) {
    const std::int64_t cell_node_size = cells.cell_node_size.load();
    const std::int64_t relation_size = cells.relation_size.load();
    if (cell_node_size == 0 || relation_size == 0) return 0;
    const std::size_t need =
        static_cast<std::size_t>(cell_node_size) * (sizeof(CellNode_Device) + sizeof(VoxelFieldCenter)) +
        static_cast<std::size_t>(relation_size) * sizeof(RelationCell2Bins_Device);
    // After the chunked bins the block's sorted points are on the host only: the device path needs them.
    if (!m_on_host && deviceMemoryAvailable(need)) {
        // Where device memory is host memory and kernels round as the host does, the host's own passes
        // serve as the device path, with the vector walks where the processor has them.
        if (deviceMemoryIsHostMemory() && KERNELS_COMPUTE_AS_HOST && hostFieldWalksAvailable())
            return computeFieldOnHost(*block, cells, fieldViews(), true);
        return computeFieldOnDevice(cells, fieldViews());
    }
    diagnostic("[warining]: memory lacked, computeFiledData on Host\n");
    m_on_host = true;
    return computeFieldOnHost(*block, cells, fieldViews(), true);
}

int MarchingCubes::deInit() {
    if (!m_inited) return 0;
    const int result = runGuarded(m_last_error, {1, nullptr}, [&]() -> int {
        if (deInitDevice() != 0) return 1;  // a run that ended early may still hold the device buffers
        return 0;
    });
    if (result != 0) return result;
    m_bin_table.reset();
    m_hash_octree.reset();
    m_field_data_pool.reset();
    m_inited = false;
    return 0;
}

}  // namespace SurfaceReconstruction
