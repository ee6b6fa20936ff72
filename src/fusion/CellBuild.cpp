// From bins to cells: the octree cells of each bin with the relation lists that their fields are
// computed from, flattened for the field computation.
//
// Which bin creates a cell's record, and whether a finer subtree exists before a coarser bin turns its
// ancestor into a leaf, would depend on thread timing if the bins were walked in parallel. The walk
// that shapes the tree is therefore made in bin order, and only what does not shape it runs in
// parallel: the neighbourhood searches of the records and the flattening. The result is that of one
// thread, on every run and for any thread count.
//
// The records of the block's cells go straight into the flat array, in the order they are made; the
// searches append to one list a thread, from which the relations are copied into place.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/Diagnostics.h"
#include "common/GridHash.h"
#include "common/MemoryFailure.h"
#include "common/Morton.h"
#include "fusion/MarchingCubes.h"
#include "tessaline/Tessaline.h"
#include "volume/HashOctree.h"

namespace SurfaceReconstruction {

namespace {

constexpr int MAX_FINE_REACH = 5;     // the largest reach of searchReach
constexpr int MAX_COARSE_STEPS = 64;  // 3 x the largest ratio of a coarse cell to a bin (8 / 1), with room

int searchReach(float size, float wide_search_edge) {
    if (size >= wide_search_edge) return 1;
    return size > 0.05f ? 3 : MAX_FINE_REACH;
}

// The word of the cells a bin makes: the scale, the flag byte of its points and their bits 16-31.
std::uint32_t cellWord(const BinsHeader& bin, std::uint8_t scale) {
    return static_cast<std::uint32_t>(scale) | (static_cast<std::uint32_t>(bin.bin_flags) << 8) |
           (static_cast<std::uint32_t>(bin.word_high) << 16);
}

// The bits of a brick's word (four keys along x, then y, then z) of a range of keys on each axis: the
// copies of the x range that the products place never overlap, so they add without carries.
constexpr std::uint64_t alongX(int a, int b) { return ((std::uint64_t{2} << b) - 1) & ~((std::uint64_t{1} << a) - 1); }
constexpr std::uint64_t everyFourth(int a, int b) {  // a 1 at bit 4 y for y in [a, b]
    std::uint64_t v = 0;
    for (int y = a; y <= b; ++y) v |= std::uint64_t{1} << (4 * y);
    return v;
}
constexpr std::uint64_t everySixteenth(int a, int b) {  // a 1 at bit 16 z for z in [a, b]
    std::uint64_t v = 0;
    for (int z = a; z <= b; ++z) v |= std::uint64_t{1} << (16 * z);
    return v;
}
template <std::uint64_t (*F)(int, int)>
struct RangeTable {
    std::uint64_t of[4][4] = {};
    constexpr RangeTable() {
        for (int a = 0; a < 4; ++a)
            for (int b = a; b < 4; ++b) of[a][b] = F(a, b);
    }
};
constexpr RangeTable<alongX> ALONG_X{};
constexpr RangeTable<everyFourth> ALONG_Y{};
constexpr RangeTable<everySixteenth> ALONG_Z{};

// The place of each bit of a brick's word in a box of Size keys an axis: (x * Size + y) * Size + z.
template <int Size>
struct BrickPlaces {
    int of[64] = {};
    constexpr BrickPlaces() {
        for (int bit = 0; bit < 64; ++bit) of[bit] = ((bit & 3) * Size + ((bit >> 2) & 3)) * Size + (bit >> 4);
    }
};
template <int Size>
constexpr BrickPlaces<Size> BRICK_PLACES{};

// For each of the 27 cells around a bin (t = (dx + 1) * 9 + (dy + 1) * 3 + dz + 1), the places of the
// 3 x 3 x 3 keys around the cell in the box of 5 x 5 x 5 keys around the bin, as bits of two words.
struct CellsAround {
    std::uint64_t of[27][2] = {};
    constexpr CellsAround() {
        for (int t = 0; t < 27; ++t)
            for (int x = t / 9; x < t / 9 + 3; ++x)
                for (int y = (t / 3) % 3; y < (t / 3) % 3 + 3; ++y)
                    for (int z = t % 3; z < t % 3 + 3; ++z) {
                        const int place = (x * 5 + y) * 5 + z;
                        of[t][place >> 6] |= std::uint64_t{1} << (place & 63);
                    }
    }
};
constexpr CellsAround CELL_AROUND{};

// For each of the 27 cells around a bin, the places (x * 7 + y) * 7 + z in the box of 7 x 7 x 7 keys around the
// bin of the 3 x 3 x 3 keys around the cell (inner) and of the ring of the 5 x 5 x 5 around them (ring), as bits.
struct AroundCell {
    std::uint64_t inner[27][6] = {}, ring[27][6] = {};
    constexpr AroundCell() {
        for (int t = 0; t < 27; ++t) {
            const int cx = t / 9 + 2, cy = (t / 3) % 3 + 2, cz = t % 3 + 2;
            for (int x = cx - 2; x <= cx + 2; ++x)
                for (int y = cy - 2; y <= cy + 2; ++y)
                    for (int z = cz - 2; z <= cz + 2; ++z) {
                        const int place = (x * 7 + y) * 7 + z;
                        const bool in =
                            x >= cx - 1 && x <= cx + 1 && y >= cy - 1 && y <= cy + 1 && z >= cz - 1 && z <= cz + 1;
                        (in ? inner : ring)[t][place >> 6] |= std::uint64_t{1} << (place & 63);
                    }
        }
    }
};
constexpr AroundCell AROUND_CELL{};

// The bitmap of a block's occupied bin keys (MarchingCubes::buildBinBitmap).
struct BitmapView {
    const std::uint64_t* words;
    const std::int32_t* word_rank;
    const std::int32_t* min;
    const std::int64_t* dim;  // bricks along each axis

    // take(place, rank) for each occupied key of the box of Size keys an axis from `lo`, brick by brick; the
    // place is (x * Size + y) * Size + z within the box.
    template <int Size, class Take>
    void forEachInBox(const std::int32_t lo[3], Take&& take) const {
        std::int64_t first[3], last[3], corner[3];  // the box's keys within the bitmap, and its corner
        for (int k = 0; k < 3; ++k) {
            corner[k] = static_cast<std::int64_t>(lo[k]) - min[k];
            first[k] = std::max<std::int64_t>(corner[k], 0);
            last[k] = std::min<std::int64_t>(corner[k] + Size - 1, dim[k] * 4 - 1);
            if (first[k] > last[k]) return;
        }
        for (std::int64_t bz = first[2] >> 2; bz <= last[2] >> 2; ++bz) {
            const std::uint64_t along_z =
                ALONG_Z.of[std::max(first[2], bz * 4) - bz * 4][std::min(last[2], bz * 4 + 3) - bz * 4];
            for (std::int64_t by = first[1] >> 2; by <= last[1] >> 2; ++by) {
                const std::uint64_t along_yz =
                    ALONG_Y.of[std::max(first[1], by * 4) - by * 4][std::min(last[1], by * 4 + 3) - by * 4] * along_z;
                for (std::int64_t bx = first[0] >> 2; bx <= last[0] >> 2; ++bx) {
                    const std::size_t word_index = static_cast<std::size_t>((bz * dim[1] + by) * dim[0] + bx);
                    const std::uint64_t word = words[word_index];
                    const std::uint64_t mask =
                        ALONG_X.of[std::max(first[0], bx * 4) - bx * 4][std::min(last[0], bx * 4 + 3) - bx * 4] *
                        along_yz;
                    std::uint64_t hits = word & mask;
                    if (hits == 0) continue;
                    // The box's place of the brick's first key; each bit adds its own place within the brick.
                    const std::int64_t origin =
                        ((bx * 4 - corner[0]) * Size + (by * 4 - corner[1])) * Size + (bz * 4 - corner[2]);
                    const std::int32_t base = word_rank[word_index];
                    for (; hits != 0; hits &= hits - 1) {
                        const int bit = __builtin_ctzll(hits);
                        take(origin + BRICK_PLACES<Size>.of[bit],
                             base + bitCount64(word & ((std::uint64_t{1} << bit) - 1)));
                    }
                }
            }
        }
    }
};

}  // namespace

void CellBuildBuffers::release() {
    spare.reset();
    last_points = 0;
    UninitialisedArray<PendingSearch>().swap(pending);
    UninitialisedArray<std::int32_t>().swap(found);
    UninitialisedArray<std::int64_t>().swap(found_at);
    UninitialisedArray<std::uint16_t>().swap(found_by);
    UninitialisedArray<std::int32_t>().swap(visit_points);
    UninitialisedArray<std::uint8_t>().swap(visit_widened);
    UninitialisedArray<CellNode*>().swap(leaves);
    UninitialisedArray<std::int64_t>().swap(offsets);
    std::vector<UninitialisedArray<RelationCell2Bins_Device>>().swap(lists);
    UninitialisedArray<VoxelFieldCenter>().swap(centres);
}

void CellBuildBuffers::fitTo(std::size_t points) {
    const double share = last_points > 0 ? static_cast<double>(points) / static_cast<double>(last_points) : 1.0;
    const auto fit = [share](auto& array) { releasePagesBeyond(array, likelyNeed(array.size(), share)); };
    if (spare) {
        fit(spare->cell_nodes);
        fit(spare->relations);
    }
    fit(pending);
    fit(found);
    fit(found_at);
    fit(found_by);
    fit(visit_points);
    fit(visit_widened);
    fit(leaves);
    fit(offsets);
    for (UninitialisedArray<RelationCell2Bins_Device>& list : lists) fit(list);
    fit(centres);
    last_points = points;
}

// The steps of MarchingCubes::buildOctreeAndRelations for one block, and the state they share: the walk
// that shapes the tree and makes the records, the neighbourhood searches that find each record's bins,
// and the flattening of what they found into one array.
class MarchingCubes::CellBuild {
public:
    CellBuild(MarchingCubes& mc, const std::vector<BinsHeader>& bins_header, const HashRootCellData& root);

