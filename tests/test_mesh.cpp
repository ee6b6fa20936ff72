// The mesh library beside the engine, on meshes whose answer is known by hand: welding a soup, vertex
// normals, removing small pieces, filling small holes, and the point spacing that chooses a resolution.
// The weld, which runs on all cores, is also held to a plain one-thread weld, bit for bit, and the weld in
// pieces to the weld of the whole soup.
#include <map>

#include "TestSupport.h"
#include "tessaline/TessalineMesh.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

using Tri = std::array<std::uint32_t, 3>;

// The octahedron with corners on the axes at distance 1 from `c`, faces counter-clockwise from outside.
IndexedMesh octahedron(Vec3f c = {0, 0, 0}) {
    IndexedMesh mesh;
    mesh.vertices = {{c[0] + 1, c[1], c[2]}, {c[0] - 1, c[1], c[2]}, {c[0], c[1] + 1, c[2]},
                     {c[0], c[1] - 1, c[2]}, {c[0], c[1], c[2] + 1}, {c[0], c[1], c[2] - 1}};
    mesh.triangles = {{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4}, {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
    mesh.words.assign(6, 8);
    return mesh;
}

// The unit cube [0,1]^3, two triangles a face, counter-clockwise from outside.
IndexedMesh cube() {
    IndexedMesh mesh;
    for (int i = 0; i < 8; ++i) mesh.vertices.push_back({float(i & 1), float((i >> 1) & 1), float((i >> 2) & 1)});
    mesh.triangles = {{0, 2, 3}, {0, 3, 1}, {4, 5, 7}, {4, 7, 6}, {0, 1, 5}, {0, 5, 4},
                      {2, 6, 7}, {2, 7, 3}, {0, 4, 6}, {0, 6, 2}, {1, 3, 7}, {1, 7, 5}};
    mesh.words.assign(8, 8);
    return mesh;
}

// A flat n x n grid of unit squares in the plane z = 0, each split into two triangles facing +z.
IndexedMesh grid(int n) {
    IndexedMesh mesh;
    for (int y = 0; y <= n; ++y)
        for (int x = 0; x <= n; ++x) mesh.vertices.push_back({float(x), float(y), 0.0f});
    const auto at = [n](int x, int y) { return static_cast<std::uint32_t>(y * (n + 1) + x); };
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            mesh.triangles.push_back({at(x, y), at(x + 1, y), at(x + 1, y + 1)});
            mesh.triangles.push_back({at(x, y), at(x + 1, y + 1), at(x, y + 1)});
        }
    mesh.words.assign(mesh.vertices.size(), 8);
    return mesh;
}

MeshStatistics statisticsOf(const IndexedMesh& mesh) {
    MeshStatistics s;
    EXPECT_EQ(describeMesh(mesh, s), 0);
    return s;
}

// Every directed edge used at most once: neighbouring triangles face the same side.
bool consistentlyOriented(const IndexedMesh& mesh) {
    std::set<std::pair<std::uint32_t, std::uint32_t>> directed;
    for (const Tri& t : mesh.triangles)
        for (int e = 0; e < 3; ++e)
            if (!directed.insert({t[e], t[(e + 1) % 3]}).second) return false;
    return true;
}

void expectNear(const Vec3f& a, const Vec3f& b, float tolerance = 1e-6f) {
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(a[k], b[k], tolerance) << k;
}

// The weld as one thread does it, written plainly: bit-identical corners are one position (numbered by
// first corner), a position within the tolerance of an earlier representative in one of the 27 grid
// cells around it joins the earliest such, vertices are numbered by first use of the kept triangles, and
// the normals add each triangle's cross product in triangle order. `joined` counts the positions that join
// another, `passed` those for which an earlier position in reach was passed over (not a representative).
IndexedMesh plainWeld(const MultiMeshData& soup, float tolerance, std::size_t& degenerate, std::size_t& joined,
                      std::size_t& passed) {
    std::map<std::array<std::uint32_t, 3>, std::uint32_t> exact;
    std::vector<Vec3f> positions;
    std::vector<std::uint32_t> corner_position(3 * soup.xyz.size(), UINT32_MAX);
    for (std::size_t c = 0; c < corner_position.size(); ++c) {
        const float* p = &soup.xyz[c / 3].xyz[3 * (c % 3)];
        if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
        std::array<std::uint32_t, 3> bits;
        std::memcpy(bits.data(), p, sizeof(bits));
        const auto entry = exact.emplace(bits, static_cast<std::uint32_t>(positions.size()));
        if (entry.second) positions.push_back({p[0], p[1], p[2]});
        corner_position[c] = entry.first->second;
    }
    std::map<std::array<std::int64_t, 3>, std::vector<std::uint32_t>> cells;  // every position
    std::vector<std::uint32_t> rep(positions.size());
    const double inverse = 1.0 / static_cast<double>(tolerance);
    joined = passed = 0;
    for (std::uint32_t u = 0; u < positions.size(); ++u) {
        const Vec3f& p = positions[u];
        std::array<std::int64_t, 3> cell;
        for (int k = 0; k < 3; ++k) cell[k] = static_cast<std::int64_t>(std::floor(p[k] * inverse));
        std::uint32_t earliest = u;  // in reach, representative or not
        rep[u] = u;
        for (int dx = -1; dx <= 1; ++dx)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dz = -1; dz <= 1; ++dz) {
                    const auto found = cells.find({cell[0] + dx, cell[1] + dy, cell[2] + dz});
                    if (found == cells.end()) continue;
                    for (std::uint32_t r : found->second) {
                        const Vec3f& q = positions[r];
                        if (std::fabs(p[0] - q[0]) <= tolerance && std::fabs(p[1] - q[1]) <= tolerance &&
                            std::fabs(p[2] - q[2]) <= tolerance) {
                            earliest = std::min(earliest, r);
                            if (rep[r] == r) rep[u] = std::min(rep[u], r);
                        }
                    }
                }
        joined += rep[u] != u;
        passed += earliest < rep[u];
        cells[cell].push_back(u);
    }
    IndexedMesh mesh;
    std::vector<std::uint32_t> vertex(positions.size(), UINT32_MAX);
    degenerate = 0;
    for (std::size_t t = 0; t < soup.xyz.size(); ++t) {
        Tri r;
        bool finite = true;
        for (int v = 0; v < 3; ++v) {
            finite = finite && corner_position[3 * t + v] != UINT32_MAX;
            r[v] = finite ? rep[corner_position[3 * t + v]] : 0;
        }
        if (!finite || r[0] == r[1] || r[0] == r[2] || r[1] == r[2]) {
            ++degenerate;
            continue;
        }
        for (int v = 0; v < 3; ++v) {
            if (vertex[r[v]] == UINT32_MAX) {
                vertex[r[v]] = static_cast<std::uint32_t>(mesh.vertices.size());
                mesh.vertices.push_back(positions[r[v]]);
                mesh.words.push_back(0);
            }
            mesh.words[vertex[r[v]]] |= soup.w[t].w[v];
            r[v] = vertex[r[v]];
        }
        mesh.triangles.push_back(r);
    }
    std::vector<std::array<double, 3>> sums(mesh.vertices.size(), {0.0, 0.0, 0.0});
    for (const Tri& t : mesh.triangles) {
        const Vec3f &a = mesh.vertices[t[0]], &b = mesh.vertices[t[1]], &c = mesh.vertices[t[2]];
        const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
        const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
        const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
        for (std::uint32_t corner : t)
            for (int k = 0; k < 3; ++k) sums[corner][k] += n[k];
    }
    mesh.normals.assign(mesh.vertices.size(), {0.0f, 0.0f, 0.0f});
    for (std::size_t i = 0; i < sums.size(); ++i) {
        const auto& s = sums[i];
        const double length = std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
        if (length > 0.0 && std::isfinite(length))
            mesh.normals[i] = {float(s[0] / length), float(s[1] / length), float(s[2] / length)};
    }
    return mesh;
}

