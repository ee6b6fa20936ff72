// The marching cubes stage: Morton codes, bins and their occupancy, the chunked path against the whole
// block, cells and relations, thread counts, and the field of the whole stage on simulated surfaces.
#include <omp.h>

#include <map>
#include <tuple>

#include "FakeDevices.h"
#include "TestAccess.h"
#include "TestSupport.h"
#include "common/Morton.h"
#include "common/PointSort.h"
#include "fusion/BinCodesHost.h"
#include "fusion/MarchingCubes.h"
#include "volume/HashOctree.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

TEST(Morton, EncodeDecodeRoundTrips) {
    // Interleaving keeps octants together: the 8 sub-cells of a 2 x 2 x 2 split are codes 0-7.
    for (std::uint32_t k = 0; k < 8; ++k) EXPECT_EQ(mortonEncode(k & 1, (k >> 1) & 1, k >> 2), k);
    std::mt19937 rng(1);
    std::uniform_int_distribution<std::uint32_t> coord(0, 1023);
    for (int i = 0; i < 20000; ++i) {
        const std::uint32_t x = coord(rng), y = coord(rng), z = coord(rng);
        std::uint32_t dx, dy, dz;
        mortonDecode(mortonEncode(x, y, z), dx, dy, dz);
        ASSERT_TRUE(dx == x && dy == y && dz == z) << x << " " << y << " " << z;
    }
}

// The vector path gives every point binCodeOf's code: ordinary points, and those at and below the origin,
// NaN, infinite, on the largest bins and quotients at the edge of an int, in groups of eight and a tail, on
// one core and several.
TEST(Morton, BinCodesEightAtATimeAreThoseOfEachPoint) {
    if (!binCodesOnVectorUnits()) GTEST_SKIP() << "no AVX2 here";
    const float origin[3] = {-6.0f, 2.5f, 1e-3f};
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> inside(-7.0f, 70.0f);
    const float odd[] = {0.0f,    -0.0f,         -6.0f,         -5.9999995f,   -6.0000005f,   2.5f,         1e-3f,
                         NAN,     -NAN,          INFINITY,      -INFINITY,     3.4e38f,       -3.4e38f,     1e-42f,
                         1073.7f, 1073741823.0f, 1073741824.0f, 2147483520.0f, 2147483648.0f, 4294967296.0f};
    std::vector<RawPointWithHash> points(40013);  // over 4,096 groups of eight: shared among the cores
    for (std::size_t i = 0; i < points.size(); ++i) {
        RawPointWithHash& p = points[i];
        std::memset(&p, 0, sizeof(p));
        float* xyz[3] = {&p.x, &p.y, &p.z};
        for (int k = 0; k < 3; ++k)
            *xyz[k] = i % 3 == 0 ? odd[(i / 3 + 7 * static_cast<std::size_t>(k)) % std::size(odd)] : inside(rng);
        p.nx = static_cast<float>(i);  // read beside the position: must not reach the code
        p.hash = -1;
    }
    const int threads = omp_get_max_threads();
    for (const float bin_size : {0.5f, 1e-30f, 3.0e38f, INFINITY}) {  // infinite: an infinite point gives NaN
        for (const int team : {1, 3}) {
            std::vector<RawPointWithHash> vector_codes = points;
            omp_set_num_threads(team);
            writeBinCodes(vector_codes.data(), static_cast<std::int64_t>(vector_codes.size()), origin, bin_size);
            omp_set_num_threads(threads);
            for (std::size_t i = 0; i < points.size(); ++i) {
                const float position[3] = {points[i].x, points[i].y, points[i].z};
                ASSERT_EQ(static_cast<std::uint32_t>(vector_codes[i].hash), binCodeOf(position, origin, bin_size))
                    << i << ": " << position[0] << " " << position[1] << " " << position[2] << " bin " << bin_size;
                ASSERT_EQ(vector_codes[i].nx, points[i].nx);
            }
        }
    }
    // Tails of every length: the points after the last group of eight.
    for (std::int64_t n = 1; n < 8; ++n) {
        std::vector<RawPointWithHash> few(points.begin() + 3, points.begin() + 3 + n);
        writeBinCodes(few.data(), n, origin, 0.5f);
        for (std::int64_t i = 0; i < n; ++i) {
            const float position[3] = {few[i].x, few[i].y, few[i].z};
            ASSERT_EQ(static_cast<std::uint32_t>(few[i].hash), binCodeOf(position, origin, 0.5f)) << n << " " << i;
        }
    }
}

namespace {

// A stage over blocks of 128 bins of 0.5 (edge 64) with its octree and field store; the block centred at
// (32, 32, 32) has its grid start 6 below it: bin (i, j, k) covers [-6 + 0.5 i, -6 + 0.5 (i + 1)) on x.
class Stage : public ::testing::Test {
protected:
    void SetUp() override { setUpStage(stage, 2000000); }

    void setUpStage(MarchingCubes& mc, std::uint64_t max_points, std::uint32_t block_with_ext = 152) {
        auto device_params = std::make_shared<DeviceParameters>();
        std::memset(device_params.get(), 0, sizeof(DeviceParameters));
        setFieldComputationEdges(*device_params);
        mc.setDeviceParams(device_params);
        mc.setPortionerParams(std::make_shared<PortionerParameters>(PortionerParameters{128, 12, block_with_ext}));
        mc.setResolution(0.5f);
        ASSERT_EQ(mc.init(), 0);
        octree = std::make_shared<HashOctree>();
        ASSERT_EQ(octree->init(std::make_shared<HashParameters>(HashParameters{4096, 4095, 1000, 500000, 1, 1000})), 0);
        octree->setResolution(0.5f);
        octree->setBlockSize(128);
        pool = std::make_shared<FieldDataPool>();
        ASSERT_TRUE(pool->init());
        ASSERT_EQ(mc.setHashOctree(octree), 0);
        ASSERT_EQ(mc.setFieldDataPool(pool), 0);
        ASSERT_EQ(mc.initDevice(max_points), 0);
        TestAccess::keepLastCells(mc, true);
    }

