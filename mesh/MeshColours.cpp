// Colour for a finished mesh: each vertex takes the bell-weighted mean, in linear light, of the coloured
// scan points around it, found through a grid of cells about twice the vertices' cells, which a table of
// 4 x 4 x 4 bricks (which cells hold points) finds without a lookup for each empty cell.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <nanoflann.hpp>
#include <numeric>

#include "MeshInternal.h"

namespace SurfaceReconstruction {

namespace {

constexpr std::int32_t CELLS_PER_AXIS = (1 << 21) - 2;
// The bell: a point at distance d from a vertex whose search reaches r weighs exp(-BELL (d / r)^2).
constexpr double BELL = 4.0;
// A search whose box would hold more cells than this goes through the k-d tree instead (a vertex of a
// far coarser cell than the grid's): 9^3, a search of 4 edges for a vertex whose cell is the grid's size.
constexpr std::int64_t MOST_CELLS = 729;

// The bell in steps of (d / r)^2, between which it is taken as a straight line (within 3e-5 of the curve).
constexpr int BELL_STEPS = 256;

// sRGB bytes and linear light, both ways: the decoded value of each byte, and the linear values halfway
// between neighbouring bytes' (decoded at byte + 0.5), which round a linear value to the nearest byte;
// and the bell.
struct ColourTables {
    float linear[256];
    double rounding[255];
    float bell[BELL_STEPS + 2];  // one more step past the reach, read with a weight of 0
    ColourTables() {
        const auto decode = [](double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        for (int i = 0; i < 256; ++i) linear[i] = static_cast<float>(decode(i / 255.0));
        for (int i = 0; i < 255; ++i) rounding[i] = decode((i + 0.5) / 255.0);
        for (int i = 0; i < BELL_STEPS + 2; ++i) bell[i] = static_cast<float>(std::exp(-BELL * i / BELL_STEPS));
    }
    std::uint8_t encode(double value) const {
        return static_cast<std::uint8_t>(std::upper_bound(rounding, rounding + 255, value) - rounding);
    }
};

const ColourTables& tables() {
    static const ColourTables t;
    return t;
}

// A coloured point as the search reads it: position and colour side by side.
struct ColourPoint {
    float p[3];
    Rgb rgb;
};

// Sorts `order` by `codes` (both reordered), least significant digit first, 11 bits a pass, as many
// passes as the codes have bits: stable, so that equal codes keep the order they came in.
// The list is cut into one part a thread: each part counts its digits, then puts its codes after those of
// lower digits and of the parts before it with the same digit, which gives the same order for any number
// of parts.
void sortByCode(std::vector<std::uint64_t>& codes, std::vector<std::uint32_t>& order) {
    const std::int64_t n = static_cast<std::int64_t>(codes.size());
    std::uint64_t highest = 0;
#pragma omp parallel for schedule(static) reduction(| : highest)
    for (std::int64_t i = 0; i < n; ++i) highest |= codes[static_cast<std::size_t>(i)];
    std::vector<std::uint64_t> swap_codes(codes.size());
    std::vector<std::uint32_t> swap_order(codes.size());
    const int parts = std::max(1, std::min(omp_get_max_threads(), static_cast<int>(n / 65536) + 1));
    std::vector<std::size_t> count(static_cast<std::size_t>(parts) * 2048);
    for (int shift = 0; shift < 64 && (highest >> shift) != 0; shift += 11) {
        std::fill(count.begin(), count.end(), 0);
#pragma omp parallel for schedule(static, 1)
        for (int part = 0; part < parts; ++part) {
            std::size_t* mine = &count[static_cast<std::size_t>(part) * 2048];
            for (std::int64_t i = n * part / parts; i < n * (part + 1) / parts; ++i)
                ++mine[(codes[static_cast<std::size_t>(i)] >> shift) & 2047];
        }
        std::size_t at = 0;  // each part's first place for each digit
        for (std::size_t digit = 0; digit < 2048; ++digit)
            for (int part = 0; part < parts; ++part) {
                std::size_t& c = count[static_cast<std::size_t>(part) * 2048 + digit];
                const std::size_t here = c;
                c = at;
                at += here;
            }
#pragma omp parallel for schedule(static, 1)
        for (int part = 0; part < parts; ++part) {
            std::size_t* mine = &count[static_cast<std::size_t>(part) * 2048];
            for (std::int64_t i = n * part / parts; i < n * (part + 1) / parts; ++i) {
                const std::size_t from = static_cast<std::size_t>(i);
                const std::size_t to = mine[(codes[from] >> shift) & 2047]++;
                swap_codes[to] = codes[from];
                swap_order[to] = order[from];
            }
        }
        codes.swap(swap_codes);
        order.swap(swap_order);
    }
}

// The coloured points sorted into cubic cells of one edge, cells in the order of their codes; the bricks of
// 4 x 4 x 4 cells that hold any found through a hash table, each saying which of its cells hold points.
class ColourGrid {
public:
    // Takes the finite points, sorted by cell (points of one cell in the order they came).
    void build(const std::vector<Vec3f>& points, const std::vector<Rgb>& colours, double edge) {
        const std::int64_t all = static_cast<std::int64_t>(points.size());
        float lo0 = INFINITY, lo1 = INFINITY, lo2 = INFINITY, hi0 = -INFINITY, hi1 = -INFINITY, hi2 = -INFINITY;
        std::size_t n = 0;
#pragma omp parallel for schedule(static) reduction(min : lo0, lo1, lo2) reduction(max : hi0, hi1, hi2) reduction(+ : n)
        for (std::int64_t i = 0; i < all; ++i) {
            const Vec3f& p = points[static_cast<std::size_t>(i)];
            if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
            ++n;
            lo0 = std::min(lo0, p[0]), lo1 = std::min(lo1, p[1]), lo2 = std::min(lo2, p[2]);
            hi0 = std::max(hi0, p[0]), hi1 = std::max(hi1, p[1]), hi2 = std::max(hi2, p[2]);
        }
        if (n == 0) return;
        std::vector<std::uint32_t> finite(n);
        if (n == points.size()) {
            std::iota(finite.begin(), finite.end(), 0u);
        } else {
            n = 0;
            for (std::size_t i = 0; i < points.size(); ++i)
                if (std::isfinite(points[i][0]) && std::isfinite(points[i][1]) && std::isfinite(points[i][2]))
                    finite[n++] = static_cast<std::uint32_t>(i);
        }
        const double lo[3] = {lo0, lo1, lo2}, hi[3] = {hi0, hi1, hi2};
        double extent = 0.0;
        for (int k = 0; k < 3; ++k) extent = std::max(extent, hi[k] - lo[k]);
        m_per_edge = 1.0 / std::max(edge, extent / CELLS_PER_AXIS);
        for (int k = 0; k < 3; ++k) m_origin[k] = lo[k];

        std::vector<std::uint64_t> codes(n);
#pragma omp parallel for schedule(static, 4096)
        for (std::int64_t i = 0; i < static_cast<std::int64_t>(n); ++i)
            codes[static_cast<std::size_t>(i)] = codeOf(points[finite[static_cast<std::size_t>(i)]]);
        sortByCode(codes, finite);
        m_points.resize(n);
#pragma omp parallel for schedule(static, 4096)
        for (std::int64_t i = 0; i < static_cast<std::int64_t>(n); ++i) {
            const std::uint32_t from = finite[static_cast<std::size_t>(i)];
            ColourPoint& to = m_points[static_cast<std::size_t>(i)];
            for (int k = 0; k < 3; ++k) to.p[k] = points[from][k];
            to.rgb = colours[from];
        }

        // A cell's Morton code is its brick's code (the code of its coordinates / 4) and 6 bits of its place
        // in the brick; cells in code order come brick after brick.
        std::vector<Brick> bricks;
        for (std::size_t i = 0; i < n; ++i) {
            if (i > 0 && codes[i] == codes[i - 1]) continue;
            if (bricks.empty() || bricks.back().code != codes[i] >> 6)
                bricks.push_back(Brick{codes[i] >> 6, 0, static_cast<std::uint32_t>(m_start.size())});
            bricks.back().cells |= std::uint64_t(1) << (codes[i] & 63);
            m_start.push_back(static_cast<std::uint32_t>(i));
        }
        m_start.push_back(static_cast<std::uint32_t>(n));
        std::size_t capacity = 16;
        while (capacity < 2 * bricks.size()) capacity *= 2;
        m_bricks.assign(capacity, Brick{EMPTY, 0, 0});
        m_mask = capacity - 1;
        for (const Brick& brick : bricks) {
            std::size_t slot = hash(brick.code);
            while (m_bricks[slot].code != EMPTY) slot = (slot + 1) & m_mask;
            m_bricks[slot] = brick;
        }
    }