// A soup whose corners are copies of lattice points `spacing` tolerances apart around `origin`: exact
// copies, copies moved within the tolerance, just beyond it or by exactly it, chains of copies each
// within the tolerance of the one before (where only the earliest representative may be joined), -0
// for 0, corners that are not finite, and triangles that collapse.
MultiMeshData nearSoup(std::uint32_t seed, Vec3f origin, float tolerance, float spacing, std::size_t triangles) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> lattice(-12, 12), percent(0, 99);
    std::uniform_real_distribution<float> within(-0.95f, 0.95f);
    const auto corner = [&]() -> Vec3f {
        Vec3f p;
        for (int k = 0; k < 3; ++k) p[k] = origin[k] + lattice(random) * spacing * tolerance;
        const int kind = percent(random), axis = kind % 3;
        if (kind < 40) return p;
        if (kind < 55) {
            for (int k = 0; k < 3; ++k) p[k] += within(random) * tolerance;
        } else if (kind < 65) {
            p[axis] += (kind % 2 ? 1.0001f : 1.0f) * tolerance;
        } else if (kind < 80) {
            p[axis] += (1 + kind % 3) * 0.7f * tolerance;  // a chain: 0.7, 1.4 and 2.1 tolerances on
        } else if (kind < 85) {
            p[axis] = std::nextafter(p[axis], kind % 2 ? 1e30f : -1e30f);
        } else if (kind < 88) {
            p[axis] = p[axis] == 0.0f ? -0.0f : p[axis];
        } else if (kind < 90) {
            p[axis] = kind % 2 ? std::numeric_limits<float>::quiet_NaN() : std::numeric_limits<float>::infinity();
        }
        return p;
    };
    MultiMeshData soup;
    for (std::size_t t = 0; t < triangles; ++t) {
        TriangleXYZ xyz;
        Vec3f corners[3] = {corner(), corner(), corner()};
        if (percent(random) < 5) corners[2] = corners[0];
        for (int v = 0; v < 3; ++v)
            for (int k = 0; k < 3; ++k) xyz.xyz[3 * v + k] = corners[v][k];
        soup.xyz.push_back(xyz);
        soup.w.push_back(TriangleW{{1u << (t % 32), 0x100u << (t % 7), static_cast<std::uint32_t>(t)}});
    }
    return soup;
}

// Lone points on the borders of the weld's coarse cells (64 tolerances a side) far apart, each copied about
// six times, each copy moved by up to 1.5 tolerances on each axis: near copies in neighbouring coarse cells,
// with nothing else around.
MultiMeshData seamSoup(std::uint32_t seed, float tolerance, std::size_t triangles) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> border(-400, 400);
    std::uniform_real_distribution<float> moved(-1.5f, 1.5f);
    std::vector<Vec3f> points(triangles / 2);
    for (Vec3f& p : points)
        for (float& x : p) x = 64.0f * tolerance * static_cast<float>(border(random));
    MultiMeshData soup;
    for (std::size_t t = 0; t < triangles; ++t) {
        TriangleXYZ xyz;
        for (int v = 0; v < 3; ++v) {
            const Vec3f& p = points[random() % points.size()];
            for (int k = 0; k < 3; ++k) xyz.xyz[3 * v + k] = p[k] + moved(random) * tolerance;
        }
        soup.xyz.push_back(xyz);
        soup.w.push_back(TriangleW{{1u << (t % 32), 2, 3}});
    }
    return soup;
}

template <class T>
bool sameBytes(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// Two welded meshes the same, byte for byte: vertices, triangles, words and normals.
void expectSameMesh(const IndexedMesh& mesh, const IndexedMesh& expected, const std::string& what) {
    EXPECT_TRUE(sameBytes(mesh.vertices, expected.vertices)) << what;
    EXPECT_TRUE(sameBytes(mesh.triangles, expected.triangles)) << what;
    EXPECT_EQ(mesh.words, expected.words) << what;
    EXPECT_TRUE(sameBytes(mesh.normals, expected.normals)) << what;
}

}  // namespace

TEST(Weld, MatchesThePlainWeldBitForBitOnOneThreadAndTwo) {
    const struct {
        std::uint32_t seed;
        Vec3f origin;
        float tolerance, spacing;  // lattice spacing in tolerances
    } cases[] = {
        {1, {0.0f, 0.0f, 0.0f}, 1e-3f, 2.5f},          // around 0: -0, negative cells
        {2, {0.05f, -0.3f, 0.11f}, 1e-3f, 1.5f},       // lattice points themselves within reach of each other
        {3, {1000.0f, 250.0f, -600.0f}, 1e-4f, 3.0f},  // a float step near 1000 is 0.6 tolerances
        {4, {3.2f, 3.2f, 3.2f}, 0.05f, 2.0f},          // cells of 64 tolerances: edges at multiples of 3.2
    };
    for (const auto& c : cases) {
        const MultiMeshData soup = nearSoup(c.seed, c.origin, c.tolerance, c.spacing, 30000);
        std::size_t expected_degenerate = 0, joined = 0, passed = 0;
        const IndexedMesh expected = plainWeld(soup, c.tolerance, expected_degenerate, joined, passed);
        // The soup has what it should: near positions, chains, dropped triangles.
        EXPECT_GT(joined, 10000u) << c.seed;
        EXPECT_GT(passed, 1000u) << c.seed;
        EXPECT_GT(expected_degenerate, 1500u) << c.seed;
        for (int threads : {1, 2}) {
            IndexedMesh mesh;
            std::size_t degenerate = 0;
            withThreads(threads, [&] { ASSERT_EQ(weldMesh(soup, c.tolerance, mesh, &degenerate), 0); });
            EXPECT_EQ(degenerate, expected_degenerate) << c.seed << " " << threads;
            expectSameMesh(mesh, expected, "seed " + std::to_string(c.seed) + ", threads " + std::to_string(threads));
        }
    }
}

