// Welding the engine's triangle soup into shared vertices, vertex normals, and the counts of a mesh.
#include <array>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "MeshInternal.h"

namespace SurfaceReconstruction {

using mesh_internal::guarded;

namespace {

struct BitsHash {
    std::size_t operator()(const std::array<std::uint32_t, 3>& k) const {
        std::uint64_t h = k[0] * 0x9E3779B97F4A7C15ull;
        h ^= (h >> 29) + k[1] * 0xBF58476D1CE4E5B9ull;
        h ^= (h >> 31) + k[2] * 0x94D049BB133111EBull;
        return static_cast<std::size_t>(h ^ (h >> 32));
    }
};

struct CellHash {
    std::size_t operator()(const std::array<std::int64_t, 3>& k) const {
        return BitsHash()({static_cast<std::uint32_t>(k[0]) ^ static_cast<std::uint32_t>(k[0] >> 32),
                           static_cast<std::uint32_t>(k[1]) ^ static_cast<std::uint32_t>(k[1] >> 32),
                           static_cast<std::uint32_t>(k[2]) ^ static_cast<std::uint32_t>(k[2] >> 32)});
    }
};

constexpr std::uint32_t NONE = UINT32_MAX;

int weld(const MultiMeshData& soup, float tolerance, IndexedMesh& mesh, std::size_t* degenerate) {
    mesh = IndexedMesh();
    if (degenerate) *degenerate = 0;
    if (!(tolerance > 0.0f) || !std::isfinite(tolerance) || soup.w.size() != soup.xyz.size()) return 1;
    const std::size_t corners = soup.xyz.size() * 3;

    // First the corners at bit-identical positions, the common case, with one lookup each.
    std::vector<std::uint32_t> corner_position(corners, NONE);
    std::vector<Vec3f> positions;
    {
        std::unordered_map<std::array<std::uint32_t, 3>, std::uint32_t, BitsHash> exact;
        exact.reserve(soup.xyz.size());
        for (std::size_t c = 0; c < corners; ++c) {
            const float* p = &soup.xyz[c / 3].xyz[3 * (c % 3)];
            if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
            std::array<std::uint32_t, 3> bits;
            std::memcpy(bits.data(), p, sizeof(bits));
            const auto found = exact.emplace(bits, static_cast<std::uint32_t>(positions.size()));
            if (found.second) positions.push_back({p[0], p[1], p[2]});
            corner_position[c] = found.first->second;
        }
    }

    // Then positions within the tolerance of an earlier one join the earliest such: on a grid of cells of
    // the tolerance's size, a match lies in the same cell or a neighbouring one.
    std::vector<std::uint32_t> position_rep(positions.size());
    {
        std::unordered_map<std::array<std::int64_t, 3>, std::uint32_t, CellHash> cells;
        std::vector<std::uint32_t> next_in_cell;
        cells.reserve(positions.size());
        const double inverse = 1.0 / static_cast<double>(tolerance);
        for (std::uint32_t u = 0; u < positions.size(); ++u) {
            const Vec3f& p = positions[u];
            std::array<std::int64_t, 3> cell;
            for (int k = 0; k < 3; ++k) cell[k] = static_cast<std::int64_t>(std::floor(p[k] * inverse));
            std::uint32_t best = NONE;
            for (int dx = -1; dx <= 1; ++dx)
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dz = -1; dz <= 1; ++dz) {
                        const auto found = cells.find({cell[0] + dx, cell[1] + dy, cell[2] + dz});
                        if (found == cells.end()) continue;
                        for (std::uint32_t r = found->second; r != NONE; r = next_in_cell[r]) {
                            const Vec3f& q = positions[r];
                            if (r < best && std::fabs(p[0] - q[0]) <= tolerance &&
                                std::fabs(p[1] - q[1]) <= tolerance && std::fabs(p[2] - q[2]) <= tolerance)
                                best = r;
                        }
                    }
            next_in_cell.push_back(NONE);
            if (best != NONE) {
                position_rep[u] = best;
                continue;  // only representatives are looked up
            }
            position_rep[u] = u;
            auto slot = cells.emplace(cell, u);
            if (!slot.second) {
                next_in_cell[u] = slot.first->second;
                slot.first->second = u;
            }
        }
    }

