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
#include "common/UninitialisedArray.h"
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

void joinPieces(std::vector<MeshPart>& pieces, MultiMeshData& mesh, const double* offset) {
    std::vector<std::size_t> first(pieces.size() + 1, 0);
    for (std::size_t i = 0; i < pieces.size(); ++i) first[i + 1] = first[i] + pieces[i].mesh.xyz.size();
    std::vector<TriangleXYZ>().swap(mesh.xyz);
    std::vector<TriangleW>().swap(mesh.w);
    mesh.xyz.reserve(first.back());
    mesh.w.reserve(first.back());
    // A few megabytes of pieces at a time: their place in the mesh backed by all threads (a fresh array's
    // pages would be faulted in one at a time by the thread that zeroes them), then copied on all cores
    // and let go, so that the mesh and its pieces are held together only that far.
    constexpr std::size_t GROUP_TRIANGLES = (std::size_t{8} << 20) / (sizeof(TriangleXYZ) + sizeof(TriangleW));
    for (std::size_t from = 0; from < pieces.size();) {
        std::size_t to = from + 1;
        while (to < pieces.size() && first[to + 1] - first[from] <= GROUP_TRIANGLES) ++to;
#pragma omp parallel
        {
            const int part = omp_get_thread_num(), parts = omp_get_num_threads();
            populatePagesWithin(mesh.xyz.data() + first[from], mesh.xyz.data() + first[to], part, parts);
            populatePagesWithin(mesh.w.data() + first[from], mesh.w.data() + first[to], part, parts);
        }
        mesh.xyz.resize(first[to]);
        mesh.w.resize(first[to]);
        const std::int64_t end = static_cast<std::int64_t>(to);
#pragma omp parallel for schedule(dynamic, 1)
        for (std::int64_t i = static_cast<std::int64_t>(from); i < end; ++i) {
            MultiMeshData& piece = pieces[static_cast<std::size_t>(i)].mesh;
            TriangleXYZ* out = mesh.xyz.data() + first[static_cast<std::size_t>(i)];
            if (offset != nullptr)
                for (std::size_t t = 0; t < piece.xyz.size(); ++t)
                    for (int v = 0; v < 9; ++v)
                        out[t].xyz[v] = static_cast<float>(static_cast<double>(piece.xyz[t].xyz[v]) + offset[v % 3]);
            else
                std::copy(piece.xyz.begin(), piece.xyz.end(), out);
            std::copy(piece.w.begin(), piece.w.end(), mesh.w.data() + first[static_cast<std::size_t>(i)]);
            std::vector<TriangleXYZ>().swap(piece.xyz);
            std::vector<TriangleW>().swap(piece.w);
        }
        from = to;
    }
    pieces.clear();
}

void joinPiecesByBlock(std::vector<MeshPart>& pieces, std::vector<MeshPart>& parts) {
    parts.clear();
    for (std::size_t first = 0; first < pieces.size();) {
        std::size_t end = first + 1;
        std::size_t triangles = pieces[first].mesh.xyz.size();
        while (end < pieces.size() && !(pieces[first].block < pieces[end].block) &&
               !(pieces[end].block < pieces[first].block))
            triangles += pieces[end++].mesh.xyz.size();
        MeshPart part = std::move(pieces[first]);
        part.mesh.xyz.reserve(triangles);
        part.mesh.w.reserve(triangles);
        for (std::size_t i = first + 1; i < end; ++i) {
            MultiMeshData& piece = pieces[i].mesh;
            part.mesh.xyz.insert(part.mesh.xyz.end(), piece.xyz.begin(), piece.xyz.end());
            part.mesh.w.insert(part.mesh.w.end(), piece.w.begin(), piece.w.end());
            std::vector<TriangleXYZ>().swap(piece.xyz);
            std::vector<TriangleW>().swap(piece.w);
        }
        parts.push_back(std::move(part));
        first = end;
    }
    pieces.clear();
}

int Reconstructor::process(std::shared_ptr<MultiMeshData>& mesh) {
    if (refuseBeforeInit()) return 1;
    if (!m_hash_octree || !m_field_data_pool) {
        m_last_error = "[Reconstructor] process error , m_hash_octree == nullptr || m_field_data_pool == nullptr !";
        return 1;
    }
    mesh = std::make_shared<MultiMeshData>();
    std::vector<MeshPart> pieces;
    const int result = processPieces({}, pieces);
    if (result != 0) return result;
    joinPieces(pieces, *mesh, nullptr);
    return 0;
}

