// Welding the engine's triangle soup into shared vertices, vertex normals, and the counts of a mesh, on
// all cores; and the same weld of a soup that comes in pieces, a piece at a time (MeshWelder). Each result
// is the one a single thread gets taking the soup in order: a step either decides every item alone, or
// keeps the lowest of several items (which is the same whichever comes first), or numbers items by
// counting those before them; the one decision that depends on earlier decisions (which position a near
// one joins) is taken in order, for the few positions that have a near one.
#include <array>
#include <cmath>
#include <cstring>

#include "MeshInternal.h"

namespace SurfaceReconstruction {

using mesh_internal::compareExchange;
using mesh_internal::forPieces;
using mesh_internal::guarded;
using mesh_internal::loadRelaxed;
using mesh_internal::onEachThread;
using mesh_internal::PARALLEL_MIN;
using mesh_internal::shareOf;

namespace {

constexpr std::uint32_t NONE = UINT32_MAX;

using Bits = std::array<std::uint32_t, 3>;
using Cell = std::array<std::int64_t, 3>;

bool same(const Bits& a, const Bits& b) { return a[0] == b[0] && a[1] == b[1] && a[2] == b[2]; }
bool same(const Cell& a, const Cell& b) { return a[0] == b[0] && a[1] == b[1] && a[2] == b[2]; }

// Hashes whose high bits, which pick a slot, depend on every bit of the key.
std::uint64_t hashOf(const Bits& b) {
    return (std::uint64_t{b[0]} << 32 | b[1]) * 0x9E3779B97F4A7C15ull ^ std::uint64_t{b[2]} * 0xC2B2AE3D27D4EB4Full;
}

std::uint64_t hashOf(const Cell& c) {
    return static_cast<std::uint64_t>(c[0]) * 0x9E3779B97F4A7C15ull ^
           static_cast<std::uint64_t>(c[1]) * 0xC2B2AE3D27D4EB4Full ^
           static_cast<std::uint64_t>(c[2]) * 0x165667B19E3779F9ull;
}

// The bits of corner `v` of soup triangle `t`; false when a coordinate is not finite.
bool cornerBits(const MultiMeshData& soup, std::size_t t, int v, Bits& bits) {
    const float* p = &soup.xyz[t].xyz[3 * v];
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) return false;
    std::memcpy(bits.data(), p, sizeof(bits));
    return true;
}

// A hash table of first occurrences that all threads fill at once: a slot holds 1 + the lowest item of its
// key (0: empty), whatever order the items come in. Twice as many slots as items, a power of two.
struct LowestTable {
    std::vector<std::uint32_t> slots;
    int shift = 60;  // 64 - log2(slots)

    explicit LowestTable(std::size_t items) {
        std::size_t size = 16;
        for (; size < 2 * items; size *= 2) --shift;
        slots.assign(size, 0);
    }
    std::uint32_t lowest(std::size_t slot) const { return slots[slot] - 1; }

    // Enters `item` (its key's hash `hash`; same(a, b): items a and b have one key) and returns its slot;
    // `seen` (when given) tells whether another item of the key was there (for all items of a key but
    // one). An item's key may be written just before it enters: the item is seen in a slot only after it.
    template <class Same>
    std::size_t enter(std::uint64_t hash, std::uint32_t item, const Same& same, bool* seen = nullptr) {
        const std::size_t mask = slots.size() - 1;
        for (std::size_t s = hash >> shift;; s = (s + 1) & mask) {
            std::uint32_t current = mesh_internal::loadAcquire(slots[s]);
            if (current == 0 && compareExchange(slots[s], current, item + 1)) {
                if (seen) *seen = false;
                return s;
            }
            if (same(current - 1, item)) {  // a slot keeps its key: it only ever takes a lower item of it
                mesh_internal::storeMin(slots[s], item + 1);
                if (seen) *seen = true;
                return s;
            }
        }
    }