    static std::shared_ptr<PointCloudBlock> block(std::vector<RawPointWithHash> points) {
        auto b = std::make_shared<PointCloudBlock>();
        b->center[0] = b->center[1] = b->center[2] = 32.0f;
        b->half_size = 32.0f;
        for (const RawPointWithHash& p : points) b->flags |= p.w;
        b->points->assign(points.begin(), points.end());
        return b;
    }

    static RawPointWithHash point(float x, float y, float z, std::int32_t w = 8) {
        RawPointWithHash p = scanPoint(x, y, z, 0.0f, 0.0f, 1.0f, w);
        p.hash = 7;  // what the Portioner left
        return p;
    }

    std::vector<BinsHeader> bins(MarchingCubes& mc, const std::shared_ptr<PointCloudBlock>& b) {
        float logic[3];
        TestAccess::logicCoordinate(mc, *b, logic);
        std::vector<BinsHeader> result;
        output = quiet([&] { EXPECT_EQ(TestAccess::generateBins(mc, b, logic, result), 0); });
        return result;
    }

    // A bin made by hand on the grid of 0.5.
    static BinsHeader bin(int ix, int iy, int iz, int code, int points = 1, int offset = 0) {
        BinsHeader b{};
        b.center[0] = (static_cast<float>(ix) + 0.5f) * 0.5f;
        b.center[1] = (static_cast<float>(iy) + 0.5f) * 0.5f;
        b.center[2] = (static_cast<float>(iz) + 0.5f) * 0.5f;
        b.bin_sub_scale = static_cast<std::int8_t>(code);
        b.point_count = points;
        b.point_offset = offset;
        return b;
    }

    std::shared_ptr<CellNodeAndRelations> cells(std::vector<BinsHeader> bins,
                                                const std::shared_ptr<PointCloudBlock>& b = block({})) {
        EXPECT_EQ(TestAccess::prepareSimpleHash(stage, bins), 0);
        std::shared_ptr<CellNodeAndRelations> result;
        EXPECT_EQ(TestAccess::buildOctreeAndRelations(stage, *b, bins, result), 0);
        return result;
    }

    // `count` bins of code 8 and random flags on distinct keys: x and y from 30 to `high`, z from 40 in
    // `layers` layers, bin i with 1 + i % `most` points.
    static std::vector<BinsHeader> distinctBins(unsigned seed, std::size_t count, int high, int layers, int most) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> pos(30, high), flags(0, 3);
        std::vector<BinsHeader> result;
        std::set<std::tuple<int, int, int>> keys;
        int offset = 0;
        while (result.size() < count) {
            const int n = static_cast<int>(result.size()), x = pos(rng), y = pos(rng), z = 40 + n % layers;
            if (!keys.insert({x, y, z}).second) continue;
            result.push_back(bin(x, y, z, 8, 1 + n % most, offset));
            result.back().bin_flags = static_cast<std::uint8_t>(flags(rng));
            offset += result.back().point_count;
        }
        return result;
    }

    int process(const std::shared_ptr<PointCloudBlock>& b) {
        int status = -1;
        output = quiet([&] { status = stage.process(b); });
        return status;
    }

    MarchingCubes stage;
    std::shared_ptr<HashOctree> octree;
    std::shared_ptr<FieldDataPool> pool;
    std::string output;
};

class BinsTest : public Stage {};
class CellsTest : public Stage {};
class StageRun : public Stage {};

// Whether the first `n` elements of both lists agree byte for byte.
template <class T, class A, class B>
bool sameStart(const std::vector<T, A>& a, const std::vector<T, B>& b, std::size_t n) {
    return a.size() >= n && b.size() >= n && std::memcmp(a.data(), b.data(), n * sizeof(T)) == 0;
}

// The key of the cell or bin of edge 0.5 around `centre`.
std::tuple<int, int, int> keyOf(const float centre[3]) {
    return {static_cast<int>(std::floor(centre[0] / 0.5f)), static_cast<int>(std::floor(centre[1] / 0.5f)),
            static_cast<int>(std::floor(centre[2] / 0.5f))};
}

// A block's relations as a plain list.
std::vector<RelationCell2Bins_Device> listOf(const UninitialisedArray<RelationCell2Bins_Device>& relations) {
    return {relations.begin(), relations.end()};
}

// The records without the addresses of their octree cells, which differ between trees.
std::vector<CellNode_Device> withoutCells(const UninitialisedArray<CellNode_Device>& cells) {
    std::vector<CellNode_Device> records(cells.begin(), cells.end());
    for (CellNode_Device& record : records) record.cell = nullptr;
    return records;
}

std::vector<RawPointWithHash> randomPoints(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-5.0f, 69.0f);
    std::uniform_int_distribution<int> code(0, 3);
    const int codes[4] = {8, 8, 16, 4};
    std::vector<RawPointWithHash> points;
    for (int i = 0; i < n; ++i) {
        const float x = coord(rng), y = coord(rng) * 0.1f + 20.0f, z = coord(rng) * 0.1f + 20.0f;  // a slab
        points.push_back(scanPoint(x, y, z, 0.0f, 0.0f, 1.0f, codes[code(rng)] | (code(rng) << 8)));
    }
    return points;
}

std::vector<RawPointWithHash> spherePoints(float radius, float spacing) {
    const auto frame = sphereScan({32.0f, 32.0f, 32.0f}, radius, spacing, 1)[0];
    std::vector<RawPointWithHash> points;
    for (std::size_t i = 0; i < frame->xyz.size(); ++i) {
        const Vec3f &p = frame->xyz[i], &n = frame->nor[i];
        points.push_back(scanPoint(p[0], p[1], p[2], n[0], n[1], n[2]));
    }
    return points;
}

}  // namespace

TEST_F(BinsTest, FlagsAndOccupancyWithTheUpperFaceClamped) {
    // The bin [10, 10.5)^3; sub-cells of 1/16. A point at the upper face of the bin is clamped to 7.
    const auto result =
        bins(stage, block({point(10.0f, 10.0f, 10.0f, 8 | (1 << 8)), point(10.4999f, 10.0f, 10.0f, 8 | (4 << 8))}));
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].bin_flags, 5);
    EXPECT_EQ(result[0].occupancy[0], 1ull);  // sub-cell (0, 0, 0)
    const std::uint32_t code = mortonEncode(7, 0, 0);
    EXPECT_NE(result[0].occupancy[code / 64] & (1ull << (code % 64)), 0ull);
    int bits = 0;
    for (std::uint64_t word : result[0].occupancy) bits += __builtin_popcountll(word);
    EXPECT_EQ(bits, 2);
}