    // Under one scale, which of the 27 cells around each bin the bin visits first. False where the block
    // takes the walk over all bins instead: more than one scale, or keys that do not follow the offsets.
    bool findFirstVisits();
    // The walk over all bins in bin order, each visiting the cells of its scale.
    void walkBinsInOrder();
    // More than one scale: the walk over all bins on one thread while the others search the records it
    // has made so far, each record's search once, as searchByRecord makes it. False, with nothing done,
    // where the room for the most records the walk can make is not there: the walk and the searches then
    // take their turns.
    bool walkAndSearchRecords();
    // What the searches read of the bins, and their output emptied.
    void prepareSearches();
    // One scale: the walk of the first visits, with the searches of their cells beside it. False where the
    // walk met something in the way and the records still wait for their own searches.
    bool walkAndSearchFirstVisits();
    // Each record's own search, once, into the list of the thread that runs it.
    void searchByRecord();
    // The records that moved into the records of the leaves that absorbed their cells.
    void applyAbsorptions();
    // Each cell's relations together, in record order; non-zero where they do not fit.
    int flatten(std::shared_ptr<CellNodeAndRelations>& cell_node_and_relations);

private:
    template <class Take>
    class Search;
    // The ranks of the occupied keys of the 7 x 7 x 7 around a bin, and which are occupied, as bits of
    // their places (x * 7 + y) * 7 + z.
    struct BinsAround {
        std::int32_t rank[343];
        std::uint64_t occupied[6] = {};
    };

    // The record of a leaf reached for the first time, with its pending search.
    void makeRecord(CellNode* leaf, const float pos[3], std::uint32_t word, const PendingSearch& search);
    // Finer bins got to a leaf's place first: their records move into the leaf's, depth first.
    void absorbFinerRecords(CellNode* leaf);
    // What a visit does with the leaf it reached.
    bool visitLeaf(CellNode* leaf, const float pos[3], std::uint32_t word, const PendingSearch& search);
    // The cell at `pos` of the wished size, its record made by the first bin that reaches it.
    bool visitCell(const float pos[3], float target_half, std::uint32_t word, const PendingSearch& search);

    // The bins of the keys (x, y, z) to (x, y, z + n - 1), in that order: take(bin index, k) for the
    // bin at z + k. With the bitmap, visitRowRanks's take_rank(rank, k) sees the rank of each occupied
    // key: bins by rank lie in space order, where their bin indices do not.
    template <class TakeRank>
    void visitRowRanks(std::int32_t x, std::int32_t y, std::int32_t z, int n, TakeRank&& take_rank) const;
    template <class Take>
    void visitRow(std::int32_t x, std::int32_t y, std::int32_t z, int n, Take&& take) const;

    // Whether each neighbour cell's key is bin b's key plus the offset.
    bool keysFollowOffsets(const BinsHeader& bin, const std::int32_t own[3], std::int64_t b) const;
    // Bit t: bin b, at key `own`, is the first visitor of its t-th neighbour cell; from the bitmap, or
    // from the bins of the rows around it.
    std::uint32_t firstVisitsByBitmap(std::int64_t b, const std::int32_t own[3]) const;
    std::uint32_t firstVisitsByRows(std::int64_t b, const std::int32_t own[3]) const;

    // The cells a bin visits, by its scale: the default one, coarser and finer.
    void visitDefaultCells(const BinsHeader& bin, std::uint32_t word);
    void visitCoarseCells(const BinsHeader& bin, std::uint8_t scale, std::uint32_t word);
    void visitFineCells(const BinsHeader& bin, std::uint8_t scale, std::uint32_t word);

    // The search of a record, around its position at the size of the bin that made it: `take` sees every
    // bin found, in search order. Returns the points found and whether the search was widened.
    template <class Take>
    std::pair<std::int32_t, bool> search(const PendingSearch& p, Take&& take) const;

    // The centre of the neighbour cell of a bin at offset (dx, dy, dz), at the default scale.
    void neighbourCentre(const BinsHeader& bin, int dx, int dy, int dz, float pos[3]) const {
        pos[0] = bin.center[0] + static_cast<float>(dx) * r;
        pos[1] = bin.center[1] + static_cast<float>(dy) * r;
        pos[2] = bin.center[2] + static_cast<float>(dz) * r;
    }
    // A visit outside the block's root cell makes no cell: it is neither walked nor searched.
    void dropVisitsOutsideRoot();
    // Where each bin's first visits begin among all of them, and the per-visit arrays sized.
    void numberVisits();
    // The walk of the first visits, in bin order, on one thread.
    void walkFirstVisits();
    // A first visit while every visit so far reached a new leaf: the leaf is numbered, or the walk turns
    // into the ordinary one from here on.
    void walkFirstVisit(std::size_t b, const float pos[3], std::uint32_t word, std::int64_t& made);
    // The records and pending searches of the visits of bins [from, to) before visit `end`.
    void makeVisitRecords(std::int64_t from, std::int64_t to, std::int64_t end, bool searched);
    // The searches of bin b's first visits into `list`, the list of `thread`.
    void searchFirstVisitsOf(std::int64_t b, int thread, bool around_bins,
                             UninitialisedArray<RelationCell2Bins_Device>& list);
    void readBinsAround(const BinsHeader& bin, BinsAround& around) const;
    std::pair<std::int32_t, bool> takeAroundCell(const BinsAround& around, int t,
                                                 UninitialisedArray<RelationCell2Bins_Device>& list) const;

    // take(s) for the searches whose relations record i takes, in order.
    template <class Take>
    void forEachSearchOf(std::int64_t i, Take&& take) const;
    // Where each record's relations begin in the flat array; the number of them all.
    std::int64_t relationOffsets(std::int64_t n);
    // first_use[slice * threads + t]: where in thread t's list the searches that the records of that slice
    // and the later ones copy begin.
    std::vector<std::int64_t> firstUses(std::int64_t n, std::int64_t slices) const;
    void copyRelations(std::int64_t n);

    static constexpr std::int64_t FLATTEN_SLICE = 65536;

