// tessaline: the command-line front of the library. `reconstruct` reads scan frames, runs the library
// through its public interface, as any application does, and writes the mesh; `simulate`, `demo`,
// `render` and `compare` make scans of the built-in part, pictures and accuracy figures.
#include "tessaline/Tessaline.h"

#include <dirent.h>
#include <fcntl.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxopts.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "InOrder.h"
#include "MeshIO.h"
#include "MeshRender.h"
#include "PointCloudIO.h"
#include "RangeScan.h"
#include "Reconstruction.h"
#include "ScanSimulator.h"
#include "SurfaceCompare.h"

using SurfaceReconstruction::FrameDataWithInfo;

namespace {

using Clock = std::chrono::steady_clock;
using tessaline_tools::Frames;

const char* USAGE =
    "Usage: tessaline COMMAND [OPTIONS]\n"
    "\n"
    "Turns registered laser-scan frames into one triangle mesh.\n"
    "\n"
    "Commands:\n"
    "  demo                             scan the built-in part (simulated), reconstruct it, write\n"
    "                                   tessaline-demo.ply and tessaline-demo.png, report the accuracy\n"
    "  reconstruct INPUT... -o OUTPUT   scan frames in, mesh out\n"
    "  simulate -o DIR                  write a simulated scan of the built-in part as PLY frames\n"
    "  render MESH -o PNG               a shaded picture of a mesh from four directions\n"
    "  compare MESH REFERENCE           distances between a mesh and a reference mesh or the part\n"
    "  --check-device                   select the compute device and report the result\n"
    "  --version                        print the version and the backend\n"
    "  --help                           show this text\n"
    "\n"
    "Each command has its own --help.\n"
    "\n"
    "Examples:\n"
    "  tessaline demo\n"
    "  tessaline reconstruct scans/bun.conf --units m -o bunny.ply --reference reference/bun_zipper.ply\n"
    "  tessaline reconstruct frames/ --resolution 0.25 -o part.stl\n"
    "  tessaline reconstruct cloud.ply --units m -o mesh.ply --json\n";

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool isDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::vector<std::string> plyFilesIn(const std::string& folder) {
    std::vector<std::string> files;
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) throw std::runtime_error(folder + ": cannot read the directory");
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (endsWith(lower(name), ".ply")) files.push_back(folder + "/" + name);
    }
    closedir(dir);
    std::sort(files.begin(), files.end());
    if (files.empty()) throw std::runtime_error(folder + ": no .ply files in the directory");
    return files;
}

// Millimetres in one unit of the input.
float unitToMillimetres(const std::string& unit) {
    if (unit == "mm") return 1.0f;
    if (unit == "cm") return 10.0f;
    if (unit == "m") return 1000.0f;
    if (unit == "in") return 25.4f;
    throw std::runtime_error("unknown unit '" + unit + "' (use mm, cm, m or in)");
}

Frames readInputs(const std::vector<std::string>& inputs, float to_mm, int scale_code) {
    Frames frames;
    for (const std::string& input : inputs) {
        if (endsWith(lower(input), ".conf")) {
            tessaline_tools::RangeScanOptions options;
            options.scale = to_mm;
            options.scale_code = scale_code;
            for (auto& frame : tessaline_tools::readRangeScanSet(input, options)) frames.push_back(frame);
            continue;
        }
        const std::vector<std::string> files = isDirectory(input) ? plyFilesIn(input) : std::vector<std::string>{input};
        // The files on all cores, each frame into its place; the notes and the first failure in file order.
        Frames read(files.size());
        std::vector<tessaline_tools::PointCloudReadInfo> infos(files.size());
        tessaline_tools::forEachInOrder(files.size(), [&](std::size_t i) {
            read[i] = tessaline_tools::readPlyPointCloud(files[i], to_mm, scale_code, infos[i]);
        });
        for (std::size_t i = 0; i < files.size(); ++i) {
            frames.push_back(std::move(read[i]));
            if (infos[i].dropped > 0)
                std::fprintf(stderr, "tessaline: %s: %zu points with NaN coordinates or no normal left out\n",
                             files[i].c_str(), infos[i].dropped);
        }
    }
    return frames;
}

