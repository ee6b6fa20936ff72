// Pieces the mesh operations share: undirected edge keys, a union-find over vertices, the status guard
// that keeps exceptions inside the library, and the loops that run on all cores.
#pragma once

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <numeric>
#include <utility>
#include <vector>

#include "tessaline/TessalineMesh.h"

namespace SurfaceReconstruction {
namespace mesh_internal {

// An edge as one number, lower vertex index first, so that both directions of an edge meet.
// A cell coordinate of 21 bits spread to every third bit: three interleaved give a code whose order keeps
// cells near in space near in memory.
inline std::uint64_t spreadBits(std::uint64_t v) {
    v &= 0x1fffff;
    v = (v | v << 32) & 0x1f00000000ffffull;
    v = (v | v << 16) & 0x1f0000ff0000ffull;
    v = (v | v << 8) & 0x100f00f00f00f00full;
    v = (v | v << 4) & 0x10c30c30c30c30c3ull;
    v = (v | v << 2) & 0x1249249249249249ull;
    return v;
}

inline std::uint64_t cellCode(const std::int32_t c[3]) {
    return spreadBits(static_cast<std::uint64_t>(c[0])) | spreadBits(static_cast<std::uint64_t>(c[1])) << 1 |
           spreadBits(static_cast<std::uint64_t>(c[2])) << 2;
}

inline std::uint64_t edgeKey(std::uint32_t a, std::uint32_t b) {
    return a < b ? (static_cast<std::uint64_t>(a) << 32 | b) : (static_cast<std::uint64_t>(b) << 32 | a);
}

// Every directed edge of the triangles, three a triangle: edge e of triangle t runs from corner e to
// corner e + 1. Sorted by undirected key, so that the uses of one edge stand together.
struct EdgeUse {
    std::uint64_t key;
    std::uint32_t triangle;
    std::uint8_t corner;
    bool operator<(const EdgeUse& other) const {
        return key != other.key ? key < other.key
                                : (triangle != other.triangle ? triangle < other.triangle : corner < other.corner);
    }
};

inline std::vector<EdgeUse> sortedEdgeUses(const IndexedMesh& mesh) {
    std::vector<EdgeUse> uses;
    uses.reserve(mesh.triangles.size() * 3);
    for (std::uint32_t t = 0; t < mesh.triangles.size(); ++t)
        for (std::uint8_t e = 0; e < 3; ++e)
            uses.push_back({edgeKey(mesh.triangles[t][e], mesh.triangles[t][(e + 1) % 3]), t, e});
    std::sort(uses.begin(), uses.end());
    return uses;
}

class UnionFind {
public:
    explicit UnionFind(std::size_t n) : m_parent(n) { std::iota(m_parent.begin(), m_parent.end(), 0u); }
    std::uint32_t find(std::uint32_t x) {
        while (m_parent[x] != x) {
            m_parent[x] = m_parent[m_parent[x]];
            x = m_parent[x];
        }
        return x;
    }
    // The lower root becomes the root of both, so that the result does not depend on the order of joins.
    void join(std::uint32_t a, std::uint32_t b) { joinRoots(find(a), find(b)); }
    // Joins the sets of two roots; false when they are one already.
    bool joinRoots(std::uint32_t a, std::uint32_t b) {
        if (a == b) return false;
        m_parent[std::max(a, b)] = std::min(a, b);
        return true;
    }

private:
    std::vector<std::uint32_t> m_parent;
};

// Below this many items a loop runs on the calling thread: starting the team would cost more.
constexpr std::size_t PARALLEL_MIN = 16384;

// Runs body(begin, end) over [0, count) in pieces of `grain` items, the pieces spread over the threads in
// no fixed order: a body must give the same result whichever thread runs it. What a body throws is caught
// on its thread and thrown again after the loop, so that no exception leaves a parallel region.
template <class Body>
void forPieces(std::size_t count, std::size_t grain, Body&& body) {
    const std::int64_t pieces = static_cast<std::int64_t>((count + grain - 1) / grain);
    std::exception_ptr failure;
    std::atomic<bool> failed{false};
#pragma omp parallel for schedule(dynamic) if (count >= PARALLEL_MIN && pieces > 1)
    for (std::int64_t p = 0; p < pieces; ++p) {
        if (failed.load(std::memory_order_relaxed)) continue;
        try {
            const std::size_t begin = static_cast<std::size_t>(p) * grain;
            body(begin, std::min(count, begin + grain));
        } catch (...) {
#pragma omp critical(tessaline_mesh_failure)
            if (!failure) failure = std::current_exception();
            failed.store(true, std::memory_order_relaxed);
        }
    }
    if (failure) std::rethrow_exception(failure);
}

// Runs body(thread, threads) once on every thread of a team (one thread when `parallel` is false), with
// forPieces' handling of exceptions. The body must not wait for the other threads.
template <class Body>
void onEachThread(bool parallel, Body&& body) {
    std::exception_ptr failure;
#pragma omp parallel if (parallel)
    {
        try {
            body(omp_get_thread_num(), omp_get_num_threads());
        } catch (...) {
#pragma omp critical(tessaline_mesh_failure)
            if (!failure) failure = std::current_exception();
        }
    }
    if (failure) std::rethrow_exception(failure);
}

// The share [begin, end) of `count` items that thread `thread` of `threads` takes.
inline std::pair<std::size_t, std::size_t> shareOf(std::size_t count, int thread, int threads) {
    const auto at = [&](int k) {
        return static_cast<std::size_t>(static_cast<unsigned __int128>(count) * static_cast<unsigned>(k) /
                                        static_cast<unsigned>(threads));
    };
    return {at(thread), at(thread + 1)};
}

// Atomic access to plain arrays that the threads of a loop share.
inline std::uint32_t loadRelaxed(const std::uint32_t& word) { return __atomic_load_n(&word, __ATOMIC_RELAXED); }
inline std::uint32_t loadAcquire(const std::uint32_t& word) { return __atomic_load_n(&word, __ATOMIC_ACQUIRE); }
inline bool compareExchange(std::uint32_t& word, std::uint32_t& expected, std::uint32_t desired) {
    return __atomic_compare_exchange_n(&word, &expected, desired, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}
// Lowers `word` to `value` unless it is lower already.
inline void storeMin(std::uint32_t& word, std::uint32_t value) {
    std::uint32_t current = loadRelaxed(word);
    while (value < current && !compareExchange(word, current, value)) {
    }
}
// ORs `bits` into `word`; most calls find them there already and write nothing.
inline void storeOr(std::uint32_t& word, std::uint32_t bits) {
    const std::uint32_t current = loadRelaxed(word);
    if ((current | bits) != current) __atomic_fetch_or(&word, bits, __ATOMIC_RELAXED);
}

// The vertex count fits the indices, and words and normals, when present, have one a vertex.
inline bool validSizes(const IndexedMesh& mesh) {
    const std::size_t n = mesh.vertices.size();
    return n <= UINT32_MAX && (mesh.words.empty() || mesh.words.size() == n) &&
           (mesh.normals.empty() || mesh.normals.size() == n) && (mesh.colors.empty() || mesh.colors.size() == n);
}

inline bool validIndices(const IndexedMesh& mesh) {
    if (!validSizes(mesh)) return false;
    const std::size_t n = mesh.vertices.size();
    const std::int64_t count = static_cast<std::int64_t>(mesh.triangles.size());
    bool valid = true;
#pragma omp parallel for schedule(static) reduction(&& : valid) if (mesh.triangles.size() >= PARALLEL_MIN)
    for (std::int64_t i = 0; i < count; ++i) {
        const auto& t = mesh.triangles[static_cast<std::size_t>(i)];
        valid = valid && t[0] < n && t[1] < n && t[2] < n;
    }
    return valid;
}

// The first exception thrown on any thread of a team, thrown again by rethrow() once the team has ended:
// an exception that leaves an OpenMP region ends the process. Once one is kept, failed() tells the other
// threads to pass over their remaining items.
class TeamFailure {
public:
    template <class Body>
    void run(Body&& body) noexcept {
        try {
            body();
        } catch (...) {
            const std::exception_ptr failure = std::current_exception();
#pragma omp critical(tessaline_mesh_team_failure)
            {
                if (!m_first) m_first = failure;
            }
            m_failed.store(true, std::memory_order_relaxed);
        }
    }
    bool failed() const noexcept { return m_failed.load(std::memory_order_relaxed); }
    void rethrow() const {
        if (m_first) std::rethrow_exception(m_first);
    }

private:
    std::exception_ptr m_first;
    std::atomic<bool> m_failed{false};
};

// Runs `body` and turns what it throws into a status: no exception leaves the library.
template <class Body>
int guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return TESSALINE_OUT_OF_MEMORY;
    } catch (...) {
        return TESSALINE_FAILURE;
    }
}

// The vertex normals of `mesh` as they should be after an edit: recomputed when the mesh has them.
int refreshNormals(IndexedMesh& mesh);

// The mean of the colours of `vertices` (indices into `colours`), in linear light as colourVertices takes
// it: the colour of a vertex that an edit adds among them.
Rgb meanColour(const std::vector<Rgb>& colours, const std::vector<std::uint32_t>& vertices);

// A closed chain of boundary edges, in the direction that triangles closing it run along it (against the
// triangles beside it). `simple`: no vertex appears twice.
struct BoundaryLoop {
    std::vector<std::uint32_t> vertices;
    bool simple = true;
};

// The edges that one triangle alone uses, each as 3 x triangle + corner of the triangle's edge, ascending:
// from the edge uses of sortedEdgeUses.
std::vector<std::uint64_t> singleUses(const std::vector<EdgeUse>& uses);

// The boundary loops of `mesh` from its single uses (ascending, as singleUses gives them), in the order of
// their first edge's triangle. A chain that does not close (where triangles beside each other face opposite
// ways) is left out.
std::vector<BoundaryLoop> boundaryLoops(const IndexedMesh& mesh, const std::vector<std::uint64_t>& single_uses);

}  // namespace mesh_internal
}  // namespace SurfaceReconstruction
