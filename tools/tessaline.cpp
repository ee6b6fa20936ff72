// tessaline: the command-line front of the library. `tessaline reconstruct` reads scan frames, runs
// the library through its public interface, as any application does, and writes the mesh.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <cxxopts.hpp>
#include <dirent.h>
#include <omp.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "MeshIO.h"
#include "PointCloudIO.h"
#include "RangeScan.h"
#include "tessaline/Tessaline.h"

using SurfaceReconstruction::FrameDataWithInfo;
using SurfaceReconstruction::MultiMeshData;
using SurfaceReconstruction::ProcessStepInfo;
using SurfaceReconstruction::Tessaline;

namespace {

using Clock = std::chrono::steady_clock;
using Frames = std::vector<std::shared_ptr<FrameDataWithInfo>>;

const char* USAGE =
    "Usage: tessaline COMMAND [OPTIONS]\n"
    "\n"
    "Turns registered laser-scan frames into one triangle mesh.\n"
    "\n"
    "Commands:\n"
    "  reconstruct INPUT... -o OUTPUT   scan frames in, mesh out (see 'tessaline reconstruct --help')\n"
    "  --check-device                   select the compute device and report the result\n"
    "  --version                        print the library version\n"
    "  --help                           show this text\n"
    "\n"
    "Examples:\n"
    "  tessaline reconstruct scans/bun.conf --units m -o bunny.ply\n"
    "  tessaline reconstruct frames/ --resolution 0.25 -o part.stl\n";

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
        for (const std::string& file : files) {
            tessaline_tools::PointCloudReadInfo info;
            frames.push_back(tessaline_tools::readPlyPointCloud(file, to_mm, scale_code, info));
            if (info.dropped > 0)
                std::fprintf(stderr, "tessaline: %s: %zu points with NaN coordinates or no normal left out\n", file.c_str(),
                             info.dropped);
        }
    }
    return frames;
}

// Keeps the library's diagnostic lines off the terminal while it lives.
class SilencedStdout {
public:
    SilencedStdout() {
        std::fflush(stdout);
        m_saved = dup(STDOUT_FILENO);
        const int null_fd = open("/dev/null", O_WRONLY);
        if (null_fd >= 0) {
            dup2(null_fd, STDOUT_FILENO);
            close(null_fd);
        }
    }
    ~SilencedStdout() {
        std::fflush(stdout);
        if (m_saved >= 0) {
            dup2(m_saved, STDOUT_FILENO);
            close(m_saved);
        }
    }

private:
    int m_saved = -1;
};

