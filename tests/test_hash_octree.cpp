// The octree's hash table: chains into the overflow area, concurrent find-or-insert, exhaustion.
#include <gtest/gtest.h>

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
    EXPECT_EQ(first->next, 1024);
    EXPECT_EQ(second->data_id, -1);
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
    EXPECT_NE(out.find("---- error: (cur_ExcessHash_Index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE"), std::string::npos);
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
                got[static_cast<std::size_t>(t)][static_cast<std::size_t>(key)] = table.findOrInsertHashEntry(key, 1, -key);
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