TEST(Weld, WordsAreTheOrOfEveryCornerAndCollapsedOrBrokenTrianglesAreDropped) {
    // Two triangles sharing the edge (1,0,0)-(0,1,0); a third collapses (two corners within the tolerance);
    // a fourth has a NaN corner.
    MultiMeshData soup;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    soup.xyz = {TriangleXYZ{{0, 0, 0, 1, 0, 0, 0, 1, 0}}, TriangleXYZ{{1, 0, 0, 1, 1, 0, 0, 1, 0}},
                TriangleXYZ{{5, 5, 5, 5, 5, 5.00001f, 6, 6, 6}}, TriangleXYZ{{nan, 0, 0, 7, 0, 0, 7, 1, 0}}};
    soup.w = {TriangleW{{0x0008, 0x0108, 0x77770010}}, TriangleW{{0xffff0008, 0x1, 0x0208}}, TriangleW{{1, 2, 3}},
              TriangleW{{4, 5, 6}}};
    IndexedMesh mesh;
    std::size_t degenerate = 0;
    ASSERT_EQ(weldMesh(soup, 1e-4f, mesh, &degenerate), 0);
    EXPECT_EQ(degenerate, 2u);
    ASSERT_EQ(mesh.vertices.size(), 4u);  // only vertices that kept triangles use
    ASSERT_EQ(mesh.triangles.size(), 2u);
    const std::vector<std::uint32_t> words = {0x0008, 0x0108 | 0xffff0008, 0x77770010 | 0x0208, 0x1};
    EXPECT_EQ(mesh.words, words);
    EXPECT_EQ(mesh.triangles[1], (Tri{1, 3, 2}));
    EXPECT_EQ(statisticsOf(mesh).boundary_edges, 4u);

    // Corners twice the tolerance apart stay apart.
    soup.xyz = {TriangleXYZ{{0, 0, 0, 1, 0, 0, 0, 1, 0}}, TriangleXYZ{{2e-4f, 0, 0, 1, 1, 0, 0, 1, 0}}};
    soup.w.resize(2);
    ASSERT_EQ(weldMesh(soup, 1e-4f, mesh), 0);
    EXPECT_EQ(mesh.vertices.size(), 5u);
}

TEST(Weld, RefusesWhatItCannotWeld) {
    MultiMeshData soup = nearSoup(1, {0.0f, 0.0f, 0.0f}, 1e-3f, 2.5f, 100);
    IndexedMesh mesh = cube();
    for (float tolerance :
         {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        EXPECT_EQ(weldMesh(soup, tolerance, mesh), 1) << tolerance;
        EXPECT_TRUE(mesh.vertices.empty() && mesh.triangles.empty());
    }
    soup.w.pop_back();
    EXPECT_EQ(weldMesh(soup, 1e-4f, mesh), 1);
}

// The weld in pieces against weldMesh of the whole soup, for cuts of every kind: near copies, chains,
// collapsed triangles and corners that are not finite fall on both sides of a cut or alone in a piece.
TEST(Weld, InPiecesIsTheWeldOfTheWholeSoupBitForBit) {
    const struct {
        std::uint32_t seed;
        Vec3f origin;
        float tolerance, spacing;
    } cases[] = {{1, {0.0f, 0.0f, 0.0f}, 1e-3f, 2.5f},
                 {2, {0.05f, -0.3f, 0.11f}, 1e-3f, 1.5f},
                 {3, {1000.0f, 250.0f, -600.0f}, 1e-4f, 3.0f},
                 {4, {3.2f, 3.2f, 3.2f}, 0.05f, 2.0f},
                 {5, {0.0f, 0.0f, 0.0f}, 1e-3f, 0.0f}};
    for (const auto& c : cases) {
        // The seed 5: lone points on the borders of coarse cells.
        const MultiMeshData soup = c.seed == 5 ? seamSoup(c.seed, c.tolerance, 4000)
                                               : nearSoup(c.seed, c.origin, c.tolerance, c.spacing, 20000);
        const std::size_t n = soup.xyz.size();
        IndexedMesh expected;
        std::size_t expected_degenerate = 0, plain_degenerate = 0, joined = 0, passed = 0;
        ASSERT_EQ(weldMesh(soup, c.tolerance, expected, &expected_degenerate), 0);
        plainWeld(soup, c.tolerance, plain_degenerate, joined, passed);
        EXPECT_GT(joined, 200u) << c.seed;  // near copies to join, in whatever piece they lie
        // Piece sizes: the whole soup, a triangle a piece, random cuts with empty pieces among them.
        std::vector<std::vector<std::size_t>> cuts = {{n}, std::vector<std::size_t>(n, 1), {0, 0, n, 0}};
        std::mt19937 random(c.seed);
        for (std::size_t most : {7, 500, 6000}) {
            std::vector<std::size_t> sizes;
            for (std::size_t left = n; left > 0;) {
                const std::size_t size = std::min(left, random() % (most + 1));  // 0 now and then
                sizes.push_back(size);
                left -= size;
            }
            cuts.push_back(sizes);
        }
        for (std::size_t k = 0; k < cuts.size(); ++k) {
            MeshWelder welder(c.tolerance);
            std::size_t at = 0;
            for (std::size_t size : cuts[k]) {
                MultiMeshData piece;
                piece.xyz.assign(soup.xyz.begin() + at, soup.xyz.begin() + at + size);
                piece.w.assign(soup.w.begin() + at, soup.w.begin() + at + size);
                at += size;
                ASSERT_EQ(welder.add(piece), 0);
            }
            IndexedMesh mesh;
            std::size_t degenerate = 0;
            ASSERT_EQ(welder.finish(mesh, &degenerate), 0);
            EXPECT_EQ(degenerate, expected_degenerate) << c.seed << " cut " << k;
            expectSameMesh(mesh, expected, "seed " + std::to_string(c.seed) + ", cut " + std::to_string(k));
        }
    }
}

TEST(Weld, InPiecesRefusesWhatWeldMeshRefusesAndStartsOverAfterFinish) {
    const MultiMeshData soup = nearSoup(5, {0.0f, 0.0f, 0.0f}, 1e-3f, 2.5f, 300);
    IndexedMesh expected, mesh = cube();
    ASSERT_EQ(weldMesh(soup, 1e-3f, expected), 0);
    for (float tolerance : {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()}) {
        MeshWelder welder(tolerance);
        EXPECT_EQ(welder.add(soup), 1) << tolerance;
        EXPECT_EQ(welder.finish(mesh), 1) << tolerance;
        EXPECT_TRUE(mesh.vertices.empty() && mesh.triangles.empty());
    }
    MeshWelder welder(1e-3f);
    MultiMeshData broken = soup;
    broken.w.pop_back();
    EXPECT_EQ(welder.add(broken), 1);  // refused, nothing added
    ASSERT_EQ(welder.finish(mesh), 0);
    EXPECT_TRUE(mesh.vertices.empty() && mesh.triangles.empty() && mesh.normals.empty());
    for (int round = 0; round < 2; ++round) {  // a finished welder welds the next soup from nothing
        ASSERT_EQ(welder.add(broken), 1);
        ASSERT_EQ(welder.add(soup), 0);
        ASSERT_EQ(welder.finish(mesh), 0);
        EXPECT_TRUE(sameBytes(mesh.vertices, expected.vertices) && sameBytes(mesh.triangles, expected.triangles));
    }
}

TEST(Normals, AreAreaWeightedUnitVectorsOnTheFrontSide) {
    // Each corner of an octahedron meets four equal faces: its normal is its own direction.
    IndexedMesh mesh = octahedron({3, 4, 5});
    ASSERT_EQ(computeVertexNormals(mesh), 0);
    for (std::size_t v = 0; v < 6; ++v) {
        const Vec3f direction = {mesh.vertices[v][0] - 3, mesh.vertices[v][1] - 4, mesh.vertices[v][2] - 5};
        expectNear(mesh.normals[v], direction);
    }
    // A corner shared by a triangle of area 2 facing +z and one of area 1 facing +x: (1, 0, 2) / sqrt(5).
    IndexedMesh corner;
    corner.vertices = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 1, 0}, {0, 0, 2}, {5, 5, 5}};
    corner.triangles = {{0, 1, 2}, {0, 3, 4}};
    ASSERT_EQ(computeVertexNormals(corner), 0);
    expectNear(corner.normals[0], {1.0f / std::sqrt(5.0f), 0.0f, 2.0f / std::sqrt(5.0f)});
    expectNear(corner.normals[5], {0, 0, 0});  // no triangle uses it
    // Indices past the vertices are refused.
    corner.triangles.push_back({0, 1, 6});
    EXPECT_EQ(computeVertexNormals(corner), 1);
}

