// What a scanner application can throw at the library: unusable points, degenerate scans, settings
// out of range, calls during a run; twenty runs in one process; a device with little memory.
#include <sys/resource.h>

#include "FakeDevices.h"
#include "TestSupport.h"
#include "common/MemoryFailure.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

// A figure of /proc/self/status ("VmRSS:", "VmPeak:"), in MiB; 0 where it is missing.
double statusMiB(const std::string& key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(key, 0) == 0) return std::strtod(line.c_str() + key.size(), nullptr) / 1024.0;
    return 0.0;
}

}  // namespace

TEST(BadInput, UnusablePointsAreDroppedAndCountedAndTheRestGivesTheSameMesh) {
    ASSERT_EQ(smallScanRun().status, 0) << smallScanRun().error;
    ASSERT_GT(smallScanRun().mesh->xyz.size(), 1000u);
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    // Six unusable points in a frame of their own: NaN and infinite positions and normals, a normal of
    // length 0, and a position far beyond the grid.
    auto bad = frameOf({{nan, 0, 0}, {0, inf, 0}, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}, {1e12f, 0, 0}},
                       {{0, 0, 1}, {0, 0, 1}, {nan, 0, 1}, {0, -inf, 0}, {0, 0, 0}, {0, 0, 1}});
    Frames frames = smallScan();
    frames.insert(frames.begin() + 3, bad);
    const Session run = runOk(frames);
    EXPECT_TRUE(contains(run.output, "addScanFrame: 6 points dropped"));
    EXPECT_TRUE(sameMesh(*run.mesh, *smallScanRun().mesh));  // nothing of them reaches the mesh
    EXPECT_TRUE(std::isnan(bad->xyz[0][0]));                 // the application's frame is left as it was

    // Unknown scale codes become one cell a bin, flags kept: the same as asking for 8.
    const auto recode = [](std::int32_t odd, std::int32_t even) {
        return changedCopies(smallScan(), [=](std::size_t f, FrameDataWithInfo& frame) {
            if (f != 1) return;
            for (std::size_t i = 0; i < frame.w.size(); ++i) frame.w[i] = (i % 2 ? odd : even) | 0x200;
        });
    };
    const Session a = runOk(recode(3, 200)), b = runSession(recode(8, 8));
    EXPECT_TRUE(contains(a.output, "0 points dropped (not finite, normal of length 0 or beyond the grid), " +
                                       std::to_string(smallScan()[1]->w.size()) + " scale codes not 0-64 set to 8"));
    EXPECT_TRUE(sameMesh(*a.mesh, *b.mesh));
}

TEST(BadInput, DegenerateScansEndWithAStatusAndNoCrash) {
    // Without a usable point the run ends with status 1 and says why; a point, or a thousand on one spot, hold
    // no surface: status 0 and (next to) no triangles.
    const std::vector<std::tuple<const char*, Frames, int>> cases = {
        {"an empty frame", {frameOf({})}, 1},
        {"only unusable points", {frameOf({{std::numeric_limits<float>::quiet_NaN(), 0, 0}, {3e38f, 0, 0}})}, 1},
        {"a single point", {frameOf({{1, 2, 3}})}, 0},
        {"all points at the origin", {frameOf(std::vector<Vec3f>(1000, Vec3f{0, 0, 0}))}, 0},
    };
    for (const auto& [name, frames, status] : cases) {
        const Session run = runSession(frames);
        EXPECT_EQ(run.status, status) << name << ": " << run.error;
        if (status == 1) {
            EXPECT_TRUE(contains(run.error, "no usable points")) << name;
        }
        EXPECT_LT(run.mesh->xyz.size(), status == 1 ? 1u : 64u) << name;
        for (const TriangleXYZ& t : run.mesh->xyz)
            EXPECT_TRUE(std::all_of(t.xyz, t.xyz + 9, [](float v) { return std::isfinite(v); })) << name;
    }
}

