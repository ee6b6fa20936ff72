// tessaline: the command-line front of the library. `reconstruct` reads scan frames, runs the library
// through its public interface, as any application does, and writes the mesh; `simulate`, `demo`,
// `render` and `compare` make scans of the built-in part, pictures and accuracy figures.
#include "tessaline/Tessaline.h"

#include <fcntl.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxopts.hpp>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "InOrder.h"
#include "MeshIO.h"
#include "MeshRender.h"
#include "OutputFile.h"
#include "PointCloudIO.h"
#include "RangeScan.h"
#include "Reconstruction.h"
#include "ScanFiles.h"
#include "ScanFormats.h"
#include "ScanInput.h"
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
    "  reconstruct INPUT... -o OUTPUT   scan frames in (PLY, PTX, PTS/XYZ, PCD, LAS), mesh out\n"
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
    "  tessaline reconstruct room.ptx --units m -o room.ply\n"
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

std::string joinPath(const std::string& folder, const std::string& name) {
    return folder.empty() || folder == "." ? name : folder + "/" + name;
}

// The optimized markers that `simulate` writes beside its frames and `reconstruct` reads from beside them.
constexpr const char* MARKERS_FILE = "optimized-markers.txt";

using tessaline_tools::markersFileFor;
using tessaline_tools::unitToMillimetres;

// The frames of every input: scan lists, point files of any format readScanFile knows and folders of them
// (`output` left out of a folder), with what the files say beside the points: normals given or not, the
// scanner's position, colours. The run's origin is that of its first LAS file (zero without one): every
// frame is read relative to it.
tessaline_tools::ScanInput readInputs(const std::vector<std::string>& inputs, float to_mm, int scale_code,
                                      const std::string& output, bool quiet) {
    // The files of each input first: the origin must be known before any point is read.
    const std::vector<tessaline_tools::ScanUnit> units = tessaline_tools::scanUnits(inputs, output);
    tessaline_tools::ScanInput scan;
    scan.origin = tessaline_tools::scanOrigin(units, to_mm);
    tessaline_tools::ScanReadOptions options;
    options.scale = to_mm;
    options.scale_code = scale_code;
    options.origin = scan.origin;
    for (std::size_t first = 0; first < units.size();) {
        // A scan list alone; the point files between scan lists on all cores (named one by one or found in
        // folders alike), each one's frames into its place, the notes and the first failure in file order.
        std::size_t last = first + 1;
        if (!units[first].range_set)
            while (last < units.size() && !units[last].range_set) ++last;
        std::vector<tessaline_tools::ScanInput> read(last - first);
        std::vector<tessaline_tools::ScanReadNotes> notes(last - first);
        tessaline_tools::forEachInOrder(last - first, [&](std::size_t i) {
            tessaline_tools::readScanUnit(units[first + i], options, read[i], notes[i]);
        });
        for (std::size_t i = 0; i < read.size(); ++i) {
            for (std::size_t f = 0; f < read[i].frames.size(); ++f)
                scan.add(std::move(read[i].frames[f]), std::move(read[i].extras[f]));
            const std::string& path = units[first + i].path;
            if (notes[i].dropped > 0 && !quiet)
                std::fprintf(stderr, "tessaline: %s: %zu points with NaN coordinates or no normal left out\n",
                             path.c_str(), notes[i].dropped);
            if (notes[i].faces > 0 && !quiet)
                std::fprintf(stderr, "tessaline: %s is a mesh (%ld faces): its vertices are read as points\n",
                             path.c_str(), notes[i].faces);
        }
        first = last;
    }
    return scan;
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
tessaline_tools::IndexedMesh readComparedMesh(const std::string& path, float to_mm,
                                              const tessaline_tools::Origin* origin = nullptr) {
    constexpr float FARTHEST = 1e12f;
    tessaline_tools::IndexedMesh mesh = tessaline_tools::readMesh(path, to_mm, origin);
    for (const auto& v : mesh.vertices)
        for (float c : v)
            if (!(std::fabs(c) <= FARTHEST))
                throw std::runtime_error(path + ": a vertex beyond 1e12 mm from the origin, or not a finite number");
    if (mesh.triangles.empty())
        throw std::runtime_error(path + ": no triangles (a point cloud cannot be compared; give a mesh)");
    return mesh;
}

std::unique_ptr<tessaline_tools::Surface> comparedSurface(const std::string& path, float to_mm, std::size_t samples,
                                                          const tessaline_tools::Origin* origin = nullptr) {
    auto surface = tessaline_tools::meshSurface(readComparedMesh(path, to_mm, origin), samples);
    if (surface->samples().empty()) throw std::runtime_error(path + ": no triangle has an area");
    return surface;
}

// The reference of a comparison: the built-in part, or a mesh file scaled to millimetres (the run's origin
// taken off, where it has one).
std::unique_ptr<tessaline_tools::Surface> loadReference(const std::string& reference, float to_mm, std::size_t samples,
                                                        const tessaline_tools::Origin* origin = nullptr) {
    if (reference == "part") return tessaline_tools::partSurface(0.15);
    return comparedSurface(reference, to_mm, samples, origin);
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

// What a user reads when memory ran out, and what to change.
constexpr const char* MEMORY_ADVICE = "lower the resolution or raise the memory limit";

// A step of the mesh library that ended with `status`: the failure with the library's status (66049 when
// memory ran out, with what to change).
[[noreturn]] void libraryFailure(const std::string& what, int status) {
    std::string text = what + " failed with status " + std::to_string(status);
    if (status == SurfaceReconstruction::TESSALINE_OUT_OF_MEMORY)
        text += ": memory ran out; " + std::string(MEMORY_ADVICE);
    throw tessaline_tools::RunFailure(text, status);
}

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
    if (status != 0) libraryFailure("finishing the mesh", status);
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return out;
}

// Lets go of what it holds on a thread of its own, which the destructor waits for; on this thread where
// no thread can be had.
class ReleasedAside {
public:
    template <class Held>
    explicit ReleasedAside(Held held) {
        try {
            m_thread = std::thread([held = std::move(held)]() mutable { held = Held(); });
        } catch (const std::system_error&) {  // the callable, and what it holds, went on this thread
        }
    }
    ~ReleasedAside() {
        if (m_thread.joinable()) m_thread.join();
    }
    ReleasedAside(const ReleasedAside&) = delete;
    ReleasedAside& operator=(const ReleasedAside&) = delete;

private:
    std::thread m_thread;
};

// How the resolution of a run came about.
struct ResolutionChoice {
    float resolution = 0.5f;  // millimetres
    bool automatic = false;
    SurfaceReconstruction::PointSpacing spacing;   // millimetres
    SurfaceReconstruction::ScaleCodeChoice codes;  // auto: the points' codes, set from their density
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

// The estimate measures the neighbours of this many of its thinned points: within half a percent of what
// 20,000 give on the bunny and the simulated parts, and a third of the time, which a warning's figure
// does not need.
constexpr std::size_t ESTIMATE_MEASURED = 8000;

// The spacing of the points: measured where it chooses the resolution, estimated from a thinned sample where
// it only feeds the warning about a mesh too small for its points (its `median` then stays 0).
SurfaceReconstruction::PointSpacing measureSpacing(const tessaline_tools::Frames& frames, bool exact = true) {
    SurfaceReconstruction::PointSpacing spacing;
    const int status = exact ? SurfaceReconstruction::measurePointSpacing(frames, spacing)
                             : SurfaceReconstruction::estimatePointSpacing(frames, spacing, 200000, ESTIMATE_MEASURED);
    if (status != 0) libraryFailure("measuring the point spacing", status);
    return spacing;
}

// The advice of a warning about a mesh too small for its points.
std::string resolutionAdvice(const ResolutionChoice& choice) {
    char text[256];
    // What auto takes: the finest cells, code 8, as wide as the rule has them for the wished ones.
    const float suggested = SurfaceReconstruction::autoResolutionForSpacing(choice.spacing);
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
                      "the mesh is empty: at a resolution of %.3g mm no cell held enough points (points as dense as "
                      "an even %.3g mm); %s",
                      choice.resolution, choice.spacing.density, resolutionAdvice(choice).c_str());
        return text;
    }
    if (static_cast<double>(triangles) >= expected * SMALL_MESH_SHARE) return "";
    std::snprintf(text, sizeof(text),
                  "the mesh has %zu triangles where points as dense as an even %.3g mm should give about %.0f: the "
                  "resolution %.3g mm is too fine for them; %s",
                  triangles, choice.spacing.density, expected, choice.resolution, resolutionAdvice(choice).c_str());
    return text;
}

