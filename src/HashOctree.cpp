// HashOctree: life cycle and geometry settings.
#include "HashOctree.h"

#include <cstdio>
#include <new>

#include "GridHash.h"
#include "SpinLock.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

// ---- HashTable -------------------------------------------------------------------------------------

namespace {
// `next` goes from -1 to 0 and from 0 to an index, each once, and only after the key is complete.
std::int32_t loadNext(const HashEntry& entry) { return __atomic_load_n(&entry.next, __ATOMIC_ACQUIRE); }
void storeNext(HashEntry& entry, std::int32_t next) { __atomic_store_n(&entry.next, next, __ATOMIC_RELEASE); }
bool sameKey(const HashEntry& entry, std::int32_t x, std::int32_t y, std::int32_t z) {
    return entry.x == x && entry.y == y && entry.z == z;
}
}  // namespace

int HashTable::init(const std::shared_ptr<HashParameters>& params, const std::shared_ptr<GlobalHashParams>& global) {
    deInit();
    m_hash_params = params;
    m_global_params = global;
    m_slot_count = params->HASH_BUCKET_NUM + params->HASH_EXCESS_LIST_SIZE;
    m_hash_entries = new (std::nothrow) HashEntry[m_slot_count];
    if (m_hash_entries == nullptr) {
        m_slot_count = 0;
        return TESSALINE_OUT_OF_MEMORY;
    }
    m_global_params->cur_ExcessHash_Index = static_cast<std::int32_t>(params->HASH_BUCKET_NUM);
    m_inited = true;
    return 0;
}

void HashTable::deInit() {
    delete[] m_hash_entries;
    m_hash_entries = nullptr;
    m_slot_count = 0;
    m_inited = false;
}

HashEntry* HashTable::findOrInsertHashEntry(std::int32_t x, std::int32_t y, std::int32_t z) {
    if (!m_inited) return nullptr;
    std::int64_t i = hashGridKey(x, y, z, static_cast<std::uint32_t>(m_hash_params->HASH_BUCKET_MASK));
    while (true) {
        HashEntry& e = m_hash_entries[i];
        if (loadNext(e) < 0) {
            SpinGuard guard(e.lock);
            if (loadNext(e) < 0) {
                e.x = x;
                e.y = y;
                e.z = z;
                storeNext(e, 0);
                return &e;
            }
        }
        if (sameKey(e, x, y, z)) return &e;
        const std::int32_t next = loadNext(e);
        if (next != 0) {
            i = next;
            continue;
        }
        SpinGuard guard(e.lock);
        if (loadNext(e) != 0) {  // another thread extended the chain
            i = loadNext(e);
            continue;
        }
        const std::int32_t n = m_global_params->cur_ExcessHash_Index.fetch_add(1);
        if (static_cast<std::uint64_t>(n) - m_hash_params->HASH_BUCKET_NUM >= m_hash_params->HASH_EXCESS_LIST_SIZE) {
            std::printf("---- error: (cur_ExcessHash_Index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE ------- \n");
            return nullptr;
        }
        HashEntry& added = m_hash_entries[n];
        added.x = x;
        added.y = y;
        added.z = z;
        storeNext(added, 0);
        storeNext(e, n);
        return &added;
    }
}

HashEntry* HashTable::findHashEntry(std::int32_t x, std::int32_t y, std::int32_t z) const {
    if (!m_inited) return nullptr;
    std::int64_t i = hashGridKey(x, y, z, static_cast<std::uint32_t>(m_hash_params->HASH_BUCKET_MASK));
    while (true) {
        HashEntry& e = m_hash_entries[i];
        const std::int32_t next = loadNext(e);
        if (next < 0) return nullptr;
        if (sameKey(e, x, y, z)) return &e;
        if (next == 0) return nullptr;
        i = next;
    }
}

// ---- HashOctree ------------------------------------------------------------------------------------

HashOctree::~HashOctree() {
    if (m_inited) deInit();
}

int HashOctree::init(const std::shared_ptr<HashParameters>& params) {
    if (!params) {
        m_last_error = "BlockHashOctree: init try cath error!";
        return 1;
    }
    m_hash_params = params;
    m_inited = true;
    return 0;
}

int HashOctree::deInit() {
    m_hash_params.reset();
    m_inited = false;
    return 0;
}

int HashOctree::setResolution(float resolution) {
    m_resolution = resolution;
    return 0;
}

int HashOctree::setBlockSize(std::int32_t block_size) {
    m_block_size = block_size;
    return 0;
}

}  // namespace SurfaceReconstruction