TEST(BadInput, SettingsOutOfRangeAreRefusedAndTheFormerOnesKept) {
    // A resolution that is not a positive length, a laser limit that is not a finite length of 0 or more:
    // the call is refused with its reason, and the run goes on at the former settings.
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const Session run = runSession(smallScan(), 0.5f, [&](Tessaline& engine) {
        for (const float resolution : {0.0f, -1.0f, nan, inf}) {
            engine.setResolution(resolution);
            EXPECT_TRUE(contains(engine.getLastErrorMsg(), "resolution must be between")) << resolution;
        }
        for (const float edge : {nan, inf, -inf, -1.0f}) {
            LaserInfo info{};
            info.min_edge = edge;
            EXPECT_EQ(engine.setLaserInfo(info), 1) << edge;
            EXPECT_TRUE(contains(engine.getLastErrorMsg(), "min_edge must be a finite length")) << edge;
        }
    });
    ASSERT_EQ(run.status, 0) << run.error;
    EXPECT_TRUE(sameMesh(*run.mesh, *smallScanRun().mesh));  // as without the calls
    // A laser id outside 0-7 is read as 0; a scan of one laser gives the same mesh either way.
    const Session a = runSession(changedCopies(
        smallScan(), [](std::size_t f, FrameDataWithInfo& frame) { frame.frame_info.laser_id = f % 2 ? 99 : -5; }));
    const Session b = runSession(
        changedCopies(smallScan(), [](std::size_t, FrameDataWithInfo& frame) { frame.frame_info.laser_id = 0; }));
    ASSERT_EQ(a.status, 0) << a.error;
    EXPECT_TRUE(sameMesh(*a.mesh, *b.mesh));
}

TEST(BadInput, AFrameSpoiledBetweenAddAndProcessIsScreenedAsItIsThen) {
    auto spoiled = std::make_shared<FrameDataWithInfo>(*smallScan()[0]);
    Frames frames = smallScan();
    frames[0] = spoiled;
    const Session run = runSession(frames, 0.5f, [&](Tessaline&) { spoiled->nor[5] = {0, 0, 0}; });
    ASSERT_EQ(run.status, 0) << run.error;
    EXPECT_TRUE(contains(run.output, "addScanFrame: 1 points dropped"));
}

TEST(Soak, TwentyRunsOfDifferentSizesUnderAnAddressSpaceLimitKeepMemoryFlatAndMeshesIdentical) {
    // Four scans of different sizes, each reconstructed once alone first: the mesh every later run of it
    // must give byte for byte.
    std::vector<Frames> scans;
    std::vector<std::shared_ptr<MultiMeshData>> alone;
    for (std::size_t points : {15000, 40000, 90000, 160000}) {
        scans.push_back(simulatedScan(points, 300));
        const Session run = runSession(scans.back());
        ASSERT_EQ(run.status, 0) << points << " points: " << run.error;
        ASSERT_GT(run.mesh->xyz.size(), 0u);
        alone.push_back(run.mesh);
    }
    // The address space the process reached with them, plus 1 GiB, becomes its limit: a run that leaked or
    // asked for more than the same run did before fails to allocate. The sanitizers reserve terabytes of
    // shadow address space, so there the limit stays off and only the resident memory is checked.
    bool limited = !TESSALINE_TEST_SANITIZED;
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    if (limited) {
        const double peak = statusMiB("VmPeak:");
        rlimit cap = before;
        cap.rlim_cur = static_cast<rlim_t>((peak + 1024.0) * 1024.0 * 1024.0);
        limited = peak > 0 && cap.rlim_cur < before.rlim_max && setrlimit(RLIMIT_AS, &cap) == 0;
    }
    std::vector<double> resident;
    for (int i = 0; i < 20; ++i) {
        const std::size_t which = static_cast<std::size_t>((i * 3 + i / 4) % 4);  // every size, in changing order
        const Session run = runSession(scans[which]);
        if (run.status != 0 || !sameMesh(*run.mesh, *alone[which])) {
            if (limited) setrlimit(RLIMIT_AS, &before);
            FAIL() << "run " << i << " (scan " << which << "): status " << run.status << ", " << run.error;
        }
        resident.push_back(statusMiB("VmRSS:"));
    }
    if (limited) setrlimit(RLIMIT_AS, &before);
    // After the first four runs (one of each size) have warmed the allocator, memory stays where it is.
    const double warm = *std::max_element(resident.begin(), resident.begin() + 4);
    EXPECT_LT(*std::max_element(resident.begin() + 4, resident.end()) - warm, 64.0)
        << "resident MiB after the first four runs: " << warm << ", after run 20: " << resident.back();
}

