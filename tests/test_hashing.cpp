// The grid hash, the grid-key table (as the Portioner and the octree use it): chains into the overflow area,
// concurrent find-or-insert and exhaustion; the pools of cells and field slots grown from many threads;
// the octree's roots and descents.
#include "TestSupport.h"
#include "common/GridHash.h"
#include "common/GridKeyTable.h"
#include "volume/FieldDataPool.h"
#include "volume/HashOctree.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

// The first x > `after` whose key (x, 0, 0) shares the slot of (0, 0, 0) under `mask`.
int collidingX(std::uint32_t mask, int after = 0) {
    int x = after + 1;
    while (hashGridKey(x, 0, 0, mask) != hashGridKey(0, 0, 0, mask)) ++x;
    return x;
}

// A value as the Portioner's and the bins' tables hold it: -1 until the caller sets it.
struct Tally {
    std::int32_t id = -1;
};
using TallySlot = GridKeySlot<Tally>;

// Each of `threads` threads asks `get` for every key of 0 to keys - 1, each thread in its own order: all
// must get the same entry for a key, and a different one for each key. The entries, by key.
template <class Entry, class Get>
std::vector<Entry*> oneEntryPerKeyFromThreads(int threads, int keys, Get get) {
    std::vector<std::vector<Entry*>> got(threads, std::vector<Entry*>(keys));
    onThreads(threads, [&](int t) {
        for (int i = 0; i < keys; ++i) {
            const int key = (i * 7 + t * 13) % keys;  // 7 and `keys` share no factor: every key once
            got[t][key] = get(key);
        }
    });
    for (int t = 1; t < threads; ++t) EXPECT_TRUE(got[t] == got[0]) << "thread " << t;
    EXPECT_EQ(std::count(got[0].begin(), got[0].end(), nullptr), 0);
    EXPECT_EQ(std::set<Entry*>(got[0].begin(), got[0].end()).size(), static_cast<std::size_t>(keys));
    return got[0];
}

}  // namespace

TEST(GridHash, GridIndexIsTheFloorExceptAtExactNegativeMultiples) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const int lowest = std::numeric_limits<std::int32_t>::min(), highest = std::numeric_limits<std::int32_t>::max();
    // -256 is exactly -1.0 blocks: it lands one lower.
    const std::pair<float, int> table[] = {{-256.0f, -2}, {-128.0f, -1},      {-64.0f, -1},      {-1.0e-6f, -1},
                                           {0.0f, 0},     {64.0f, 0},         {256.0f, 1},       {-512.0f, -3},
                                           {nan, 0},      {1.0e30f, highest}, {-1.0e30f, lowest}};
    for (const auto& [v, index] : table) EXPECT_EQ(gridIndex(v, 256.0f), index) << v;
}

TEST(GridKeyTable, InsertFindAndRepeatedInsert) {
    GridKeyTable<Tally> table;
    EXPECT_EQ(table.findOrInsert(1, 2, 3), nullptr);  // before init
    EXPECT_EQ(table.clear(), 1);
    ASSERT_EQ(table.init(32768, 20000), 0);
    EXPECT_EQ(table.mask(), 32767u);

    EXPECT_EQ(table.find(0, 0, 0), nullptr);  // an empty slot also holds a zero key
    TallySlot* entry = table.findOrInsert(0, 0, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry, table.slots() + hashGridKey(0, 0, 0, 32767));
    EXPECT_EQ(entry->value.id, -1);  // a new key's value as Tally{} makes it
    entry->value.id = 42;
    EXPECT_EQ(table.findOrInsert(0, 0, 0), entry);
    EXPECT_EQ(entry->value.id, 42);  // what the caller stored stays
    EXPECT_EQ(table.find(0, 0, 0), entry);
    EXPECT_EQ(table.find(5, 5, 5), nullptr);
    // The kernels' search of a finished table finds the same slots.
    EXPECT_EQ(findGridKeySlot(table.slots(), table.mask(), 0, 0, 0), entry - table.slots());
    EXPECT_EQ(findGridKeySlot(table.slots(), table.mask(), 5, 5, 5), -1);
}