// A point that rounding puts just below the low face of the margin (the grid starts at -6) joins the first
// bin on that axis, whatever hash the Portioner left in it: bin (0, 32, 32), centre x -5.75.
TEST_F(BinsTest, PointsJustBelowTheGridJoinTheFirstBin) {
    auto b = block({point(-6.0000005f, 10.1f, 10.1f), point(-5.9f, 10.1f, 10.1f)});
    (*b->points)[1].hash = 123456;
    const auto result = bins(stage, b);
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].point_count, 2);
    EXPECT_FLOAT_EQ(result[0].center[0], -5.75f);
    for (const RawPointWithHash& p : *b->points) EXPECT_EQ(static_cast<std::uint32_t>(p.hash), mortonEncode(0, 32, 32));
}

TEST_F(BinsTest, BinsCoverEveryPointInPointOrder) {
    auto b = block(randomPoints(20000, 5));
    const auto result = bins(stage, b);
    ASSERT_FALSE(result.empty());
    std::int64_t next = 0;
    for (const BinsHeader& bin : result) {
        ASSERT_EQ(bin.point_offset, next);  // in point order, no gap
        for (int i = 0; i < bin.point_count; ++i) {
            const RawPointWithHash& p = (*b->points)[static_cast<std::size_t>(bin.point_offset + i)];
            ASSERT_LE(std::fabs(p.x - bin.center[0]), 0.25f);
            ASSERT_LE(std::fabs(p.y - bin.center[1]), 0.25f);
            ASSERT_LE(std::fabs(p.z - bin.center[2]), 0.25f);
        }
        next += bin.point_count;
    }
    EXPECT_EQ(next, static_cast<std::int64_t>(b->points->size()));
}

TEST_F(BinsTest, PointsOfABinComeInTheFullOrderWhateverTheirArrival) {
    // Dense bins whose points share x and y in threes and differ in z, normal or word: the order within a
    // bin must be the full one, and the same for any order the points came in.
    std::mt19937 rng(31);
    std::uniform_int_distribution<int> cell(0, 3), step(0, 20);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    std::vector<RawPointWithHash> points;
    for (int i = 0; i < 3000; ++i) {
        const float x = 30.02f + 0.5f * static_cast<float>(cell(rng)) + 0.02f * static_cast<float>(step(rng) / 3);
        const float y = 30.02f + 0.02f * static_cast<float>(step(rng) / 3);
        RawPointWithHash p = point(x, y, 30.1f + 0.01f * static_cast<float>(step(rng)), 8 + 256 * (i % 2));
        p.nx = unit(rng);
        points.push_back(p);
    }
    std::vector<RawPointWithHash> shuffled = points;
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    auto a = block(points), b = block(shuffled);
    ASSERT_EQ(bins(stage, a).size(), bins(stage, b).size());
    EXPECT_TRUE(std::is_sorted(a->points->begin(), a->points->end(), RawPointWithHash_CMP_LESS()));
    ASSERT_EQ(a->points->size(), points.size());
    EXPECT_EQ(std::memcmp(a->points->data(), b->points->data(), points.size() * sizeof(RawPointWithHash)), 0);
}

