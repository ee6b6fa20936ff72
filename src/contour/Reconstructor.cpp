// Reconstructor: life cycle, memory guard and the frame of the mesh run.
#include "contour/Reconstructor.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <vector>

#include "common/BlockSelection.h"
#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/HostMemory.h"
#include "common/RunStop.h"
#include "contour/CellSurface.h"
#include "contour/DualTraversal.h"
#include "volume/FieldDataPool.h"
#include "volume/HashOctree.h"

namespace SurfaceReconstruction {

bool reconstructorMemoryGuard(std::uint64_t need, std::uint64_t* usable) {
    HostMemoryInfo info;
    if (!readHostMemory(info)) {
        if (usable != nullptr) *usable = 0;
        return false;
    }
    const std::uint64_t left = usableHostBytes(info);
    if (usable != nullptr) *usable = left;
    return left >= need;
}

bool reconstructorMemoryGuard() { return reconstructorMemoryGuard(RECONSTRUCTOR_RESERVE_BYTES); }

Reconstructor::~Reconstructor() {
    if (m_inited) deInit();
}

int Reconstructor::init() {
    m_inited = true;
    return 0;
}

int Reconstructor::setHashOctree(const std::shared_ptr<HashOctree>& octree) {
    if (refuseBeforeInit()) return 1;
    m_hash_octree = octree;
    return 0;
}

int Reconstructor::setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool) {
    if (refuseBeforeInit()) return 1;
    m_field_data_pool = pool;
    return 0;
}

namespace {

// The eight root neighbours on the high side, row = dx + 2 dy + 4 dz.
constexpr int ROOT_NEIGHBOURS[8][3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0},
                                       {0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 1}};

}  // namespace

int Reconstructor::process(std::shared_ptr<MultiMeshData>& mesh) {
    if (refuseBeforeInit()) return 1;
    if (!m_hash_octree || !m_field_data_pool) {
        m_last_error = "[Reconstructor] process error , m_hash_octree == nullptr || m_field_data_pool == nullptr !";
        return 1;
    }
    mesh = std::make_shared<MultiMeshData>();
    std::vector<MeshPart> parts;
    const int result = processParts({}, parts);
    if (result != 0) return result;
    // The parts in key order, into arrays of their final size; each part goes as soon as it is copied.
    std::size_t triangles = 0;
    for (const MeshPart& part : parts) triangles += part.mesh.xyz.size();
    mesh->xyz.reserve(triangles);
    mesh->w.reserve(triangles);
    for (MeshPart& part : parts) {
        mesh->xyz.insert(mesh->xyz.end(), part.mesh.xyz.begin(), part.mesh.xyz.end());
        mesh->w.insert(mesh->w.end(), part.mesh.w.begin(), part.mesh.w.end());
        std::vector<TriangleXYZ>().swap(part.mesh.xyz);
        std::vector<TriangleW>().swap(part.mesh.w);
    }
    return 0;
}