    MarchingCubes& mc;
    const std::vector<BinsHeader>& bins_header;
    const HashRootCellData& root;
    const float r;
    const std::int64_t bin_count;
    const BitmapView bitmap;
    CellBuildBuffers& buffers;
    std::shared_ptr<CellNodeAndRelations> flat;
    UninitialisedArray<CellNode_Device>& records;
    UninitialisedArray<PendingSearch>& pending;
    std::vector<Absorption> absorptions;
    DescentPath path;
    // The visits of the walk over all bins that found a leaf with its record and no finer cells: a later
    // visit of the same position and size reaches the same leaf and does nothing, unless a coarser cell
    // has absorbed records since (the epoch counts those), so it skips the descent.
    struct DoneVisit {
        float pos[3];
        float half;
        std::uint64_t epoch;  // 0: an empty entry
    };
    static constexpr std::size_t DONE_VISITS = 4096;
    std::vector<DoneVisit> done_visits;
    std::uint64_t absorb_epoch = 1;
    std::vector<std::uint32_t> first_visits;  // per bin, bit t: its t-th neighbour cell is a first visit
    float wide_search_edge = 0.0f;
    // What a search takes of a bin, apart from the large headers, which it would otherwise pull through
    // the cache for two numbers; and the same by the bitmap's rank, for the searches along rows.
    std::vector<RelationCell2Bins_Device> runs;
    std::vector<RelationCell2Bins_Device> runs_by_rank;
    std::vector<std::int64_t> visit_start;  // per bin, its first visits' place among all
    std::int64_t visits = 0;
    bool one_record_a_visit = true;
    // While the searches run beside the walk: the records whose pending searches are there to read.
    std::atomic<std::int64_t>* published = nullptr;
    // For records that absorbed others or moved on: the searches whose relations they take.
    std::unordered_map<std::int32_t, std::vector<std::int32_t>> moved_lists;
};

namespace {

// The arrays of the former block are used again where nothing else holds them.
std::shared_ptr<CellNodeAndRelations> reusedFlat(CellBuildBuffers& buffers) {
    std::shared_ptr<CellNodeAndRelations> flat = std::move(buffers.spare);
    if (!flat) flat = std::make_shared<CellNodeAndRelations>();
    flat->cell_nodes.clear();
    flat->relations.clear();
    flat->cell_node_size = 0;
    flat->relation_size = 0;
    return flat;
}

}  // namespace

MarchingCubes::CellBuild::CellBuild(MarchingCubes& mc, const std::vector<BinsHeader>& bins_header,
                                    const HashRootCellData& root)
    : mc(mc),
      bins_header(bins_header),
      root(root),
      r(mc.m_resolution),
      bin_count(static_cast<std::int64_t>(bins_header.size())),
      bitmap{mc.m_bin_bitmap.data(), mc.m_bitmap_rank.data(), mc.m_bitmap_min, mc.m_bitmap_dim},
      buffers(mc.m_cell_buffers),
      flat(reusedFlat(mc.m_cell_buffers)),
      records(flat->cell_nodes),
      pending(mc.m_cell_buffers.pending) {
    pending.clear();
    // About four cells a bin on a surface: room for that up front spares most regrowth of the arrays.
    records.reserve(bins_header.size() * 4);
    pending.reserve(bins_header.size() * 4);
}

// ---- The tree walk ----

void MarchingCubes::CellBuild::makeRecord(CellNode* leaf, const float pos[3], std::uint32_t word,
                                          const PendingSearch& search) {
    const std::int32_t index = static_cast<std::int32_t>(records.size());
    try {
        CellNode_Device record = emptyCellNodeDevice();
        record.cell = leaf;
        for (int k = 0; k < 3; ++k) record.center[k] = leaf->center[k];
        record.half_size = leaf->half_size;
        record.point_count = 0;
        record.word = word;
        records.push_back(record);
        PendingSearch p = search;
        for (int k = 0; k < 3; ++k) p.pos[k] = pos[k];
        // While searches read the pending ones, the array has room for all the walk can make.
        if (published != nullptr && pending.size() == pending.capacity())
            throw std::length_error("more records than a walk over the block can make");
        pending.push_back(p);
        if (published != nullptr)
            published->store(static_cast<std::int64_t>(pending.size()), std::memory_order_release);
    } catch (const std::bad_alloc&) {
        // No room for the record: the block fails (a cell left out would leave a hole unsaid).
        if (records.size() > static_cast<std::size_t>(index)) records.pop_back();
        throw;
    }
    leaf->data_id = index;
    leaf->data_state = 1;
}

void MarchingCubes::CellBuild::absorbFinerRecords(CellNode* leaf) {
    ++absorb_epoch;
    std::vector<std::pair<CellNode*, int>> stack{{leaf, 0}};
    while (!stack.empty()) {
        auto& [node, next_child] = stack.back();
        if (node->child_count > 0 && next_child < 8) {
            CellNode* child = node->child(next_child++);
            if (child) stack.push_back({child, 0});
            continue;
        }
        if (node != leaf && node->data_state == 1 && node->data_id >= 0)
            absorptions.push_back({leaf->data_id, node->data_id});
        node->child_count = 0;
        stack.pop_back();
    }
}

bool MarchingCubes::CellBuild::visitLeaf(CellNode* leaf, const float pos[3], std::uint32_t word,
                                         const PendingSearch& search) {
    if (leaf->data_id == -1) makeRecord(leaf, pos, word, search);
    if (leaf->child_count > 0) absorbFinerRecords(leaf);
    return true;
}

namespace {

std::uint32_t floatBits(float v) {
    std::uint32_t u;
    std::memcpy(&u, &v, sizeof u);
    return u;
}

bool sameVisit(const float a[3], float a_half, const float b[3], float b_half) {
    return floatBits(a[0]) == floatBits(b[0]) && floatBits(a[1]) == floatBits(b[1]) &&
           floatBits(a[2]) == floatBits(b[2]) && floatBits(a_half) == floatBits(b_half);
}

}  // namespace

bool MarchingCubes::CellBuild::visitCell(const float pos[3], float target_half, std::uint32_t word,
                                         const PendingSearch& search) {
    if (done_visits.empty()) done_visits.assign(DONE_VISITS, DoneVisit{{0.0f, 0.0f, 0.0f}, 0.0f, 0});
    std::uint64_t h = (static_cast<std::uint64_t>(floatBits(pos[0])) * 0x9E3779B97F4A7C15ull) ^
                      (static_cast<std::uint64_t>(floatBits(pos[1])) * 0xC2B2AE3D27D4EB4Full) ^
                      (static_cast<std::uint64_t>(floatBits(pos[2])) * 0x165667B19E3779F9ull) ^
                      static_cast<std::uint64_t>(floatBits(target_half));
    DoneVisit& done = done_visits[(h >> 40) & (DONE_VISITS - 1)];
    if (done.epoch == absorb_epoch && sameVisit(done.pos, done.half, pos, target_half)) return true;
    CellNode* leaf = nullptr;
    const int inserted = mc.m_hash_octree->insertLeafNodeAlongPath(root, pos, target_half, path, leaf);
    // The cell pool full fails the block; a position outside the root makes no cell.
    if (inserted == TESSALINE_OUT_OF_MEMORY) throw OutOfMemory(0);
    if (inserted != 0) return true;
    const bool ok = visitLeaf(leaf, pos, word, search);
    if (leaf->data_id != -1 && leaf->child_count == 0)
        done = DoneVisit{{pos[0], pos[1], pos[2]}, target_half, absorb_epoch};
    return ok;
}

// ---- The bins along rows of keys ----

template <class TakeRank>
void MarchingCubes::CellBuild::visitRowRanks(std::int32_t x, std::int32_t y, std::int32_t z, int n,
                                             TakeRank&& take_rank) const {
    const std::int64_t dx = static_cast<std::int64_t>(x) - mc.m_bitmap_min[0];
    const std::int64_t dy = static_cast<std::int64_t>(y) - mc.m_bitmap_min[1];
    if (dx < 0 || dy < 0 || (dx >> 2) >= mc.m_bitmap_dim[0] || (dy >> 2) >= mc.m_bitmap_dim[1]) return;
    const std::int64_t column = (dy >> 2) * mc.m_bitmap_dim[0] + (dx >> 2);
    const std::int64_t layer = mc.m_bitmap_dim[1] * mc.m_bitmap_dim[0];
    const int low = static_cast<int>(((dy & 3) << 2) + (dx & 3));
    // The row's keys within the bitmap, then brick by brick along z: the row holds 4 bits of a
    // brick's word, 16 apart, and only the bins there are looked at, in rising z.
    const std::int64_t first = std::max<std::int64_t>(static_cast<std::int64_t>(z) - mc.m_bitmap_min[2], 0);
    const std::int64_t last =
        std::min<std::int64_t>(static_cast<std::int64_t>(z) + n - 1 - mc.m_bitmap_min[2], mc.m_bitmap_dim[2] * 4 - 1);
    for (std::int64_t brick = first >> 2; brick <= last >> 2; ++brick) {
        std::uint64_t row = 0;
        for (std::int64_t q = std::max(first, brick * 4); q <= std::min(last, brick * 4 + 3); ++q)
            row |= std::uint64_t{1} << (low + 16 * (q & 3));
        const std::size_t word_index = static_cast<std::size_t>(brick * layer + column);
        const std::uint64_t word = mc.m_bin_bitmap[word_index];
        for (std::uint64_t hits = word & row; hits != 0; hits &= hits - 1) {
            const std::uint64_t below = hits & (~hits + 1);  // the lowest bit left
            const int q = (__builtin_ctzll(below) - low) >> 4;
            take_rank(mc.m_bitmap_rank[word_index] + bitCount64(word & (below - 1)),
                      static_cast<int>(brick * 4 + q - (static_cast<std::int64_t>(z) - mc.m_bitmap_min[2])));
        }
    }
}

template <class Take>
void MarchingCubes::CellBuild::visitRow(std::int32_t x, std::int32_t y, std::int32_t z, int n, Take&& take) const {
    if (!mc.m_bitmap_valid) {
        for (int k = 0; k < n; ++k) {
            const std::int32_t id = mc.findBin(x, y, z + k);
            if (id >= 0) take(id, k);
        }
        return;
    }
    visitRowRanks(x, y, z, n,
                  [&](std::int64_t rank, int k) { take(mc.m_rank_to_bin[static_cast<std::size_t>(rank)], k); });
}

// ---- The first visits under one scale ----
//
// A block whose bins all ask for the default scale makes cells of one size only, one at each bin key
// and next to one, and no cell absorbs another: which bin makes a cell's record is then the first bin
// in bin order with the cell in its 3 x 3 x 3 neighbourhood, found for all cells at once on all cores.
// Only those first visits walk the tree, in the order the walk over all bins would make them; the
// others would find the record made.

bool MarchingCubes::CellBuild::findFirstVisits() {
    bool one_scale = bin_count > 0;
#pragma omp parallel for schedule(static) reduction(&& : one_scale)
    for (std::int64_t b = 0; b < bin_count; ++b)
        one_scale = one_scale && static_cast<std::uint8_t>(bins_header[static_cast<std::size_t>(b)].bin_sub_scale) == 8;
    if (!one_scale) return false;
    first_visits.assign(static_cast<std::size_t>(bin_count), 0u);
    bool keys_agree = true;  // each cell's key is its bin's key plus the offset
#pragma omp parallel for schedule(static) reduction(&& : keys_agree)
    for (std::int64_t b = 0; b < bin_count; ++b) {
        const BinsHeader& bin = bins_header[static_cast<std::size_t>(b)];
        std::int32_t own[3];
        gridKey(bin.center, r, own);
        if (!keysFollowOffsets(bin, own, b)) keys_agree = false;
        first_visits[static_cast<std::size_t>(b)] =
            mc.m_bitmap_valid ? firstVisitsByBitmap(b, own) : firstVisitsByRows(b, own);
    }
    if (!keys_agree) first_visits.clear();
    return !first_visits.empty();
}

bool MarchingCubes::CellBuild::keysFollowOffsets(const BinsHeader& bin, const std::int32_t own[3],
                                                 std::int64_t b) const {
    bool agree = true;
    if (mc.findBin(own[0], own[1], own[2]) != b) agree = false;
    // The key of a neighbour cell's position on one axis depends on that axis's step alone.
    for (int axis = 0; axis < 3; ++axis)
        for (int d = -1; d <= 1; ++d)
            if (gridIndex(bin.center[axis] + static_cast<float>(d) * r, r) != own[axis] + d) agree = false;
    return agree;
}

// A cell's first visitor is the smallest bin index of the 3 x 3 x 3 keys around the cell, this bin's among
// them: this bin is it where none of those keys holds a smaller index. With the bitmap, the places of the
// 5 x 5 x 5 keys around this one that hold a smaller index, as bits.
std::uint32_t MarchingCubes::CellBuild::firstVisitsByBitmap(std::int64_t b, const std::int32_t own[3]) const {
    std::uint64_t smaller[2] = {0, 0};
    const std::int32_t lo[3] = {own[0] - 2, own[1] - 2, own[2] - 2};
    bitmap.forEachInBox<5>(lo, [&](std::int64_t place, std::int32_t rank) {
        if (mc.m_rank_to_bin[static_cast<std::size_t>(rank)] < b)
            smaller[place >> 6] |= std::uint64_t{1} << (place & 63);
    });
    std::uint32_t mask = 0;
    for (int t = 0; t < 27; ++t)
        if (((smaller[0] & CELL_AROUND.of[t][0]) | (smaller[1] & CELL_AROUND.of[t][1])) == 0)
            mask |= std::uint32_t{1} << t;
    return mask;
}

// Without the bitmap, the bins of the 5 x 5 x 5 keys around this one, a missing bin as the largest index,
// and the smallest index around each cell taken axis by axis.
std::uint32_t MarchingCubes::CellBuild::firstVisitsByRows(std::int64_t b, const std::int32_t own[3]) const {
    std::uint32_t ids[5][5][5];  // [x][y][z]
    for (int x = 0; x < 5; ++x)
        for (int y = 0; y < 5; ++y) {
            std::uint32_t* row = ids[x][y];
            for (int z = 0; z < 5; ++z) row[z] = UINT32_MAX;
            visitRow(own[0] + x - 2, own[1] + y - 2, own[2] - 2, 5,
                     [row](std::int32_t id, int k) { row[k] = static_cast<std::uint32_t>(id); });
        }
    std::uint32_t along_z[5][5][3], along_y[5][3][3];
    for (int x = 0; x < 5; ++x)
        for (int y = 0; y < 5; ++y)
            for (int z = 0; z < 3; ++z) along_z[x][y][z] = std::min({ids[x][y][z], ids[x][y][z + 1], ids[x][y][z + 2]});
    for (int x = 0; x < 5; ++x)
        for (int y = 0; y < 3; ++y)
            for (int z = 0; z < 3; ++z)
                along_y[x][y][z] = std::min({along_z[x][y][z], along_z[x][y + 1][z], along_z[x][y + 2][z]});
    std::uint32_t mask = 0;
    int t = 0;
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy)
            for (int dz = -1; dz <= 1; ++dz, ++t) {
                const int x = dx + 1, y = dy + 1, z = dz + 1;
                const std::uint32_t first = std::min({along_y[x][y][z], along_y[x + 1][y][z], along_y[x + 2][y][z]});
                if (first == static_cast<std::uint32_t>(b)) mask |= std::uint32_t{1} << t;
            }
    return mask;
}

