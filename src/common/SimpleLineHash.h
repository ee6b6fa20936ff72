// A hash table from three integers to one entry, kept in one flat array (bucket slots, then an excess
// area, chains by array index) so that it goes to the device with one copy and is searched there as is.
// Many threads may insert at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "common/GridHash.h"

namespace SurfaceReconstruction {

struct SimpleLineHashEntry {
    std::int32_t x, y, z;
    std::int32_t next;   // -1 empty; 0 occupied, end of chain; > 0 index of the next entry of the chain
    std::int32_t id;     // the value; -1 when nothing is set
    std::int32_t flags;  // OR of the words of the points tagged with this entry
    std::int32_t count;  // points of the batch in progress tagged with this entry
};

// Index of the entry of (x, y, z), or -1. Host and device walk the chain the same way, without locks.
TESSA_HD inline std::int32_t findLineHashEntry(const SimpleLineHashEntry* entries, std::uint32_t mask, std::int32_t x,
                                               std::int32_t y, std::int32_t z) {
    std::int32_t e = static_cast<std::int32_t>(hashGridKey(x, y, z, mask));
    if (entries[e].next < 0) return -1;
    while (true) {
        const SimpleLineHashEntry& entry = entries[e];
        if (entry.x == x && entry.y == y && entry.z == z) return e;
        if (entry.next == 0) return -1;
        e = entry.next;
        if (entries[e].next < 0) return -1;
    }
}

class SimpleLineHash {
public:
    SimpleLineHash() = default;
    ~SimpleLineHash();
    SimpleLineHash(const SimpleLineHash&) = delete;
    SimpleLineHash& operator=(const SimpleLineHash&) = delete;

    // `bucket_size` a power of two. A table already big enough is only cleared and keeps its sizes.
    int init(std::uint64_t bucket_size, std::uint64_t excess_size);
    int deInit();
    int clear();

    // The entry of (x, y, z), new or existing; 1 with null when not inited or the excess area is used up.
    int insert(std::int32_t x, std::int32_t y, std::int32_t z, SimpleLineHashEntry*& entry_out);
    // The entry of (x, y, z); 1 with null when not inited or absent. Never writes.
    int find(std::int32_t x, std::int32_t y, std::int32_t z, SimpleLineHashEntry*& entry_out);

    template <class Pos>
    int insert(const Pos& pos, SimpleLineHashEntry*& entry_out) {
        return insert(pos.x, pos.y, pos.z, entry_out);
    }
    template <class Pos>
    int find(const Pos& pos, SimpleLineHashEntry*& entry_out) {
        return find(pos.x, pos.y, pos.z, entry_out);
    }

    SimpleLineHashEntry* getHashEntriesPtr() { return m_entries.data(); }
    std::uint64_t getHashMask() const { return m_mask; }
    std::uint64_t getHashBucketSize() const { return m_bucket_size; }
    std::uint64_t getHashExcessSize() const { return m_excess_size; }
    bool isInited() const { return m_inited; }

private:
    void setUpEntry(SimpleLineHashEntry& entry, std::int32_t x, std::int32_t y, std::int32_t z);

    bool m_inited = false;
    std::uint64_t m_bucket_size = 16384;
    std::uint64_t m_mask = 16383;
    std::uint64_t m_excess_size = 1000;
    std::vector<SimpleLineHashEntry> m_entries;
    std::uint32_t* m_locks = nullptr;
    std::atomic<std::int64_t> m_next_excess_index{16384};
};

}  // namespace SurfaceReconstruction
