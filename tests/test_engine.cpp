// The engine through the exported handle and its internals: life cycle, calls out of order, frame
// intake, step reports and the exits of a run; the Reconstructor's own refusals.
#include "FakeDevices.h"
#include "TestAccess.h"
#include "TestSupport.h"
#include "common/ThreadPool.h"
#include "contour/Reconstructor.h"
#include "engine/Tessaline_OPT.h"
#include "fusion/MarchingCubes.h"
#include "volume/HashOctree.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

std::shared_ptr<FrameDataWithInfo> makeFrame(std::size_t points, int laser_id = 0) {
    auto frame = std::make_shared<FrameDataWithInfo>();
    for (std::size_t i = 0; i < points; ++i) testing_support::addPoint(*frame, {1.0f + i, 2.0f, 3.0f});
    frame->frame_info.laser_id = laser_id;
    frame->marker_ids = {4, 5};
    frame->marker_xyz = {{1, 2, 3}, {4, 5, 6}};
    frame->marker_nor = {{0, 0, 1}, {0, 1, 0}};
    return frame;
}

// An engine with init done and the printed lines of its calls swallowed.
class EngineTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(engine.init(), 0); }
    void TearDown() override { engine.deInit(); }

    int quietProcess(std::shared_ptr<MultiMeshData>& mesh, std::string* out = nullptr) {
        int status = -1;
        const std::string text = quiet([&] { status = engine.process(mesh); });
        if (out) *out = text;
        return status;
    }

    void recordSteps() {
        callback = [this](ProcessStepInfo& info) {
            steps.push_back(info);
            return -1;  // the result steers nothing
        };
        ASSERT_EQ(engine.setProcessStepCallBack(callback), 0);
    }

    Tessaline_OPT engine;
    std::function<int(ProcessStepInfo&)> callback;
    std::vector<ProcessStepInfo> steps;
};

}  // namespace

TEST(Handle, CopiesShareOneEngine) {
    Tessaline a;
    EXPECT_EQ(a.getLastErrorMsg(), "no error!");
    EXPECT_EQ(a.deInit(), 0);
    Tessaline b = a;
    ASSERT_EQ(b.init(), 0);
    EXPECT_EQ(a.addScanFrame_ALL(makeFrame(3)), 0);  // a is initialised through b

    Tessaline c;
    c = a;
    EXPECT_EQ(c.addScanFrame_async(nullptr), 1);
    EXPECT_EQ(a.getLastErrorMsg(), c.getLastErrorMsg());  // one last error for all copies
    EXPECT_EQ(b.deInit(), 0);
    EXPECT_EQ(c.addScanFrame_ALL(makeFrame(3)), 1);
    EXPECT_EQ(a.getLastErrorMsg(), "no init!");
}

TEST(Handle, EveryCallBeforeInitAnswersNoInit) {
    Tessaline t;
    LaserInfo laser;
    MarkerInfos markers;
    std::function<int(ProcessStepInfo&)> cb = [](ProcessStepInfo&) { return 0; };
    std::shared_ptr<std::vector<OptedMarker>> list;
    auto mesh = std::make_shared<MultiMeshData>();
    const MultiMeshData* before = mesh.get();

    t.setResolution(0.25f);
    EXPECT_EQ(t.getLastErrorMsg(), "no init!");
    EXPECT_EQ(t.setLaserInfo(laser), 1);
    EXPECT_EQ(t.setOptimizedMarkers(markers), 1);
    EXPECT_EQ(t.setProcessStepCallBack(cb), 1);
    EXPECT_EQ(t.addScanFrame_ALL(makeFrame(1)), 1);
    EXPECT_EQ(t.addScanFrame_async(makeFrame(1)), 1);
    EXPECT_EQ(t.getOptimizedMarkerErrors(list), 1);
    EXPECT_EQ(t.process(mesh), 1);
    EXPECT_EQ(mesh.get(), before);
    EXPECT_EQ(t.getLastErrorMsg(), "no init!");
}

