// The sparse volume of a run: a hash table from the coordinates of a root block to its root cell,
// one octree below each root.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

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

    std::int32_t next() const { return __atomic_load_n(&next_plus_one, __ATOMIC_ACQUIRE) - 1; }
    void setNext(std::int32_t next) { __atomic_store_n(&next_plus_one, next + 1, __ATOMIC_RELEASE); }
    std::int32_t dataId() const { return __atomic_load_n(&data_id_plus_one, __ATOMIC_ACQUIRE) - 1; }
    void setDataId(std::int32_t id) { __atomic_store_n(&data_id_plus_one, id + 1, __ATOMIC_RELEASE); }
};

static_assert(std::is_trivially_destructible<HashEntry>::value, "the table frees its entries without destructors");

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

// One cell of an octree. Cells live at fixed addresses for the whole run, so parents, children and
// later stages hold raw pointers to them.
struct CellNode {
    std::uint32_t lock = 0;  // guards the creation of children and the attachment of data
    float center[3] = {0.0f, 0.0f, 0.0f};
    float half_size = 0.5f;
    CellNode* parent = nullptr;
    CellNode* children[8] = {};
    std::uint8_t cell_type = 0;    // 0 not in a tree, 1 branch, 3 leaf; only ever moves upward
    std::uint8_t data_state = 0;   // 0 nothing, 1 relation record, 2 field records
    std::uint8_t field_count = 0;  // field records at data_id when data_state is 2
    std::uint8_t child_count = 0;  // live children; cleared when a leaf has absorbed its subtree
    std::int32_t data_id = -1;
};

constexpr std::uint8_t CELL_TYPE_BRANCH = 1;
constexpr std::uint8_t CELL_TYPE_LEAF = 3;

// Child numbering: z at or above the centre gives 0-3, below 4-7; within a ring the x/y quadrants.
// Index (x below) * 4 + (y below) * 2 + (z below) into this table.
inline constexpr int CHILD_INDEX_TABLE[8] = {3, 7, 0, 4, 2, 6, 1, 5};
// Sign of each axis of child k, from the numbering above.
inline constexpr int CHILD_SIGN[8][3] = {{1, -1, 1},  {-1, -1, 1},  {-1, 1, 1},  {1, 1, 1},
                                         {1, -1, -1}, {-1, -1, -1}, {-1, 1, -1}, {1, 1, -1}};

inline int childIndex(const float point[3], const float center[3]) {
    const int a = point[0] < center[0] ? 1 : 0;
    const int b = point[1] < center[1] ? 1 : 0;
    const int c = point[2] < center[2] ? 1 : 0;
    return CHILD_INDEX_TABLE[a * 4 + b * 2 + c];
}

// Cells from large blocks at fixed addresses; one atomic add a cell while a block has room.
class CellNodePool {
public:
    CellNodePool() = default;
    ~CellNodePool() { deInit(); }
    CellNodePool(const CellNodePool&) = delete;
    CellNodePool& operator=(const CellNodePool&) = delete;

    // Reserves the block list and allocates the first blocks; 66049 when they cannot be allocated.
    int init(const std::shared_ptr<HashParameters>& params);
    int deInit();
    // Reserves one cell in the constructed state; 66049 with index -1 when no block can be added.
    int allocDataIndex(std::int32_t& index);
    CellNode* cellAt(std::int32_t index) const;

    bool isInited() const { return m_inited; }
    std::int32_t blockCount() const { return m_block_num.load(); }
    std::int32_t cellCount() const { return m_cell_num.load(); }

private:
    bool addBlock();

    bool m_inited = false;
    std::uint32_t m_lock = 0;
    std::vector<CellNode*> m_blocks;
    std::atomic<std::int32_t> m_block_num{0};
    std::atomic<std::int32_t> m_cell_num{0};
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
    // The root of the block that holds `pos`, or empty.
    std::shared_ptr<HashRootCellData> getHashRootCell(const float pos[3]);
    int getHashCellList(std::shared_ptr<HashRootCellList>& list);
    CellNodePool* cellPool() const { return m_cell_pool.get(); }

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