    // Vertices are numbered in the order the kept triangles first use them.
    std::vector<std::uint32_t> rep_vertex(positions.size(), NONE);
    std::size_t dropped = 0;
    for (std::size_t t = 0; t < soup.xyz.size(); ++t) {
        std::array<std::uint32_t, 3> rep;
        bool finite = true;
        for (int v = 0; v < 3; ++v) {
            const std::uint32_t u = corner_position[3 * t + static_cast<std::size_t>(v)];
            finite = finite && u != NONE;
            rep[v] = finite ? position_rep[u] : NONE;
        }
        if (!finite || rep[0] == rep[1] || rep[0] == rep[2] || rep[1] == rep[2]) {
            ++dropped;
            continue;
        }
        std::array<std::uint32_t, 3> triangle;
        for (int v = 0; v < 3; ++v) {
            std::uint32_t& vertex = rep_vertex[rep[v]];
            if (vertex == NONE) {
                vertex = static_cast<std::uint32_t>(mesh.vertices.size());
                mesh.vertices.push_back(positions[rep[v]]);
                mesh.words.push_back(0);
            }
            mesh.words[vertex] |= soup.w[t].w[v];
            triangle[v] = vertex;
        }
        mesh.triangles.push_back(triangle);
    }
    if (degenerate) *degenerate = dropped;
    return computeVertexNormals(mesh);
}

double triangleArea(const IndexedMesh& mesh, const std::array<std::uint32_t, 3>& t) {
    const Vec3f &a = mesh.vertices[t[0]], &b = mesh.vertices[t[1]], &c = mesh.vertices[t[2]];
    const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
    const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
    const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    return 0.5 * std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
}

}  // namespace

namespace mesh_internal {

int refreshNormals(IndexedMesh& mesh) { return mesh.normals.empty() ? 0 : computeVertexNormals(mesh); }

}  // namespace mesh_internal

int weldMesh(const MultiMeshData& soup, float tolerance, IndexedMesh& mesh, std::size_t* degenerate) {
    const int status = guarded([&] { return weld(soup, tolerance, mesh, degenerate); });
    if (status != 0) mesh = IndexedMesh();
    return status;
}

int computeVertexNormals(IndexedMesh& mesh) {
    return guarded([&] {
        if (!mesh_internal::validIndices(mesh)) return 1;
        // The cross product of two edges is the normal scaled by twice the area: summing them weights each
        // triangle by its area.
        std::vector<std::array<double, 3>> sums(mesh.vertices.size(), {0.0, 0.0, 0.0});
        for (const auto& t : mesh.triangles) {
            const Vec3f &a = mesh.vertices[t[0]], &b = mesh.vertices[t[1]], &c = mesh.vertices[t[2]];
            const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
            const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
            const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
            for (std::uint32_t corner : t)
                for (int k = 0; k < 3; ++k) sums[corner][k] += n[k];
        }
        std::vector<Vec3f> normals(mesh.vertices.size(), Vec3f{0.0f, 0.0f, 0.0f});
        for (std::size_t i = 0; i < sums.size(); ++i) {
            const auto& s = sums[i];
            const double length = std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
            if (length > 0.0 && std::isfinite(length))
                normals[i] = {static_cast<float>(s[0] / length), static_cast<float>(s[1] / length),
                              static_cast<float>(s[2] / length)};
        }
        mesh.normals.swap(normals);
        return 0;
    });
}

int describeMesh(const IndexedMesh& mesh, MeshStatistics& statistics) {
    return guarded([&] {
        if (!mesh_internal::validIndices(mesh)) return 1;
        MeshStatistics s;
        s.vertices = mesh.vertices.size();
        s.triangles = mesh.triangles.size();
        const std::vector<mesh_internal::EdgeUse> uses = mesh_internal::sortedEdgeUses(mesh);
        for (std::size_t i = 0; i < uses.size();) {
            std::size_t j = i + 1;
            while (j < uses.size() && uses[j].key == uses[i].key) ++j;
            if (j - i == 1) ++s.boundary_edges;
            i = j;
        }
        s.boundary_loops = mesh_internal::boundaryLoops(mesh, uses).size();
        mesh_internal::UnionFind pieces(mesh.vertices.size());
        std::vector<char> used(mesh.vertices.size(), 0);
        for (const auto& t : mesh.triangles) {
            pieces.join(t[0], t[1]);
            pieces.join(t[1], t[2]);
            used[t[0]] = used[t[1]] = used[t[2]] = 1;
            s.area += triangleArea(mesh, t);
        }
        for (std::uint32_t v = 0; v < mesh.vertices.size(); ++v)
            if (used[v] && pieces.find(v) == v) ++s.pieces;
        statistics = s;
        return 0;
    });
}

}  // namespace SurfaceReconstruction