namespace {

// Whether the host sort, through `buffers` and pieces of `piece` points, puts the points where a plain sort
// in the full order puts them.
::testing::AssertionResult sortsAsAPlainSort(std::vector<RawPointWithHash> points, PointSortBuffers& buffers,
                                             std::int64_t piece = SORT_PIECE_POINTS) {
    PointList list(points.begin(), points.end());
    sortPointsFullyOnHost(list, buffers, piece);
    std::stable_sort(points.begin(), points.end(), RawPointWithHash_CMP_LESS());
    if (list.size() == points.size() &&
        std::memcmp(list.data(), points.data(), points.size() * sizeof(RawPointWithHash)) == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << points.size() << " points, pieces of " << piece;
}

}  // namespace

TEST(PointSorts, BuffersKeptFromALargerBlockSortTheNextInTheFullOrder) {
    // The host sort keeps its arrays and the former block's storage: each block after the first must come
    // out in the full order, whatever the former one left there.
    PointSortBuffers buffers;
    for (const int n : {50000, 20000, 20000, 3, 31000}) {
        std::vector<RawPointWithHash> points = randomPoints(n, static_cast<unsigned>(n));
        for (std::size_t i = 0; i < points.size(); ++i) points[i].hash = static_cast<std::int32_t>((i * 7919) % 613);
        EXPECT_TRUE(sortsAsAPlainSort(points, buffers));
    }
}

TEST(PointSorts, LongRunsOfOneHashComeOutInTheFullOrder) {
    // Runs of one hash long enough for the sort by x bits: x bits spanning less than 2^8, 2^16 and 2^24
    // (a bin's width), negative x, and x across zero (too wide: compared field by field instead); in each,
    // points that repeat the x of the one before with another y, and points that repeat it whole.
    PointSortBuffers buffers;
    for (const auto& [low, width] :
         {std::pair<float, float>{30.0f, 1e-5f}, {30.0f, 0.004f}, {30.0f, 0.5f}, {-12.0f, 0.5f}, {-0.2f, 0.4f}}) {
        std::mt19937 rng(static_cast<unsigned>(width * 1e6f));
        std::uniform_real_distribution<float> unit(0.0f, 1.0f);
        std::vector<RawPointWithHash> points;
        for (const std::int32_t hash : {5, 9, 7}) {
            for (int i = 0; i < 200; ++i) {
                RawPointWithHash p = scanPoint(low + width * unit(rng), 20.0f + unit(rng), 3.0f, 0.0f, 0.0f, 1.0f);
                if (i % 5 == 4) p.x = points.back().x;
                if (i % 7 == 6) p = points.back();
                p.hash = hash;
                points.push_back(p);
            }
        }
        std::shuffle(points.begin(), points.end(), rng);
        EXPECT_TRUE(sortsAsAPlainSort(points, buffers)) << "x from " << low << " over " << width;
    }
}

TEST(PointSorts, ArraysLargerThanAPieceComeOutInTheFullOrderWhereTheyLie) {
    // Arrays of more than a piece are cut into groups by the highest bits in which their hashes differ
    // and sorted a piece at a time: whatever the spread of the hashes, the order must be the plain sort's.
    const struct {
        const char* name;
        int n;
        std::int64_t piece;
        std::function<std::int32_t(std::size_t, std::mt19937&)> hash;
    } cases[] = {
        {"the whole 32 bits, the upper half negative as int", 20000, 700,
         [](std::size_t, std::mt19937& rng) { return static_cast<std::int32_t>(rng()); }},
        {"a few dense bins: long runs of equal hash", 20000, 1000,
         [](std::size_t i, std::mt19937&) { return static_cast<std::int32_t>((i * 7919) % 37) * 64; }},
        {"most points in one group, cut again by lower bits", 30000, 500,
         [](std::size_t i, std::mt19937& rng) {
             return static_cast<std::int32_t>(i % 10 == 0 ? rng() : 0x40000000u | (rng() & 0xFFFu));
         }},
        {"one hash only: a run larger than a piece", 5000, 300, [](std::size_t, std::mt19937&) { return 12345; }},
        {"hashes differing in the lowest bits only", 9000, 100,
         [](std::size_t i, std::mt19937&) { return static_cast<std::int32_t>(0x7F000000u | (i % 5)); }},
        {"one point more than a piece", 1001, 1000,
         [](std::size_t i, std::mt19937&) { return static_cast<std::int32_t>((i * 31) % 97); }},
    };
    for (const auto& c : cases) {
        PointSortBuffers buffers;
        std::mt19937 rng(static_cast<unsigned>(c.n));
        std::vector<RawPointWithHash> points = randomPoints(c.n, static_cast<unsigned>(c.piece));
        for (std::size_t i = 0; i < points.size(); ++i) {
            points[i].hash = c.hash(i, rng);
            if (i % 3 == 1) points[i] = points[i - 1];  // points equal in every byte
        }
        EXPECT_TRUE(sortsAsAPlainSort(points, buffers, c.piece)) << c.name;
    }
}

TEST(PointSorts, LargeArraysPartedAmongCoresComeOutInTheFullOrder) {
    // Above 65,536 points the groups are parted among the cores before each part takes its groups' places:
    // any team size, groups of very different sizes (one of half the points), hashes that put a whole
    // thread's stripe on one side, and points equal in every byte.
    const int threads = omp_get_max_threads();
    for (const int team : {2, 3, 5}) {
        omp_set_num_threads(team);
        std::mt19937 rng(static_cast<unsigned>(team));
        std::vector<RawPointWithHash> points = randomPoints(150000, static_cast<unsigned>(team) + 7u);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const bool front = i < points.size() / 3;  // the first third: low hashes only
            points[i].hash = static_cast<std::int32_t>(i % 2 == 0 ? 0x20000000u | (rng() & 0xFFFFu)
                                                       : front    ? rng() & 0x0FFFFFFFu
                                                                  : rng() & 0x7FFFFFFFu);
            if (i % 5 == 4) points[i] = points[i - 1];
        }
        PointSortBuffers buffers;
        EXPECT_TRUE(sortsAsAPlainSort(points, buffers, 4000)) << team << " threads";
    }
    omp_set_num_threads(threads);
}

TEST_F(BinsTest, HostWalkGivesTheBinsOfTheKernels) {
    // The bins of a block's sorted points, by the kernels (a counter hands out their places, then each bin's
    // run is walked) and by the host's one walk on all cores, whose shares begin at runs: the same bins byte
    // for byte once in point order, for any team, with wishes, flags and runs across every share's edge.
    auto b = block(randomPoints(30000, 11));
    const std::vector<BinsHeader> expected = bins(stage, b);  // also leaves the block's points sorted
    ASSERT_GT(expected.size(), 1000u);
    // The kernels read the points from device memory (in the guarded build host memory is refused them).
    const std::size_t bytes = b->points->size() * sizeof(RawPointWithHash);
    ScopedDeviceBuffer<RawPointWithHash> points_dev;
    ASSERT_EQ(deviceMalloc(&points_dev.ptr(), bytes), DEVICE_SUCCESS);
    ASSERT_EQ(deviceMemcpy(points_dev.ptr(), b->points->data(), bytes, CopyKind::HostToDevice), DEVICE_SUCCESS);
    std::vector<BinsHeader> by_kernels;
    TestAccess::binsByKernels(stage, points_dev.ptr(), static_cast<std::int64_t>(b->points->size()), by_kernels);
    std::sort(by_kernels.begin(), by_kernels.end(),
              [](const BinsHeader& x, const BinsHeader& y) { return x.point_offset < y.point_offset; });
    ASSERT_EQ(by_kernels.size(), expected.size());
    EXPECT_EQ(std::memcmp(by_kernels.data(), expected.data(), expected.size() * sizeof(BinsHeader)), 0);
    const int threads = omp_get_max_threads();
    for (const int team : {1, 3, 7}) {
        omp_set_num_threads(team);
        std::vector<BinsHeader> on_host;
        TestAccess::binsOnHost(stage, *b->points, on_host);
        ASSERT_EQ(on_host.size(), by_kernels.size()) << team << " threads";
        EXPECT_EQ(std::memcmp(on_host.data(), by_kernels.data(), by_kernels.size() * sizeof(BinsHeader)), 0)
            << team << " threads";
    }
    omp_set_num_threads(threads);
}

TEST_F(BinsTest, ChunkedPathGivesTheSameBinsAsTheWholeBlock) {
    // A stage has room for max_points + 1: a block of many more goes in chunks, and so does one of exactly
    // the capacity.
    for (const auto& [max_points, n] : {std::pair<int, int>{200, 5000}, {99, 100}}) {
        const auto points = randomPoints(n, 9);
        auto whole = block(points), chunked = block(points);
        const auto expected = bins(stage, whole);
        EXPECT_FALSE(TestAccess::onHost(stage));
        MarchingCubes small;
        setUpStage(small, static_cast<std::uint64_t>(max_points));
        const auto actual = bins(small, chunked);
        EXPECT_TRUE(TestAccess::onHost(small)) << n << " points";
        EXPECT_TRUE(contains(output, "[warining]: memory lacked, generateBins on Host\n"));
        EXPECT_EQ(actual.size(), expected.size()) << n << " points";
        EXPECT_TRUE(sameStart(actual, expected, expected.size())) << n << " points";
        EXPECT_TRUE(sameStart(*chunked->points, *whole->points, n)) << n << " points";
    }
}

