// Pieces the mesh operations share: undirected edge keys, a union-find over vertices, and the status
// guard that keeps exceptions inside the library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <new>
#include <numeric>
#include <utility>
#include <vector>

#include "tessaline/TessalineMesh.h"

namespace SurfaceReconstruction {
namespace mesh_internal {

// An edge as one number, lower vertex index first, so that both directions of an edge meet.
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
    void join(std::uint32_t a, std::uint32_t b) {
        a = find(a);
        b = find(b);
        if (a != b) m_parent[std::max(a, b)] = std::min(a, b);
    }

private:
    std::vector<std::uint32_t> m_parent;
};

inline bool validIndices(const IndexedMesh& mesh) {
    const std::size_t n = mesh.vertices.size();
    if (n > UINT32_MAX) return false;
    for (const auto& t : mesh.triangles)
        if (t[0] >= n || t[1] >= n || t[2] >= n) return false;
    return (mesh.words.empty() || mesh.words.size() == n) && (mesh.normals.empty() || mesh.normals.size() == n) &&
           (mesh.colors.empty() || mesh.colors.size() == n);
}

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

// The boundary loops of `mesh` (its edge uses from sortedEdgeUses), in the order of their first edge's
// triangle. A chain that does not close (where triangles beside each other face opposite ways) is left out.
std::vector<BoundaryLoop> boundaryLoops(const IndexedMesh& mesh, const std::vector<EdgeUse>& uses);

}  // namespace mesh_internal
}  // namespace SurfaceReconstruction
