// Running out of memory: the exception that carries the size of the allocation that failed, the stage a
// thread is in and what it wants in all (for the last-error text), and the first exception of a parallel
// team kept until the team has ended, for an exception that leaves an OpenMP region ends the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

namespace SurfaceReconstruction {

// An allocation of `bytes` that the system refused.
class OutOfMemory : public std::bad_alloc {
public:
    explicit OutOfMemory(std::uint64_t bytes) noexcept : m_bytes(bytes) {}
    const char* what() const noexcept override { return "out of memory"; }
    std::uint64_t bytes() const noexcept { return m_bytes; }

private:
    std::uint64_t m_bytes;
};

// What the stage running on this thread is and about how much memory it wants in all: the text of a
// memory failure names both. The engine sets it around each stage, the stages where they know better.
struct MemoryStage {
    const char* name = "[Tessaline_OPT] process";
    std::uint64_t wanted_bytes = 0;
};

inline thread_local MemoryStage t_memory_stage;

class MemoryStageScope {
public:
    MemoryStageScope(const char* name, std::uint64_t wanted_bytes) noexcept : m_previous(t_memory_stage) {
        t_memory_stage = MemoryStage{name, wanted_bytes};
    }
    ~MemoryStageScope() { t_memory_stage = m_previous; }
    MemoryStageScope(const MemoryStageScope&) = delete;
    MemoryStageScope& operator=(const MemoryStageScope&) = delete;

private:
    MemoryStage m_previous;
};

// The same stage, now knowing better what it wants.
inline void wantMemory(std::uint64_t wanted_bytes) noexcept { t_memory_stage.wanted_bytes = wanted_bytes; }

// What a user reads when memory ran out, and what to change.
constexpr const char* MEMORY_ADVICE = "lower the resolution or raise the memory limit";

// The last-error text of a memory failure in the stage of this thread: the allocation that failed where
// its size is known (`failed_bytes`, 0 where not) and what the stage wants in all.
inline std::string memoryFailureText(std::uint64_t failed_bytes) noexcept {
    const MemoryStage& stage = t_memory_stage;
    const auto mib = [](std::uint64_t bytes) {
        return static_cast<unsigned long long>((bytes >> 20) + ((bytes & ((1u << 20) - 1)) != 0 ? 1 : 0));
    };
    char text[384];
    if (failed_bytes > 0 && stage.wanted_bytes > failed_bytes) {
        std::snprintf(text, sizeof(text),
                      "%s ran out of memory: %llu MiB could not be had, of about %llu MiB it wanted; %s", stage.name,
                      mib(failed_bytes), mib(stage.wanted_bytes), MEMORY_ADVICE);
    } else if (failed_bytes > 0 || stage.wanted_bytes > 0) {
        std::snprintf(text, sizeof(text), "%s ran out of memory: it wanted %llu MiB more; %s", stage.name,
                      mib(failed_bytes > 0 ? failed_bytes : stage.wanted_bytes), MEMORY_ADVICE);
    } else {
        std::snprintf(text, sizeof(text), "%s ran out of memory; %s", stage.name, MEMORY_ADVICE);
    }
    try {
        return text;
    } catch (...) {
        return std::string();
    }
}

// The same for the exception caught.
inline std::string memoryFailureText(const std::bad_alloc& failure) noexcept {
    const auto* sized = dynamic_cast<const OutOfMemory*>(&failure);
    return memoryFailureText(sized != nullptr ? sized->bytes() : 0);
}

// The first exception thrown on any thread of a team, thrown again by rethrow() on the thread that
// started the team once the team has ended. Once one is kept, failed() tells the other threads to pass
// over their remaining items.
class TeamFailure {
public:
    // Runs `body`; what it throws is kept, never thrown out of the team.
    template <class Body>
    void run(Body&& body) noexcept {
        try {
            body();
        } catch (...) {
            keep(std::current_exception());
        }
    }
    void keep(std::exception_ptr failure) noexcept {
#pragma omp critical(tessaline_team_failure)
        {
            if (!m_first) m_first = std::move(failure);
        }
        m_failed.store(true, std::memory_order_relaxed);
    }
    bool failed() const noexcept { return m_failed.load(std::memory_order_relaxed); }
    void rethrow() const {
        if (m_first) std::rethrow_exception(m_first);
    }

private:
    std::exception_ptr m_first;
    std::atomic<bool> m_failed{false};
};

}  // namespace SurfaceReconstruction
