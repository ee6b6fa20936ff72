// Whole-pipeline benchmark: simulated scans of the built-in part at several sizes, the Stanford bunny
// scans when present, and (with --area) a wide floor, small patches over a large volume and a part scan
// with some very large frames. For each: time (whole run and per stage), points a second, peak resident
// memory, block, cell and triangle counts, and the accuracy against the true surface; beside it the peer
// program PoissonRecon on the same points, timed, measured and judged the same way. Writes one JSON file
// and prints the tables.
#include <malloc.h>
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchScans.h"
#include "MeshIO.h"
#include "PeerRun.h"
#include "PointCloudIO.h"
#include "RangeScan.h"
#include "Reconstruction.h"
#include "ScanSimulator.h"
#include "SurfaceCompare.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double MIB = 1024.0 * 1024.0;
// What a point costs the application: position, normal (three floats each) and its word.
constexpr double POINT_BYTES = 28.0;

// What the peer did on one case.
struct PeerCase {
    bench::PeerResult run;
    std::size_t triangles = 0;
    bool judged = false;  // the mesh was read and compared
    tessaline_tools::Comparison accuracy;
};

struct Case {
    std::string name;
    bool area = false;  // one of the large-area cases (second table)
    std::size_t frames = 0, points = 0, largest_frame = 0;
    double input_seconds = 0;  // simulating or reading
    tessaline_tools::RunReport run;
    std::size_t triangles = 0, cells = 0, bins = 0;
    double peak_mib = 0;
    std::map<std::string, double> step_ms;  // the library's own timers, summed over blocks
    bool judged = false;                    // there was a mesh to compare
    tessaline_tools::Comparison accuracy;
    bool with_peer = false;
    PeerCase peer;
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

// Where the run keeps its files: the points for the peer, the peer's mesh and log, the diagnostics.
struct Scratch {
    std::string dir;
    std::string file(const char* name) const { return dir + "/" + name; }
    void clear() const {
        for (const char* name : {"points.ply", "mesh.ply", "peer.log", "diagnostics.txt"})
            std::remove(file(name).c_str());
    }
};

struct Peer {
    std::string program;  // empty: no peer
    std::string self;     // this executable, the launcher
};

Case runCase(const std::string& name, bool area, tessaline_tools::Frames frames, double input_seconds,
             const tessaline_tools::Surface& reference, const Scratch& scratch, bool memory_reset, const Peer& peer) {
    Case c;
    c.name = name;
    c.area = area;
    c.frames = frames.size();
    for (const auto& f : frames) {
        c.points += f->xyz.size();
        c.largest_frame = std::max(c.largest_frame, f->xyz.size());
    }
    c.input_seconds = input_seconds;
    // The peer's input is written before the memory measurement starts and is timed on neither side.
    c.with_peer = !peer.program.empty();
    if (c.with_peer) tessaline_tools::writePlyPoints(scratch.file("points.ply"), frames);
    if (memory_reset) resetResidentPeak();
    tessaline_tools::RunOptions options;
    options.resolution = 0.5f;
    options.progress = false;
    options.diagnostics_path = scratch.file("diagnostics.txt");
    c.run = tessaline_tools::runReconstruction(frames, options);
    c.peak_mib = residentPeakMiB();
    frames.clear();
    readDiagnostics(options.diagnostics_path, c);
    c.triangles = c.run.mesh->xyz.size();
    if (c.triangles > 0) {
        const auto mesh = tessaline_tools::meshSurface(*c.run.mesh, 300000);
        c.accuracy = tessaline_tools::compareSurfaces(*mesh, reference, {0.1, 0.5}, 1.0);
        c.judged = true;
    }
    c.run.mesh.reset();
    if (c.with_peer) {
        std::fprintf(stderr, "  PoissonRecon ...\n");
        c.peer.run =
            bench::runPeer(peer.self, peer.program,
                           {"--in", scratch.file("points.ply"), "--out", scratch.file("mesh.ply"), "--depth", "8"},
                           scratch.file("peer.log"));
        if (!c.peer.run.ran) {
            std::fprintf(stderr, "  PoissonRecon failed with status %d; its output:\n%s\n", c.peer.run.status,
                         c.peer.run.log.c_str());
        } else {
            const tessaline_tools::IndexedMesh mesh = tessaline_tools::readPlyMesh(scratch.file("mesh.ply"));
            c.peer.triangles = mesh.triangles.size();
            if (c.peer.triangles > 0) {
                const auto surface = tessaline_tools::meshSurface(mesh, 300000);
                c.peer.accuracy = tessaline_tools::compareSurfaces(*surface, reference, {0.1, 0.5}, 1.0);
                c.peer.judged = true;
            }
        }
    }
    scratch.clear();
    return c;
}

void accuracyJson(std::ostream& out, bool judged, const tessaline_tools::Comparison& a) {
    if (!judged) {
        out << "null";
        return;
    }
    out << "{\"to_reference_median\": " << a.to_reference.median << ", \"to_reference_p95\": " << a.to_reference.p95
        << ", \"to_reference_max\": " << a.to_reference.max
        << ", \"from_reference_median\": " << a.from_reference.median
        << ", \"from_reference_p95\": " << a.from_reference.p95 << ", \"chamfer\": " << a.chamfer
        << ", \"fscore_0.1\": " << a.fscore[0] << ", \"fscore_0.5\": " << a.fscore[1]
        << ", \"coverage_1mm\": " << a.coverage << "}";
}

double pointsMiB(const Case& c) { return c.points * POINT_BYTES / MIB; }

std::string json(const std::vector<Case>& cases, const std::string& machine, int threads, bool memory_reset,
                 const Peer& peer) {
    std::ostringstream out;
    out << "{\n  \"machine\": \"" << machine << "\",\n  \"threads\": " << threads << ",\n  \"resolution_mm\": 0.5,\n"
        << "  \"peak_memory\": \"" << (memory_reset ? "per case (VmHWM reset before each)" : "process peak so far")
        << "\",\n  \"peer\": ";
    if (peer.program.empty())
        out << "null";
    else
        out << "{\"program\": \"" << peer.program
            << "\", \"arguments\": \"--in points.ply --out mesh.ply --depth 8\", \"threads\": \"its default\", "
               "\"peak_memory\": \"its own (ru_maxrss from wait4)\"}";
    out << ",\n  \"cases\": [\n";
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        const double above = c.peak_mib - pointsMiB(c);
        out << "    {\"name\": \"" << c.name << "\", \"area_case\": " << (c.area ? "true" : "false")
            << ", \"frames\": " << c.frames << ", \"points\": " << c.points
            << ", \"largest_frame\": " << c.largest_frame << ", \"input_s\": " << c.input_seconds
            << ", \"process_s\": " << c.run.seconds << ", \"blocks_stage_s\": " << c.run.stage_seconds[0]
            << ", \"fusion_stage_s\": " << c.run.stage_seconds[1] << ", \"mesh_stage_s\": " << c.run.stage_seconds[2]
            << ", \"points_per_s\": " << (c.run.seconds > 0 ? c.points / c.run.seconds : 0.0)
            << ", \"peak_rss_mib\": " << c.peak_mib << ", \"points_mib\": " << pointsMiB(c)
            << ", \"peak_above_points_mib\": " << above
            << ", \"peak_above_points_bytes_per_point\": " << (c.points > 0 ? above * MIB / c.points : 0.0)
            << ", \"blocks\": " << c.run.blocks << ", \"bins\": " << c.bins << ", \"cells\": " << c.cells
            << ", \"triangles\": " << c.triangles << ",\n     \"accuracy_mm\": ";
        accuracyJson(out, c.judged, c.accuracy);
        out << ",\n     \"library_timers_ms\": {";
        bool first = true;
        for (const auto& step : c.step_ms) {
            out << (first ? "" : ", ") << "\"" << step.first << "\": " << step.second;
            first = false;
        }
        out << "},\n     \"peer\": ";
        if (!c.with_peer) {
            out << "null";
        } else {
            const PeerCase& p = c.peer;
            out << "{\"status\": " << p.run.status << ", \"seconds\": " << p.run.seconds
                << ", \"ratio\": " << (p.run.ran && p.run.seconds > 0 ? c.run.seconds / p.run.seconds : 0.0)
                << ", \"peak_rss_mib\": " << p.run.peak_mib << ", \"triangles\": " << p.triangles
                << ",\n       \"accuracy_mm\": ";
            accuracyJson(out, p.judged, p.accuracy);
            out << "}";
        }
        out << "}" << (i + 1 < cases.size() ? "," : "") << "\n";
    }
    out << "  ]\n}\n";
    return out.str();
}