TEST(Pieces, OnlyPiecesBelowTheSizeGo) {
    // An octahedron (8 triangles), a cube (12), a lone triangle (1) and a bow tie of two triangles that
    // share one vertex (one piece of 2).
    IndexedMesh mesh = octahedron();
    const auto append = [&mesh](const IndexedMesh& part) {
        const std::uint32_t base = static_cast<std::uint32_t>(mesh.vertices.size());
        mesh.vertices.insert(mesh.vertices.end(), part.vertices.begin(), part.vertices.end());
        mesh.words.insert(mesh.words.end(), part.words.begin(), part.words.end());
        for (Tri t : part.triangles) mesh.triangles.push_back({t[0] + base, t[1] + base, t[2] + base});
    };
    IndexedMesh moved = cube(), small;
    for (Vec3f& v : moved.vertices) v[0] += 10;
    append(moved);
    small.vertices = {{20, 0, 0}, {21, 0, 0}, {20, 1, 0}, {30, 0, 0}, {31, 0, 0}, {31, 1, 0}, {29, 0, 0}, {29, -1, 0}};
    small.triangles = {{0, 1, 2}, {3, 4, 5}, {3, 6, 7}};  // the lone triangle, the bow tie
    small.words.assign(8, 8);
    append(small);
    ASSERT_EQ(computeVertexNormals(mesh), 0);
    ASSERT_EQ(statisticsOf(mesh).pieces, 4u);

    const struct {
        std::size_t min_triangles, removed, pieces_left, vertices_left;
    } cases[] = {{0, 0, 4, 22}, {1, 0, 4, 22}, {2, 1, 3, 19}, {3, 3, 2, 14}, {9, 11, 1, 8}, {13, 23, 0, 0}};
    for (const auto& c : cases) {
        IndexedMesh edited = mesh;
        std::size_t removed = 99;
        ASSERT_EQ(removeSmallPieces(edited, c.min_triangles, &removed), 0);
        EXPECT_EQ(removed, c.removed) << c.min_triangles;
        const MeshStatistics s = statisticsOf(edited);
        EXPECT_EQ(s.pieces, c.pieces_left) << c.min_triangles;
        EXPECT_EQ(s.vertices, c.vertices_left) << c.min_triangles;
        ASSERT_EQ(edited.words.size(), edited.vertices.size());
        ASSERT_EQ(edited.normals.size(), edited.vertices.size());
        // What stays is the same triangles, in the same order, over the same positions.
        std::size_t kept = 0;
        for (const Tri& t : mesh.triangles) {
            if (kept == edited.triangles.size()) break;
            const Tri& e = edited.triangles[kept];
            if (mesh.vertices[t[0]] == edited.vertices[e[0]] && mesh.vertices[t[1]] == edited.vertices[e[1]] &&
                mesh.vertices[t[2]] == edited.vertices[e[2]]) {
                EXPECT_EQ(mesh.normals[t[0]], edited.normals[e[0]]);
                ++kept;
            }
        }
        EXPECT_EQ(kept, edited.triangles.size()) << c.min_triangles;
    }
}

TEST(Holes, LoopsUpToTheLimitCloseFacingTheirNeighbours) {
    struct Case {
        const char* name;
        IndexedMesh mesh;
        std::vector<std::size_t> removed;  // triangles taken out to make the hole
        std::size_t loop_edges;
        double area;  // of the whole surface once closed
    };
    IndexedMesh flat = grid(6);
    std::vector<std::size_t> middle;  // the 2 x 2 squares in the middle: a hole of 8 edges
    for (int y = 2; y < 4; ++y)
        for (int x = 2; x < 4; ++x) {
            middle.push_back(static_cast<std::size_t>(2 * (y * 6 + x)));
            middle.push_back(static_cast<std::size_t>(2 * (y * 6 + x) + 1));
        }
    const Case cases[] = {{"octahedron without a face", octahedron(), {3}, 3, 8 * std::sqrt(3.0) / 2},
                          {"cube without a face", cube(), {0, 1}, 4, 6.0},
                          {"grid without its middle", flat, middle, 8, 36.0}};
    for (const Case& c : cases) {
        IndexedMesh mesh = c.mesh;
        std::vector<Tri> kept;
        for (std::size_t t = 0; t < mesh.triangles.size(); ++t)
            if (std::find(c.removed.begin(), c.removed.end(), t) == c.removed.end()) kept.push_back(mesh.triangles[t]);
        mesh.triangles = kept;
        ASSERT_EQ(computeVertexNormals(mesh), 0);
        const MeshStatistics open = statisticsOf(mesh);
        const std::size_t outer = c.mesh.triangles.size() == flat.triangles.size() ? 24 : 0;  // the grid's rim
        ASSERT_EQ(open.boundary_edges, c.loop_edges + outer) << c.name;

        std::size_t filled = 99;
        IndexedMesh unchanged = mesh;
        ASSERT_EQ(fillSmallHoles(unchanged, c.loop_edges - 1, &filled), 0);
        EXPECT_EQ(filled, 0u) << c.name;
        EXPECT_EQ(unchanged.triangles.size(), mesh.triangles.size()) << c.name;

        ASSERT_EQ(fillSmallHoles(mesh, c.loop_edges, &filled), 0);
        EXPECT_EQ(filled, 1u) << c.name;
        const MeshStatistics closed = statisticsOf(mesh);
        EXPECT_EQ(closed.boundary_edges, outer) << c.name;
        EXPECT_EQ(closed.vertices, open.vertices) << c.name;  // short loops need no new vertex
        // A loop of n edges spanned between its own vertices takes n - 2 triangles.
        EXPECT_EQ(closed.triangles, open.triangles + c.loop_edges - 2) << c.name;
        EXPECT_NEAR(closed.area, c.area, 1e-5) << c.name;  // least area: a flat hole's own area
        EXPECT_TRUE(consistentlyOriented(mesh)) << c.name;
        IndexedMesh expected = mesh;
        ASSERT_EQ(computeVertexNormals(expected), 0);
        EXPECT_EQ(mesh.normals, expected.normals) << c.name;  // kept up to date
    }
}