TEST_F(BinsTest, MoreBinsThanTheArrayHoldsGrowsIt) {
    MarchingCubes mc;
    setUpStage(mc, 100000, 2);  // an array for 20 x 2 x 2 = 80 bins
    std::vector<RawPointWithHash> points;
    for (int i = 0; i < 500; ++i) points.push_back(point(-5.75f + 0.5f * (i % 100), 10.1f + 0.5f * (i / 100), 10.1f));
    EXPECT_EQ(bins(mc, block(points)).size(), 500u);
    EXPECT_EQ(output.find("bins_id >= MC_MAX_BINS_HEADER"), std::string::npos);
}

TEST_F(CellsTest, IsolatedBinMakesTwentySevenCellsAndTwoAdjacentThirtySix) {
    {
        const auto result = cells({bin(60, 60, 60, 8, 20, 0)});
        ASSERT_EQ(result->cell_node_size.load(), 27);
        EXPECT_EQ(result->relation_size.load(), 27);
        for (const CellNode_Device& record : result->cell_nodes) {
            EXPECT_FLOAT_EQ(record.half_size, 0.25f);
            EXPECT_EQ(record.point_count, 20);
            EXPECT_EQ(record.relation_count, 1);
            EXPECT_EQ(record.word & 0xFF, 8u);
            EXPECT_EQ(record.cell->cell_type, CELL_TYPE_LEAF);
            EXPECT_EQ(record.cell->data_state, 1);
        }
    }
    {
        const auto result = cells({bin(40, 40, 40, 8, 20, 0), bin(41, 40, 40, 8, 30, 20)});
        ASSERT_EQ(result->cell_node_size.load(), 36);
        int two = 0;
        for (const CellNode_Device& record : result->cell_nodes) {
            ASSERT_TRUE(record.relation_count == 1 || record.relation_count == 2);
            two += record.relation_count == 2 ? 1 : 0;
            if (record.relation_count == 2) {
                EXPECT_EQ(record.point_count, 50);
            }
            EXPECT_EQ(record.rules & CELL_WIDENED_SEARCH, 0u);
        }
        EXPECT_EQ(two, 18);  // the cells that both bins reach
        EXPECT_EQ(result->relation_size.load(), 27 + 27);
    }
    {
        // Sparse cells (below 16 points) take one more ring of bins: the bin two steps away joins the
        // cells next to the first bin, and so do the bins of the second ring of their own searches.
        const auto result = cells({bin(70, 70, 70, 8, 5, 0), bin(72, 70, 70, 8, 4, 5)});
        ASSERT_EQ(result->cell_node_size.load(), 54 - 9);  // the column between them is made by both
        for (const CellNode_Device& record : result->cell_nodes) {
            EXPECT_NE(record.rules & CELL_WIDENED_SEARCH, 0u);
            // Cells at keys 69 to 73; a cell reaches a bin within two keys of it.
            const int key = static_cast<int>(std::floor(record.center[0] / 0.5f));
            const bool both = key >= 70 && key <= 72;
            EXPECT_EQ(record.relation_count, both ? 2 : 1) << "cell at x key " << key;
            EXPECT_EQ(record.point_count, both ? 9 : (key < 70 ? 5 : 4)) << "cell at x key " << key;
        }
    }
}

TEST_F(CellsTest, ACoarseBinAbsorbsTheFinerCellsBelowIt) {
    // The fine bin comes first and makes cells of one bin; the code-4 bin then asks for cells of two
    // bins around it, one of which holds those cells.
    const auto result = cells({bin(20, 20, 20, 8, 3, 0), bin(21, 21, 21, 4, 4, 3)});
    ASSERT_GT(result->cell_node_size.load(), 27);
    int absorbed = 0;
    std::int64_t total_points = 0, relations = 0;
    for (const CellNode_Device& record : result->cell_nodes) {
        if (record.half_size == 0.25f) {
            EXPECT_EQ(record.point_count == 0, record.cell->cell_type != CELL_TYPE_LEAF || record.relation_count == 0);
            absorbed += record.point_count == 0 ? 1 : 0;
        }
        if (record.half_size == 0.5f && record.point_count > 0) total_points += record.point_count;
        relations += record.relation_count;
    }
    EXPECT_GT(absorbed, 0);  // finer records that moved into a coarser leaf end with no points
    EXPECT_GT(total_points, 0);
    EXPECT_EQ(relations, result->relation_size.load());  // nothing lost in the moves
}

TEST_F(CellsTest, FineBinsVisitEachInnerTargetOnce) {
    BinsHeader b = bin(30, 30, 30, 16, 1, 0);
    b.occupancy[0] = 1;  // one occupied octant of the 2 x 2 x 2 split
    const auto result = cells({b});
    // Cells of a quarter bin around the octant: 3 x 3 x 3 of them, each with a record.
    EXPECT_EQ(result->cell_node_size.load(), 27);
    for (const CellNode_Device& record : result->cell_nodes) EXPECT_FLOAT_EQ(record.half_size, 0.125f);
}

