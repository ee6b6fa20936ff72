// Portioner: block sizing from resolution and device memory, the intake of the first pass and the
// block list's accessors.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <tuple>

#include "FakeDevices.h"
#include "GridHash.h"
#include "Portioner.h"
#include "PortionerSetup.h"
#include "TestAccess.h"
#include "ThreadPool.h"

using namespace SurfaceReconstruction;
using testing_support::configurePortioner;
using testing_support::FakeDevices;

class PortionerIntake : public ::testing::Test {
protected:
    void SetUp() override { params = configurePortioner(portioner, 20, 256, 0.5f); }

    static std::shared_ptr<FrameDataWithInfo> frame(std::size_t points, int laser_id) {
        auto f = std::make_shared<FrameDataWithInfo>();
        f->xyz.assign(points, Vec3f{1, 2, 3});
        f->nor.assign(points, Vec3f{0, 0, 1});
        f->w.assign(points, 8);
        f->frame_info.laser_id = laser_id;
        return f;
    }

    std::shared_ptr<DeviceParameters> params;
    Portioner portioner;
};

TEST_F(PortionerIntake, FrameOfExactlyTheSlotSizeFitsOneMoreDoesNot) {
    ASSERT_EQ(portioner.init(), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(20, 0)), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(21, 0)), 1);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(0, 0)), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(nullptr), 1);
    EXPECT_EQ(TestAccess::waitingFrameCount(portioner), 2u);
    EXPECT_EQ(portioner.getLastError(), "no error!");  // a refused frame leaves no text
}

TEST_F(PortionerIntake, LaserIdOutsideZeroToSevenIsWrittenBackAsZero) {
    ASSERT_EQ(portioner.init(), 0);
    for (int id : {-1, 0, 7, 8, 1000}) {
        auto f = frame(2, id);
        ASSERT_EQ(portioner.addScanFrameWithoutModel(f), 0);
        EXPECT_EQ(f->frame_info.laser_id, (id >= 0 && id <= 7) ? id : 0) << "laser_id " << id;
    }
}

// ---- whole runs of the Portioner ---------------------------------------------------------------------

namespace {

using BlockKey = std::tuple<int, int, int>;

// A point as it should reach a block, comparable field by field.
struct PointRecord {
    float x, y, z, nx, ny, nz;
    std::int32_t w;
    int laser;
    bool operator<(const PointRecord& o) const {
        return std::tie(x, y, z, nx, ny, nz, w, laser) < std::tie(o.x, o.y, o.z, o.nx, o.ny, o.nz, o.w, o.laser);
    }
    bool operator==(const PointRecord& o) const {
        return std::tie(x, y, z, nx, ny, nz, w, laser) == std::tie(o.x, o.y, o.z, o.nx, o.ny, o.nz, o.w, o.laser);
    }
};

constexpr float RES = 0.5f;
constexpr std::uint32_t BLOCK_SIZE = 128;  // block_res 64
constexpr float BLOCK_RES = BLOCK_SIZE * RES;
constexpr float HALF_EXT = BLOCK_RES * 0.5f + 12 * RES;  // 38

using Frames = std::vector<std::shared_ptr<FrameDataWithInfo>>;

std::shared_ptr<FrameDataWithInfo> frameOf(const std::vector<Vec3f>& points, int laser_id = 1, int w = 8) {
    auto f = std::make_shared<FrameDataWithInfo>();
    for (std::size_t i = 0; i < points.size(); ++i) {
        f->xyz.push_back(points[i]);
        f->nor.push_back({0.0f, 0.0f, 1.0f});
        f->w.push_back(w);
    }
    f->frame_info.laser_id = laser_id;
    return f;
}

Frames randomFrames(int count, int max_points, unsigned seed, float extent = 100.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-extent, extent);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    std::uniform_int_distribution<int> points(0, max_points);
    std::uniform_int_distribution<int> laser(0, 9);
    std::uniform_int_distribution<int> flags(0, 3);
    Frames frames;
    for (int i = 0; i < count; ++i) {
        auto f = std::make_shared<FrameDataWithInfo>();
        const int n = (i == 0) ? max_points : points(rng);
        for (int p = 0; p < n; ++p) {
            f->xyz.push_back({coord(rng), coord(rng), coord(rng)});
            f->nor.push_back({unit(rng), unit(rng), unit(rng)});
            f->w.push_back(((p % 2) ? 16 : 8) | (flags(rng) << 8));
        }
        f->frame_info.laser_id = laser(rng);
        frames.push_back(f);
    }
    return frames;
}