TEST(GridKeyTable, CollisionGoesToTheFirstExcessEntryAndExhausts) {
    const int x1 = collidingX(1023), x2 = collidingX(1023, x1);
    GridKeyTable<Tally> table;
    ASSERT_EQ(table.init(1024, 1), 0);
    TallySlot* first = table.findOrInsert(0, 0, 0);
    TallySlot* second = table.findOrInsert(x1, 0, 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second - table.slots(), 1024);
    EXPECT_EQ(first->next(), 1024);
    EXPECT_EQ(table.find(x1, 0, 0), second);
    EXPECT_EQ(findGridKeySlot(table.slots(), table.mask(), x1, 0, 0), 1024);

    // The excess area is full now: a third key of the slot fails with the message.
    TallySlot* third = second;
    EXPECT_EQ(quiet([&] { third = table.findOrInsert(x2, 0, 0); }),
              "---- error: (cur_excess_index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE ------- \n");
    EXPECT_EQ(third, nullptr);
    EXPECT_EQ(table.findOrInsert(x1, 0, 0), second);  // existing keys still work

    GridKeyTable<Tally> no_excess;
    ASSERT_EQ(no_excess.init(1024, 0), 0);
    ASSERT_NE(no_excess.findOrInsert(0, 0, 0), nullptr);
    EXPECT_FALSE(quiet([&] { EXPECT_EQ(no_excess.findOrInsert(x1, 0, 0), nullptr); }).empty());
}

TEST(GridKeyTable, ConcurrentInsertsAgreeOnOneEntryPerKey) {
    GridKeyTable<Tally> table;
    ASSERT_EQ(table.init(256, 20000), 0);  // few buckets: long chains, many races at chain ends
    const auto entries =
        oneEntryPerKeyFromThreads<TallySlot>(8, 3000, [&](int key) { return table.findOrInsert(key, -key, key / 3); });
    for (int k = 0; k < 3000; ++k) {
        TallySlot* e = entries[k];
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->x, k);
        EXPECT_EQ(e->y, -k);
        EXPECT_EQ(table.find(k, -k, k / 3), e);
        EXPECT_EQ(findGridKeySlot(table.slots(), table.mask(), k, -k, k / 3), e - table.slots());
    }
}

TEST(RootTable, ZeroKeyIsAbsentUntilInsertedAndCollisionsChain) {
    RootTable table;
    ASSERT_EQ(table.init(1024, 4), 0);
    EXPECT_EQ(table.overflowTaken(), 0);
    EXPECT_EQ(table.find(0, 0, 0), nullptr);

    const int other = collidingX(1023);
    RootTable::Slot* first = table.findOrInsert(0, 0, 0);
    RootTable::Slot* second = table.findOrInsert(other, 0, 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first, table.slots() + hashGridKey(0, 0, 0, 1023));
    EXPECT_EQ(second, table.slots() + 1024);  // the first overflow slot
    EXPECT_EQ(first->next(), 1024);
    EXPECT_EQ(second->value.dataId(), -1);
    EXPECT_EQ(second->next(), 0);                                                  // occupied, end of its chain
    EXPECT_EQ(table.slots()[(hashGridKey(0, 0, 0, 1023) + 1) % 1024].next(), -1);  // a zeroed slot is empty
    EXPECT_EQ(table.find(other, 0, 0), second);
    EXPECT_EQ(table.findOrInsert(0, 0, 0), first);
    EXPECT_EQ(table.overflowTaken(), 1);
}

TEST(RootTable, ExhaustedOverflowStillFindsEverythingInserted) {
    RootTable table;
    ASSERT_EQ(table.init(2, 3), 0);  // almost every key chains
    std::vector<RootTable::Slot*> entries;
    for (int k = 0; k < 5; ++k) entries.push_back(table.findOrInsert(k, k, k));
    for (RootTable::Slot* e : entries) ASSERT_NE(e, nullptr);
    bool refused = false;
    const std::string out = quiet([&] {
        for (int k = 5; k < 20 && !refused; ++k) refused = table.findOrInsert(k, k, k) == nullptr;
    });
    EXPECT_TRUE(refused);
    EXPECT_TRUE(contains(out, "---- error: (cur_excess_index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE"));
    for (int j = 0; j < 5; ++j) {
        EXPECT_EQ(table.find(j, j, j), entries[static_cast<std::size_t>(j)]);
        EXPECT_EQ(table.findOrInsert(j, j, j), entries[static_cast<std::size_t>(j)]);
    }
}