// The peer's columns: seconds, Tessaline's time over the peer's, MiB, then its coverage (first table) or
// its triangles (second table); "-" without a peer.
std::string peerColumns(const Case& c, bool coverage) {
    if (!c.with_peer) return "- | - | - | -";
    const PeerCase& p = c.peer;
    if (!p.run.ran) return "failed | - | - | -";
    char last[32] = "-";
    if (!coverage)
        std::snprintf(last, sizeof(last), "%zu", p.triangles);
    else if (p.judged)
        std::snprintf(last, sizeof(last), "%.1f%%", 100.0 * p.accuracy.coverage);
    char text[128];
    std::snprintf(text, sizeof(text), "%.2f | %.2f | %.0f | %s", p.run.seconds, c.run.seconds / p.run.seconds,
                  p.run.peak_mib, last);
    return text;
}

void printTable(const std::vector<Case>& cases) {
    std::printf(
        "| case | points | frames | process s | blocks s | fusion s | mesh s | Mpoints/s | peak MiB | blocks | "
        "cells | triangles | median mm | p95 mm | Chamfer mm | F@0.1 | F@0.5 | covered | peer s | ratio | peer MiB | "
        "peer covered |\n");
    std::printf(
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
        "\n");
    for (const Case& c : cases) {
        const auto& a = c.accuracy;
        // The library reports cell counts for blocks that ask for other cell sizes than one a bin.
        const std::string cells = c.cells > 0 ? std::to_string(c.cells) : std::string("-");
        char accuracy[160] = "- | - | - | - | - | -";
        if (c.judged)
            std::snprintf(accuracy, sizeof(accuracy), "%.4f | %.4f | %.4f | %.3f | %.3f | %.1f%%",
                          a.to_reference.median, a.to_reference.p95, a.chamfer, a.fscore[0], a.fscore[1],
                          100.0 * a.coverage);
        std::printf("| %s | %zu | %zu | %.2f | %.2f | %.2f | %.2f | %.2f | %.0f | %d | %s | %zu | %s | %s |\n",
                    c.name.c_str(), c.points, c.frames, c.run.seconds, c.run.stage_seconds[0], c.run.stage_seconds[1],
                    c.run.stage_seconds[2], c.run.seconds > 0 ? c.points / c.run.seconds / 1e6 : 0.0, c.peak_mib,
                    c.run.blocks, cells.c_str(), c.triangles, accuracy, peerColumns(c, true).c_str());
    }
}