// A JSON summary, written as it is built: objects and arrays of numbers, strings and booleans.
class Json {
public:
    explicit Json(std::string& out) : m_out(out) {}
    Json& open(const char* key = nullptr) { return item(key).raw("{", true); }
    Json& close() { return end('}'); }
    Json& openList(const char* key) { return item(key).raw("[", true); }
    Json& closeList() { return end(']'); }
    Json& number(const char* key, double value) {
        char text[40];
        if (std::isfinite(value))
            std::snprintf(text, sizeof(text), "%.10g", value);
        else
            std::snprintf(text, sizeof(text), "null");
        return item(key).raw(text, false);
    }
    Json& count(const char* key, std::size_t value) { return item(key).raw(std::to_string(value).c_str(), false); }
    Json& boolean(const char* key, bool value) { return item(key).raw(value ? "true" : "false", false); }
    Json& null(const char* key) { return item(key).raw("null", false); }
    Json& text(const char* key, const std::string& value) {
        std::string quoted = "\"";
        for (const char c : value) {
            if (c == '"' || c == '\\') {
                quoted += '\\';
                quoted += c;
            } else if (static_cast<unsigned char>(c) < 0x20) {
                char escape[8];
                std::snprintf(escape, sizeof(escape), "\\u%04x", c);
                quoted += escape;
            } else {
                quoted += c;
            }
        }
        return item(key).raw((quoted + "\"").c_str(), false);
    }

private:
    Json& item(const char* key) {
        if (!m_first) m_out += ", ";
        m_first = false;
        if (key) m_out += std::string("\"") + key + "\": ";
        return *this;
    }
    Json& raw(const char* text, bool opens) {
        m_out += text;
        m_first = opens;
        return *this;
    }
    Json& end(char bracket) {
        m_out += bracket;
        m_first = false;
        return *this;
    }
    std::string& m_out;
    bool m_first = true;
};

std::vector<double> parseThresholds(const std::string& text) {
    std::vector<double> values;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t comma = text.find(',', start);
        const std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        char* end = nullptr;
        const double value = std::strtod(item.c_str(), &end);
        if (item.empty() || *end != '\0' || !(value > 0)) throw std::runtime_error("bad threshold '" + item + "'");
        values.push_back(value);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return values;
}

// A mesh to compare, scaled to millimetres: triangles with area, at coordinates whose squared distances
// a float still holds (1e12 mm is a million kilometres).
tessaline_tools::IndexedMesh readComparedMesh(const std::string& path, float to_mm) {
    constexpr float FARTHEST = 1e12f;
    tessaline_tools::IndexedMesh mesh = tessaline_tools::readMesh(path, to_mm);
    for (const auto& v : mesh.vertices)
        for (float c : v)
            if (!(std::fabs(c) <= FARTHEST))
                throw std::runtime_error(path + ": a vertex beyond 1e12 mm from the origin, or not a finite number");
    if (mesh.triangles.empty())
        throw std::runtime_error(path + ": no triangles (a point cloud cannot be compared; give a mesh)");
    return mesh;
}

std::unique_ptr<tessaline_tools::Surface> comparedSurface(const std::string& path, float to_mm, std::size_t samples) {
    auto surface = tessaline_tools::meshSurface(readComparedMesh(path, to_mm), samples);
    if (surface->samples().empty()) throw std::runtime_error(path + ": no triangle has an area");
    return surface;
}

// The reference of a comparison: the built-in part, or a mesh file scaled to millimetres.
std::unique_ptr<tessaline_tools::Surface> loadReference(const std::string& reference, float to_mm,
                                                        std::size_t samples) {
    if (reference == "part") return tessaline_tools::partSurface(0.15);
    return comparedSurface(reference, to_mm, samples);
}

std::vector<tessaline_tools::Triangle> trianglesOf(const tessaline_tools::IndexedMesh& mesh) {
    std::vector<tessaline_tools::Triangle> triangles;
    triangles.reserve(mesh.triangles.size());
    for (const auto& t : mesh.triangles)
        triangles.push_back({mesh.vertices[t[0]], mesh.vertices[t[1]], mesh.vertices[t[2]]});
    return triangles;
}

void checkMeshExtension(const std::string& output) {
    if (!tessaline_tools::isMeshFileName(output))
        throw std::runtime_error(output + ": unknown mesh format (use .ply, .obj or .stl)");
}

// Fails now, not after the run, when `output` cannot be written: its folder missing or read-only, or a
// folder in its place. Leaves nothing behind.
void checkWritable(const std::string& output) {
    if (isDirectory(output)) throw std::runtime_error(output + ": is a directory, not a mesh file");
    const std::string probe = output + ".partial";
    const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0 && errno != EEXIST)
        throw std::runtime_error(output + ": cannot write the file (" + std::strerror(errno) + ")");
    if (fd >= 0) {
        close(fd);
        unlink(probe.c_str());
    }
}

// More threads than the machine has processors only adds switching; a count far beyond that could not
// even be started.
void applyThreads(const cxxopts::ParseResult& args) {
    const int threads = args["threads"].as<int>();
    const int processors = std::max(1, omp_get_num_procs());
    if (threads < 0 || threads > processors)
        throw std::runtime_error("--threads must be 0 (all processors) or at most " + std::to_string(processors) +
                                 ", the processors of this machine, not " + std::to_string(threads));
    if (threads > 0) omp_set_num_threads(threads);
}

// The library takes a finest cell edge (millimetres here) from 0.001 to 100000 and keeps its former one
// when given another: the program refuses such a value before any work.
void checkResolution(double value, const std::string& text) {
    if (!(value >= 0.001 && value <= 100000.0))
        throw std::runtime_error("--resolution must be 'auto' or a number of millimetres from 0.001 to 100000, not '" +
                                 text + "'");
}

