// The library in a real application: engines that share frames and run at once, calls made during a
// run from the step callback, from another thread and through a copy of the handle, settings that would
// ask for absurd work, and runs that give no triangles.
#include "ScanSimulator.h"
#include "TestSupport.h"
#include "common/HostMemory.h"
#include "fusion/MarchingCubes.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

namespace {

// Whether the library left everything an application put into the frames as it was.
bool sameContents(const Frames& a, const Frames& b) {
    for (std::size_t f = 0; f < a.size(); ++f) {
        const FrameDataWithInfo &x = *a[f], &y = *b[f];
        if (x.xyz != y.xyz || x.nor != y.nor || x.w != y.w || x.marker_ids != y.marker_ids ||
            x.marker_xyz != y.marker_xyz || x.marker_nor != y.marker_nor ||
            std::memcmp(&x.frame_info, &y.frame_info, sizeof(FrameInfo)) != 0)
            return false;
    }
    return a.size() == b.size();
}

bool inProgress(const std::string& error) { return error.find("a run is in progress") != std::string::npos; }

}  // namespace

TEST(SharedFrames, TwoEnginesOnTwoThreadsReadTheSameFramesAndEachGivesTheMeshOfARunAlone) {
    ASSERT_EQ(smallScanRun().status, 0) << smallScanRun().error;
    ASSERT_GT(smallScanRun().mesh->xyz.size(), 1000u);
    std::size_t with_markers = 0;
    for (const auto& f : smallScan()) with_markers += f->marker_ids.empty() ? 0 : 1;
    ASSERT_GT(with_markers, 0u);  // the frames carry markers: the lists that were once emptied
    const Frames before = changedCopies(smallScan(), [](std::size_t, FrameDataWithInfo&) {});

    Session runs[2];
    quiet([&] { onThreads(2, [&](int t) { runs[t] = runUncaptured(smallScan()); }); });
    for (const Session& run : runs) {
        ASSERT_EQ(run.status, 0) << run.error;
        EXPECT_TRUE(sameMesh(*run.mesh, *smallScanRun().mesh));
    }
    EXPECT_TRUE(sameContents(smallScan(), before));  // markers, laser ids, points: all as the application left them
}

