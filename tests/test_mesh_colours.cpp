// The vertices' colours: a plane half red, half blue against a brute-force mean in linear light, a lone
// coloured point reached by the widened search and the nearest-point fallback, the same colours on any
// number of threads, and colours kept in step by the edits (the program's coloured files: the pytest suite).
#include <map>

#include "TestSupport.h"
#include "tessaline/TessalineMesh.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

// A flat square on z = 0 from -n step / 2 to n step / 2: (n + 1)^2 vertices, two triangles a square;
// squares with both indices in [hole, hole + 17) are left out when `hole` is given.
IndexedMesh plane(int n, float step, int hole = -100) {
    IndexedMesh mesh;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) mesh.vertices.push_back({(i - n / 2.0f) * step, (j - n / 2.0f) * step, 0.0f});
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            if (i >= hole && i < hole + 17 && j >= hole && j < hole + 17) continue;
            const std::uint32_t a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            mesh.triangles.push_back({a, b, d});
            mesh.triangles.push_back({a, d, c});
        }
    mesh.words.assign(mesh.vertices.size(), 8);
    return mesh;
}

double decode(int byte) {
    const double v = byte / 255.0;
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}
int encode(double x) {
    return static_cast<int>(std::lround(255.0 * (x <= 0.0031308 ? 12.92 * x : 1.055 * std::pow(x, 1 / 2.4) - 0.055)));
}

// What the documented rule gives a vertex with points within h, by brute force over every point: within a
// byte of the colour found.
bool nearExpected(const Rgb& found, const Vec3f& v, double h, const std::vector<Vec3f>& points,
                  const std::vector<Rgb>& colours) {
    double sum[3] = {0, 0, 0}, weight = 0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        double d2 = 0;
        for (int k = 0; k < 3; ++k) d2 += (points[i][k] - v[k]) * (points[i][k] - v[k]);
        const double w = d2 <= h * h ? std::exp(-4 * d2 / (h * h)) : 0.0;
        weight += w;
        for (int k = 0; k < 3; ++k) sum[k] += w * decode(colours[i][k]);
    }
    for (int k = 0; k < 3; ++k)
        if (std::abs(found[k] - encode(sum[k] / weight)) > 1) return false;
    return true;
}

const Rgb RED = {255, 0, 0}, BLUE = {0, 0, 255};

// Points every 0.25 over [-11, 11]^2 on z = 0, none on x = 0: red left of it, blue right.
void halves(std::vector<Vec3f>& points, std::vector<Rgb>& colours) {
    for (int j = 0; j < 88; ++j)
        for (int i = 0; i < 88; ++i) {
            points.push_back({-11.0f + 0.125f + 0.25f * i, -11.0f + 0.125f + 0.25f * j, 0.0f});
            colours.push_back(points.back()[0] < 0 ? RED : BLUE);
        }
}

}  // namespace

TEST(MeshColours, HalfRedHalfBluePlaneMixesOnlyAtTheBorder) {
    IndexedMesh mesh = plane(40, 0.5f);
    for (std::size_t v = 0; v < mesh.words.size(); v += 2) mesh.words[v] = 0x108 | 16;  // cells of half the edge
    std::vector<Vec3f> points;
    std::vector<Rgb> colours;
    halves(points, colours);
    VertexColouring counts;
    ASSERT_EQ(colourVertices(mesh, points, colours, 1.0f, &counts), 0);
    ASSERT_EQ(mesh.colors.size(), mesh.vertices.size());
    EXPECT_EQ(counts.points, points.size());
    EXPECT_EQ(counts.near, mesh.vertices.size());
    for (std::size_t v = 0; v < mesh.vertices.size(); ++v) {
        const float x = mesh.vertices[v][0];
        const double h = (mesh.words[v] & 16) ? 0.5 : 1.0;
        // Pure away from the border; on it half of each light, 0.5 encoded: 188.
        if (std::fabs(x) > h || x == 0.0f) {
            EXPECT_EQ(mesh.colors[v], (x == 0 ? Rgb{188, 0, 188} : x < 0 ? RED : BLUE)) << v;
        }
        EXPECT_TRUE(nearExpected(mesh.colors[v], mesh.vertices[v], h, points, colours)) << v;
    }
}