// What every block must hold, by the rules alone: each point in its own block and in each existing
// neighbour whose box, grown by the margin, holds it; blocks are the positions of all points.
std::map<BlockKey, std::vector<PointRecord>> bruteForceBlocks(const Frames& frames) {
    std::set<BlockKey> occupied;
    for (const auto& f : frames)
        for (const Vec3f& p : f->xyz)
            occupied.insert({gridIndex(p[0], BLOCK_RES), gridIndex(p[1], BLOCK_RES), gridIndex(p[2], BLOCK_RES)});
    std::map<BlockKey, std::vector<PointRecord>> blocks;
    for (const BlockKey& key : occupied) blocks[key];
    for (const auto& f : frames) {
        const int laser = (f->frame_info.laser_id >= 0 && f->frame_info.laser_id < 8) ? f->frame_info.laser_id : 0;
        for (std::size_t i = 0; i < f->xyz.size(); ++i) {
            const Vec3f& p = f->xyz[i];
            if (std::fabs(p[0]) < 0.1f && std::fabs(p[1]) < 0.1f && std::fabs(p[2]) < 0.1f) continue;
            const PointRecord r{p[0], p[1], p[2], f->nor[i][0], f->nor[i][1], f->nor[i][2], f->w[i], laser};
            const int bx = gridIndex(p[0], BLOCK_RES), by = gridIndex(p[1], BLOCK_RES), bz = gridIndex(p[2], BLOCK_RES);
            for (int dx = -1; dx <= 1; ++dx)
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dz = -1; dz <= 1; ++dz) {
                        const BlockKey key{bx + dx, by + dy, bz + dz};
                        if (!occupied.count(key)) continue;
                        const bool own = dx == 0 && dy == 0 && dz == 0;
                        const float c[3] = {std::fma(float(bx + dx), BLOCK_RES, BLOCK_RES * 0.5f),
                                            std::fma(float(by + dy), BLOCK_RES, BLOCK_RES * 0.5f),
                                            std::fma(float(bz + dz), BLOCK_RES, BLOCK_RES * 0.5f)};
                        if (!own && (std::fabs(p[0] - c[0]) > HALF_EXT || std::fabs(p[1] - c[1]) > HALF_EXT ||
                                     std::fabs(p[2] - c[2]) > HALF_EXT))
                            continue;
                        blocks[key].push_back(r);
                    }
        }
    }
    for (auto& entry : blocks) std::sort(entry.second.begin(), entry.second.end());
    return blocks;
}

// Runs the Portioner without a model over `frames`, the way the engine does.
class PortionerRun {
public:
    explicit PortionerRun(const Frames& frames, std::uint64_t raw_points_capacity = 0) {
        std::uint32_t largest = 0;
        for (const auto& f : frames)
            largest = std::max<std::uint32_t>(largest, static_cast<std::uint32_t>(f->xyz.size()));
        params = configurePortioner(portioner, largest, BLOCK_SIZE, RES);
        pool = std::make_shared<ThreadPool>(2);
        portioner.setThreadPool(pool);
        TestAccess::setRawPointsCapacityForTest(portioner, raw_points_capacity);
        EXPECT_EQ(portioner.init(), 0);
        for (const auto& f : frames) EXPECT_EQ(portioner.addScanFrameWithoutModel(f), 0);
        ::testing::internal::CaptureStdout();
        status = portioner.processWithoutModel();
        output = ::testing::internal::GetCapturedStdout();
    }