TEST(RunInProgress, EveryChangingCallFromTheCallbackACopyOrAnotherThreadIsRefusedAndTheRunIsUnharmed) {
    const Frames small = sphereScan({30, 30, 30}, 10.0f, 0.4f);
    const Session alone = runOk(small);
    ASSERT_GT(alone.mesh->xyz.size(), 100u);
    MarkerInfos markers;
    markers.ids = {1};
    markers.xyz = {{1, 2, 3}};
    markers.nor = {{0, 0, 1}};
    LaserInfo laser{};
    laser.min_edge = 1.0f;
    const std::vector<std::pair<const char*, std::function<int(Tessaline&)>>> calls = {
        {"init", [](Tessaline& e) { return e.init(); }},
        {"deInit", [](Tessaline& e) { return e.deInit(); }},
        {"setResolution", [](Tessaline& e) { return e.setResolution(5000.0f), inProgress(e.getLastErrorMsg()); }},
        {"setLaserInfo", [&](Tessaline& e) { return e.setLaserInfo(laser); }},
        {"setOptimizedMarkers", [&](Tessaline& e) { return e.setOptimizedMarkers(markers); }},
        {"setProcessStepCallBack", [](Tessaline& e) { return e.setProcessStepCallBack([](ProcessStepInfo&) {}); }},
        {"addScanFrame_ALL", [](Tessaline& e) { return e.addScanFrame_ALL(smallScan()[0]); }},
        {"addScanFrame_async", [](Tessaline& e) { return e.addScanFrame_async(smallScan()[0]); }},
        {"process", [](Tessaline& e) { return e.process(*std::make_shared<MultiMeshData>()); }},
        {"setDiagnosticSink", [](Tessaline& e) { return e.setDiagnosticSink([](const std::string&, bool) {}); }},
    };
    enum Caller { FROM_CALLBACK, THROUGH_A_COPY, FROM_ANOTHER_THREAD };
    for (Caller caller : {FROM_CALLBACK, THROUGH_A_COPY, FROM_ANOTHER_THREAD}) {
        for (const auto& call : calls) {
            SCOPED_TRACE(std::string(call.first) + " caller " + std::to_string(caller));
            Tessaline engine;
            ASSERT_TRUE(initWith(engine, small));
            std::vector<int> results;
            std::vector<std::string> errors;
            int reads = 0;
            std::function<int(ProcessStepInfo&)> callback = [&](ProcessStepInfo& step) {
                // Once in each main step, the first time it is reported.
                if (static_cast<int>(results.size()) >= step.cur_step) return 0;
                const auto attempt = [&](Tessaline& handle) {
                    results.push_back(call.second(handle));
                    errors.push_back(handle.getLastErrorMsg());
                    std::shared_ptr<std::vector<OptedMarker>> opted;
                    reads += handle.getOptimizedMarkerErrors(opted) == 0 ? 1 : 0;  // a read goes through
                };
                if (caller == FROM_CALLBACK) {
                    attempt(engine);
                } else if (caller == THROUGH_A_COPY) {
                    Tessaline copy(engine);
                    attempt(copy);
                } else {
                    std::thread other([&] { attempt(engine); });
                    other.join();
                }
                return 0;
            };
            ASSERT_EQ(engine.setProcessStepCallBack(callback), 0);
            auto mesh = std::make_shared<MultiMeshData>();
            ASSERT_EQ(processQuietly(engine, mesh), 0) << engine.getLastErrorMsg();
            EXPECT_EQ(engine.getLastErrorMsg(), "no error!");  // a run that succeeds clears the last error
            ASSERT_EQ(results.size(), 3u);
            for (std::size_t i = 0; i < results.size(); ++i) {
                EXPECT_EQ(results[i], 1) << "step " << i + 1;
                EXPECT_TRUE(inProgress(errors[i])) << "step " << i + 1 << ": " << errors[i];
            }
            EXPECT_EQ(reads, 3);
            EXPECT_TRUE(sameMesh(*mesh, *alone.mesh));  // nothing of the refused calls reached the run
            // The engine is sound afterwards: the way back to a second run works.
            ASSERT_EQ(engine.deInit(), 0);
            ASSERT_EQ(engine.init(), 0);
        }
    }
}

TEST(RunInProgress, AStopAskedFromAnyThreadEndsTheRunAtItsNextSafePointAndTheEngineStaysUsable) {
    const Frames small = sphereScan({30, 30, 30}, 10.0f, 0.4f);
    // From the callback in each main step, and from another thread while the blocks are fused.
    for (int step = 1; step <= 4; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        Tessaline engine;
        ASSERT_TRUE(initWith(engine, small));
        int last_step = 0;
        std::thread asker;
        std::function<int(ProcessStepInfo&)> callback = [&](ProcessStepInfo& info) {
            last_step = info.cur_step;
            if (step <= 3 && info.cur_step == step) engine.requestStop();
            if (step == 4 && info.cur_step == 2 && !asker.joinable())
                asker = std::thread([&] { engine.requestStop(); });
            return 0;
        };
        ASSERT_EQ(engine.setProcessStepCallBack(callback), 0);
        auto mesh = std::make_shared<MultiMeshData>();
        const auto before = mesh;
        const int status = processQuietly(engine, mesh);
        if (asker.joinable()) asker.join();
        EXPECT_EQ(status, 1);
        EXPECT_EQ(engine.getLastErrorMsg(), "[Tessaline_OPT] process stopped: a stop was requested!");
        EXPECT_EQ(mesh, before);  // no mesh was handed out
        EXPECT_LE(last_step, step == 4 ? 3 : step + 1);
        ASSERT_EQ(engine.deInit(), 0);
        ASSERT_TRUE(initWith(engine, small));
        if (step == 4) {
            EXPECT_EQ(engine.requestStop(), 0);  // outside a run: nothing to stop
        }
        // A stop asked before a run, or during the one before, is not remembered by the next.
        EXPECT_EQ(processQuietly(engine, mesh), 0) << engine.getLastErrorMsg();
        EXPECT_GT(mesh->xyz.size(), 100u);
    }
}