TEST(Handle, ConvenienceOverloadsTakeLambdasTemporariesAndAMeshByReference) {
    // A 20 x 20 mm plate of points 0.1 mm apart at z = 50: one run gives a flat sheet.
    const auto plate = [] {
        FrameDataWithInfo frame;
        for (int i = 0; i < 200 * 200; ++i)
            testing_support::addPoint(frame, {10.0f + 0.1f * (i % 200), 10.0f + 0.1f * (i / 200), 50.0f});
        return frame;
    };
    Tessaline handle;
    MultiMeshData mesh;
    mesh.xyz.resize(1);
    mesh.w.resize(1);
    EXPECT_EQ(handle.process(mesh), 1);  // before init: refused, and the mesh stays as it was
    EXPECT_EQ(mesh.xyz.size(), 1u);
    ASSERT_EQ(handle.init(), 0);
    int calls = 0;
    // A lambda returning nothing, then a temporary std::function: the last one set is called.
    EXPECT_EQ(handle.setProcessStepCallBack([](ProcessStepInfo&) { ADD_FAILURE() << "a replaced callback ran"; }), 0);
    EXPECT_EQ(handle.setProcessStepCallBack(
                  std::function<int(ProcessStepInfo&)>([&calls](ProcessStepInfo&) { return ++calls; })),
              0);
    EXPECT_EQ(handle.addScanFrame_ALL(plate()), 0);  // a temporary frame: the engine owns it
    FrameDataWithInfo broken = plate();
    broken.w.pop_back();
    EXPECT_EQ(handle.addScanFrame_ALL(std::move(broken)), 1);
    int status = -1;
    quiet([&] { status = handle.process(mesh); });
    ASSERT_EQ(status, 0) << handle.getLastErrorMsg();
    EXPECT_GT(mesh.xyz.size(), 1000u);
    EXPECT_EQ(mesh.w.size(), mesh.xyz.size());
    EXPECT_GE(calls, 4);  // the three steps and at least one block
    handle.deInit();
}

TEST(EngineLifeCycle, DeInitThenInitKeepsResolutionAndRestoresDefaultCallback) {
    Tessaline_OPT engine;
    ASSERT_EQ(engine.init(), 0);
    engine.setResolution(0.3f);
    std::function<int(ProcessStepInfo&)> cb = [](ProcessStepInfo&) { return 0; };
    ASSERT_EQ(engine.setProcessStepCallBack(cb), 0);
    ASSERT_EQ(engine.deInit(), 0);
    EXPECT_FALSE(engine.isInited());
    EXPECT_EQ(TestAccess::portioner(engine), nullptr);
    EXPECT_EQ(TestAccess::threadPool(engine), nullptr);
    EXPECT_EQ(TestAccess::reconstructor(engine), nullptr);  // octree and store went with it

    ASSERT_EQ(engine.init(), 0);
    EXPECT_FLOAT_EQ(TestAccess::resolution(engine), 0.3f);
    ProcessStepInfo info;
    info.step_name = L"\u751f\u6210\u7f51\u683c";
    info.total_steps = info.cur_step = 3;
    info.total_sub_steps = info.cur_sub_step = 1;
    EXPECT_EQ(quiet([&] { TestAccess::stepCallback(engine)(info); }),
              "[info] cur step \xe7\x94\x9f\xe6\x88\x90\xe7\xbd\x91\xe6\xa0\xbc , (3 / 3) , (1 / 1) \n");
    // An init without deInit replaces the pool, whose workers it joins, and the stages.
    const std::weak_ptr<ThreadPool> first_pool = TestAccess::threadPool(engine);
    const std::weak_ptr<Portioner> first_portioner = TestAccess::portioner(engine);
    ASSERT_EQ(engine.init(), 0);
    EXPECT_TRUE(first_pool.expired());
    EXPECT_TRUE(first_portioner.expired());
    EXPECT_NE(TestAccess::threadPool(engine), nullptr);
    EXPECT_EQ(engine.deInit(), 0);
    EXPECT_EQ(engine.deInit(), 0);  // a second deInit is a no-op
}