    const std::vector<ColourPoint>& points() const { return m_points; }

    // The code of the cell that holds `p` (the nearest cell for a place outside the grid).
    std::uint64_t codeOf(const Vec3f& p) const {
        std::int32_t c[3];
        for (int k = 0; k < 3; ++k) c[k] = axisCell(p[k], k);
        return mesh_internal::cellCode(c);
    }

    // Calls visit(point) for the points of every cell that the box of half edge `r` around `p` meets, cells
    // in a fixed order; false, without a call, when the box spans more than MOST_CELLS cells.
    template <class Visit>
    bool forEachNear(const float p[3], double r, Visit&& visit) const {
        std::int32_t lo[3], hi[3];
        std::int64_t cells = 1;
        for (int k = 0; k < 3; ++k) {
            lo[k] = axisCell(p[k] - r, k);
            hi[k] = axisCell(p[k] + r, k);
            cells *= hi[k] - lo[k] + 1;
        }
        if (cells > MOST_CELLS) return false;
        // Brick by brick, then the box's cells in the brick that hold points.
        std::int32_t b[3], c[3];
        for (b[0] = lo[0] >> 2; b[0] <= hi[0] >> 2; ++b[0])
            for (b[1] = lo[1] >> 2; b[1] <= hi[1] >> 2; ++b[1])
                for (b[2] = lo[2] >> 2; b[2] <= hi[2] >> 2; ++b[2]) {
                    const Brick* brick = find(mesh_internal::cellCode(b));
                    if (brick == nullptr) continue;
                    std::int32_t from[3], to[3];
                    for (int k = 0; k < 3; ++k) {
                        from[k] = std::max(lo[k], b[k] << 2);
                        to[k] = std::min(hi[k], (b[k] << 2) + 3);
                    }
                    for (c[0] = from[0]; c[0] <= to[0]; ++c[0])
                        for (c[1] = from[1]; c[1] <= to[1]; ++c[1])
                            for (c[2] = from[2]; c[2] <= to[2]; ++c[2]) {
                                // The cell's place in its brick: the low two bits of each coordinate, interleaved.
                                static constexpr std::uint32_t SPREAD[4] = {0, 1, 8, 9};
                                const std::uint32_t place =
                                    SPREAD[c[0] & 3] | SPREAD[c[1] & 3] << 1 | SPREAD[c[2] & 3] << 2;
                                if (!(brick->cells >> place & 1)) continue;
                                const std::uint32_t cell =
                                    brick->first + static_cast<std::uint32_t>(__builtin_popcountll(
                                                       brick->cells & ((std::uint64_t(1) << place) - 1)));
                                for (std::uint32_t i = m_start[cell]; i < m_start[cell + 1]; ++i) visit(m_points[i]);
                            }
                }
        return true;
    }

