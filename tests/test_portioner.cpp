// Portioner: block sizing from resolution and device memory, the intake of the first pass and the
// block list's accessors.
#include <gtest/gtest.h>

#include <cstring>

#include "FakeDevices.h"
#include "Portioner.h"

using namespace SurfaceReconstruction;
using testing_support::FakeDevices;

namespace {
PortionerParameters sized(float resolution) {
    PortionerParameters p{};
    computeBlockSizing(p, resolution);
    return p;
}
}  // namespace

TEST(BlockSizing, FollowsTotalMemoryAndResolution) {
    FakeDevices fake;
    fake.total_bytes = 8ull << 30;
    fake.free_bytes = 1ull << 20;  // the free figure plays no part
    EXPECT_EQ(sized(0.5f).block_size, 512u);
    EXPECT_EQ(sized(0.5f).ext_size, 12u);
    EXPECT_EQ(sized(0.5f).block_with_ext_size, 536u);
    EXPECT_EQ(sized(0.19f).block_size, 256u);
    EXPECT_EQ(sized(0.19f).block_with_ext_size, 280u);
    // 0.2f widened to double lies just above 0.2: no halving.
    EXPECT_EQ(sized(0.2f).block_size, 512u);

    fake.total_bytes = 7ull << 30;  // the test is strictly above 7 GiB
    EXPECT_EQ(sized(0.5f).block_size, 256u);
    EXPECT_EQ(sized(0.1f).block_size, 128u);
    EXPECT_EQ(sized(0.1f).block_with_ext_size, 152u);
}

TEST(BlockSizing, WithoutAMemoryFigureStaysAt256WhateverTheResolution) {
    FakeDevices fake;
    fake.mem_info_fails = true;
    EXPECT_EQ(sized(0.5f).block_size, 256u);
    EXPECT_EQ(sized(0.05f).block_size, 256u);
    EXPECT_EQ(sized(0.05f).block_with_ext_size, 280u);
}

class PortionerIntake : public ::testing::Test {
protected:
    void SetUp() override {
        params = std::make_shared<DeviceParameters>();
        std::memset(params.get(), 0, sizeof(DeviceParameters));
        params->MAX_FRAME_POINTS = 20;
        portioner.setDeviceParams(params);
        portioner.setPortionerParams(std::make_shared<PortionerParameters>(sized(0.5f)));
    }

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

TEST_F(PortionerIntake, EverythingBeforeInitAnswersNoInit) {
    std::shared_ptr<PointCloudBlock> block;
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(3, 0)), 1);
    EXPECT_EQ(portioner.getLastError(), "no init!");
    EXPECT_EQ(portioner.processWithoutModel(), 1);
    EXPECT_EQ(portioner.getPointCloudBlockCount(), 1);
    EXPECT_EQ(portioner.getMaxBlockPointsSize(), 1);
    EXPECT_EQ(portioner.takePointCloudBlock(block, 0), 1);
    EXPECT_EQ(portioner.getLastError(), "no init!");
    EXPECT_EQ(portioner.deInit(), 0);  // never initialised: nothing to do
}

TEST_F(PortionerIntake, FrameOfExactlyTheSlotSizeFitsOneMoreDoesNot) {
    ASSERT_EQ(portioner.init(), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(20, 0)), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(21, 0)), 1);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(frame(0, 0)), 0);
    EXPECT_EQ(portioner.addScanFrameWithoutModel(nullptr), 1);
    EXPECT_EQ(portioner.waitingFrameCount(), 2u);
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

TEST_F(PortionerIntake, BlockAccessorsRefuseBadIndices) {
    ASSERT_EQ(portioner.init(), 0);
    std::shared_ptr<PointCloudBlock> block;
    EXPECT_EQ(portioner.getPointCloudBlockCount(), 0);
    EXPECT_EQ(portioner.getMaxBlockPointsSize(), 0);
    for (int index : {-1, 0, 5}) {
        EXPECT_EQ(portioner.takePointCloudBlock(block, index), 1);
        EXPECT_EQ(portioner.getLastError(), "no cur block id!");
        EXPECT_EQ(block, nullptr);
    }
    // Without blocks the second pass ends the run quietly.
    EXPECT_EQ(portioner.processWithoutModel(), 1);
    EXPECT_EQ(portioner.deInit(), 0);
    EXPECT_EQ(portioner.deInit(), 0);
}