TEST(EngineLifeCycle, InitWithoutUsableDeviceReports65793) {
    testing_support::FakeDevices fake(std::vector<testing_support::FakeDevice>{});
    Tessaline_OPT engine;
    EXPECT_EQ(engine.init(), 65793);
    EXPECT_EQ(engine.getLastErrorMsg(), "gpuGetMaxGflopsDeviceId() CUDA error: no devices supporting CUDA.");
    EXPECT_FALSE(engine.isInited());
    EXPECT_EQ(TestAccess::deviceParams(engine), nullptr);  // nothing was created
    EXPECT_EQ(TestAccess::threadPool(engine), nullptr);
}

TEST_F(EngineTest, OptimizedMarkersTakeTheirIndexAsId) {
    std::shared_ptr<std::vector<OptedMarker>> list;
    ASSERT_EQ(engine.getOptimizedMarkerErrors(list), 0);
    EXPECT_EQ(list, nullptr);

    MarkerInfos markers;
    markers.ids = {7, 9, 3};
    markers.xyz = {{1, 1, 1}, {2, 2, 2}, {3, 3, 3}};
    markers.nor = {{0, 0, 1}, {0, 1, 0}, {1, 0, 0}};
    ASSERT_EQ(engine.setOptimizedMarkers(markers), 0);
    ASSERT_EQ(engine.getOptimizedMarkerErrors(list), 0);
    ASSERT_EQ(list->size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ((*list)[i].id, static_cast<int>(i));
        EXPECT_EQ((*list)[i].xyz, markers.xyz[i]);
        EXPECT_EQ((*list)[i].nor, markers.nor[i]);
    }

    // A new list replaces the old one, which stays alive for whoever shares it.
    markers.ids = {1};
    ASSERT_EQ(engine.setOptimizedMarkers(markers), 0);
    EXPECT_EQ(list->size(), 3u);
    std::shared_ptr<std::vector<OptedMarker>> newer;
    engine.getOptimizedMarkerErrors(newer);
    EXPECT_EQ(newer->size(), 1u);

    markers.ids = {1, 2, 3, 4};  // more ids than positions
    EXPECT_EQ(engine.setOptimizedMarkers(markers), 1);
}

TEST_F(EngineTest, IntakeRefusesNullAndMismatchedFrames) {
    EXPECT_EQ(engine.addScanFrame(nullptr), 1);
    EXPECT_TRUE(contains(engine.getLastErrorMsg(), "null"));
    auto short_normals = makeFrame(4);
    short_normals->nor.pop_back();
    EXPECT_EQ(engine.addScanFrame(short_normals), 1);
    EXPECT_TRUE(contains(engine.getLastErrorMsg(), "xyz"));
    auto long_words = makeFrame(4);
    long_words->w.push_back(8);
    EXPECT_EQ(engine.addScanFrame(long_words), 1);
    EXPECT_TRUE(TestAccess::heldFrames(engine).empty());
}

TEST_F(EngineTest, RunWithoutFramesEndsAtThePortionerAndSaysWhy) {
    recordSteps();
    auto mesh = std::make_shared<MultiMeshData>();
    const MultiMeshData* before = mesh.get();
    std::string out;
    EXPECT_EQ(quietProcess(mesh, &out), 1);
    EXPECT_EQ(engine.getLastErrorMsg(),
              "[Tessaline_OPT] process no usable points: no frames, or every point was dropped!");
    EXPECT_TRUE(contains(out, "filter frame by markers (0 / 0) \n"));
    EXPECT_EQ(TestAccess::deviceParams(engine)->MAX_FRAME_POINTS, 0u);
    EXPECT_EQ(mesh.get(), before);
    ASSERT_EQ(steps.size(), 1u);
    EXPECT_EQ(steps[0].step_name, L"\u70b9\u4e91\u9884\u5904\u7406");
    EXPECT_EQ(
        std::vector<int>({steps[0].cur_step, steps[0].total_steps, steps[0].cur_sub_step, steps[0].total_sub_steps}),
        std::vector<int>({1, 3, 1, 1}));
}