    // The lowest item whose key `matches` accepts, or NONE; once no thread enters items any more.
    template <class Matches>
    std::uint32_t find(std::uint64_t hash, const Matches& matches) const {
        const std::size_t mask = slots.size() - 1;
        for (std::size_t s = hash >> shift; slots[s] != 0; s = (s + 1) & mask)
            if (matches(slots[s] - 1)) return slots[s] - 1;
        return NONE;
    }
};

// Triangles a piece of the exact weld: its corners' own table stays in the core's cache.
constexpr std::size_t PIECE_TRIANGLES = 2048;
constexpr int PIECE_SHIFT = 50;  // 2^(64 - 50) slots: at least twice the corners of a piece
constexpr std::size_t PIECE_SLOTS = std::size_t{1} << (64 - PIECE_SHIFT);

// The positions of the soup: every bit-identical set of finite corners is one position, numbered by its
// first corner in the soup's order. `corner_position` receives each corner's position (NONE for a corner
// that is not finite). First every piece of the soup finds the first corner of each position within it
// (most copies of a vertex lie close together in the soup); then one shared table finds the first of
// those first corners over the whole soup.
void exactPositions(const MultiMeshData& soup, std::vector<std::uint32_t>& corner_position,
                    std::vector<Vec3f>& positions) {
    const std::size_t triangles = soup.xyz.size();
    const std::size_t pieces = (triangles + PIECE_TRIANGLES - 1) / PIECE_TRIANGLES;
    std::vector<std::uint32_t>& link = corner_position;  // first the first corner within the piece
    link.resize(3 * triangles);
    std::vector<std::uint32_t> piece_start(pieces + 1, 0);  // of the pieces' first corners, in soup order
    // The bits of the pieces' first corners, each thread's pieces one after another, and where each starts.
    std::vector<std::vector<Bits>> found(static_cast<std::size_t>(omp_get_max_threads()));
    std::vector<std::size_t> found_at(pieces);
    const bool parallel = triangles >= PARALLEL_MIN;
    int team = 1;
    onEachThread(parallel, [&](int thread, int threads) {
        if (thread == 0) team = threads;
        std::vector<Bits>& mine = found[static_cast<std::size_t>(thread)];
        struct Slot {
            Bits bits;
            std::uint32_t corner;
        };
        std::vector<Slot> table(PIECE_SLOTS, Slot{{0, 0, 0}, NONE});
        std::vector<std::uint32_t> taken;
        taken.reserve(3 * PIECE_TRIANGLES);
        for (std::size_t piece = static_cast<std::size_t>(thread); piece < pieces; piece += threads) {
            const std::size_t end = std::min(triangles, (piece + 1) * PIECE_TRIANGLES);
            found_at[piece] = mine.size();
            for (std::size_t t = piece * PIECE_TRIANGLES; t < end; ++t)
                for (int v = 0; v < 3; ++v) {
                    const std::uint32_t c = static_cast<std::uint32_t>(3 * t + v);
                    Bits bits;
                    if (!cornerBits(soup, t, v, bits)) {
                        link[c] = NONE;
                        continue;
                    }
                    std::size_t s = hashOf(bits) >> PIECE_SHIFT;
                    while (table[s].corner != NONE && !same(table[s].bits, bits)) s = (s + 1) & (PIECE_SLOTS - 1);
                    if (table[s].corner == NONE) {
                        table[s] = {bits, c};
                        taken.push_back(static_cast<std::uint32_t>(s));
                        mine.push_back(bits);
                    }
                    link[c] = table[s].corner;
                }
            piece_start[piece + 1] = static_cast<std::uint32_t>(mine.size() - found_at[piece]);
            for (std::uint32_t s : taken) table[s].corner = NONE;
            taken.clear();
        }
    });
    for (std::size_t piece = 0; piece < pieces; ++piece) piece_start[piece + 1] += piece_start[piece];

    // The pieces' first corners ("items", in soup order) go into one shared table, which keeps the first
    // item of each position.
    const std::size_t items = piece_start[pieces];
    std::vector<Bits> item_bits(items);
    std::vector<std::size_t> item_slot(items);
    LowestTable table(items);
    const auto same_item = [&](std::uint32_t a, std::uint32_t b) { return same(item_bits[a], item_bits[b]); };
    forPieces(triangles, PIECE_TRIANGLES, [&](std::size_t begin, std::size_t) {
        const std::size_t piece = begin / PIECE_TRIANGLES;
        const Bits* bits = found[piece % static_cast<std::size_t>(team)].data() + found_at[piece];
        for (std::uint32_t i = piece_start[piece]; i < piece_start[piece + 1]; ++i) {
            item_bits[i] = *bits++;
            item_slot[i] = table.enter(hashOf(item_bits[i]), i, same_item);
        }
    });
    found = {};

    // Positions numbered by their first items.
    constexpr std::size_t BLOCK = 65536;
    const std::size_t blocks = (items + BLOCK - 1) / BLOCK;
    std::vector<std::uint32_t> block_start(blocks + 1, 0);
    forPieces(items, BLOCK, [&](std::size_t begin, std::size_t end) {
        std::uint32_t firsts = 0;
        for (std::size_t i = begin; i < end; ++i) firsts += table.lowest(item_slot[i]) == i;
        block_start[begin / BLOCK + 1] = firsts;
    });
    for (std::size_t b = 0; b < blocks; ++b) block_start[b + 1] += block_start[b];
    positions.resize(block_start[blocks]);
    std::vector<std::uint32_t> item_position(items);
    forPieces(items, BLOCK, [&](std::size_t begin, std::size_t end) {
        std::uint32_t next = block_start[begin / BLOCK];
        for (std::size_t i = begin; i < end; ++i)
            if (table.lowest(item_slot[i]) == i) {
                item_position[i] = next;
                std::memcpy(positions[next++].data(), item_bits[i].data(), sizeof(Bits));
            }
    });
    // Each corner: the position of its item's first item, or that of the corner it copies (earlier in its
    // piece).
    forPieces(triangles, PIECE_TRIANGLES, [&](std::size_t begin, std::size_t end) {
        std::uint32_t i = piece_start[begin / PIECE_TRIANGLES];
        for (std::size_t c = 3 * begin; c < 3 * end; ++c) {
            if (link[c] == NONE) continue;
            link[c] = link[c] == c ? item_position[table.lowest(item_slot[i++])] : link[link[c]];
        }
    });
}

// Cells of the tolerance's size, the grid on which near positions are looked for in the 27 cells around:
// the floor of x / tolerance. A coordinate beyond the range of the cell numbers takes the lowest number,
// as the processor's conversion gives it.
std::int64_t cellOf(float x, double inverse) {
    const double scaled = x * inverse;
    if (!(scaled >= -9223372036854775808.0 && scaled < 9223372036854775808.0)) return INT64_MIN;
    const std::int64_t whole = static_cast<std::int64_t>(scaled);  // toward zero, exact beyond 2^52
    return whole - (static_cast<double>(whole) > scaled);
}

std::int64_t step(std::int64_t c, int d) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(c) + static_cast<std::uint64_t>(std::int64_t{d}));
}

// Most positions have no other position anywhere near: coarse cells of 64 cells a side show it with one
// lookup, or a few for a position at the edge of its coarse cell. Only the others are looked for in the
// 27 cells around them.
constexpr int COARSE_SHIFT = 6;

Cell coarse(const Cell& c) { return {c[0] >> COARSE_SHIFT, c[1] >> COARSE_SHIFT, c[2] >> COARSE_SHIFT}; }

// Whether all 27 cells around `c` lie in its own coarse cell.
bool insideCoarse(const Cell& c) {
    const auto inside = [](std::int64_t x) {
        return ((static_cast<std::uint64_t>(x) + 1) & ((1u << COARSE_SHIFT) - 1)) > 1;
    };
    return inside(c[0]) && inside(c[1]) && inside(c[2]);
}