int Reconstructor::processParts(const std::vector<BlockKey>& owned, std::vector<MeshPart>& parts) {
    if (refuseBeforeInit()) return 1;
    if (!m_hash_octree || !m_field_data_pool) {
        m_last_error = "[Reconstructor] process error , m_hash_octree == nullptr || m_field_data_pool == nullptr !";
        return 1;
    }
    parts.clear();
    std::atomic<unsigned char> is_ok{1};
    std::shared_ptr<HashRootCellList> roots;
    if (m_hash_octree->getHashCellList(roots) != 0) {
        m_last_error = "Reconstructor getHashCellList failed!";
        return 1;
    }

    // The memory the mesh will need, from the field slots the run filled, must be there before the walk;
    // during it, the reserve.
    const std::uint64_t fields = static_cast<std::uint64_t>(std::max<std::int32_t>(0, m_field_data_pool->size()));
    const std::uint64_t need = RECONSTRUCTOR_RESERVE_BYTES + fields * RECONSTRUCTOR_BYTES_PER_FIELD;
    std::uint64_t usable = 0;
    wantMemory(need);
    if (!reconstructorMemoryGuard(need, &usable)) return refuseForMemory(usable, need);

    const float block_size = m_portioner_params ? static_cast<float>(m_portioner_params->block_size) : 0.0f;
    const float block_res = block_size * m_resolution;
    // The roots to walk, in the order of their keys: the triangles of a block come out alike whichever
    // blocks a run holds and in whatever order it made them.
    const std::int32_t n = roots->datas_size.load();
    const BlockKeySet owned_set(owned.begin(), owned.end());
    std::vector<std::pair<BlockKey, std::int32_t>> walk_list;
    for (std::int32_t id = 0; id < n; ++id) {
        const std::shared_ptr<HashRootCellData> data = roots->get(id);
        const CellNode* root = data ? data->root_cell : nullptr;
        if (root == nullptr) {
            diagnostic(
                "[error]\xef\xbc\x9a"
                "enumerate_hash (cur_cell == nullptr)! \n");
            continue;
        }
        const BlockKey key = blockKeyOfCentre(root->center, block_res);
        if (owned_set.empty() || owned_set.count(key) != 0) walk_list.emplace_back(key, id);
    }
    std::sort(walk_list.begin(), walk_list.end(),
              [](const std::pair<BlockKey, std::int32_t>& a, const std::pair<BlockKey, std::int32_t>& b) {
                  return a.first < b.first;
              });
    const std::int64_t count = static_cast<std::int64_t>(walk_list.size());
    // Each root's triangles go into a part of its own: the triangles follow the keys whatever the number of
    // workers, and the roots, which differ much in size, go to the workers as they come free.
    std::vector<MeshPart> made(walk_list.size());
    std::vector<MultiMeshData*> filling(static_cast<std::size_t>(omp_get_max_threads()), nullptr);
    TriangleSink sink{&is_ok, &filling};
    DualCubeContour<TriangleSink> contour(*m_field_data_pool, sink);
    const std::atomic<bool>* stop = runStopFlag();
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t i = 0; i < count; ++i) {
        if (stopAsked(stop)) continue;  // the run stops after the loop
        if (is_ok.load(std::memory_order_relaxed) == 0 || !reconstructorMemoryGuard()) {
            is_ok = 0;
            continue;
        }
        MeshPart& part = made[static_cast<std::size_t>(i)];
        part.block = walk_list[static_cast<std::size_t>(i)].first;
        filling[static_cast<std::size_t>(omp_get_thread_num())] = &part.mesh;
        const CellNode* root = roots->get(walk_list[static_cast<std::size_t>(i)].second)->root_cell;
        try {
            // Each root contours its inside and its seams towards the neighbours on the high side.
            const CellNode* neighbours[8];
            for (int k = 0; k < 8; ++k) {
                float position[3];
                for (int axis = 0; axis < 3; ++axis)
                    position[axis] =
                        static_cast<float>(ROOT_NEIGHBOURS[k][axis]) * block_size * m_resolution + root->center[axis];
                const std::shared_ptr<HashRootCellData> neighbour = m_hash_octree->getHashRootCell(position);
                neighbours[k] = neighbour ? neighbour->root_cell : nullptr;
            }
            DualOctreeTraversal<DualCubeContour<TriangleSink>> walk(contour);
            walk.visitCell(neighbours[0]);
            walk.visitFaceX(neighbours[0], neighbours[1]);
            walk.visitFaceY(neighbours[0], neighbours[2]);
            walk.visitFaceZ(neighbours[0], neighbours[4]);
            walk.visitEdgeZ(neighbours[0], neighbours[1], neighbours[2], neighbours[3]);
            walk.visitEdgeX(neighbours[0], neighbours[2], neighbours[4], neighbours[6]);
            walk.visitEdgeY(neighbours[0], neighbours[1], neighbours[4], neighbours[5]);
            walk.visitVertex(neighbours[0], neighbours[1], neighbours[2], neighbours[3], neighbours[4], neighbours[5],
                             neighbours[6], neighbours[7]);
        } catch (...) {
            is_ok = 0;
        }
    }
    stopPoint();
    if (is_ok.load() == 0) {
        diagnostic("is_ok = false!\n");
        if (!reconstructorMemoryGuard(RECONSTRUCTOR_RESERVE_BYTES, &usable))
            return refuseForMemory(usable, RECONSTRUCTOR_RESERVE_BYTES);
        m_last_error = memoryFailureText(0);  // memory ran out while triangles were made
        return TESSALINE_OUT_OF_MEMORY;
    }
    // Putting the parts together copies every part once more.
    std::uint64_t part_bytes = 0;
    for (const MeshPart& part : made)
        part_bytes += part.mesh.xyz.size() * sizeof(TriangleXYZ) + part.mesh.w.size() * sizeof(TriangleW);
    if (!reconstructorMemoryGuard(RECONSTRUCTOR_RESERVE_BYTES + part_bytes, &usable)) {
        diagnostic("is_ok = false!\n");
        return refuseForMemory(usable, RECONSTRUCTOR_RESERVE_BYTES + part_bytes);
    }
    for (MeshPart& part : made)
        if (!part.mesh.xyz.empty()) parts.push_back(std::move(part));
    return 0;
}

int Reconstructor::refuseForMemory(std::uint64_t usable, std::uint64_t need) {
    char text[256];
    std::snprintf(text, sizeof(text),
                  "[Reconstructor] process memory guard: the process may use %llu MiB more, the mesh needs %llu "
                  "MiB; %s",
                  static_cast<unsigned long long>(usable >> 20), static_cast<unsigned long long>(need >> 20),
                  MEMORY_ADVICE);
    m_last_error = text;
    diagnostic("%s\n", text);
    return TESSALINE_OUT_OF_MEMORY;
}

int Reconstructor::deInit() {
    m_hash_octree.reset();
    m_field_data_pool.reset();
    m_inited = false;
    return 0;
}

}  // namespace SurfaceReconstruction
