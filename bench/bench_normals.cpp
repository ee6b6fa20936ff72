// tessaline_bench_normals: how long estimateNormals takes on simulated scans of the built-in part whose
// normals are dropped, with each frame's scanner position (faced) and as one merged cloud (propagated).
// Wall and processor seconds, the best of --repeat runs, how far the normals fall from the scan's own, and a
// digest of the normals' bytes.
#include <omp.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ScanSimulator.h"
#include "tessaline/TessalineMesh.h"

using namespace SurfaceReconstruction;

namespace {

double processorSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec * 1e-6 + usage.ru_stime.tv_sec +
           usage.ru_stime.tv_usec * 1e-6;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<double> millions = {1.0, 3.0};
    int repeat = 3;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--sizes" && i + 1 < argc) {
            millions.clear();
            for (char* at = argv[++i]; *at;) {
                millions.push_back(std::strtod(at, &at));
                if (*at == ',') ++at;
            }
        } else if (argument == "--repeat" && i + 1 < argc) {
            repeat = std::max(1, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr, "usage: tessaline_bench_normals [--sizes 1,3] [--repeat 3]  (millions of points)\n");
            return 2;
        }
    }
    std::printf("threads %d\n", omp_get_max_threads());
    for (const double size : millions) {
        tessaline_tools::ScanSimulation settings;
        settings.target_points = static_cast<std::size_t>(size * 1e6);
        const auto scan = tessaline_tools::simulateScan(settings);
        std::size_t points = 0;
        for (const auto& frame : scan) points += frame->xyz.size();
        for (const bool merged : {false, true}) {
            double best_wall = INFINITY, best_processor = INFINITY;
            NormalEstimate estimate;
            std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
            for (int r = 0; r < repeat; ++r) {
                frames.clear();
                std::vector<FrameNormalSource> sources;
                for (const auto& frame : scan) {
                    auto copy = std::make_shared<FrameDataWithInfo>(*frame);
                    copy->nor.assign(copy->xyz.size(), Vec3f{0.0f, 0.0f, 0.0f});
                    frames.push_back(copy);
                    FrameNormalSource source;
                    source.sensor_known = !merged;
                    for (int k = 0; k < 3; ++k) source.sensor[k] = frame->frame_info.translation[k];
                    sources.push_back(source);
                }
                const double processor = processorSeconds();
                const auto start = std::chrono::steady_clock::now();
                if (estimateNormals(frames, sources, estimate) != 0) {
                    std::fprintf(stderr, "estimateNormals failed\n");
                    return 1;
                }
                best_wall = std::min(best_wall,
                                     std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
                best_processor = std::min(best_processor, processorSeconds() - processor);
            }
            // Against the scan's own normals (about 1 degree of noise): the share facing the other way.
            std::size_t against = 0, compared = 0;
            for (std::size_t f = 0; f < scan.size(); ++f)
                for (std::size_t i = 0; i < scan[f]->nor.size(); ++i) {
                    const Vec3f &a = frames[f]->nor[i], &b = scan[f]->nor[i];
                    if (a[0] == 0.0f && a[1] == 0.0f && a[2] == 0.0f) continue;
                    ++compared;
                    against += a[0] * b[0] + a[1] * b[1] + a[2] * b[2] < 0.0f ? 1 : 0;
                }
            // The normals' bytes (FNV-1a), so that a change meant for speed can show it keeps them.
            std::uint64_t digest = 0xcbf29ce484222325ull;
            for (const auto& frame : frames)
                for (const Vec3f& normal : frame->nor) {
                    unsigned char bytes[sizeof(Vec3f)];
                    std::memcpy(bytes, normal.data(), sizeof(bytes));
                    for (const unsigned char byte : bytes) digest = (digest ^ byte) * 0x100000001b3ull;
                }
            std::printf(
                "%.2f M points, %s: %.3f s wall (%.3f s a million), %.3f processor s; %zu faced, %zu propagated, "
                "%zu left out; %.4f %% of %zu facing against the scan's own normals; normals %016llx\n",
                points / 1e6, merged ? "merged, no scanner" : "frames with their scanner", best_wall,
                best_wall / (points / 1e6), best_processor, estimate.toward_sensor, estimate.propagated,
                estimate.left_out, compared ? 100.0 * against / compared : 0.0, compared,
                static_cast<unsigned long long>(digest));
            std::fflush(stdout);
        }
    }
    return 0;
}
