// The spin lock of tables, pools, cells and relation lists: one 32-bit word, 0 when free.
#pragma once

#include <cstdint>
#include <thread>

#include "common/Atomics.h"

namespace SurfaceReconstruction {

inline void spinLock(std::uint32_t& word) {
    while (fetchOrAcquire(word, 1u) & 1u) std::this_thread::yield();
}

inline void spinUnlock(std::uint32_t& word) { exchangeRelease(word, 0u); }

class SpinGuard {
public:
    explicit SpinGuard(std::uint32_t& word) : m_word(word) { spinLock(m_word); }
    ~SpinGuard() { spinUnlock(m_word); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    std::uint32_t& m_word;
};

}  // namespace SurfaceReconstruction
