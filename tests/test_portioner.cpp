// The Portioner: the intake of frames, and whole runs against a brute-force count of what each block must
// hold, on random frames and on the real scans; margins, buffers that must grow, the model path.
#include <map>
#include <tuple>

#include "FakeDevices.h"
#include "TestAccess.h"
#include "TestSupport.h"
#include "common/BlockSelection.h"
#include "common/GridHash.h"
#include "common/ThreadPool.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

using BlockKey = std::tuple<int, int, int>;

// A point as it should reach a block, comparable field by field.
struct PointRecord {
    float x, y, z, nx, ny, nz;
    std::int32_t w;
    int laser;
    auto tied() const { return std::tie(x, y, z, nx, ny, nz, w, laser); }
    bool operator<(const PointRecord& o) const { return tied() < o.tied(); }
    bool operator==(const PointRecord& o) const { return tied() == o.tied(); }
};
using Blocks = std::map<BlockKey, std::vector<PointRecord>>;

// Blocks of `block_size` cells of `resolution` with margins of 12 cells.
struct Grid {
    std::uint32_t block_size = 128;
    float resolution = 0.5f;
    float blockRes() const { return static_cast<float>(block_size) * resolution; }
    float halfExt() const { return blockRes() * 0.5f + 12 * resolution; }
    int index(float v) const { return gridIndex(v, blockRes()); }
};

Frames randomFrames(int count, int max_points, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-100.0f, 100.0f), unit(-1.0f, 1.0f);
    std::uniform_int_distribution<int> points(0, max_points), laser(0, 9), flags(0, 3);
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

// What every block must hold, by the rules alone: each point, unless exactly at the origin, in its own block and in
// each neighbour whose box, grown by the margin, holds it; a block exists when it holds a record.
Blocks bruteForceBlocks(const Frames& frames, const Grid& g = {}) {
    Blocks blocks;
    for (const auto& f : frames) {
        const int laser = (f->frame_info.laser_id >= 0 && f->frame_info.laser_id < 8) ? f->frame_info.laser_id : 0;
        for (std::size_t i = 0; i < f->xyz.size(); ++i) {
            const Vec3f& p = f->xyz[i];
            if (p[0] == 0.0f && p[1] == 0.0f && p[2] == 0.0f) continue;
            const PointRecord r{p[0], p[1], p[2], f->nor[i][0], f->nor[i][1], f->nor[i][2], f->w[i], laser};
            const int b[3] = {g.index(p[0]), g.index(p[1]), g.index(p[2])};
            for (int d = 0; d < 27; ++d) {
                const int o[3] = {d % 3 - 1, d / 3 % 3 - 1, d / 9 - 1};
                bool inside = true;
                for (int k = 0; k < 3 && inside; ++k) {
                    const float c = std::fma(float(b[k] + o[k]), g.blockRes(), g.blockRes() * 0.5f);
                    inside = (o[0] == 0 && o[1] == 0 && o[2] == 0) || std::fabs(p[k] - c) <= g.halfExt();
                }
                if (inside) blocks[{b[0] + o[0], b[1] + o[1], b[2] + o[2]}].push_back(r);
            }
        }
    }
    for (auto& entry : blocks) std::sort(entry.second.begin(), entry.second.end());
    return blocks;
}

// Runs the Portioner without a model over `frames`, the way the engine does.
class PortionerRun {
public:
    explicit PortionerRun(const Frames& frames, std::uint64_t raw_points_capacity = 0, Grid grid = {},
                          bool batches = false, BlockKeySet computed = {})
        : g(grid) {
        std::uint32_t largest = 0;
        for (const auto& f : frames) largest = std::max(largest, static_cast<std::uint32_t>(f->xyz.size()));
        params = configurePortioner(portioner, largest, g.block_size, g.resolution);
        portioner.setThreadPool(pool);
        TestAccess::setRawPointsCapacityForTest(portioner, raw_points_capacity);
        if (batches) TestAccess::takeBatches(portioner);
        portioner.setComputedBlocks(std::move(computed));
        EXPECT_EQ(portioner.init(), 0);
        for (const auto& f : frames) EXPECT_EQ(portioner.addScanFrameWithoutModel(f), 0);
        output = quiet([&] { status = portioner.processWithoutModel(); });
    }