    // nanoflann's view of the points.
    std::size_t kdtree_get_point_count() const { return m_points.size(); }
    float kdtree_get_pt(std::size_t i, std::size_t k) const { return m_points[i].p[k]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const {
        return false;
    }

private:
    static constexpr std::uint64_t EMPTY = UINT64_MAX;  // no brick's code: those have at most 57 bits
    // 4 x 4 x 4 cells: which of them hold points, and the number of the first of those.
    struct Brick {
        std::uint64_t code;
        std::uint64_t cells;
        std::uint32_t first;
    };
    std::size_t hash(std::uint64_t code) const {
        return static_cast<std::size_t>((code * 0x9E3779B97F4A7C15ull) >> 20) & m_mask;
    }
    std::int32_t axisCell(double x, int k) const {
        const double t = std::floor((x - m_origin[k]) * m_per_edge);
        return static_cast<std::int32_t>(std::min(std::max(t, 0.0), static_cast<double>(CELLS_PER_AXIS)));
    }
    const Brick* find(std::uint64_t code) const {
        for (std::size_t slot = hash(code);; slot = (slot + 1) & m_mask) {
            if (m_bricks[slot].code == code) return &m_bricks[slot];
            if (m_bricks[slot].code == EMPTY) return nullptr;
        }
    }
    double m_origin[3] = {0.0, 0.0, 0.0};
    double m_per_edge = 1.0;  // 1 / the cells' edge
    std::vector<ColourPoint> m_points;
    std::vector<std::uint32_t> m_start;  // the first point of each cell that holds any, in the order of codes
    std::vector<Brick> m_bricks;         // the hash table of bricks that hold points
    std::size_t m_mask = 0;
};

using Tree =
    nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, ColourGrid>, ColourGrid, 3, std::uint32_t>;

// The finest scale code of a vertex word (bits 0-6: codes 1 to 64), 8 where it has none.
int finestCode(std::uint32_t word) {
    const std::uint32_t codes = word & 0x7F;
    if (codes == 0) return 8;
    int code = 64;
    while ((codes & static_cast<std::uint32_t>(code)) == 0) code >>= 1;
    return code;
}

// The bell-weighted sum of the colours of the points within `r` of `p`, in linear light.
struct Mean {
    const ColourTables& t = tables();
    double sum[3] = {0.0, 0.0, 0.0};
    double weight = 0.0;
    float p[3];
    float reach_square, steps;  // r^2 and BELL_STEPS / r^2
    Mean(const Vec3f& at, double r) {
        for (int k = 0; k < 3; ++k) p[k] = at[k];
        reach_square = static_cast<float>(r * r);
        steps = static_cast<float>(BELL_STEPS / (r * r));
    }
    void add(const ColourPoint& q) {
        const float dx = q.p[0] - p[0], dy = q.p[1] - p[1], dz = q.p[2] - p[2];
        const float d2 = dx * dx + dy * dy + dz * dz;
        if (!(d2 <= reach_square)) return;
        const float x = std::min(d2 * steps, static_cast<float>(BELL_STEPS));
        const int i = static_cast<int>(x);
        const float w = t.bell[i] + (x - static_cast<float>(i)) * (t.bell[i + 1] - t.bell[i]);
        weight += w;
        for (int k = 0; k < 3; ++k) sum[k] += w * t.linear[q.rgb[k]];
    }
    Rgb colour() const {
        Rgb c;
        for (int k = 0; k < 3; ++k) c[k] = t.encode(sum[k] / weight);
        return c;
    }
};

// How a vertex got its colour; PENDING: not yet (the grid could not say).
enum Found : std::uint8_t { NEAR, WIDENED, NEAREST, PENDING };

// The points within r of the vertex through the grid: PENDING when the grid's box is too large or none
// lies within 4h.
Found fromGrid(const ColourGrid& grid, const Vec3f& p, double h, Rgb& colour) {
    for (int step = 0; step < 3; ++step) {
        const double r = h * (1 << step);  // h, 2h, 4h
        Mean mean(p, r);
        if (!grid.forEachNear(mean.p, r, [&](const ColourPoint& q) { mean.add(q); })) return PENDING;
        if (mean.weight > 0.0) {
            colour = mean.colour();
            return step == 0 ? NEAR : WIDENED;
        }
    }
    return PENDING;
}

// The same through the k-d tree, and beyond 4h the nearest point's colour.
Found fromTree(const ColourGrid& grid, const Tree& tree, const Vec3f& p, double h, Rgb& colour,
               std::vector<std::pair<std::uint32_t, float>>& matches) {
    const auto& points = grid.points();
    for (int step = 0; step < 3; ++step) {
        Mean mean(p, h * (1 << step));
        matches.clear();
        tree.radiusSearch(mean.p, mean.reach_square, matches, nanoflann::SearchParams(32, 0.0f, false));
        std::sort(matches.begin(), matches.end());  // by point, so that the sum has one order
        for (const auto& m : matches) mean.add(points[m.first]);
        if (mean.weight > 0.0) {
            colour = mean.colour();
            return step == 0 ? NEAR : WIDENED;
        }
    }
    std::uint32_t index = 0;
    float squared = 0.0f;
    const float at[3] = {p[0], p[1], p[2]};
    tree.knnSearch(at, 1, &index, &squared);
    colour = points[index].rgb;
    return NEAREST;
}

int colour(IndexedMesh& mesh, const std::vector<Vec3f>& points, const std::vector<Rgb>& colours, float resolution,
           VertexColouring* colouring) {
    if (colouring) *colouring = VertexColouring();
    if (!mesh_internal::validIndices(mesh) || points.size() != colours.size() || points.size() > UINT32_MAX ||
        !(resolution > 0.0f) || !std::isfinite(resolution))
        return 1;
    for (const Vec3f& v : mesh.vertices)
        if (!std::isfinite(v[0]) || !std::isfinite(v[1]) || !std::isfinite(v[2])) return 1;
    const std::size_t n = mesh.vertices.size();
    if (n == 0) {
        mesh.colors.clear();
        return 0;
    }
    const auto codeOf = [&](std::size_t v) { return mesh.words.empty() ? 8 : finestCode(mesh.words[v]); };

    // The grid's cells have twice the edge of the coarsest vertex cells that a third of the vertices have
    // (of the commonest where none has a third): a search of one such edge looks up 8 cells, of 4 edges
    // 125, and a finer vertex's search fewer. On the simulated part (codes 8 and 16, 41 and 59 % of the
    // vertices) twice the coarser edge took 0.165 processor seconds, twice the finer 0.185; on its code 8
    // alone, 2 edges 0.23, 4 edges 0.26.
    std::size_t per_code[7] = {};  // vertices of codes 1, 2, 4, ... 64
    for (std::size_t v = 0; v < n; ++v) {
        int bit = 0;
        while ((1 << bit) < codeOf(v)) ++bit;
        ++per_code[bit];
    }
    int common = 3;
    for (int bit = 0; bit < 7; ++bit)
        if (per_code[bit] > per_code[common]) common = bit;
    for (int bit = 6; bit >= 0; --bit)
        if (3 * per_code[bit] >= n) common = bit;
    ColourGrid grid;
    grid.build(points, colours, static_cast<double>(resolution) * 16.0 / (1 << common));
    const std::size_t used = grid.points().size();
    if (used == 0) {
        mesh.colors.clear();
        return 0;
    }

    std::vector<Rgb> result(n);
    std::vector<Found> found(n);
#pragma omp parallel for schedule(dynamic, 1024)
    for (std::int64_t v = 0; v < static_cast<std::int64_t>(n); ++v) {
        const std::size_t i = static_cast<std::size_t>(v);
        found[i] = fromGrid(grid, mesh.vertices[i], static_cast<double>(resolution) * 8.0 / codeOf(i), result[i]);
    }
    std::vector<std::uint32_t> pending;
    for (std::size_t v = 0; v < n; ++v)
        if (found[v] == PENDING) pending.push_back(static_cast<std::uint32_t>(v));
    std::size_t nearest = 0;
    if (!pending.empty()) {
        const Tree tree(3, grid, nanoflann::KDTreeSingleIndexAdaptorParams(16));
        mesh_internal::TeamFailure failure;  // no room for a vertex's matches: thrown once the team has ended
#pragma omp parallel
        {
            std::vector<std::pair<std::uint32_t, float>> matches;
#pragma omp for schedule(dynamic, 64) reduction(+ : nearest)
            for (std::int64_t j = 0; j < static_cast<std::int64_t>(pending.size()); ++j) {
                if (failure.failed()) continue;
                failure.run([&] {
                    const std::uint32_t v = pending[static_cast<std::size_t>(j)];
                    found[v] = fromTree(grid, tree, mesh.vertices[v], static_cast<double>(resolution) * 8.0 / codeOf(v),
                                        result[v], matches);
                    nearest += found[v] == NEAREST ? 1 : 0;
                });
            }
        }
        failure.rethrow();
    }
    if (colouring) {
        colouring->points = used;
        colouring->nearest = nearest;
        for (std::size_t v = 0; v < n; ++v) {
            colouring->near += found[v] == NEAR ? 1 : 0;
            colouring->widened += found[v] == WIDENED ? 1 : 0;
        }
    }
    mesh.colors = std::move(result);
    return 0;
}

}  // namespace

namespace mesh_internal {

Rgb meanColour(const std::vector<Rgb>& colours, const std::vector<std::uint32_t>& vertices) {
    double sum[3] = {0.0, 0.0, 0.0};
    for (std::uint32_t v : vertices)
        for (int k = 0; k < 3; ++k) sum[k] += tables().linear[colours[v][k]];
    Rgb c = {0, 0, 0};
    if (vertices.empty()) return c;
    for (int k = 0; k < 3; ++k) c[k] = tables().encode(sum[k] / static_cast<double>(vertices.size()));
    return c;
}

}  // namespace mesh_internal

int colourVertices(IndexedMesh& mesh, const std::vector<Vec3f>& points, const std::vector<Rgb>& colours,
                   float resolution, VertexColouring* colouring) {
    const int status = mesh_internal::guarded([&] { return colour(mesh, points, colours, resolution, colouring); });
    if (status != 0 && colouring) *colouring = VertexColouring();
    return status;
}

}  // namespace SurfaceReconstruction