// The times of the program's own steps around the library's run.
struct Timings {
    double input = 0;      // reading the frames, or simulating them
    double spacing = 0;    // the point spacing and what the points suggest
    double writing = 0;    // the mesh file
    double normals = 0;    // the normals of frames that came without them
    double colouring = 0;  // the coloured points kept before the run, the vertices' colours after it
};

// The share of the points at each code, finest first, and how the wishes for finer cells fared: "code 8
// 27.9%, 4 58.6%, 2 13.1%, 1 0.4% of the points; 84% of the 260123 that asked for finer cells got code 8".
std::string describeCodes(const SurfaceReconstruction::ScaleCodeChoice& codes) {
    std::size_t total = 0;
    for (const std::size_t n : codes.points) total += n;
    std::string text;
    char part[96];
    for (int k = 0; k < 7; ++k) {
        if (codes.points[k] == 0) continue;
        std::snprintf(part, sizeof(part), "%s%s%d %.1f%%", text.empty() ? "" : ", ", text.empty() ? "code " : "",
                      64 >> k, 100.0 * static_cast<double>(codes.points[k]) / static_cast<double>(total));
        text += part;
    }
    text += " of the points";
    if (codes.finer_wishes > 0) {
        std::snprintf(part, sizeof(part), "; %.0f%% of the %zu that asked for finer cells got code 8",
                      100.0 * static_cast<double>(codes.finer_kept) / static_cast<double>(codes.finer_wishes),
                      codes.finer_wishes);
        text += part;
    }
    return text;
}