int Reconstructor::processPieces(const std::vector<BlockKey>& owned, std::vector<MeshPart>& pieces) {
    if (refuseBeforeInit()) return 1;
    if (!m_hash_octree || !m_field_data_pool) {
        m_last_error = "[Reconstructor] process error , m_hash_octree == nullptr || m_field_data_pool == nullptr !";
        return 1;
    }
    pieces.clear();
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
    // Each piece of work's triangles go into a mesh of its own, so that they follow the keys, and within a
    // root the walk's order, whatever the number of workers, while the pieces, which differ much in size,
    // go to the workers as they come free. Where the roots are few beside the workers (a scan of a few
    // large blocks would end on one core), a split root goes out in the order of its walk: for each child
    // in turn, a split child's eight children and then what lies between them, or a child that is a leaf
    // as it is; last what lies between the root's children, with its seams. Otherwise, and for a root that
    // is a leaf, a root is one piece.
    using Walk = DualOctreeTraversal<DualCubeContour<TriangleSink>>;
    // A piece of a root's walk: a cell at `depth` below the root (the root itself, its child in octant
    // `child`, or that child's child in octant `grandchild`), whole or only what lies between its children.
    // A piece of depth 0 also contours the root's seams.
    struct WalkPiece {
        std::int32_t entry;  // index in the walk list
        std::int8_t depth, child, grandchild;
        bool between;
    };
    const auto cellOf = [](const CellNode* root, const WalkPiece& piece) {
        if (piece.depth >= 1) root = Walk::at(root, piece.child);
        return piece.depth == 2 ? Walk::at(root, piece.grandchild) : root;
    };
    const bool split_roots = walk_list.size() < 8 * static_cast<std::size_t>(std::max(1, omp_get_max_threads()));
    std::vector<WalkPiece> work;
    work.reserve(walk_list.size() * (split_roots ? 73 : 1));
    for (std::size_t w = 0; w < walk_list.size(); ++w) {
        const CellNode* root = roots->get(walk_list[w].second)->root_cell;
        const auto entry = static_cast<std::int32_t>(w);
        if (!split_roots) {
            work.push_back({entry, 0, 0, 0, false});
            continue;
        }
        if (Walk::split(root))
            for (std::int8_t o = 0; o < 8; ++o) {
                if (!Walk::split(Walk::at(root, o))) {
                    work.push_back({entry, 1, o, 0, false});
                    continue;
                }
                for (std::int8_t g = 0; g < 8; ++g) work.push_back({entry, 2, o, g, false});
                work.push_back({entry, 1, o, 0, true});
            }
        work.push_back({entry, 0, 0, 0, true});
    }
    const std::int64_t count = static_cast<std::int64_t>(work.size());
    std::vector<MeshPart> made(work.size());
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
        const WalkPiece& piece = work[static_cast<std::size_t>(i)];
        const std::pair<BlockKey, std::int32_t>& entry = walk_list[static_cast<std::size_t>(piece.entry)];
        MeshPart& part = made[static_cast<std::size_t>(i)];
        part.block = entry.first;
        filling[static_cast<std::size_t>(omp_get_thread_num())] = &part.mesh;
        const CellNode* root = roots->get(entry.second)->root_cell;
        try {
            Walk walk(contour);
            const CellNode* cell = cellOf(root, piece);
            if (!piece.between) {
                walk.visitCell(cell);
            } else if (Walk::split(cell)) {
                const CellNode* children[8];
                for (int o = 0; o < 8; ++o) children[o] = Walk::at(cell, o);
                walk.visitBetweenChildren(children);
            }
            if (piece.depth != 0) continue;
            // Each root contours its seams towards the neighbours on the high side.
            const CellNode* neighbours[8];
            for (int k = 0; k < 8; ++k) {
                float position[3];
                for (int axis = 0; axis < 3; ++axis)
                    position[axis] =
                        static_cast<float>(ROOT_NEIGHBOURS[k][axis]) * block_size * m_resolution + root->center[axis];
                const std::shared_ptr<HashRootCellData> neighbour = m_hash_octree->getHashRootCell(position);
                neighbours[k] = neighbour ? neighbour->root_cell : nullptr;
            }
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
        if (!part.mesh.xyz.empty()) pieces.push_back(std::move(part));
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