TEST_F(CellsTest, MixedScalesMakeTheSameRecordsOnAnyTeam) {
    // Bins of several scales: the walk over all bins runs beside the searches of the records it has made
    // so far, and every record, its points and its relations come out the same, byte for byte, whatever
    // the team.
    std::vector<BinsHeader> bins = distinctBins(21, 600, 60, 5, 30);
    for (std::size_t i = 0; i < bins.size(); ++i) {
        if (i % 7 == 3) {
            bins[i].bin_sub_scale = 16;
            bins[i].occupancy[0] = 1;
            bins[i].occupancy[5] = 1;
        } else if (i % 13 == 6) {
            bins[i].bin_sub_scale = 64;
            bins[i].occupancy[0] = 0x8001;
            bins[i].occupancy[7] = std::uint64_t{1} << 63;
        } else if (i % 11 == 2) {
            bins[i].bin_sub_scale = 4;
        }
    }
    const int threads = omp_get_max_threads();
    std::vector<CellNode_Device> first;
    std::vector<RelationCell2Bins_Device> first_relations;
    for (const int team : {1, 2, 5}) {
        omp_set_num_threads(team);
        setUpStage(stage, 1000);  // a fresh octree
        const auto made = cells(bins);
        ASSERT_GT(made->cell_node_size.load(), 600 * 27 / 4) << team << " threads";
        std::vector<CellNode_Device> records = withoutCells(made->cell_nodes);
        records.resize(static_cast<std::size_t>(made->cell_node_size.load()));
        std::vector<RelationCell2Bins_Device> relations = listOf(made->relations);
        relations.resize(static_cast<std::size_t>(made->relation_size.load()));
        if (team == 1) {
            first = records;
            first_relations = relations;
            continue;
        }
        ASSERT_EQ(records.size(), first.size()) << team << " threads";
        EXPECT_EQ(std::memcmp(records.data(), first.data(), first.size() * sizeof(CellNode_Device)), 0)
            << team << " threads";
        ASSERT_EQ(relations.size(), first_relations.size()) << team << " threads";
        EXPECT_EQ(std::memcmp(relations.data(), first_relations.data(),
                              first_relations.size() * sizeof(RelationCell2Bins_Device)),
                  0)
            << team << " threads";
    }
    omp_set_num_threads(threads);
}

// A block whose bins all ask for the default scale finds its cells' first visitors all at once; a block
// with one other code walks every bin in order. The same bins must give the same records either way, and
// the records must follow the order of first visits in bin order, each with its first visitor's word.
TEST_F(CellsTest, OneScaleBlocksMakeTheRecordsOfTheBinOrderWalk) {
    std::vector<BinsHeader> bins = distinctBins(8, 300, 45, 4, 40);
    // The walk over all bins in order, as a model: each key's first visitor makes its record.
    std::map<std::tuple<int, int, int>, std::uint32_t> made;
    std::vector<std::tuple<int, int, int>> order;
    for (const BinsHeader& b : bins) {
        const auto [x, y, z] = keyOf(b.center);
        for (int d = 0; d < 27; ++d) {
            const std::tuple<int, int, int> key{x + d / 9 - 1, y + d / 3 % 3 - 1, z + d % 3 - 1};
            if (made.emplace(key, 8u | (static_cast<std::uint32_t>(b.bin_flags) << 8)).second) order.push_back(key);
        }
    }
    const auto one_scale = cells(bins);
    ASSERT_EQ(one_scale->cell_node_size.load(), static_cast<std::int32_t>(order.size()));
    for (std::size_t i = 0; i < order.size(); ++i) {
        const CellNode_Device& record = one_scale->cell_nodes[i];
        ASSERT_EQ(keyOf(record.center), order[i]) << "record " << i;
        EXPECT_EQ(record.word, made[order[i]]) << "record " << i;
    }

    // The same bins and one far bin of code 16 at the end: its cells come last and reach none of the others.
    const std::vector<CellNode_Device> first = withoutCells(one_scale->cell_nodes);
    const std::vector<RelationCell2Bins_Device> first_relations = listOf(one_scale->relations);
    setUpStage(stage, 1000);  // a fresh octree
    BinsHeader far = bin(90, 90, 90, 16, 3, bins.back().point_offset + bins.back().point_count);
    far.occupancy[0] = 1;
    bins.push_back(far);
    const auto mixed = cells(bins);
    ASSERT_GT(mixed->cell_node_size.load(), static_cast<std::int32_t>(first.size()));
    EXPECT_TRUE(sameStart(withoutCells(mixed->cell_nodes), first, first.size()));
    EXPECT_TRUE(sameStart(mixed->relations, first_relations, first_relations.size()));
}

// A block met again finds part of its tree there: a one-scale block then makes the records of the new
// leaves only, from the first leaf already there on as the walk over all bins does, with the same searches.
TEST_F(CellsTest, OneScaleBlockMetAgainMakesTheRecordsOfTheBinOrderWalk) {
    const std::vector<BinsHeader> bins = distinctBins(12, 200, 50, 3, 25);
    // The first pass meets every other bin of the later half, the second all of them: its first visits
    // reach new leaves, later ones leaves already there. The second pass's records, by the one-scale
    // walk and by the walk over all bins (a far bin of code 16 at the end).
    std::vector<BinsHeader> some;
    for (std::size_t i = bins.size() / 2; i < bins.size(); i += 2) some.push_back(bins[i]);
    BinsHeader far = bin(90, 90, 90, 16, 3, bins.back().point_offset + bins.back().point_count);
    far.occupancy[0] = 1;
    std::vector<std::vector<CellNode_Device>> records;
    std::vector<std::vector<RelationCell2Bins_Device>> relations;
    for (const bool one_scale : {true, false}) {
        setUpStage(stage, 1000);  // a fresh octree
        std::vector<BinsHeader> first = some, second = bins;
        if (!one_scale) {
            first.push_back(far);
            second.push_back(far);
        }
        cells(first);
        const auto again = cells(second);
        records.push_back(withoutCells(again->cell_nodes));
        relations.push_back(listOf(again->relations));
    }
    ASSERT_GT(records[0].size(), 0u);
    ASSERT_EQ(records[1].size(), records[0].size());  // the far bin's cells were made in the first pass
    EXPECT_TRUE(sameStart(records[1], records[0], records[0].size()));
    ASSERT_EQ(relations[1].size(), relations[0].size());
    EXPECT_TRUE(sameStart(relations[1], relations[0], relations[0].size()));
}