// The positions `members` (ascending) of a table's keys in chains, lowest first: `head` gives each member
// the first of its key, `next` receives the next one of the same key.
void chain(const std::vector<std::uint32_t>& members, const std::vector<std::uint32_t>& head,
           std::vector<std::uint32_t>& next) {
    std::vector<std::pair<std::uint32_t, std::uint32_t>> shared;  // (head, member) of keys with several
    for (std::uint32_t u : members)
        if (head[u] != u) shared.push_back({head[u], u});
    const std::size_t others = shared.size();
    for (std::size_t i = 0; i < others; ++i) shared.push_back({shared[i].first, shared[i].first});
    std::sort(shared.begin(), shared.end());
    shared.erase(std::unique(shared.begin(), shared.end()), shared.end());
    for (std::size_t i = 0; i + 1 < shared.size(); ++i)
        if (shared[i].first == shared[i + 1].first) next[shared[i].second] = shared[i + 1].second;
}

// The representative of every position: the earliest earlier representative within `tolerance` on every
// axis in one of the 27 cells around it, else itself.
std::vector<std::uint32_t> representatives(const std::vector<Vec3f>& positions, float tolerance) {
    const std::size_t count = positions.size();
    const double inverse = 1.0 / static_cast<double>(tolerance);
    std::vector<Cell> cells(count);
    std::vector<std::uint32_t> head(count), next(count, NONE);
    std::vector<std::size_t> slot(count);

    // The positions that may have another in the 27 cells around: those in a coarse cell with others, and
    // those at the edge of theirs with a position in a coarse cell beside it. Being around is mutual, so
    // they are also the only ones that may be near another.
    std::vector<char> searched_flag(count);
    {
        LowestTable coarse_table(count);
        std::vector<char> crowded(coarse_table.slots.size(), 0);  // coarse cells with several positions
        const auto same_coarse = [&](std::uint32_t a, std::uint32_t b) {
            return same(coarse(cells[a]), coarse(cells[b]));
        };
        forPieces(count, 4096, [&](std::size_t begin, std::size_t end) {
            for (std::size_t u = begin; u < end; ++u) {
                for (int k = 0; k < 3; ++k) cells[u][k] = cellOf(positions[u][k], inverse);
                bool seen = false;
                slot[u] =
                    coarse_table.enter(hashOf(coarse(cells[u])), static_cast<std::uint32_t>(u), same_coarse, &seen);
                if (seen) __atomic_store_n(&crowded[slot[u]], 1, __ATOMIC_RELAXED);
            }
        });
        forPieces(count, 4096, [&](std::size_t begin, std::size_t end) {
            for (std::size_t u = begin; u < end; ++u) {
                const Cell& c = cells[u];
                searched_flag[u] = crowded[slot[u]];
                if (searched_flag[u] || insideCoarse(c)) continue;
                std::int64_t around[3][3];
                int n[3];
                for (int k = 0; k < 3; ++k) {
                    n[k] = 0;
                    for (int d = -1; d <= 1; ++d) {
                        const std::int64_t g = step(c[k], d) >> COARSE_SHIFT;
                        if (std::find(around[k], around[k] + n[k], g) == around[k] + n[k]) around[k][n[k]++] = g;
                    }
                }
                const Cell own = coarse(c);
                bool others = false;
                for (int i = 0; i < n[0]; ++i)
                    for (int j = 0; j < n[1]; ++j)
                        for (int k = 0; k < n[2]; ++k) {
                            const Cell key = {around[0][i], around[1][j], around[2][k]};
                            const auto in_key = [&](std::uint32_t r) { return same(coarse(cells[r]), key); };
                            others = others || (!same(key, own) && coarse_table.find(hashOf(key), in_key) != NONE);
                        }
                searched_flag[u] = others;
            }
        });
    }

    // Those in a table of their cells, each cell's in a chain, lowest first.
    std::vector<std::uint32_t> searched;
    for (std::uint32_t u = 0; u < count; ++u)
        if (searched_flag[u]) searched.push_back(u);
    LowestTable table(searched.size());
    const auto same_cell = [&](std::uint32_t a, std::uint32_t b) { return same(cells[a], cells[b]); };
    forPieces(searched.size(), 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            slot[i] = table.enter(hashOf(cells[searched[i]]), searched[i], same_cell);
    });
    forPieces(searched.size(), 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) head[searched[i]] = table.lowest(slot[i]);
    });
    slot = {};
    chain(searched, head, next);

    // Calls visit(first) for the first position of each of the 27 cells around position u that has one.
    const auto forCellsAround = [&](std::uint32_t u, const auto& visit) {
        const Cell& c = cells[u];
        for (int dx = -1; dx <= 1; ++dx)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dz = -1; dz <= 1; ++dz) {
                    const Cell key = {step(c[0], dx), step(c[1], dy), step(c[2], dz)};
                    const std::uint32_t first =
                        (dx | dy | dz) == 0
                            ? head[u]
                            : table.find(hashOf(key), [&](std::uint32_t r) { return same(cells[r], key); });
                    if (first != NONE) visit(first);
                }
    };
    const auto near = [&](std::uint32_t u, std::uint32_t r) {
        const Vec3f &p = positions[u], &q = positions[r];
        return std::fabs(p[0] - q[0]) <= tolerance && std::fabs(p[1] - q[1]) <= tolerance &&
               std::fabs(p[2] - q[2]) <= tolerance;
    };

    // The earliest near earlier position of each searched one, representative or not: on all cores.
    std::vector<std::uint32_t> first_near(searched.size());
    forPieces(searched.size(), 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::uint32_t u = searched[i];
            std::uint32_t best = NONE;
            forCellsAround(u, [&](std::uint32_t r) {
                for (; r < u && r < best; r = next[r])
                    if (near(u, r)) {
                        best = r;
                        break;
                    }
            });
            first_near[i] = best;
        }
    });
    // In order, for the positions that have one: the earliest near representative. Only a position that
    // joined another one is passed over, so the search goes on past it.
    std::vector<std::uint32_t> rep(count);
    std::iota(rep.begin(), rep.end(), 0u);
    for (std::size_t i = 0; i < searched.size(); ++i) {
        const std::uint32_t u = searched[i], first = first_near[i];
        if (first == NONE) continue;
        if (rep[first] == first) {
            rep[u] = first;
            continue;
        }
        std::uint32_t best = u;
        forCellsAround(u, [&](std::uint32_t r) {
            for (; r < best; r = next[r])
                if (rep[r] == r && near(u, r)) {
                    best = r;
                    break;
                }
        });
        rep[u] = best;
    }
    return rep;
}