// What becomes of the library's triangle soup on its way to a file.
struct Finishing {
    std::size_t min_piece = 0;   // remove pieces of fewer triangles (0: keep all)
    std::size_t fill_holes = 0;  // close holes of at most this many edges (0: none)
};

struct FinishedMesh {
    tessaline_tools::IndexedMesh mesh;
    SurfaceReconstruction::MeshStatistics statistics;
    std::size_t degenerate = 0, removed = 0, filled = 0;
    double seconds = 0;
};

// Welds the soup at 1e-4 of the resolution (both in millimetres), then removes pieces and fills holes.
FinishedMesh finishMesh(const SurfaceReconstruction::MultiMeshData& soup, float resolution,
                        const Finishing& finishing) {
    const auto start = Clock::now();
    FinishedMesh out;
    int status = SurfaceReconstruction::weldMesh(soup, resolution * 1e-4f, out.mesh, &out.degenerate);
    if (status == 0) status = SurfaceReconstruction::removeSmallPieces(out.mesh, finishing.min_piece, &out.removed);
    if (status == 0) status = SurfaceReconstruction::fillSmallHoles(out.mesh, finishing.fill_holes, &out.filled);
    if (status == 0) status = SurfaceReconstruction::describeMesh(out.mesh, out.statistics);
    if (status != 0) throw std::runtime_error("finishing the mesh failed with status " + std::to_string(status));
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return out;
}

// How the resolution of a run came about.
struct ResolutionChoice {
    float resolution = 0.5f;  // millimetres
    bool automatic = false;
    SurfaceReconstruction::PointSpacing spacing;  // millimetres
};

// "auto" or a number of millimetres above 0.
bool parseResolution(const std::string& text, float& resolution) {
    if (text == "auto") return true;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0') checkResolution(std::nan(""), text);
    checkResolution(value, text);
    resolution = static_cast<float>(value);
    return false;
}

SurfaceReconstruction::PointSpacing measureSpacing(const tessaline_tools::Frames& frames) {
    SurfaceReconstruction::PointSpacing spacing;
    const int status = SurfaceReconstruction::measurePointSpacing(frames, spacing);
    if (status != 0)
        throw std::runtime_error("measuring the point spacing failed with status " + std::to_string(status));
    return spacing;
}

// The advice of a warning about a mesh too small for its points.
std::string resolutionAdvice(const ResolutionChoice& choice) {
    char text[256];
    const float suggested = SurfaceReconstruction::resolutionForSpacing(choice.spacing);
    if (!choice.automatic && suggested > choice.resolution * 1.05f)
        std::snprintf(text, sizeof(text), "use --resolution auto (it takes %.3g mm here) or a coarser --resolution",
                      suggested);
    else
        std::snprintf(text, sizeof(text),
                      "a cell needs 5 points or more: try a coarser --resolution than %.3g mm, or give more points",
                      choice.resolution);
    return text;
}

// A mesh with fewer triangles than this share of what its points suggest is reported as too small.
constexpr double SMALL_MESH_SHARE = 0.25;

// The warning for a mesh far smaller than its points suggest, or empty when it is not.
std::string sizeWarning(const ResolutionChoice& choice, std::size_t triangles, double expected) {
    char text[512];
    if (triangles == 0) {
        std::snprintf(text, sizeof(text),
                      "the mesh is empty: at a resolution of %.3g mm no cell held enough points (points %.3g mm "
                      "apart); %s",
                      choice.resolution, choice.spacing.median, resolutionAdvice(choice).c_str());
        return text;
    }
    if (static_cast<double>(triangles) >= expected * SMALL_MESH_SHARE) return "";
    std::snprintf(text, sizeof(text),
                  "the mesh has %zu triangles where points %.3g mm apart should give about %.0f: the resolution "
                  "%.3g mm is too fine for them; %s",
                  triangles, choice.spacing.median, expected, choice.resolution, resolutionAdvice(choice).c_str());
    return text;
}

// The times of the program's own steps around the library's run.
struct Timings {
    double input = 0;    // reading the frames, or simulating them
    double spacing = 0;  // the point spacing and what the points suggest
    double writing = 0;  // the mesh file
};