    std::shared_ptr<PointCloudBlock> block(int i) {
        std::shared_ptr<PointCloudBlock> b;
        EXPECT_EQ(portioner.getPointCloudBlock(b, i), 0);
        return b;
    }

    Blocks blocks() {
        Blocks result;
        for (int i = 0; i < portioner.getPointCloudBlockCount(); ++i) {
            const auto b = block(i);
            EXPECT_FLOAT_EQ(b->half_size, g.blockRes() * 0.5f);
            auto& list = result[{g.index(b->center[0]), g.index(b->center[1]), g.index(b->center[2])}];
            std::int32_t flags = 0;
            for (const RawPointWithHash& p : *b->points) {
                list.push_back({p.x, p.y, p.z, p.nx, p.ny, p.nz, p.w, p.laser});
                flags |= p.w;
                EXPECT_EQ(p.reserved_a, 0);
                EXPECT_EQ(p.reserved_b, 0);
            }
            EXPECT_EQ(b->flags, flags);
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

    Grid g;
    std::shared_ptr<DeviceParameters> params;
    std::shared_ptr<ThreadPool> pool = std::make_shared<ThreadPool>(2);
    Portioner portioner;
    int status = -1;
    std::string output;
};

void expectSameBlocks(const Blocks& actual, const Blocks& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (const auto& [key, records] : expected) {
        const auto found = actual.find(key);
        ASSERT_NE(found, actual.end()) << std::get<0>(key) << " " << std::get<1>(key) << " " << std::get<2>(key);
        ASSERT_EQ(found->second.size(), records.size());
        EXPECT_TRUE(found->second == records) << std::get<0>(key) << " " << std::get<1>(key) << " " << std::get<2>(key);
    }
}

void expectIdenticalBlocks(PortionerRun& a, PortionerRun& b) {
    ASSERT_EQ(a.status, 0);
    ASSERT_EQ(b.status, 0);
    ASSERT_EQ(a.portioner.getPointCloudBlockCount(), b.portioner.getPointCloudBlockCount());
    for (int i = 0; i < a.portioner.getPointCloudBlockCount(); ++i) {
        const auto x = a.block(i), y = b.block(i);
        ASSERT_EQ(x->points->size(), y->points->size());
        EXPECT_EQ(std::memcmp(x->center, y->center, sizeof(x->center)), 0);
        EXPECT_EQ(x->flags, y->flags);
        EXPECT_EQ(std::memcmp(x->points->data(), y->points->data(), x->points->size() * sizeof(RawPointWithHash)), 0)
            << "block " << i;
    }
}

std::size_t totalPoints(Portioner& portioner) {
    std::size_t total = 0;
    for (int i = 0; i < portioner.getPointCloudBlockCount(); ++i) {
        std::shared_ptr<PointCloudBlock> b;
        EXPECT_EQ(portioner.getPointCloudBlock(b, i), 0);
        total += b->points->size();
    }
    return total;
}

}  // namespace

TEST(PortionerRuns, EveryPointReachesItsBlockAndTheMarginsThatHoldIt) {
    const Frames frames = randomFrames(40, 300, 7);
    PortionerRun run(frames);
    ASSERT_EQ(run.status, 0) << run.portioner.getLastError();
    expectSameBlocks(run.blocks(), bruteForceBlocks(frames));
    // Largest first; equal sizes in position order.
    for (int i = 1; i < run.portioner.getPointCloudBlockCount(); ++i) {
        const auto previous = run.block(i - 1), block = run.block(i);
        ASSERT_GE(previous->points->size(), block->points->size());
        if (previous->points->size() == block->points->size()) {
            const auto key = [](const PointCloudBlock& b) {
                return std::make_tuple(b.center[0], b.center[1], b.center[2]);
            };
            EXPECT_LT(key(*previous), key(*block));
        }
    }
    EXPECT_EQ(run.portioner.getMaxBlockPointsSize(), static_cast<int>(run.block(0)->points->size()));
}

TEST(PortionerRuns, PartitionOutputOutgrowingItsBufferKeepsEveryPoint) {
    const Frames frames = randomFrames(12, 400, 11);
    PortionerRun run(frames, /*raw_points_capacity=*/16);
    ASSERT_EQ(run.status, 0) << run.portioner.getLastError();
    // Where device memory is host memory the records go straight to the blocks, with no output buffer.
    if (!deviceMemoryIsHostMemory()) {
        EXPECT_GE(TestAccess::partitionGrowths(run.portioner), 1);
    }
    expectSameBlocks(run.blocks(), bruteForceBlocks(frames));
}

TEST(PortionerRuns, StraightFromTheFramesGivesTheBlocksOfTheBatches) {
    // Where device memory is host memory the second pass takes the frames as they are, share by share; the
    // blocks must be those that batch after batch make, byte for byte (laser ids 8 and 9 read as 0).
    const Frames frames = randomFrames(PORTIONER_MAX_FRAME_SIZE * 2 + 37, 60, 9);
    PortionerRun straight(frames);
    PortionerRun batched(frames, 0, {}, /*batches=*/true);
    expectIdenticalBlocks(straight, batched);
    expectSameBlocks(straight.blocks(), bruteForceBlocks(frames));
    // The records were counted before the second pass: each list was allocated once, at its size.
    for (PortionerRun* run : {&straight, &batched})
        for (int i = 0; i < run->portioner.getPointCloudBlockCount(); ++i)
            EXPECT_EQ(run->block(i)->points->capacity(), run->block(i)->points->size()) << "block " << i;
}

// Scan lines as a scanner makes them: long runs of points in one block, then across a face and its
// margins into the next, with null returns among them and points exactly at a margin's limit and one
// float step beyond. The straight pass, which takes runs of one block and groups of eight points at a
// time, must give every block the records that batch after batch give point by point, in their order.
TEST(PortionerRuns, ScanLinesAcrossFacesGiveTheRecordsOfTheBatches) {
    const Grid g;
    const float inside = 96.0f - g.halfExt(), outside = std::nextafter(inside, 0.0f);
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> along(-70.0f, 130.0f), jitter(-0.5f, 0.5f);
    Frames frames;
    for (int f = 0; f < 40; ++f) {
        auto frame = std::make_shared<FrameDataWithInfo>();
        const float y = along(rng), z = along(rng), step = 0.05f + 0.01f * static_cast<float>(f % 7);
        float x = along(rng) - 60.0f;
        for (int p = 0; p < 1200 + 13 * f; ++p, x += step) {
            Vec3f point{x, y + jitter(rng), z + jitter(rng)};
            if (p % 97 == 5) point = {0.0f, 0.0f, 0.0f};  // a null return
            if (p % 211 == 17) point = {inside, y, z};
            if (p % 211 == 18) point = {outside, y, z};
            if (f % 5 == 0 && p % 301 == 40) point = {0.0f, 0.0f, 1e-6f};  // beside the origin, kept
            frame->xyz.push_back(point);
            frame->nor.push_back({0.0f, 0.0f, 1.0f});
            frame->w.push_back(8 | ((p / 100) % 4) << 8);
        }
        frame->frame_info.laser_id = f % 3;
        frames.push_back(frame);
    }
    PortionerRun straight(frames);
    PortionerRun batched(frames, 0, {}, /*batches=*/true);
    ASSERT_GE(straight.portioner.getPointCloudBlockCount(), 8);
    expectIdenticalBlocks(straight, batched);
    expectSameBlocks(straight.blocks(), bruteForceBlocks(frames));
}

// A run of chosen blocks lists points for those blocks alone: each of them byte for byte as a run of all
// blocks lists it (its own points and the margins' copies, in the same order), in the straight pass and in
// batches; the other blocks take nothing, not even the points that lie in them (an empty block leaves the list).
TEST(PortionerRuns, ChosenBlocksAloneGetTheirListsAsInARunOfAllBlocks) {
    const Frames frames = randomFrames(PORTIONER_MAX_FRAME_SIZE + 37, 60, 13);
    PortionerRun whole(frames);
    ASSERT_EQ(whole.status, 0) << whole.portioner.getLastError();
    const auto keyOf = [&](const PointCloudBlock& b) {
        return SurfaceReconstruction::BlockKey{whole.g.index(b.center[0]), whole.g.index(b.center[1]),
                                               whole.g.index(b.center[2])};
    };
    std::map<std::tuple<int, int, int>, std::shared_ptr<PointCloudBlock>> all;
    BlockKeySet chosen;
    for (int i = 0; i < whole.portioner.getPointCloudBlockCount(); ++i) {
        const auto block = whole.block(i);
        const SurfaceReconstruction::BlockKey key = keyOf(*block);
        all[{key.x, key.y, key.z}] = block;
        if ((key.x + key.y + key.z) % 2 == 0) chosen.insert(key);  // a checkerboard
    }
    ASSERT_GE(all.size(), 8u);
    for (const bool batches : {false, true}) {
        PortionerRun part(frames, 0, {}, batches, chosen);
        ASSERT_EQ(part.status, 0) << part.portioner.getLastError();
        std::size_t listed = 0;
        for (int i = 0; i < part.portioner.getPointCloudBlockCount(); ++i) {
            const auto block = part.block(i);
            const SurfaceReconstruction::BlockKey key = keyOf(*block);
            if (chosen.count(key) == 0) {
                EXPECT_TRUE(block->points->empty()) << key.x << " " << key.y << " " << key.z;
                continue;
            }
            const auto& expected = *all.at({key.x, key.y, key.z});
            ASSERT_EQ(block->points->size(), expected.points->size());
            EXPECT_EQ(block->flags, expected.flags);
            EXPECT_EQ(std::memcmp(block->points->data(), expected.points->data(),
                                  block->points->size() * sizeof(RawPointWithHash)),
                      0)
                << "block " << key.x << " " << key.y << " " << key.z << (batches ? " in batches" : "");
            ++listed;
        }
        EXPECT_EQ(listed, chosen.size());
    }
}

TEST(PortionerRuns, StraightPassLetsGoOfTheFramesItAloneHolds) {
    // The frames of the application's own references stay as they are; those that only the Portioner
    // holds are gone once their points are on the lists, and the lists hold every point.
    const Frames frames = randomFrames(300, 80, 13);
    const Blocks expected = bruteForceBlocks(frames);
    std::vector<std::weak_ptr<FrameDataWithInfo>> watched;
    Frames kept, handed;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        auto copy = std::make_shared<FrameDataWithInfo>(*frames[i]);
        if (i % 3 == 0) kept.push_back(copy);
        watched.push_back(copy);
        handed.push_back(std::move(copy));
    }
    auto run = std::make_unique<PortionerRun>(handed);
    handed.clear();
    ASSERT_EQ(run->status, 0) << run->portioner.getLastError();
    for (std::size_t i = 0; i < watched.size(); ++i) EXPECT_EQ(watched[i].expired(), i % 3 != 0) << "frame " << i;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_EQ(kept[i]->xyz, frames[3 * i]->xyz);
        EXPECT_EQ(kept[i]->w, frames[3 * i]->w);
    }
    expectSameBlocks(run->blocks(), expected);
}