TEST(Diagnostics, TheLinesGoToTheEnginesSinkAndBackToStandardOutputWithoutOne) {
    const Frames small = sphereScan({30, 30, 30}, 10.0f, 0.4f);
    const auto run = [&](Tessaline& engine) {
        auto mesh = std::make_shared<MultiMeshData>();
        ASSERT_TRUE(initWith(engine, small));
        ASSERT_EQ(engine.process(mesh), 0) << engine.getLastErrorMsg();
        ASSERT_EQ(engine.deInit(), 0);
    };
    std::vector<std::string> lines;
    Tessaline engine;
    ASSERT_EQ(engine.setDiagnosticSink([&](const std::string& text, bool report) {
        if (!report) lines.push_back(text);
    }),
              0);
    testing::internal::CaptureStdout();
    run(engine);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // nothing of the library on standard output
    const auto seen = [&](const char* text) {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return contains(l, text); });
    };
    EXPECT_TRUE(seen("filter frame by markers ("));
    EXPECT_TRUE(seen("[MarchingCubes] cells "));
    EXPECT_TRUE(seen(" - elapsed time : "));
    for (const std::string& line : lines) EXPECT_EQ(line.back(), '\n') << line;  // whole lines, as printed
    // An empty sink sends the lines back to standard output.
    ASSERT_EQ(engine.setDiagnosticSink(nullptr), 0);
    testing::internal::CaptureStdout();
    run(engine);
    EXPECT_TRUE(contains(testing::internal::GetCapturedStdout(), "[MarchingCubes] cells "));
}

TEST(AbsurdSettings, HugeCellsEndPromptlyAndSayWhyThereAreNoTriangles) {
    // A sphere of radius 150 at resolution 5000 (cells of half edge 2048 and more) once subdivided
    // without end; now the descent stops at the cell size.
    const Frames sphere = sphereScan({10, 20, 30}, 150.0f, 2.0f);
    for (float resolution : {5000.0f, 20000.0f, 100000.0f}) {
        const Session run = runSession(sphere, resolution);
        ASSERT_EQ(run.status, 0) << resolution << ": " << run.error;
        EXPECT_LT(run.mesh->xyz.size(), 64u) << resolution;  // a few cells larger than the scan at most
        for (const TriangleXYZ& t : run.mesh->xyz)
            EXPECT_TRUE(std::all_of(t.xyz, t.xyz + 9, [](float v) { return std::isfinite(v); })) << resolution;
        if (run.mesh->xyz.empty()) {
            EXPECT_TRUE(contains(run.error, "gave no triangles")) << resolution;
            EXPECT_TRUE(contains(run.output, run.error)) << resolution;  // and in one diagnostic line
        }
    }
    // A floor scanned in strips, its points 5 mm by 6.7 mm apart: flat and even, yet far too sparse for
    // cells of 0.5 mm. The run says so once, in the last error and in one line, naming the rule that
    // rejected the cells.
    Frames floor;
    for (int strip = 0; strip < 10; ++strip) {
        std::vector<Vec3f> rows;
        for (int r = 0; r < 10; ++r)
            for (int c = 0; c < 200; ++c) rows.push_back({c * 5.0f + 0.5f, (strip * 10 + r) * 6.7f + 0.5f, 3.0f});
        floor.push_back(frameOf(rows));
    }
    const Session flat = runOk(floor);
    EXPECT_TRUE(flat.mesh->xyz.empty());
    EXPECT_TRUE(contains(flat.error, "20000 points gave no triangles"));
    EXPECT_TRUE(contains(flat.error, "too sparse for the resolution"));
    EXPECT_TRUE(contains(flat.output, flat.error + "\n"));
}

TEST(AbsurdSettings, AHugeFrameLeavesTheEngineUsableForTheNextInit) {
    // One frame of 2.56 million points: the run sizes its slots for it, and the next init starts from
    // the default frame size again instead of asking for a thousand such frames.
    const int side = 1600;
    std::vector<Vec3f> plane;
    plane.reserve(static_cast<std::size_t>(side) * side);
    for (int i = 0; i < side; ++i)
        for (int j = 0; j < side; ++j) plane.push_back({i * 0.25f + 1.0f, j * 0.25f + 1.0f, 5.0f});
    Tessaline engine;
    auto mesh = std::make_shared<MultiMeshData>();
    ASSERT_TRUE(initWith(engine, {frameOf(std::move(plane))}));
    ASSERT_EQ(processQuietly(engine, mesh), 0) << engine.getLastErrorMsg();
    EXPECT_GT(mesh->xyz.size(), 100000u);
    for (int again = 0; again < 2; ++again) {
        ASSERT_EQ(engine.deInit(), 0);
        ASSERT_TRUE(initWith(engine, smallScan())) << engine.getLastErrorMsg();
        ASSERT_EQ(processQuietly(engine, mesh), 0) << engine.getLastErrorMsg();
        EXPECT_TRUE(sameMesh(*mesh, *smallScanRun().mesh));
    }
}