// The markers' errors over the whole scan: the observations the run accepted, their mean and the largest.
struct MarkerSummary {
    std::size_t given = 0, observations = 0;
    double mean = 0.0, max = 0.0;  // millimetres
};

MarkerSummary summariseMarkers(const tessaline_tools::RunReport& run) {
    MarkerSummary summary;
    if (!run.marker_errors) return summary;
    double sum = 0.0;
    for (const SurfaceReconstruction::OptedMarker& m : *run.marker_errors) {
        ++summary.given;
        summary.observations += static_cast<std::size_t>(std::max(0, m.count));
        sum += static_cast<double>(m.mean) * m.count;
        summary.max = std::max(summary.max, static_cast<double>(m.max));
    }
    if (summary.observations > 0) summary.mean = sum / static_cast<double>(summary.observations);
    return summary;
}

// The frames the markers left out, as one line: "frames left out by their markers (2): 183 366".
std::string describeLeftOut(const std::vector<std::size_t>& frames) {
    if (frames.empty()) return "no frame left out by its markers";
    std::string text = "frames left out by their markers (" + std::to_string(frames.size()) + "):";
    for (const std::size_t f : frames) text += " " + std::to_string(f);
    return text;
}

void printSummary(const tessaline_tools::RunReport& run, const ResolutionChoice& choice, const FinishedMesh& finished,
                  const Finishing& finishing, const Timings& timings, const char* input_label) {
    std::printf("frames %zu, points %zu, blocks %d\n", run.frames, run.points, run.blocks);
    if (run.marker_errors) {
        const MarkerSummary m = summariseMarkers(run);
        std::printf("markers %zu: %zu observations, mean error %.4g mm, largest %.4g mm; %s\n", m.given, m.observations,
                    m.mean, m.max, describeLeftOut(run.frames_left_out).c_str());
    }
    if (choice.spacing.median > 0.0f)
        std::printf("point spacing: median %.4g mm to the nearest point, as dense as an even %.4g mm; ",
                    choice.spacing.median, choice.spacing.density);
    else
        std::printf("point spacing: as dense as an even %.4g mm (estimated from a sample); ", choice.spacing.density);
    if (choice.automatic && choice.codes.resolution > 0.0f)
        std::printf("resolution auto: %.4g mm (%.2g x %.4g mm), cells from the points' density: %s\n",
                    choice.resolution, choice.resolution / choice.spacing.density, choice.spacing.density,
                    describeCodes(choice.codes).c_str());
    else if (choice.automatic)
        std::printf("resolution auto: %.4g mm (the spacing could not be measured)\n", choice.resolution);
    else
        std::printf("resolution %.4g mm\n", choice.resolution);
    const auto& s = finished.statistics;
    std::printf("triangles %zu (%zu degenerate dropped), vertices %zu, boundary edges %zu, pieces %zu\n", s.triangles,
                finished.degenerate, s.vertices, s.boundary_edges, s.pieces);
    if (finishing.min_piece > 1)
        std::printf("pieces under %zu triangles: %zu triangles removed\n", finishing.min_piece, finished.removed);
    if (finishing.fill_holes >= 3)
        std::printf("holes of at most %zu edges: %zu filled\n", finishing.fill_holes, finished.filled);
    char normals[48] = "", colouring[48] = "";
    if (timings.normals > 0) std::snprintf(normals, sizeof(normals), "normals %.2f s, ", timings.normals);
    if (timings.colouring > 0) std::snprintf(colouring, sizeof(colouring), "colouring %.2f s, ", timings.colouring);
    std::printf(
        "time: %s %.2f s, %sspacing %.2f s, blocks %.2f s, fusion %.2f s, meshing %.2f s, finishing %.2f s, %swriting "
        "%.2f s (the library %.0f points/s); peak memory %.0f MiB\n",
        input_label, timings.input, normals, timings.spacing, run.stage_seconds[0], run.stage_seconds[1],
        run.stage_seconds[2], finished.seconds, colouring, timings.writing,
        run.seconds > 0 ? static_cast<double>(run.points) / run.seconds : 0.0, tessaline_tools::peakMemoryMiB());
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

// Normals for the frames whose files had none (see estimateNormals): faced toward the scanner where the
// file, or --sensor (`sensor`, millimetres, when given), says where it stood; elsewhere oriented over the
// neighbour graph from the outside in.
struct MadeNormals {
    bool made = false;
    SurfaceReconstruction::NormalEstimate estimate;
    double seconds = 0;
};

MadeNormals makeNormals(tessaline_tools::ScanInput& scan, const std::array<double, 3>* sensor) {
    MadeNormals out;
    if (!scan.missingNormals()) return out;
    const auto start = Clock::now();
    std::vector<SurfaceReconstruction::FrameNormalSource> sources(scan.frames.size());
    for (std::size_t f = 0; f < sources.size(); ++f) {
        const tessaline_tools::FrameExtras& extras = scan.extras[f];
        sources[f].estimate = !extras.normals;
        sources[f].sensor_known = extras.sensor || sensor != nullptr;
        if (sources[f].sensor_known) sources[f].sensor = extras.sensor ? extras.sensor_position : *sensor;
    }
    const int status = SurfaceReconstruction::estimateNormals(scan.frames, sources, out.estimate);
    if (status != 0) libraryFailure("estimating the normals", status);
    out.made = true;
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return out;
}

std::string describeNormals(const SurfaceReconstruction::NormalEstimate& e) {
    char text[512];
    std::snprintf(text, sizeof(text),
                  "normals estimated for %zu points from their %d nearest neighbours: %zu faced toward the scanner, "
                  "%zu oriented from the outside in, %zu left out (%zu with too few neighbours within %.3g mm, %zu "
                  "without a clear plane)",
                  e.points, e.neighbours, e.toward_sensor, e.propagated, e.left_out, e.too_few_neighbours, e.reach,
                  e.no_clear_plane);
    return text;
}

// The coloured points of a scan, kept for the mesh's colours: the library frees the frames as it goes.
// 15 bytes a point (position and colour); the frames' own colour lists are let go.
struct ColourSource {
    std::vector<SurfaceReconstruction::Vec3f> points;
    std::vector<SurfaceReconstruction::Rgb> colours;
    SurfaceReconstruction::VertexColouring colouring;  // how the mesh was coloured
    double seconds = 0;
};

ColourSource keepColouredPoints(tessaline_tools::ScanInput& scan) {
    ColourSource out;
    const auto start = Clock::now();
    std::size_t n = 0;
    for (std::size_t f = 0; f < scan.frames.size(); ++f)
        if (scan.extras[f].colours.size() == scan.frames[f]->xyz.size()) n += scan.extras[f].colours.size();
    out.points.reserve(n);
    out.colours.reserve(n);
    for (std::size_t f = 0; f < scan.frames.size(); ++f) {
        std::vector<tessaline_tools::Colour>& colours = scan.extras[f].colours;
        if (colours.size() == scan.frames[f]->xyz.size()) {
            out.points.insert(out.points.end(), scan.frames[f]->xyz.begin(), scan.frames[f]->xyz.end());
            out.colours.insert(out.colours.end(), colours.begin(), colours.end());
        }
        std::vector<tessaline_tools::Colour>().swap(colours);
    }
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return out;
}

// Colours the finished mesh (millimetres) from the kept points, then lets them go.
void colourMesh(tessaline_tools::IndexedMesh& mesh, ColourSource& source, float resolution) {
    const auto start = Clock::now();
    const int status =
        SurfaceReconstruction::colourVertices(mesh, source.points, source.colours, resolution, &source.colouring);
    if (status != 0) libraryFailure("colouring the mesh", status);
    std::vector<SurfaceReconstruction::Vec3f>().swap(source.points);
    std::vector<SurfaceReconstruction::Rgb>().swap(source.colours);
    source.seconds += std::chrono::duration<double>(Clock::now() - start).count();
}

// --sensor X,Y,Z: three numbers, in the input's unit.
std::array<double, 3> parseSensor(const std::string& text, float to_mm) {
    std::array<double, 3> position;
    const char* at = text.c_str();
    for (int k = 0; k < 3; ++k) {
        char* end = nullptr;
        position[k] = std::strtod(at, &end);
        const char expected = k < 2 ? ',' : '\0';
        if (end == at || *end != expected || !std::isfinite(position[k]))
            throw std::runtime_error("--sensor must be X,Y,Z, where the scanner stood in the input's unit, not '" +
                                     text + "'");
        position[k] *= to_mm;
        at = end + 1;
    }
    return position;
}

int reconstruct(int argc, char** argv) {
    cxxopts::Options options("tessaline reconstruct", "Scan frames in, one triangle mesh out.");
    options.positional_help("INPUT... -o OUTPUT");
    options.add_options()("o,output", "mesh file: .ply, .obj or .stl", cxxopts::value<std::string>())(
        "resolution",
        "edge of the finest cell in millimetres, or 'auto': chosen from the points, 1.5 x the spacing of an even "
        "sampling as dense as they are (2 x where at least a tenth ask for finer cells than code 8's), and every "
        "point's scale code from the density around it (README: the resolution chosen from the points)",
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
        "quiet", "no progress line and no notes on standard error")(
        "sensor",
        "X,Y,Z: where the scanner stood, in the input's unit, for points without normals whose files do not say: "
        "their normals are turned toward it",
        cxxopts::value<std::string>())(
        "markers",
        "the scan's optimized markers (lines 'id x y z nx ny nz', the input's unit): frames whose own markers, "
        "placed by their pose, stand out from them are left out; default: optimized-markers.txt beside the "
        "inputs when there is one; 'none': no markers",
        cxxopts::value<std::string>())("h,help", "show this text")(
        "inputs",
        "point clouds (.ply, .ptx, .pts, .xyz, .txt, .pcd, .las; with normals or without), folders of them, or a "
        ".conf scan list",
        cxxopts::value<std::vector<std::string>>());
    options.parse_positional({"inputs"});
    const cxxopts::ParseResult args = options.parse(argc, argv);
    if (args.count("help")) {
        std::printf(
            "%s\nExamples:\n  tessaline reconstruct scans/bun.conf --units m -o bunny.ply "
            "--reference reference/bun_zipper.ply\n"
            "  tessaline reconstruct frames/ --resolution 0.25 -o part.stl --reference part\n"
            "  tessaline reconstruct cloud.ply --units m -o mesh.ply --min-piece 100 --fill-holes 30 --json\n"
            "  tessaline reconstruct room.ptx --units m -o room.ply      # also .pts, .xyz, .txt, .pcd, .las\n"
            "  tessaline reconstruct points_without_normals.ply -o mesh.ply --sensor 0,0,400\n"
            "\nA folder is read as all its .ply, .ptx, .pts, .xyz, .pcd and .las files (README: point formats).\n",
            options.help().c_str());
        return 0;
    }
    if (!args.count("inputs")) throw std::runtime_error("no input given");
    if (!args.count("output")) throw std::runtime_error("no output given (-o FILE.ply|.obj|.stl)");
    const std::string output = args["output"].as<std::string>();
    checkMeshExtension(output);
    const float to_mm = unitToMillimetres(args["units"].as<std::string>());
    std::array<double, 3> sensor = {0.0, 0.0, 0.0};
    const bool sensor_given = args.count("sensor") > 0;
    if (sensor_given) sensor = parseSensor(args["sensor"].as<std::string>(), to_mm);
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
    tessaline_tools::checkOutput(output);  // before the run, not after it

    const auto start = Clock::now();
    const auto since = [](Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); };
    const std::vector<std::string> inputs = args["inputs"].as<std::vector<std::string>>();
    const std::string markers_file =
        markersFileFor(inputs, args.count("markers") ? args["markers"].as<std::string>() : std::string());
    std::shared_ptr<const SurfaceReconstruction::MarkerInfos> markers;
    if (!markers_file.empty())
        markers = std::make_shared<const SurfaceReconstruction::MarkerInfos>(
            tessaline_tools::readOptimizedMarkers(markers_file, to_mm));
    tessaline_tools::ScanInput scan = readInputs(inputs, to_mm, scale_code, output, quiet);
    if (scan.hasOrigin() && !tessaline_tools::keepsOrigin(output))
        throw std::runtime_error(output +
                                 ": STL holds coordinates as floats, which cannot keep the geo-referenced "
                                 "coordinates of the input to a millimetre; write .ply or .obj");
    // The origin in the input's unit, added back to the mesh as it is written; a given scanner position is
    // held relative to it like the points.
    tessaline_tools::Origin origin_in_unit;
    for (int k = 0; k < 3; ++k) {
        origin_in_unit[k] = scan.origin[k] / to_mm;
        sensor[k] -= scan.origin[k];
    }
    tessaline_tools::Frames& frames = scan.frames;
    if (explicit_code)
        for (auto& frame : frames)
            for (auto& w : frame->w) w = (w & ~0xFF) | scale_code;
    std::size_t points = 0;
    for (const auto& f : frames) points += f->xyz.size();
    if (points == 0) {
        std::string names;
        for (const std::string& input : inputs) names += (names.empty() ? "" : ", ") + input;
        throw std::runtime_error(names + ": the input holds no points");
    }
    const double read_s = since(start);
    // Read the reference first: a bad reference file should not cost a whole run.
    std::unique_ptr<tessaline_tools::Surface> reference;
    if (args.count("reference"))
        reference = loadReference(args["reference"].as<std::string>(), to_mm, 300000,
                                  scan.hasOrigin() ? &scan.origin : nullptr);
    const MadeNormals normals = makeNormals(scan, sensor_given ? &sensor : nullptr);
    if (normals.made && !quiet) std::fprintf(stderr, "tessaline: %s\n", describeNormals(normals.estimate).c_str());
    const auto spacing_start = Clock::now();
    if (choice.automatic) {
        // Every point's code from the density around it, and the resolution: the words are rewritten.
        const int status = SurfaceReconstruction::chooseScaleCodes(frames, choice.codes);
        if (status != 0)
            throw std::runtime_error("choosing the cell sizes from the points failed with status " +
                                     std::to_string(status));
        choice.spacing = choice.codes.spacing;
        choice.resolution = choice.codes.resolution;
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
    } else {
        choice.spacing = measureSpacing(frames, false);
    }
    // What the points suggest, measured before the frames go to the library, which frees them as it goes:
    // from the estimate's counts of the codes, or, where auto has rewritten the codes, from the points.
    const double expected = choice.automatic
                                ? SurfaceReconstruction::expectedTriangles(frames, choice.spacing, choice.resolution)
                                : SurfaceReconstruction::expectedTriangles(choice.spacing, choice.resolution);
    const double spacing_s = since(spacing_start);
    const bool coloured = scan.coloured();
    ColourSource colour_source;
    if (coloured) colour_source = keepColouredPoints(scan);

    tessaline_tools::RunOptions run_options;
    run_options.resolution = choice.resolution;
    run_options.quiet = !verbose;
    run_options.to_stderr = json;
    run_options.progress = !quiet && isatty(STDERR_FILENO);
    run_options.markers = markers;
    tessaline_tools::RunReport run = tessaline_tools::runReconstruction(std::move(frames), run_options);
    FinishedMesh finished = finishMesh(*run.mesh, choice.resolution, finishing);
    // The triangle soup is done with: its pages go back on a thread of their own while the mesh is
    // coloured and written, not on this one at the end.
    const ReleasedAside soup_released(std::move(run.mesh));
    const std::string warning = sizeWarning(choice, finished.statistics.triangles, expected);
    const bool empty = finished.statistics.triangles == 0;
    if (coloured && !empty) colourMesh(finished.mesh, colour_source, choice.resolution);
    std::unique_ptr<tessaline_tools::Comparison> comparison;
    if (reference && !empty) {
        const auto mesh_surface = tessaline_tools::meshSurface(finished.mesh, 300000);
        comparison.reset(new tessaline_tools::Comparison(
            tessaline_tools::compareSurfaces(*mesh_surface, *reference, {0.1, 0.5}, 1.0)));
    }
    tessaline_tools::scaleMesh(finished.mesh, 1.0f / to_mm);  // written in the input's unit
    const auto write_start = Clock::now();
    if (!empty) tessaline_tools::writeMesh(output, finished.mesh, scan.hasOrigin() ? &origin_in_unit : nullptr);
    const Timings timings = {read_s, spacing_s, since(write_start), normals.seconds, colour_source.seconds};

    if (!warning.empty()) std::fprintf(stderr, "tessaline: %s%s\n", empty ? "" : "warning: ", warning.c_str());
    if (json) {
        std::string text;
        Json j(text);
        const auto& s = finished.statistics;
        j.open()
            .count("frames", run.frames)
            .count("points", run.points)
            .count("blocks", static_cast<std::size_t>(run.blocks));
        if (choice.spacing.median > 0.0f)
            j.number("point_spacing_mm", choice.spacing.median);
        else
            j.null("point_spacing_mm");  // not measured: the spacing was estimated from a sample
        j.number("even_spacing_mm", choice.spacing.density);
        j.number("resolution_mm", choice.resolution)
            .count("scale_code", static_cast<std::size_t>(choice.spacing.scale_code));
        j.boolean("resolution_auto", choice.automatic);
        if (choice.automatic && choice.codes.resolution > 0.0f) {
            // The points given each code, and the wishes for finer cells.
            const SurfaceReconstruction::ScaleCodeChoice& c = choice.codes;
            j.open("scale_codes");
            for (int k = 0; k < 7; ++k) j.count(std::to_string(64 >> k).c_str(), c.points[k]);
            j.count("asked_finer", c.finer_wishes).count("asked_finer_given_8", c.finer_kept).close();
        } else {
            j.null("scale_codes");
        }
        j.count("triangles", s.triangles)
            .count("vertices", s.vertices)
            .count("degenerate_dropped", finished.degenerate);
        j.count("boundary_edges", s.boundary_edges).count("boundary_loops", s.boundary_loops).count("pieces", s.pieces);
        j.number("area", s.area).count("triangles_removed", finished.removed).count("holes_filled", finished.filled);
        j.number("expected_triangles_at_least", expected);
        if (run.marker_errors) {
            const MarkerSummary m = summariseMarkers(run);
            j.open("markers").text("file", markers_file).count("given", m.given).count("observations", m.observations);
            j.number("mean_error_mm", m.mean).number("max_error_mm", m.max).openList("frames_left_out");
            for (const std::size_t f : run.frames_left_out) j.count(nullptr, f);
            j.closeList().close();
        } else {
            j.null("markers");
        }
        if (normals.made) {
            const SurfaceReconstruction::NormalEstimate& e = normals.estimate;
            j.open("normals").count("estimated", e.points).count("neighbours", static_cast<std::size_t>(e.neighbours));
            j.count("toward_sensor", e.toward_sensor).count("propagated", e.propagated).count("left_out", e.left_out);
            j.count("too_few_neighbours", e.too_few_neighbours).count("no_clear_plane", e.no_clear_plane);
            j.count("pieces_from_extremes", e.pieces_from_extremes).number("reach_mm", e.reach).close();
        } else {
            j.null("normals");
        }
        if (coloured && !empty) {
            const SurfaceReconstruction::VertexColouring& c = colour_source.colouring;
            j.open("colours").count("points", c.points).count("near", c.near).count("widened", c.widened);
            j.count("nearest", c.nearest).close();
        } else {
            j.null("colours");
        }
        j.open("seconds").number("reading", read_s).number("normals", normals.seconds).number("spacing", spacing_s);
        j.number("blocks", run.stage_seconds[0]).number("fusion", run.stage_seconds[1]);
        j.number("meshing", run.stage_seconds[2]).number("finishing", finished.seconds);
        j.number("colouring", colour_source.seconds).number("writing", timings.writing).close();
        if (scan.hasOrigin())
            j.openList("origin_mm")
                .number(nullptr, scan.origin[0])
                .number(nullptr, scan.origin[1])
                .number(nullptr, scan.origin[2])
                .closeList();
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
        if (coloured && !empty) {
            const SurfaceReconstruction::VertexColouring& c = colour_source.colouring;
            std::printf(
                "colours from %zu coloured points: %zu vertices from the points within a cell edge, %zu within 2 "
                "or 4, %zu from the nearest point\n",
                c.points, c.near, c.widened, c.nearest);
        }
        if (scan.hasOrigin())
            std::printf(
                "origin %.15g %.15g %.15g (the input's unit): taken off the points before the run, added back "
                "to the mesh's vertices (%s)\n",
                origin_in_unit[0], origin_in_unit[1], origin_in_unit[2],
                endsWith(lower(output), ".obj") ? "OBJ, 15 digits" : "PLY, double x y z");
        if (comparison) printComparison(*comparison, "the reference", "mm");
        if (!empty) std::printf("wrote %s\n", output.c_str());
    }
    return empty ? 3 : 0;
}