void printSummary(const tessaline_tools::RunReport& run, const ResolutionChoice& choice, const FinishedMesh& finished,
                  const Finishing& finishing, const Timings& timings, const char* input_label) {
    std::printf("frames %zu, points %zu, blocks %d\n", run.frames, run.points, run.blocks);
    std::printf("point spacing: median %.4g mm to the nearest point, as dense as an even %.4g mm; ",
                choice.spacing.median, choice.spacing.density);
    if (choice.automatic && choice.spacing.scale_code != 8)
        std::printf("resolution auto: %.4g mm (%.2g x %.4g mm x %d / 8, for the cells of scale code %d)\n",
                    choice.resolution, SurfaceReconstruction::RESOLUTION_PER_SPACING, choice.spacing.density,
                    choice.spacing.scale_code, choice.spacing.scale_code);
    else if (choice.automatic)
        std::printf("resolution auto: %.4g mm (%.2g x %.4g mm)\n", choice.resolution,
                    SurfaceReconstruction::RESOLUTION_PER_SPACING, choice.spacing.density);
    else
        std::printf("resolution %.4g mm\n", choice.resolution);
    const auto& s = finished.statistics;
    std::printf("triangles %zu (%zu degenerate dropped), vertices %zu, boundary edges %zu, pieces %zu\n", s.triangles,
                finished.degenerate, s.vertices, s.boundary_edges, s.pieces);
    if (finishing.min_piece > 1)
        std::printf("pieces under %zu triangles: %zu triangles removed\n", finishing.min_piece, finished.removed);
    if (finishing.fill_holes >= 3)
        std::printf("holes of at most %zu edges: %zu filled\n", finishing.fill_holes, finished.filled);
    std::printf(
        "time: %s %.2f s, spacing %.2f s, blocks %.2f s, fusion %.2f s, meshing %.2f s, finishing %.2f s, writing "
        "%.2f s (the library %.0f points/s); peak memory %.0f MiB\n",
        input_label, timings.input, timings.spacing, run.stage_seconds[0], run.stage_seconds[1], run.stage_seconds[2],
        finished.seconds, timings.writing, run.seconds > 0 ? static_cast<double>(run.points) / run.seconds : 0.0,
        tessaline_tools::peakMemoryMiB());
}

// `reference` names what was compared with: "the reference" or "the true surface".
void printComparison(const tessaline_tools::Comparison& c, const char* reference, const char* unit) {
    std::printf("distance to %s:   median %.4f, 95%% %.4f, max %.4f %s\n", reference, c.to_reference.median,
                c.to_reference.p95, c.to_reference.max, unit);
    std::printf("distance from %s: median %.4f, 95%% %.4f, max %.4f %s\n", reference, c.from_reference.median,
                c.from_reference.p95, c.from_reference.max, unit);
    std::printf("chamfer distance %.4f %s", c.chamfer, unit);
    for (std::size_t i = 0; i < c.thresholds.size(); ++i)
        std::printf(", F-score at %g %.3f", c.thresholds[i], c.fscore[i]);
    std::printf("\n%s covered (within %g %s): %.1f%%; mesh area farther than %g %s from it: %.1f %s2\n", reference,
                c.coverage_threshold, unit, 100.0 * c.coverage, c.far_threshold, unit, c.far_area, unit);
}

void jsonComparison(Json& json, const tessaline_tools::Comparison& c) {
    json.open("comparison");
    const auto way = [&json](const char* key, const tessaline_tools::DistanceStats& d) {
        json.open(key).number("median_mm", d.median).number("p95_mm", d.p95).number("max_mm", d.max).close();
    };
    way("to_reference", c.to_reference);
    way("from_reference", c.from_reference);
    json.number("chamfer_mm", c.chamfer).openList("fscores");
    for (std::size_t i = 0; i < c.thresholds.size(); ++i)
        json.open().number("threshold_mm", c.thresholds[i]).number("fscore", c.fscore[i]).close();
    json.closeList().number("coverage", c.coverage).number("coverage_threshold_mm", c.coverage_threshold).close();
}

