// The octree's hash table: chains into the overflow area, concurrent find-or-insert, exhaustion.
#include <gtest/gtest.h>

#include <cmath>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include "GridHash.h"
#include "HashOctree.h"

using namespace SurfaceReconstruction;

namespace {
std::shared_ptr<HashParameters> smallParams(std::uint64_t buckets, std::uint64_t excess) {
    return std::make_shared<HashParameters>(HashParameters{buckets, buckets - 1, excess, 500000, 4, 10000});
}
}  // namespace

TEST(HashTable, ZeroKeyIsAbsentUntilInsertedAndCollisionsChain) {
    HashTable table;
    auto global = std::make_shared<GlobalHashParams>();
    ASSERT_EQ(table.init(smallParams(1024, 4), global), 0);
    EXPECT_EQ(global->cur_ExcessHash_Index.load(), 1024);
    EXPECT_EQ(table.findHashEntry(0, 0, 0), nullptr);

    int other = 1;
    while (hashGridKey(other, 0, 0, 1023) != hashGridKey(0, 0, 0, 1023)) ++other;
    HashEntry* first = table.findOrInsertHashEntry(0, 0, 0);
    HashEntry* second = table.findOrInsertHashEntry(other, 0, 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first, &table.slot(hashGridKey(0, 0, 0, 1023)));
    EXPECT_EQ(second, &table.slot(1024));  // the first overflow slot
    EXPECT_EQ(first->next(), 1024);
    EXPECT_EQ(second->dataId(), -1);
    EXPECT_EQ(second->next(), 0);                                               // occupied, end of its chain
    EXPECT_EQ(table.slot((hashGridKey(0, 0, 0, 1023) + 1) % 1024).next(), -1);  // a zeroed slot is empty
    EXPECT_EQ(table.findHashEntry(other, 0, 0), second);
    EXPECT_EQ(table.findOrInsertHashEntry(0, 0, 0), first);
    EXPECT_EQ(global->cur_ExcessHash_Index.load(), 1025);
}

TEST(HashTable, ExhaustedOverflowStillFindsEverythingInserted) {
    HashTable table;
    auto global = std::make_shared<GlobalHashParams>();
    ASSERT_EQ(table.init(smallParams(2, 3), global), 0);  // two buckets: almost every key chains
    std::vector<HashEntry*> entries;
    for (int k = 0; k < 5; ++k) entries.push_back(table.findOrInsertHashEntry(k, k, k));
    for (HashEntry* e : entries) ASSERT_NE(e, nullptr);
    ::testing::internal::CaptureStdout();
    HashEntry* refused = nullptr;
    int k = 5;
    for (; k < 20 && refused == nullptr; ++k) {
        HashEntry* e = table.findOrInsertHashEntry(k, k, k);
        if (e == nullptr) refused = reinterpret_cast<HashEntry*>(1);
    }
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(refused, nullptr);
    EXPECT_NE(out.find("---- error: (cur_ExcessHash_Index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE"),
              std::string::npos);
    for (int j = 0; j < 5; ++j) {
        EXPECT_EQ(table.findHashEntry(j, j, j), entries[static_cast<std::size_t>(j)]);
        EXPECT_EQ(table.findOrInsertHashEntry(j, j, j), entries[static_cast<std::size_t>(j)]);
    }
}

TEST(HashTable, ThreadsInsertingTheSameKeysGetTheSameEntries) {
    HashTable table;
    auto global = std::make_shared<GlobalHashParams>();
    ASSERT_EQ(table.init(smallParams(64, 5000), global), 0);
    constexpr int THREADS = 8, KEYS = 2000;
    std::vector<std::vector<HashEntry*>> got(THREADS, std::vector<HashEntry*>(KEYS));
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < KEYS; ++i) {
                const int key = (i * 11 + t * 5) % KEYS;
                got[static_cast<std::size_t>(t)][static_cast<std::size_t>(key)] =
                    table.findOrInsertHashEntry(key, 1, -key);
            }
        });
    }
    for (auto& th : threads) th.join();
    std::set<HashEntry*> distinct;
    for (int key = 0; key < KEYS; ++key) {
        HashEntry* e = got[0][static_cast<std::size_t>(key)];
        ASSERT_NE(e, nullptr);
        for (int t = 1; t < THREADS; ++t) ASSERT_EQ(got[static_cast<std::size_t>(t)][static_cast<std::size_t>(key)], e);
        EXPECT_EQ(table.findHashEntry(key, 1, -key), e);
        distinct.insert(e);
    }
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(KEYS));
    // Exactly one overflow slot was taken for each key that did not get a bucket slot.
    std::size_t in_overflow = 0;
    for (HashEntry* e : distinct) in_overflow += (e - &table.slot(0)) >= 64 ? 1 : 0;
    EXPECT_EQ(static_cast<std::size_t>(global->cur_ExcessHash_Index.load() - 64), in_overflow);
}