TEST(Holes, ALongLoopGetsAFanAroundItsCentroid) {
    // A flat ring between a 100-gon of radius 1 and one of radius 2 around (5, 5, 0): the inner loop has 100
    // edges, the outer one too.
    IndexedMesh ring;
    const int n = 100;
    for (int i = 0; i < n; ++i) {
        const double a = 2 * M_PI * i / n;
        ring.vertices.push_back({float(5 + std::cos(a)), float(5 + std::sin(a)), 0.0f});
        ring.vertices.push_back({float(5 + 2 * std::cos(a)), float(5 + 2 * std::sin(a)), 0.0f});
    }
    for (std::uint32_t i = 0; i < n; ++i) {
        const std::uint32_t j = (i + 1) % n;
        ring.triangles.push_back({2 * i, 2 * i + 1, 2 * j + 1});
        ring.triangles.push_back({2 * i, 2 * j + 1, 2 * j});
    }
    ring.words.assign(ring.vertices.size(), 0x0108);
    ASSERT_EQ(statisticsOf(ring).boundary_loops, 2u);
    std::size_t filled = 0;
    IndexedMesh disc = ring;
    ASSERT_EQ(fillSmallHoles(disc, 100, &filled), 0);
    EXPECT_EQ(filled, 2u);
    const MeshStatistics s = statisticsOf(disc);
    EXPECT_EQ(s.boundary_edges, 0u);
    EXPECT_EQ(s.vertices, ring.vertices.size() + 2);  // one centroid a loop
    EXPECT_EQ(s.triangles, ring.triangles.size() + 2 * n);
    EXPECT_TRUE(consistentlyOriented(disc));
    for (std::size_t hub : {2 * n, 2 * n + 1}) {
        expectNear(disc.vertices[hub], {5, 5, 0}, 1e-5f);
        EXPECT_EQ(disc.words[hub], 0u);
    }
    // The ring and the inner fan cover the 100-gon of radius 2; the outer fan (facing down) covers it again.
    const double polygon = 0.5 * n * 4 * std::sin(2 * M_PI / n);
    EXPECT_NEAR(s.area, 2 * polygon, 1e-3);
}

TEST(Holes, NothingToFillAndBadMeshes) {
    IndexedMesh closed = octahedron();
    std::size_t filled = 99;
    EXPECT_EQ(fillSmallHoles(closed, 1000, &filled), 0);
    EXPECT_EQ(filled, 0u);
    EXPECT_EQ(closed.triangles.size(), 8u);
    IndexedMesh bad = octahedron();
    bad.words.pop_back();  // words, when present, need one a vertex
    EXPECT_EQ(fillSmallHoles(bad, 10), 1);
    EXPECT_EQ(removeSmallPieces(bad, 10), 1);
    // Limits that change nothing return at once, without looking at the mesh.
    EXPECT_EQ(fillSmallHoles(bad, 2), 0);
    EXPECT_EQ(removeSmallPieces(bad, 1), 0);
    MeshStatistics s;
    EXPECT_EQ(describeMesh(bad, s), 1);
}

TEST(Describe, CountsWhatIsCountedByHandOnOneThreadAndTwo) {
    // Grids of 100 x 100 squares (20,000 triangles, enough for all cores): the rim has 400 edges in one
    // loop; a square taken out adds a loop of 4 edges and takes 1 from the area.
    const int n = 100;
    const IndexedMesh flat = grid(n);
    IndexedMesh holes = flat;
    for (int square : {50 * n + 30, 20 * n + 70, 10 * n + 10}) {  // from the last, so that indices stay
        holes.triangles.erase(holes.triangles.begin() + 2 * square, holes.triangles.begin() + 2 * square + 2);
    }
    IndexedMesh two = flat;  // and a second grid beside it, and a vertex that no triangle uses
    for (const Vec3f& v : flat.vertices) two.vertices.push_back({v[0] + 200, v[1], v[2]});
    for (const Tri& t : flat.triangles) {
        const std::uint32_t m = static_cast<std::uint32_t>(flat.vertices.size());
        two.triangles.push_back({t[0] + m, t[1] + m, t[2] + m});
    }
    two.vertices.push_back({-5, -5, -5});
    two.words.clear();
    // Three triangles on one edge (each of the other six edges is a rim), and a triangle given twice.
    IndexedMesh fin;
    fin.vertices = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 2}};
    fin.triangles = {{0, 1, 2}, {1, 0, 3}, {0, 1, 4}};
    IndexedMesh twice;
    twice.vertices = {{0, 0, 0}, {2, 0, 0}, {0, 3, 0}};
    twice.triangles = {{0, 1, 2}, {0, 1, 2}};

    const struct {
        const char* name;
        const IndexedMesh& mesh;
        std::size_t boundary_edges, boundary_loops, pieces;  // loops: SIZE_MAX where not counted by hand
        double area;
    } cases[] = {{"grid", flat, 4 * n, 1, 1, n * n},
                 {"grid with three holes", holes, 4 * n + 12, 4, 1, n * n - 3},
                 {"two grids", two, 8 * n, 2, 2, 2 * n * n},
                 {"fin", fin, 6, SIZE_MAX, 1, 0.5 + 0.5 + 1.0},
                 {"twice", twice, 0, 0, 1, 6.0}};
    for (const auto& c : cases) {
        MeshStatistics one, both;
        withThreads(1, [&] { ASSERT_EQ(describeMesh(c.mesh, one), 0); });
        withThreads(2, [&] { ASSERT_EQ(describeMesh(c.mesh, both), 0); });
        for (const MeshStatistics& s : {one, both}) {
            EXPECT_EQ(s.vertices, c.mesh.vertices.size()) << c.name;
            EXPECT_EQ(s.triangles, c.mesh.triangles.size()) << c.name;
            EXPECT_EQ(s.boundary_edges, c.boundary_edges) << c.name;
            EXPECT_EQ(s.pieces, c.pieces) << c.name;
            EXPECT_NEAR(s.area, c.area, 1e-9 * c.area) << c.name;
        }
        if (c.boundary_loops != SIZE_MAX) {
            EXPECT_EQ(one.boundary_loops, c.boundary_loops) << c.name;
        }
        EXPECT_EQ(both.boundary_loops, one.boundary_loops) << c.name;
        EXPECT_EQ(both.area, one.area) << c.name;  // the same sum, bit for bit
    }
    IndexedMesh broken = flat;  // the last triangle's last index one past the vertices
    broken.triangles.back()[2] = static_cast<std::uint32_t>(flat.vertices.size());
    for (int threads : {1, 2}) {
        MeshStatistics s;
        withThreads(threads, [&] { EXPECT_EQ(describeMesh(broken, s), 1) << threads; });
    }
}