// ---- The walk over all bins ----

void MarchingCubes::CellBuild::walkBinsInOrder() {
    for (std::size_t b = 0; b < bins_header.size(); ++b) {
        const BinsHeader& bin = bins_header[b];
        std::uint8_t scale = static_cast<std::uint8_t>(bin.bin_sub_scale);
        if (scale == static_cast<std::uint8_t>(SUB_SCALE_NANE)) {
            diagnostic("[MarchingCubes] buildOctreeAndRelationsByBins error (bin_sub_scale == SUB_SCALE_NANE)!\n");
            scale = 8;  // its points are not lost: the bin counts as one of the default scale
        }
        const std::uint32_t word = cellWord(bin, scale);
        if (scale == 8) {
            visitDefaultCells(bin, word);
        } else if (scale < 8) {
            visitCoarseCells(bin, scale, word);
        } else if (scale == 16 || scale == 32 || scale == 64) {
            visitFineCells(bin, scale, word);
        }
    }
}

// The 27 cells of the bin's size around it.
void MarchingCubes::CellBuild::visitDefaultCells(const BinsHeader& bin, std::uint32_t word) {
    bool ok = true;
    for (int dx = -1; dx <= 1 && ok; ++dx)
        for (int dy = -1; dy <= 1 && ok; ++dy)
            for (int dz = -1; dz <= 1 && ok; ++dz) {
                const float pos[3] = {bin.center[0] + dx * r, bin.center[1] + dy * r, bin.center[2] + dz * r};
                ok = visitCell(pos, r * 0.5f, word, PendingSearch{SearchKind::Normal, {}, r, 0});
            }
}

// The 27 cells of m = 8 / scale bins an edge around the one that holds the bin, on their own grid.
void MarchingCubes::CellBuild::visitCoarseCells(const BinsHeader& bin, std::uint8_t scale, std::uint32_t word) {
    bool ok = true;
    const std::int32_t m = 8 / scale;
    const float e = static_cast<float>(m) * r;
    std::int32_t base[3];
    gridKey(bin.center, e, base);
    for (int dx = -1; dx <= 1 && ok; ++dx)
        for (int dy = -1; dy <= 1 && ok; ++dy)
            for (int dz = -1; dz <= 1 && ok; ++dz) {
                const float pos[3] = {static_cast<float>(base[0] + dx) * e + e * 0.5f,
                                      static_cast<float>(base[1] + dy) * e + e * 0.5f,
                                      static_cast<float>(base[2] + dz) * e + e * 0.5f};
                ok = visitCell(pos, e * 0.5f, word, PendingSearch{SearchKind::Coarse, {}, e * 0.5f, m});
            }
}

// The cells of scale / 8 an edge within the bin: those around each occupied sub-cell, each once.
void MarchingCubes::CellBuild::visitFineCells(const BinsHeader& bin, std::uint8_t scale, std::uint32_t word) {
    bool ok = true;
    const int per_axis = scale / 8;
    const float e = r / static_cast<float>(per_axis);
    const float corner[3] = {bin.center[0] - r * 0.5f, bin.center[1] - r * 0.5f, bin.center[2] - r * 0.5f};
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(bin.occupancy);
    bool visited[512] = {};
    for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(per_axis * per_axis * per_axis) && ok; ++i) {
        const bool occupied = scale == 16   ? bin.occupancy[i] != 0
                              : scale == 32 ? bytes[i] != 0
                                            : ((bin.occupancy[i / 64] >> (i % 64)) & 1u) != 0;
        if (!occupied) continue;
        std::uint32_t c[3];
        mortonDecode(i, c[0], c[1], c[2]);
        float sub_center[3];
        for (int k = 0; k < 3; ++k) sub_center[k] = static_cast<float>(c[k]) * e + corner[k] + e * 0.5f;
        for (int dx = -1; dx <= 1 && ok; ++dx)
            for (int dy = -1; dy <= 1 && ok; ++dy)
                for (int dz = -1; dz <= 1 && ok; ++dz) {
                    const int a = static_cast<int>(c[0]) + dx, bb = static_cast<int>(c[1]) + dy,
                              cc = static_cast<int>(c[2]) + dz;
                    if (a >= 0 && a < per_axis && bb >= 0 && bb < per_axis && cc >= 0 && cc < per_axis) {
                        const std::uint32_t code =
                            mortonEncode(static_cast<std::uint32_t>(a), static_cast<std::uint32_t>(bb),
                                         static_cast<std::uint32_t>(cc));
                        if (visited[code]) continue;
                        visited[code] = true;
                    }
                    const float pos[3] = {sub_center[0] + dx * e, sub_center[1] + dy * e, sub_center[2] + dz * e};
                    ok = visitCell(pos, e * 0.5f, word, PendingSearch{SearchKind::Fine, {}, e, 0});
                }
    }
}

