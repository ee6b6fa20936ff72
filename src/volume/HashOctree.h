// The sparse volume of a run: a hash table from the coordinates of a root block to its root cell,
// one octree below each root.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "common/Atomics.h"
#include "common/GridKeyTable.h"
#include "common/OctreeRecords.h"
#include "volume/BlockPool.h"

namespace SurfaceReconstruction {

// Sizes of the octree's table and cell pool; set once by the engine.
struct HashParameters {
    std::uint64_t HASH_BUCKET_NUM;   // a power of two
    std::uint64_t HASH_BUCKET_MASK;  // HASH_BUCKET_NUM - 1; the table takes its mask from the bucket count
    std::uint64_t HASH_EXCESS_LIST_SIZE;
    std::uint64_t CELL_POOL_BLOCK_SIZE;
    std::uint64_t CELL_POOL_INIT_BLOCKS;
    std::uint64_t CELL_POOL_MAX_BLOCKS;
};

// The values every run uses.
inline HashParameters defaultHashParameters() { return {0x4000000, 0x3ffffff, 100000, 500000, 4, 10000}; }

// The value of the octree's table, from root block coordinates to the root: the index of the root in the
// root list, -1 until a root is attached (under the slot's lock).
struct RootOfBlock {
    std::int32_t data_id = -1;

    std::int32_t dataId() const { return loadAcquire(data_id); }
    void setDataId(std::int32_t id) { storeRelease(data_id, id); }
};
using RootTable = GridKeyTable<RootOfBlock>;

static_assert(std::is_trivially_destructible<CellNode>::value, "the pool frees its cells without destructors");
static_assert(std::is_trivially_destructible<CellChildren>::value, "the pool frees child slots without destructors");

// Cells, and the child slots of the cells that have children, from large blocks at fixed addresses; one
// atomic add a cell while a block has room.
class CellNodePool {
public:
    CellNodePool() = default;
    ~CellNodePool() { deInit(); }
    CellNodePool(const CellNodePool&) = delete;
    CellNodePool& operator=(const CellNodePool&) = delete;

    // Reserves the block list and allocates the first blocks; 66049 when they cannot be allocated.
    int init(const std::shared_ptr<HashParameters>& params);
    int deInit();
    // Reserves one cell's storage, to be made with placement new; 66049 with index -1 when no block can
    // be added.
    int allocDataIndex(std::int32_t& index);
    CellNode* cellAt(std::int32_t index) const;
    void truncate(std::int32_t size) { m_growth.truncate(size); }
    // The same for the eight child slots of a cell, made with value-initialisation.
    int allocChildrenIndex(std::int32_t& index);
    CellChildren* childrenAt(std::int32_t index) const;
    void truncateChildren(std::int32_t size) { m_children_growth.truncate(size); }

    bool isInited() const { return m_inited; }
    std::int32_t blockCount() const { return m_growth.blocks(); }
    std::int32_t cellCount() const { return m_growth.size(); }
    std::int32_t childrenCount() const { return m_children_growth.size(); }

private:
    bool addBlock();
    bool addChildrenBlock();

    bool m_inited = false;
    std::vector<CellNode*> m_blocks;
    std::vector<CellChildren*> m_children_blocks;
    BlockPoolGrowth m_growth{1, 0};  // the block size comes with the parameters
    BlockPoolGrowth m_children_growth{1, 0};
    std::shared_ptr<HashParameters> m_hash_params;
};

struct HashRootCellData {
    CellNode* root_cell = nullptr;
};

// The root blocks created so far, by index: the one way to enumerate the octree.
class HashRootCellList {
public:
    static constexpr std::int32_t CAPACITY = 100000;

    HashRootCellList() : datas(CAPACITY) {}

    // The index of the new slot, or -1 when the list is full.
    std::int32_t add(const std::shared_ptr<HashRootCellData>& data);
    // Slot `id`, or empty (with a message) when `id` is out of range.
    std::shared_ptr<HashRootCellData> get(std::int32_t id) const;

    std::vector<std::shared_ptr<HashRootCellData>> datas;
    std::atomic<std::int32_t> datas_size{0};
    std::int32_t capacity = CAPACITY;
};

// The cells of a walk's last descent, root first.
struct DescentPath {
    static constexpr int MAX_DEPTH = 64;
    const HashRootCellData* root = nullptr;
    CellNode* cells[MAX_DEPTH];
    int depth = 0;
};

class HashOctree {
public:
    HashOctree() = default;
    ~HashOctree();
    HashOctree(const HashOctree&) = delete;
    HashOctree& operator=(const HashOctree&) = delete;

    int init(const std::shared_ptr<HashParameters>& params);
    int deInit();
    int setResolution(float resolution);
    int setBlockSize(std::int32_t block_size);

    // The root cell of the block that holds `pos` (snapped to its bin first), created when absent.
    int insertBlockHash(const float pos[3], std::shared_ptr<HashRootCellData>& root);
    // Walks down from the root towards `pos`, creating missing cells, until the level of `target_half`
    // or an existing leaf; that cell becomes a leaf. 66051 when `pos` lies outside the root.
    int insertLeafNodeForHashBlock(const HashRootCellData& root, const float pos[3], float target_half,
                                   CellNode*& leaf);
    // The same descent for a walk that visits neighbouring positions one after another on one thread:
    // `path` holds the cells of the walk's last descent, and the next one takes up the way where it
    // parts from that path instead of at the root. The cells it reaches are those of the plain descent.
    int insertLeafNodeAlongPath(const HashRootCellData& root, const float pos[3], float target_half, DescentPath& path,
                                CellNode*& leaf);
    // The root of the block that holds `pos`, or empty.
    std::shared_ptr<HashRootCellData> getHashRootCell(const float pos[3]);
    int getHashCellList(std::shared_ptr<HashRootCellList>& list);
    CellNodePool* cellPool() const { return m_cell_pool.get(); }
    // Drops the cells made since the pool held `mark` cells and `children_mark` child slots, when they all
    // hang below the root made first after the mark (one block's tree): the root stays, bare, and the pool
    // takes the cells and slots back. Gives false and changes nothing otherwise.
    bool dropTreeSince(std::int32_t mark, std::int32_t children_mark, const float block_center[3]);

    std::string getLastError() const;
    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }
    std::int32_t blockSize() const { return m_block_size; }

private:
    void setError(const char* text);

    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::int32_t m_block_size = 100;
    std::shared_ptr<HashParameters> m_hash_params;
    std::shared_ptr<RootTable> m_hash_table;
    std::shared_ptr<CellNodePool> m_cell_pool;
    std::shared_ptr<HashRootCellList> m_hash_cell_list;
    mutable std::uint32_t m_error_lock = 0;  // last-error writes from parallel loops
};

}  // namespace SurfaceReconstruction