TEST(RootTable, ThreadsInsertingTheSameKeysGetTheSameEntries) {
    RootTable table;
    ASSERT_EQ(table.init(64, 5000), 0);
    const auto entries =
        oneEntryPerKeyFromThreads<RootTable::Slot>(8, 2000, [&](int key) { return table.findOrInsert(key, 1, -key); });
    std::int64_t in_overflow = 0;
    for (int key = 0; key < 2000; ++key) {
        EXPECT_EQ(table.find(key, 1, -key), entries[key]);
        in_overflow += (entries[key] - table.slots()) >= 64 ? 1 : 0;
    }
    // Exactly one overflow slot was taken for each key that did not get a bucket slot.
    EXPECT_EQ(table.overflowTaken(), in_overflow);
}

TEST(CellNodePool, CrossingTheBlockBoundaryFromManyThreadsAddsOneBlockEach) {
    CellNodePool pool;
    ASSERT_EQ(pool.init(std::make_shared<HashParameters>(HashParameters{64, 63, 8, 1000, 2, 50})), 0);
    EXPECT_EQ(pool.blockCount(), 2);
    constexpr int THREADS = 8, PER_THREAD = 2500;  // 20000 cells: 20 blocks of 1000
    std::vector<std::vector<std::int32_t>> got(THREADS);
    onThreads(THREADS, [&](int t) {
        for (int i = 0; i < PER_THREAD; ++i) {
            std::int32_t index = -1;
            ASSERT_EQ(pool.allocDataIndex(index), 0);
            new (pool.cellAt(index)) CellNode{};  // the address is usable at once
            pool.cellAt(index)->data_id = index;
            got[t].push_back(index);
        }
    });
    std::set<std::int32_t> all;
    for (const auto& list : got) all.insert(list.begin(), list.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(THREADS * PER_THREAD));
    EXPECT_EQ(*all.rbegin(), THREADS * PER_THREAD - 1);
    EXPECT_EQ(pool.blockCount(), 20);
    for (std::int32_t i : all) ASSERT_EQ(pool.cellAt(i)->data_id, i);
}

TEST(CellNodePool, FailedGrowthGivesTheReservationBack) {
    CellNodePool pool;
    ASSERT_EQ(pool.init(std::make_shared<HashParameters>(HashParameters{64, 63, 8, 4, 1, 1})), 0);  // one block
    std::int32_t index = -1;
    for (int i = 0; i < 4; ++i) ASSERT_EQ(pool.allocDataIndex(index), 0);
    EXPECT_EQ(pool.allocDataIndex(index), 66049);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(pool.cellCount(), 4);
    EXPECT_EQ(pool.deInit(), 0);
    EXPECT_EQ(pool.blockCount(), 0);
}

TEST(FieldDataPool, ConcurrentReservationsAreDisjointAndGrowThePool) {
    FieldDataPool pool;
    ASSERT_TRUE(pool.init());
    constexpr int THREADS = 8, PER_THREAD = 150000;  // 2.4 million slots: beyond the first four blocks
    std::vector<std::vector<std::pair<std::int32_t, std::int32_t>>> got(THREADS);
    onThreads(THREADS, [&](int t) {
        for (int i = 0; i < PER_THREAD; ++i) {
            std::int32_t index = -1;
            const std::int32_t count = 1 + (i & 1);
            ASSERT_EQ(pool.allocDataIndex(index, count), 0);
            got[t].emplace_back(index, count);
            FieldSlot* s = pool.slot(index + count - 1);  // the last slot of the run must exist
            ASSERT_NE(s, nullptr);
            s->value = static_cast<float>(t);
        }
    });
    std::vector<std::pair<std::int32_t, std::int32_t>> runs;
    for (const auto& list : got) runs.insert(runs.end(), list.begin(), list.end());
    std::sort(runs.begin(), runs.end());
    std::int32_t expected = 0;
    for (const auto& run : runs) {
        ASSERT_EQ(run.first, expected);  // no gap, no overlap
        expected += run.second;
    }
    EXPECT_EQ(expected, pool.size());
    EXPECT_EQ(pool.blockCount(),
              (expected + FieldDataPool::FIELD_POOL_BLOCK_SIZE) / FieldDataPool::FIELD_POOL_BLOCK_SIZE);
}