int reconstruct(int argc, char** argv) {
    cxxopts::Options options("tessaline reconstruct", "Scan frames in, one triangle mesh out.");
    options.positional_help("INPUT... -o OUTPUT");
    options.add_options()("o,output", "mesh file: .ply, .obj or .stl", cxxopts::value<std::string>())(
        "resolution", "edge of the finest cell in millimetres, or 'auto': 1.5 x the median spacing of the points",
        cxxopts::value<std::string>()->default_value("auto"))(
        "units", "length unit of the input: mm, cm, m or in; the mesh is written in it too",
        cxxopts::value<std::string>()->default_value("mm"))(
        "scale-code", "cell size wish of every point: 1, 2, 4, 8, 16, 32 or 64 (default: the files' own words, else 8)",
        cxxopts::value<int>())("min-piece", "remove pieces of fewer triangles than this (0: keep all)",
                               cxxopts::value<std::size_t>()->default_value("0"))(
        "fill-holes", "close holes whose rim has at most this many edges (0: none)",
        cxxopts::value<std::size_t>()->default_value("0"))("threads", "worker threads (0: all cores)",
                                                           cxxopts::value<int>()->default_value("0"))(
        "reference",
        "a mesh in the input's unit (.ply, .obj, .stl), or 'part' for the built-in part: report the "
        "distance to it",
        cxxopts::value<std::string>())("json", "the summary as one JSON object on standard output")(
        "verbose", "let the library's diagnostic lines through (standard output; standard error with --json)")(
        "quiet", "no progress line and no notes on standard error")("h,help", "show this text")(
        "inputs", "PLY point clouds with normals, directories of them, or a .conf scan list",
        cxxopts::value<std::vector<std::string>>());
    options.parse_positional({"inputs"});
    const cxxopts::ParseResult args = options.parse(argc, argv);
    if (args.count("help")) {
        std::printf(
            "%s\nExamples:\n  tessaline reconstruct scans/bun.conf --units m -o bunny.ply "
            "--reference reference/bun_zipper.ply\n"
            "  tessaline reconstruct frames/ --resolution 0.25 -o part.stl --reference part\n"
            "  tessaline reconstruct cloud.ply --units m -o mesh.ply --min-piece 100 --fill-holes 30 --json\n",
            options.help().c_str());
        return 0;
    }
    if (!args.count("inputs")) throw std::runtime_error("no input given");
    if (!args.count("output")) throw std::runtime_error("no output given (-o FILE.ply|.obj|.stl)");
    const std::string output = args["output"].as<std::string>();
    checkMeshExtension(output);
    const float to_mm = unitToMillimetres(args["units"].as<std::string>());
    const bool explicit_code = args.count("scale-code") > 0;
    const int scale_code = explicit_code ? args["scale-code"].as<int>() : 8;
    if (scale_code != 1 && scale_code != 2 && scale_code != 4 && scale_code != 8 && scale_code != 16 &&
        scale_code != 32 && scale_code != 64)
        throw std::runtime_error("--scale-code must be 1, 2, 4, 8, 16, 32 or 64");
    ResolutionChoice choice;
    choice.automatic = parseResolution(args["resolution"].as<std::string>(), choice.resolution);
    Finishing finishing;
    finishing.min_piece = args["min-piece"].as<std::size_t>();
    finishing.fill_holes = args["fill-holes"].as<std::size_t>();
    if (finishing.fill_holes > 0 && finishing.fill_holes < 3)
        throw std::runtime_error("--fill-holes must be 0 or at least 3 (a hole has three edges or more)");
    const bool json = args.count("json") > 0, quiet = args.count("quiet") > 0;
    const bool verbose = args.count("verbose") > 0;
    applyThreads(args);
    checkWritable(output);  // before the run, not after it

    const auto start = Clock::now();
    const auto since = [](Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); };
    tessaline_tools::Frames frames = readInputs(args["inputs"].as<std::vector<std::string>>(), to_mm, scale_code);
    if (explicit_code)
        for (auto& frame : frames)
            for (auto& w : frame->w) w = (w & ~0xFF) | scale_code;
    std::size_t points = 0;
    for (const auto& f : frames) points += f->xyz.size();
    if (points == 0) throw std::runtime_error("the input holds no points");
    const double read_s = since(start);
    // Read the reference first: a bad reference file should not cost a whole run.
    std::unique_ptr<tessaline_tools::Surface> reference;
    if (args.count("reference")) reference = loadReference(args["reference"].as<std::string>(), to_mm, 300000);
    const auto spacing_start = Clock::now();
    choice.spacing = measureSpacing(frames);
    if (choice.automatic) {
        choice.resolution = SurfaceReconstruction::resolutionForSpacing(choice.spacing);
        if (!(choice.resolution > 0.0f)) {
            choice.resolution = 0.5f;
            if (!quiet)
                std::fprintf(stderr,
                             "tessaline: the point spacing cannot be measured (fewer than two distinct points); "
                             "resolution 0.5 mm\n");
        }
        if (!quiet && !json)
            std::fprintf(stderr,
                         "tessaline: points %.4g mm apart (as dense as an even %.4g mm); resolution auto: %.4g mm\n",
                         choice.spacing.median, choice.spacing.density, choice.resolution);
    }
    // What the points suggest, measured before the frames go to the library, which frees them as it goes.
    const double expected = SurfaceReconstruction::expectedTriangles(frames, choice.spacing, choice.resolution);
    const double spacing_s = since(spacing_start);

    tessaline_tools::RunOptions run_options;
    run_options.resolution = choice.resolution;
    run_options.quiet = !verbose;
    run_options.to_stderr = json;
    run_options.progress = !quiet && isatty(STDERR_FILENO);
    const tessaline_tools::RunReport run = tessaline_tools::runReconstruction(std::move(frames), run_options);
    FinishedMesh finished = finishMesh(*run.mesh, choice.resolution, finishing);
    const std::string warning = sizeWarning(choice, finished.statistics.triangles, expected);
    const bool empty = finished.statistics.triangles == 0;
    std::unique_ptr<tessaline_tools::Comparison> comparison;
    if (reference && !empty) {
        const auto mesh_surface = tessaline_tools::meshSurface(finished.mesh, 300000);
        comparison.reset(new tessaline_tools::Comparison(
            tessaline_tools::compareSurfaces(*mesh_surface, *reference, {0.1, 0.5}, 1.0)));
    }
    tessaline_tools::scaleMesh(finished.mesh, 1.0f / to_mm);  // written in the input's unit
    const auto write_start = Clock::now();
    if (!empty) tessaline_tools::writeMesh(output, finished.mesh);
    const Timings timings = {read_s, spacing_s, since(write_start)};

    if (!warning.empty()) std::fprintf(stderr, "tessaline: %s%s\n", empty ? "" : "warning: ", warning.c_str());
    if (json) {
        std::string text;
        Json j(text);
        const auto& s = finished.statistics;
        j.open()
            .count("frames", run.frames)
            .count("points", run.points)
            .count("blocks", static_cast<std::size_t>(run.blocks));
        j.number("point_spacing_mm", choice.spacing.median).number("even_spacing_mm", choice.spacing.density);
        j.number("resolution_mm", choice.resolution)
            .count("scale_code", static_cast<std::size_t>(choice.spacing.scale_code));
        j.boolean("resolution_auto", choice.automatic);
        j.count("triangles", s.triangles)
            .count("vertices", s.vertices)
            .count("degenerate_dropped", finished.degenerate);
        j.count("boundary_edges", s.boundary_edges).count("boundary_loops", s.boundary_loops).count("pieces", s.pieces);
        j.number("area", s.area).count("triangles_removed", finished.removed).count("holes_filled", finished.filled);
        j.number("expected_triangles_at_least", expected);
        j.open("seconds").number("reading", read_s).number("spacing", spacing_s);
        j.number("blocks", run.stage_seconds[0]).number("fusion", run.stage_seconds[1]);
        j.number("meshing", run.stage_seconds[2]).number("finishing", finished.seconds);
        j.number("writing", timings.writing).close();
        j.number("peak_memory_mib", tessaline_tools::peakMemoryMiB());
        if (comparison) jsonComparison(j, *comparison);
        j.openList("warnings");
        if (!warning.empty()) j.text(nullptr, warning);
        j.closeList();
        if (empty)
            j.null("output");
        else
            j.text("output", output);
        j.close();
        std::printf("%s\n", text.c_str());
    } else {
        printSummary(run, choice, finished, finishing, timings, "reading");
        if (comparison) printComparison(*comparison, "the reference", "mm");
        if (!empty) std::printf("wrote %s\n", output.c_str());
    }
    return empty ? 3 : 0;
}

