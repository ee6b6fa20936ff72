// Whole-pipeline benchmark: simulated scans of the built-in part at several sizes and, when present,
// the Stanford bunny scans; for each, time (whole run and per stage), points a second, peak resident
// memory, block, cell and triangle counts, and the accuracy against the true surface. Writes one JSON
// file and prints a table.
#include <malloc.h>
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "RangeScan.h"
#include "Reconstruction.h"
#include "ScanSimulator.h"
#include "SurfaceCompare.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Case {
    std::string name;
    std::size_t frames = 0, points = 0;
    double input_seconds = 0;  // simulating or reading
    tessaline_tools::RunReport run;
    std::size_t triangles = 0, cells = 0, bins = 0;
    double peak_mib = 0;
    std::map<std::string, double> step_ms;  // the library's own timers, summed over blocks
    tessaline_tools::Comparison accuracy;
};

// Peak resident memory since the last reset, MiB (VmHWM; the kernel resets it through clear_refs).
double residentPeakMiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::strtod(line.c_str() + 6, nullptr) / 1024.0;
    return tessaline_tools::peakMemoryMiB();
}

bool resetResidentPeak() {
    malloc_trim(0);  // what earlier cases freed leaves the resident set first
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    return static_cast<bool>(clear.flush());
}

// The library's diagnostic lines: " NAME - elapsed time : X ms" and the per-block sizes.
void readDiagnostics(const std::string& path, Case& c) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t at = line.find(" - elapsed time : ");
        if (at != std::string::npos) {
            std::string name = line.substr(0, at);
            name.erase(0, name.find_first_not_of(' '));
            c.step_ms[name] += std::strtod(line.c_str() + at + 18, nullptr);
            continue;
        }
        long value = 0;
        if (std::sscanf(line.c_str(), "cell_node_size: %ld", &value) == 1) c.cells += static_cast<std::size_t>(value);
        if (std::sscanf(line.c_str(), "mc-bin_header_size: %ld", &value) == 1)
            c.bins += static_cast<std::size_t>(value);
    }
}

Case runCase(const std::string& name, tessaline_tools::Frames frames, double input_seconds,
             const tessaline_tools::Surface& reference, const std::string& scratch, bool memory_reset) {
    Case c;
    c.name = name;
    c.frames = frames.size();
    for (const auto& f : frames) c.points += f->xyz.size();
    c.input_seconds = input_seconds;
    if (memory_reset) resetResidentPeak();
    tessaline_tools::RunOptions options;
    options.resolution = 0.5f;
    options.progress = false;
    options.diagnostics_path = scratch;
    c.run = tessaline_tools::runReconstruction(frames, options);
    c.peak_mib = residentPeakMiB();
    frames.clear();
    readDiagnostics(scratch, c);
    c.triangles = c.run.mesh->xyz.size();
    const auto mesh = tessaline_tools::meshSurface(*c.run.mesh, 300000);
    c.accuracy = tessaline_tools::compareSurfaces(*mesh, reference, {0.1, 0.5}, 1.0);
    c.run.mesh.reset();
    return c;
}

std::string json(const std::vector<Case>& cases, const std::string& machine, int threads, bool memory_reset) {
    std::ostringstream out;
    out << "{\n  \"machine\": \"" << machine << "\",\n  \"threads\": " << threads << ",\n  \"resolution_mm\": 0.5,\n"
        << "  \"peak_memory\": \"" << (memory_reset ? "per case (VmHWM reset before each)" : "process peak so far")
        << "\",\n"
        << "  \"cases\": [\n";
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        const auto& a = c.accuracy;
        out << "    {\"name\": \"" << c.name << "\", \"frames\": " << c.frames << ", \"points\": " << c.points
            << ", \"input_s\": " << c.input_seconds << ", \"process_s\": " << c.run.seconds
            << ", \"blocks_stage_s\": " << c.run.stage_seconds[0] << ", \"fusion_stage_s\": " << c.run.stage_seconds[1]
            << ", \"mesh_stage_s\": " << c.run.stage_seconds[2]
            << ", \"points_per_s\": " << (c.run.seconds > 0 ? c.points / c.run.seconds : 0.0)
            << ", \"peak_rss_mib\": " << c.peak_mib << ", \"blocks\": " << c.run.blocks << ", \"bins\": " << c.bins
            << ", \"cells\": " << c.cells << ", \"triangles\": " << c.triangles
            << ",\n     \"accuracy_mm\": {\"to_reference_median\": " << a.to_reference.median
            << ", \"to_reference_p95\": " << a.to_reference.p95 << ", \"to_reference_max\": " << a.to_reference.max
            << ", \"from_reference_median\": " << a.from_reference.median
            << ", \"from_reference_p95\": " << a.from_reference.p95 << ", \"chamfer\": " << a.chamfer
            << ", \"fscore_0.1\": " << a.fscore[0] << ", \"fscore_0.5\": " << a.fscore[1]
            << ", \"coverage_1mm\": " << a.coverage << "},\n     \"library_timers_ms\": {";
        bool first = true;
        for (const auto& step : c.step_ms) {
            out << (first ? "" : ", ") << "\"" << step.first << "\": " << step.second;
            first = false;
        }
        out << "}}" << (i + 1 < cases.size() ? "," : "") << "\n";
    }
    out << "  ]\n}\n";
    return out.str();
}