namespace {

// A square lattice of n x n points `step` apart in the plane z = 100, normals +z, all with word `word`.
std::shared_ptr<FrameDataWithInfo> lattice(int n, float step, std::int32_t word = 8, int copies = 1) {
    auto frame = std::make_shared<FrameDataWithInfo>();
    for (int c = 0; c < copies; ++c)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x) {
                addPoint(*frame, {x * step, y * step, 100.0f}, {0, 0, 1}, word);
            }
    return frame;
}

// The spacing by looking at every point from every stride-th one: the k smallest squared distances
// (((0 + dx dx) + dy dy) + dz dz in float, as the k-d tree's metric rounds them), below the largest float.
PointSpacing scannedSpacing(const std::vector<Vec3f>& points, std::size_t max_measured) {
    PointSpacing s;
    s.points = points.size();
    if (points.size() < 2) return s;
    const std::size_t stride = (points.size() + max_measured - 1) / max_measured;
    const std::size_t k = std::min<std::size_t>(SPACING_NEIGHBOURS + 1, points.size());
    std::vector<float> nearest, even, best;
    for (std::size_t i = 0; i < points.size(); i += stride, ++s.measured) {
        best.clear();  // a max-heap of the k best
        for (const Vec3f& p : points) {
            const float dx = points[i][0] - p[0], dy = points[i][1] - p[1], dz = points[i][2] - p[2];
            float d = dx * dx;
            d += dy * dy;
            d += dz * dz;
            if (!(d < std::numeric_limits<float>::max()) || (best.size() == k && !(d < best.front()))) continue;
            if (best.size() == k) std::pop_heap(best.begin(), best.end()), best.pop_back();
            best.push_back(d);
            std::push_heap(best.begin(), best.end());
        }
        std::sort(best.begin(), best.end());
        const auto positive = std::upper_bound(best.begin(), best.end(), 0.0f);
        if (positive != best.end()) nearest.push_back(std::sqrt(*positive));
        if (best.size() >= 2 && best.back() > 0.0f)
            even.push_back(static_cast<float>(std::sqrt(best.back() * M_PI / static_cast<double>(best.size() - 1))));
    }
    const auto middle = [](std::vector<float> v) {
        if (v.empty()) return 0.0f;
        std::sort(v.begin(), v.end());
        const std::size_t m = v.size() / 2;
        return v.size() % 2 ? v[m] : 0.5f * (v[m] + v[m - 1]);
    };
    s.median = middle(nearest);
    s.density = s.median > 0.0f ? middle(even) : 0.0f;
    return s;
}

}  // namespace

TEST(Spacing, TheGridFindsWhatAScanOfEveryPointFindsOnAnyThreadCount) {
    std::mt19937 random(7);
    const auto uniform = [&](float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(random);
    };
    const auto cube = [&](std::size_t n, Vec3f c, float half) {
        std::vector<Vec3f> points;
        for (std::size_t i = 0; i < n; ++i)
            points.push_back({c[0] + uniform(-half, half), c[1] + uniform(-half, half), c[2] + uniform(-half, half)});
        return points;
    };
    std::vector<Vec3f> plane;  // an even sampling of a tilted plane, jittered
    for (int y = 0; y < 90; ++y)
        for (int x = 0; x < 90; ++x)
            plane.push_back({3 + 0.5f * x + uniform(-0.1f, 0.1f), 5 + 0.5f * y, 7 + 0.2f * x + 0.1f * y});
    std::vector<Vec3f> doubled = cube(2000, {50, 50, 50}, 10), spot(5000, {1, 2, 3});
    for (std::size_t i = 0; i < 4000; ++i) doubled.push_back(doubled[i]);
    for (const Vec3f& p : cube(100, {1, 2, 3}, 1)) spot.push_back(p);
    // A dense cluster, more than half the points, inside points a thousand times sparser: the grid's cells
    // suit the cluster, and the lookups from the sparse points need the fallback, a k-d tree at this size.
    std::vector<Vec3f> mixed = cube(7500, {50, 50, 50}, 0.01f);
    for (const Vec3f& p : cube(6500, {60, 60, 60}, 50)) mixed.push_back(p);
    std::vector<Vec3f> far = cube(6000, {5, 5, 5}, 1);  // and three points far off
    for (const Vec3f& p : {Vec3f{1e6f, 0, 0}, Vec3f{0, -3e7f, 1}, Vec3f{2e36f, 2e36f, -2e36f}}) far.push_back(p);
    const struct {
        const char* name;
        std::vector<Vec3f> points;
        std::size_t max_measured;
    } cases[] = {{"uniform", cube(6000, {20, 20, 20}, 10), 20000},
                 {"plane", plane, 3000},
                 {"every point three times", doubled, 20000},
                 {"mostly on one spot", spot, 20000},
                 {"clusters and sparse", mixed, 20000},
                 {"far points", far, 20000},
                 {"few: scanned", cube(1000, {5, 5, 5}, 2), 20000},
                 {"fewer than 65", cube(40, {5, 5, 5}, 2), 20000}};
    for (const auto& c : cases) {
        const PointSpacing expected = scannedSpacing(c.points, c.max_measured);
        for (const int threads : {1, 3}) {
            PointSpacing spacing;
            withThreads(threads,
                        [&] { EXPECT_EQ(measurePointSpacing({frameOf(c.points)}, spacing, c.max_measured), 0); });
            EXPECT_EQ(spacing.median, expected.median) << c.name << ", " << threads << " threads";
            EXPECT_EQ(spacing.density, expected.density) << c.name << ", " << threads << " threads";
            EXPECT_EQ(spacing.measured, expected.measured) << c.name;
            EXPECT_EQ(spacing.points, c.points.size()) << c.name;
        }
        EXPECT_GT(expected.density, 0.0f) << c.name;
        // One point at a time (the first is measured alone): a point the grid got wrong cannot hide in a
        // median.
        for (std::size_t j = 0; j < c.points.size(); j += c.points.size() / 8 + 1) {
            std::vector<Vec3f> first = c.points;
            std::swap(first[0], first[j]);
            const PointSpacing one = scannedSpacing(first, 1);
            PointSpacing spacing;
            ASSERT_EQ(measurePointSpacing({frameOf(first)}, spacing, 1), 0);
            EXPECT_EQ(spacing.median, one.median) << c.name << ", point " << j;
            EXPECT_EQ(spacing.density, one.density) << c.name << ", point " << j;
        }
    }
}