std::string joinPath(const std::string& folder, const std::string& name) {
    return folder.empty() || folder == "." ? name : folder + "/" + name;
}

void makeFolder(const std::string& folder) {
    if (isDirectory(folder)) return;
    if (mkdir(folder.c_str(), 0777) != 0) throw std::runtime_error(folder + ": cannot create the directory");
}

int simulate(int argc, char** argv) {
    cxxopts::Options options(
        "tessaline simulate",
        "Scans the built-in part with a simulated handheld laser-line scanner and writes the frames.");
    options.add_options()("o,output", "directory for the frames (frame_00000.ply, ...) and optimized-markers.txt",
                          cxxopts::value<std::string>())("points", "points of the whole scan",
                                                         cxxopts::value<std::size_t>()->default_value("600000"))(
        "seed", "seed of the scan's random streams", cxxopts::value<std::uint64_t>()->default_value("1"))(
        "threads", "worker threads (0: all cores)", cxxopts::value<int>()->default_value("0"))("h,help",
                                                                                               "show this text");
    const cxxopts::ParseResult args = options.parse(argc, argv);
    if (args.count("help")) {
        std::printf(
            "%s\nExample:\n  tessaline simulate -o frames/ && tessaline reconstruct frames/ -o part.ply --reference "
            "part\n",
            options.help().c_str());
        return 0;
    }
    if (!args.count("output")) throw std::runtime_error("no output directory given (-o DIR)");
    applyThreads(args);
    const std::string folder = args["output"].as<std::string>();
    makeFolder(folder);
    tessaline_tools::ScanSimulation settings;
    settings.target_points = args["points"].as<std::size_t>();
    settings.seed = args["seed"].as<std::uint64_t>();
    const tessaline_tools::Frames frames = tessaline_tools::simulateScan(settings);
    std::size_t points = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "frame_%05zu.ply", i);
        tessaline_tools::writePlyPointCloud(joinPath(folder, name), *frames[i]);
        points += frames[i]->xyz.size();
    }
    const SurfaceReconstruction::MarkerInfos markers = tessaline_tools::simulatedMarkers();
    FILE* file = std::fopen(joinPath(folder, "optimized-markers.txt").c_str(), "w");
    if (file == nullptr) throw std::runtime_error(folder + ": cannot write optimized-markers.txt");
    std::fprintf(file, "# id x y z nx ny nz (millimetres)\n");
    for (std::size_t m = 0; m < markers.ids.size(); ++m)
        std::fprintf(file, "%d %.6f %.6f %.6f %.6f %.6f %.6f\n", markers.ids[m], markers.xyz[m][0], markers.xyz[m][1],
                     markers.xyz[m][2], markers.nor[m][0], markers.nor[m][1], markers.nor[m][2]);
    std::fclose(file);
    std::printf("wrote %zu frames, %zu points, to %s\n", frames.size(), points, folder.c_str());
    return 0;
}