// The cross product of two edges: the normal scaled by twice the area.
std::array<double, 3> crossOf(const IndexedMesh& mesh, const std::array<std::uint32_t, 3>& t) {
    const Vec3f &a = mesh.vertices[t[0]], &b = mesh.vertices[t[1]], &c = mesh.vertices[t[2]];
    const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
    const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
    return {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
}

// The normals of a mesh whose indices are valid.
std::vector<Vec3f> vertexNormals(const IndexedMesh& mesh) {
    std::vector<Vec3f> normals(mesh.vertices.size(), Vec3f{0.0f, 0.0f, 0.0f});
    // Summing the cross products weights each triangle by its area. Each thread sums those of its share of
    // the vertices, going through all triangles in order: every vertex gets its sum in triangle order.
    onEachThread(mesh.triangles.size() >= PARALLEL_MIN, [&](int thread, int threads) {
        const auto [lo, hi] = shareOf(mesh.vertices.size(), thread, threads);
        const auto mine = [lo = lo, hi = hi](std::uint32_t v) { return v - lo < hi - lo; };
        std::vector<std::array<double, 3>> sums(hi - lo, {0.0, 0.0, 0.0});
        for (const auto& t : mesh.triangles) {
            if (!mine(t[0]) && !mine(t[1]) && !mine(t[2])) continue;
            const std::array<double, 3> n = crossOf(mesh, t);
            for (std::uint32_t corner : t)
                if (mine(corner))
                    for (int k = 0; k < 3; ++k) sums[corner - lo][k] += n[k];
        }
        for (std::size_t i = 0; i < sums.size(); ++i) {
            const auto& s = sums[i];
            const double length = std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
            if (length > 0.0 && std::isfinite(length))
                normals[lo + i] = {static_cast<float>(s[0] / length), static_cast<float>(s[1] / length),
                                   static_cast<float>(s[2] / length)};
        }
    });
    return normals;
}

int weld(const MultiMeshData& soup, float tolerance, IndexedMesh& mesh, std::size_t* degenerate) {
    mesh = IndexedMesh();
    if (degenerate) *degenerate = 0;
    if (!(tolerance > 0.0f) || !std::isfinite(tolerance) || soup.w.size() != soup.xyz.size()) return 1;
    const std::size_t triangles = soup.xyz.size();
    if (triangles >= UINT32_MAX / 3) return 1;  // corners are numbered in 32 bits

    std::vector<std::uint32_t> corner_position;
    std::vector<Vec3f> positions;
    exactPositions(soup, corner_position, positions);
    const std::vector<std::uint32_t> rep = representatives(positions, tolerance);

    // Each corner's representative, the triangles that keep three different ones (a dropped triangle is
    // marked at its first corner), and for each representative the first corner of a kept triangle on it.
    std::vector<std::uint32_t>& corner_rep = corner_position;
    constexpr std::size_t PIECE = 8192;
    const std::size_t pieces = (triangles + PIECE - 1) / PIECE;
    std::vector<std::uint32_t> kept_start(pieces + 1, 0), vertex_start(pieces + 1, 0);
    std::vector<std::uint32_t> first_use(positions.size(), NONE);
    forPieces(triangles, PIECE, [&](std::size_t begin, std::size_t end) {
        std::uint32_t kept = 0;
        for (std::size_t t = begin; t < end; ++t) {
            std::uint32_t* r = &corner_rep[3 * t];
            bool finite = true;
            for (int v = 0; v < 3; ++v) {
                finite = finite && r[v] != NONE;
                if (r[v] != NONE) r[v] = rep[r[v]];
            }
            if (!finite || r[0] == r[1] || r[0] == r[2] || r[1] == r[2]) {
                r[0] = NONE;
                continue;
            }
            ++kept;
            for (int v = 0; v < 3; ++v) mesh_internal::storeMin(first_use[r[v]], static_cast<std::uint32_t>(3 * t + v));
        }
        kept_start[begin / PIECE + 1] = kept;
    });
    // Vertices are numbered in the order the kept triangles first use them.
    forPieces(triangles, PIECE, [&](std::size_t begin, std::size_t end) {
        std::uint32_t firsts = 0;
        for (std::size_t c = 3 * begin; c < 3 * end; c += 3)
            if (corner_rep[c] != NONE)
                for (std::size_t v = 0; v < 3; ++v) firsts += first_use[corner_rep[c + v]] == c + v;
        vertex_start[begin / PIECE + 1] = firsts;
    });
    for (std::size_t p = 0; p < pieces; ++p) {
        kept_start[p + 1] += kept_start[p];
        vertex_start[p + 1] += vertex_start[p];
    }
    mesh.vertices.resize(vertex_start[pieces]);
    mesh.words.assign(vertex_start[pieces], 0);
    mesh.triangles.resize(kept_start[pieces]);
    std::vector<std::uint32_t> vertex_of(positions.size());
    forPieces(triangles, PIECE, [&](std::size_t begin, std::size_t end) {
        std::uint32_t vertex = vertex_start[begin / PIECE];
        for (std::size_t c = 3 * begin; c < 3 * end; c += 3)
            if (corner_rep[c] != NONE)
                for (std::size_t v = 0; v < 3; ++v)
                    if (first_use[corner_rep[c + v]] == c + v) {
                        mesh.vertices[vertex] = positions[corner_rep[c + v]];
                        vertex_of[corner_rep[c + v]] = vertex++;
                    }
    });
    forPieces(triangles, PIECE, [&](std::size_t begin, std::size_t end) {
        std::uint32_t k = kept_start[begin / PIECE];
        for (std::size_t t = begin; t < end; ++t) {
            if (corner_rep[3 * t] == NONE) continue;
            auto& triangle = mesh.triangles[k++];
            for (int v = 0; v < 3; ++v) {
                triangle[v] = vertex_of[corner_rep[3 * t + v]];
                mesh_internal::storeOr(mesh.words[triangle[v]], soup.w[t].w[v]);
            }
        }
    });
    if (degenerate) *degenerate = triangles - mesh.triangles.size();
    mesh.normals = vertexNormals(mesh);
    return 0;
}

// The weld of a soup in pieces (MeshWelder) takes the soup's corners in order on one thread and decides each
// as the weld above decides it over the whole soup: a corner's bits are looked up among the positions so
// far, a new position looks for the earliest near representative among the earlier ones in the 27 cells
// around it, and a kept triangle numbers the vertices it is the first to use. What it keeps grows with the
// positions and the kept triangles, never with the pieces already added.

// Arrays that grow a block of 65,536 elements at a time: nothing is moved or held twice as they grow.
template <class T>
class BlockArray {
public:
    std::size_t size() const { return m_size; }
    T& operator[](std::size_t i) { return m_blocks[i >> SHIFT][i & MASK]; }
    const T& operator[](std::size_t i) const { return m_blocks[i >> SHIFT][i & MASK]; }
    void push_back(const T& value) {
        if (m_size == m_blocks.size() << SHIFT) m_blocks.emplace_back(new T[BLOCK]);
        (*this)[m_size++] = value;
    }
    // Moves the elements into `out` (replaced), each block given back once it is copied.
    void moveInto(std::vector<T>& out) {
        out = std::vector<T>();
        out.reserve(m_size);
        for (std::size_t b = 0; b < m_blocks.size(); ++b) {
            const T* first = m_blocks[b].get();
            out.insert(out.end(), first, first + std::min(BLOCK, m_size - (b << SHIFT)));
            m_blocks[b].reset();
        }
        *this = BlockArray();
    }

private:
    static constexpr int SHIFT = 16;
    static constexpr std::size_t BLOCK = std::size_t{1} << SHIFT, MASK = BLOCK - 1;
    std::vector<std::unique_ptr<T[]>> m_blocks;
    std::size_t m_size = 0;
};

// Position numbers by a key, open addressing (a slot holds 1 + the number, 0: empty), 4 bytes a slot: the
// caller compares the keys at the positions themselves and keeps the table at most half full.
class PositionSlots {
public:
    void resize(int log2_slots) {
        m_slots = std::vector<std::uint32_t>();  // the old slots go first
        m_slots.assign(std::size_t{1} << log2_slots, 0);
        m_shift = 64 - log2_slots;
    }
    // The slot of the position whose key `matches` accepts, or the empty slot where it would go.
    template <class Matches>
    std::size_t find(std::uint64_t hash, const Matches& matches) const {
        const std::size_t mask = m_slots.size() - 1;
        std::size_t s = hash >> m_shift;
        while (m_slots[s] != 0 && !matches(m_slots[s] - 1)) s = (s + 1) & mask;
        return s;
    }
    // The empty slot for a key that the table does not hold.
    std::size_t empty(std::uint64_t hash) const {
        return find(hash, [](std::uint32_t) { return false; });
    }
    std::uint32_t at(std::size_t slot) const { return m_slots[slot] - 1; }  // NONE when empty
    void set(std::size_t slot, std::uint32_t position) { m_slots[slot] = position + 1; }
    void prefetch(std::uint64_t hash) const { __builtin_prefetch(&m_slots[hash >> m_shift]); }
    std::uint32_t first(std::uint64_t hash) const { return m_slots[hash >> m_shift] - 1; }  // in the key's own slot

private:
    std::vector<std::uint32_t> m_slots;
    int m_shift = 64;
};

// Which coarse cells hold a position: two bits of one 64-bit word for each (the word and the bits from the
// coarse cell's hash). A cell found without them holds none for certain; one found with them may hold none
// (about 1 in 200 at 32 bits a position; a single bit a cell would be 1 in 30).
class CoarseFilter {
public:
    void resize(int log2_words) {
        m_words = std::vector<std::uint64_t>();
        m_words.assign(std::size_t{1} << log2_words, 0);
        m_shift = 64 - log2_words;
    }
    bool has(std::uint64_t hash) const { return (m_words[hash >> m_shift] & bits(hash)) == bits(hash); }
    void put(std::uint64_t hash) { m_words[hash >> m_shift] |= bits(hash); }
    void prefetch(std::uint64_t hash) const { __builtin_prefetch(&m_words[hash >> m_shift]); }

private:
    static std::uint64_t bits(std::uint64_t hash) {
        const std::uint64_t mixed = hash * 0xD6E8FEB86659FD93ull;
        return std::uint64_t{1} << (mixed >> 58) | std::uint64_t{1} << (mixed >> 52 & 63);
    }
    std::vector<std::uint64_t> m_words;
    int m_shift = 64;
};

// A position of the weld in pieces.
struct WeldPosition {
    Vec3f point;           // its bits, those of its first corner
    std::uint32_t rep;     // its representative
    std::uint32_t vertex;  // for a representative, its vertex; NONE until a kept triangle uses it
    std::uint32_t next;    // the next position of its cell, ascending; the last one leads back to the first
};

}  // namespace