// ---- The neighbourhood searches ----

// About the most relations the cells of a bin take (on scans of a surface some 30 to 70).
constexpr std::size_t RELATIONS_A_BIN = 96;

void MarchingCubes::CellBuild::prepareSearches() {
    wide_search_edge = mc.m_device_params->wide_search_edge;
    runs.resize(bins_header.size());
#pragma omp parallel for schedule(static)
    for (std::int64_t b = 0; b < bin_count; ++b)
        runs[static_cast<std::size_t>(b)] = {bins_header[static_cast<std::size_t>(b)].point_offset,
                                             bins_header[static_cast<std::size_t>(b)].point_count};
    runs_by_rank.resize(mc.m_bitmap_valid ? mc.m_rank_to_bin.size() : 0);
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < static_cast<std::int64_t>(runs_by_rank.size()); ++i)
        runs_by_rank[static_cast<std::size_t>(i)] =
            runs[static_cast<std::size_t>(mc.m_rank_to_bin[static_cast<std::size_t>(i)])];

    // What each search found: how many runs, where in which thread's list. Every entry is written.
    buffers.found.clear();
    buffers.found_at.clear();
    buffers.found_by.clear();
    std::vector<UninitialisedArray<RelationCell2Bins_Device>>& lists = buffers.lists;
    if (lists.size() < static_cast<std::size_t>(omp_get_max_threads()))
        lists.resize(static_cast<std::size_t>(omp_get_max_threads()));
    // Any thread's list may take most of the block's relations: room for that up front (address space
    // only; a page is backed when first written), so that a growing list is not copied into fresh pages.
    const std::size_t room = static_cast<std::size_t>(bin_count) * RELATIONS_A_BIN;
    for (UninitialisedArray<RelationCell2Bins_Device>& list : lists) {
        list.clear();
        if (list.capacity() < room) UninitialisedArray<RelationCell2Bins_Device>().swap(list), list.reserve(room);
    }
}

// One search: the points of the bins it found so far, what `take` is given, and the bin keys that it
// spans, for the wider search of a sparse cell.
template <class Take>
class MarchingCubes::CellBuild::Search {
public:
    Search(const CellBuild& build, Take& take) : build(build), take(take) {}

    std::pair<std::int32_t, bool> run(const PendingSearch& p) {
        if (p.kind == SearchKind::Normal) {
            normal(p);
        } else if (p.kind == SearchKind::Coarse) {
            if (!coarse(p)) return std::make_pair(points, false);
        } else {
            fine(p);
        }
        // A sparse cell, most often one at the outer layer of the band of cells around the surface, takes
        // one more ring of bins: with its few points alone it would be rejected or fit poorly, and every
        // dual cube it is a corner of would stay open.
        bool widened = false;
        if (points < SPARSE_CELL_POINTS) {
            widened = true;
            widen();
        }
        return std::make_pair(points, widened);
    }

private:
    void found(std::int32_t id) {
        if (id < 0) return;
        const RelationCell2Bins_Device& run = build.runs[static_cast<std::size_t>(id)];
        points += run.count;
        take(run);
    }
    void visit(std::int32_t x, std::int32_t y, std::int32_t z) { found(build.mc.findBin(x, y, z)); }
    void row(std::int32_t x, std::int32_t y, std::int32_t z, int n) {
        if (!build.mc.m_bitmap_valid) {
            build.visitRow(x, y, z, n, [&](std::int32_t id, int) { found(id); });
            return;
        }
        build.visitRowRanks(x, y, z, n, [&](std::int64_t rank, int) {
            const RelationCell2Bins_Device& run = build.runs_by_rank[static_cast<std::size_t>(rank)];
            points += run.count;
            take(run);
        });
    }

    // The cell of the bin's size: the keys within its reach, row by row along z.
    void normal(const PendingSearch& p) {
        const float r = build.r;
        const int reach = searchReach(p.size, build.wide_search_edge);
        std::int32_t key[3];
        gridKey(p.pos, r, key);
        for (int i = -reach; i <= reach; ++i)
            for (int j = -reach; j <= reach; ++j) row(key[0] + i, key[1] + j, key[2] - reach, 2 * reach + 1);
        for (int k = 0; k < 3; ++k) {
            lo[k] = key[k] - reach;
            hi[k] = key[k] + reach;
        }
    }

    // A coarser cell: the bins of the 3 x 3 x 3 cells of its size around it, step by bin. False where the
    // steps exceed the largest coarse ratio: nothing is searched.
    bool coarse(const PendingSearch& p) {
        const float r = build.r;
        const float h = p.size;
        float start[3];
        for (int k = 0; k < 3; ++k) start[k] = p.pos[k] - h - 2 * h;
        const int steps = 3 * p.m;
        if (steps > MAX_COARSE_STEPS) return false;
        // Each axis's keys once: the key on one axis does not depend on the steps along the others.
        std::int32_t keys[3][MAX_COARSE_STEPS];
        for (int axis = 0; axis < 3; ++axis)
            for (int i = 0; i < steps; ++i)
                keys[axis][i] = gridIndex(r * static_cast<float>(i) + start[axis] + r * 0.5f, r);
        for (int i = 0; i < steps; ++i)
            for (int j = 0; j < steps; ++j)
                for (int k = 0; k < steps; ++k) visit(keys[0][i], keys[1][j], keys[2][k]);
        for (int k = 0; k < 3; ++k) {
            lo[k] = gridIndex(r * 0.0f + start[k] + r * 0.5f, r);
            hi[k] = gridIndex(r * static_cast<float>(steps - 1) + start[k] + r * 0.5f, r);
        }
        return true;
    }

    // A finer cell: the bins at its steps within its reach, each key once.
    void fine(const PendingSearch& p) {
        const float r = build.r;
        const int reach = searchReach(p.size, build.wide_search_edge);
        std::int32_t base[3];
        gridKey(p.pos, r, base);
        for (int k = 0; k < 3; ++k) {
            lo[k] = gridIndex(static_cast<float>(-reach) * p.size + p.pos[k], r);
            hi[k] = gridIndex(static_cast<float>(reach) * p.size + p.pos[k], r);
        }
        // Each axis's keys once, as for the coarse search.
        std::int32_t keys[3][2 * MAX_FINE_REACH + 1];
        for (int axis = 0; axis < 3; ++axis)
            for (int i = -reach; i <= reach; ++i)
                keys[axis][i + reach] = gridIndex(static_cast<float>(i) * p.size + p.pos[axis], r);
        // The keys of one axis rise with the step, so each distinct key is a run of equal ones. When
        // every key triple has its slot, a repeated key only meets a slot already seen: the distinct
        // keys alone, in the same order, make the same visits.
        std::int32_t distinct[3][2 * MAX_FINE_REACH + 1];
        int distinct_count[3] = {0, 0, 0};
        bool rising = true;
        for (int axis = 0; axis < 3; ++axis)
            for (int i = 0; i <= 2 * reach; ++i) {
                int& c = distinct_count[axis];
                if (c > 0 && keys[axis][i] == distinct[axis][c - 1]) continue;
                if (c > 0 && keys[axis][i] < distinct[axis][c - 1]) rising = false;
                distinct[axis][c++] = keys[axis][i];
            }
        const auto slotOf = [&](std::int32_t x, std::int32_t y, std::int32_t z) {
            return ((z - base[2]) * 3 + (y - base[1])) * 3 + (x - base[0]) + 13 * reach;
        };
        const int lowest_slot = slotOf(distinct[0][0], distinct[1][0], distinct[2][0]);
        const int highest_slot = slotOf(distinct[0][distinct_count[0] - 1], distinct[1][distinct_count[1] - 1],
                                        distinct[2][distinct_count[2] - 1]);
        bool seen[125] = {};
        if (rising && lowest_slot >= 0 && highest_slot < 125) {
            for (int i = 0; i < distinct_count[0]; ++i)
                for (int j = 0; j < distinct_count[1]; ++j)
                    for (int k = 0; k < distinct_count[2]; ++k) {
                        const int slot = slotOf(distinct[0][i], distinct[1][j], distinct[2][k]);
                        if (seen[slot]) continue;
                        seen[slot] = true;
                        visit(distinct[0][i], distinct[1][j], distinct[2][k]);
                    }
        } else {
            for (int i = -reach; i <= reach; ++i)
                for (int j = -reach; j <= reach; ++j)
                    for (int k = -reach; k <= reach; ++k) {
                        const std::int32_t key[3] = {keys[0][i + reach], keys[1][j + reach], keys[2][k + reach]};
                        const int slot =
                            ((key[2] - base[2]) * 3 + (key[1] - base[1])) * 3 + (key[0] - base[0]) + 13 * reach;
                        if (slot >= 0 && slot < 125) {
                            if (seen[slot]) continue;
                            seen[slot] = true;
                        }
                        visit(key[0], key[1], key[2]);
                    }
        }
    }