int reconstruct(int argc, char** argv) {
    cxxopts::Options options("tessaline reconstruct", "Scan frames in, one triangle mesh out.");
    options.positional_help("INPUT... -o OUTPUT");
    options.add_options()("o,output", "mesh file: .ply, .obj or .stl", cxxopts::value<std::string>())(
        "resolution", "edge of the finest cell, in millimetres", cxxopts::value<float>()->default_value("0.5"))(
        "units", "length unit of the input: mm, cm, m or in; the mesh is written in it too",
        cxxopts::value<std::string>()->default_value("mm"))(
        "scale-code", "cell size wish of every point: 1, 2, 4, 8, 16, 32 or 64", cxxopts::value<int>()->default_value("8"))(
        "threads", "worker threads (0: all cores)", cxxopts::value<int>()->default_value("0"))(
        "quiet", "silence the library's diagnostic lines")("h,help", "show this text")(
        "inputs", "PLY point clouds with normals, directories of them, or a .conf scan list",
        cxxopts::value<std::vector<std::string>>());
    options.parse_positional({"inputs"});
    const cxxopts::ParseResult args = options.parse(argc, argv);
    if (args.count("help")) {
        std::printf("%s\nExamples:\n  tessaline reconstruct scans/bun.conf --units m -o bunny.ply\n"
                    "  tessaline reconstruct frames/ --resolution 0.25 -o part.stl\n",
                    options.help().c_str());
        return 0;
    }
    if (!args.count("inputs")) throw std::runtime_error("no input given");
    if (!args.count("output")) throw std::runtime_error("no output given (-o FILE.ply|.obj|.stl)");
    const std::string output = args["output"].as<std::string>();
    const std::string ext = lower(output.substr(output.find_last_of('.') == std::string::npos ? output.size() : output.find_last_of('.')));
    if (ext != ".ply" && ext != ".obj" && ext != ".stl")
        throw std::runtime_error(output + ": unknown mesh format (use .ply, .obj or .stl)");
    const float to_mm = unitToMillimetres(args["units"].as<std::string>());
    const int scale_code = args["scale-code"].as<int>();
    if (scale_code != 1 && scale_code != 2 && scale_code != 4 && scale_code != 8 && scale_code != 16 && scale_code != 32 &&
        scale_code != 64)
        throw std::runtime_error("--scale-code must be 1, 2, 4, 8, 16, 32 or 64");
    const float resolution_mm = args["resolution"].as<float>();  // the library works in millimetres
    if (!(resolution_mm > 0.0f)) throw std::runtime_error("--resolution must be above 0");
    if (args["threads"].as<int>() > 0) omp_set_num_threads(args["threads"].as<int>());
    const bool quiet = args.count("quiet") > 0;

    const auto start = Clock::now();
    const Frames frames = readInputs(args["inputs"].as<std::vector<std::string>>(), to_mm, scale_code);
    std::size_t points = 0;
    for (const auto& f : frames) points += f->xyz.size();
    if (points == 0) throw std::runtime_error("the input holds no points");
    const double read_s = std::chrono::duration<double>(Clock::now() - start).count();

    Tessaline tessaline;
    if (tessaline.init() != 0) throw std::runtime_error("no usable compute device: " + tessaline.getLastErrorMsg());
    tessaline.setResolution(resolution_mm);
    const char* stage_names[4] = {"", "cutting into blocks", "fusing blocks", "meshing"};
    double stage_start[5] = {0, 0, 0, 0, 0};
    int blocks = 0;
    const auto run_start = Clock::now();
    std::function<int(ProcessStepInfo&)> progress = [&](ProcessStepInfo& step) {
        const double t = std::chrono::duration<double>(Clock::now() - run_start).count();
        if (step.cur_step >= 1 && step.cur_step <= 3 && stage_start[step.cur_step] == 0.0) stage_start[step.cur_step] = t;
        if (step.cur_step == 2) blocks = step.total_sub_steps;
        if (step.cur_step == 2 && step.total_sub_steps > 0)
            std::fprintf(stderr, "\r[%s] block %d of %d  %.1f s   ", stage_names[2], step.cur_sub_step + 1,
                         step.total_sub_steps, t);
        else
            std::fprintf(stderr, "\r[%s]  %.1f s                    ", stage_names[step.cur_step < 1 || step.cur_step > 3 ? 0 : step.cur_step], t);
        return 0;
    };
    tessaline.setProcessStepCallBack(progress);
    for (const auto& frame : frames) {
        if (tessaline.addScanFrame_ALL(frame) != 0) throw std::runtime_error("frame refused: " + tessaline.getLastErrorMsg());
    }
    auto mesh = std::make_shared<MultiMeshData>();
    int status;
    {
        std::unique_ptr<SilencedStdout> silence(quiet ? new SilencedStdout() : nullptr);
        status = tessaline.process(mesh);
    }
    stage_start[4] = std::chrono::duration<double>(Clock::now() - run_start).count();
    std::fprintf(stderr, "\n");
    if (status != 0)
        throw std::runtime_error("reconstruction failed with status " + std::to_string(status) + ": " +
                                 tessaline.getLastErrorMsg());
    tessaline.deInit();

    const tessaline_tools::WeldedMesh welded = tessaline_tools::weldMesh(*mesh, resolution_mm * 1e-4f, 1.0f / to_mm);
    tessaline_tools::writeWeldedMesh(output, welded);
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf("frames %zu, points %zu, blocks %d\n", frames.size(), points, blocks);
    std::printf("triangles %zu (%zu degenerate dropped), vertices %zu, boundary edges %zu\n", welded.triangles.size(),
                welded.dropped, welded.vertices.size(), tessaline_tools::countBoundaryEdges(welded));
    std::printf("time: reading %.2f s, blocks %.2f s, fusion %.2f s, meshing %.2f s; peak memory %.0f MiB\n", read_s,
                stage_start[2] - stage_start[1], stage_start[3] - stage_start[2], stage_start[4] - stage_start[3],
                usage.ru_maxrss / 1024.0);
    std::printf("wrote %s\n", output.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
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
            std::printf("tessaline %s\n", TESSALINE_VERSION_STRING);
            return 0;
        }
        if (command == "--check-device") {
            std::string message;
            const int status = SurfaceReconstruction::InitGPUCUDA(message);
            std::printf("device selection: %s (status %d)\n", message.c_str(), status);
            return status == 0 ? 0 : 1;
        }
        if (command == "reconstruct") return reconstruct(argc - 1, argv + 1);
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
