// The marching cubes stage's bins: Morton codes, the scale rule, sub-cell occupancy, the chunked path
// against the whole-block path, bin arrays that must grow, and repeatability.
#include <gtest/gtest.h>

#include <omp.h>

#include <cmath>
#include <cstring>
#include <random>

#include "HashOctree.h"
#include "MarchingCubes.h"
#include "Morton.h"
#include "Portioner.h"

using namespace SurfaceReconstruction;

TEST(Morton, EncodeDecodeRoundTrips) {
    EXPECT_EQ(mortonEncode(1, 0, 0), 1u);
    EXPECT_EQ(mortonEncode(0, 1, 0), 2u);
    EXPECT_EQ(mortonEncode(0, 0, 1), 4u);
    EXPECT_EQ(mortonEncode(2, 0, 0), 8u);
    EXPECT_EQ(mortonEncode(1023, 1023, 1023), 0x3FFFFFFFu);
    std::mt19937 rng(1);
    std::uniform_int_distribution<std::uint32_t> coord(0, 1023);
    for (int i = 0; i < 20000; ++i) {
        const std::uint32_t x = coord(rng), y = coord(rng), z = coord(rng);
        std::uint32_t dx, dy, dz;
        mortonDecode(mortonEncode(x, y, z), dx, dy, dz);
        ASSERT_EQ(dx, x);
        ASSERT_EQ(dy, y);
        ASSERT_EQ(dz, z);
    }
    // Interleaving keeps octants together: the 8 sub-cells of a 2 x 2 x 2 split are codes 0-7.
    for (std::uint32_t k = 0; k < 8; ++k) EXPECT_EQ(mortonEncode(k & 1, (k >> 1) & 1, k >> 2), k);
}

namespace {

constexpr float RES = 0.5f;

// A stage over blocks of 128 bins (edge 64) whose grid starts 6 below the block: bin (i, j, k) of the
// block centred at (32, 32, 32) covers [-6 + 0.5 i, -6 + 0.5 (i + 1)) on x.
class BinsTest : public ::testing::Test {
protected:
    void SetUp() override { setUpStage(stage, 1000000, 152); }

    static void setUpStage(MarchingCubes& mc, std::uint64_t max_points, std::uint32_t block_with_ext) {
        auto device_params = std::make_shared<DeviceParameters>();
        std::memset(device_params.get(), 0, sizeof(DeviceParameters));
        mc.setDeviceParams(device_params);
        mc.setPortionerParams(std::make_shared<PortionerParameters>(PortionerParameters{128, 12, block_with_ext}));
        mc.setResolution(RES);
        ASSERT_EQ(mc.init(), 0);
        ASSERT_EQ(mc.initDevice(max_points), 0);
    }

    static std::shared_ptr<PointCloudBlock> block(const std::vector<RawPointWithHash>& points) {
        auto b = std::make_shared<PointCloudBlock>();
        b->center[0] = b->center[1] = b->center[2] = 32.0f;
        b->half_size = 32.0f;
        *b->points = points;
        return b;
    }

    static RawPointWithHash point(float x, float y, float z, std::int32_t w = 8) {
        RawPointWithHash p{};
        p.x = x;
        p.y = y;
        p.z = z;
        p.nz = 1.0f;
        p.w = w;
        p.hash = 7;  // what the Portioner left
        return p;
    }

    std::vector<BinsHeader> bins(MarchingCubes& mc, const std::shared_ptr<PointCloudBlock>& b) {
        float logic[3];
        mc.logicCoordinate(*b, logic);
        std::vector<BinsHeader> result;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(mc.generateBins(b, logic, result), 0);
        last_output = ::testing::internal::GetCapturedStdout();
        return result;
    }

    // The scale code of one bin holding points with these codes, in this order along x.
    std::int8_t scaleOf(std::initializer_list<int> codes) {
        std::vector<RawPointWithHash> points;
        float x = 10.01f;
        for (int code : codes) {
            points.push_back(point(x, 10.1f, 10.1f, code));
            x += 0.05f;
        }
        const auto result = bins(stage, block(points));
        EXPECT_EQ(result.size(), 1u);
        return result.empty() ? -1 : result[0].bin_sub_scale;
    }

    MarchingCubes stage;
    std::string last_output;
};

std::vector<RawPointWithHash> randomPoints(int n, unsigned seed, float lo = -5.0f, float hi = 69.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(lo, hi);
    std::uniform_int_distribution<int> code(0, 3);
    const int codes[4] = {8, 8, 16, 4};
    std::vector<RawPointWithHash> points;
    for (int i = 0; i < n; ++i) {
        RawPointWithHash p{};
        p.x = coord(rng);
        p.y = coord(rng) * 0.1f + 20.0f;  // a slab: many points a bin
        p.z = coord(rng) * 0.1f + 20.0f;
        p.nz = 1.0f;
        p.w = codes[code(rng)] | (code(rng) << 8);
        points.push_back(p);
    }
    return points;
}

}  // namespace

TEST_F(BinsTest, OneBinFromOnePointWithItsCentreAndCount) {
    const auto result = bins(stage, block({point(10.1f, 10.2f, 10.3f)}));
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].point_count, 1);
    EXPECT_EQ(result[0].point_offset, 0);
    EXPECT_EQ(result[0].bin_sub_scale, 8);
    EXPECT_FLOAT_EQ(result[0].center[0], 10.25f);  // bin 32 of x: [10, 10.5)
    EXPECT_FLOAT_EQ(result[0].center[1], 10.25f);
    EXPECT_FLOAT_EQ(result[0].center[2], 10.25f);
}

