// Whole-pipeline benchmark: simulated scans of the built-in part at several sizes, the Stanford bunny
// scans when present, and (with --area) a wide floor, small patches over a large volume and a part scan
// with some very large frames. The main figure is end to end: the `tessaline` program as users run it
// (reading its files, welding, writing the mesh) against the peer program PoissonRecon, both whole
// processes started alternately, their wall time and peak memory; beside it the library alone with the
// frames already in memory (time, stages, peak), and the accuracy of both programs' meshes. Writes one
// JSON file and prints the tables.
#include <malloc.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchReport.h"
#include "BenchScans.h"
#include "MeshIO.h"
#include "PointCloudIO.h"
#include "ProcessRun.h"
#include "RangeScan.h"
#include "Reconstruction.h"
#include "ScanSimulator.h"
#include "SurfaceCompare.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using bench::Case;
using bench::EndToEnd;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

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
void readDiagnostics(const std::string& path, bench::LibraryOnly& library) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t at = line.find(" - elapsed time : ");
        if (at != std::string::npos) {
            std::string name = line.substr(0, at);
            name.erase(0, name.find_first_not_of(' '));
            library.step_ms[name] += std::strtod(line.c_str() + at + 18, nullptr);
            continue;
        }
        long value = 0;
        if (std::sscanf(line.c_str(), "cell_node_size: %ld", &value) == 1)
            library.cells += static_cast<std::size_t>(value);
        if (std::sscanf(line.c_str(), "mc-bin_header_size: %ld", &value) == 1)
            library.bins += static_cast<std::size_t>(value);
    }
}

// Where a case keeps its files: the frames as PLY files for the program, the points for the peer, both
// meshes and logs, the library's diagnostics. Emptied after each case.
struct Scratch {
    std::string dir;
    std::string file(const char* name) const { return dir + "/" + name; }
    void clear() const {
        fs::remove_all(dir);
        fs::create_directory(dir);
    }
};

// The programs the benchmark starts: itself as the launcher, the tessaline program, the peer.
struct Programs {
    std::string self;
    std::string program;
    std::string peer;  // empty: no peer
};

// The frames of one case and what its meshes are judged against.
struct CaseInput {
    std::string name;
    bool area = false;
    tessaline_tools::Frames frames;
    double input_seconds = 0;
    std::unique_ptr<tessaline_tools::Surface> own_reference;
    const tessaline_tools::Surface* reference = nullptr;
    std::string conf;         // the scan list the program reads (the bunny); empty: the frames as PLY files
    float mesh_to_mm = 1.0f;  // the program writes its mesh in the input's unit
};

// The inputs of both programs, written before anything is timed: the frames as a folder of PLY files,
// one a frame, as `tessaline simulate` writes them (unless the program reads a scan list), and for the
// peer all points in one PLY (millimetres).
void writeInputs(const CaseInput& input, const Scratch& scratch, bool with_peer) {
    if (input.conf.empty()) {
        const std::string folder = scratch.file("frames");
        fs::create_directory(folder);
        for (std::size_t i = 0; i < input.frames.size(); ++i) {
            char name[32];
            std::snprintf(name, sizeof(name), "/frame_%05zu.ply", i);
            tessaline_tools::writePlyPointCloud(folder + name, *input.frames[i]);
        }
    }
    if (with_peer) tessaline_tools::writePlyPoints(scratch.file("points.ply"), input.frames);
}

// The library alone on the frames in memory: one run in this process, its stages and its peak.
void runLibrary(Case& c, const tessaline_tools::Frames& frames, const Scratch& scratch, bool memory_reset) {
    if (memory_reset) resetResidentPeak();
    tessaline_tools::RunOptions options;
    options.resolution = 0.5f;
    options.progress = false;
    options.diagnostics_path = scratch.file("diagnostics.txt");
    c.library.run = tessaline_tools::runReconstruction(frames, options);
    c.library.peak_mib = residentPeakMiB();
    readDiagnostics(options.diagnostics_path, c.library);
    c.library.triangles = c.library.run.mesh->xyz.size();
    c.library.run.mesh.reset();
}

// One run of a side; a run that did not finish is reported with its output.
void runSide(const std::string& self, EndToEnd& side, const std::string& output, const std::string& log,
             const std::string& case_name, const char* what) {
    std::fprintf(stderr, "  %s, run %zu ...\n", what, side.runs.size() + 1);
    std::remove(output.c_str());  // a failed run leaves no earlier mesh to judge
    side.runs.push_back(bench::runProcess(self, side.program, side.arguments, log));
    const bench::ProcessRun& run = side.runs.back();
    if (!side.finished(run))
        std::fprintf(stderr, "tessaline_bench: %s: %s exited with status %d%s; its output:\n%s\n", case_name.c_str(),
                     what, run.status, run.status == 3 ? " (an empty mesh)" : "", run.log.c_str());
}