TEST(Spacing, TheEstimateThinsAnEvenSamplingAndIsTheMeasureWhenNothingIsThinned) {
    std::mt19937 random(3);
    std::uniform_real_distribution<float> jitter(-0.2f, 0.2f);
    std::vector<Vec3f> points;  // 90,000 points 1 apart on a plane, jittered
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 300; ++x) points.push_back({10 + x + jitter(random), 10 + y + jitter(random), 5});
    const auto frame = frameOf(points);
    PointSpacing exact, estimated, whole;
    ASSERT_EQ(measurePointSpacing({frame}, exact), 0);
    ASSERT_EQ(estimatePointSpacing({frame}, estimated, 10000), 0);  // every 9th point
    EXPECT_NEAR(estimated.density, exact.density, 0.03 * exact.density);
    EXPECT_NEAR(exact.density, 1.0, 0.05);  // an even sampling of one point a unit square
    EXPECT_EQ(estimated.median, 0.0f);
    EXPECT_EQ(estimated.points, 90000u);
    EXPECT_EQ(estimated.measured, 10000u);
    ASSERT_EQ(estimatePointSpacing({frame}, whole, 90000), 0);
    EXPECT_EQ(whole.median, exact.median);
    EXPECT_EQ(whole.density, exact.density);
    EXPECT_EQ(whole.measured, exact.measured);
    EXPECT_EQ(estimatePointSpacing({frame}, whole, 0), 1);

    // Points that cannot be used (no normal, no position) are passed over as if they were not there: the
    // sample is every 9th usable point, whether a frame holds such points or not.
    std::vector<Vec3f> head(points.begin(), points.begin() + 40000), tail_xyz, tail_nor;
    for (std::size_t i = 40000; i < points.size(); ++i) {
        if (i % 37 == 0) {
            tail_xyz.push_back(i % 2 ? Vec3f{1, 2, 3} : Vec3f{NAN, 2, 3});
            tail_nor.push_back(i % 2 ? Vec3f{0, 0, 0} : Vec3f{0, 0, 1});
        }
        tail_xyz.push_back(points[i]);
        tail_nor.push_back({0, 0, 1});
    }
    PointSpacing clean, holed;
    ASSERT_EQ(estimatePointSpacing({frameOf(head), frameOf({points.begin() + 40000, points.end()})}, clean, 10000), 0);
    ASSERT_EQ(estimatePointSpacing({frameOf(head), frameOf(tail_xyz, tail_nor)}, holed, 10000), 0);
    EXPECT_EQ(holed.points, 90000u);
    EXPECT_EQ(holed.measured, clean.measured);
    EXPECT_EQ(holed.density, clean.density);
    EXPECT_EQ(clean.density, estimated.density);  // the frames' cut changes nothing either
}

TEST(Spacing, ASquareLatticeGivesItsStepAndTheEvenSpacingOfItsDensity) {
    // On a square lattice the nearest point lies one step away; the 64th nearest (counting 4, 4, 4, 8, 4,
    // 4, 8, 8, 4, 8, 4 points at 1, sqrt2, 2, sqrt5, sqrt8, 3, sqrt10, sqrt13, 4, sqrt17, sqrt18) at
    // sqrt20 steps, so the even spacing is sqrt20 sqrt(pi / 64) steps. With every point twice, the 64th is
    // the 32nd other position: sqrt10 steps.
    const float step = 0.7f;
    const struct {
        int copies;
        double even_in_steps;
    } cases[] = {{1, std::sqrt(20.0) * std::sqrt(M_PI / 64)}, {2, std::sqrt(10.0) * std::sqrt(M_PI / 64)}};
    for (const auto& c : cases) {
        PointSpacing spacing;
        ASSERT_EQ(measurePointSpacing({lattice(100, step, 8, c.copies)}, spacing, 1000000), 0);
        EXPECT_NEAR(spacing.median, step, 1e-4) << c.copies;
        EXPECT_NEAR(spacing.density, step * c.even_in_steps, 1e-4) << c.copies;
        EXPECT_EQ(spacing.points, 10000u * c.copies);
        EXPECT_EQ(spacing.measured, 10000u * c.copies);
        EXPECT_EQ(spacing.scale_code, 8);
    }
    // Measuring every third point spreads over the lattice alike.
    PointSpacing sampled;
    ASSERT_EQ(measurePointSpacing({lattice(100, step)}, sampled, 3334), 0);
    EXPECT_EQ(sampled.measured, 3334u);
    EXPECT_NEAR(sampled.median, step, 1e-4);
}

TEST(Spacing, OnlyUsablePointsCountAndTooFewGiveZero) {
    auto frame = lattice(3, 1.0f);
    frame->xyz[0] = {std::numeric_limits<float>::quiet_NaN(), 0, 100};
    frame->nor[1] = {0, 0, 0};
    frame->xyz[2] = {0.05f, -0.05f, 0.0f};  // at the origin: the engine skips it
    PointSpacing spacing;
    ASSERT_EQ(measurePointSpacing({frame, nullptr}, spacing), 0);
    EXPECT_EQ(spacing.points, 6u);
    EXPECT_FLOAT_EQ(spacing.median, 1.0f);
    for (const auto& too_few : {lattice(1, 1.0f), lattice(1, 1.0f, 8, 5), std::make_shared<FrameDataWithInfo>()}) {
        ASSERT_EQ(measurePointSpacing({too_few}, spacing), 0);
        EXPECT_EQ(spacing.median, 0.0f);
        EXPECT_EQ(spacing.density, 0.0f);
        EXPECT_EQ(resolutionForSpacing(spacing), 0.0f);
    }
    EXPECT_EQ(measurePointSpacing({frame}, spacing, 0), 1);
}