TEST(MemoryGuard, TheUsableMemoryIsTheLeastOfAvailableAndWhatTheCgroupAllows) {
    const std::uint64_t MiB = 1 << 20;
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;
        std::uint64_t usable_mib;
    };
    const std::vector<Case> cases = {
        {"no cgroup files", {}, 32768},
        {"version 2, own group",
         {{"/proc/self/cgroup", "0::/app\n"},
          {"/sys/fs/cgroup/app/memory.max", "104857600\n"},
          {"/sys/fs/cgroup/app/memory.current", "10485760\n"}},
         90},
        {"version 2, mount root inside a container",
         {{"/proc/self/cgroup", "0::/elsewhere\n"},
          {"/sys/fs/cgroup/memory.max", "209715200\n"},
          {"/sys/fs/cgroup/memory.current", "0\n"}},
         200},
        {"version 2 without a limit", {{"/proc/self/cgroup", "0::/\n"}, {"/sys/fs/cgroup/memory.max", "max\n"}}, 32768},
        {"version 1",
         {{"/proc/self/cgroup", "4:memory:/job\n0::/\n"},
          {"/sys/fs/cgroup/memory/job/memory.limit_in_bytes", "314572800\n"},
          {"/sys/fs/cgroup/memory/job/memory.usage_in_bytes", "104857600\n"}},
         200},
        {"version 1 without a limit",
         {{"/proc/self/cgroup", "4:memory:/\n"},
          {"/sys/fs/cgroup/memory/memory.limit_in_bytes", "9223372036854771712\n"}},
         32768},
        {"use beyond the limit",
         {{"/sys/fs/cgroup/memory.max", "1000\n"}, {"/sys/fs/cgroup/memory.current", "5000\n"}},
         0},
    };
    for (const Case& c : cases) {
        FakeHostMemory fake(std::to_string(&c - cases.data()), 32768, c.files);
        HostMemoryInfo info;
        ASSERT_TRUE(readHostMemory(info)) << c.name;
        EXPECT_EQ(usableHostBytes(info) / MiB, c.usable_mib) << c.name;
        EXPECT_LE(info.available_bytes, usableHostBytes(info) + info.swap_free_bytes) << c.name;
    }
}

TEST(MemoryGuard, TooLittleMemoryFailsWithATextNamingItAndTheNextGoodRunClearsIt) {
    const Frames small = sphereScan({30, 30, 30}, 10.0f, 0.4f);
    Session starved, fed;
    {
        // Plenty reported by the kernel, but the cgroup allows 100 MiB: less than the guard's reserve.
        FakeHostMemory fake("starved", 32768,
                            {{"/sys/fs/cgroup/memory.max", "104857600\n"}, {"/sys/fs/cgroup/memory.current", "0\n"}});
        starved = runSession(small);
    }
    EXPECT_EQ(starved.status, 66049);
    EXPECT_TRUE(contains(starved.error, "memory guard: the process may use 100 MiB more"));
    EXPECT_TRUE(contains(starved.output, starved.error));
    {
        // 1 GiB is enough for this scan; the fixed 2.5 GiB of old would have refused it.
        FakeHostMemory fake("fed", 1024, {});
        fed = runSession(small, 0.5f, [](Tessaline& engine) {
            engine.setResolution(-1.0f);  // a failure before the run: its text must not outlive a good run
        });
    }
    ASSERT_EQ(fed.status, 0) << fed.error;
    EXPECT_GT(fed.mesh->xyz.size(), 100u);
    EXPECT_EQ(fed.error, "no error!");
}

