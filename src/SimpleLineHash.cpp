// SimpleLineHash: concurrent inserts with one spin lock an entry, taken only to claim an empty entry
// or to extend a chain. `next` is published with release stores after the key is complete, so a reader
// that sees it sees the key.
#include "SimpleLineHash.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "Atomics.h"
#include "Diagnostics.h"
#include "SpinLock.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

namespace {
std::int32_t loadNext(const SimpleLineHashEntry& entry) { return loadAcquire(entry.next); }
void storeNext(SimpleLineHashEntry& entry, std::int32_t next) { storeRelease(entry.next, next); }
}  // namespace

SimpleLineHash::~SimpleLineHash() {
    if (m_inited) deInit();
}

int SimpleLineHash::init(std::uint64_t bucket_size, std::uint64_t excess_size) {
    try {
        if (m_inited) {
            if (bucket_size <= m_bucket_size && excess_size <= m_excess_size) return clear();
            if (deInit() != 0) return 1;
        }
        m_bucket_size = bucket_size;
        m_mask = bucket_size - 1;
        m_excess_size = excess_size;
        m_next_excess_index = static_cast<std::int64_t>(bucket_size);
        m_entries.assign(bucket_size + excess_size, SimpleLineHashEntry{0, 0, 0, -1, -1, 0, 0});
        m_locks = new (std::nothrow) std::uint32_t[bucket_size + excess_size];
        if (m_locks == nullptr) {
            std::vector<SimpleLineHashEntry>().swap(m_entries);
            return TESSALINE_OUT_OF_MEMORY;
        }
        const std::int64_t total = static_cast<std::int64_t>(bucket_size + excess_size);
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < total; ++i) m_locks[i] = 0;
        m_inited = true;
        return 0;
    } catch (...) {  // the table keeps no last error: its callers name the failure
        m_inited = false;
        return 1;
    }
}

int SimpleLineHash::deInit() {
    std::vector<SimpleLineHashEntry>().swap(m_entries);
    delete[] m_locks;
    m_locks = nullptr;
    m_inited = false;
    return 0;
}

int SimpleLineHash::clear() {
    if (!m_inited) return 1;
    std::memset(m_entries.data(), 0xFF, m_entries.size() * sizeof(SimpleLineHashEntry));
    m_next_excess_index = static_cast<std::int64_t>(m_bucket_size);
    return 0;
}

void SimpleLineHash::setUpEntry(SimpleLineHashEntry& entry, std::int32_t x, std::int32_t y, std::int32_t z) {
    entry.x = x;
    entry.y = y;
    entry.z = z;
    entry.id = -1;
    entry.flags = 0;
    entry.count = 0;
    storeNext(entry, 0);  // last: makes the entry visible
}

int SimpleLineHash::insert(std::int32_t x, std::int32_t y, std::int32_t z, SimpleLineHashEntry*& entry_out) {
    entry_out = nullptr;
    if (!m_inited) return 1;
    std::int64_t e = hashGridKey(x, y, z, static_cast<std::uint32_t>(m_mask));
    while (true) {
        SimpleLineHashEntry& entry = m_entries[static_cast<std::size_t>(e)];
        std::uint32_t& lock = m_locks[e];
        if (loadNext(entry) < 0) {
            spinLock(lock);
            if (loadNext(entry) < 0) {
                setUpEntry(entry, x, y, z);
                entry_out = &entry;
                spinUnlock(lock);
                return 0;
            }
            spinUnlock(lock);
        }
        if (entry.x == x && entry.y == y && entry.z == z) {
            entry_out = &entry;
            return 0;
        }
        const std::int32_t next = loadNext(entry);
        if (next != 0) {
            e = next;
            continue;
        }
        spinLock(lock);
        if (loadNext(entry) != 0) {  // another thread extended the chain meanwhile
            e = loadNext(entry);
            spinUnlock(lock);
            continue;
        }
        const std::int64_t k = m_next_excess_index.fetch_add(1);
        if (static_cast<std::uint64_t>(k) - m_bucket_size >= m_excess_size) {
            diagnostic("---- error: (cur_excess_index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE ------- \n");
            spinUnlock(lock);
            return 1;
        }
        SimpleLineHashEntry& added = m_entries[static_cast<std::size_t>(k)];
        setUpEntry(added, x, y, z);
        storeNext(entry, static_cast<std::int32_t>(k));
        entry_out = &added;
        spinUnlock(lock);
        return 0;
    }
}

int SimpleLineHash::find(std::int32_t x, std::int32_t y, std::int32_t z, SimpleLineHashEntry*& entry_out) {
    entry_out = nullptr;
    if (!m_inited) return 1;
    const std::int32_t index = findLineHashEntry(m_entries.data(), static_cast<std::uint32_t>(m_mask), x, y, z);
    if (index < 0) return 1;
    entry_out = &m_entries[static_cast<std::size_t>(index)];
    return 0;
}

}  // namespace SurfaceReconstruction