struct MeshWelder::State {
    explicit State(float tolerance)
        : tolerance(tolerance), inverse(1.0 / static_cast<double>(tolerance)), local(PIECE_SLOTS, {{0, 0, 0}, NONE}) {
        rebuild(10);
    }

    const float tolerance;
    const double inverse;
    std::size_t triangles = 0;  // of all pieces added
    BlockArray<WeldPosition> positions;
    // The tables over the positions, 2^log2_slots slots each, made again twice as large from the positions
    // when these fill half of them.
    int log2_slots = 0;
    PositionSlots exact;  // by bits
    PositionSlots cells;  // by cell of the tolerance: the cell's last position
    // The coarse cells (COARSE_SHIFT) that hold a position, 32 to 64 bits a position: most new positions have
    // none in the coarse cells around and look no further.
    CoarseFilter coarse_cells;
    BlockArray<Vec3f> vertices;
    BlockArray<std::uint32_t> words;
    BlockArray<std::array<std::uint32_t, 3>> kept;

    // A batch of PIECE_TRIANGLES triangles at a time: its corners' bits, each once ("items", in the order of
    // their first corners), found in a table of the batch's own that stays in the core's cache; then the
    // items' places in the tables are fetched from memory together, before they are needed.
    struct LocalSlot {
        Bits bits;
        std::uint32_t item;
    };
    struct Item {
        Bits bits;
        Cell cell;
        std::uint64_t hash, cell_hash;
        std::uint32_t rep;
    };
    std::vector<LocalSlot> local;
    std::vector<std::uint32_t> taken;  // the local slots in use
    std::vector<Item> items;
    std::vector<std::uint32_t> corner_item;