    std::map<BlockKey, std::vector<PointRecord>> blocks() {
        std::map<BlockKey, std::vector<PointRecord>> result;
        const int n = portioner.getPointCloudBlockCount();
        for (int i = 0; i < n; ++i) {
            std::shared_ptr<PointCloudBlock> block;
            EXPECT_EQ(portioner.getPointCloudBlock(block, i), 0);
            const BlockKey key{gridIndex(block->center[0], BLOCK_RES), gridIndex(block->center[1], BLOCK_RES),
                               gridIndex(block->center[2], BLOCK_RES)};
            EXPECT_FLOAT_EQ(block->half_size, BLOCK_RES * 0.5f);
            auto& list = result[key];
            std::int32_t flags = 0;
            for (const RawPointWithHash& p : *block->points) {
                list.push_back({p.x, p.y, p.z, p.nx, p.ny, p.nz, p.w, p.laser});
                flags |= p.w;
                EXPECT_EQ(p.reserved_a, 0);
                EXPECT_EQ(p.reserved_b, 0);
            }
            EXPECT_EQ(block->flags, flags);
            std::sort(list.begin(), list.end());
        }
        return result;
    }

    // How many blocks received a copy of the point at `p`.
    int copiesOf(const Vec3f& p) {
        int copies = 0;
        for (const auto& entry : blocks())
            for (const PointRecord& r : entry.second) copies += (r.x == p[0] && r.y == p[1] && r.z == p[2]) ? 1 : 0;
        return copies;
    }

    std::shared_ptr<DeviceParameters> params;
    std::shared_ptr<ThreadPool> pool;
    Portioner portioner;
    int status = -1;
    std::string output;
};

}  // namespace

TEST(PortionerRuns, EveryPointReachesItsBlockAndTheMarginsThatHoldIt) {
    const Frames frames = randomFrames(40, 300, 7);
    const auto expected = bruteForceBlocks(frames);
    PortionerRun run(frames);
    ASSERT_EQ(run.status, 0) << run.portioner.getLastError();
    EXPECT_EQ(run.portioner.getPointCloudBlockCount(), static_cast<int>(expected.size()));
    const auto actual = run.blocks();
    ASSERT_EQ(actual.size(), expected.size());
    for (const auto& entry : expected) {
        auto found = actual.find(entry.first);
        ASSERT_NE(found, actual.end());
        ASSERT_EQ(found->second.size(), entry.second.size());
        EXPECT_TRUE(found->second == entry.second);
    }
    // Largest first; equal sizes in position order.
    std::shared_ptr<PointCloudBlock> previous;
    for (int i = 0; i < run.portioner.getPointCloudBlockCount(); ++i) {
        std::shared_ptr<PointCloudBlock> block;
        run.portioner.getPointCloudBlock(block, i);
        if (previous) {
            ASSERT_GE(previous->points->size(), block->points->size());
            if (previous->points->size() == block->points->size()) {
                const auto key = [](const PointCloudBlock& b) {
                    return std::make_tuple(b.center[0], b.center[1], b.center[2]);
                };
                EXPECT_LT(key(*previous), key(*block));
            }
        }
        previous = block;
    }
    std::shared_ptr<PointCloudBlock> largest;
    ASSERT_EQ(run.portioner.getPointCloudBlock(largest, 0), 0);
    EXPECT_EQ(run.portioner.getMaxBlockPointsSize(), static_cast<int>(largest->points->size()));
}

TEST(PortionerRuns, PartitionOutputOutgrowingItsBufferKeepsEveryPoint) {
    const Frames frames = randomFrames(12, 400, 11);
    const auto expected = bruteForceBlocks(frames);
    PortionerRun run(frames, /*raw_points_capacity=*/16);
    ASSERT_EQ(run.status, 0) << run.portioner.getLastError();
    EXPECT_GE(TestAccess::partitionGrowths(run.portioner), 1);
    const auto actual = run.blocks();
    ASSERT_EQ(actual.size(), expected.size());
    for (const auto& entry : expected) EXPECT_TRUE(actual.at(entry.first) == entry.second);
}