namespace {

// An octree over small tables: resolution 0.5, blocks of 256 bins, so roots of edge 128.
class SmallOctree : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(octree.init(std::make_shared<HashParameters>(HashParameters{1024, 1023, 64, 10000, 2, 1000})), 0);
        octree.setResolution(0.5f);
        octree.setBlockSize(256);
    }
    std::shared_ptr<HashRootCellData> root(float x, float y, float z) {
        const float p[3] = {x, y, z};
        std::shared_ptr<HashRootCellData> result;
        EXPECT_EQ(octree.insertBlockHash(p, result), 0);
        return result;
    }
    HashOctree octree;
};

int countCells(const CellNode* n) {
    int count = 1;
    for (int k = 0; k < 8; ++k) count += n->child(k) ? countCells(n->child(k)) : 0;
    return count;
}

}  // namespace

TEST_F(SmallOctree, OneRootPerBlockWithItsGeometry) {
    const auto a = root(10.3f, -0.2f, 130.0f);
    EXPECT_EQ(root(120.0f, -100.0f, 250.0f), a);  // same block of edge 128
    std::shared_ptr<HashRootCellList> list;
    ASSERT_EQ(octree.getHashCellList(list), 0);
    EXPECT_EQ(list->datas_size.load(), 1);
    const CellNode& cell = *a->root_cell;
    EXPECT_FLOAT_EQ(cell.center[0], 64.0f);
    EXPECT_FLOAT_EQ(cell.center[1], -64.0f);
    EXPECT_FLOAT_EQ(cell.center[2], 192.0f);
    EXPECT_FLOAT_EQ(cell.half_size, 64.0f);
    EXPECT_EQ(cell.cell_type, CELL_TYPE_BRANCH);
    const float p[3] = {10.3f, -0.2f, 130.0f}, elsewhere[3] = {-500.0f, 0.0f, 0.0f};
    EXPECT_EQ(octree.getHashRootCell(p), a);
    EXPECT_EQ(octree.getHashRootCell(elsewhere), nullptr);
}

TEST_F(SmallOctree, DescentStopsAtTheOctaveOfTheTarget) {
    const float p[3] = {10.3f, 20.1f, 30.7f};
    const auto r = root(p[0], p[1], p[2]);
    CellNode* leaf = nullptr;
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*r, p, 0.25f, leaf), 0);  // a bin: level 8
    EXPECT_FLOAT_EQ(leaf->half_size, 0.25f);
    EXPECT_EQ(leaf->cell_type, CELL_TYPE_LEAF);
    for (int k = 0; k < 3; ++k) EXPECT_LE(std::fabs(p[k] - leaf->center[k]), leaf->half_size);
    EXPECT_EQ(countCells(r->root_cell), 9);  // root and one cell on each of eight levels
    int depth = 0;
    for (const CellNode* n = leaf; n->parent; n = n->parent, ++depth) {
        EXPECT_EQ(n->parent->cell_type, CELL_TYPE_BRANCH);
        EXPECT_FLOAT_EQ(n->parent->half_size, n->half_size * 2.0f);
    }
    EXPECT_EQ(depth, 8);

    // A finer request inside the leaf returns the leaf and creates nothing.
    CellNode* finer = nullptr;
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*r, p, 0.03125f, finer), 0);
    EXPECT_EQ(finer, leaf);
    EXPECT_EQ(countCells(r->root_cell), 9);

    // The root's own half size returns the root as a leaf.
    const float q[3] = {-50.0f, 0.0f, 0.0f};
    const auto other = root(q[0], q[1], q[2]);
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*other, q, 64.0f, leaf), 0);
    EXPECT_EQ(leaf, other->root_cell);
    EXPECT_EQ(leaf->cell_type, CELL_TYPE_LEAF);
}

TEST_F(SmallOctree, PointsOutsideTheRootAreRefusedAndTheFaceIsInside) {
    const auto r = root(1.0f, 1.0f, 1.0f);  // centre (64, 64, 64), half 64
    CellNode* leaf = nullptr;
    const float outside[3] = {128.5f, 1.0f, 1.0f}, face[3] = {128.0f, 1.0f, 1.0f};
    EXPECT_EQ(octree.insertLeafNodeForHashBlock(*r, outside, 0.25f, leaf), 66051);
    EXPECT_EQ(countCells(r->root_cell), 1);
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*r, face, 0.25f, leaf), 0);
    EXPECT_FLOAT_EQ(leaf->center[0], 127.75f);  // the + side at every split ends at the face
}