    Cell cellAt(const Vec3f& p) const {
        return {SurfaceReconstruction::cellOf(p[0], inverse), SurfaceReconstruction::cellOf(p[1], inverse),
                SurfaceReconstruction::cellOf(p[2], inverse)};
    }
    bool near(const Vec3f& p, const Vec3f& q) const {
        return std::fabs(p[0] - q[0]) <= tolerance && std::fabs(p[1] - q[1]) <= tolerance &&
               std::fabs(p[2] - q[2]) <= tolerance;
    }
    bool coarseSet(const Cell& coarse_cell) const { return coarse_cells.has(hashOf(coarse_cell)); }
    std::uint32_t cellSlotOf(const Cell& cell, std::uint64_t hash) const {
        return cells.find(hash, [&](std::uint32_t r) { return same(cellAt(positions[r].point), cell); });
    }

    // Whether an earlier position may lie in one of the 27 cells around `cell`: whether one of the coarse cells
    // they lie in (its own, or up to 8 at the edge of its own) holds one. Also false for an earlier position
    // with the same bits, which lies in the same cell.
    bool mayHaveNear(const Cell& cell) const {
        if (coarseSet(coarse(cell)) || insideCoarse(cell)) return coarseSet(coarse(cell));
        std::int64_t around[3][3];
        int n[3];
        for (int k = 0; k < 3; ++k) {
            n[k] = 0;
            for (int d = -1; d <= 1; ++d) {
                const std::int64_t g = step(cell[k], d) >> COARSE_SHIFT;
                if (std::find(around[k], around[k] + n[k], g) == around[k] + n[k]) around[k][n[k]++] = g;
            }
        }
        for (int i = 0; i < n[0]; ++i)
            for (int j = 0; j < n[1]; ++j)
                for (int k = 0; k < n[2]; ++k)
                    if (coarseSet({around[0][i], around[1][j], around[2][k]})) return true;
        return false;
    }

    // The representative of a new position u at `p` in `cell`: the earliest representative among the earlier
    // positions in the 27 cells around that lies within the tolerance, else u itself.
    std::uint32_t representative(std::uint32_t u, const Vec3f& p, const Cell& cell) const {
        // The 27 cells' slots, then the positions in them, are fetched from memory together first.
        Cell keys[27];
        std::uint64_t hashes[27];
        for (int i = 0; i < 27; ++i) {
            keys[i] = {step(cell[0], i / 9 - 1), step(cell[1], i / 3 % 3 - 1), step(cell[2], i % 3 - 1)};
            hashes[i] = hashOf(keys[i]);
            cells.prefetch(hashes[i]);
        }
        for (int i = 0; i < 27; ++i) prefetchPosition(cells.first(hashes[i]));
        std::uint32_t best = u;
        for (int i = 0; i < 27; ++i) {
            const std::uint32_t last = cells.at(cellSlotOf(keys[i], hashes[i]));
            if (last == NONE) continue;
            for (std::uint32_t r = positions[last].next; r < best; r = positions[r].next) {
                const WeldPosition& q = positions[r];
                if (q.rep == r && near(p, q.point)) {
                    best = r;
                    break;
                }
                if (r == last) break;
            }
        }
        return best;
    }
    void prefetchPosition(std::uint32_t r) const {
        if (r != NONE) __builtin_prefetch(&positions[r]);
    }

    // The representative of an item's position, the position made when it is new.
    std::uint32_t repOf(const Item& item) {
        const std::uint32_t u = static_cast<std::uint32_t>(positions.size());
        Vec3f p;
        std::memcpy(p.data(), item.bits.data(), sizeof(p));
        if (!mayHaveNear(item.cell)) {  // new, alone in its cell: it goes into the first empty slots
            positions.push_back({p, u, NONE, u});
            exact.set(exact.empty(item.hash), u);
            cells.set(cells.empty(item.cell_hash), u);
        } else {
            const std::size_t slot = exact.find(item.hash, [&](std::uint32_t r) {
                Bits b;
                std::memcpy(b.data(), positions[r].point.data(), sizeof(b));
                return same(b, item.bits);
            });
            if (exact.at(slot) != NONE) return positions[exact.at(slot)].rep;
            positions.push_back({p, representative(u, p, item.cell), NONE, u});
            exact.set(slot, u);
            const std::size_t in_cells = cellSlotOf(item.cell, item.cell_hash);
            const std::uint32_t last = cells.at(in_cells);
            if (last != NONE) {  // u joins its cell's ring after the last one
                positions[u].next = positions[last].next;
                positions[last].next = u;
            }
            cells.set(in_cells, u);
        }
        coarse_cells.put(hashOf(coarse(item.cell)));
        if (2 * positions.size() > std::size_t{1} << log2_slots) rebuild(log2_slots + 1);
        return positions[u].rep;
    }

    // The tables at 2^log2 slots, from the positions, a batch at a time: the slots of a batch are fetched
    // from memory together. A cell's last position is the one whose ring leads back to a lower one (or itself).
    void rebuild(int log2) {
        log2_slots = log2;
        exact.resize(log2);
        cells.resize(log2);
        coarse_cells.resize(log2 - 2);
        constexpr std::uint32_t BATCH = 64;
        std::uint64_t hashes[BATCH], cell_hashes[BATCH], coarse_hashes[BATCH];
        const std::uint32_t count = static_cast<std::uint32_t>(positions.size());
        for (std::uint32_t begin = 0; begin < count; begin += BATCH) {
            const std::uint32_t end = std::min(count, begin + BATCH);
            for (std::uint32_t r = begin; r < end; ++r) {
                const WeldPosition& q = positions[r];
                Bits b;
                std::memcpy(b.data(), q.point.data(), sizeof(b));
                const Cell cell = cellAt(q.point);
                hashes[r - begin] = hashOf(b);
                cell_hashes[r - begin] = hashOf(cell);
                coarse_hashes[r - begin] = hashOf(coarse(cell));
                exact.prefetch(hashes[r - begin]);
                if (q.next <= r) cells.prefetch(cell_hashes[r - begin]);
                coarse_cells.prefetch(coarse_hashes[r - begin]);
            }
            for (std::uint32_t r = begin; r < end; ++r) {
                exact.set(exact.empty(hashes[r - begin]), r);
                if (positions[r].next <= r) cells.set(cells.empty(cell_hashes[r - begin]), r);
                coarse_cells.put(coarse_hashes[r - begin]);
            }
        }
    }

