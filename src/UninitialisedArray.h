// A std::vector whose resize leaves the new elements uninitialised, for the large arrays of plain
// records that the threads filling them write in full: zeroing them first would take one core while the
// other waits, and touch every page twice.
#pragma once

#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace SurfaceReconstruction {

template <class T>
struct UninitialisedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = UninitialisedAllocator<U>;
    };
    UninitialisedAllocator() = default;
    template <class U>
    UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}
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

}  // namespace SurfaceReconstruction