void judge(EndToEnd& side, const std::string& mesh_path, float to_mm, const tessaline_tools::Surface& reference) {
    if (side.runs.empty() || !side.finished(side.runs.back()) || !fs::exists(mesh_path)) return;
    const tessaline_tools::IndexedMesh mesh = tessaline_tools::readPlyMesh(mesh_path, to_mm);
    side.triangles = mesh.triangles.size();
    if (side.triangles == 0) return;
    const auto surface = tessaline_tools::meshSurface(mesh, 300000);
    side.accuracy = tessaline_tools::compareSurfaces(*surface, reference, {0.1, 0.5}, 1.0);
    side.judged = true;
}

Case runCase(CaseInput input, const Scratch& scratch, const Programs& programs, int repeat, bool memory_reset) {
    Case c;
    c.name = input.name;
    c.area = input.area;
    c.frames = input.frames.size();
    for (const auto& f : input.frames) {
        c.points += f->xyz.size();
        c.largest_frame = std::max(c.largest_frame, f->xyz.size());
    }
    c.input_seconds = input.input_seconds;
    c.with_peer = !programs.peer.empty();
    const auto start = Clock::now();
    writeInputs(input, scratch, c.with_peer);
    c.write_seconds = secondsSince(start);

    runLibrary(c, input.frames, scratch, memory_reset);
    input.frames.clear();
    malloc_trim(0);  // the frames leave this process before the programs run

    const std::string mesh = scratch.file("mesh.ply"), peer_mesh = scratch.file("peer.ply");
    c.program.program = programs.program;
    if (input.conf.empty())
        c.program.arguments = {"reconstruct", scratch.file("frames"), "-o", mesh, "--resolution", "0.5", "--quiet"};
    else
        c.program.arguments = {"reconstruct", input.conf, "--units", "m", "--resolution", "0.5", "-o", mesh, "--quiet"};
    c.program.empty_expected = c.library.triangles == 0;
    c.peer.program = programs.peer;
    c.peer.arguments = {"--in", scratch.file("points.ply"), "--out", peer_mesh, "--depth", "8"};
    // Alternately, program then peer, so that a slower spell of the machine falls on both.
    for (int r = 0; r < repeat; ++r) {
        runSide(programs.self, c.program, mesh, scratch.file("program.log"), c.name, "tessaline reconstruct");
        if (c.with_peer) runSide(programs.self, c.peer, peer_mesh, scratch.file("peer.log"), c.name, "PoissonRecon");
    }
    judge(c.program, mesh, input.mesh_to_mm, *input.reference);
    if (c.with_peer) judge(c.peer, peer_mesh, 1.0f, *input.reference);
    scratch.clear();
    return c;
}

struct Options {
    bool smoke = false, bunny = true, area = false, no_peer = false;
    int repeat = 0;  // 0: 3, or 1 in smoke mode
    std::string out_path = "bench-results.json", data_dir = TESSALINE_BENCH_DATA_DIR;
    std::string peer_path, program_path = TESSALINE_BENCH_PROGRAM;
    std::vector<std::string> kinds = {"bunny", "part"};
    std::vector<double> sizes = {0.3, 1.0, 3.0, 10.0};
};

const char* const CASE_KINDS[] = {"bunny", "part", "floor", "patches", "mixed"};

void printUsage() {
    std::printf(
        "Usage: tessaline_bench [--smoke] [--no-bunny] [--area] [--cases LIST] [--sizes 0.3,1,3,10] [--repeat N]\n"
        "                       [--peer PATH | --no-peer] [--program PATH] [--out FILE.json] [--data DIR]\n"
        "  --smoke     the smallest simulated scan only (0.3 million points), one run, no bunny, no peer unless\n"
        "              --peer\n"
        "  --no-bunny  leave out the Stanford bunny scans\n"
        "  --area      add the large-area cases: floor, patches, mixed\n"
        "  --cases     the cases to run, from bunny, part, floor, patches, mixed (default bunny,part)\n"
        "  --sizes     simulated scans of the part to run, millions of points (default 0.3,1,3,10)\n"
        "  --repeat    runs of the program and of the peer, alternately, for each case (default 3; smoke 1)\n"
        "  --peer      the PoissonRecon program to run beside the library (default\n"
        "              build-peers/PoissonRecon-18.75/Bin/Linux/PoissonRecon beside the source, when there)\n"
        "  --no-peer   run the program and the library alone\n"
        "  --program   the tessaline program to run end to end (default the one built beside the benchmark)\n"
        "  --out       the JSON file (default bench-results.json)\n"
        "  --data      the folder holding stanford-bunny/ (default ../shared/data beside the source)\n");
}