    void add(const MultiMeshData& piece) {
        for (std::size_t begin = 0; begin < piece.xyz.size(); begin += PIECE_TRIANGLES) {
            const std::size_t end = std::min(piece.xyz.size(), begin + PIECE_TRIANGLES);
            items.clear();
            corner_item.assign(3 * (end - begin), NONE);
            for (std::size_t t = begin; t < end; ++t)
                for (int v = 0; v < 3; ++v) {
                    Bits bits;
                    if (!cornerBits(piece, t, v, bits)) continue;
                    std::size_t s = hashOf(bits) >> PIECE_SHIFT;
                    while (local[s].item != NONE && !same(local[s].bits, bits)) s = (s + 1) & (PIECE_SLOTS - 1);
                    if (local[s].item == NONE) {
                        local[s] = {bits, static_cast<std::uint32_t>(items.size())};
                        taken.push_back(static_cast<std::uint32_t>(s));
                        items.push_back({bits, {}, 0, 0, NONE});
                    }
                    corner_item[3 * (t - begin) + v] = local[s].item;
                }
            for (std::uint32_t s : taken) local[s].item = NONE;
            taken.clear();
            for (Item& item : items) {
                Vec3f p;
                std::memcpy(p.data(), item.bits.data(), sizeof(p));
                item.cell = cellAt(p);
                item.hash = hashOf(item.bits);
                item.cell_hash = hashOf(item.cell);
                coarse_cells.prefetch(hashOf(coarse(item.cell)));
                exact.prefetch(item.hash);
                cells.prefetch(item.cell_hash);
            }
            for (const Item& item : items) prefetchPosition(exact.first(item.hash));
            for (Item& item : items) item.rep = repOf(item);
            for (std::size_t t = begin; t < end; ++t) {
                const std::uint32_t* c = &corner_item[3 * (t - begin)];
                if (c[0] == NONE || c[1] == NONE || c[2] == NONE) continue;
                std::array<std::uint32_t, 3> r = {items[c[0]].rep, items[c[1]].rep, items[c[2]].rep};
                if (r[0] == r[1] || r[0] == r[2] || r[1] == r[2]) continue;
                for (int v = 0; v < 3; ++v) {
                    WeldPosition& q = positions[r[v]];
                    if (q.vertex == NONE) {
                        q.vertex = static_cast<std::uint32_t>(vertices.size());
                        vertices.push_back(q.point);
                        words.push_back(0);
                    }
                    words[q.vertex] |= piece.w[t].w[v];
                    r[v] = q.vertex;
                }
                kept.push_back(r);
            }
        }
        triangles += piece.xyz.size();
    }
};