TEST(PortionerRuns, SameFramesGiveIdenticalBlocksForAnyThreadCount) {
    const Frames frames = randomFrames(30, 500, 3);
    auto one = withThreads(1, [&] { return std::make_unique<PortionerRun>(frames); });
    auto many = withThreads(manyThreads(), [&] { return std::make_unique<PortionerRun>(frames); });
    expectIdenticalBlocks(*one, *many);
}

TEST(PortionerRuns, BunnyBlocksHoldEveryPointAndItsMarginCopiesRepeatably) {
    TESSALINE_REQUIRE_BUNNY();
    const Frames frames = bunnyFrames();
    const Grid grid{256, 0.1f};  // blocks of 25.6 mm, margins of 1.2 mm
    PortionerRun first(frames, 0, grid), second(frames, 0, grid);
    ASSERT_EQ(first.status, 0) << first.portioner.getLastError();
    expectSameBlocks(first.blocks(), bruteForceBlocks(frames, grid));
    expectIdenticalBlocks(first, second);
}

TEST(PortionerRuns, MarginRules) {
    const Vec3f centre0{32.0f, 32.0f, 32.0f}, centre_x{96.0f, 32.0f, 32.0f};
    const float inside = 96.0f - Grid{}.halfExt(), outside = std::nextafter(inside, 0.0f);
    std::vector<Vec3f> corner;
    for (int i = 0; i < 8; ++i)
        corner.push_back({32.0f + 64.0f * (i & 1), 32.0f + 64.0f * ((i >> 1) & 1), 32.0f + 64.0f * ((i >> 2) & 1)});
    corner.push_back({62.0f, 62.0f, 62.0f});
    struct Row {
        const char* name;
        std::vector<Vec3f> points;  // the last one is counted
        int copies;
    };
    const Row rows[] = {
        {"middle of a block", {centre0, centre_x, {20.0f, 30.0f, 30.0f}}, 1},
        {"at a face with a neighbour", {centre0, centre_x, {62.0f, 30.0f, 30.0f}}, 2},
        // A block whose margin gets a copy is made, so that a surface along the face is contoured across it.
        {"at a face of a neighbour with no points of its own", {centre0, {62.0f, 30.0f, 30.0f}}, 2},
        {"exactly half_ext from the neighbour's centre", {centre0, centre_x, {inside, 30.0f, 30.0f}}, 2},
        {"one float step farther", {centre0, centre_x, {outside, 30.0f, 30.0f}}, 1},
        {"a corner with all neighbours", corner, 8},
        // Only points exactly at the origin are skipped: one beside it is kept with its neighbours.
        {"beside the origin, kept", {{0.05f, 0.05f, 0.1f}}, 8},
        {"a hair from the origin, kept", {{0.0f, 1e-6f, 0.0f}}, 8},
    };
    for (const Row& row : rows) {
        PortionerRun run({frameOf(row.points)});
        EXPECT_EQ(run.copiesOf(row.points.back()), row.copies) << row.name;
    }
    PortionerRun margin_only({frameOf({centre0, {62.0f, 30.0f, 30.0f}})});
    const auto blocks = margin_only.blocks();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks.at({1, 0, 0}).size(), 1u);  // a block whose margin gets nothing is not made
}