TEST(PortionerRuns, SameFramesGiveIdenticalBlocksForAnyThreadCount) {
    const Frames frames = randomFrames(30, 500, 3);
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    PortionerRun single(frames);
    omp_set_num_threads(std::max(2, threads));
    PortionerRun many(frames);
    omp_set_num_threads(threads);
    ASSERT_EQ(single.status, 0);
    ASSERT_EQ(many.status, 0);
    const int n = single.portioner.getPointCloudBlockCount();
    ASSERT_EQ(n, many.portioner.getPointCloudBlockCount());
    for (int i = 0; i < n; ++i) {
        std::shared_ptr<PointCloudBlock> a, b;
        single.portioner.getPointCloudBlock(a, i);
        many.portioner.getPointCloudBlock(b, i);
        ASSERT_EQ(a->points->size(), b->points->size());
        EXPECT_EQ(std::memcmp(a->center, b->center, sizeof(a->center)), 0);
        EXPECT_EQ(a->flags, b->flags);
        EXPECT_EQ(std::memcmp(a->points->data(), b->points->data(), a->points->size() * sizeof(RawPointWithHash)), 0)
            << "block " << i;
    }
}

TEST(PortionerRuns, MarginRules) {
    const Vec3f centre0{32.0f, 32.0f, 32.0f}, centre_x{96.0f, 32.0f, 32.0f};
    {
        PortionerRun run({frameOf({centre0, centre_x, {20.0f, 30.0f, 30.0f}})});
        EXPECT_EQ(run.copiesOf({20.0f, 30.0f, 30.0f}), 1);  // middle of a block
    }
    {
        PortionerRun run({frameOf({centre0, centre_x, {62.0f, 30.0f, 30.0f}})});
        EXPECT_EQ(run.copiesOf({62.0f, 30.0f, 30.0f}), 2);  // at a face with a neighbour
    }
    {
        // At a face of a neighbour with no points of its own: that block is made for its margin, so that
        // a surface along the face is contoured across it; a block whose margin gets nothing is not made.
        PortionerRun run({frameOf({centre0, {62.0f, 30.0f, 30.0f}})});
        EXPECT_EQ(run.copiesOf({62.0f, 30.0f, 30.0f}), 2);
        const auto blocks = run.blocks();
        ASSERT_EQ(blocks.size(), 2u);
        EXPECT_EQ(blocks.at({1, 0, 0}).size(), 1u);
    }
    {
        // Exactly half_ext from the neighbour's centre is inside; one float step farther is not.
        const float inside = 96.0f - HALF_EXT;
        const float outside = std::nextafter(inside, 0.0f);
        PortionerRun run({frameOf({centre0, centre_x, {inside, 30.0f, 30.0f}, {outside, 31.0f, 30.0f}})});
        EXPECT_EQ(run.copiesOf({inside, 30.0f, 30.0f}), 2);
        EXPECT_EQ(run.copiesOf({outside, 31.0f, 30.0f}), 1);
    }
    {
        std::vector<Vec3f> points;
        for (int i = 0; i < 8; ++i)
            points.push_back({32.0f + 64.0f * (i & 1), 32.0f + 64.0f * ((i >> 1) & 1), 32.0f + 64.0f * ((i >> 2) & 1)});
        points.push_back({62.0f, 62.0f, 62.0f});
        PortionerRun run({frameOf(points)});
        EXPECT_EQ(run.copiesOf({62.0f, 62.0f, 62.0f}), 8);  // a corner with all neighbours
    }
}

TEST(PortionerRuns, PointsNearTheOriginAreSkipped) {
    {
        // Both near-origin points are skipped in the second pass: their blocks end up empty and are dropped.
        PortionerRun run({frameOf({{0.05f, 0.05f, 0.05f}, {-0.05f, 0.0f, 0.0f}, {200.0f, 200.0f, 200.0f}})});
        ASSERT_EQ(run.status, 0);
        const auto blocks = run.blocks();
        ASSERT_EQ(blocks.size(), 1u);
        EXPECT_EQ(blocks.at({3, 3, 3}).size(), 1u);
    }
    {
        // Strictly below 0.1 on all axes is skipped; this one is kept, in its block and in the margins of
        // the seven others around the origin.
        PortionerRun run({frameOf({{0.05f, 0.05f, 0.1f}})});
        EXPECT_EQ(run.copiesOf({0.05f, 0.05f, 0.1f}), 8);
    }
}

