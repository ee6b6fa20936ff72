// Times the point spacing on real or simulated scans: measurePointSpacing (exact), estimatePointSpacing
// (a thinned sample) and chooseScaleCodes (every point's code from the density around it, the words put
// back before each run), each run several times on the frames in memory, reading not counted. Prints every
// figure also as a hexadecimal float, so that two builds can be compared bit for bit.
#include <dirent.h>
#include <omp.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include "PointCloudIO.h"
#include "RangeScan.h"
#include "tessaline/TessalineMesh.h"

namespace {

using Frames = std::vector<std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo>>;

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The frames of a .conf scan list, a folder of PLY files (in name order) or one PLY file.
Frames readInput(const std::string& input, float to_mm) {
    Frames frames;
    if (endsWith(input, ".conf")) {
        tessaline_tools::RangeScanOptions options;
        options.scale = to_mm;
        return tessaline_tools::readRangeScanSet(input, options);
    }
    std::vector<std::string> files;
    struct stat info {};
    if (stat(input.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        DIR* dir = opendir(input.c_str());
        if (dir == nullptr) throw std::runtime_error(input + ": cannot read the directory");
        while (dirent* entry = readdir(dir))
            if (endsWith(entry->d_name, ".ply")) files.push_back(input + "/" + entry->d_name);
        closedir(dir);
        std::sort(files.begin(), files.end());
    } else {
        files.push_back(input);
    }
    frames.resize(files.size());
#pragma omp parallel for schedule(dynamic)
    for (std::size_t i = 0; i < files.size(); ++i) {
        tessaline_tools::PointCloudReadInfo read;
        frames[i] = tessaline_tools::readPlyPointCloud(files[i], to_mm, 8, read);
    }
    return frames;
}

// Processor time of the whole process, all threads: less disturbed than the wall clock by other work on
// the machine.
double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

void print(const char* name, const SurfaceReconstruction::PointSpacing& s, std::vector<double> seconds,
           std::vector<double> cpu_seconds) {
    std::sort(seconds.begin(), seconds.end());
    std::sort(cpu_seconds.begin(), cpu_seconds.end());
    std::printf("%-9s median %.9g (%a) density %.9g (%a) scale_code %d points %zu measured %zu\n", name, s.median,
                s.median, s.density, s.density, s.scale_code, s.points, s.measured);
    std::printf("%-9s seconds: min %.4f median %.4f max %.4f (%zu runs)\n", name, seconds.front(),
                seconds[seconds.size() / 2], seconds.back(), seconds.size());
    std::printf("%-9s processor seconds (all threads): min %.4f median %.4f\n", name, cpu_seconds.front(),
                cpu_seconds[cpu_seconds.size() / 2]);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s INPUT [--units mm|m] [--runs N] [--threads N] [--no-estimate]\n", argv[0]);
        return 2;
    }
    float to_mm = 1.0f;
    int runs = 5;
    bool estimate = true;
    for (int i = 2; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--units") && i + 1 < argc)
            to_mm = !std::strcmp(argv[++i], "m") ? 1000.0f : 1.0f;
        else if (!std::strcmp(argv[i], "--runs") && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--threads") && i + 1 < argc)
            omp_set_num_threads(std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--no-estimate"))
            estimate = false;
    }
    try {
        const Frames frames = readInput(argv[1], to_mm);
        std::printf("%s: %zu frames, %d threads\n", argv[1], frames.size(), omp_get_max_threads());
        using Clock = std::chrono::steady_clock;
        const auto timed = [&](auto&& call, const char* name) {
            SurfaceReconstruction::PointSpacing spacing;
            std::vector<double> seconds, cpu_seconds;
            for (int r = 0; r < runs; ++r) {
                const auto start = Clock::now();
                const double cpu_start = cpuSeconds();
                if (call(spacing) != 0) throw std::runtime_error(std::string(name) + " failed");
                seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
                cpu_seconds.push_back(cpuSeconds() - cpu_start);
            }
            print(name, spacing, seconds, cpu_seconds);
        };
        timed([&](auto& s) { return SurfaceReconstruction::measurePointSpacing(frames, s); }, "exact");
        if (estimate)
            timed([&](auto& s) { return SurfaceReconstruction::estimatePointSpacing(frames, s); }, "estimate");
        // The codes: the words as read before each run, so that each starts from the scan's own wishes.
        std::vector<std::vector<std::int32_t>> words;
        for (const auto& frame : frames) words.push_back(frame->w);
        SurfaceReconstruction::ScaleCodeChoice choice;
        std::vector<double> seconds, cpu_seconds;
        for (int r = 0; r < runs; ++r) {
            for (std::size_t f = 0; f < frames.size(); ++f) frames[f]->w = words[f];
            const auto start = Clock::now();
            const double cpu_start = cpuSeconds();
            if (SurfaceReconstruction::chooseScaleCodes(frames, choice) != 0)
                throw std::runtime_error("chooseScaleCodes failed");
            seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
            cpu_seconds.push_back(cpuSeconds() - cpu_start);
        }
        print("codes", choice.spacing, seconds, cpu_seconds);
        std::printf("codes     resolution %.9g (%a), neighbourhoods %zu, points by code (64 ... 1):", choice.resolution,
                    choice.resolution, choice.neighbourhoods);
        for (const std::size_t n : choice.points) std::printf(" %zu", n);
        std::printf("\n");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
