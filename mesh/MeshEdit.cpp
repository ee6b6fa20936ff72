// Edits of a welded mesh: boundary loops, removing small loose pieces, filling small holes.
#include <cmath>
#include <limits>
#include <unordered_set>

#include "MeshInternal.h"

namespace SurfaceReconstruction {

using mesh_internal::guarded;

namespace mesh_internal {

std::vector<std::uint64_t> singleUses(const std::vector<EdgeUse>& uses) {
    std::vector<std::uint64_t> single;
    for (std::size_t i = 0; i < uses.size();) {
        std::size_t j = i + 1;
        while (j < uses.size() && uses[j].key == uses[i].key) ++j;
        if (j - i == 1) single.push_back(3ull * uses[i].triangle + uses[i].corner);
        i = j;
    }
    std::sort(single.begin(), single.end());
    return single;
}

std::vector<BoundaryLoop> boundaryLoops(const IndexedMesh& mesh, const std::vector<std::uint64_t>& single_uses) {
    // A hole's edges run against the edges of the triangles at its rim.
    struct HoleEdge {
        std::uint32_t from, to;
        std::uint64_t order;  // 3 x triangle + corner of the triangle's edge
    };
    std::vector<HoleEdge> edges;
    edges.reserve(single_uses.size());
    for (const std::uint64_t order : single_uses) {
        const auto& t = mesh.triangles[order / 3];
        const unsigned corner = static_cast<unsigned>(order % 3);
        edges.push_back({t[(corner + 1) % 3], t[corner], order});
    }
    std::vector<std::uint32_t> by_from(edges.size());
    std::iota(by_from.begin(), by_from.end(), 0u);
    std::sort(by_from.begin(), by_from.end(), [&](std::uint32_t a, std::uint32_t b) {
        return edges[a].from != edges[b].from ? edges[a].from < edges[b].from : a < b;
    });
    std::vector<char> used(edges.size(), 0);
    const auto nextFrom = [&](std::uint32_t vertex) -> std::uint32_t {
        auto it = std::lower_bound(by_from.begin(), by_from.end(), vertex,
                                   [&](std::uint32_t e, std::uint32_t v) { return edges[e].from < v; });
        for (; it != by_from.end() && edges[*it].from == vertex; ++it)
            if (!used[*it]) return *it;
        return UINT32_MAX;
    };

    std::vector<BoundaryLoop> loops;
    for (std::uint32_t first = 0; first < edges.size(); ++first) {
        if (used[first]) continue;
        used[first] = 1;
        BoundaryLoop loop;
        loop.vertices.push_back(edges[first].from);
        const std::uint32_t start = edges[first].from;
        std::uint32_t at = edges[first].to;
        bool closed = false;
        while (true) {
            if (at == start) {
                closed = true;
                break;
            }
            const std::uint32_t next = nextFrom(at);
            if (next == UINT32_MAX) break;
            used[next] = 1;
            loop.vertices.push_back(at);
            at = edges[next].to;
        }
        if (!closed) continue;
        std::vector<std::uint32_t> sorted = loop.vertices;
        std::sort(sorted.begin(), sorted.end());
        loop.simple = std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
        loops.push_back(std::move(loop));
    }
    return loops;
}

}  // namespace mesh_internal

namespace {

// Loops up to this many edges are triangulated by least area; longer ones get a fan.
constexpr std::size_t LEAST_AREA_MAX_EDGES = 64;

// A triangle whose area is at most this share of its longest edge squared has its corners nearly in a line.
constexpr double SLIVER = 1e-6;

double squared(const Vec3f& a, const Vec3f& b) {
    const double d[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
    return d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
}

double longestSquared(const Vec3f& a, const Vec3f& b, const Vec3f& c) {
    return std::max({squared(a, b), squared(b, c), squared(c, a)});
}

double area(const Vec3f& a, const Vec3f& b, const Vec3f& c) {
    const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
    const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
    const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    return 0.5 * std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
}

// The triangulation of the loop `loop` (vertex indices) of least total area whose inner edges are not
// edges of the mesh already and whose triangles are not slivers, as triangles that run along the loop;
// false when there is none.
bool leastAreaTriangulation(const IndexedMesh& mesh, const std::vector<std::uint32_t>& loop,
                            const std::unordered_set<std::uint64_t>& edges,
                            std::vector<std::array<std::uint32_t, 3>>& triangles) {
    const std::size_t n = loop.size();
    const double INF = std::numeric_limits<double>::infinity();
    std::vector<double> cost(n * n, INF);
    std::vector<std::uint32_t> split(n * n, 0);
    const auto usable = [&](std::size_t i, std::size_t j) {  // the side i-j of a triangle, i < j
        if (j == i + 1 || (i == 0 && j == n - 1)) return true;
        return edges.count(mesh_internal::edgeKey(loop[i], loop[j])) == 0;
    };
    for (std::size_t i = 0; i + 1 < n; ++i) cost[i * n + i + 1] = 0.0;
    for (std::size_t length = 2; length < n; ++length) {
        for (std::size_t i = 0; i + length < n; ++i) {
            const std::size_t j = i + length;
            if (!usable(i, j)) continue;
            for (std::size_t m = i + 1; m < j; ++m) {
                const Vec3f &a = mesh.vertices[loop[i]], &b = mesh.vertices[loop[m]], &c3 = mesh.vertices[loop[j]];
                const double size = area(a, b, c3);
                if (!(size > SLIVER * longestSquared(a, b, c3))) continue;  // corners in a line: no triangle
                const double c = cost[i * n + m] + cost[m * n + j] + size;
                if (c < cost[i * n + j]) {
                    cost[i * n + j] = c;
                    split[i * n + j] = static_cast<std::uint32_t>(m);
                }
            }
        }
    }
    if (!(cost[n - 1] < INF)) return false;
    std::vector<std::pair<std::size_t, std::size_t>> pending = {{0, n - 1}};
    while (!pending.empty()) {
        const auto [i, j] = pending.back();
        pending.pop_back();
        if (j < i + 2) continue;
        const std::size_t m = split[i * n + j];
        triangles.push_back({loop[i], loop[m], loop[j]});
        pending.push_back({i, m});
        pending.push_back({m, j});
    }
    return true;
}

int removePieces(IndexedMesh& mesh, std::size_t min_triangles, std::size_t* removed) {
    if (removed) *removed = 0;
    if (min_triangles <= 1) return 0;  // every piece has a triangle: nothing to look at
    if (!mesh_internal::validIndices(mesh)) return 1;
    mesh_internal::UnionFind pieces(mesh.vertices.size());
    for (const auto& t : mesh.triangles) {
        pieces.join(t[0], t[1]);
        pieces.join(t[1], t[2]);
    }
    std::vector<std::size_t> size(mesh.vertices.size(), 0);
    for (const auto& t : mesh.triangles) ++size[pieces.find(t[0])];
    IndexedMesh kept;
    std::vector<char> used(mesh.vertices.size(), 0);
    for (const auto& t : mesh.triangles) {
        if (size[pieces.find(t[0])] < min_triangles) continue;
        kept.triangles.push_back(t);
        used[t[0]] = used[t[1]] = used[t[2]] = 1;
    }
    const std::size_t gone = mesh.triangles.size() - kept.triangles.size();
    if (gone == 0) return 0;
    std::vector<std::uint32_t> index(mesh.vertices.size(), UINT32_MAX);
    for (std::uint32_t v = 0; v < mesh.vertices.size(); ++v) {
        if (!used[v]) continue;
        index[v] = static_cast<std::uint32_t>(kept.vertices.size());
        kept.vertices.push_back(mesh.vertices[v]);
        if (!mesh.words.empty()) kept.words.push_back(mesh.words[v]);
        if (!mesh.normals.empty()) kept.normals.push_back(mesh.normals[v]);
        if (!mesh.colors.empty()) kept.colors.push_back(mesh.colors[v]);
    }
    for (auto& t : kept.triangles)
        for (auto& corner : t) corner = index[corner];
    // Pieces share no vertex, so the normals of the vertices that stay are still right.
    mesh = std::move(kept);
    if (removed) *removed = gone;
    return 0;
}

int fillHoles(IndexedMesh& mesh, std::size_t max_edges, std::size_t* filled) {
    if (filled) *filled = 0;
    if (max_edges < 3) return 0;  // every hole has three edges or more: nothing to look at
    if (!mesh_internal::validIndices(mesh)) return 1;
    if (mesh.triangles.empty()) return 0;
    const std::vector<mesh_internal::EdgeUse> uses = mesh_internal::sortedEdgeUses(mesh);
    const std::vector<mesh_internal::BoundaryLoop> loops =
        mesh_internal::boundaryLoops(mesh, mesh_internal::singleUses(uses));
    std::unordered_set<std::uint64_t> edges;
    edges.reserve(uses.size());
    for (const auto& use : uses) edges.insert(use.key);

    IndexedMesh result = mesh;  // the caller's mesh stays as it was if anything fails
    std::size_t closed = 0;
    for (const auto& loop : loops) {
        const std::size_t n = loop.vertices.size();
        if (n > max_edges || !loop.simple) continue;
        std::vector<std::array<std::uint32_t, 3>> added;
        if (n <= LEAST_AREA_MAX_EDGES) {
            if (!leastAreaTriangulation(result, loop.vertices, edges, added)) continue;
        } else {
            if (result.vertices.size() >= UINT32_MAX) return 1;
            double centre[3] = {0.0, 0.0, 0.0};
            for (std::uint32_t v : loop.vertices)
                for (int k = 0; k < 3; ++k) centre[k] += result.vertices[v][k];
            const std::uint32_t hub = static_cast<std::uint32_t>(result.vertices.size());
            result.vertices.push_back({static_cast<float>(centre[0] / n), static_cast<float>(centre[1] / n),
                                       static_cast<float>(centre[2] / n)});
            if (!result.words.empty()) result.words.push_back(0);
            if (!result.normals.empty()) result.normals.push_back({0.0f, 0.0f, 0.0f});
            if (!result.colors.empty())
                result.colors.push_back(mesh_internal::meanColour(result.colors, loop.vertices));
            for (std::size_t k = 0; k < n; ++k) added.push_back({loop.vertices[k], loop.vertices[(k + 1) % n], hub});
        }
        for (const auto& t : added) {
            result.triangles.push_back(t);
            for (int e = 0; e < 3; ++e) edges.insert(mesh_internal::edgeKey(t[e], t[(e + 1) % 3]));
        }
        ++closed;
    }
    if (closed == 0) return 0;
    const int status = mesh_internal::refreshNormals(result);
    if (status != 0) return status;
    mesh = std::move(result);
    if (filled) *filled = closed;
    return 0;
}

}  // namespace

int removeSmallPieces(IndexedMesh& mesh, std::size_t min_triangles, std::size_t* removed) {
    return guarded([&] { return removePieces(mesh, min_triangles, removed); });
}

int fillSmallHoles(IndexedMesh& mesh, std::size_t max_edges, std::size_t* filled) {
    return guarded([&] { return fillHoles(mesh, max_edges, filled); });
}

}  // namespace SurfaceReconstruction