TEST_F(CellsTest, CellsOfALargeBlockHoldTheBinsAroundThem) {
    // Two slabs of bins, 148,840 cells and 2.3 million relations: the threads' lists are copied in one go
    // and keep their pages, or (as with more relations) slice by slice of records, giving back their pages
    // behind the copy. Every cell must hold the bins of the 3 x 3 x 3 keys around it, x then y then z (16
    // points a bin: no search is widened).
    std::map<std::tuple<int, int, int>, RelationCell2Bins_Device> at_key;
    std::vector<BinsHeader> bins;
    int offset = 0;
    for (const int z : {20, 21, 22, 60, 61, 62})
        for (int x = 4; x < 124; ++x)
            for (int y = 4; y < 124; ++y) {
                bins.push_back(bin(x, y, z, 8, 16, offset));
                at_key[{x, y, z}] = {offset, 16};
                offset += 16;
            }
    for (const auto& [threads, kept_bytes] : {std::pair<int, std::size_t>{1, 0},
                                              {manyThreads(), 0},
                                              {1, std::size_t{1} << 30},
                                              {manyThreads(), std::size_t{1} << 30}}) {
        setUpStage(stage, 1000);  // a fresh octree
        TestAccess::keepRelationPagesUpTo(stage, kept_bytes);
        const auto result = withThreads(threads, [&] { return cells(bins); });
        // Keys 3 to 124 across, 19 to 23 and 59 to 63 up; a bin reaches the cells within one key of it.
        ASSERT_EQ(result->cell_node_size.load(), 2 * 122 * 122 * 5);
        ASSERT_EQ(result->relation_size.load(), 2 * 360 * 360 * 9);
        for (const CellNode_Device& record : result->cell_nodes) {
            const auto [x, y, z] = keyOf(record.center);
            std::vector<RelationCell2Bins_Device> expected;  // x, then y, then z
            for (int d = 0; d < 27; ++d) {
                const auto it = at_key.find({x + d / 9 - 1, y + d / 3 % 3 - 1, z + d % 3 - 1});
                if (it != at_key.end()) expected.push_back(it->second);
            }
            ASSERT_EQ(record.relation_count, static_cast<std::int32_t>(expected.size()))
                << threads << " threads, pages kept up to " << kept_bytes;
            EXPECT_EQ(record.point_count, 16 * record.relation_count);
            EXPECT_EQ(record.rules & CELL_WIDENED_SEARCH, 0u);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), result->relations.begin() + record.relation_offset,
                                   [](const RelationCell2Bins_Device& a, const RelationCell2Bins_Device& b) {
                                       return a.offset == b.offset && a.count == b.count;
                                   }))
                << threads << " threads, pages kept up to " << kept_bytes << ", cell at " << x << " " << y << " " << z;
        }
    }
}

TEST_F(CellsTest, LevelRulesGiveTheSameCodesWithTheKeyBitmapAndTheHashTable) {
    // With the bitmap of keys the level rules pass over bins whose neighbourhood holds no bin of another
    // code; with the hash table (a far bin makes the bitmap too large) they look at every neighbour. A dense
    // slab of default bins with a few wishes of every kind, some two keys from their nearest default bin
    // across a brick's face, must end with the same codes both ways, and some of them changed.
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> wish(0, 999);
    const int wishes[5] = {2, 4, 16, 32, 64};
    std::vector<BinsHeader> slab;
    for (int x = 30; x < 90; ++x)
        for (int y = 30; y < 90; ++y)
            for (int z = 40; z < 43; ++z) {
                const int w = wish(rng);
                slab.push_back(bin(x, y, z, w < 1 ? wishes[(x + y) % 5] : 8, 1, static_cast<int>(slab.size())));
            }
    std::vector<BinsHeader> with_bitmap = slab, with_table = slab;
    with_table.push_back(bin(4000000, 30, 40, 8, 1, static_cast<int>(slab.size())));
    ASSERT_EQ(TestAccess::prepareSimpleHash(stage, with_bitmap), 0);
    ASSERT_EQ(TestAccess::rectifyBinLevels(stage, with_bitmap), 0);
    ASSERT_EQ(TestAccess::prepareSimpleHash(stage, with_table), 0);
    ASSERT_EQ(TestAccess::rectifyBinLevels(stage, with_table), 0);
    int changed = 0;
    for (std::size_t i = 0; i < slab.size(); ++i) {
        ASSERT_EQ(with_bitmap[i].bin_sub_scale, with_table[i].bin_sub_scale) << "bin " << i;
        changed += with_bitmap[i].bin_sub_scale != slab[i].bin_sub_scale ? 1 : 0;
    }
    EXPECT_GT(changed, 100);
    EXPECT_LT(changed, static_cast<int>(slab.size()) / 2);  // the default bins far from every wish kept theirs
}

TEST_F(CellsTest, ScaleCodeZeroIsReportedAndCountsAsEight) {
    std::shared_ptr<CellNodeAndRelations> result;
    EXPECT_EQ(quiet([&] { result = cells({bin(60, 60, 60, 0, 2, 0)}); }),
              "[MarchingCubes] buildOctreeAndRelationsByBins error (bin_sub_scale == SUB_SCALE_NANE)!\n");
    ASSERT_EQ(result->cell_node_size.load(), 27);  // its points are not lost
    for (const CellNode_Device& record : result->cell_nodes) EXPECT_EQ(record.word & 0xFF, 8u);
}

TEST_F(StageRun, PlaneFieldIsTheSignedDistanceToThePlane) {
    std::vector<RawPointWithHash> points;
    for (float x = 12.0f; x < 52.0f; x += 0.2f)
        for (float y = 12.0f; y < 52.0f; y += 0.2f) points.push_back(scanPoint(x, y, 30.3f, 0.0f, 0.0f, 1.0f));
    ASSERT_EQ(process(block(points)), 0) << stage.getLastError();
    int checked = 0;
    for (const CellNode_Device& record : TestAccess::lastCells(stage)->cell_nodes) {
        if (record.field_flag < 1) {
            EXPECT_EQ(record.cell->data_id, -1);
            continue;
        }
        // Every leaf with a field points into the store.
        ASSERT_EQ(record.cell->data_state, 2);
        EXPECT_EQ(record.cell->field_count, record.field_flag);
        EXPECT_EQ(pool->slot(record.cell->data_id)->value, record.fields[0].value);
        // Away from the plane's border the value is the centre's distance below the plane.
        if (record.field_flag != 1 || std::fabs(record.center[0] - 32.0f) > 16.0f ||
            std::fabs(record.center[1] - 32.0f) > 16.0f)
            continue;
        EXPECT_NEAR(record.fields[0].value, 30.3f - record.center[2], 1e-4f);
        EXPECT_NEAR(record.fields[0].normal[2], 1.0f, 1e-5f);
        ++checked;
    }
    EXPECT_GT(checked, 1000);
}

