// Atomic access to plain fields that host threads share: records stay plain data, without std::atomic
// members, so that they copy byte for byte and go to the device as they are. Each operation names its
// memory order.
#pragma once

namespace SurfaceReconstruction {

template <class T>
inline T loadAcquire(const T& word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <class T>
inline T loadRelaxed(const T& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <class T>
inline void storeRelease(T& word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

template <class T>
inline void storeRelaxed(T& word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

// Strong compare-and-swap; on failure `expected` receives the current value.
template <class T>
inline bool compareExchangeAcqRel(T& word, T& expected, T desired) {
    return __atomic_compare_exchange_n(&word, &expected, desired, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Weak compare-and-swap for retry loops that only order against themselves.
template <class T>
inline bool compareExchangeWeakRelaxed(T& word, T& expected, T desired) {
    return __atomic_compare_exchange_n(&word, &expected, desired, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
}

template <class T>
inline T fetchOrAcquire(T& word, T bits) {
    return __atomic_fetch_or(&word, bits, __ATOMIC_ACQUIRE);
}

template <class T>
inline T fetchOrRelaxed(T& word, T bits) {
    return __atomic_fetch_or(&word, bits, __ATOMIC_RELAXED);
}

template <class T>
inline T exchangeRelease(T& word, T value) {
    return __atomic_exchange_n(&word, value, __ATOMIC_RELEASE);
}

}  // namespace SurfaceReconstruction