void printTable(const std::vector<Case>& cases) {
    std::printf(
        "| case | points | frames | process s | blocks s | fusion s | mesh s | Mpoints/s | peak MiB | blocks | "
        "cells | triangles | median mm | p95 mm | Chamfer mm | F@0.1 | F@0.5 | covered |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const Case& c : cases) {
        const auto& a = c.accuracy;
        // The library reports cell counts for blocks that ask for other cell sizes than one a bin.
        const std::string cells = c.cells > 0 ? std::to_string(c.cells) : std::string("-");
        std::printf(
            "| %s | %zu | %zu | %.2f | %.2f | %.2f | %.2f | %.2f | %.0f | %d | %s | %zu | %.4f | %.4f | %.4f | %.3f | "
            "%.3f | %.1f%% |\n",
            c.name.c_str(), c.points, c.frames, c.run.seconds, c.run.stage_seconds[0], c.run.stage_seconds[1],
            c.run.stage_seconds[2], c.run.seconds > 0 ? c.points / c.run.seconds / 1e6 : 0.0, c.peak_mib, c.run.blocks,
            cells.c_str(), c.triangles, a.to_reference.median, a.to_reference.p95, a.chamfer, a.fscore[0], a.fscore[1],
            100.0 * a.coverage);
    }
}

std::string machineName() {
    std::ifstream cpu("/proc/cpuinfo");
    std::string line, model = "unknown CPU";
    while (std::getline(cpu, line))
        if (line.rfind("model name", 0) == 0) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    return model + ", " + std::to_string(omp_get_num_procs()) + " cores";
}

}  // namespace

int main(int argc, char** argv) {
    bool smoke = false, bunny = true;
    std::string out_path = "bench-results.json", data_dir = TESSALINE_BENCH_DATA_DIR;
    std::vector<double> sizes = {0.3, 1.0, 3.0, 10.0};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--smoke") {
            smoke = true;
        } else if (arg == "--no-bunny") {
            bunny = false;
        } else if (arg == "--out" && i + 1 < argc) {
            out_path = argv[++i];
        } else if (arg == "--sizes" && i + 1 < argc) {
            sizes.clear();
            std::stringstream list(argv[++i]);
            std::string item;
            while (std::getline(list, item, ',')) {
                const double millions = std::strtod(item.c_str(), nullptr);
                if (!(millions > 0 && millions <= 1000)) {
                    std::fprintf(stderr, "tessaline_bench: bad size '%s'\n", item.c_str());
                    return 2;
                }
                sizes.push_back(millions);
            }
        } else if (arg == "--data" && i + 1 < argc) {
            data_dir = argv[++i];
        } else if (arg == "--help") {
            std::printf(
                "Usage: tessaline_bench [--smoke] [--no-bunny] [--sizes 0.3,1,3,10] [--out FILE.json] [--data DIR]\n"
                "  --smoke     the smallest simulated scan only (0.3 million points), no bunny\n"
                "  --no-bunny  leave out the Stanford bunny scans\n"
                "  --sizes     simulated scans to run, millions of points (default 0.3,1,3,10)\n"
                "  --out       the JSON file (default bench-results.json)\n"
                "  --data      the folder holding stanford-bunny/ (default ../shared/data beside the source)\n");
            return 0;
        } else {
            std::fprintf(stderr, "tessaline_bench: unknown argument '%s' (see --help)\n", arg.c_str());
            return 2;
        }
    }
    if (smoke) {
        sizes = {0.3};
        bunny = false;
    }
    try {
        const std::string scratch = "/tmp/tessaline_bench_" + std::to_string(getpid()) + ".txt";
        const bool memory_reset = resetResidentPeak();
        std::vector<Case> cases;
        // The bunny first: a process's resident set never shrinks all the way back after a large case.
        const std::string conf = data_dir + "/stanford-bunny/scans/bun.conf";
        struct stat info;
        if (bunny && stat(conf.c_str(), &info) == 0) {
            std::fprintf(stderr, "Stanford bunny ...\n");
            const auto start = Clock::now();
            tessaline_tools::Frames frames = tessaline_tools::readRangeScanSet(conf);
            const auto reference = tessaline_tools::meshSurface(
                tessaline_tools::readPlyMesh(data_dir + "/stanford-bunny/reference/bun_zipper.ply", 1000.0f), 300000);
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            cases.push_back(runCase("bunny", std::move(frames), seconds, *reference, scratch, memory_reset));
        } else if (bunny) {
            std::fprintf(stderr, "no %s: the bunny case is left out\n", conf.c_str());
        }
        const auto part = tessaline_tools::partSurface(0.15);
        for (double millions : sizes) {
            tessaline_tools::ScanSimulation settings;
            settings.target_points = static_cast<std::size_t>(millions * 1e6);
            settings.seed = 1;
            std::fprintf(stderr, "part, %.1f million points ...\n", millions);
            const auto start = Clock::now();
            tessaline_tools::Frames frames = tessaline_tools::simulateScan(settings);
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            char name[32];
            std::snprintf(name, sizeof(name), "simulated %.1fM", millions);
            cases.push_back(runCase(name, std::move(frames), seconds, *part, scratch, memory_reset));
        }
        std::remove(scratch.c_str());
        std::ofstream out(out_path);
        out << json(cases, machineName(), omp_get_max_threads(), memory_reset);
        if (!out.flush()) throw std::runtime_error(out_path + ": cannot write the file");
        std::printf(
            "%s, %d threads, resolution 0.5 mm; accuracy against the true surface (part) or Stanford's "
            "reference (bunny)\n\n",
            machineName().c_str(), omp_get_max_threads());
        printTable(cases);
        std::printf("\nwrote %s\n", out_path.c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tessaline_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
