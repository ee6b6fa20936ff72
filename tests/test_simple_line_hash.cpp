// The grid hash and SimpleLineHash: fixed values, chains into the excess area, concurrent inserts and
// exhaustion.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <thread>
#include <vector>

#include "GridHash.h"
#include "SimpleLineHash.h"

using namespace SurfaceReconstruction;

TEST(GridHash, GridIndexIsTheFloorExceptAtExactNegativeMultiples) {
    const float block = 256.0f;
    EXPECT_EQ(gridIndex(-256.0f, block), -2);  // exactly -1.0 lands one lower
    EXPECT_EQ(gridIndex(-128.0f, block), -1);
    EXPECT_EQ(gridIndex(-64.0f, block), -1);
    EXPECT_EQ(gridIndex(-1.0e-6f, block), -1);
    EXPECT_EQ(gridIndex(0.0f, block), 0);
    EXPECT_EQ(gridIndex(64.0f, block), 0);
    EXPECT_EQ(gridIndex(256.0f, block), 1);
    EXPECT_EQ(gridIndex(-512.0f, block), -3);
    EXPECT_EQ(gridIndex(std::numeric_limits<float>::quiet_NaN(), block), 0);
    EXPECT_EQ(gridIndex(1.0e30f, block), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(gridIndex(-1.0e30f, block), std::numeric_limits<std::int32_t>::min());
}

namespace {
// Two keys that share a slot under `mask`, found by search.
std::pair<std::array<int, 3>, std::array<int, 3>> collidingKeys(std::uint32_t mask) {
    const std::uint32_t target = hashGridKey(0, 0, 0, mask);
    for (int x = 1; x < 1000000; ++x) {
        if (hashGridKey(x, 0, 0, mask) == target) return {{0, 0, 0}, {x, 0, 0}};
    }
    ADD_FAILURE() << "no collision found";
    return {};
}
}  // namespace

TEST(SimpleLineHash, InsertFindAndRepeatedInsert) {
    SimpleLineHash table;
    SimpleLineHashEntry* entry = nullptr;
    EXPECT_EQ(table.insert(1, 2, 3, entry), 1);  // before init
    EXPECT_EQ(table.clear(), 1);
    ASSERT_EQ(table.init(32768, 20000), 0);
    EXPECT_EQ(table.getHashMask(), 32767u);

    EXPECT_EQ(table.find(0, 0, 0, entry), 1);  // an empty slot also holds a zero key
    ASSERT_EQ(table.insert(0, 0, 0, entry), 0);
    EXPECT_EQ(entry, table.getHashEntriesPtr() + 7820);
    entry->id = 42;
    SimpleLineHashEntry* again = nullptr;
    ASSERT_EQ(table.insert(0, 0, 0, again), 0);
    EXPECT_EQ(again, entry);
    EXPECT_EQ(again->id, 42);  // what the caller stored stays
    SimpleLineHashEntry* found = nullptr;
    ASSERT_EQ(table.find(0, 0, 0, found), 0);
    EXPECT_EQ(found, entry);
    EXPECT_EQ(table.find(5, 5, 5, found), 1);
    EXPECT_EQ(found, nullptr);
}

TEST(SimpleLineHash, CollisionGoesToTheFirstExcessEntryAndExhausts) {
    const auto keys = collidingKeys(1023);
    SimpleLineHash table;
    ASSERT_EQ(table.init(1024, 1), 0);
    SimpleLineHashEntry* first = nullptr;
    SimpleLineHashEntry* second = nullptr;
    ASSERT_EQ(table.insert(keys.first[0], keys.first[1], keys.first[2], first), 0);
    ASSERT_EQ(table.insert(keys.second[0], keys.second[1], keys.second[2], second), 0);
    EXPECT_EQ(second - table.getHashEntriesPtr(), 1024);
    EXPECT_EQ(first->next, 1024);
    SimpleLineHashEntry* found = nullptr;
    ASSERT_EQ(table.find(keys.second[0], keys.second[1], keys.second[2], found), 0);
    EXPECT_EQ(found, second);

    // The excess area is full now: a third key of the slot fails with the message.
    int third_x = keys.second[0] + 1;
    while (hashGridKey(third_x, 0, 0, 1023) != hashGridKey(0, 0, 0, 1023)) ++third_x;
    ::testing::internal::CaptureStdout();
    SimpleLineHashEntry* third = reinterpret_cast<SimpleLineHashEntry*>(&found);
    EXPECT_EQ(table.insert(third_x, 0, 0, third), 1);
    EXPECT_EQ(third, nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "---- error: (cur_excess_index - HASH_BUCKET_NUM) > HASH_EXCESS_LIST_SIZE ------- \n");
    // Existing keys and free bucket slots still work.
    ASSERT_EQ(table.insert(keys.second[0], keys.second[1], keys.second[2], found), 0);
    EXPECT_EQ(found, second);

    SimpleLineHash no_excess;
    ASSERT_EQ(no_excess.init(1024, 0), 0);
    ASSERT_EQ(no_excess.insert(keys.first[0], keys.first[1], keys.first[2], first), 0);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(no_excess.insert(keys.second[0], keys.second[1], keys.second[2], second), 1);
    EXPECT_FALSE(::testing::internal::GetCapturedStdout().empty());
}

TEST(SimpleLineHash, ConcurrentInsertsAgreeOnOneEntryPerKey) {
    SimpleLineHash table;
    ASSERT_EQ(table.init(256, 20000), 0);  // few buckets: long chains, many races at chain ends
    constexpr int THREADS = 8;
    constexpr int KEYS = 3000;
    std::vector<std::vector<SimpleLineHashEntry*>> got(THREADS, std::vector<SimpleLineHashEntry*>(KEYS));
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int k = 0; k < KEYS; ++k) {
                const int key = (k * 7 + t * 13) % KEYS;  // every thread inserts every key, in its own order
                SimpleLineHashEntry* e = nullptr;
                ASSERT_EQ(table.insert(key, -key, key / 3, e), 0);
                got[static_cast<std::size_t>(t)][static_cast<std::size_t>(key)] = e;
            }
        });
    }
    for (auto& th : threads) th.join();
    std::set<SimpleLineHashEntry*> distinct;
    for (int k = 0; k < KEYS; ++k) {
        SimpleLineHashEntry* e = got[0][static_cast<std::size_t>(k)];
        for (int t = 1; t < THREADS; ++t) ASSERT_EQ(got[static_cast<std::size_t>(t)][static_cast<std::size_t>(k)], e);
        EXPECT_EQ(e->x, k);
        EXPECT_EQ(e->y, -k);
        distinct.insert(e);
        SimpleLineHashEntry* found = nullptr;
        ASSERT_EQ(table.find(k, -k, k / 3, found), 0);
        EXPECT_EQ(found, e);
    }
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(KEYS));
}