// ---- cells, pool, root list and descents -----------------------------------------------------------

TEST(CellNodePool, CrossingTheBlockBoundaryFromManyThreadsAddsOneBlockEach) {
    CellNodePool pool;
    ASSERT_EQ(pool.init(std::make_shared<HashParameters>(HashParameters{64, 63, 8, 1000, 2, 50})), 0);
    EXPECT_EQ(pool.blockCount(), 2);

    constexpr int THREADS = 8, PER_THREAD = 2500;  // 20000 cells: 20 blocks of 1000
    std::vector<std::vector<std::int32_t>> got(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < PER_THREAD; ++i) {
                std::int32_t index = -1;
                ASSERT_EQ(pool.allocDataIndex(index), 0);
                new (pool.cellAt(index)) CellNode{};  // the address is usable at once
                pool.cellAt(index)->data_id = index;
                got[static_cast<std::size_t>(t)].push_back(index);
            }
        });
    }
    for (auto& th : threads) th.join();
    std::set<std::int32_t> all;
    for (const auto& list : got) all.insert(list.begin(), list.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(THREADS * PER_THREAD));
    EXPECT_EQ(*all.rbegin(), THREADS * PER_THREAD - 1);
    EXPECT_EQ(pool.blockCount(), 20);
    for (std::int32_t i : all) ASSERT_EQ(pool.cellAt(i)->data_id, i);
}

TEST(CellNodePool, FailedGrowthGivesTheReservationBack) {
    CellNodePool pool;
    ASSERT_EQ(pool.init(std::make_shared<HashParameters>(HashParameters{64, 63, 8, 4, 1, 1})), 0);  // at most one block
    std::int32_t index = -1;
    for (int i = 0; i < 4; ++i) ASSERT_EQ(pool.allocDataIndex(index), 0);
    EXPECT_EQ(pool.allocDataIndex(index), 66049);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(pool.cellCount(), 4);
    EXPECT_EQ(pool.deInit(), 0);
    EXPECT_EQ(pool.blockCount(), 0);
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
    HashOctree octree;
};

int countCells(const CellNode* n) {
    int count = 1;
    for (const CellNode* child : n->children)
        if (child) count += countCells(child);
    return count;
}
}  // namespace

TEST_F(SmallOctree, OneRootPerBlockWithItsGeometry) {
    const float p[3] = {10.3f, -0.2f, 130.0f};
    std::shared_ptr<HashRootCellData> a, b;
    ASSERT_EQ(octree.insertBlockHash(p, a), 0);
    const float q[3] = {120.0f, -100.0f, 250.0f};  // same block of edge 128
    ASSERT_EQ(octree.insertBlockHash(q, b), 0);
    EXPECT_EQ(a, b);
    std::shared_ptr<HashRootCellList> list;
    ASSERT_EQ(octree.getHashCellList(list), 0);
    EXPECT_EQ(list->datas_size.load(), 1);
    const CellNode& root = *a->root_cell;
    EXPECT_FLOAT_EQ(root.center[0], 64.0f);
    EXPECT_FLOAT_EQ(root.center[1], -64.0f);
    EXPECT_FLOAT_EQ(root.center[2], 192.0f);
    EXPECT_FLOAT_EQ(root.half_size, 64.0f);
    EXPECT_EQ(root.cell_type, CELL_TYPE_BRANCH);
    EXPECT_EQ(octree.getHashRootCell(p), a);
    const float elsewhere[3] = {-500.0f, 0.0f, 0.0f};
    EXPECT_EQ(octree.getHashRootCell(elsewhere), nullptr);
}

TEST_F(SmallOctree, DescentStopsAtTheOctaveOfTheTarget) {
    const float p[3] = {10.3f, 20.1f, 30.7f};
    std::shared_ptr<HashRootCellData> root;
    ASSERT_EQ(octree.insertBlockHash(p, root), 0);
    CellNode* leaf = nullptr;
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*root, p, 0.25f, leaf), 0);  // a bin: level 8
    EXPECT_FLOAT_EQ(leaf->half_size, 0.25f);
    EXPECT_EQ(leaf->cell_type, CELL_TYPE_LEAF);
    for (int k = 0; k < 3; ++k) EXPECT_LE(std::fabs(p[k] - leaf->center[k]), leaf->half_size);
    EXPECT_EQ(countCells(root->root_cell), 9);  // root and one cell on each of eight levels
    int depth = 0;
    for (const CellNode* n = leaf; n->parent; n = n->parent) {
        ++depth;
        EXPECT_EQ(n->parent->cell_type, CELL_TYPE_BRANCH);
        EXPECT_FLOAT_EQ(n->parent->half_size, n->half_size * 2.0f);
    }
    EXPECT_EQ(depth, 8);

    // A finer request inside the leaf returns the leaf and creates nothing.
    CellNode* finer = nullptr;
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*root, p, 0.03125f, finer), 0);
    EXPECT_EQ(finer, leaf);
    EXPECT_EQ(countCells(root->root_cell), 9);

    // The root's own half size returns the root as a leaf.
    const float q[3] = {-50.0f, 0.0f, 0.0f};
    std::shared_ptr<HashRootCellData> other;
    ASSERT_EQ(octree.insertBlockHash(q, other), 0);
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*other, q, 64.0f, leaf), 0);
    EXPECT_EQ(leaf, other->root_cell);
    EXPECT_EQ(leaf->cell_type, CELL_TYPE_LEAF);
}

