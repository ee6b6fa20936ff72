// tessaline_bench_session: a live session against batch runs. A simulated scan of the built-in part (or, with
// --case patches, the 200 patches spread over 5 m x 5 m, or with --case bunny the Stanford bunny's scans) is fed to a
// ScanSession in --updates even steps or in steps of --frames-per-update frames; each update is timed, with the blocks
// it re-meshed, and after the last one a batch run over all frames on the session's grid is timed and its mesh
// compared byte for byte with the session's. With --against-batch a batch run over the frames so far is timed after
// the session for every update, and each update set against it (median and 95th percentile).
#include <omp.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchScans.h"
#include "RangeScan.h"
#include "ScanSimulator.h"
#include "tessaline/TessalineSession.h"

using namespace SurfaceReconstruction;

namespace {

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The value below which a share `q` of `values` lies (the nearest rank; values reordered).
double quantile(std::vector<double> values, double q) {
    if (values.empty()) return 0.0;
    const std::size_t at = std::min(values.size() - 1, static_cast<std::size_t>(std::ceil(q * values.size())) - 1);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
    return values[at];
}

double peakMiB() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// One batch run over `frames` on the session's grid: its time, and its soup in `mesh`. False on failure.
bool batchRun(const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames, float resolution,
              const std::array<double, 3>& origin, std::uint32_t block_size, double& seconds, MultiMeshData& mesh) {
    Tessaline engine;
    if (engine.init() != 0) return false;
    engine.setDiagnosticSink([](const std::string&, bool) {});
    engine.setResolution(resolution);
    engine.setRunOrigin(origin);
    engine.setBlockSize(block_size);
    for (const auto& frame : frames) engine.addScanFrame_ALL(frame);
    auto batch = std::make_shared<MultiMeshData>();
    const auto start = std::chrono::steady_clock::now();
    if (engine.process(batch) != 0) {
        std::fprintf(stderr, "batch run failed: %s\n", engine.getLastErrorMsg().c_str());
        return false;
    }
    seconds = secondsSince(start);
    engine.deInit();
    mesh = std::move(*batch);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    double millions = 1.0;
    int updates = 10;
    std::size_t frames_per_update = 0;
    bool against_batch = false;
    std::uint32_t block_size = 0;
    float resolution = 0.5f;
    std::string kind = "part";
    std::string data = TESSALINE_BENCH_DATA_DIR;
    std::string memory;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--points" && i + 1 < argc) {
            millions = std::atof(argv[++i]);
        } else if (argument == "--updates" && i + 1 < argc) {
            updates = std::max(1, std::atoi(argv[++i]));
        } else if (argument == "--frames-per-update" && i + 1 < argc) {
            frames_per_update = static_cast<std::size_t>(std::max(1, std::atoi(argv[++i])));
        } else if (argument == "--against-batch") {
            against_batch = true;
        } else if (argument == "--block" && i + 1 < argc) {
            block_size = static_cast<std::uint32_t>(std::atoi(argv[++i]));
        } else if (argument == "--case" && i + 1 < argc) {
            kind = argv[++i];
            if (kind != "part" && kind != "patches" && kind != "bunny") {
                std::fprintf(stderr, "--case is part, patches or bunny\n");
                return 2;
            }
        } else if (argument == "--data" && i + 1 < argc) {
            data = argv[++i];
        } else if (argument == "--memory" && i + 1 < argc) {
            memory = argv[++i];
        } else if (argument == "--resolution" && i + 1 < argc) {
            resolution = static_cast<float>(std::atof(argv[++i]));
        } else {
            std::fprintf(stderr,
                         "usage: tessaline_bench_session [--case part|patches|bunny] [--points 1.0] [--updates 10 | "
                         "--frames-per-update N] [--against-batch] [--block 0] [--resolution 0.5] [--data DIR]  "
                         "(millions of points of the part; block 0: the default; DIR holds stanford-bunny/)\n");
            return 2;
        }
    }
    std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
    if (kind == "bunny") {
        const std::string conf = data + "/stanford-bunny/scans/bun.conf";
        if (!std::filesystem::exists(conf)) {
            std::fprintf(stderr, "no %s\n", conf.c_str());
            return 2;
        }
        frames = tessaline_tools::readRangeScanSet(conf);
    } else if (kind == "patches") {
        frames = bench::patchesScan();
    } else {
        tessaline_tools::ScanSimulation settings;
        settings.target_points = static_cast<std::size_t>(millions * 1e6);
        frames = tessaline_tools::simulateScan(settings);
    }
    if (frames_per_update > 0) updates = static_cast<int>((frames.size() + frames_per_update - 1) / frames_per_update);
    std::size_t points = 0;
    for (const auto& frame : frames) points += frame->xyz.size();
    std::printf("threads %d, %zu points in %zu frames, resolution %g, %d updates\n", omp_get_max_threads(), points,
                frames.size(), static_cast<double>(resolution), updates);

    if (!memory.empty()) {
        Tessaline engine;
        if (engine.init() != 0) return 1;
        engine.setDiagnosticSink([](const std::string&, bool) {});
        engine.setResolution(resolution);
        engine.setBlockSize(block_size);
        engine.setRunOrigin({0.0, 0.0, 0.0});
        const float edge = static_cast<float>(engine.getBlockSize()) * resolution;
        // The block of the point farthest along (1, 1, 1): its neighbours on the high side hold little, so
        // the run computes about that block alone.
        Vec3f first = frames[0]->xyz[0];
        for (const auto& frame : frames)
            for (const Vec3f& p : frame->xyz)
                if (p[0] + p[1] + p[2] > first[0] + first[1] + first[2]) first = p;
        const BlockKey key{static_cast<std::int32_t>(std::floor(first[0] / edge)),
                           static_cast<std::int32_t>(std::floor(first[1] / edge)),
                           static_cast<std::int32_t>(std::floor(first[2] / edge))};
        if (memory == "part") engine.setOwnedBlocks({key});
        for (const auto& frame : frames) engine.addScanFrame_ALL(frame);
        rusage before;
        getrusage(RUSAGE_SELF, &before);
        std::vector<MeshPart> parts;
        const auto start = std::chrono::steady_clock::now();
        if (engine.processParts(parts) != 0) {
            std::fprintf(stderr, "run failed: %s\n", engine.getLastErrorMsg().c_str());
            return 1;
        }
        const double seconds = secondsSince(start);
        std::size_t triangles = 0;
        for (const MeshPart& p : parts) triangles += p.mesh.xyz.size();
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        std::printf(
            "%s run: %zu parts, %zu triangles, %.3f s, peak resident %.0f MiB (before the run %.0f MiB, "
            "frames %.0f MiB)\n",
            memory.c_str(), parts.size(), triangles, seconds, static_cast<double>(usage.ru_maxrss) / 1024.0,
            static_cast<double>(before.ru_maxrss) / 1024.0, static_cast<double>(points) * 28.0 / 1048576.0);
        return 0;
    }

    ScanSession session(resolution, std::nullopt, block_size);
    std::printf("%8s %8s %10s %8s %10s\n", "update", "frames", "re-meshed", "parts", "seconds");
    double session_seconds = 0.0;
    std::vector<std::size_t> until_of;
    std::vector<double> update_seconds;
    std::size_t next = 0;
    for (int u = 1; u <= updates; ++u) {
        const std::size_t until = frames_per_update > 0
                                      ? std::min(frames.size(), frames_per_update * static_cast<std::size_t>(u))
                                      : frames.size() * static_cast<std::size_t>(u) / static_cast<std::size_t>(updates);
        for (; next < until; ++next) session.add(frames[next]);
        std::vector<BlockKey> keys;
        std::vector<MeshPart> parts;
        const auto start = std::chrono::steady_clock::now();
        if (session.update(keys, parts) != 0) {
            std::fprintf(stderr, "update failed: %s\n", session.lastError().c_str());
            return 1;
        }
        const double seconds = secondsSince(start);
        session_seconds += seconds;
        until_of.push_back(until);
        update_seconds.push_back(seconds);
        std::printf("%8d %8zu %10zu %8zu %10.3f\n", u, until, keys.size(), parts.size(), seconds);
    }
    const double session_peak = peakMiB();

    // Each update against a batch run over the frames so far (the first update is a batch run itself).
    double batch_seconds = 0.0;
    MultiMeshData batch;
    if (against_batch) {
        std::vector<double> shares;
        std::printf("%8s %8s %10s %10s %8s\n", "update", "frames", "seconds", "batch s", "share");
        for (std::size_t u = 1; u < until_of.size(); ++u) {
            const std::vector<std::shared_ptr<FrameDataWithInfo>> so_far(
                frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(until_of[u]));
            if (!batchRun(so_far, resolution, *session.origin(), session.blockSize(), batch_seconds, batch)) return 1;
            shares.push_back(update_seconds[u] / batch_seconds);
            std::printf("%8zu %8zu %10.3f %10.3f %8.2f\n", u + 1, until_of[u], update_seconds[u], batch_seconds,
                        shares.back());
        }
        const std::vector<double> later(update_seconds.begin() + 1, update_seconds.end());
        std::printf(
            "updates 2 to %zu: median %.3f s, 95th percentile %.3f s; against a batch run over the frames so far: "
            "median %.2f, 95th percentile %.2f; the session's peak resident memory %.0f MiB\n",
            update_seconds.size(), quantile(later, 0.5), quantile(later, 0.95), quantile(shares, 0.5),
            quantile(shares, 0.95), session_peak);
    }
    if (!against_batch || until_of.size() < 2)
        if (!batchRun(frames, resolution, *session.origin(), session.blockSize(), batch_seconds, batch)) return 1;
    const MultiMeshData live = session.soup();
    const bool same = live.xyz.size() == batch.xyz.size() &&
                      std::memcmp(live.xyz.data(), batch.xyz.data(), live.xyz.size() * sizeof(TriangleXYZ)) == 0 &&
                      std::memcmp(live.w.data(), batch.w.data(), live.w.size() * sizeof(TriangleW)) == 0;
    std::printf(
        "block size %u; batch run of all frames %.3f s; all updates %.3f s; %zu triangles; the session's "
        "mesh is the batch run's: %s\n",
        session.blockSize(), batch_seconds, session_seconds, batch.xyz.size(), same ? "yes" : "NO");
    return same ? 0 : 1;
}