TEST(Geometry, APlaneThroughTheOriginIsClosedThere) {
    // Points a hair from the origin count (only (0, 0, 0) itself is a null point): a dense plane through
    // the origin at a fine resolution has triangles over the origin, as it has over any other spot.
    std::vector<Vec3f> plane;
    for (int i = -100; i <= 100; ++i)
        for (int j = -100; j <= 100; ++j) plane.push_back({i * 0.01f + 0.003f, j * 0.01f + 0.003f, 0.0f});
    const auto covers = [](const MultiMeshData& mesh, float x, float y) {
        for (const TriangleXYZ& t : mesh.xyz) {
            const float* v = t.xyz;
            const auto side = [&](int a, int b) {
                return (v[3 * b] - v[3 * a]) * (y - v[3 * a + 1]) - (v[3 * b + 1] - v[3 * a + 1]) * (x - v[3 * a]);
            };
            const float s0 = side(0, 1), s1 = side(1, 2), s2 = side(2, 0);
            if ((s0 >= 0 && s1 >= 0 && s2 >= 0) || (s0 <= 0 && s1 <= 0 && s2 <= 0)) return true;
        }
        return false;
    };
    const Session run = runOk({frameOf(plane)}, 0.02f);
    ASSERT_GT(run.mesh->xyz.size(), 100u);
    for (const auto& spot : std::vector<std::array<float, 2>>{{0.0f, 0.0f}, {0.05f, -0.05f}, {0.5f, 0.5f}})
        EXPECT_TRUE(covers(*run.mesh, spot[0], spot[1])) << spot[0] << ", " << spot[1];
}

TEST(Geometry, AScanFarFromTheOriginGivesTheMeshOfTheSameScanNearItMovedThere) {
    // Positions on a grid of half units are exact in float both near the origin and 6 million units away,
    // so the far frames hold exactly the near points moved by the offset.
    const double offset[3] = {92.0 * 65536.0, -92.0 * 65536.0, 91.0 * 65536.0};
    const Frames near = changedCopies(sphereScan({0, 0, 0}, 150.0f, 2.0f), [](std::size_t, FrameDataWithInfo& f) {
        for (Vec3f& p : f.xyz)
            for (float& c : p) c = std::round(c * 2.0f) * 0.5f;
    });
    const Frames far = changedCopies(near, [&](std::size_t, FrameDataWithInfo& f) {
        for (Vec3f& p : f.xyz)
            for (int k = 0; k < 3; ++k) {
                const float moved = static_cast<float>(p[k] + offset[k]);
                ASSERT_EQ(static_cast<double>(moved) - offset[k], static_cast<double>(p[k]));
                p[k] = moved;
            }
    });
    const Session at_origin = runOk(near, 2.0f), away = runOk(far, 2.0f);
    ASSERT_GT(at_origin.mesh->xyz.size(), 10000u);
    ASSERT_EQ(away.mesh->xyz.size(), at_origin.mesh->xyz.size());
    std::size_t moved = 0;
    for (std::size_t t = 0; t < away.mesh->xyz.size(); ++t) {
        for (int v = 0; v < 9; ++v) {
            const float expected =
                static_cast<float>(static_cast<double>(at_origin.mesh->xyz[t].xyz[v]) + offset[v % 3]);
            moved += away.mesh->xyz[t].xyz[v] == expected ? 1 : 0;
        }
        EXPECT_EQ(std::memcmp(&away.mesh->w[t], &at_origin.mesh->w[t], sizeof(TriangleW)), 0) << t;
    }
    EXPECT_EQ(moved, 9 * away.mesh->xyz.size());
}

