// The sparse volume of a run: a hash table from the coordinates of a root block to its root cell,
// one octree below each root.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

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

// One slot of the octree's table: the key of a root block and what it maps to.
struct HashEntry {
    std::int32_t x = 0, y = 0, z = 0;
    std::int32_t next = -1;     // -1 empty; 0 occupied, end of chain; > 0 next slot of the chain
    std::int32_t data_id = -1;  // index into the root cell list; -1 while nothing is attached
    std::uint32_t lock = 0;     // spin lock of this entry
};

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

    std::string getLastError() const { return m_last_error; }
    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }
    std::int32_t blockSize() const { return m_block_size; }

private:
    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::int32_t m_block_size = 100;
    std::shared_ptr<HashParameters> m_hash_params;
};

}  // namespace SurfaceReconstruction