TEST(MeshColours, ALoneColouredPointReachesEveryVertexAndBadArgumentsAreRefused) {
    IndexedMesh mesh = plane(20, 1.0f);
    const Vec3f lone = {-10.3f, -10.45f, 0.2f};
    const Rgb colour = {10, 200, 30};
    const float nan = std::nanf("");
    VertexColouring counts;
    ASSERT_EQ(colourVertices(mesh, {lone, {nan, 0, 0}}, {colour, {255, 255, 255}}, 1.0f, &counts), 0);
    std::size_t within[3] = {0, 0, 0};  // within h, within 4h, beyond
    for (std::size_t v = 0; v < mesh.vertices.size(); ++v) {
        EXPECT_EQ(mesh.colors[v], colour);
        double d2 = 0;
        for (int k = 0; k < 3; ++k) d2 += (mesh.vertices[v][k] - lone[k]) * (mesh.vertices[v][k] - lone[k]);
        ++within[d2 <= 1 ? 0 : (d2 <= 16 ? 1 : 2)];
    }
    EXPECT_EQ(counts.points, 1u);
    EXPECT_EQ(counts.near, within[0]);
    EXPECT_EQ(counts.widened, within[1]);
    EXPECT_EQ(counts.nearest, within[2]);
    EXPECT_GT(within[0] * within[1] * within[2], 0u);

    const std::vector<Rgb> before = mesh.colors;
    EXPECT_EQ(colourVertices(mesh, {lone}, {}, 1.0f), 1);
    EXPECT_EQ(colourVertices(mesh, {lone}, {colour}, 0.0f), 1);
    EXPECT_EQ(colourVertices(mesh, {lone}, {colour}, nan), 1);
    EXPECT_EQ(mesh.colors, before);
    EXPECT_EQ(colourVertices(mesh, {{nan, nan, nan}}, {colour}, 1.0f), 0);
    EXPECT_TRUE(mesh.colors.empty());  // no usable point: no colours
}

TEST(MeshColours, TheSameColoursOnOneAndTwoThreads) {
    // Vertices of every kind: cells of edge 1/16 to 2 (codes 32 to 1, the coarsest searched through the
    // k-d tree), many beyond the points.
    IndexedMesh mesh = plane(200, 0.1f);
    const std::uint32_t codes[] = {8, 16, 32, 4, 8 | 16};
    for (std::size_t v = 0; v < mesh.words.size(); ++v) mesh.words[v] = v % 60 == 4 ? 1 : codes[v % 5];
    std::vector<Vec3f> points;
    std::vector<Rgb> colours;
    std::uint32_t seed = 7;
    const auto next = [&seed] { return (seed = seed * 1664525u + 1013904223u) >> 8; };
    for (int i = 0; i < 20000; ++i) {
        points.push_back({(next() % 10000) * 1e-3f - 5, (next() % 10000) * 1e-3f - 5, (next() % 100) * 1e-3f});
        colours.push_back({Rgb::value_type(next()), Rgb::value_type(next()), Rgb::value_type(next())});
    }
    const auto colour = [&] {
        IndexedMesh m = mesh;
        VertexColouring c;
        EXPECT_EQ(colourVertices(m, points, colours, 0.25f, &c), 0);
        EXPECT_EQ(c.near + c.widened + c.nearest, m.vertices.size());
        EXPECT_GT(c.widened * c.nearest, 0u);
        return std::make_pair(m.colors, c.nearest);
    };
    EXPECT_EQ(withThreads(1, colour), withThreads(2, colour));
}

TEST(MeshColours, EditsKeepTheColoursInStep) {
    IndexedMesh mesh = plane(40, 0.5f, 12);  // a hole of 68 edges across the border: filled with a fan
    std::vector<Vec3f> points;
    std::vector<Rgb> colours;
    halves(points, colours);
    ASSERT_EQ(colourVertices(mesh, points, colours, 1.0f), 0);
    const std::uint32_t hub = static_cast<std::uint32_t>(mesh.vertices.size());
    std::size_t filled = 0;
    ASSERT_EQ(fillSmallHoles(mesh, 100, &filled), 0);
    ASSERT_EQ(filled, 1u);
    ASSERT_EQ(mesh.colors.size(), hub + 1u);
    double sum[3] = {0, 0, 0};  // the rim: the vertices around the 17 x 17 squares left out
    for (int j = 12; j <= 29; ++j)
        for (int i = 12; i <= 29; ++i)
            if (i == 12 || i == 29 || j == 12 || j == 29)
                for (int k = 0; k < 3; ++k) sum[k] += decode(mesh.colors[j * 41 + i][k]);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(mesh.colors[hub][k], encode(sum[k] / 68), 1) << k;

    // A loose triangle removed, and the vertices inside the hole that no triangle uses: each colour stays
    // with its vertex.
    mesh.vertices.insert(mesh.vertices.end(), {{50, 0, 0}, {51, 0, 0}, {50, 1, 0}});
    mesh.triangles.push_back({hub + 1, hub + 2, hub + 3});
    mesh.words.resize(mesh.vertices.size(), 8);
    mesh.colors.resize(mesh.vertices.size(), Rgb{1, 2, 3});
    std::map<Vec3f, Rgb> before;
    for (std::size_t v = 0; v < mesh.vertices.size(); ++v) before[mesh.vertices[v]] = mesh.colors[v];
    ASSERT_EQ(removeSmallPieces(mesh, 2), 0);
    ASSERT_EQ(mesh.vertices.size(), 41u * 41u - 16u * 16u + 1u);
    ASSERT_EQ(mesh.colors.size(), mesh.vertices.size());
    for (std::size_t v = 0; v < mesh.vertices.size(); ++v) EXPECT_EQ(mesh.colors[v], before[mesh.vertices[v]]);
}
