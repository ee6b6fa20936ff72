// A std::vector whose resize leaves the new elements uninitialised, for the large arrays of plain
// records that the threads filling them write in full: zeroing them first would take one core while the
// other waits, and touch every page twice. Storage of MAPPED_AT_LEAST bytes or more is mapped from the
// system on its own and unmapped when freed: the heap would keep a freed array of up to 32 MiB resident
// (its threshold for mappings grows with every mapping freed), and how much it keeps would depend on
// which thread freed what.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace SurfaceReconstruction {

constexpr std::size_t MAPPED_AT_LEAST = std::size_t{1} << 20;

template <class T>
struct UninitialisedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = UninitialisedAllocator<U>;
    };
    UninitialisedAllocator() = default;
    template <class U>
    UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        if (n > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_alloc();
        if (n * sizeof(T) < MAPPED_AT_LEAST) return std::allocator<T>::allocate(n);
        void* p = mmap(nullptr, n * sizeof(T), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, std::size_t n) noexcept {
        if (n * sizeof(T) < MAPPED_AT_LEAST) {
            std::allocator<T>::deallocate(p, n);
        } else {
            munmap(p, n * sizeof(T));
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