TEST(Geometry, FlagBitsAboveTheFlagByteReachTheTrianglesOfTheirCells) {
    // The same sphere twice: the second time the points of one half carry flags in bits 16-31. The
    // surface must not change, and those bits must reach the words of the triangles there, OR-ed onto
    // the quality word, and nowhere else.
    const float radius = 10.0f, resolution = 0.5f;
    const std::uint32_t high = 0x80A50000u;
    const Frames plain = sphereScan({30, 30, 30}, radius, 0.4f);
    const Frames flagged = changedCopies(plain, [&](std::size_t, FrameDataWithInfo& f) {
        for (std::size_t i = 0; i < f.xyz.size(); ++i)
            if (f.xyz[i][0] < 30.0f) f.w[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(f.w[i]) | high);
    });
    const Session a = runOk(plain, resolution), b = runOk(flagged, resolution);
    ASSERT_GT(a.mesh->xyz.size(), 1000u);
    ASSERT_EQ(b.mesh->xyz.size(), a.mesh->xyz.size());
    ASSERT_EQ(std::memcmp(b.mesh->xyz.data(), a.mesh->xyz.data(), a.mesh->xyz.size() * sizeof(TriangleXYZ)), 0);
    const float margin = 4.0f * resolution;  // beyond the reach of a dual cube's cells
    std::size_t inside = 0, outside = 0;
    for (std::size_t t = 0; t < a.mesh->xyz.size(); ++t) {
        const float* x = a.mesh->xyz[t].xyz;
        const auto [low, highest] = std::minmax({x[0], x[3], x[6]});
        for (int v = 0; v < 3; ++v) {
            const std::uint32_t wa = a.mesh->w[t].w[v], wb = b.mesh->w[t].w[v];
            ASSERT_EQ(wb & ~high, wa & ~high) << t;           // scale, flag byte and quality as before
            EXPECT_TRUE(wb == wa || wb == (wa | high)) << t;  // all of the flags or none
            if (highest < 30.0f - margin) {
                EXPECT_EQ(wb, wa | high) << t;
                inside += (wa & high) != high ? 1 : 0;  // where the quality word alone does not set them
            } else if (low > 30.0f + margin) {
                EXPECT_EQ(wb, wa) << t;
                ++outside;
            }
        }
    }
    EXPECT_GT(inside, 1000u);
    EXPECT_GT(outside, 1000u);
}

TEST(MemoryGuard, ABlockBeyondWhatTheProcessMayUseIsLeftOutAndTheRunSaysSo) {
    // A sphere, and far from it a dense plane that fills one block: with the cgroup allowing a little
    // more than the reserve, the plane's block cannot have its cells; the sphere's block can.
    const Frames sphere = sphereScan({300, 300, 300}, 10.0f, 0.4f);
    std::vector<Vec3f> plane;
    for (int i = 0; i < 400; ++i)
        for (int j = 0; j < 400; ++j) plane.push_back({20.0f + i * 0.25f, 20.0f + j * 0.25f, 64.0f});
    Frames both = sphere;
    both.push_back(frameOf(plane));
    const std::uint64_t plane_points = plane.size();
    const std::uint64_t plane_wants = blockWorkingSetBytes(plane_points, plane_points / 4) >> 20;
    const std::uint64_t sphere_points = [&] {
        std::uint64_t n = 0;
        for (const auto& f : sphere) n += f->xyz.size();
        return n;
    }();
    const std::uint64_t limit_mib = (BLOCK_MEMORY_RESERVE_BYTES >> 20) + plane_wants / 2;
    ASSERT_LT(blockWorkingSetBytes(sphere_points, sphere_points) >> 20, plane_wants / 2);

    const Session alone = runOk(sphere);
    ASSERT_GT(alone.mesh->xyz.size(), 1000u);
    Session starved;
    {
        FakeHostMemory fake("left_out", 32768,
                            {{"/sys/fs/cgroup/memory.max", std::to_string(limit_mib << 20) + "\n"},
                             {"/sys/fs/cgroup/memory.current", "0\n"}});
        starved = runSession(both);
    }
    EXPECT_EQ(starved.status, 66049) << starved.error;
    EXPECT_TRUE(contains(starved.error, "left out part of the scan: 1 of"));
    EXPECT_TRUE(contains(starved.error, "with " + std::to_string(plane_points) + " points"));
    EXPECT_TRUE(contains(starved.error, "may use " + std::to_string(limit_mib) + " MiB"));
    EXPECT_TRUE(contains(starved.output, "[Tessaline_OPT] process left out block"));
    // The rest of the scan is there: the sphere's triangles, as in a run of the sphere alone.
    EXPECT_EQ(starved.mesh->xyz.size(), alone.mesh->xyz.size());
    for (const TriangleXYZ& t : starved.mesh->xyz) EXPECT_GT(t.xyz[0], 250.0f);

    // With room for it the plane's block is there too, and the run is whole.
    const Session fed = runOk(both);
    EXPECT_GT(fed.mesh->xyz.size(), alone.mesh->xyz.size() + 10000);
}
