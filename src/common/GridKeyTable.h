// The concurrent hash table of the system from three grid integers to a value: the Portioner's table
// from block position to block (which goes to the device with one copy and is searched there as it is),
// the table of a block's bins where their bitmap would be too big, and the octree's table from root block
// to root cell. One flat array of bucket slots, then overflow slots, chains by slot index.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "common/Atomics.h"
#include "common/Diagnostics.h"
#include "common/GridHash.h"
#include "common/SpinLock.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

// One slot: a key and its value. Zero bytes are an empty slot, so the array is allocated zeroed and pages
// that no key reaches are never touched (the octree's table has 67 million slots).
template <class Value>
struct GridKeySlot {
    std::int32_t x, y, z;
    std::int32_t next_plus_one;  // next + 1; next: -1 empty; 0 occupied, end of chain; > 0 the chain's next slot
    std::uint32_t lock;          // taken only to claim the slot or to extend its chain
    Value value;                 // Value{} from the insert of the key on

    // `next` goes from -1 to 0 and from 0 to a slot, each once, and only after the key and value are
    // complete: a reader that sees it sees them.
    std::int32_t next() const { return loadAcquire(next_plus_one) - 1; }
    void setNext(std::int32_t next) { storeRelease(next_plus_one, next + 1); }
};

// The slot of (x, y, z), or -1, in a table that no thread changes any more: the kernels' search of the
// Portioner's table, on the device and on the host alike.
template <class Value>
TESSA_HD inline std::int32_t findGridKeySlot(const GridKeySlot<Value>* slots, std::uint32_t mask, std::int32_t x,
                                             std::int32_t y, std::int32_t z) {
    std::int32_t e = static_cast<std::int32_t>(hashGridKey(x, y, z, mask));
    if (slots[e].next_plus_one == 0) return -1;
    while (true) {
        const GridKeySlot<Value>& slot = slots[e];
        if (slot.x == x && slot.y == y && slot.z == z) return e;
        if (slot.next_plus_one == 1) return -1;
        e = slot.next_plus_one - 1;
        if (slots[e].next_plus_one == 0) return -1;
    }
}

// A fixed-size table: any number of threads find or insert at once; no removal, no growth.
template <class Value>
class GridKeyTable {
public:
    using Slot = GridKeySlot<Value>;
    static_assert(std::is_trivially_copyable<Slot>::value, "a zeroed slot is an empty one; the device copies slots");

    GridKeyTable() = default;
    ~GridKeyTable() { deInit(); }
    GridKeyTable(const GridKeyTable&) = delete;
    GridKeyTable& operator=(const GridKeyTable&) = delete;

    // `buckets` a power of two, then `overflow` slots: 0, or 66049 when the slots cannot be had. A table
    // already big enough is only cleared and keeps its sizes.
    int init(std::uint64_t buckets, std::uint64_t overflow) {
        if (m_slots != nullptr) {
            if (buckets <= m_bucket_count && overflow <= m_overflow_count) return clear();
            deInit();
        }
        m_slots = static_cast<Slot*>(std::calloc(buckets + overflow, sizeof(Slot)));
        if (m_slots == nullptr) return static_cast<int>(TESSALINE_OUT_OF_MEMORY);
        m_bucket_count = buckets;
        m_overflow_count = overflow;
        m_next_overflow = static_cast<std::int64_t>(buckets);
        return 0;
    }

    void deInit() {
        std::free(m_slots);  // slots are trivially destructible
        m_slots = nullptr;
        m_bucket_count = 0;
        m_overflow_count = 0;
    }

    // Empties every slot; 1 before init.
    int clear() {
        if (m_slots == nullptr) return 1;
        std::memset(static_cast<void*>(m_slots), 0, slotCount() * sizeof(Slot));
        m_next_overflow = static_cast<std::int64_t>(m_bucket_count);
        return 0;
    }

    // The slot of the key, new or existing; null before init, or when the overflow slots are used up (with
    // a diagnostic line).
    Slot* findOrInsert(std::int32_t x, std::int32_t y, std::int32_t z) {
        if (m_slots == nullptr) return nullptr;
        std::int64_t i = hashGridKey(x, y, z, mask());
        while (true) {
            Slot& slot = m_slots[i];
            if (slot.next() < 0) {
                SpinGuard guard(slot.lock);
                if (slot.next() < 0) {
                    claim(slot, x, y, z);
                    return &slot;
                }
            }
            if (slot.x == x && slot.y == y && slot.z == z) return &slot;
            const std::int32_t next = slot.next();
            if (next != 0) {
                i = next;
                continue;
            }
            SpinGuard guard(slot.lock);
            if (slot.next() != 0) {  // another thread extended the chain meanwhile
                i = slot.next();
                continue;
            }
            const std::int64_t k = m_next_overflow.fetch_add(1);
            if (static_cast<std::uint64_t>(k) - m_bucket_count >= m_overflow_count) {
                diagnostic("---- error: (cur_excess_index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE ------- \n");
                return nullptr;
            }
            Slot& added = m_slots[k];
            claim(added, x, y, z);
            slot.setNext(static_cast<std::int32_t>(k));
            return &added;
        }
    }

    // The slot of the key, or null; never writes, takes no lock.
    Slot* find(std::int32_t x, std::int32_t y, std::int32_t z) const {
        if (m_slots == nullptr) return nullptr;
        std::int64_t i = hashGridKey(x, y, z, mask());
        while (true) {
            Slot& slot = m_slots[i];
            const std::int32_t next = slot.next();
            if (next < 0) return nullptr;
            if (slot.x == x && slot.y == y && slot.z == z) return &slot;
            if (next == 0) return nullptr;
            i = next;
        }
    }

    bool isInited() const { return m_slots != nullptr; }
    Slot* slots() const { return m_slots; }
    std::uint64_t bucketCount() const { return m_bucket_count; }
    std::uint64_t overflowCount() const { return m_overflow_count; }
    std::uint64_t slotCount() const { return m_bucket_count + m_overflow_count; }
    std::uint32_t mask() const { return static_cast<std::uint32_t>(m_bucket_count - 1); }
    // Overflow slots handed out so far, those asked for after the last one included.
    std::int64_t overflowTaken() const { return m_next_overflow.load() - static_cast<std::int64_t>(m_bucket_count); }

private:
    static void claim(Slot& slot, std::int32_t x, std::int32_t y, std::int32_t z) {
        slot.x = x;
        slot.y = y;
        slot.z = z;
        slot.value = Value{};
        slot.setNext(0);  // last: makes the slot visible
    }

    Slot* m_slots = nullptr;
    std::uint64_t m_bucket_count = 0;
    std::uint64_t m_overflow_count = 0;
    std::atomic<std::int64_t> m_next_overflow{0};
};

}  // namespace SurfaceReconstruction
