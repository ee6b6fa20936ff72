// The Reconstructor: the last stage of a run. It walks the root blocks of the octree on the host and
// collects the triangles of all dual cubes into one MultiMeshData.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/Parameters.h"
#include "common/RunStage.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

class HashOctree;
class FieldDataPool;

// Memory the mesh stage keeps free beyond what its triangles need: it stops when less is left.
constexpr std::uint64_t RECONSTRUCTOR_RESERVE_BYTES = 256ull << 20;
// What the mesh of one field slot is allowed for: two triangles of 48 bytes, held twice while the
// workers' parts are merged.
constexpr std::uint64_t RECONSTRUCTOR_BYTES_PER_FIELD = 2 * 48 * 2;

// True while the process may still use at least `need` bytes (available memory and free swap, within
// its memory cgroup's limit); false when the figures cannot be read. `usable` gets the figure.
bool reconstructorMemoryGuard(std::uint64_t need, std::uint64_t* usable = nullptr);
// The same against the reserve alone.
bool reconstructorMemoryGuard();

// All pieces, in order, into `mesh` (replaced), each position moved by `offset` (x, y, z; in double, then
// rounded to float) where it is given; the pieces are emptied as they are copied, on all cores.
void joinPieces(std::vector<MeshPart>& pieces, MultiMeshData& mesh, const double* offset);
// The pieces of each block, in order, into one part of `parts` (replaced), the blocks in order.
void joinPiecesByBlock(std::vector<MeshPart>& pieces, std::vector<MeshPart>& parts);

class Reconstructor : public RunStage {
public:
    Reconstructor() = default;
    ~Reconstructor();

    int init();
    int setHashOctree(const std::shared_ptr<HashOctree>& octree);
    int setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool);
    // The triangles of all roots, in the order of the roots' keys.
    int process(std::shared_ptr<MultiMeshData>& mesh);
    // The triangles of the roots of the owned blocks (all roots where `owned` is empty) in pieces: a root's
    // one after another in the order of its walk, the roots in the order of their keys; no piece is empty.
    // joinPieces and joinPiecesByBlock put them together.
    int processPieces(const std::vector<BlockKey>& owned, std::vector<MeshPart>& pieces);
    int deInit();

    const std::shared_ptr<FieldDataPool>& fieldDataPool() const { return m_field_data_pool; }
    const std::shared_ptr<HashOctree>& hashOctree() const { return m_hash_octree; }

private:
    // Status 66049 with a last error naming what the process may still use and what the mesh needs.
    int refuseForMemory(std::uint64_t usable, std::uint64_t need);

    std::shared_ptr<HashOctree> m_hash_octree;
    std::shared_ptr<FieldDataPool> m_field_data_pool;
};

}  // namespace SurfaceReconstruction
