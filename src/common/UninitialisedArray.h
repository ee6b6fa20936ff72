// A std::vector whose resize leaves the new elements uninitialised, for the large arrays of plain
// records that the threads filling them write in full: zeroing them first would take one core while the
// other waits, and touch every page twice. Storage of MAPPED_AT_LEAST bytes or more is mapped from the
// system on its own and unmapped when freed: the heap would keep a freed array of up to 32 MiB resident
// (its threshold for mappings grows with every mapping freed), and how much it keeps would depend on
// which thread freed what. A mapped array starts at an offset into its first page that changes from one
// array to the next (a multiple of 64 bytes): arrays read side by side at the same index, as the columns
// of a block's points are, would otherwise all fall on the same cache sets.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "common/MemoryFailure.h"

namespace SurfaceReconstruction {

constexpr std::size_t MAPPED_AT_LEAST = std::size_t{1} << 20;

// The offset of the next mapped array into its first page: 64 to 4032 bytes, the word before the array
// holding it.
inline std::size_t nextMappedOffset() {
    static std::atomic<std::uint32_t> next{0};
    return 64 * (1 + next.fetch_add(1, std::memory_order_relaxed) % 63);
}

template <class T>
struct UninitialisedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = UninitialisedAllocator<U>;
    };
    UninitialisedAllocator() = default;
    template <class U>
    UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}
    // A refusal throws OutOfMemory with the size asked for, which the stage's memory failure names.
    T* allocate(std::size_t n) {
        if (n > static_cast<std::size_t>(-1) / sizeof(T)) throw OutOfMemory(UINT64_MAX);
        if (n * sizeof(T) < MAPPED_AT_LEAST) {
            try {
                return std::allocator<T>::allocate(n);
            } catch (const std::bad_alloc&) {
                throw OutOfMemory(n * sizeof(T));
            }
        }
        static_assert(alignof(T) <= 64, "mapped arrays are aligned to 64 bytes");
        const std::size_t offset = nextMappedOffset();
        void* base = mmap(nullptr, n * sizeof(T) + offset, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED) throw OutOfMemory(n * sizeof(T));
        char* data = static_cast<char*>(base) + offset;
        reinterpret_cast<std::size_t*>(data)[-1] = offset;
        return reinterpret_cast<T*>(data);
    }
    void deallocate(T* p, std::size_t n) noexcept {
        if (n * sizeof(T) < MAPPED_AT_LEAST) {
            std::allocator<T>::deallocate(p, n);
        } else {
            char* data = reinterpret_cast<char*>(p);
            const std::size_t offset = reinterpret_cast<const std::size_t*>(data)[-1];
            munmap(data - offset, n * sizeof(T) + offset);
        }
    }
    template <class U>
    void construct(U* p) noexcept {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};

template <class T>
using UninitialisedArray = std::vector<T, UninitialisedAllocator<T>>;

// Gives the whole pages of `array`'s storage beyond its first `keep` elements back to the system and
// keeps the storage: a working array kept from one block to the next then holds the memory the next block
// uses, not the most any block used. Pages given back read as zeros when touched again, which an array
// whose elements are written before they are read allows.
// Less than RELEASE_AT_LEAST bytes stay: a call that gives back pages stops every core of the process
// for a moment, which many small blocks in a row would pay for nothing.
constexpr std::size_t RELEASE_AT_LEAST = std::size_t{4} << 20;

// Gives the whole pages within [begin, end) back to the system, where they come to RELEASE_AT_LEAST
// bytes or more, and says whether it did; what lies there reads as zeros when touched again.
inline bool releasePagesWithin(const void* begin, const void* end) {
    static const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t from = reinterpret_cast<std::uintptr_t>(begin), to = reinterpret_cast<std::uintptr_t>(end);
    const std::uintptr_t first = (from + page - 1) / page * page, last = to / page * page;
    if (last <= first || last - first < RELEASE_AT_LEAST) return false;
    madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
    return true;
}

// Has the system back the whole pages within [begin, end) with memory now, the work shared among the
// calling team's threads (each takes its own stretch; call it from every thread of a parallel region).
// The pages of a fresh array are otherwise faulted in one at a time by whichever thread first writes
// them. Nothing is written; without the kernel's support (before Linux 5.14) it does nothing.
inline void populatePagesWithin(void* begin, void* end, int part, int parts) {
#ifdef MADV_POPULATE_WRITE
    static const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t from = reinterpret_cast<std::uintptr_t>(begin), to = reinterpret_cast<std::uintptr_t>(end);
    const std::uintptr_t first = (from + page - 1) / page, last = to / page;
    if (last <= first || parts <= 0) return;
    const std::uintptr_t pages = last - first, share = (pages + static_cast<std::uintptr_t>(parts) - 1) / parts;
    const std::uintptr_t mine = std::min(pages, share * static_cast<std::uintptr_t>(part));
    const std::uintptr_t stop = std::min(pages, mine + share);
    if (stop > mine) madvise(reinterpret_cast<void*>((first + mine) * page), (stop - mine) * page, MADV_POPULATE_WRITE);
#else
    (void)begin, (void)end, (void)part, (void)parts;
#endif
}

template <class T>
void releasePagesBeyond(UninitialisedArray<T>& array, std::size_t keep) {
    if (keep >= array.capacity()) return;
    releasePagesWithin(array.data() + keep, array.data() + array.capacity());
}

// The part of an array's last use that a next use of `share` (a ratio of the work) probably takes.
inline std::size_t likelyNeed(std::size_t last_use, double share) {
    return static_cast<std::size_t>(static_cast<double>(last_use) * (share < 1.0 ? share : 1.0)) + 1;
}

}  // namespace SurfaceReconstruction