int demo(int argc, char** argv) {
    cxxopts::Options options(
        "tessaline demo", "Scans the built-in part (simulated), reconstructs it, and writes the mesh and a picture.");
    options.add_options()("o,output", "directory for tessaline-demo.ply and tessaline-demo.png",
                          cxxopts::value<std::string>()->default_value("."))(
        "points", "points of the simulated scan", cxxopts::value<std::size_t>()->default_value("1000000"))(
        "resolution", "edge of the finest cell, in millimetres", cxxopts::value<float>()->default_value("0.5"))(
        "threads", "worker threads (0: all cores)", cxxopts::value<int>()->default_value("0"))(
        "verbose", "let the library's diagnostic lines through to standard output")(
        "quiet", "no progress line and no notes on standard error")("h,help", "show this text");
    const cxxopts::ParseResult args = options.parse(argc, argv);
    if (args.count("help")) {
        std::printf("%s", options.help().c_str());
        return 0;
    }
    const float resolution = args["resolution"].as<float>();
    char resolution_text[32];
    std::snprintf(resolution_text, sizeof(resolution_text), "%g", resolution);
    checkResolution(resolution, resolution_text);
    applyThreads(args);
    const std::string folder = args["output"].as<std::string>();
    makeFolder(folder);

    const auto start = Clock::now();
    tessaline_tools::ScanSimulation settings;
    settings.target_points = args["points"].as<std::size_t>();
    const bool quiet = args.count("quiet") > 0;
    if (!quiet) std::fprintf(stderr, "simulating the scan of the built-in part ...\n");
    tessaline_tools::Frames frames = tessaline_tools::simulateScan(settings);
    const double simulate_s = std::chrono::duration<double>(Clock::now() - start).count();

    ResolutionChoice choice;
    choice.resolution = resolution;
    const auto spacing_start = Clock::now();
    choice.spacing = measureSpacing(frames);
    Timings timings = {simulate_s, std::chrono::duration<double>(Clock::now() - spacing_start).count(), 0.0};
    tessaline_tools::RunOptions run_options;
    run_options.resolution = resolution;
    run_options.quiet = args.count("verbose") == 0;
    run_options.progress = !quiet && isatty(STDERR_FILENO);
    const tessaline_tools::RunReport run = tessaline_tools::runReconstruction(std::move(frames), run_options);
    const Finishing finishing;
    const FinishedMesh finished = finishMesh(*run.mesh, resolution, finishing);
    const std::string mesh_path = joinPath(folder, "tessaline-demo.ply"),
                      picture_path = joinPath(folder, "tessaline-demo.png");
    const auto write_start = Clock::now();
    tessaline_tools::writeMesh(mesh_path, finished.mesh);
    timings.writing = std::chrono::duration<double>(Clock::now() - write_start).count();
    tessaline_tools::writePng(picture_path, tessaline_tools::renderViews(trianglesOf(finished.mesh), 600));
    std::printf(
        "\ntessaline demo: the built-in part (a block with sharp edges, a hole, a dome, a 1 mm wall and a\n"
        "0.5 mm deep engraved ring), scanned by a simulated laser-line scanner, reconstructed at %g mm\n",
        resolution);
    printSummary(run, choice, finished, finishing, timings, "simulating");
    const auto mesh_surface = tessaline_tools::meshSurface(finished.mesh, 300000);
    const auto part = tessaline_tools::partSurface(0.15);
    printComparison(tessaline_tools::compareSurfaces(*mesh_surface, *part, {0.1, 0.5}, 1.0), "the true surface", "mm");
    std::printf("wrote %s and %s\n", mesh_path.c_str(), picture_path.c_str());
    return 0;
}

int render(int argc, char** argv) {
    cxxopts::Options options("tessaline render", "A shaded picture of a mesh from four directions.");
    options.positional_help("MESH -o PNG");
    options.add_options()("o,output", "PNG file", cxxopts::value<std::string>())(
        "size", "pixels of each of the four views", cxxopts::value<int>()->default_value("600"))(
        "h,help", "show this text")("mesh", "mesh file: .ply, .obj or .stl", cxxopts::value<std::string>());
    options.parse_positional({"mesh"});
    const cxxopts::ParseResult args = options.parse(argc, argv);
    if (args.count("help")) {
        std::printf("%s\nExample:\n  tessaline render bunny.ply -o bunny.png\n", options.help().c_str());
        return 0;
    }
    if (!args.count("mesh")) throw std::runtime_error("no mesh given");
    if (!args.count("output")) throw std::runtime_error("no output given (-o FILE.png)");
    const int size = args["size"].as<int>();
    if (size < 16 || size > 8192) throw std::runtime_error("--size must be between 16 and 8192");
    const tessaline_tools::IndexedMesh mesh = tessaline_tools::readMesh(args["mesh"].as<std::string>());
    if (mesh.triangles.empty()) throw std::runtime_error(args["mesh"].as<std::string>() + ": no triangles");
    tessaline_tools::writePng(args["output"].as<std::string>(), tessaline_tools::renderViews(trianglesOf(mesh), size));
    std::printf("wrote %s\n", args["output"].as<std::string>().c_str());
    return 0;
}

