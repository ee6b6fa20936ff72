// Life cycle of the marching cubes stage and the Reconstructor, and the field store they share.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "HashOctree.h"
#include "MarchingCubes.h"
#include "Portioner.h"
#include "Reconstructor.h"

using namespace SurfaceReconstruction;

TEST(FieldDataPool, ConcurrentReservationsAreDisjointAndGrowThePool) {
    FieldDataPool pool;
    ASSERT_TRUE(pool.init());
    constexpr int THREADS = 8;
    constexpr int PER_THREAD = 150000;  // 2.4 million slots: beyond the first four blocks
    std::vector<std::vector<std::int32_t>> got(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&pool, &got, t] {
            for (int i = 0; i < PER_THREAD; ++i) {
                std::int32_t index = -1;
                const std::int32_t count = 1 + (i & 1);
                ASSERT_EQ(pool.allocDataIndex(index, count), 0);
                got[static_cast<std::size_t>(t)].push_back(index);
                got[static_cast<std::size_t>(t)].push_back(count);
                FieldSlot* s = pool.slot(index + count - 1);  // the last slot of the run must exist
                ASSERT_NE(s, nullptr);
                s->value = static_cast<float>(t);
            }
        });
    }
    for (auto& th : threads) th.join();

    std::vector<std::pair<std::int32_t, std::int32_t>> runs;
    for (const auto& list : got)
        for (std::size_t i = 0; i < list.size(); i += 2) runs.emplace_back(list[i], list[i + 1]);
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

TEST(ReconstructorStage, MeshIsReplacedOnlyOnceOctreeAndPoolAreThere) {
    Reconstructor stage;
    auto mesh = std::make_shared<MultiMeshData>();
    mesh->xyz.push_back(TriangleXYZ{});
    mesh->w.push_back(TriangleW{});
    const MultiMeshData* before = mesh.get();

    EXPECT_EQ(stage.process(mesh), 1);
    EXPECT_EQ(stage.getLastError(), "no init!");
    EXPECT_EQ(stage.setHashOctree(std::make_shared<HashOctree>()), 1);
    ASSERT_EQ(stage.init(), 0);
    EXPECT_EQ(stage.process(mesh), 1);
    EXPECT_EQ(stage.getLastError(),
              "[Reconstructor] process error , m_hash_octree == nullptr || m_field_data_pool == nullptr !");
    EXPECT_EQ(mesh.get(), before);

    ASSERT_EQ(stage.setHashOctree(std::make_shared<HashOctree>()), 0);
    ASSERT_EQ(stage.setFieldDataPool(std::make_shared<FieldDataPool>()), 0);
    EXPECT_EQ(stage.process(mesh), 1);  // an octree without init has no cell list
    EXPECT_EQ(stage.getLastError(), "Reconstructor getHashCellList failed!");
    EXPECT_NE(mesh.get(), before);
    EXPECT_TRUE(mesh->xyz.empty());

    auto octree = std::make_shared<HashOctree>();
    ASSERT_EQ(octree->init(std::make_shared<HashParameters>(HashParameters{64, 63, 8, 100, 1, 10})), 0);
    ASSERT_EQ(stage.setHashOctree(octree), 0);
    const int status = stage.process(mesh);
    EXPECT_NE(mesh.get(), before);  // a new record on every return from here on
    EXPECT_TRUE(mesh->xyz.empty());
    EXPECT_EQ(mesh->xyz.size(), mesh->w.size());
    EXPECT_EQ(status, reconstructorMemoryGuard() ? 0 : 66049);
    EXPECT_EQ(stage.deInit(), 0);
}
