// The sparse volume of a run: a hash table from the coordinates of a root block to its root cell,
// one octree below each root.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Atomics.h"
#include "BlockPool.h"
#include "OctreeRecords.h"

namespace SurfaceReconstruction {

// Sizes of the octree's table and cell pool; set once by the engine.
struct HashParameters {
    std::uint64_t HASH_BUCKET_NUM;
    std::uint64_t HASH_BUCKET_MASK;
    std::uint64_t HASH_EXCESS_LIST_SIZE;
    std::uint64_t CELL_POOL_BLOCK_SIZE;
    std::uint64_t CELL_POOL_INIT_BLOCKS;
    std::uint64_t CELL_POOL_MAX_BLOCKS;
};

// The values every run uses.
inline HashParameters defaultHashParameters() { return {0x4000000, 0x3ffffff, 100000, 500000, 4, 10000}; }

// One slot of the octree's table: the key of a root block and what it maps to. `next` and `data_id`
// are stored one above their values, so that a slot of zero bytes is an empty one: the table is
// allocated zeroed and needs no construction, and pages that no key reaches are never touched.
struct HashEntry {
    std::int32_t x = 0, y = 0, z = 0;
    std::int32_t next_plus_one = 0;     // next: -1 empty; 0 occupied, end of chain; > 0 next slot of the chain
    std::int32_t data_id_plus_one = 0;  // data_id: index into the root cell list; -1 while nothing is attached
    std::uint32_t lock = 0;             // spin lock of this entry

    std::int32_t next() const { return loadAcquire(next_plus_one) - 1; }
    void setNext(std::int32_t next) { storeRelease(next_plus_one, next + 1); }
    std::int32_t dataId() const { return loadAcquire(data_id_plus_one) - 1; }
    void setDataId(std::int32_t id) { storeRelease(data_id_plus_one, id + 1); }
};

static_assert(std::is_trivially_destructible<HashEntry>::value, "the table frees its entries without destructors");
static_assert(std::is_trivially_destructible<CellNode>::value, "the pool frees its cells without destructors");
static_assert(std::is_trivially_destructible<CellChildren>::value, "the pool frees child slots without destructors");

// The overflow counter shared by the whole table: the next free overflow slot.
struct GlobalHashParams {
    std::atomic<std::int32_t> cur_ExcessHash_Index{0};
};

// Fixed-size table from root block coordinates to entries: bucket slots, then overflow slots. Find or
// insert from any number of threads; no removal, no growth.
class HashTable {
public:
    HashTable() = default;
    ~HashTable() { deInit(); }
    HashTable(const HashTable&) = delete;
    HashTable& operator=(const HashTable&) = delete;

    // Allocates and constructs every slot; 66049 when the entries cannot be allocated.
    int init(const std::shared_ptr<HashParameters>& params, const std::shared_ptr<GlobalHashParams>& global);
    void deInit();

    // The entry of the key, created when absent; null when the overflow area is used up.
    HashEntry* findOrInsertHashEntry(std::int32_t x, std::int32_t y, std::int32_t z);
    // The entry of the key or null; never writes, takes no lock.
    HashEntry* findHashEntry(std::int32_t x, std::int32_t y, std::int32_t z) const;

    bool isInited() const { return m_inited; }
    std::uint64_t slotCount() const { return m_slot_count; }
    const HashEntry& slot(std::uint64_t index) const { return m_hash_entries[index]; }

private:
    bool m_inited = false;
    HashEntry* m_hash_entries = nullptr;
    std::uint64_t m_slot_count = 0;
    std::shared_ptr<GlobalHashParams> m_global_params;
    std::shared_ptr<HashParameters> m_hash_params;
};

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
    std::shared_ptr<HashTable> m_hash_table;
    std::shared_ptr<CellNodePool> m_cell_pool;
    std::shared_ptr<HashRootCellList> m_hash_cell_list;
    std::shared_ptr<GlobalHashParams> m_global_params;
    mutable std::uint32_t m_error_lock = 0;  // last-error writes from parallel loops
};

}  // namespace SurfaceReconstruction