int compare(int argc, char** argv) {
    cxxopts::Options options("tessaline compare", "How close a mesh lies to a reference surface, both ways.");
    options.positional_help("MESH REFERENCE");
    options.add_options()("units", "length unit of both files (mm, cm, m, in); distances are reported in mm",
                          cxxopts::value<std::string>()->default_value("mm"))(
        "threshold", "distances for the F-scores, mm, comma-separated",
        cxxopts::value<std::string>()->default_value("0.1,0.5"))(
        "coverage", "the reference counts as covered where the mesh lies this close, mm",
        cxxopts::value<double>()->default_value("1.0"))("samples", "points sampled on each mesh",
                                                        cxxopts::value<std::size_t>()->default_value("300000"))(
        "h,help", "show this text")("files", "MESH REFERENCE (.ply, .obj or .stl meshes; 'part' for the built-in part)",
                                    cxxopts::value<std::vector<std::string>>());
    options.parse_positional({"files"});
    const cxxopts::ParseResult args = options.parse(argc, argv);
    if (args.count("help")) {
        std::printf(
            "%s\nExamples:\n  tessaline compare bunny.ply reference/bun_zipper.ply --units m\n"
            "  tessaline compare tessaline-demo.ply part\n",
            options.help().c_str());
        return 0;
    }
    if (!args.count("files") || args["files"].as<std::vector<std::string>>().size() != 2)
        throw std::runtime_error("give a mesh and a reference (a .ply, .obj or .stl mesh, or 'part')");
    const auto files = args["files"].as<std::vector<std::string>>();
    const float to_mm = unitToMillimetres(args["units"].as<std::string>());
    const std::size_t samples = args["samples"].as<std::size_t>();
    if (samples == 0) throw std::runtime_error("--samples must be above 0");
    const double coverage = args["coverage"].as<double>();
    if (!(coverage > 0)) throw std::runtime_error("--coverage must be above 0");
    const auto thresholds = parseThresholds(args["threshold"].as<std::string>());
    const auto mesh_surface = comparedSurface(files[0], to_mm, samples);
    const auto reference = loadReference(files[1], to_mm, samples);
    printComparison(tessaline_tools::compareSurfaces(*mesh_surface, *reference, thresholds, coverage), "the reference",
                    "mm");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
#if defined(__GLIBC__)
    // Arrays of 128 KiB or more are mapped on their own and given back when freed. The C library would
    // raise that size with every such array freed, up to 32 MiB, and keep the freed arrays below it
    // resident in its heaps: 10 to 35 MiB of a run's peak that nothing holds. A size the user set stays.
    if (std::getenv("MALLOC_MMAP_THRESHOLD_") == nullptr && std::getenv("GLIBC_TUNABLES") == nullptr)
        mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    if (argc < 2) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    const std::string command = argv[1];
    try {
        if (command == "--help" || command == "-h" || command == "help") {
            std::fputs(USAGE, stdout);
            return 0;
        }
        if (command == "--version") {
            std::printf("tessaline %s, backend: %s\n", TESSALINE_VERSION_STRING, TESSALINE_BACKEND);
            return 0;
        }
        if (command == "--check-device") {
            std::string message;
            const int status = SurfaceReconstruction::InitGPUCUDA(message);
            if (status == 0)
                std::printf("the compute device is ready (backend: %s)\n", TESSALINE_BACKEND);
            else
                std::printf("no usable compute device (backend: %s): %s (status %d)\n", TESSALINE_BACKEND,
                            message.c_str(), status);
            return status == 0 ? 0 : 1;
        }
        if (command == "reconstruct") return reconstruct(argc - 1, argv + 1);
        if (command == "simulate") return simulate(argc - 1, argv + 1);
        if (command == "demo") return demo(argc - 1, argv + 1);
        if (command == "render") return render(argc - 1, argv + 1);
        if (command == "compare") return compare(argc - 1, argv + 1);
        std::fprintf(stderr, "tessaline: unknown command '%s'\n\n%s", command.c_str(), USAGE);
        return 2;
    } catch (const cxxopts::exceptions::exception& e) {
        std::fprintf(stderr, "tessaline: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tessaline: %s\n", e.what());
        return 1;
    }
}