TEST(MemoryBounds, ADeviceWithLittleFreeMemoryFallsBackToTheHostWithTheSameMesh) {
    ASSERT_EQ(smallScanRun().status, 0);
    FakeDevices fake;
    fake.free_bytes = 8u << 20;  // 8 MiB reported free
    const Session run = runOk(smallScan());
    EXPECT_TRUE(contains(run.output, "[warining]: memory lacked, computeFiledData on Host\n"));
    EXPECT_TRUE(deviceAndHostMeshesAgree(*smallScanRun().mesh, *run.mesh));
}

TEST(MemoryBounds, ABlockBeyondTheFallbackCapacityTakesBothHostPathsAndMatchesTheDeviceRun) {
    // A device of 4 GiB at resolution 0.1 gets blocks of 128 cells with a margin of 12 each side; when
    // the reported free memory cannot hold the largest block twice, the point buffer falls back to
    // 152 x 152 x 300 = 6,931,200 points. A plane of 7.3 million points in one block is more than that.
    const int side = 2700;
    Frames frames;
    auto frame = std::make_shared<FrameDataWithInfo>();
    for (int i = 0; i < side; ++i)
        for (int j = 0; j < side; ++j) {
            addPoint(*frame,
                     {0.6f + 11.6f * i / side, 0.6f + 11.6f * j / side, 6.33f + 0.002f * ((i * 7 + j * 3) % 5)});
            if (frame->xyz.size() == 400000) {
                frames.push_back(frame);
                frame = std::make_shared<FrameDataWithInfo>();
            }
        }
    frames.push_back(frame);

    const auto runWith = [&](std::size_t free_bytes) {
        FakeDevices fake;
        fake.total_bytes = 4ull << 30;
        fake.free_bytes = free_bytes;
        return runSession(frames, 0.1f);
    };
    const Session bounded = runWith(64u << 20);
    ASSERT_EQ(bounded.status, 0) << bounded.error;
    EXPECT_TRUE(contains(bounded.output, "[warining]: memory lacked, generateBins on Host\n"));
    EXPECT_TRUE(contains(bounded.output, "[warining]: memory lacked, computeFiledData on Host\n"));
    const Session unbounded = runWith(3ull << 30);
    ASSERT_EQ(unbounded.status, 0) << unbounded.error;
    EXPECT_EQ(unbounded.output.find("[warining]"), std::string::npos);
    ASSERT_GT(unbounded.mesh->xyz.size(), 10000u);
    // The chunked path cuts the block's points into pieces that are sorted one by one; where a bin's
    // run of points is cut, its points come in another order and sums differ in the last bits.
    const bool identical = sameMesh(*bounded.mesh, *unbounded.mesh);
    std::printf("chunked and device paths: %s\n", identical ? "identical meshes" : "meshes differ");
    if (!identical) {
        EXPECT_LT(meshDeviation(*bounded.mesh, *unbounded.mesh), 1e-3f);
    }
}

// The text of a memory failure names the stage, what it wanted in whole MiB (rounded up) and what to change.
TEST(MemoryFailureText, NamesTheStageTheMiBAndTheAdvice) {
    struct Case {
        std::uint64_t wanted, failed;
        const char* text;
    };
    const std::uint64_t MIB = 1 << 20;
    const Case cases[] = {
        {0, 0, "[S] x ran out of memory; lower the resolution or raise the memory limit"},
        {0, 5 * MIB + 1,
         "[S] x ran out of memory: it wanted 6 MiB more; lower the resolution or raise the memory limit"},
        {300 * MIB, 0,
         "[S] x ran out of memory: it wanted 300 MiB more; lower the resolution or raise the memory limit"},
        {300 * MIB, 1,
         "[S] x ran out of memory: 1 MiB could not be had, of about 300 MiB it wanted; lower the resolution or raise "
         "the memory limit"},
        {2 * MIB, 3 * MIB,
         "[S] x ran out of memory: it wanted 3 MiB more; lower the resolution or raise the memory limit"},
    };
    for (const Case& c : cases) {
        const MemoryStageScope stage("[S] x", c.wanted);
        EXPECT_EQ(memoryFailureText(OutOfMemory(c.failed)), c.text) << c.wanted << " " << c.failed;
    }
    EXPECT_STREQ(t_memory_stage.name, "[Tessaline_OPT] process");  // the scopes gave the stage back
}