    // The ring of keys around the searched box, row by row along z: a row through the box takes its two
    // ends only.
    void widen() {
        for (std::int32_t x = lo[0] - 1; x <= hi[0] + 1; ++x)
            for (std::int32_t y = lo[1] - 1; y <= hi[1] + 1; ++y) {
                if (x >= lo[0] && x <= hi[0] && y >= lo[1] && y <= hi[1] && lo[2] <= hi[2]) {
                    row(x, y, lo[2] - 1, 1);
                    row(x, y, hi[2] + 1, 1);
                } else {
                    row(x, y, lo[2] - 1, hi[2] - lo[2] + 3);
                }
            }
    }

    const CellBuild& build;
    Take& take;
    std::int32_t points = 0;
    std::int32_t lo[3], hi[3];
};

template <class Take>
std::pair<std::int32_t, bool> MarchingCubes::CellBuild::search(const PendingSearch& p, Take&& take) const {
    Search<std::remove_reference_t<Take>> one(*this, take);
    return one.run(p);
}

void MarchingCubes::CellBuild::searchByRecord() {
    UninitialisedArray<std::int32_t>& found = buffers.found;
    UninitialisedArray<std::int64_t>& found_at = buffers.found_at;
    UninitialisedArray<std::uint16_t>& found_by = buffers.found_by;
    const std::int64_t n = static_cast<std::int64_t>(records.size());
    found.assign(static_cast<std::size_t>(n), 0);
    found_at.assign(static_cast<std::size_t>(n), 0);
    found_by.assign(static_cast<std::size_t>(n), 0);
    TeamFailure search_failure;  // no room for a list: thrown once the team has ended
#pragma omp parallel
    {
        const int thread = omp_get_thread_num();
        UninitialisedArray<RelationCell2Bins_Device>& list = buffers.lists[static_cast<std::size_t>(thread)];
#pragma omp for schedule(dynamic, 64)
        for (std::int64_t i = 0; i < n; ++i) {
            if (search_failure.failed()) continue;
            search_failure.run([&] {
                const std::size_t start = list.size();
                const auto result = search(pending[static_cast<std::size_t>(i)],
                                           [&list](const RelationCell2Bins_Device& run) { list.push_back(run); });
                CellNode_Device& record = records[static_cast<std::size_t>(i)];
                record.point_count += result.first;
                if (result.second) record.rules |= CELL_WIDENED_SEARCH;
                found[static_cast<std::size_t>(i)] = static_cast<std::int32_t>(list.size() - start);
                found_at[static_cast<std::size_t>(i)] = static_cast<std::int64_t>(start);
                found_by[static_cast<std::size_t>(i)] = static_cast<std::uint16_t>(thread);
            });
        }
    }
    search_failure.rethrow();
}

// ---- More than one scale: the walk over all bins and the searches of its records side by side ----
//
// The records' pending searches go into an array with room for the most the walk can make, so that it is
// never moved while the searches read it; each search writes only its own record's entries, and the
// records take the points found once the team has ended.

namespace {

// The most cells a bin of this scale visits: 27 around it, or for finer bins 27 around each occupied
// sub-cell, never more than the sub-cells of the bin and a ring around them.
std::size_t mostVisitsOf(const BinsHeader& bin) {
    std::uint8_t scale = static_cast<std::uint8_t>(bin.bin_sub_scale);
    if (scale != 16 && scale != 32 && scale != 64) return 27;
    const std::size_t per_axis = scale / 8, cells = per_axis * per_axis * per_axis;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(bin.occupancy);
    std::size_t occupied = 0;
    for (std::size_t i = 0; i < cells; ++i)
        occupied += scale == 16   ? bin.occupancy[i] != 0
                    : scale == 32 ? bytes[i] != 0
                                  : ((bin.occupancy[i / 64] >> (i % 64)) & 1u) != 0;
    return std::min(27 * occupied, (per_axis + 2) * (per_axis + 2) * (per_axis + 2));
}

constexpr std::size_t MOST_SIDE_BY_SIDE_RECORDS = std::size_t{1} << 26;

}  // namespace

bool MarchingCubes::CellBuild::walkAndSearchRecords() {
    std::size_t most = pending.size();
    for (const BinsHeader& bin : bins_header) most += mostVisitsOf(bin);
    if (most > MOST_SIDE_BY_SIDE_RECORDS) return false;
    UninitialisedArray<std::int32_t>& found = buffers.found;
    UninitialisedArray<std::int64_t>& found_at = buffers.found_at;
    UninitialisedArray<std::uint16_t>& found_by = buffers.found_by;
    try {
        pending.reserve(most);
        found.resize(most);
        found_at.resize(most);
        found_by.resize(most);
        buffers.visit_points.resize(most);
        buffers.visit_widened.resize(most);
    } catch (const std::bad_alloc&) {
        return false;
    }
    prepareSearches();
    const std::int64_t before = static_cast<std::int64_t>(pending.size());
    std::atomic<std::int64_t> made{before};
    std::atomic<bool> walked{false};
    std::atomic<std::int64_t> next{0};
    const PendingSearch* searches = pending.data();  // never moved: its room is there
    TeamFailure failure;
    published = &made;
#pragma omp parallel
    {
#pragma omp single nowait
        {
            failure.run([&] { walkBinsInOrder(); });
            walked.store(true, std::memory_order_release);
        }
        const int thread = omp_get_thread_num();
        UninitialisedArray<RelationCell2Bins_Device>& list = buffers.lists[static_cast<std::size_t>(thread)];
        constexpr std::int64_t CHUNK = 64;
        for (bool more = true; more && !failure.failed();) {
            const std::int64_t first = next.fetch_add(CHUNK, std::memory_order_relaxed);
            for (std::int64_t i = first; i < first + CHUNK && !failure.failed(); ++i) {
                // Wait for the walk to make record i, or to end without it.
                std::int64_t ready = made.load(std::memory_order_acquire);
                while (i >= ready && !walked.load(std::memory_order_acquire)) {
                    std::this_thread::yield();
                    ready = made.load(std::memory_order_acquire);
                }
                if (i >= ready) ready = made.load(std::memory_order_acquire);
                if (i >= ready) {
                    more = false;
                    break;
                }
                failure.run([&] {
                    const std::size_t start = list.size();
                    const auto result = search(searches[static_cast<std::size_t>(i)],
                                               [&list](const RelationCell2Bins_Device& run) { list.push_back(run); });
                    buffers.visit_points[static_cast<std::size_t>(i)] = result.first;
                    buffers.visit_widened[static_cast<std::size_t>(i)] = result.second ? 1 : 0;
                    found[static_cast<std::size_t>(i)] = static_cast<std::int32_t>(list.size() - start);
                    found_at[static_cast<std::size_t>(i)] = static_cast<std::int64_t>(start);
                    found_by[static_cast<std::size_t>(i)] = static_cast<std::uint16_t>(thread);
                });
            }
        }
    }
    published = nullptr;
    failure.rethrow();
    const std::int64_t n = static_cast<std::int64_t>(records.size());
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) {
        CellNode_Device& record = records[static_cast<std::size_t>(i)];
        record.point_count += buffers.visit_points[static_cast<std::size_t>(i)];
        if (buffers.visit_widened[static_cast<std::size_t>(i)] != 0) record.rules |= CELL_WIDENED_SEARCH;
    }
    return true;
}

// ---- One scale: the walk of the first visits and their searches side by side ----
//
// The walk makes the records in the order of the first visits, so the searches need not wait for it. One
// thread walks the tree while the others search the cells by first visit, and it joins them when done.
// Should a visit not make the one record expected of it (a tree already there from an earlier pass over
// the block, a failed insertion), the searches are made again by record.

bool MarchingCubes::CellBuild::walkAndSearchFirstVisits() {
    dropVisitsOutsideRoot();
    numberVisits();
    // No exception leaves the team: the first (no room for a record or a list) is thrown after it.
    TeamFailure walk_failure;
    // Cells of the bin's size search one key around them, two when sparse: from the bitmap, all the
    // cells of a bin take their bins from one read of the keys around it.
    const bool around_bins = mc.m_bitmap_valid && searchReach(r, wide_search_edge) == 1;
#pragma omp parallel
    {
#pragma omp single nowait
        walk_failure.run([&] { walkFirstVisits(); });
        const int thread = omp_get_thread_num();
        UninitialisedArray<RelationCell2Bins_Device>& list = buffers.lists[static_cast<std::size_t>(thread)];
#pragma omp for schedule(dynamic, 64) nowait
        for (std::int64_t b = 0; b < bin_count; ++b) {
            if (walk_failure.failed()) continue;
            walk_failure.run([&] { searchFirstVisitsOf(b, thread, around_bins, list); });
        }
    }
    walk_failure.rethrow();
    if (!one_record_a_visit) {
        for (UninitialisedArray<RelationCell2Bins_Device>& list : buffers.lists) list.clear();
        return false;
    }
    records.resize(static_cast<std::size_t>(visits));
#pragma omp parallel for schedule(dynamic, 256)
    for (std::int64_t b = 0; b < bin_count; ++b) makeVisitRecords(b, b + 1, visits, true);
    return true;
}