TEST_F(BinsTest, ScaleRule) {
    EXPECT_EQ(scaleOf({8, 8, 8}), 8);
    EXPECT_EQ(scaleOf({8, 16, 8, 32}), 32);
    EXPECT_EQ(scaleOf({32, 8, 16, 8}), 32);
    EXPECT_EQ(scaleOf({4, 16}), 16);
    EXPECT_EQ(scaleOf({8, 2}), 2);
    EXPECT_EQ(scaleOf({8, 0}), 0);  // a last code of 0 after 8 stays 0
    EXPECT_EQ(scaleOf({0, 8}), 8);  // a code after 0 takes its place, 8 included
    EXPECT_EQ(scaleOf({0, 4}), 4);
}

TEST_F(BinsTest, FlagsAndOccupancyWithTheUpperFaceClamped) {
    // The bin [10, 10.5)^3; sub-cells of 1/16. A point at the upper face of the bin is clamped to 7.
    const auto result = bins(stage, block({point(10.0f, 10.0f, 10.0f, 8 | (1 << 8)), point(10.4999f, 10.0f, 10.0f, 8 | (4 << 8))}));
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].bin_flags, 5);
    EXPECT_EQ(result[0].occupancy[0], 1ull);                         // sub-cell (0, 0, 0)
    const std::uint32_t code = mortonEncode(7, 0, 0);
    EXPECT_NE(result[0].occupancy[code / 64] & (1ull << (code % 64)), 0ull);
    int bits = 0;
    for (std::uint64_t word : result[0].occupancy) bits += __builtin_popcountll(word);
    EXPECT_EQ(bits, 2);
}

TEST_F(BinsTest, PointsBelowTheGridKeepTheirHash) {
    auto b = block({point(-7.0f, 10.0f, 10.0f), point(10.1f, 10.1f, 10.1f)});
    const auto result = bins(stage, b);
    EXPECT_EQ(result.size(), 2u);
    bool kept = false;
    for (const RawPointWithHash& p : *b->points) kept = kept || (p.x == -7.0f && p.hash == 7);
    EXPECT_TRUE(kept);
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
            ASSERT_LE(std::fabs(p.x - bin.center[0]), RES * 0.5f);
            ASSERT_LE(std::fabs(p.y - bin.center[1]), RES * 0.5f);
            ASSERT_LE(std::fabs(p.z - bin.center[2]), RES * 0.5f);
        }
        next += bin.point_count;
    }
    EXPECT_EQ(next, static_cast<std::int64_t>(b->points->size()));
}

TEST_F(BinsTest, ChunkedPathGivesTheSameBinsAsTheWholeBlock) {
    const auto points = randomPoints(5000, 9);
    auto whole = block(points);
    const auto expected = bins(stage, whole);
    EXPECT_FALSE(stage.onHost());

    MarchingCubes small;
    setUpStage(small, 200, 152);  // room for 201 points: the block goes in chunks
    auto chunked = block(points);
    const auto actual = bins(small, chunked);
    EXPECT_TRUE(small.onHost());
    EXPECT_NE(last_output.find("[warining]: memory lacked, generateBins on Host\n"), std::string::npos);
    ASSERT_EQ(actual.size(), expected.size());
    EXPECT_EQ(std::memcmp(actual.data(), expected.data(), actual.size() * sizeof(BinsHeader)), 0);
    EXPECT_EQ(std::memcmp(chunked->points->data(), whole->points->data(), points.size() * sizeof(RawPointWithHash)), 0);
}

TEST_F(BinsTest, ABlockOfExactlyTheCapacityTakesTheChunkedPath) {
    MarchingCubes mc;
    setUpStage(mc, 99, 152);  // capacity 100
    const auto result = bins(mc, block(randomPoints(100, 3)));
    EXPECT_TRUE(mc.onHost());
    std::int64_t total = 0;
    for (const BinsHeader& bin : result) total += bin.point_count;
    EXPECT_EQ(total, 100);
}

TEST_F(BinsTest, MoreBinsThanTheArrayHoldsGrowsIt) {
    MarchingCubes mc;
    setUpStage(mc, 100000, 2);  // an array for 20 x 2 x 2 = 80 bins
    std::vector<RawPointWithHash> points;
    for (int i = 0; i < 500; ++i) points.push_back(point(-5.75f + 0.5f * (i % 100), 10.1f + 0.5f * (i / 100), 10.1f));
    const auto result = bins(mc, block(points));
    EXPECT_EQ(result.size(), 500u);
    EXPECT_EQ(last_output.find("bins_id >= MC_MAX_BINS_HEADER"), std::string::npos);
}

TEST_F(BinsTest, SameBlockSameBinsForAnyThreadCount) {
    const auto points = randomPoints(30000, 13);
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    auto a = block(points);
    const auto one = bins(stage, a);
    omp_set_num_threads(std::max(2, threads));
    auto b = block(points);
    const auto many = bins(stage, b);
    omp_set_num_threads(threads);
    ASSERT_EQ(one.size(), many.size());
    EXPECT_EQ(std::memcmp(one.data(), many.data(), one.size() * sizeof(BinsHeader)), 0);
    EXPECT_EQ(std::memcmp(a->points->data(), b->points->data(), points.size() * sizeof(RawPointWithHash)), 0);
}