// The large-area cases: where the memory goes beyond the points themselves.
void printAreaTable(const std::vector<Case>& cases) {
    std::printf(
        "| case | points | largest frame | blocks | process s | peak MiB | points MiB | above points MiB | "
        "above points B/point | triangles | peer s | ratio | peer MiB | peer triangles |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const Case& c : cases) {
        if (!c.area) continue;
        const double above = c.peak_mib - pointsMiB(c);
        std::printf("| %s | %zu | %zu | %d | %.2f | %.0f | %.0f | %.0f | %.0f | %zu | %s |\n", c.name.c_str(), c.points,
                    c.largest_frame, c.run.blocks, c.run.seconds, c.peak_mib, pointsMiB(c), above,
                    c.points > 0 ? above * MIB / c.points : 0.0, c.triangles, peerColumns(c, false).c_str());
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

bool isProgram(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

std::string selfPath() {
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) throw std::runtime_error("cannot find this program's own path (/proc/self/exe)");
    return std::string(path, static_cast<std::size_t>(n));
}

// The cases in the order they run: from fewest points up, the bunny first. `estimate` orders them before
// their frames exist (a part scan holds at least its target; floor and patches exactly 3 million points).
struct Plan {
    std::string kind;  // bunny, part, mixed, patches, floor
    double millions = 0;
    double estimate = 0;
};

const char* const CASE_KINDS[] = {"bunny", "part", "floor", "patches", "mixed"};

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--peer-child") == 0) return bench::peerChildMain(argc - 2, argv + 2);
    bool smoke = false, bunny = true, area = false, no_peer = false;
    std::string out_path = "bench-results.json", data_dir = TESSALINE_BENCH_DATA_DIR, peer_path;
    std::vector<std::string> kinds = {"bunny", "part"};
    std::vector<double> sizes = {0.3, 1.0, 3.0, 10.0};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--smoke") {
            smoke = true;
        } else if (arg == "--no-bunny") {
            bunny = false;
        } else if (arg == "--area") {
            area = true;
        } else if (arg == "--no-peer") {
            no_peer = true;
        } else if (arg == "--peer" && i + 1 < argc) {
            peer_path = argv[++i];
        } else if (arg == "--cases" && i + 1 < argc) {
            kinds.clear();
            std::stringstream list(argv[++i]);
            std::string item;
            while (std::getline(list, item, ',')) {
                if (std::find(std::begin(CASE_KINDS), std::end(CASE_KINDS), item) == std::end(CASE_KINDS)) {
                    std::fprintf(stderr, "tessaline_bench: bad case '%s' (bunny, part, floor, patches, mixed)\n",
                                 item.c_str());
                    return 2;
                }
                kinds.push_back(item);
            }
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
                "Usage: tessaline_bench [--smoke] [--no-bunny] [--area] [--cases LIST] [--sizes 0.3,1,3,10]\n"
                "                       [--peer PATH | --no-peer] [--out FILE.json] [--data DIR]\n"
                "  --smoke     the smallest simulated scan only (0.3 million points), no bunny, no peer unless --peer\n"
                "  --no-bunny  leave out the Stanford bunny scans\n"
                "  --area      add the large-area cases: floor, patches, mixed\n"
                "  --cases     the cases to run, from bunny, part, floor, patches, mixed (default bunny,part)\n"
                "  --sizes     simulated scans of the part to run, millions of points (default 0.3,1,3,10)\n"
                "  --peer      the PoissonRecon program to run beside the library (default\n"
                "              build-peers/PoissonRecon-18.75/Bin/Linux/PoissonRecon beside the source, when there)\n"
                "  --no-peer   run the library alone\n"
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
        kinds = {"part"};
        bunny = false;
        area = false;
    }
    if (area)
        for (const char* kind : {"floor", "patches", "mixed"})
            if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) kinds.push_back(kind);
    if (!bunny) kinds.erase(std::remove(kinds.begin(), kinds.end(), "bunny"), kinds.end());

    // The peer: named, or found beside the source; never in smoke mode unless named.
    Peer peer;
    std::string peer_note;
    const std::string default_peer =
        std::string(TESSALINE_BENCH_SOURCE_DIR) + "/build-peers/PoissonRecon-18.75/Bin/Linux/PoissonRecon";
    if (no_peer) {
        peer_note = "no peer (--no-peer)";
    } else if (!peer_path.empty()) {
        if (!isProgram(peer_path)) {
            std::fprintf(stderr, "tessaline_bench: --peer %s: no such program\n", peer_path.c_str());
            return 2;
        }
        peer.program = peer_path;
    } else if (smoke) {
        peer_note = "no peer (smoke mode; name one with --peer)";
    } else if (isProgram(default_peer)) {
        peer.program = default_peer;
    } else {
        peer_note = "no peer: " + default_peer +
                    " is not there (bash bench/run.sh builds it; or name one with --peer); the library runs alone";
    }

    try {
        if (!peer.program.empty()) peer.self = selfPath();
        Scratch scratch{"/tmp/tessaline_bench_" + std::to_string(getpid())};
        if (mkdir(scratch.dir.c_str(), 0700) != 0) throw std::runtime_error(scratch.dir + ": cannot make the folder");
        const bool memory_reset = resetResidentPeak();

        std::vector<Plan> plans;
        const auto wanted = [&](const char* kind) {
            return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
        };
        if (wanted("bunny")) plans.push_back({"bunny", 0, 0});
        if (wanted("mixed")) plans.push_back({"mixed", 1.0, 1e6});
        if (wanted("patches")) plans.push_back({"patches", 3.0, 3e6});
        if (wanted("floor")) plans.push_back({"floor", 3.0, 3e6});
        if (wanted("part"))
            for (double millions : sizes) plans.push_back({"part", millions, millions * 1e6});
        std::stable_sort(plans.begin(), plans.end(),
                         [](const Plan& a, const Plan& b) { return a.estimate < b.estimate; });

        std::vector<Case> cases;
        std::unique_ptr<tessaline_tools::Surface> part;
        const auto partReference = [&part]() -> const tessaline_tools::Surface& {
            if (!part) part = tessaline_tools::partSurface(0.15);
            return *part;
        };
        for (const Plan& plan : plans) {
            const auto start = Clock::now();
            const auto seconds = [&start] { return std::chrono::duration<double>(Clock::now() - start).count(); };
            if (plan.kind == "bunny") {
                // The bunny first: a process's resident set never shrinks all the way back after a large case.
                const std::string conf = data_dir + "/stanford-bunny/scans/bun.conf";
                struct stat info;
                if (stat(conf.c_str(), &info) != 0) {
                    std::fprintf(stderr, "no %s: the bunny case is left out\n", conf.c_str());
                    continue;
                }
                std::fprintf(stderr, "Stanford bunny ...\n");
                tessaline_tools::Frames frames = tessaline_tools::readRangeScanSet(conf);
                const auto reference = tessaline_tools::meshSurface(
                    tessaline_tools::readPlyMesh(data_dir + "/stanford-bunny/reference/bun_zipper.ply", 1000.0f),
                    300000);
                const double input = seconds();
                cases.push_back(
                    runCase("bunny", false, std::move(frames), input, *reference, scratch, memory_reset, peer));
            } else if (plan.kind == "part" || plan.kind == "mixed") {
                tessaline_tools::ScanSimulation settings;
                settings.target_points = static_cast<std::size_t>(plan.millions * 1e6);
                settings.seed = 1;
                char name[48];
                if (plan.kind == "part") {
                    std::fprintf(stderr, "part, %.1f million points ...\n", plan.millions);
                    std::snprintf(name, sizeof(name), "simulated %.1fM", plan.millions);
                } else {
                    std::fprintf(stderr, "mixed frames: part, 1.0 million points, four frames of 100,000 ...\n");
                    std::snprintf(name, sizeof(name), "mixed frames 1.0M");
                }
                tessaline_tools::Frames frames = tessaline_tools::simulateScan(settings);
                if (plan.kind == "mixed") frames = bench::gatherFrames(frames, 0, 4, 100000);
                const double input = seconds();
                cases.push_back(runCase(name, plan.kind == "mixed", std::move(frames), input, partReference(), scratch,
                                        memory_reset, peer));
            } else if (plan.kind == "patches") {
                std::fprintf(stderr, "patches: 200 of 20 mm over 5 m x 5 m, 3 million points ...\n");
                tessaline_tools::Frames frames = bench::patchesScan();
                const auto reference = tessaline_tools::meshSurface(bench::patchesSurface(), 300000);
                const double input = seconds();
                cases.push_back(
                    runCase("patches 3.0M", true, std::move(frames), input, *reference, scratch, memory_reset, peer));
            } else if (plan.kind == "floor") {
                std::fprintf(stderr, "floor: 10 m x 10 m, 3 million points ...\n");
                tessaline_tools::Frames frames = bench::floorScan();
                const auto reference = tessaline_tools::meshSurface(bench::floorSurface(), 300000);
                const double input = seconds();
                cases.push_back(
                    runCase("floor 3.0M", true, std::move(frames), input, *reference, scratch, memory_reset, peer));
            }
        }
        scratch.clear();
        rmdir(scratch.dir.c_str());
        std::ofstream out(out_path);
        out << json(cases, machineName(), omp_get_max_threads(), memory_reset, peer);
        if (!out.flush()) throw std::runtime_error(out_path + ": cannot write the file");
        std::printf(
            "%s, %d threads, resolution 0.5 mm; accuracy against the true surface (part, floor, patches) or "
            "Stanford's reference (bunny)\n",
            machineName().c_str(), omp_get_max_threads());
        if (peer.program.empty())
            std::printf("%s\n\n", peer_note.c_str());
        else
            std::printf(
                "peer: %s --depth 8, its default threads; its time is the wall time of the program (reading and "
                "writing included), its memory its own peak; ratio = Tessaline s / peer s\n\n",
                peer.program.c_str());
        printTable(cases);
        if (std::any_of(cases.begin(), cases.end(), [](const Case& c) { return c.area; })) {
            std::printf("\nLarge-area cases (points MiB: %g bytes a point, position, normal and word)\n\n",
                        POINT_BYTES);
            printAreaTable(cases);
        }
        std::printf("\nwrote %s\n", out_path.c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tessaline_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