TEST(PortionerRuns, FrameOfExactlyTheSlotSizeFitsOneMoreDoesNot) {
    Portioner portioner;
    configurePortioner(portioner, 20, 256, 0.5f);
    ASSERT_EQ(portioner.init(), 0);
    const auto frame = [](std::size_t n) { return frameOf(std::vector<Vec3f>(n, Vec3f{1, 2, 3})); };
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(20)), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(21)), 1);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(0)), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(nullptr), 1);
    EXPECT_EQ(TestAccess::waitingFrameCount(portioner), 2u);
    EXPECT_EQ(portioner.getLastError(), "no error!");  // a refused frame leaves no text
}

TEST(PortionerRuns, PointsExactlyAtTheOriginAreSkipped) {
    // Both are skipped in the second pass: their blocks end up empty and are dropped.
    PortionerRun run({frameOf({{0.0f, 0.0f, 0.0f}, {-0.0f, 0.0f, -0.0f}, {200.0f, 200.0f, 200.0f}})});
    ASSERT_EQ(run.status, 0);
    const auto blocks = run.blocks();
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks.at({3, 3, 3}).size(), 1u);
}

TEST(PortionerRuns, NoFramesGivesNoBlocksAndNoText) {
    PortionerRun run({});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.portioner.getLastError(), "no error!");
    EXPECT_EQ(run.portioner.getPointCloudBlockCount(), 0);
}