TEST_F(SmallOctree, PointsOutsideTheRootAreRefusedAndTheFaceIsInside) {
    const float p[3] = {1.0f, 1.0f, 1.0f};
    std::shared_ptr<HashRootCellData> root;
    ASSERT_EQ(octree.insertBlockHash(p, root), 0);  // root centre (64, 64, 64), half 64
    CellNode* leaf = nullptr;
    const float outside[3] = {128.5f, 1.0f, 1.0f};
    EXPECT_EQ(octree.insertLeafNodeForHashBlock(*root, outside, 0.25f, leaf), 66051);
    EXPECT_EQ(countCells(root->root_cell), 1);
    const float face[3] = {128.0f, 1.0f, 1.0f};
    ASSERT_EQ(octree.insertLeafNodeForHashBlock(*root, face, 0.25f, leaf), 0);
    EXPECT_FLOAT_EQ(leaf->center[0], 127.75f);  // the + side at every split ends at the face
}

TEST_F(SmallOctree, ConcurrentDescentsCreateEachChildOnce) {
    const float base[3] = {3.0f, 5.0f, 7.0f};
    std::shared_ptr<HashRootCellData> root;
    ASSERT_EQ(octree.insertBlockHash(base, root), 0);
    constexpr int THREADS = 8;
    std::vector<std::vector<CellNode*>> leaves(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 400; ++i) {
                const float p[3] = {base[0] + (i % 20) * 0.5f, base[1] + (i / 20) * 0.5f, base[2]};
                CellNode* leaf = nullptr;
                ASSERT_EQ(octree.insertLeafNodeForHashBlock(*root, p, 0.25f, leaf), 0);
                leaves[static_cast<std::size_t>(t)].push_back(leaf);
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 1; t < THREADS; ++t) EXPECT_EQ(leaves[static_cast<std::size_t>(t)], leaves[0]);
    std::set<CellNode*> distinct(leaves[0].begin(), leaves[0].end());
    EXPECT_EQ(distinct.size(), 400u);
    // Every child pointer is counted once, and every returned leaf stayed a leaf.
    std::vector<const CellNode*> stack{root->root_cell};
    while (!stack.empty()) {
        const CellNode* n = stack.back();
        stack.pop_back();
        int children = 0;
        for (const CellNode* child : n->children) {
            if (!child) continue;
            ++children;
            stack.push_back(child);
        }
        EXPECT_EQ(n->child_count, children);
    }
    for (CellNode* leaf : distinct) EXPECT_EQ(leaf->cell_type, CELL_TYPE_LEAF);
}

TEST_F(SmallOctree, ConcurrentRootCreationGivesOneRootPerBlock) {
    constexpr int THREADS = 8;
    std::vector<std::vector<std::shared_ptr<HashRootCellData>>> got(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 64; ++i) {
                const int b = (i + t) % 64;  // 64 blocks of edge 128 in a 4 x 4 x 4 cube
                const float p[3] = {(b % 4) * 128.0f + 1.0f, (b / 4 % 4) * 128.0f + 2.0f, (b / 16) * 128.0f + 3.0f};
                std::shared_ptr<HashRootCellData> root;
                ASSERT_EQ(octree.insertBlockHash(p, root), 0);
                got[static_cast<std::size_t>(t)].push_back(root);
            }
        });
    }
    for (auto& th : threads) th.join();
    std::shared_ptr<HashRootCellList> list;
    ASSERT_EQ(octree.getHashCellList(list), 0);
    EXPECT_EQ(list->datas_size.load(), 64);
    for (int t = 1; t < THREADS; ++t) {
        for (int i = 0; i < 64; ++i) {
            // Thread t asked for block (i + t) % 64 at step i; thread 0 asked for it at step (i + t) % 64.
            EXPECT_EQ(got[static_cast<std::size_t>(t)][static_cast<std::size_t>(i)],
                      got[0][static_cast<std::size_t>((i + t) % 64)]);
        }
    }
}