TEST(PortionerRuns, NoFramesGivesNoBlocksAndNoText) {
    PortionerRun run({});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.portioner.getLastError(), "no error!");
    EXPECT_EQ(run.portioner.getPointCloudBlockCount(), 0);
}

TEST(PortionerRuns, RawSurfaceBufferNeverOverflows) {
    // Slot size 20 at init gives room for 20000 points; frames of up to 60 points then arrive.
    Portioner portioner;
    auto params = configurePortioner(portioner, 20, BLOCK_SIZE, RES);
    ASSERT_EQ(portioner.init(), 0);
    EXPECT_EQ(TestAccess::rawSurfaceCapacity(portioner), 20000u);
    params->MAX_FRAME_POINTS = 30000;
    const Frames frames = randomFrames(3, 30000, 5);
    for (const auto& f : frames) ASSERT_EQ(portioner.addScanFrameWithoutModel(f), 0);
    EXPECT_GE(TestAccess::rawSurfaceCapacity(portioner), 30000u);
    EXPECT_GE(TestAccess::blockComputations(portioner), 1);  // the buffer was emptied before it could overflow
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(portioner.processWithoutModel(), 0);
    ::testing::internal::GetCapturedStdout();
    std::size_t total = 0;
    for (int i = 0; i < portioner.getPointCloudBlockCount(); ++i) {
        std::shared_ptr<PointCloudBlock> b;
        portioner.getPointCloudBlock(b, i);
        total += b->points->size();
    }
    std::size_t expected_total = 0;
    for (const auto& entry : bruteForceBlocks(frames)) expected_total += entry.second.size();
    EXPECT_EQ(total, expected_total);
}

TEST(PortionerRuns, ModelPathTakesBlocksFromTheModel) {
    Portioner portioner;
    auto params = configurePortioner(portioner, 10, BLOCK_SIZE, RES);
    EXPECT_EQ(portioner.setSimplifiedModel({{1, 1, 1}}), 1);
    EXPECT_EQ(portioner.getLastError(), "no init!");
    ASSERT_EQ(portioner.init(), 0);
    ASSERT_EQ(portioner.setSimplifiedModel({{10, 10, 10}, {20, 20, 20}, {70, 10, 10}}), 0);
    ASSERT_EQ(TestAccess::rawSurfaceBlocks(portioner).size(), 2u);
    EXPECT_EQ(portioner.processWithoutModel(), 1);  // the two paths stay apart

    auto inside = frameOf({{30, 30, 30}, {100, 30, 30}});
    auto outside = frameOf({{-30, 30, 30}});  // no block of the model holds it
    ASSERT_EQ(portioner.addScanFrameWithModel(inside), 0);
    ASSERT_EQ(portioner.addScanFrameWithModel(outside), 0);
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(portioner.processWithModel(), 0);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("processScanFrameListKernel: cur_hash_entry == nullptr"), std::string::npos);
    std::size_t total = 0;
    for (int i = 0; i < portioner.getPointCloudBlockCount(); ++i) {
        std::shared_ptr<PointCloudBlock> b;
        portioner.getPointCloudBlock(b, i);
        total += b->points->size();
    }
    EXPECT_EQ(total, 2u);  // (30,30,30) and (100,30,30), each in its own block only
}

TEST(PortionerRuns, FailedDeviceAllocationIsReportedWithItsStatus) {
    testing_support::FakeDevices fake;
    fake.fail_malloc_at = 0;
    Portioner portioner;
    configurePortioner(portioner, 0, BLOCK_SIZE, RES);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(portioner.init(), 1);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("cudaMalloc(&m_raw_surface_xyz_dev"), std::string::npos);
    EXPECT_EQ(portioner.getLastError(), "[Portioner] init try catch error!");
    EXPECT_FALSE(portioner.isInited());
}