TEST(PortionerRuns, RawSurfaceBufferNeverOverflows) {
    // Slots of 20 points at init give room for fewer than 30000 points; frames of 30000 points then arrive.
    // (The buffer is the batches' first pass: the host's straight pass reads the frames where they lie.)
    Portioner portioner;
    auto params = configurePortioner(portioner, 20, 128, 0.5f);
    TestAccess::takeBatches(portioner);
    ASSERT_EQ(portioner.init(), 0);
    ASSERT_LT(TestAccess::rawSurfaceCapacity(portioner), 30000u);
    params->MAX_FRAME_POINTS = 30000;
    const Frames frames = randomFrames(3, 30000, 5);
    for (const auto& f : frames) ASSERT_EQ(portioner.addScanFrameWithoutModel(f), 0);
    EXPECT_GE(TestAccess::rawSurfaceCapacity(portioner), 30000u);
    EXPECT_GE(TestAccess::blockComputations(portioner), 1);  // the buffer was emptied before it could overflow
    quiet([&] { ASSERT_EQ(portioner.processWithoutModel(), 0); });
    std::size_t expected_total = 0;
    for (const auto& entry : bruteForceBlocks(frames)) expected_total += entry.second.size();
    EXPECT_EQ(totalPoints(portioner), expected_total);
}