// A comma-separated list; false when an item is refused by `accept`.
template <typename Accept>
bool parseList(const char* text, Accept accept) {
    std::stringstream list(text);
    std::string item;
    while (std::getline(list, item, ','))
        if (!accept(item)) return false;
    return true;
}

// Returns -1 to go on, else the exit status.
int parseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--smoke") {
            o.smoke = true;
        } else if (arg == "--no-bunny") {
            o.bunny = false;
        } else if (arg == "--area") {
            o.area = true;
        } else if (arg == "--no-peer") {
            o.no_peer = true;
        } else if (arg == "--peer" && has_value) {
            o.peer_path = argv[++i];
        } else if (arg == "--program" && has_value) {
            o.program_path = argv[++i];
        } else if (arg == "--repeat" && has_value) {
            o.repeat = std::atoi(argv[++i]);
            if (o.repeat < 1 || o.repeat > 100) {
                std::fprintf(stderr, "tessaline_bench: --repeat takes 1 to 100, not '%s'\n", argv[i]);
                return 2;
            }
        } else if (arg == "--cases" && has_value) {
            o.kinds.clear();
            const bool ok = parseList(argv[++i], [&o](const std::string& item) {
                if (std::find(std::begin(CASE_KINDS), std::end(CASE_KINDS), item) == std::end(CASE_KINDS)) {
                    std::fprintf(stderr, "tessaline_bench: bad case '%s' (bunny, part, floor, patches, mixed)\n",
                                 item.c_str());
                    return false;
                }
                o.kinds.push_back(item);
                return true;
            });
            if (!ok) return 2;
        } else if (arg == "--sizes" && has_value) {
            o.sizes.clear();
            const bool ok = parseList(argv[++i], [&o](const std::string& item) {
                const double millions = std::strtod(item.c_str(), nullptr);
                if (!(millions > 0 && millions <= 1000)) {
                    std::fprintf(stderr, "tessaline_bench: bad size '%s'\n", item.c_str());
                    return false;
                }
                o.sizes.push_back(millions);
                return true;
            });
            if (!ok) return 2;
        } else if (arg == "--out" && has_value) {
            o.out_path = argv[++i];
        } else if (arg == "--data" && has_value) {
            o.data_dir = argv[++i];
        } else if (arg == "--help") {
            printUsage();
            return 0;
        } else {
            std::fprintf(stderr, "tessaline_bench: unknown argument '%s' (see --help)\n", arg.c_str());
            return 2;
        }
    }
    if (o.smoke) {
        o.sizes = {0.3};
        o.kinds = {"part"};
        o.bunny = false;
        o.area = false;
    }
    if (o.repeat == 0) o.repeat = o.smoke ? 1 : 3;
    if (o.area)
        for (const char* kind : {"floor", "patches", "mixed"})
            if (std::find(o.kinds.begin(), o.kinds.end(), kind) == o.kinds.end()) o.kinds.push_back(kind);
    if (!o.bunny) o.kinds.erase(std::remove(o.kinds.begin(), o.kinds.end(), "bunny"), o.kinds.end());
    return -1;
}