void MarchingCubes::CellBuild::dropVisitsOutsideRoot() {
    const CellNode& root_cell = *root.root_cell;
#pragma omp parallel for schedule(static)
    for (std::int64_t b = 0; b < bin_count; ++b) {
        std::uint32_t& mask = first_visits[static_cast<std::size_t>(b)];
        for (int t = 0; t < 27; ++t) {
            if (((mask >> t) & 1u) == 0) continue;
            float pos[3];
            neighbourCentre(bins_header[static_cast<std::size_t>(b)], t / 9 - 1, (t / 3) % 3 - 1, t % 3 - 1, pos);
            for (int k = 0; k < 3; ++k)
                if (std::fabs(pos[k] - root_cell.center[k]) > root_cell.half_size) mask &= ~(std::uint32_t{1} << t);
        }
    }
}

void MarchingCubes::CellBuild::numberVisits() {
    visit_start.assign(static_cast<std::size_t>(bin_count) + 1, 0);
    for (std::int64_t b = 0; b < bin_count; ++b)
        visit_start[static_cast<std::size_t>(b) + 1] =
            visit_start[static_cast<std::size_t>(b)] + bitCount64(first_visits[static_cast<std::size_t>(b)]);
    visits = visit_start.back();
    records.reserve(static_cast<std::size_t>(visits));
    pending.reserve(static_cast<std::size_t>(visits));
    // Every visit's entries are written by its search, and its leaf by the walk before it is read.
    buffers.found.resize(static_cast<std::size_t>(visits));
    buffers.found_at.resize(static_cast<std::size_t>(visits));
    buffers.found_by.resize(static_cast<std::size_t>(visits));
    buffers.visit_points.clear();
    buffers.visit_points.resize(static_cast<std::size_t>(visits));
    buffers.visit_widened.clear();
    buffers.visit_widened.resize(static_cast<std::size_t>(visits));
    buffers.leaves.clear();
    buffers.leaves.resize(static_cast<std::size_t>(visits));
}

void MarchingCubes::CellBuild::walkFirstVisits() {
    std::int64_t made = 0;  // visits whose leaf was new, in order
    const PendingSearch normal{SearchKind::Normal, {}, r, 0};
    for (std::size_t b = 0; b < bins_header.size(); ++b) {
        const BinsHeader& bin = bins_header[b];
        const std::uint32_t word = cellWord(bin, 8);
        int t = 0;
        bool ok = true;
        for (int dx = -1; dx <= 1 && ok; ++dx)
            for (int dy = -1; dy <= 1 && ok; ++dy)
                for (int dz = -1; dz <= 1 && ok; ++dz, ++t) {
                    if (((first_visits[b] >> t) & 1u) == 0) continue;
                    float pos[3];
                    neighbourCentre(bin, dx, dy, dz, pos);
                    if (!one_record_a_visit) {
                        ok = visitCell(pos, r * 0.5f, word, normal);
                        continue;
                    }
                    walkFirstVisit(b, pos, word, made);
                }
    }
}

void MarchingCubes::CellBuild::walkFirstVisit(std::size_t b, const float pos[3], std::uint32_t word,
                                              std::int64_t& made) {
    // While every visit reaches a new leaf, the walk only shapes the tree and numbers the leaves; their
    // records are made afterwards on all cores.
    const PendingSearch normal{SearchKind::Normal, {}, r, 0};
    CellNode* leaf = nullptr;
    const int inserted = mc.m_hash_octree->insertLeafNodeAlongPath(root, pos, r * 0.5f, path, leaf);
    if (inserted == TESSALINE_OUT_OF_MEMORY) throw OutOfMemory(0);
    const bool reached = inserted == 0;
    if (reached && leaf->data_id == -1 && leaf->child_count == 0) {
        leaf->data_id = static_cast<std::int32_t>(made);
        leaf->data_state = 1;
        buffers.leaves[static_cast<std::size_t>(made++)] = leaf;
        return;
    }
    // Something in the way: the records of the visits so far are made as the walk makes them, and from
    // this visit on the walk takes its own steps.
    one_record_a_visit = false;
    records.resize(static_cast<std::size_t>(made));
    pending.resize(static_cast<std::size_t>(made), normal);
    makeVisitRecords(0, static_cast<std::int64_t>(b) + 1, made, false);
    if (reached) visitLeaf(leaf, pos, word, normal);
}

// At the visits' places. With `searched`, the visits' searches are done and their results go into the
// records; otherwise each record gets its pending search.
void MarchingCubes::CellBuild::makeVisitRecords(std::int64_t from, std::int64_t to, std::int64_t end, bool searched) {
    for (std::int64_t b = from; b < to; ++b) {
        const std::uint32_t mask = first_visits[static_cast<std::size_t>(b)];
        const BinsHeader& bin = bins_header[static_cast<std::size_t>(b)];
        std::int64_t j = visit_start[static_cast<std::size_t>(b)];
        for (int t = 0; t < 27 && j < end; ++t) {
            if (((mask >> t) & 1u) == 0) continue;
            const std::size_t v = static_cast<std::size_t>(j++);
            const CellNode* leaf = buffers.leaves[v];
            CellNode_Device record = emptyCellNodeDevice();
            record.cell = buffers.leaves[v];
            for (int k = 0; k < 3; ++k) record.center[k] = leaf->center[k];
            record.half_size = leaf->half_size;
            record.point_count = 0;
            record.word = cellWord(bin, 8);
            if (searched) {
                record.point_count = buffers.visit_points[v];
                if (buffers.visit_widened[v] != 0) record.rules |= CELL_WIDENED_SEARCH;
            } else {
                PendingSearch& p = pending[v];
                p = PendingSearch{SearchKind::Normal, {}, r, 0};
                neighbourCentre(bin, t / 9 - 1, (t / 3) % 3 - 1, t % 3 - 1, p.pos);
            }
            records[v] = record;
        }
    }
}

void MarchingCubes::CellBuild::searchFirstVisitsOf(std::int64_t b, int thread, bool around_bins,
                                                   UninitialisedArray<RelationCell2Bins_Device>& list) {
    const std::uint32_t mask = first_visits[static_cast<std::size_t>(b)];
    if (mask == 0) return;
    const BinsHeader& bin = bins_header[static_cast<std::size_t>(b)];
    std::int64_t j = visit_start[static_cast<std::size_t>(b)];
    // Read once for all the bin's cells: a cell's search, widened or not, lies within them.
    BinsAround around;
    if (around_bins) readBinsAround(bin, around);
    for (int t = 0; t < 27; ++t) {
        if (((mask >> t) & 1u) == 0) continue;
        const std::size_t start = list.size();
        std::pair<std::int32_t, bool> result;
        if (around_bins) {
            result = takeAroundCell(around, t, list);
        } else {
            PendingSearch p{SearchKind::Normal, {}, r, 0};
            neighbourCentre(bin, t / 9 - 1, (t / 3) % 3 - 1, t % 3 - 1, p.pos);
            result = search(p, [&list](const RelationCell2Bins_Device& run) { list.push_back(run); });
        }
        const std::size_t v = static_cast<std::size_t>(j++);
        buffers.visit_points[v] = result.first;
        buffers.visit_widened[v] = result.second ? 1 : 0;
        buffers.found[v] = static_cast<std::int32_t>(list.size() - start);
        buffers.found_at[v] = static_cast<std::int64_t>(start);
        buffers.found_by[v] = static_cast<std::uint16_t>(thread);
    }
}

void MarchingCubes::CellBuild::readBinsAround(const BinsHeader& bin, BinsAround& around) const {
    std::int32_t own[3];
    gridKey(bin.center, r, own);
    const std::int32_t lo[3] = {own[0] - 3, own[1] - 3, own[2] - 3};
    bitmap.forEachInBox<7>(lo, [&](std::int64_t place, std::int32_t rank) {
        around.rank[place] = rank;
        around.occupied[place >> 6] |= std::uint64_t{1} << (place & 63);
    });
}