TEST(PortionerRuns, APassLeftUnfinishedLeavesNothingForTheNext) {
    // Frames added, then the Portioner let go before its pass ended: once it is ready again only the new
    // frames make blocks, whichever first pass takes them.
    const Frames first = randomFrames(5, 300, 21), second = randomFrames(7, 300, 22);
    for (const bool batches : {false, true}) {
        Portioner portioner;
        configurePortioner(portioner, 300, 128, 0.5f);
        if (batches) TestAccess::takeBatches(portioner);
        ASSERT_EQ(portioner.init(), 0);
        for (const auto& f : first) ASSERT_EQ(portioner.addScanFrameWithoutModel(f), 0);
        ASSERT_EQ(portioner.deInit(), 0);
        ASSERT_EQ(portioner.init(), 0);
        for (const auto& f : second) ASSERT_EQ(portioner.addScanFrameWithoutModel(f), 0);
        quiet([&] { ASSERT_EQ(portioner.processWithoutModel(), 0); });
        std::size_t expected = 0;
        for (const auto& entry : bruteForceBlocks(second)) expected += entry.second.size();
        EXPECT_EQ(totalPoints(portioner), expected) << (batches ? "batches" : "straight");
    }
}

TEST(PortionerRuns, ModelPathTakesBlocksFromTheModel) {
    Portioner portioner;
    configurePortioner(portioner, 10, 128, 0.5f);
    EXPECT_EQ(portioner.setSimplifiedModel({{1, 1, 1}}), 1);
    EXPECT_EQ(portioner.getLastError(), "no init!");
    ASSERT_EQ(portioner.init(), 0);
    ASSERT_EQ(portioner.setSimplifiedModel({{10, 10, 10}, {20, 20, 20}, {70, 10, 10}}), 0);
    ASSERT_EQ(TestAccess::rawSurfaceBlocks(portioner).size(), 2u);
    EXPECT_EQ(portioner.processWithoutModel(), 1);  // the two paths stay apart

    ASSERT_EQ(portioner.addScanFrameWithModel(frameOf({{30, 30, 30}, {100, 30, 30}})), 0);
    ASSERT_EQ(portioner.addScanFrameWithModel(frameOf({{-30, 30, 30}})), 0);  // no block of the model holds it
    const std::string out = quiet([&] { ASSERT_EQ(portioner.processWithModel(), 0); });
    EXPECT_TRUE(contains(out, "processScanFrameListKernel: cur_hash_entry == nullptr"));
    EXPECT_EQ(totalPoints(portioner), 2u);  // (30,30,30) and (100,30,30), each in its own block only
}

TEST(PortionerRuns, FailedDeviceAllocationIsReportedWithItsStatus) {
    FakeDevices fake;
    fake.fail_malloc_at = 0;
    Portioner portioner;
    configurePortioner(portioner, 0, 128, 0.5f);
    const std::string err = quietErr([&] { EXPECT_EQ(portioner.init(), 1); });
    EXPECT_TRUE(contains(err, "deviceMalloc(&m_raw_surface_xyz_dev"));
    EXPECT_EQ(portioner.getLastError(), "[Portioner] init try catch error!");
    EXPECT_FALSE(portioner.isInited());
}

TEST(PortionerRuns, ALaunchThatDoesNotStartGivesAStatusNotEmptyBlocks) {
    // The batches' passes, which a device runs (the host's straight passes launch nothing).
    const Frames frames = randomFrames(12, 400, 11);
    int launches = 0;
    {
        FakeDevices fake;
        PortionerRun clean(frames, 0, {}, /*batches=*/true);
        ASSERT_EQ(clean.status, 0);
        launches = fake.launch_checks;
    }
    // Block positions; where device memory is not host memory the counts, records, runs and changes of
    // each batch too (on the host the batches take no launch).
    ASSERT_GE(launches, deviceMemoryIsHostMemory() ? 1 : 5);
    for (int k = 0; k < launches; ++k) {
        FakeDevices fake;
        fake.fail_launch_at = k;
        std::string err;
        std::unique_ptr<PortionerRun> run;
        err = quietErr([&] { run = std::make_unique<PortionerRun>(frames, 0, Grid{}, true); });
        EXPECT_NE(run->status, 0) << "launch " << k;
        EXPECT_TRUE(contains(err, "code=719(cudaErrorLaunchFailure) \"deviceGetLastError()\"")) << "launch " << k;
    }
}