bool isProgram(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

// The peer: named, or found beside the source; never in smoke mode unless named. Empty with `note` saying
// why when there is none. Throws when a named one is not there.
std::string findPeer(const Options& o, std::string& note) {
    const std::string beside =
        std::string(TESSALINE_BENCH_SOURCE_DIR) + "/build-peers/PoissonRecon-18.75/Bin/Linux/PoissonRecon";
    if (o.no_peer) {
        note = "no peer (--no-peer)";
    } else if (!o.peer_path.empty()) {
        if (!isProgram(o.peer_path)) throw std::runtime_error("--peer " + o.peer_path + ": no such program");
        return o.peer_path;
    } else if (o.smoke) {
        note = "no peer (smoke mode; name one with --peer)";
    } else if (isProgram(beside)) {
        return beside;
    } else {
        note = "no peer: " + beside +
               " is not there (bash bench/run.sh builds it; or name one with --peer); the program runs alone";
    }
    return "";
}

// The cases in the order they run: from fewest points up, the bunny first (a process's resident set
// never shrinks all the way back after a large case). `estimate` orders them before their frames exist
// (a part scan holds at least its target; floor and patches exactly 3 million points).
struct Plan {
    std::string kind;  // bunny, part, mixed, patches, floor
    double millions = 0;
    double estimate = 0;
};

std::vector<Plan> makePlans(const Options& o) {
    std::vector<Plan> plans;
    const auto wanted = [&o](const char* kind) {
        return std::find(o.kinds.begin(), o.kinds.end(), kind) != o.kinds.end();
    };
    if (wanted("bunny")) plans.push_back({"bunny", 0, 0});
    if (wanted("mixed")) plans.push_back({"mixed", 1.0, 1e6});
    if (wanted("patches")) plans.push_back({"patches", 3.0, 3e6});
    if (wanted("floor")) plans.push_back({"floor", 3.0, 3e6});
    if (wanted("part"))
        for (double millions : o.sizes) plans.push_back({"part", millions, millions * 1e6});
    std::stable_sort(plans.begin(), plans.end(), [](const Plan& a, const Plan& b) { return a.estimate < b.estimate; });
    return plans;
}

// Makes or reads a case's frames and its reference (`part` for the part's scans); false when its data is not
// there (the bunny).
bool makeInput(const Plan& plan, const std::string& data_dir, const tessaline_tools::Surface* part, CaseInput& in) {
    const auto start = Clock::now();
    if (plan.kind == "bunny") {
        in.conf = data_dir + "/stanford-bunny/scans/bun.conf";
        if (!fs::exists(in.conf)) {
            std::fprintf(stderr, "no %s: the bunny case is left out\n", in.conf.c_str());
            return false;
        }
        std::fprintf(stderr, "Stanford bunny ...\n");
        in.name = "bunny";
        in.frames = tessaline_tools::readRangeScanSet(in.conf);
        in.own_reference = tessaline_tools::meshSurface(
            tessaline_tools::readPlyMesh(data_dir + "/stanford-bunny/reference/bun_zipper.ply", 1000.0f), 300000);
        in.mesh_to_mm = 1000.0f;  // the program reads the scans in metres (--units m) and writes metres
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
        in.name = name;
        in.area = plan.kind == "mixed";
        in.frames = tessaline_tools::simulateScan(settings);
        if (in.area) in.frames = bench::gatherFrames(in.frames, 0, 4, 100000);
    } else if (plan.kind == "patches") {
        std::fprintf(stderr, "patches: 200 of 20 mm over 5 m x 5 m, 3 million points ...\n");
        in.name = "patches 3.0M";
        in.area = true;
        in.frames = bench::patchesScan();
        in.own_reference = tessaline_tools::meshSurface(bench::patchesSurface(), 300000);
    } else if (plan.kind == "floor") {
        std::fprintf(stderr, "floor: 10 m x 10 m, 3 million points ...\n");
        in.name = "floor 3.0M";
        in.area = true;
        in.frames = bench::floorScan();
        in.own_reference = tessaline_tools::meshSurface(bench::floorSurface(), 300000);
    }
    in.reference = in.own_reference ? in.own_reference.get() : part;
    in.input_seconds = secondsSince(start);
    return true;
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

std::string selfPath() {
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) throw std::runtime_error("cannot find this program's own path (/proc/self/exe)");
    return std::string(path, static_cast<std::size_t>(n));
}

// Runs every planned case; false when a run of the program did not finish.
bool runAll(const Options& o, const Programs& programs, const std::string& peer_note) {
    const Scratch scratch{"/tmp/tessaline_bench_" + std::to_string(getpid())};
    scratch.clear();
    bench::ReportHeader header;
    header.memory_reset = resetResidentPeak();
    header.machine = machineName();
    header.threads = omp_get_max_threads();
    header.repeat = o.repeat;
    header.peer_note = peer_note;
    std::vector<Case> cases;
    std::unique_ptr<tessaline_tools::Surface> part;  // the part's true surface, made once when needed
    for (const Plan& plan : makePlans(o)) {
        if (!part && (plan.kind == "part" || plan.kind == "mixed")) part = tessaline_tools::partSurface(0.15);
        CaseInput input;
        if (!makeInput(plan, o.data_dir, part.get(), input)) continue;
        cases.push_back(runCase(std::move(input), scratch, programs, o.repeat, header.memory_reset));
    }
    fs::remove_all(scratch.dir);
    std::ofstream out(o.out_path);
    out << bench::reportJson(cases, header);
    if (!out.flush()) throw std::runtime_error(o.out_path + ": cannot write the file");
    bench::printReport(cases, header);
    std::printf("\nwrote %s\n", o.out_path.c_str());
    bool finished = true;
    for (const Case& c : cases)
        for (const bench::ProcessRun& run : c.program.runs)
            if (!c.program.finished(run)) finished = false;
    if (!finished) std::fprintf(stderr, "tessaline_bench: a run of the program failed (its output is above)\n");
    return finished;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--child") == 0) return bench::childMain(argc - 2, argv + 2);
    Options options;
    const int parsed = parseOptions(argc, argv, options);
    if (parsed >= 0) return parsed;
    try {
        if (!isProgram(options.program_path))
            throw std::runtime_error("--program " + options.program_path + ": no such program");
        Programs programs;
        programs.self = selfPath();
        programs.program = options.program_path;
        std::string peer_note;
        programs.peer = findPeer(options, peer_note);
        return runAll(options, programs, peer_note) ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tessaline_bench: %s\n", e.what());
        return 1;
    }
}