void makeFolder(const std::string& folder) {
    if (isDirectory(folder)) return;
    if (mkdir(folder.c_str(), 0777) != 0) throw std::runtime_error(folder + ": cannot create the directory");
}

// The distance between the centres of neighbouring parts of `simulate --parts`: the part with its rings of
// markers is about 130 mm across.
constexpr double PART_PITCH = 160.0;

// "KxL" of --parts: K columns (along x) and L rows (along y), each from 1 to 1000.
std::pair<std::size_t, std::size_t> partGrid(const std::string& text) {
    std::size_t columns = 0, rows = 0;
    char x = 0, end = 0;
    if (std::sscanf(text.c_str(), "%zu%c%zu%c", &columns, &x, &rows, &end) != 3 || (x != 'x' && x != 'X') ||
        columns < 1 || rows < 1 || columns > 1000 || rows > 1000)
        throw std::runtime_error("--parts " + text + ": not a grid of parts such as 3x2 (K x L, each 1 to 1000)");
    return {columns, rows};
}

int simulate(int argc, char** argv) {
    cxxopts::Options options(
        "tessaline simulate",
        "Scans the built-in part with a simulated handheld laser-line scanner and writes the frames.");
    options.add_options()("o,output", "directory for the frames (frame_00000.ply, ...) and optimized-markers.txt",
                          cxxopts::value<std::string>())("points", "points of the whole scan",
                                                         cxxopts::value<std::size_t>()->default_value("600000"))(
        "seed", "seed of the scan's random streams", cxxopts::value<std::uint64_t>()->default_value("1"))(
        "misregister", "frames to register about 0.3 mm wrongly (spread over the scan), for the markers to find",
        cxxopts::value<std::size_t>()->default_value("0"))(
        "parts", "a grid of K x L parts on one table, each scanned on its own (the points shared among them)",
        cxxopts::value<std::string>()->default_value("1x1"))(
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
    const auto [columns, rows] = partGrid(args["parts"].as<std::string>());
    const std::string folder = args["output"].as<std::string>();
    makeFolder(folder);
    tessaline_tools::ScanSimulation settings;
    settings.target_points = args["points"].as<std::size_t>();
    settings.seed = args["seed"].as<std::uint64_t>();
    settings.misregistration_shift = tessaline_tools::NOTICEABLE_MISREGISTRATION;
    settings.misregistration_degrees = tessaline_tools::NOTICEABLE_MISREGISTRATION_DEGREES;
    const std::size_t parts = columns * rows;
    const std::size_t total_points = settings.target_points;
    const SurfaceReconstruction::MarkerInfos part_markers = tessaline_tools::simulatedMarkers();
    SurfaceReconstruction::MarkerInfos markers;
    std::size_t points = 0, frame_count = 0;
    // One part after the other, each written before the next is made: a scan of any size in the memory of
    // one part's frames. A grid of parts names its frames by part, so that the names sort in scan order.
    for (std::size_t part = 0; part < parts; ++part) {
        settings.seed = args["seed"].as<std::uint64_t>() + part;
        settings.target_points = (total_points + parts - 1) / parts;
        settings.misregistered =
            tessaline_tools::spreadMisregisteredFrames(args["misregister"].as<std::size_t>(), settings.target_points);
        const tessaline_tools::Frames frames = tessaline_tools::simulateScan(settings);
        const float shift[3] = {static_cast<float>(PART_PITCH * static_cast<double>(part % columns)),
                                static_cast<float>(PART_PITCH * static_cast<double>(part / columns)), 0.0f};
        const std::int32_t first_marker = static_cast<std::int32_t>(part * part_markers.ids.size());
        for (std::size_t i = 0; i < frames.size(); ++i) {
            SurfaceReconstruction::FrameDataWithInfo& frame = *frames[i];
            if (parts > 1) {
                for (SurfaceReconstruction::Vec3f& p : frame.xyz)
                    for (int k = 0; k < 3; ++k) p[k] += shift[k];
                for (int k = 0; k < 3; ++k) frame.frame_info.translation[k] += shift[k];
                for (std::int32_t& id : frame.marker_ids) id += first_marker;
            }
            char name[48];
            if (parts > 1)
                std::snprintf(name, sizeof(name), "part_%04zu_frame_%05zu.ply", part, i);
            else
                std::snprintf(name, sizeof(name), "frame_%05zu.ply", i);
            tessaline_tools::writePlyPointCloud(joinPath(folder, name), frame);
            points += frame.xyz.size();
        }
        frame_count += frames.size();
        for (std::size_t m = 0; m < part_markers.ids.size(); ++m) {
            markers.ids.push_back(static_cast<std::int32_t>(markers.ids.size()));
            SurfaceReconstruction::Vec3f at = part_markers.xyz[m];
            for (int k = 0; k < 3; ++k) at[k] += shift[k];
            markers.xyz.push_back(at);
            markers.nor.push_back(part_markers.nor[m]);
        }
        if (parts > 1)
            std::fprintf(stderr, "\rtessaline: part %zu of %zu simulated (%zu points)", part + 1, parts, points);
    }
    if (parts > 1) std::fprintf(stderr, "\n");
    tessaline_tools::writeOptimizedMarkers(joinPath(folder, MARKERS_FILE), markers);
    std::printf("wrote %zu frames, %zu points, to %s\n", frame_count, points, folder.c_str());
    if (!settings.misregistered.empty()) {
        std::printf("misregistered frames%s (about %g mm off):", parts > 1 ? " of each part" : "",
                    tessaline_tools::NOTICEABLE_MISREGISTRATION);
        for (std::size_t f : settings.misregistered) std::printf(" %zu", f);
        std::printf("\n");
    }
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
    const std::string mesh_path = joinPath(folder, "tessaline-demo.ply"),
                      picture_path = joinPath(folder, "tessaline-demo.png");
    tessaline_tools::checkOutput(mesh_path);  // before the run, not after it
    tessaline_tools::checkOutput(picture_path);

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
    choice.spacing = measureSpacing(frames, false);
    Timings timings = {simulate_s, std::chrono::duration<double>(Clock::now() - spacing_start).count(), 0.0};
    tessaline_tools::RunOptions run_options;
    run_options.resolution = resolution;
    run_options.quiet = args.count("verbose") == 0;
    run_options.progress = !quiet && isatty(STDERR_FILENO);
    const tessaline_tools::RunReport run = tessaline_tools::runReconstruction(std::move(frames), run_options);
    const Finishing finishing;
    const FinishedMesh finished = finishMesh(*run.mesh, resolution, finishing);
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
    const std::string picture = args["output"].as<std::string>();
    if (!tessaline_tools::isPngFileName(picture))
        throw std::runtime_error(picture + ": unknown picture format (use .png)");
    tessaline_tools::checkOutput(picture);
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

// A failure as the run reports it: one line on standard error and, with --json, an object on standard output
// with the text, the exit status and the library's own status where the library failed.
int fail(bool json, const std::string& text, int status, int library_status) {
    std::fprintf(stderr, "tessaline: %s\n", text.c_str());
    if (json) {
        std::string out;
        Json j(out);
        j.open().text("error", text).count("status", static_cast<std::size_t>(status));
        if (library_status != 0) j.count("library_status", static_cast<std::size_t>(library_status));
        j.close();
        std::printf("%s\n", out.c_str());
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
#if defined(__GLIBC__)
    // Freed arrays of less than 8 MiB stay in the C library's heaps, and so does up to 32 MiB of free
    // memory at a heap's top, for the next arrays to take: mapped afresh, each of their pages would be
    // faulted in and zeroed by the kernel again (a bunny run: 210,000 page faults against 130,000, 6 % of
    // its time). The peak holds what is kept: about 20 MiB more on the bunny and the 3 and 10 million point
    // parts. Sizes the user set stay.
    if (std::getenv("MALLOC_MMAP_THRESHOLD_") == nullptr && std::getenv("MALLOC_TRIM_THRESHOLD_") == nullptr &&
        std::getenv("GLIBC_TUNABLES") == nullptr) {
        mallopt(M_MMAP_THRESHOLD, 8 * 1024 * 1024);
        mallopt(M_TRIM_THRESHOLD, 32 * 1024 * 1024);
    }
#endif
    if (argc < 2) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    const std::string command = argv[1];
    const bool json = command == "reconstruct" && std::any_of(argv + 2, argv + argc, [](const char* argument) {
                          return std::strcmp(argument, "--json") == 0;
                      });
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
        return fail(json, e.what(), 2, 0);
    } catch (const tessaline_tools::RunFailure& e) {
        return fail(json, e.what(), 1, e.status());
    } catch (const std::bad_alloc&) {
        // The program's own work (reading, the kept colours, writing) ran out: reported as the library's
        // memory status is, so that a script sees one status for memory wherever it ran out.
        return fail(json, command + ": memory ran out; " + MEMORY_ADVICE, 1,
                    SurfaceReconstruction::TESSALINE_OUT_OF_MEMORY);
    } catch (const std::exception& e) {
        return fail(json, e.what(), 1, 0);
    }
}
