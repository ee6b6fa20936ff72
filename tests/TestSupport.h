// What the test files share: points and frames built in code, whole sessions through the public
// handle, captured output, thread counts, and where the real scans and the program are.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "RangeScan.h"
#include "ScanSimulator.h"
#include "common/HostMemory.h"
#include "portion/Portioner.h"
#include "tessaline/Tessaline.h"

// Whether AddressSanitizer or ThreadSanitizer is built in: they reserve terabytes of address space.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TESSALINE_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TESSALINE_TEST_SANITIZED 1
#endif
#endif
#ifndef TESSALINE_TEST_SANITIZED
#define TESSALINE_TEST_SANITIZED 0
#endif

namespace SurfaceReconstruction {
namespace testing_support {

using Frames = std::vector<std::shared_ptr<FrameDataWithInfo>>;

// What `f` printed on standard output, kept off the test's own.
template <class F>
std::string quiet(F&& f) {
    ::testing::internal::CaptureStdout();
    f();
    return ::testing::internal::GetCapturedStdout();
}

template <class F>
std::string quietErr(F&& f) {
    ::testing::internal::CaptureStderr();
    f();
    return ::testing::internal::GetCapturedStderr();
}

// What `f` returns when it runs with `threads` OpenMP threads; the former count is restored.
template <class F>
auto withThreads(int threads, F&& f) {
    const int before = omp_get_max_threads();
    omp_set_num_threads(threads);
    if constexpr (std::is_void_v<decltype(f())>) {
        f();
        omp_set_num_threads(before);
    } else {
        auto result = f();
        omp_set_num_threads(before);
        return result;
    }
}

inline int manyThreads() { return std::max(2, omp_get_max_threads()); }

// Runs f(0) to f(n - 1) on n threads at once.
template <class F>
void onThreads(int n, F f) {
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t) threads.emplace_back(f, t);
    for (auto& thread : threads) thread.join();
}

// A scan point as the stages receive it: position, normal and word, the rest zero.
inline RawPointWithHash scanPoint(float x, float y, float z, float nx, float ny, float nz, std::int32_t w = 8) {
    RawPointWithHash p{};
    p.x = x, p.y = y, p.z = z, p.nx = nx, p.ny = ny, p.nz = nz, p.w = w;
    return p;
}

inline void addPoint(FrameDataWithInfo& frame, const Vec3f& p, const Vec3f& n = {0, 0, 1}, std::int32_t w = 8) {
    frame.xyz.push_back(p);
    frame.nor.push_back(n);
    frame.w.push_back(w);
}

// A frame of these points; normals +z and words 8 where none are given.
inline std::shared_ptr<FrameDataWithInfo> frameOf(std::vector<Vec3f> xyz, std::vector<Vec3f> nor = {},
                                                  std::vector<std::int32_t> w = {}) {
    auto f = std::make_shared<FrameDataWithInfo>();
    if (nor.empty()) nor.assign(xyz.size(), Vec3f{0, 0, 1});
    if (w.empty()) w.assign(xyz.size(), 8);
    f->xyz = std::move(xyz), f->nor = std::move(nor), f->w = std::move(w);
    return f;
}

// A Fibonacci lattice on a sphere: nearly even spacing, outward normals; point i goes to frame i % frames.
inline Frames sphereScan(const Vec3f& centre, float radius, float spacing, int frames = 6) {
    Frames result;
    for (int f = 0; f < frames; ++f) result.push_back(std::make_shared<FrameDataWithInfo>());
    const int n = static_cast<int>(4.0f * 3.14159265f * radius * radius / (spacing * spacing));
    const double golden = 3.14159265358979 * (3.0 - std::sqrt(5.0));
    for (int i = 0; i < n; ++i) {
        const double z = 1.0 - 2.0 * (i + 0.5) / n, r = std::sqrt(1.0 - z * z), a = golden * i;
        const Vec3f nor = {static_cast<float>(r * std::cos(a)), static_cast<float>(r * std::sin(a)),
                           static_cast<float>(z)};
        addPoint(*result[static_cast<std::size_t>(i % frames)],
                 {centre[0] + radius * nor[0], centre[1] + radius * nor[1], centre[2] + radius * nor[2]}, nor);
    }
    return result;
}

// Direction i of n spread evenly over the unit sphere (a Fibonacci lattice): n points on a sphere of
// radius r lie close to sqrt(4 pi r^2 / n) apart.
inline Vec3f fibonacciDirection(int i, int n) {
    const double phi = std::acos(1.0 - 2.0 * (i + 0.5) / n), theta = M_PI * (1.0 + std::sqrt(5.0)) * (i + 0.5);
    return {float(std::cos(theta) * std::sin(phi)), float(std::sin(theta) * std::sin(phi)), float(std::cos(phi))};
}

// A simulated scan of the built-in part: at least `points` points, `rays` samples along a laser line.
inline Frames simulatedScan(std::size_t points, int rays, std::vector<std::size_t> misregistered = {}) {
    tessaline_tools::ScanSimulation settings;
    settings.target_points = points;
    settings.rays_per_line = rays;
    settings.misregistered = std::move(misregistered);
    return tessaline_tools::simulateScan(settings);
}

// Copies of the frames, each of which `change` may alter.
inline Frames changedCopies(const Frames& frames, const std::function<void(std::size_t, FrameDataWithInfo&)>& change) {
    Frames copies;
    for (std::size_t f = 0; f < frames.size(); ++f) {
        copies.push_back(std::make_shared<FrameDataWithInfo>(*frames[f]));
        change(f, *copies.back());
    }
    return copies;
}

inline std::array<float, 3> triangleNormal(const TriangleXYZ& t) {
    const float u[3] = {t.xyz[3] - t.xyz[0], t.xyz[4] - t.xyz[1], t.xyz[5] - t.xyz[2]};
    const float v[3] = {t.xyz[6] - t.xyz[0], t.xyz[7] - t.xyz[1], t.xyz[8] - t.xyz[2]};
    return {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
}

inline bool sameMesh(const MultiMeshData& a, const MultiMeshData& b) {
    return a.xyz.size() == b.xyz.size() && a.w.size() == b.w.size() &&
           std::memcmp(a.xyz.data(), b.xyz.data(), a.xyz.size() * sizeof(TriangleXYZ)) == 0 &&
           std::memcmp(a.w.data(), b.w.data(), a.w.size() * sizeof(TriangleW)) == 0;
}

// A CUDA device computes as the host does (kernels built without contracted multiply-adds, the field's
// exponential, sine, cosine and arc tangent written out): its meshes and cells are the host's, byte for
// byte. Where kernels are built with fused multiply-adds (the fused build, as a device computes when it
// contracts), the device path and the host fallback agree to a tolerance only: the same triangles with the
// same words, vertex coordinates within MESH_DEVICE_TOLERANCE, and cells with the same sheets, rules and
// words, field values and normals within FIELD_DEVICE_TOLERANCE (scan units; the differences are a few
// units in the last place). Block partition, bins and cells do not depend on it and stay byte for byte.
#if defined(TESSALINE_FUSED_KERNELS)
constexpr bool KERNELS_MAY_DIFFER_FROM_HOST = true;
#else
constexpr bool KERNELS_MAY_DIFFER_FROM_HOST = false;
#endif
constexpr float MESH_DEVICE_TOLERANCE = 1e-4f;
constexpr float FIELD_DEVICE_TOLERANCE = 1e-5f;

// The largest difference of matching vertex coordinates of two meshes whose triangle counts and words
// agree; infinity where they do not.
inline float meshDeviation(const MultiMeshData& a, const MultiMeshData& b) {
    if (a.xyz.size() != b.xyz.size() || a.w.size() != b.w.size() ||
        std::memcmp(a.w.data(), b.w.data(), a.w.size() * sizeof(TriangleW)) != 0)
        return std::numeric_limits<float>::infinity();
    float largest = 0.0f;
    for (std::size_t t = 0; t < a.xyz.size(); ++t)
        for (int k = 0; k < 9; ++k) largest = std::max(largest, std::fabs(a.xyz[t].xyz[k] - b.xyz[t].xyz[k]));
    return largest;
}

// The meshes of the device path and the host fallback: identical, or within the tolerance where kernels
// may differ from the host.
inline ::testing::AssertionResult deviceAndHostMeshesAgree(const MultiMeshData& device, const MultiMeshData& host) {
    if (sameMesh(device, host)) return ::testing::AssertionSuccess();
    const float deviation = meshDeviation(device, host);
    std::printf("device path and host fallback: meshes differ by %g\n", static_cast<double>(deviation));
    if (KERNELS_MAY_DIFFER_FROM_HOST && deviation <= MESH_DEVICE_TOLERANCE) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "meshes differ by " << deviation << " (" << device.xyz.size() << " and "
                                         << host.xyz.size() << " triangles)";
}

// Whether `text` holds `part`; on failure the whole text is shown.
inline ::testing::AssertionResult contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << part << "\" not in: " << text;
}

// One whole session through the public handle; `before` runs after init and the resolution.
struct Session {
    int status = -1;
    int refused = 0;     // frames that addScanFrame_ALL refused
    std::string output;  // the library's diagnostic lines
    std::string error;
    std::shared_ptr<MultiMeshData> mesh = std::make_shared<MultiMeshData>();
};

// Inits `engine` and hands it the frames; whether every call succeeded.
inline bool initWith(Tessaline& engine, const Frames& frames) {
    bool ok = engine.init() == 0;
    for (const auto& f : frames) ok = engine.addScanFrame_ALL(f) == 0 && ok;
    return ok;
}

// The status of the engine's run, its lines kept off the test's output.
inline int processQuietly(Tessaline& engine, std::shared_ptr<MultiMeshData>& mesh) {
    int status = -1;
    quiet([&] { status = engine.process(mesh); });
    return status;
}

// The session with the library's lines left on standard output, for runs on several threads at once.
inline Session runUncaptured(const Frames& frames, float resolution = 0.5f,
                             const std::function<void(Tessaline&)>& before = nullptr) {
    Session run;
    Tessaline engine;
    if (engine.init() != 0) return run;
    engine.setResolution(resolution);
    if (before) before(engine);
    for (const auto& f : frames) run.refused += engine.addScanFrame_ALL(f) != 0 ? 1 : 0;
    run.status = engine.process(run.mesh);
    run.error = engine.getLastErrorMsg();
    engine.deInit();
    return run;
}

inline Session runSession(const Frames& frames, float resolution = 0.5f,
                          const std::function<void(Tessaline&)>& before = nullptr) {
    Session run;
    const std::string output = quiet([&] { run = runUncaptured(frames, resolution, before); });
    run.output = output;
    return run;
}

// A simulated scan of about 40,000 points, made once for the whole test program and only read: its frames
// carry markers and, in every third frame, a laser id outside 0 to 7 (read as 0).
inline const Frames& smallScan() {
    static const Frames frames = changedCopies(simulatedScan(40000, 300), [](std::size_t f, FrameDataWithInfo& frame) {
        if (f % 3 == 0) frame.frame_info.laser_id = f % 2 ? 99 : -5;
    });
    return frames;
}

// The session of that scan at the default resolution: what other runs of it must give.
inline const Session& smallScanRun() {
    static const Session run = runSession(smallScan());
    return run;
}

// A session that must succeed; where it does not, the test fails with its error.
inline Session runOk(const Frames& frames, float resolution = 0.5f,
                     const std::function<void(Tessaline&)>& before = nullptr) {
    Session run = runSession(frames, resolution, before);
    EXPECT_EQ(run.status, 0) << run.error;
    return run;
}

// The mesh of a session that must succeed.
inline std::shared_ptr<MultiMeshData> meshOf(const Frames& frames, float resolution = 0.5f) {
    const Session run = runSession(frames, resolution);
    EXPECT_EQ(run.refused, 0);
    EXPECT_EQ(run.status, 0) << run.error;
    return run.mesh;
}

// A Portioner over its own parameter records, set up the way the engine does it.
inline std::shared_ptr<DeviceParameters> configurePortioner(Portioner& portioner, std::uint32_t max_frame_points,
                                                            std::uint32_t block_size, float resolution) {
    auto params = std::make_shared<DeviceParameters>();
    std::memset(params.get(), 0, sizeof(DeviceParameters));
    params->MAX_FRAME_POINTS = max_frame_points;
    portioner.setDeviceParams(params);
    portioner.setPortionerParams(
        std::make_shared<PortionerParameters>(PortionerParameters{block_size, 12, block_size + 24}));
    portioner.setResolution(resolution);
    return params;
}

inline std::string tempPath(const std::string& name) { return ::testing::TempDir() + "tessaline_" + name; }

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Writes `bytes` to the temporary file `name`; its path.
inline std::string writeFile(const std::string& name, const std::string& bytes) {
    const std::string path = tempPath(name);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

// The text of the error that `f` throws, empty when none.
template <class F>
std::string errorOf(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return std::string();
}

// The real bunny scans beside the repository, in millimetres; tests that need them skip without them.
// TESSALINE_TEST_DATA names another folder holding stanford-bunny/ (a test program carried to another
// machine, as scripts/gpu.sh --prebuilt does).
inline std::string bunnyPath(const std::string& file) {
    const char* moved = std::getenv("TESSALINE_TEST_DATA");
    return std::string(moved && *moved ? moved : TESSALINE_TEST_DATA_DIR) + "/stanford-bunny/" + file;
}
inline std::string bunnyConfPath() { return bunnyPath("scans/bun.conf"); }

// Every scan of the set, read once for the whole test program; each call hands out fresh copies.
inline Frames bunnyFrames() {
    static const Frames frames = tessaline_tools::readRangeScanSet(bunnyConfPath());
    Frames copies;
    for (const auto& f : frames) copies.push_back(std::make_shared<FrameDataWithInfo>(*f));
    return copies;
}

#define TESSALINE_REQUIRE_BUNNY()                                                         \
    if (!std::ifstream(::SurfaceReconstruction::testing_support::bunnyConfPath()).good()) \
    GTEST_SKIP() << "no scans at " << ::SurfaceReconstruction::testing_support::bunnyConfPath()

// The command-line program, in builds that make it; the tests of the program skip without it.
// TESSALINE_TEST_PROGRAM names it where the build's own path does not hold it.
#if defined(TESSALINE_CLI_PATH)
inline std::string programPath() {
    const char* moved = std::getenv("TESSALINE_TEST_PROGRAM");
    return moved && *moved ? moved : TESSALINE_CLI_PATH;
}
#define TESSALINE_REQUIRE_PROGRAM() static_cast<void>(0)
#else
inline std::string programPath() { return std::string(); }
#define TESSALINE_REQUIRE_PROGRAM() GTEST_SKIP() << "the tessaline program is not built (TESSALINE_BUILD_TOOLS=OFF)"
#endif

// A run of the program: its exit status and what it wrote on standard output and error.
struct ProgramRun {
    int status;
    std::string out, err;
};

inline ProgramRun runProgram(const std::string& arguments) {
    const std::string base = tempPath("program_" + std::to_string(getpid()));  // one per test process
    // Under a time limit: an input that makes the program hang fails the test instead of stalling it.
    const int status = std::system(
        ("timeout 300 " + programPath() + " " + arguments + " >" + base + ".out 2>" + base + ".err").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(base + ".out"), readFile(base + ".err")};
}

// A run of the program that must succeed; where it does not, the test fails with what it said.
inline ProgramRun runProgramOk(const std::string& arguments) {
    ProgramRun run = runProgram(arguments);
    EXPECT_EQ(run.status, 0) << arguments << ": " << run.err;
    return run;
}

// /proc/meminfo with `available_mib` and the cgroup files given (path below the root, content) in a root
// of the test's own, which the library reads for as long as this lives.
struct FakeHostMemory {
    std::string root;
    FakeHostMemory(const std::string& name, std::uint64_t available_mib,
                   const std::vector<std::pair<std::string, std::string>>& files) {
        root = tempPath("host_" + name);
        std::filesystem::remove_all(root);
        const auto write = [&](const std::string& path, const std::string& text) {
            std::filesystem::create_directories(std::filesystem::path(root + path).parent_path());
            std::ofstream(root + path) << text;
        };
        write("/proc/meminfo", "MemTotal:       67108864 kB\nMemFree:        1000 kB\nMemAvailable:   " +
                                   std::to_string(available_mib * 1024) + " kB\nSwapFree:       0 kB\n");
        for (const auto& f : files) write(f.first, f.second);
        setHostMemoryRoot(root);
    }
    ~FakeHostMemory() {
        setHostMemoryRoot("");
        std::filesystem::remove_all(root);
    }
};

}  // namespace testing_support
}  // namespace SurfaceReconstruction