TEST_F(EngineTest, RunReportsEveryBlockAndEndsTheLifeOfItsStages) {
    // Points in three blocks along x, whatever the block size (128 to 512 cells of 0.5), each farther
    // than a margin from the block faces.
    auto spread = makeFrame(3, 8);
    spread->xyz = {{-300.0f, 30.0f, 40.0f}, {20.0f, 30.0f, 40.0f}, {300.0f, 30.0f, 40.0f}};
    auto g = makeFrame(3, -1), h = makeFrame(2, 3);
    for (auto& frame : {g, h})
        for (Vec3f& p : frame->xyz) p = {p[0] + 20.0f, 30.0f, 40.0f};
    for (auto& fr : {spread, g, h}) ASSERT_EQ(engine.addScanFrame(fr), 0);
    recordSteps();
    auto mesh = std::make_shared<MultiMeshData>();
    const MultiMeshData* before = mesh.get();
    ASSERT_EQ(quietProcess(mesh), 0) << engine.getLastErrorMsg();
    EXPECT_NE(mesh.get(), before);
    EXPECT_EQ(mesh->xyz.size(), mesh->w.size());
    EXPECT_EQ(spread->frame_info.laser_id, 8);  // read as 0, never written back to the application's frame
    EXPECT_EQ(g->frame_info.laser_id, -1);
    EXPECT_EQ(h->frame_info.laser_id, 3);
    EXPECT_TRUE(TestAccess::heldFrames(engine).empty());

    // n blocks give n + 3 reports: the first step, the opening of step 2, one a block, the third step.
    const std::vector<std::pair<int, int>> expected_pairs = {{1, 1}, {0, 3}, {0, 3}, {1, 3}, {2, 3}, {1, 1}};
    ASSERT_EQ(steps.size(), expected_pairs.size());
    for (std::size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(std::make_pair(steps[i].cur_sub_step, steps[i].total_sub_steps), expected_pairs[i]) << "report " << i;
        EXPECT_EQ(steps[i].total_steps, 3);
    }
    EXPECT_EQ(steps[1].step_name, L"\u878d\u5408\u6570\u636e");
    EXPECT_EQ(steps[5].step_name, L"\u751f\u6210\u7f51\u683c");
    EXPECT_EQ(steps[5].cur_step, 3);

    // The run ended the life of its stages: a second one is refused before it takes a frame.
    auto later = makeFrame(3);
    ASSERT_EQ(engine.addScanFrame(later), 0);
    EXPECT_EQ(quietProcess(mesh), 1);
    EXPECT_TRUE(contains(engine.getLastErrorMsg(), "deInit and init come before the next one"));
    EXPECT_TRUE(engine.isInited());
    ASSERT_EQ(TestAccess::heldFrames(engine).size(), 1u);  // the frame added since is kept
    EXPECT_EQ(TestAccess::heldFrames(engine)[0], later);
}

TEST(EngineRun, AnEmptyOrThrowingCallbackEndsTheRunBeforeAnyFrameIsTaken) {
    std::function<int(ProcessStepInfo&)> empty,
        throwing = [](ProcessStepInfo&) -> int { throw std::runtime_error("x"); };
    for (auto* cb : {&empty, &throwing}) {
        Tessaline_OPT engine;
        ASSERT_EQ(engine.init(), 0);
        ASSERT_EQ(engine.setProcessStepCallBack(*cb), 0);
        ASSERT_EQ(engine.addScanFrame(makeFrame(3)), 0);
        auto mesh = std::make_shared<MultiMeshData>();
        quiet([&] { EXPECT_EQ(engine.process(mesh), 1); });
        EXPECT_EQ(engine.getLastErrorMsg(), "[Tessaline_OPT] process try catch error!");
        EXPECT_EQ(TestAccess::heldFrames(engine).size(), 1u);  // no frame consumed
        EXPECT_EQ(TestAccess::waitingFrameCount(*TestAccess::portioner(engine)), 0u);
    }
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