TEST_F(SmallOctree, ConcurrentDescentsCreateEachChildOnce) {
    const auto r = root(3.0f, 5.0f, 7.0f);
    const auto leaves = oneEntryPerKeyFromThreads<CellNode>(8, 400, [&](int i) {
        const float p[3] = {3.0f + (i % 20) * 0.5f, 5.0f + (i / 20) * 0.5f, 7.0f};
        CellNode* leaf = nullptr;
        return octree.insertLeafNodeForHashBlock(*r, p, 0.25f, leaf) == 0 ? leaf : nullptr;
    });
    // Every child pointer is counted once, and every returned leaf stayed a leaf.
    std::vector<const CellNode*> stack{r->root_cell};
    while (!stack.empty()) {
        const CellNode* n = stack.back();
        stack.pop_back();
        int children = 0;
        for (int k = 0; k < 8; ++k)
            if (n->child(k)) ++children, stack.push_back(n->child(k));
        EXPECT_EQ(n->child_count, children);
    }
    for (CellNode* leaf : leaves) EXPECT_EQ(leaf->cell_type, CELL_TYPE_LEAF);
}

TEST_F(SmallOctree, ATreeDroppedSinceAMarkGivesItsCellsAndChildSlotsBack) {
    // A block whose tree is dropped: its root stays, bare, and the pool takes back every cell and child slot
    // made since the mark; a descent there afterwards builds the same tree again from fresh slots. A root
    // made before the mark is not dropped.
    CellNodePool& pool = *octree.cellPool();
    const std::int32_t mark = pool.cellCount(), children_mark = pool.childrenCount();
    const float p[3] = {10.3f, 20.1f, 30.7f}, q[3] = {60.2f, 20.1f, 90.4f};
    const auto r = root(p[0], p[1], p[2]);
    const auto descend = [&] {
        CellNode* leaf = nullptr;
        for (const float* at : {p, q}) ASSERT_EQ(octree.insertLeafNodeForHashBlock(*r, at, 0.25f, leaf), 0);
    };
    descend();
    const int cells = countCells(r->root_cell);  // the root, then one cell a level each way from where they part
    const std::int32_t slots = pool.childrenCount() - children_mark;
    EXPECT_EQ(pool.cellCount() - mark, cells);
    EXPECT_EQ(slots, cells - 2);  // every cell but the two leaves has children
    const float centre[3] = {64.0f, 64.0f, 64.0f};
    ASSERT_TRUE(octree.dropTreeSince(mark, children_mark, centre));
    EXPECT_EQ(pool.cellCount(), mark + 1);
    EXPECT_EQ(pool.childrenCount(), children_mark);
    EXPECT_EQ(r->root_cell->children, nullptr);
    EXPECT_EQ(countCells(r->root_cell), 1);
    descend();
    EXPECT_EQ(countCells(r->root_cell), cells);
    EXPECT_EQ(pool.childrenCount() - children_mark, slots);
    const std::int32_t later = pool.cellCount(), later_children = pool.childrenCount();
    CellNode* leaf = nullptr;
    const float elsewhere[3] = {100.1f, 100.1f, 100.1f};
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*r, elsewhere, 0.25f, leaf), 0);
    EXPECT_FALSE(octree.dropTreeSince(later, later_children, centre));  // the root is older than the mark
    EXPECT_EQ(countCells(r->root_cell), pool.cellCount() - mark);
}

TEST_F(SmallOctree, ConcurrentRootCreationGivesOneRootPerBlock) {
    oneEntryPerKeyFromThreads<HashRootCellData>(8, 64, [&](int b) {  // 64 blocks of edge 128 in a 4 x 4 x 4 cube
        return root((b % 4) * 128.0f + 1.0f, (b / 4 % 4) * 128.0f + 2.0f, (b / 16) * 128.0f + 3.0f).get();
    });
    std::shared_ptr<HashRootCellList> list;
    ASSERT_EQ(octree.getHashCellList(list), 0);
    EXPECT_EQ(list->datas_size.load(), 64);
}
