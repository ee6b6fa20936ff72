// Work on the items of a list on all cores, with the outcome of a loop in list order: results go to their
// places, and of the failures the first in the list is the one that comes out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <vector>

namespace tessaline_tools {

// Runs body(i) for every i in [0, n) on all cores. Should calls throw, the exception of the lowest i is
// thrown once all have run. A single item runs on the calling thread, outside any team, so that its own
// parallel loops get every core.
template <class Body>
void forEachInOrder(std::size_t n, Body&& body) {
    if (n == 1) {
        body(std::size_t(0));
        return;
    }
    std::vector<std::exception_ptr> failures(n);
    const std::int64_t count = static_cast<std::int64_t>(n);
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t i = 0; i < count; ++i) {
        try {
            body(static_cast<std::size_t>(i));
        } catch (...) {
            failures[static_cast<std::size_t>(i)] = std::current_exception();
        }
    }
    for (const std::exception_ptr& failure : failures)
        if (failure) std::rethrow_exception(failure);
}

}  // namespace tessaline_tools