// The search of the cell at the bin's key plus (dx, dy, dz), in its order: the 3 x 3 x 3 keys around the
// cell row by row along z, then for a sparse cell the ring around them, the ends of the rows through the
// box and the whole rows beside it. Both lie in rising place order, so the occupied places of each are
// taken in that order.
std::pair<std::int32_t, bool> MarchingCubes::CellBuild::takeAroundCell(
    const BinsAround& around, int t, UninitialisedArray<RelationCell2Bins_Device>& list) const {
    const std::size_t start = list.size();
    std::int32_t points = 0;
    // Room for every key of a widened search, cut back to the bins found.
    list.resize(start + 125);
    RelationCell2Bins_Device* out = list.data() + start;
    std::size_t taken = 0;
    const auto takeAll = [&](const std::uint64_t(&places)[6]) {
        for (int w = 0; w < 6; ++w)
            for (std::uint64_t hits = around.occupied[w] & places[w]; hits != 0; hits &= hits - 1) {
                const std::int32_t rank = around.rank[w * 64 + __builtin_ctzll(hits)];
                const RelationCell2Bins_Device& run = runs_by_rank[static_cast<std::size_t>(rank)];
                points += run.count;
                out[taken++] = run;
            }
    };
    takeAll(AROUND_CELL.inner[t]);
    const bool widened = points < SPARSE_CELL_POINTS;
    if (widened) takeAll(AROUND_CELL.ring[t]);
    list.resize(start + taken);
    return {points, widened};
}

// ---- Absorptions and flattening ----

// In the order they happened: a record's relations are the searches of the records it holds, its own
// first unless it moved on.
void MarchingCubes::CellBuild::applyAbsorptions() {
    const auto searchesOf = [&](std::int32_t i) {
        const auto it = moved_lists.find(i);
        return it != moved_lists.end() ? it->second : std::vector<std::int32_t>{i};
    };
    for (const Absorption& move : absorptions) {
        CellNode_Device& into = records[static_cast<std::size_t>(move.into)];
        CellNode_Device& from = records[static_cast<std::size_t>(move.from)];
        into.point_count += from.point_count;
        into.word |= from.word & 0xFFFFFF00u;
        std::vector<std::int32_t> target = searchesOf(move.into);
        const std::vector<std::int32_t> source = searchesOf(move.from);
        target.insert(target.end(), source.begin(), source.end());
        moved_lists[move.into] = std::move(target);
        moved_lists[move.from].clear();
        from.point_count = 0;
    }
}

template <class Take>
void MarchingCubes::CellBuild::forEachSearchOf(std::int64_t i, Take&& take) const {
    const auto it = moved_lists.find(static_cast<std::int32_t>(i));
    if (it == moved_lists.end()) {
        take(static_cast<std::int32_t>(i));
    } else {
        for (std::int32_t s : it->second) take(s);
    }
}

int MarchingCubes::CellBuild::flatten(std::shared_ptr<CellNodeAndRelations>& cell_node_and_relations) {
    const std::int64_t n = static_cast<std::int64_t>(records.size());
    const std::int64_t total = relationOffsets(n);
    if (total > INT32_MAX) {
        mc.m_last_error = "[MarchingCubes] reOrganizeCellRelations failed!";
        return 1;
    }
    flat->cell_node_size = static_cast<std::int32_t>(n);
    flat->relation_size = static_cast<std::int32_t>(total);
    flat->relations.resize(static_cast<std::size_t>(total));
    copyRelations(n);
    cell_node_and_relations = std::move(flat);
    return 0;
}

// A record keeps its relations where it holds points and found bins.
std::int64_t MarchingCubes::CellBuild::relationOffsets(std::int64_t n) {
    UninitialisedArray<std::int64_t>& offsets = buffers.offsets;
    offsets.clear();
    offsets.resize(static_cast<std::size_t>(n) + 1);
    offsets[0] = 0;
    // Each record's count on all cores (the moved lists are only read), then their running sum.
    const bool moved = !moved_lists.empty();
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) {
        std::int64_t k = 0;
        const auto it = moved ? moved_lists.find(static_cast<std::int32_t>(i)) : moved_lists.end();
        if (it == moved_lists.end()) {
            k = buffers.found[static_cast<std::size_t>(i)];
        } else {
            for (std::int32_t s : it->second) k += buffers.found[static_cast<std::size_t>(s)];
        }
        const bool kept = records[static_cast<std::size_t>(i)].point_count >= 1 && k >= 1;
        offsets[static_cast<std::size_t>(i) + 1] = kept ? k : 0;
    }
    for (std::int64_t i = 0; i < n; ++i)
        offsets[static_cast<std::size_t>(i) + 1] += offsets[static_cast<std::size_t>(i)];
    return offsets.back();
}

std::vector<std::int64_t> MarchingCubes::CellBuild::firstUses(std::int64_t n, std::int64_t slices) const {
    const UninitialisedArray<std::int64_t>& offsets = buffers.offsets;
    const std::size_t threads = buffers.lists.size();
    std::vector<std::int64_t> first_use(static_cast<std::size_t>(slices + 1) * threads, INT64_MAX);
    for (std::int64_t i = 0; i < n; ++i) {
        if (offsets[static_cast<std::size_t>(i) + 1] == offsets[static_cast<std::size_t>(i)]) continue;
        std::int64_t* use = first_use.data() + static_cast<std::size_t>(i / FLATTEN_SLICE) * threads;
        forEachSearchOf(i, [&](std::int32_t s) {
            std::int64_t& at = use[buffers.found_by[static_cast<std::size_t>(s)]];
            at = std::min(at, buffers.found_at[static_cast<std::size_t>(s)]);
        });
    }
    for (std::int64_t slice = slices - 1; slice >= 0; --slice)
        for (std::size_t t = 0; t < threads; ++t)
            first_use[static_cast<std::size_t>(slice) * threads + t] =
                std::min(first_use[static_cast<std::size_t>(slice) * threads + t],
                         first_use[static_cast<std::size_t>(slice + 1) * threads + t]);
    return first_use;
}

// The records are copied slice by slice. Where the relations are many, after each slice every thread's
// list gives back the pages that no later record copies from: the lists and the flat array are not both
// held in full. Few, they are copied in one go and the lists keep their pages for the next block.
void MarchingCubes::CellBuild::copyRelations(std::int64_t n) {
    const UninitialisedArray<std::int64_t>& offsets = buffers.offsets;
    std::vector<UninitialisedArray<RelationCell2Bins_Device>>& lists = buffers.lists;
    const std::size_t threads = lists.size();
    const bool keep = buffers.keepsRelationPages(flat->relations.size());
    const std::int64_t slice_records = keep ? std::max<std::int64_t>(n, 1) : FLATTEN_SLICE;
    const std::int64_t slices = (n + slice_records - 1) / slice_records;
    const std::vector<std::int64_t> first_use = keep ? std::vector<std::int64_t>() : firstUses(n, slices);
    std::vector<std::int64_t> released(threads, 0);
    for (std::int64_t slice = 0; slice < slices; ++slice) {
        const std::int64_t end = std::min(n, (slice + 1) * slice_records);
#pragma omp parallel for schedule(dynamic, 64)
        for (std::int64_t i = slice * slice_records; i < end; ++i) {
            const std::int64_t o = offsets[static_cast<std::size_t>(i)];
            const std::int64_t k = offsets[static_cast<std::size_t>(i) + 1] - o;
            if (k == 0) continue;
            CellNode_Device& record = records[static_cast<std::size_t>(i)];
            RelationCell2Bins_Device* out = flat->relations.data() + o;
            forEachSearchOf(i, [&](std::int32_t s) {
                const UninitialisedArray<RelationCell2Bins_Device>& list =
                    lists[buffers.found_by[static_cast<std::size_t>(s)]];
                const auto begin = list.begin() + buffers.found_at[static_cast<std::size_t>(s)];
                out = std::copy(begin, begin + buffers.found[static_cast<std::size_t>(s)], out);
            });
            record.relation_offset = static_cast<std::int32_t>(o);
            record.relation_count = static_cast<std::int32_t>(k);
        }
        for (std::size_t t = 0; t < threads && !keep; ++t) {
            UninitialisedArray<RelationCell2Bins_Device>& list = lists[t];
            const std::int64_t upto = std::min(first_use[static_cast<std::size_t>(slice + 1) * threads + t],
                                               static_cast<std::int64_t>(list.size()));
            if (upto > released[t] && releasePagesWithin(list.data() + released[t], list.data() + upto))
                released[t] = upto;
        }
    }
}

// The walk that shapes the tree is made in bin order; the searches and the flattening run in parallel.
int MarchingCubes::buildOctreeAndRelations(const PointCloudBlock& block, const std::vector<BinsHeader>& bins_header,
                                           std::shared_ptr<CellNodeAndRelations>& cell_node_and_relations) {
    std::shared_ptr<HashRootCellData> root;
    if (m_hash_octree->insertBlockHash(block.center, root) != 0 || !root) {
        m_last_error = "[MarchingCubes] m_hash_octree->insertBlockHash failed!";
        return 1;
    }
    CellBuild build(*this, bins_header, *root);
    const bool one_scale = build.findFirstVisits();
    if (one_scale || !build.walkAndSearchRecords()) {
        if (!one_scale) build.walkBinsInOrder();
        build.prepareSearches();
        const bool searched = one_scale && build.walkAndSearchFirstVisits();
        if (!searched) build.searchByRecord();
    }
    build.applyAbsorptions();
    return build.flatten(cell_node_and_relations);
}

}  // namespace SurfaceReconstruction