TEST(Spacing, TheResolutionSizesTheCellsTheFinestTenthOfThePointsAskFor) {
    // 30 % of the points ask for code 16, 5 % for 64: the tenth of the finest asks for 16.
    const struct {
        std::vector<std::pair<int, std::int32_t>> points;  // count, word
        int code;
    } cases[] = {{{{70, 8}, {30, 0x110}}, 16},
                 {{{95, 8}, {5, 64}}, 8},
                 {{{85, 8}, {10, 64}, {5, 32}}, 64},
                 {{{100, 4}}, 4},
                 {{{50, 0}, {50, 3}}, 8}};  // no wish and an unlisted code both count as 8
    for (const auto& c : cases) {
        auto frame = std::make_shared<FrameDataWithInfo>();
        float x = 1;
        for (const auto& [count, word] : c.points)
            for (int i = 0; i < count; ++i) {
                addPoint(*frame, {x++, 0, 0}, {0, 0, 1}, word);
            }
        addPoint(*frame, {NAN, 0, 0}, {0, 0, 1}, 64);  // not usable: counted in no code
        PointSpacing spacing, estimated;
        ASSERT_EQ(measurePointSpacing({frame}, spacing), 0);
        EXPECT_EQ(spacing.scale_code, c.code);
        ASSERT_EQ(estimatePointSpacing({frame}, estimated, 30), 0);  // every 4th point measured
        EXPECT_EQ(estimated.scale_code, c.code);
        // The counts of the codes give the expected triangles without a pass over the points.
        for (const PointSpacing* s : {&spacing, &estimated}) {
            std::size_t counted = 0;
            for (const std::size_t n : s->codes) counted += n;
            EXPECT_EQ(counted, 100u);
            for (const float resolution : {0.5f, 3.0f})
                EXPECT_EQ(expectedTriangles(*s, resolution), expectedTriangles({frame}, *s, resolution))
                    << c.code << " " << resolution;
        }
        EXPECT_GT(expectedTriangles(spacing, 0.5f), 0.0);
    }
    // The fixed rule sizes cells for c_max (1.5 density x c_max / 8), auto for code 8 (2 density with wishes
    // for finer cells; 1.5 without: the pytest suite's sphere); both within the resolutions a run takes, and
    // none for a density that is not a length.
    const struct {
        float density;
        int code;
        float resolution, automatic;
    } rules[] = {{1.0f, 16, 3.0f, 2.0f},      {1e-6f, 8, 0.001f, 0.001f},
                 {1e-6f, 16, 0.001f, 0.001f}, {1e9f, 8, 100000.0f, 100000.0f},
                 {0.0f, 8, 0.0f, 0.0f},       {std::numeric_limits<float>::quiet_NaN(), 16, 0.0f, 0.0f}};
    for (const auto& r : rules) {
        PointSpacing spacing;
        spacing.density = r.density;
        spacing.scale_code = r.code;
        EXPECT_FLOAT_EQ(resolutionForSpacing(spacing), r.resolution) << r.density << " " << r.code;
        EXPECT_FLOAT_EQ(autoResolutionForSpacing(spacing), r.automatic) << r.density << " " << r.code;
    }
}

TEST(ScaleCodes, TheCodesFollowTheDensityAndKeepAWishForFinerCellsWhereThePointsAllowIt) {
    // Three strips of a plane, lattices of steps 0.65, 1 and 1.3; in the lower half of the outer two the points
    // ask for code 16 (flag 0x100), the others keep 8 and a flag in bit 16. The middle strip holds the median
    // point: the even spacing is the lattice's, sqrt20 sqrt(pi / 64) = 0.9908 steps. Code 16 is c_max (23 % of
    // the points ask for it), so the resolution is 2.0 x 0.9908 = 1.982 (cells of 1.98, 3.96, 7.93 for codes
    // 8, 4, 2). The cells a point should have at the even spacing s of its strip, 2.0 s for a wish, 1.1 x 2 s
    // for the others (each at least 1.1 times from the nearest edge of a code):
    //   step 0.65: a wish 1.29 -> code 8 (kept); the others 1.42 -> 8
    //   step 1:    the others 2.18 -> 4
    //   step 1.3:  a wish 2.58 -> 4 (coarsened); the others 2.83 -> 4
    const struct {
        float from, to, step;
        int wish, other;
    } strips[] = {{5, 45, 0.65f, 8, 8}, {45, 185, 1.0f, 0, 4}, {185, 225, 1.3f, 4, 4}};
    auto frame = std::make_shared<FrameDataWithInfo>();
    for (const auto& strip : strips)
        for (float y = 5; y < 105; y += strip.step)
            for (float x = strip.from; x < strip.to; x += strip.step) {
                addPoint(*frame, {x, y, 5}, {0, 0, 1}, y < 55 && strip.wish != 0 ? 0x110 : 0x10008);
            }
    const std::vector<std::int32_t> asked = frame->w;
    std::vector<std::int32_t> first;
    for (const int threads : {1, 3}) {
        frame->w = asked;
        ScaleCodeChoice choice;
        withThreads(threads, [&] { ASSERT_EQ(chooseScaleCodes({frame}, choice), 0); });
        EXPECT_NEAR(choice.resolution, 2.0 * std::sqrt(20.0) * std::sqrt(M_PI / 64), 1e-3);
        if (threads == 1) first = frame->w;
        EXPECT_EQ(frame->w, first) << threads << " threads";  // bit for bit
        std::size_t codes[7] = {}, wishes = 0, kept = 0;
        for (std::size_t i = 0; i < asked.size(); ++i) {
            const std::int32_t w = frame->w[i];
            EXPECT_EQ(w & ~0xFF, asked[i] & ~0xFF) << i;  // the flags stay
            const int code = w & 0xFF;
            ++codes[code == 8 ? 3 : code == 4 ? 4 : code == 2 ? 5 : code == 1 ? 6 : 0];
            wishes += (asked[i] & 0xFF) == 16;
            kept += (asked[i] & 0xFF) == 16 && code == 8;
            // Away from the strips' seams and the plane's border, where the sparser side reaches over.
            const Vec3f& p = frame->xyz[i];
            for (const auto& strip : strips) {
                if (p[0] > strip.from + 15 && p[0] < strip.to - 15 && p[1] > 20 && p[1] < 90) {
                    EXPECT_EQ(code, (asked[i] & 0xFF) == 16 ? strip.wish : strip.other)
                        << "step " << strip.step << " at " << p[0] << ", " << p[1];
                }
            }
        }
        for (int k = 0; k < 7; ++k) EXPECT_EQ(choice.points[k], codes[k]) << k;
        EXPECT_EQ(choice.finer_wishes, wishes);
        EXPECT_EQ(choice.finer_kept, kept);
    }
    // Refused, the frames unchanged: words not one a point. Too few points: no resolution, words untouched.
    // A point the run leaves out keeps its word.
    auto short_words = lattice(10, 1.0f, 0x110);
    short_words->w.pop_back();
    const std::vector<std::int32_t> before = short_words->w;
    ScaleCodeChoice choice;
    EXPECT_EQ(chooseScaleCodes({short_words}, choice), 1);
    EXPECT_EQ(short_words->w, before);
    auto alone = lattice(1, 1.0f, 0x110, 5);
    EXPECT_EQ(chooseScaleCodes({alone, nullptr}, choice), 0);
    EXPECT_EQ(choice.resolution, 0.0f);
    EXPECT_EQ(alone->w, std::vector<std::int32_t>(5, 0x110));
    auto holed = lattice(30, 1.0f, 0x110);
    holed->nor[7] = {0, 0, 0};
    ASSERT_EQ(chooseScaleCodes({holed}, choice), 0);
    EXPECT_EQ(holed->w[7], 0x110);
    EXPECT_EQ(choice.points[3] + choice.points[4] + choice.points[5] + choice.points[6], 899u);
}