namespace {

// A union-find that threads join at once: a root is linked below a lower root, and a find halves the path
// it walks; the sets come out the same whatever the order of the joins.
class SharedUnionFind {
public:
    explicit SharedUnionFind(std::size_t n) : m_parent(n) { std::iota(m_parent.begin(), m_parent.end(), 0u); }
    std::uint32_t find(std::uint32_t x) {
        while (true) {
            std::uint32_t parent = loadRelaxed(m_parent[x]);
            if (parent == x) return x;
            const std::uint32_t grandparent = loadRelaxed(m_parent[parent]);
            // Only a root's parent is contended (by joins, which compare and swap it): any ancestor
            // written here, even over another thread's, keeps the sets.
            if (grandparent != parent) __atomic_store_n(&m_parent[x], grandparent, __ATOMIC_RELAXED);
            x = grandparent;
        }
    }
    void join(std::uint32_t a, std::uint32_t b) {
        while (true) {
            a = find(a);
            b = find(b);
            if (a == b) return;
            if (a < b) std::swap(a, b);
            std::uint32_t expected = a;  // a is still a root
            if (compareExchange(m_parent[a], expected, b)) return;
        }
    }
    bool isRoot(std::uint32_t x) const { return m_parent[x] == x; }  // once the joins are done

private:
    std::vector<std::uint32_t> m_parent;
};

double triangleArea(const IndexedMesh& mesh, const std::array<std::uint32_t, 3>& t) {
    const std::array<double, 3> n = crossOf(mesh, t);
    return 0.5 * std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
}

int describe(const IndexedMesh& mesh, MeshStatistics& statistics) {
    const std::size_t triangles = mesh.triangles.size();
    if (!mesh_internal::validSizes(mesh) || triangles > UINT32_MAX / 3) return 1;  // edge uses: 32-bit numbers
    MeshStatistics s;
    s.vertices = mesh.vertices.size();
    s.triangles = triangles;

    // Every edge use is counted at the lower vertex of its edge: each thread takes the edges whose lower
    // vertex lies in its share of the vertices, and finds the edges that one use alone has. On the way
    // it joins the pieces and measures the areas of the triangles whose first corner is its own. Every
    // thread sees every triangle: one with an index past the vertices stops them all.
    std::vector<std::vector<std::uint64_t>> single_parts(static_cast<std::size_t>(omp_get_max_threads()));
    std::vector<char> lowest(mesh.vertices.size(), 0);  // the lower vertex of an edge
    SharedUnionFind pieces(mesh.vertices.size());
    std::vector<double> areas(triangles);
    std::atomic<bool> invalid{false};
    onEachThread(triangles >= PARALLEL_MIN, [&](int thread, int threads) {
        const auto [lo, hi] = shareOf(mesh.vertices.size(), thread, threads);
        const auto mine = [lo = lo, hi = hi](std::uint32_t v) { return v - lo < hi - lo; };
        struct Use {
            std::uint32_t other;  // the edge's higher vertex
            std::uint32_t order;  // 3 x triangle + corner of the triangle's edge
        };
        std::vector<std::uint32_t> start(hi - lo + 1, 0);
        for (std::size_t i = 0; i < triangles; ++i) {
            const auto& t = mesh.triangles[i];
            if (t[0] >= mesh.vertices.size() || t[1] >= mesh.vertices.size() || t[2] >= mesh.vertices.size()) {
                invalid.store(true, std::memory_order_relaxed);
                return;
            }
            for (int e = 0; e < 3; ++e) {
                const std::uint32_t low = std::min(t[e], t[(e + 1) % 3]);
                if (mine(low)) ++start[low - lo + 1];
            }
            if (mine(t[0])) {
                pieces.join(t[0], t[1]);
                pieces.join(t[1], t[2]);
                areas[i] = triangleArea(mesh, t);
            }
        }
        for (std::size_t i = 0; i + 1 < start.size(); ++i) start[i + 1] += start[i];
        std::vector<Use> uses(start.back());
        std::vector<std::uint32_t> fill(start.begin(), start.end() - 1);
        for (std::size_t i = 0; i < triangles; ++i) {
            const auto& t = mesh.triangles[i];
            for (std::uint32_t e = 0; e < 3; ++e) {
                const std::uint32_t a = t[e], b = t[e == 2 ? 0 : e + 1], low = std::min(a, b);
                if (mine(low)) uses[fill[low - lo]++] = {std::max(a, b), static_cast<std::uint32_t>(3 * i) + e};
            }
        }
        auto& single = single_parts[static_cast<std::size_t>(thread)];
        for (std::size_t i = 0; i + 1 < start.size(); ++i) {
            lowest[lo + i] = start[i + 1] > start[i];
            // A vertex has a handful of uses: each is compared with the others, or, for a vertex with many,
            // they are sorted by the other vertex.
            const auto first = uses.begin() + start[i], last = uses.begin() + start[i + 1];
            if (last - first <= 32) {
                for (auto at = first; at != last; ++at) {
                    int uses_of_edge = 0;
                    for (auto other = first; other != last; ++other) uses_of_edge += other->other == at->other;
                    if (uses_of_edge == 1) single.push_back(at->order);
                }
                continue;
            }
            std::sort(first, last, [](const Use& x, const Use& y) { return x.other < y.other; });
            for (auto at = first; at != last;) {
                auto run = at + 1;
                while (run != last && run->other == at->other) ++run;
                if (run - at == 1) single.push_back(at->order);
                at = run;
            }
        }
    });
    if (invalid.load()) return 1;
    std::vector<std::uint64_t> single;
    for (const auto& part : single_parts) single.insert(single.end(), part.begin(), part.end());
    std::sort(single.begin(), single.end());
    s.boundary_edges = single.size();
    s.boundary_loops = mesh_internal::boundaryLoops(mesh, single).size();
    for (const double area : areas) s.area += area;  // in triangle order, as one thread adds them
    // A piece's root is its lowest vertex (joins link a root below a lower one), which is the lower vertex
    // of its triangles' edges; a vertex that no triangle uses is no piece.
    for (std::uint32_t v = 0; v < mesh.vertices.size(); ++v)
        if (lowest[v] && pieces.isRoot(v)) ++s.pieces;
    statistics = s;
    return 0;
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

MeshWelder::MeshWelder(float tolerance) noexcept : m_tolerance(tolerance) {}
MeshWelder::~MeshWelder() = default;
MeshWelder::MeshWelder(MeshWelder&&) noexcept = default;
MeshWelder& MeshWelder::operator=(MeshWelder&&) noexcept = default;

int MeshWelder::add(const MultiMeshData& piece) {
    if (m_failure != 0) return m_failure;
    if (!(m_tolerance > 0.0f) || !std::isfinite(m_tolerance) || piece.w.size() != piece.xyz.size()) return 1;
    const std::size_t before = m_state ? m_state->triangles : 0;
    if (piece.xyz.size() >= UINT32_MAX / 3 - before) return 1;  // weldMesh's limit over all pieces
    const int status = guarded([&] {
        if (!m_state) m_state = std::make_unique<State>(m_tolerance);
        m_state->add(piece);
        return 0;
    });
    if (status != 0) {  // the weld stopped part of the way through the piece
        m_failure = status;
        m_state.reset();
    }
    return status;
}

int MeshWelder::finish(IndexedMesh& mesh, std::size_t* degenerate) {
    mesh = IndexedMesh();
    if (degenerate) *degenerate = 0;
    std::unique_ptr<State> state = std::move(m_state);
    const int failure = m_failure;
    m_failure = 0;
    if (failure != 0) return failure;
    if (!(m_tolerance > 0.0f) || !std::isfinite(m_tolerance)) return 1;
    if (!state) return 0;  // no triangles: weldMesh's empty mesh
    const int status = guarded([&] {
        // The tables go before the mesh is put together, block by block.
        const std::size_t triangles = state->triangles;
        BlockArray<Vec3f> vertices = std::move(state->vertices);
        BlockArray<std::uint32_t> words = std::move(state->words);
        BlockArray<std::array<std::uint32_t, 3>> kept = std::move(state->kept);
        state.reset();
        vertices.moveInto(mesh.vertices);
        words.moveInto(mesh.words);
        kept.moveInto(mesh.triangles);
        if (degenerate) *degenerate = triangles - mesh.triangles.size();
        mesh.normals = vertexNormals(mesh);
        return 0;
    });
    if (status != 0) {
        mesh = IndexedMesh();
        if (degenerate) *degenerate = 0;
    }
    return status;
}

int computeVertexNormals(IndexedMesh& mesh) {
    return guarded([&] {
        if (!mesh_internal::validIndices(mesh)) return 1;
        mesh.normals = vertexNormals(mesh);
        return 0;
    });
}

int describeMesh(const IndexedMesh& mesh, MeshStatistics& statistics) {
    return guarded([&] { return describe(mesh, statistics); });
}

}  // namespace SurfaceReconstruction