TEST_F(StageRun, SphereFieldMatchesTheSignedDistanceNearTheSurface) {
    const float radius = 10.0f;
    ASSERT_EQ(process(block(spherePoints(radius, 0.15f))), 0) << stage.getLastError();
    std::vector<double> deviations;
    for (const CellNode_Device& record : TestAccess::lastCells(stage)->cell_nodes) {
        if (record.field_flag != 1) continue;
        const float dx = record.center[0] - 32.0f, dy = record.center[1] - 32.0f, dz = record.center[2] - 32.0f;
        const float expected = radius - std::sqrt(dx * dx + dy * dy + dz * dz);  // positive inside
        deviations.push_back(std::fabs(record.fields[0].value - expected));
    }
    ASSERT_GT(deviations.size(), 5000u);
    std::sort(deviations.begin(), deviations.end());
    const double median = deviations[deviations.size() / 2], p95 = deviations[deviations.size() * 95 / 100];
    std::printf("sphere field deviation: median %.4f, 95%% %.4f, largest %.4f\n", median, p95, deviations.back());
    // The curvature of a sphere of radius 10 under a bell of about 0.2 shifts a centroid by about 0.003;
    // a few cells whose point sets are lopsided reach 0.05, within a fifth of the edge.
    EXPECT_LT(median, 0.005);
    EXPECT_LT(p95, 0.01);
    EXPECT_LT(deviations.back(), 0.1);
}

TEST_F(StageRun, DevicePathAndHostPathGiveTheSameField) {
    auto b = block(spherePoints(8.0f, 0.2f));
    const auto on_device = cells(bins(stage, b), b);
    CellNodeAndRelations on_host;
    on_host.cell_nodes = on_device->cell_nodes;
    on_host.relations = on_device->relations;
    on_host.cell_node_size = on_device->cell_node_size.load();
    on_host.relation_size = on_device->relation_size.load();
    ASSERT_EQ(TestAccess::computeFiledData_Device(stage, *on_device), 0);
    ASSERT_EQ(TestAccess::processMarchingCubeTaskOnHost(stage, *b, on_host), 0);
    ASSERT_EQ(on_host.cell_nodes.size(), on_device->cell_nodes.size());
    int sheets = 0;
    float largest = 0.0f;  // the largest difference of a field value or normal component
    const auto near = [&largest](float a, float b) {
        largest = std::max(largest, std::fabs(a - b));
        return std::fabs(a - b) <= FIELD_DEVICE_TOLERANCE;
    };
    for (std::size_t i = 0; i < on_host.cell_nodes.size(); ++i) {
        const CellNode_Device& d = on_device->cell_nodes[i];
        const CellNode_Device& h = on_host.cell_nodes[i];
        ASSERT_EQ(d.field_flag, h.field_flag) << "cell " << i;
        sheets += std::max(0, d.field_flag);
        if (!KERNELS_MAY_DIFFER_FROM_HOST) {
            EXPECT_EQ(std::memcmp(&d, &h, sizeof(CellNode_Device)), 0) << "cell " << i;
            continue;
        }
        // The arithmetic may differ in the last bits; what it decides may not.
        EXPECT_EQ(d.rules, h.rules) << "cell " << i;
        EXPECT_EQ(d.word, h.word) << "cell " << i;
        for (int k = 0; k < 3; ++k) EXPECT_TRUE(near(d.init_normal[k], h.init_normal[k])) << "cell " << i;
        for (int s = 0; s < d.field_flag; ++s) {
            EXPECT_TRUE(near(d.fields[s].value, h.fields[s].value)) << "cell " << i << " sheet " << s;
            for (int k = 0; k < 3; ++k)
                EXPECT_TRUE(near(d.fields[s].normal[k], h.fields[s].normal[k])) << "cell " << i << " sheet " << s;
            EXPECT_EQ(d.fields[s].word, h.fields[s].word) << "cell " << i;
            EXPECT_EQ(d.fields[s].occupancy, h.fields[s].occupancy) << "cell " << i;
        }
    }
    if (KERNELS_MAY_DIFFER_FROM_HOST)
        std::printf("device path and host path: fields differ by at most %g\n", static_cast<double>(largest));
    EXPECT_GT(sheets, 1000);
}

TEST_F(StageRun, ABlockThatFallsBackPrintsBothWarningsAndTheNextTriesTheDeviceAgain) {
    MarchingCubes small;
    setUpStage(small, 3000);  // room for 3001 points
    std::string out = quiet([&] { ASSERT_EQ(small.process(block(spherePoints(6.0f, 0.3f))), 0); });  // ~5000
    EXPECT_TRUE(contains(out, "[warining]: memory lacked, generateBins on Host\n"));
    EXPECT_TRUE(contains(out, "[warining]: memory lacked, computeFiledData on Host\n"));
    EXPECT_TRUE(TestAccess::onHost(small));

    auto fits = block(spherePoints(2.0f, 0.2f));  // about 1250 points
    for (RawPointWithHash& p : *fits->points) p.x += 20.0f;
    out = quiet([&] { ASSERT_EQ(small.process(fits), 0); });
    EXPECT_EQ(out.find("[warining]"), std::string::npos);
    EXPECT_FALSE(TestAccess::onHost(small));
}

TEST_F(StageRun, AFailedAllocationInTheFieldStepFreesWhatItTook) {
    // Where device memory is host memory the passes take no device buffers (the guarded build runs this).
    if (deviceMemoryIsHostMemory()) GTEST_SKIP() << "the field step copies nothing where device memory is host memory";
    auto b = block(spherePoints(5.0f, 0.3f));
    const auto result = cells(bins(stage, b), b);
    FakeDevices fake;
    fake.fail_malloc_at = 1;  // the relations: the cell array is already taken
    const std::string err =
        quietErr([&] { EXPECT_EQ(TestAccess::computeFiledData_Device(stage, *result), TESSALINE_DEVICE_COMPUTE); });
    EXPECT_TRUE(contains(err, "deviceMalloc(&relations_dev"));
    EXPECT_EQ(stage.getLastError(), "cuda runtime error!");
    EXPECT_EQ(fake.malloc_calls, 2);
    EXPECT_EQ(fake.free_calls, 1);  // the cell array went back
}
